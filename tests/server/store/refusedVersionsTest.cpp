#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <optional>
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
};

/// A key for each row of up to four changes: 'g' adds a document, 'b' one that the index cannot
/// take, 'd' deletes it. Every other key's changes come in batches.
class RefusedVersionsTest : public ::testing::TestWithParam<std::tuple<Refresh::Mode, Cut>> {
 protected:
  static constexpr std::size_t kSteps = 4;

  RefusedVersionsTest() {
    for (unsigned i = 0; i < 4000; ++i) tooMany_ += std::to_string(i * 2654435761U) + ' ';
    limits_.index.memory = memory_;
    // In several transactions, and with more than one look for what comes before.
    limits_.index.batchChanges = 25;
    limits_.index.earlierDocuments = 2;
    std::vector<std::string> rows{""};
    for (std::size_t i = 0; i < rows.size(); ++i) {
      if (rows[i].size() == kSteps) continue;
      for (const char* change : {"g", "b", "d"}) rows.push_back(rows[i] + change);
    }
    rows_.assign(rows.begin() + 1, rows.end());
  }
  ~RefusedVersionsTest() override { collection_.reset(); }

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
    for (const std::string& row : rows_) {
      inBatch = !inBatch;
      if (step >= row.size()) continue;
      const Document document{row, {}, row[step] == 'g' ? textOf(step) : tooMany_};
      if (row[step] == 'd' && inBatch) {
        batch.changes.deletions.push_back(row);
      } else if (inBatch) {
        batch.changes.documents.push_back(document);
      } else if (row[step] == 'd') {
        keep(collection_->remove(row, false), true);
      } else {
        keep(collection_->add(document), row[step] == 'g');
      }
    }
    // An update takes several slices for so many keys, where it may.
    for (int i = 0; i < 100; ++i) {
      const std::string key = std::to_string(step * 1000 + static_cast<std::size_t>(i));
      collection_->queue({std::string(200, 'x') + key, {}, "hound"}, "ada");
    }
    keep(collection_->apply(std::move(batch)).ticket, false);
  }

  void keep(const std::shared_ptr<Ticket>& ticket, bool isGood) {
    if (ticket && isGood) good_.push_back(ticket);
  }

  void index() {
    collection_->requestUpdate();
    round();
  }
  void round() {
    while (collection_->indexStep()) {
    }
  }

  std::map<std::string, std::string> found() {
    std::map<std::string, std::string> texts;
    for (std::size_t step = 0; step < kSteps; ++step) {
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
  /// Of those whom no refusal concerns.
  std::vector<std::shared_ptr<Ticket>> good_;
};

TEST_P(RefusedVersionsTest, LeaveTheLatestThatTheIndexTakes) {
  const auto [mode, cut] = GetParam();
  Collection::create(directory_.path(), {"en", {}}, {mode, {}});
  reopen();
  const bool isAlone = cut == Cut::EachAlone || cut == Cut::EachAloneAndAllAgainAfterARestart;
  for (std::size_t step = 0; step < kSteps; ++step) {
    send(step);
    if (isAlone && mode == Refresh::Mode::Immediate) round();
    if (isAlone && mode != Refresh::Mode::Immediate) index();
  }
  if (cut == Cut::AllAfterARestart || cut == Cut::EachAloneAndAllAgainAfterARestart) {
    good_.clear();
    reopen();
  }
  index();
  std::map<std::string, std::string> expected;
  for (const std::string& row : rows_) {
    if (!left(row).empty()) expected[row] = left(row);
  }
  EXPECT_EQ(found(), expected);
  for (const auto& ticket : good_) EXPECT_NO_THROW(ticket->requireSuccess());
  reopen();
  EXPECT_EQ(found(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cut, RefusedVersionsTest,
    ::testing::Combine(::testing::Values(Refresh::Mode::Manual, Refresh::Mode::Immediate),
                       ::testing::Values(Cut::AllAtOnce, Cut::AllAfterARestart, Cut::EachAlone,
                                         Cut::EachAloneAndAllAgainAfterARestart)));

}  // namespace
}  // namespace corvaned
