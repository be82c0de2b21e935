#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xapian.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>

#include "server/base/errors.h"
#include "server/store/batchMemory.h"
#include "server/store/indexSums.h"
#include "server/store/indexUndo.h"
#include "server/store/journalScan.h"
#include "server/store/localStore.h"
#include "tests/server/changeHistory.h"
#include "tests/server/store/killPoint.h"
#include "tests/support/sanitized.h"
#include "tests/support/temporaryDirectory.h"

// The store, killed in front of every single call with which it changes a file, and in the middle
// of every write.
//
// KRUCOMM_SEED=N runs the history of that seed and nothing else, KRUCOMM_LONG=1 ten times as many.
namespace corvaned {
namespace {

using test::carryOut;
using test::KillPoint;
using test::Model;
using test::Progress;
using test::Step;
using test::Steps;
using test::StepSource;
using Kind = Step::Kind;

StoreLimits smallLimits(std::size_t parts) {
  StoreLimits limits;
  limits.parts = parts;
  // So that deletions reach the index on their own as well, and updates need several transactions.
  limits.hiddenKeys = 1;
  limits.index.batchChanges = 2;
  return limits;
}

Refresh refreshOf(const std::string& collection) {
  if (!test::isSearchableAtOnce(collection)) return {};
  return {Refresh::Mode::Immediate, {}};
}

class StoreSubject : public test::Subject {
 public:
  StoreSubject(const std::filesystem::path& directory, std::size_t parts)
      : store_(directory, smallLimits(parts)) {}

  bool apply(const Step& step) override {
    switch (step.kind) {
      case Kind::Create:
        store_.createCollection(step.collection, "en_us", refreshOf(step.collection));
        break;
      case Kind::Drop:
        store_.deleteCollection(step.collection);
        queued_.erase(step.collection);
        break;
      case Kind::Add:
        store_.addDocument(step.collection, documentOf(step));
        break;
      case Kind::Queue:
        store_.queueDocument(step.collection, documentOf(step));
        queued_[step.collection].push_back(step.key);
        return false;
      case Kind::Report:
        takeReport(step.collection);
        break;
      case Kind::Remove:
        store_.deleteDocument(step.collection, step.key);
        break;
      case Kind::Update:
        store_.updateIndex(step.collection);
        break;
      case Kind::Batch:
        store_.apply(step.collection, test::batchOf(step));
        break;
    }
    return true;
  }

  std::optional<CollectionState> state(const std::string& collection) override {
    try {
      return store_.state(collection);
    } catch (const ServerError& error) {
      if (error.kind() == ErrorKind::UnknownCollection) return std::nullopt;
      throw;
    }
  }

  std::set<std::string> search(const std::string& collection, const std::string& query) override {
    SearchQuery wanted;
    wanted.text = query;
    const auto hits = store_.search(collection, wanted);
    std::set<std::string> keys;
    for (Hit hit; hits->next(hit);) keys.insert(hit.key);
    return keys;
  }

  bool knows(const Step& batch) override {
    try {
      return store_.batchOutcome(batch.collection, batch.word).refused.count == 0;
    } catch (const ServerError& error) {
      if (error.kind() == ErrorKind::UnknownBatch) return false;
      throw;
    }
  }

 private:
  void takeReport(const std::string& collection) {
    std::vector<std::string> reported;
    for (const ParseOutcome& outcome : store_.takeParseOutcomes(collection)) {
      reported.push_back(outcome.key + outcome.messageText);
    }
    if (reported != std::exchange(queued_[collection], {})) {
      throw std::runtime_error("the parse results are not those of the documents that were queued");
    }
  }

  LocalStore store_;
  std::map<std::string, std::vector<std::string>> queued_;
};

/// What became of a process that was to carry out steps.
struct Outcome {
  Progress progress;
  bool killed = false;
};

class StoreKillTest : public ::testing::Test {
 protected:
  // What a kill leaves is logged when it is cleared away.
  StoreKillTest() { spdlog::set_level(spdlog::level::off); }

