#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "tests/e2e/differential.h"

// That the differential test finds what it is there to find: each of these makes one protocol's
// side a little different, or both alike, which must show and be brought down to its cause.
namespace tq::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

using Fault = std::function<Answer(Side&, const Operation&)>;

class FaultySide : public Side {
 public:
  FaultySide(std::unique_ptr<Side> side, Fault fault)
      : side_(std::move(side)), fault_(std::move(fault)) {}
  Answer perform(const Operation& operation) override { return fault_(*side_, operation); }

 private:
  std::unique_ptr<Side> side_;
  Fault fault_;
};

Fault changing(const std::function<void(Answer&)>& change) {
  return [change](Side& side, const Operation& operation) {
    Answer answer = side.perform(operation);
    change(answer);
    return answer;
  };
}

// Says yes and does nothing.
Fault swallowing(Verb verb) {
  return [verb](Side& side, const Operation& operation) {
    if (operation.verb != verb) return side.perform(operation);
    Operation status = operation;
    status.verb = Verb::ServerStatus;
    status.kind = tq::comm::ClientRequest::GET_STATUS;
    status.collection.clear();
    status.byOtherName = false;
    return side.perform(status);
  };
}

struct Case {
  const char* name;
  Fault fault;
  std::size_t longest;  // operations that the fault needs to show
};

std::ostream& operator<<(std::ostream& out, const Case& fault) { return out << fault.name; }

std::vector<Case> faults() {
  return {
      {"LosesTheLastHit", changing([](Answer& answer) {
         if (!answer.hits.empty()) answer.hits.pop_back();
       }),
       2},
      {"DoublesAHit", changing([](Answer& answer) {
         if (!answer.hits.empty()) answer.hits.push_back(answer.hits.back());
       }),
       2},
      {"SwapsTwoHits", changing([](Answer& answer) {
         if (answer.hits.size() > 1) std::swap(answer.hits[0], answer.hits[1]);
       }),
       3},
      {"MovesAScoreByAThousandth", changing([](Answer& answer) {
         if (!answer.hits.empty() && answer.hits.back().score > 0)
           answer.hits.back().score += 0.001;
       }),
       2},
      {"LosesAParseResult", changing([](Answer& answer) {
         if (!answer.parsed.empty()) answer.parsed.pop_back();
       }),
       2},
      {"SaysAnErrorInOtherWords", changing([](Answer& answer) {
         if (!answer.failure.empty()) answer.failure.front().text += ".";
       }),
       1},
      {"ReportsAnErrorAsSuccess", changing([](Answer& answer) { answer.failure.clear(); }), 1},
      {"SaysThatAStreamWasCutOff", changing([](Answer& answer) {
         if (!answer.hits.empty()) answer.complete = false;
       }),
       2},
      {"DoesNotAdd", swallowing(Verb::AddDocument), 2},
      {"DoesNotDelete", swallowing(Verb::DeleteDocument), 3},
      {"DoesNotUpdateTheIndex", swallowing(Verb::UpdateIndex), 3},
      {"DoesNotDrop", swallowing(Verb::DropCollection), 2},
  };
}

class Oracle : public ::testing::TestWithParam<Case> {};

