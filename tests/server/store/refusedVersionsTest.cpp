#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/store/collection.h"
#include "tests/support/temporaryDirectory.h"

// What becomes of documents that come after each other under one key, some of which the index
// cannot take. It must not depend on which of them come in one update: after a restart that is more
// than before.
namespace corvaned {
namespace {

enum class Cut {
  AllAtOnce,
  AllAfterARestart,
  EachAlone,
  EachAloneAndAllAgainAfterARestart,
  /// All at once, by an update that is stopped in its first step, by one that is stopped in its
  /// second, and so on.
  InEachStep,
};

/// A key for each row of up to four changes, or of three where an update is begun once for each
/// step that it takes: 'g' adds a document, 'b' one that the index cannot take, 'd' deletes it.
/// Every other key's changes come in batches.
class RefusedVersionsTest : public ::testing::TestWithParam<std::tuple<Refresh::Mode, Cut>> {
 protected:
  RefusedVersionsTest() {
    for (unsigned i = 0; i < 4000; ++i) tooMany_ += std::to_string(i * 2654435761U) + ' ';
    limits_.index.memory = memory_;
    // In several transactions, and with more than one look for what comes before.
    limits_.index.batchChanges = 25;
    limits_.index.earlierDocuments = 2;
    std::vector<std::string> rows{""};
    for (std::size_t i = 0; i < rows.size(); ++i) {
      if (rows[i].size() == steps()) continue;
      for (const char* change : {"g", "b", "d"}) rows.push_back(rows[i] + change);
    }
    rows_.assign(rows.begin() + 1, rows.end());
  }
  ~RefusedVersionsTest() override { collection_.reset(); }

  static std::size_t steps() { return std::get<1>(GetParam()) == Cut::InEachStep ? 3 : 4; }

  static std::string textOf(std::size_t step) { return "fox" + std::to_string(step); }

  /// Which document of the row is searchable in the end; nothing if none is.
  static std::string left(const std::string& row) {
    std::string text;
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (row[i] == 'g') text = textOf(i);
      if (row[i] == 'd') text.clear();
    }
    return text;
  }

  void reopen() {
    collection_.reset();
    collection_.emplace("c", directory_.path(), limits_, std::make_shared<ParseOutcomes>(10000),
                        stopping_);
  }

  void send(std::size_t step) {
    Batch batch;
    batch.name = "step-" + std::to_string(step);
    bool inBatch = false;
    bool batchIsRefused = false;
    for (const std::string& row : rows_) {
      inBatch = !inBatch;
      if (step >= row.size()) continue;
      if (inBatch && isRefused(row, step)) batchIsRefused = true;
      const Document document{row, {}, row[step] == 'g' ? textOf(step) : tooMany_};
      if (row[step] == 'd' && inBatch) {
        batch.changes.deletions.push_back(row);
      } else if (inBatch) {
        batch.changes.documents.push_back(document);
      } else if (row[step] == 'd') {
        keep(collection_->remove(row, false), good_);
      } else {
        keep(collection_->add(document), isRefused(row, step) ? refused_ : good_);
      }
    }
    // An update takes several slices for so many keys, where it may.
    for (int i = 0; i < 100; ++i) {
      const std::string key = std::to_string(step * 1000 + static_cast<std::size_t>(i));
      collection_->queue({std::string(200, 'x') + key, {}, "hound"}, "ada");
    }
    keep(collection_->apply(std::move(batch)).ticket, batchIsRefused ? refused_ : good_);
  }

  /// Whether the index is offered the document of that step, and cannot take it: what a later
  /// change of the same update replaces is never offered.
  static bool isRefused(const std::string& row, std::size_t step) {
    const bool isAlone = isEachAlone(std::get<1>(GetParam()));
    return row[step] == 'b' && (isAlone || row.find_first_not_of('b', step) == std::string::npos);
  }
  static bool isEachAlone(Cut cut) {
    return cut == Cut::EachAlone || cut == Cut::EachAloneAndAllAgainAfterARestart;
  }