  /// What a process does that is killed. It tells of each step: 'y' when that is acknowledged.
  using Work = std::function<void(const std::function<void(char)>& tell)>;

  // Tells of each step through a call that no kill point counts.
  [[noreturn]] static void runChild(KillPoint point, int report, const Work& work) {
    try {
      test::dieAt(point);
      work([&](char acknowledged) { ::syscall(SYS_write, report, &acknowledged, 1); });
      ::_exit(0);
    } catch (const std::exception& error) {
      std::cerr << error.what() << std::endl;
      ::_exit(1);
    }
  }

  Outcome run(const std::filesystem::path& directory, const Steps& steps, KillPoint point) const {
    Outcome result = runProcess(point, [&](const std::function<void(char)>& tell) {
      StoreSubject subject(directory, parts_);
      // Opens the collections.
      for (const char* name : {"a", "b", "once"}) subject.state(name);
      for (const Step& step : steps) tell(subject.apply(step) ? 'y' : 'n');
    });
    if (result.killed) result.progress.sent = std::min(result.progress.sent + 1, steps.size());
    return result;
  }

  static Outcome runProcess(KillPoint point, const Work& work) {
    std::array<int, 2> pipe{};
    if (::pipe(pipe.data()) != 0) throw std::runtime_error("pipe");
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork");
    if (child == 0) runChild(point, pipe[1], work);
    ::close(pipe[1]);
    Outcome result;
    for (char acknowledged = 0; ::read(pipe[0], &acknowledged, 1) == 1;) {
      ++result.progress.sent;
      if (acknowledged == 'y') result.progress.acknowledged = result.progress.sent;
    }
    ::close(pipe[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    result.killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    if (!result.killed && status != 0) throw std::runtime_error("a step was refused");
    return result;
  }

  std::filesystem::path freshCopy() const {
    std::filesystem::path copy = directory_.path() / "copy";
    std::filesystem::remove_all(copy);
    std::filesystem::copy(directory_.path() / "data", copy,
                          std::filesystem::copy_options::recursive);
    return copy;
  }

  // Carries out the steps on a copy of the store and kills it there; then opens the copy, at times
  // killing that as well, and looks whether it holds what it should and can be worked with. False
  // when the steps were at their end first.
  bool survives(const Model& before, const Steps& steps, KillPoint point, StepSource& source) {
    const std::filesystem::path copy = freshCopy();
    const Outcome first = run(copy, steps, point);
    run(copy, {}, {source.number(8), point.halfWritten});
    std::optional<StoreSubject> subject(std::in_place, copy, parts_);
    auto after = expectExplained(*subject, before, steps, first.progress);
    if (!after) return false;
    subject.emplace(copy, parts_);
    EXPECT_TRUE(repeatsHarmlessly(*subject, *after, steps, first.progress))
        << describe(*after, steps, first.progress, {});
    const Steps more = source.make(*after, 5);
    carryOut(*subject, more);
    expectExplained(*subject, *after, more, {more.size(), more.size()});
    return first.killed;
  }

  static std::optional<Model> expectExplained(test::Subject& subject, const Model& before,
                                              const Steps& steps, Progress progress) {
    const test::Collections found = lookAt(subject, before, steps);
    auto after = explain(before, steps, progress, found, {});
    EXPECT_TRUE(after) << describe(before, steps, progress, found);
    return after;
  }

  // Opens copies of a store that was killed while both databases of "a" committed, and kills that
  // in front of each call, too. All keys must have the old word whatever comes of it.
  void expectUndone(const std::filesystem::path& killed, const std::set<std::string>& all) const {
    const std::filesystem::path again = directory_.path() / "again";
    for (std::uint64_t call = 1;; ++call) {
      SCOPED_TRACE("call " + std::to_string(call) + " of the opening");
      std::filesystem::remove_all(again);
      std::filesystem::copy(killed, again, std::filesystem::copy_options::recursive);
      const Outcome outcome = run(again, {}, {call, call % 2 == 0});
      StoreSubject subject(again, parts_);
      EXPECT_EQ(subject.search("a", "old"), all);
      EXPECT_TRUE(subject.search("a", "new").empty());
      EXPECT_FALSE(IndexUndo::isPending(again / "collections" / "a"));
      if (HasFailure() || !outcome.killed) break;
    }
  }

  // The seeds' histories, killed at each call in turn; under a sanitizer at one of some in turn, as
  // what it looks for is not what the calls leave in files.
  void killEverywhere(std::uint64_t seedCount, bool earlierForm) {
    for (const std::uint64_t seed : test::seeds(seedCount)) {
      SCOPED_TRACE("KRUCOMM_SEED=" + std::to_string(seed));
      std::filesystem::remove_all(directory_.path() / "data");
      StepSource source(seed);
      const Model before = prepare(source.make({}, 20));
      if (earlierForm) makeEarlier();
      const Steps steps = source.make(before, 8);
      for (std::uint64_t call = 1;; call += kStep) {
        SCOPED_TRACE("call " + std::to_string(call));
        bool killed = false;
        ASSERT_NO_THROW({
          killed = survives(before, steps, {call, false}, source);
          survives(before, steps, {call, true}, source);
        });
        if (HasFailure()) return;
        if (!killed) {
          EXPECT_GT(call, 1U) << "the calls are not counted";
          break;
        }
      }
    }
  }

  // Turns the collections into those of an earlier version: no numbers, no checksums, and an index
  // that has to be made anew.
  void makeEarlier() const {
    for (const auto& entry :
         std::filesystem::directory_iterator(directory_.path() / "data" / "collections")) {
      const std::filesystem::path& collection = entry.path();
      Xapian::WritableDatabase((collection / "index").string()).set_metadata("schema", "1");
      std::filesystem::remove(JournalMark::pathIn(collection));
      std::filesystem::remove(BatchMemory::pathIn(collection));
      std::filesystem::remove(IndexSums::pathIn(collection));
      std::filesystem::remove(IndexSums::changingPathIn(collection));
      for (std::uint64_t number = 1; number < 100; ++number) {
        const std::filesystem::path segment = segmentPath(collection, number);
        if (std::filesystem::exists(segment)) makeEarlier(segment);
      }
    }
  }

  static std::string earlierEntry(const Change& change) {
    const std::string numbered = encodeEntry(change);
    return "KRJ1" + numbered.substr(4, 8) + numbered.substr(32);
  }

  static void makeEarlier(const std::filesystem::path& segment) {
    std::string bytes;
    SegmentReader reader(segment);
    while (const auto piece = reader.next()) {
      if (piece->change.kind != ChangeKind::Batch) {
        bytes += earlierEntry(piece->change);
        continue;
      }
      const BatchChanges& changes = piece->change.batch->changes;
      for (const Document& each : changes.documents) bytes += earlierEntry({ChangeKind::Put, each});
      for (const std::string& key : changes.deletions) {
        bytes += earlierEntry({ChangeKind::Remove, {key, {}, {}}});
      }
    }
    std::ofstream(segment, std::ios::binary | std::ios::trunc) << bytes;
  }

  // Makes the store from which the histories go on.
  Model prepare(const Steps& steps) {
    StoreSubject subject(directory_.path() / "data", parts_);
    carryOut(subject, steps);
    Model model;
    for (const Step& step : steps) model.apply(step);
    return model;
  }

  static constexpr std::uint64_t kStep = tq::test::kSanitized ? 19 : 1;

  tq::test::TemporaryDirectory directory_;
  // How many databases share the documents of a collection.
  std::size_t parts_ = 1;
};

TEST_F(StoreKillTest, EveryCallOfRandomHistoriesMayBeTheLast) { killEverywhere(4, false); }

TEST_F(StoreKillTest, EveryCallMayBeTheLastWhileAnEarlierFormIsTakenOver) {
  killEverywhere(1, true);
}

TEST_F(StoreKillTest, EveryCallMayBeTheLastWhenIndexesHaveTwoDatabases) {
  parts_ = 2;
  killEverywhere(1, false);
}

// Nothing has to be brought in once more for that.
TEST_F(StoreKillTest, BatchIsInBothDatabasesOfAnIndexOrInNone) {
  parts_ = 2;
  const std::set<std::string> all{"k1", "k2", "k3", "k4"};
  const auto batch = [&](const std::string& word) {
    return Step{Kind::Batch, "a", {}, word, {all.begin(), all.end()}};
  };
  const Step update{Kind::Update, "a", {}, {}};
  prepare({{Kind::Create, "a", {}, {}}, batch("old"), update});
  const Steps steps{batch("new"), update};
  std::size_t before = 0;
  std::size_t halfCommitted = 0;
  std::size_t after = 0;
  constexpr std::uint64_t kEach = tq::test::kSanitized ? 3 : 1;
  for (std::uint64_t call = 1;; call += kEach) {
    SCOPED_TRACE("call " + std::to_string(call));
    const std::filesystem::path copy = freshCopy();
    const Outcome outcome = run(copy, steps, {call, call % 2 == 0});
    if (IndexUndo::isPending(copy / "collections" / "a")) {
      ++halfCommitted;
      expectUndone(copy, all);
    }
    StoreSubject subject(copy, parts_);
    const bool isAfter = subject.search("a", "old").empty();
    EXPECT_EQ(subject.search("a", isAfter ? "new" : "old"), all);
    EXPECT_TRUE(subject.search("a", isAfter ? "old" : "new").empty());
    ++(isAfter ? after : before);
    if (HasFailure() || !outcome.killed) break;
  }
  EXPECT_GT(before, 10 / kEach);
  EXPECT_GT(halfCommitted, 5 / kEach);
  EXPECT_GT(after, 1 / kEach);
}

// Whatever is set has the old value or the new one, and the new one once that was acknowledged.
TEST_F(StoreKillTest, DefaultsOfDocumentsAreReplacedInOneStep) {
  const DocumentReading none{};
  const DocumentReading german{{TextType::Html, "de"}, "windows-1252"};
  const DocumentReading french{{TextType::Xml, "fr"}, ""};
  const std::vector<std::pair<DocumentReading, DocumentReading>> changes{
      {none, german}, {german, french}, {french, none}};
  for (const auto& change : changes) {
    const DocumentReading& before = change.first;
    const DocumentReading& after = change.second;
    std::filesystem::remove_all(directory_.path() / "data");
    {
      LocalStore store(directory_.path() / "data", {});
      store.createCollection("a", "en");
      store.setDocumentDefaults("a", before);
    }
    std::set<bool> seen;
    for (std::uint64_t call = 1;; ++call) {
      SCOPED_TRACE("call " + std::to_string(call));
      const std::filesystem::path copy = freshCopy();
      const Outcome outcome =
          runProcess({call, call % 2 == 0}, [&](const std::function<void(char)>& tell) {
            LocalStore store(copy, {});
            store.setDocumentDefaults("a", after);
            tell('y');
            // Nothing that is still to come may undo it.
            store.closeCollection("a");
          });
      LocalStore store(copy, {});
      const DocumentReading found = store.documentDefaults("a");
      EXPECT_TRUE(found == after || (found == before && outcome.progress.acknowledged == 0));
      seen.insert(found == after);
      if (HasFailure() || !outcome.killed) break;
    }
    EXPECT_EQ(seen.size(), 2U);
  }
}

}  // namespace
}  // namespace corvaned