INSTANTIATE_TEST_SUITE_P(, Oracle, ::testing::ValuesIn(faults()),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(Oracle, FindsAndShortensTheFault) {
  Arena arena;
  Duel duel(arena, [](std::unique_ptr<Side> side) {
    return std::make_unique<FaultySide>(std::move(side), GetParam().fault);
  });
  std::uint64_t seed = 0;
  while (seed < 200 && !duel.fight(randomSequence(seed), isBatching(seed))) ++seed;
  ASSERT_LT(seed, 200U) << "the fault was never found";

  const auto fails = [&](const Sequence& sequence) {
    return duel.fight(sequence, isBatching(seed)).has_value();
  };
  const Sequence least = shortest(randomSequence(seed), fails);
  EXPECT_TRUE(fails(least)) << least;
  EXPECT_LE(least.size(), GetParam().longest) << least;
  for (std::size_t i = 0; i < least.size(); ++i) {
    Sequence without = least;
    without.erase(without.begin() + static_cast<std::ptrdiff_t>(i));
    EXPECT_FALSE(fails(without)) << "operation " << i + 1 << " is not needed:\n" << least;
  }
  const std::string number = std::to_string(seed);
  EXPECT_THAT(disagreement(duel, seed),
              AllOf(HasSubstr("seed " + number), HasSubstr("KRUCOMM_SEED=" + number),
                    HasSubstr(" operations:\n  1. "), HasSubstr("differ"), HasSubstr("HTTP:"),
                    HasSubstr("binary:")));
}

// What both protocols do wrong alike, only the model can tell.

using Spoiling = std::function<void(const Operation&, Answer&)>;

Fault spoiling(Verb verb, const Spoiling& spoil) {
  return [verb, spoil](Side& side, const Operation& operation) {
    Answer answer = side.perform(operation);
    if (operation.verb == verb && answer.success) spoil(operation, answer);
    return answer;
  };
}

Fault withoutParameter(Verb verb, const char* name) {
  return [verb, name](Side& side, const Operation& operation) {
    Operation without = operation;
    if (operation.verb == verb) {
      std::erase_if(without.parameters, [&](const auto& one) { return one.first == name; });
    }
    return side.perform(without);
  };
}

// A batch that is sent again counts as another one.
Answer applyAgain(Side& side, const Operation& operation) {
  static int count = 0;
  Operation other = operation;
  if (operation.verb == Verb::Batch) {
    other.parameters.emplace_back("batch", "another " + std::to_string(++count));
  }
  Answer answer = side.perform(other);
  // They name the batch.
  for (Said& said : answer.failure) said.text.clear();
  return answer;
}

Answer searchInOne(Side& side, const Operation& operation) {
  Operation one = operation;
  one.others.clear();
  return side.perform(one);
}

Answer restoreWithoutDocument(Side& side, const Operation& operation) {
  Answer answer = side.perform(operation);
  if (operation.verb != Verb::Restore || !answer.success) return answer;
  Operation deletion;
  deletion.verb = Verb::DeleteDocument;
  deletion.kind = tq::comm::ClientRequest::DELETE_DOCUMENT;
  deletion.collection = operation.collection;
  deletion.metadata = {{"title", ""}};
  deletion.key = "k3";
  side.perform(deletion);
  return answer;
}

Answer forgetStates(Side& side, const Operation& operation) {
  Answer answer = side.perform(operation);
  if (!answer.failure.empty() && answer.failure.front().id == "ZVK0035E") {
    answer.failure.clear();
    answer.success = true;
  }
  return answer;
}

std::vector<Case> commonFaults() {
  const auto losesALine = [](const Operation&, Answer& answer) {
    if (!answer.parsed.empty()) answer.parsed.pop_back();
  };
  return {
      {"IgnoresTheNewMark", withoutParameter(Verb::Batch, "newMark"), 3},
      {"IgnoresTheExpectedMark", withoutParameter(Verb::Batch, "expectedMark"), 3},
      {"IgnoresTheRefresh", withoutParameter(Verb::CreateCollection, "refresh"), 2},
      {"AppliesABatchTwice", applyAgain, 4},
      {"RepeatsTheFirstHitOfAPage",
       spoiling(Verb::Page,
                [](const Operation&, Answer& answer) {
                  if (answer.parsed.empty()) return;
                  const Parsed first = answer.parsed.front();
                  answer.parsed.insert(answer.parsed.begin(), first);
                }),
       5},
      {"GivesPagesOfAStateThatHasGone", forgetStates, 6},
      {"RestoresWithoutADocument", restoreWithoutDocument, 5},
      {"SearchesInOneCollectionOnly", searchInOne, 7},
      {"LosesADigest", spoiling(Verb::Digest, losesALine), 3},
      {"LosesACollection", spoiling(Verb::CollectionList, losesALine), 2},
      {"LosesABackup", spoiling(Verb::BackupList, losesALine), 3},
      {"CountsOneHitLess",
       spoiling(Verb::Count,
                [](const Operation&, Answer& answer) {
                  if (!answer.parsed.empty()) {
                    answer.parsed.front().messageText = "hits=99";
                  }
                }),
       2},
      {"FindsNoDocumentToMatch",
       spoiling(Verb::Match, [](const Operation&, Answer& answer) { answer.hits.clear(); }), 2},
      {"TellsOtherValues",
       spoiling(Verb::Hits,
                [](const Operation&, Answer& answer) {
                  for (Parsed& line : answer.parsed) {
                    if (line.messageId == "ZVK0105I") line.messageText += "!";
                  }
                }),
       4},
  };
}

class OracleOfBoth : public ::testing::TestWithParam<Case> {};

INSTANTIATE_TEST_SUITE_P(, OracleOfBoth, ::testing::ValuesIn(commonFaults()),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(OracleOfBoth, FindsWhatTheSidesAgreeOn) {
  const Duel::Disguise disguise = [](std::unique_ptr<Side> side) {
    return std::make_unique<FaultySide>(std::move(side), GetParam().fault);
  };
  Arena arena;
  Duel duel(arena, disguise, disguise);
  std::uint64_t seed = 0;
  while (seed < 300 && !duel.fight(randomSequence(seed), isBatching(seed))) ++seed;
  ASSERT_LT(seed, 300U) << "the fault was never found";
  const Sequence least = shortest(randomSequence(seed), [&](const Sequence& sequence) {
    return duel.fight(sequence, isBatching(seed)).has_value();
  });
  EXPECT_LE(least.size(), GetParam().longest) << least;
  EXPECT_THAT(disagreement(duel, seed),
              AllOf(HasSubstr("seed " + std::to_string(seed)), HasSubstr(" operations:\n  1. "),
                    HasSubstr("the server does not do what it should"), HasSubstr("expected: ")));
}

TEST(OracleWithoutAFault, FindsNothing) {
  Arena arena;
  Duel duel(arena, [](std::unique_ptr<Side> side) { return side; });
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    const std::string report = disagreement(duel, seed);
    EXPECT_TRUE(report.empty()) << report;
  }
}

// The shortening itself, on sequences that fail for a known reason.

Sequence namedOperations(const std::string& names) {
  Sequence sequence;
  for (const char name : names) {
    sequence.emplace_back();
    sequence.back().key = name;
  }
  return sequence;
}

std::string namesOf(const Sequence& sequence) {
  std::string names;
  for (const Operation& operation : sequence) names += operation.key;
  return names;
}

TEST(Shortening, KeepsWhatTheFailureNeedsInItsOrder) {
  // Fails when a comes before b and there is a c anywhere.
  const auto fails = [](const Sequence& sequence) {
    const std::string names = namesOf(sequence);
    const std::size_t a = names.find('a');
    return a != std::string::npos && names.find('b', a) != std::string::npos &&
           names.find('c') != std::string::npos;
  };
  EXPECT_EQ(namesOf(shortest(namedOperations("xxcxaxxxxbxxaxb"), fails)).size(), 3U);
  EXPECT_EQ(namesOf(shortest(namedOperations("xaxxxxxxbxxxxxc"), fails)), "abc");
  EXPECT_EQ(namesOf(shortest(namedOperations("cab"), fails)), "cab");
}

TEST(Shortening, LeavesOutWhatBecomesNeedlessLater) {
  // The d is needed as long as the e is there, which nothing needs.
  const auto fails = [](const Sequence& sequence) {
    const std::string names = namesOf(sequence);
    const bool has = names.find('a') != std::string::npos;
    return has && (names.find('e') == std::string::npos || names.find('d') != std::string::npos);
  };
  EXPECT_EQ(namesOf(shortest(namedOperations("daxxe"), fails)), "a");
}

}  // namespace
}  // namespace tq::test