  using Tickets = std::vector<std::shared_ptr<Ticket>>;

  static void keep(const std::shared_ptr<Ticket>& ticket, Tickets& tickets) {
    if (ticket) tickets.push_back(ticket);
  }

  /// Returns how many slices there were.
  std::size_t index() {
    collection_->requestUpdate();
    return round();
  }
  std::size_t round() {
    std::set<std::uint64_t> ends;
    while (collection_->indexStep()) {
      try {
        ends.insert(collection_->summary().indexing);
      } catch (const ServerError& error) {
        // The update has all of the memory at the moment.
        EXPECT_EQ(error.kind(), ErrorKind::TryAgain);
      }
    }
    ends.erase(0);
    return ends.size();
  }

  /// Whether an update takes more steps than those, and stops.
  bool stopsIn(std::size_t steps) {
    collection_->requestUpdate();
    bool more = true;
    while (more && steps-- > 0) more = collection_->indexStep();
    if (!more) return false;
    stopping_ = true;
    round();
    stopping_ = false;
    return true;
  }

  std::map<std::string, std::string> found() {
    std::map<std::string, std::string> texts;
    for (std::size_t step = 0; step < steps(); ++step) {
      SearchQuery query;
      query.text = textOf(step);
      const auto hits = collection_->search(query);
      for (Hit hit; hits->next(hit);) {
        EXPECT_TRUE(texts.emplace(hit.key, query.text).second) << "twice: " << hit.key;
      }
    }
    return texts;
  }

  tq::test::TemporaryDirectory directory_;
  const std::shared_ptr<MemoryBudget> memory_ =
      std::make_shared<MemoryBudget>(std::size_t{1} << 20U);
  StoreLimits limits_;
  std::string tooMany_;
  std::atomic<bool> stopping_ = false;
  std::optional<Collection> collection_;
  std::vector<std::string> rows_;
  /// Of those whose change has no document that the index refuses, and of the others.
  Tickets good_;
  Tickets refused_;
};

TEST_P(RefusedVersionsTest, LeaveTheLatestThatTheIndexTakes) {
  const auto [mode, cut] = GetParam();
  Collection::create(directory_.path(), {"en", {}}, {mode, {}});
  reopen();
  const bool isAlone = isEachAlone(cut);
  const bool isManual = mode == Refresh::Mode::Manual;
  for (std::size_t step = 0; step < steps(); ++step) {
    send(step);
    if (isAlone && isManual) index();
    if (isAlone && !isManual) round();
  }
  if (cut == Cut::AllAfterARestart || cut == Cut::EachAloneAndAllAgainAfterARestart) {
    good_.clear();
    refused_.clear();
    reopen();
  }
  if (cut == Cut::InEachStep) {
    std::size_t updates = 0;
    while (stopsIn(updates)) ++updates;
    EXPECT_GT(updates, 10U);
    good_.clear();
    refused_.clear();
  }
  const std::size_t slices = index();
  if (cut != Cut::InEachStep && isManual && !isAlone) {
    EXPECT_GT(slices, 1U);
  }
  std::map<std::string, std::string> expected;
  for (const std::string& row : rows_) {
    if (!left(row).empty()) expected[row] = left(row);
  }
  EXPECT_EQ(found(), expected);
  for (const auto& ticket : good_) EXPECT_NO_THROW(ticket->requireSuccess());
  for (const auto& ticket : refused_) {
    try {
      ticket->requireSuccess();
      ADD_FAILURE() << "nobody is told";
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::DocumentsNotIndexed);
    }
  }
  reopen();
  EXPECT_EQ(found(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cut, RefusedVersionsTest,
    ::testing::Combine(::testing::Values(Refresh::Mode::Manual, Refresh::Mode::Immediate),
                       ::testing::Values(Cut::AllAtOnce, Cut::AllAfterARestart, Cut::EachAlone,
                                         Cut::EachAloneAndAllAgainAfterARestart, Cut::InEachStep)));

}  // namespace
}  // namespace corvaned
