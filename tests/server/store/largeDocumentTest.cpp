#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/store/localStore.h"
#include "server/store/xapianIndex.h"
#include "tests/support/temporaryDirectory.h"

// Documents that take much of the memory while they are indexed.
namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

/// One collection and a small budget. The texts of "few" are of fifty words, those of "many" of as
/// many as they have, each of eight bytes with its blank.
class LargeDocumentTest : public ::testing::Test {
 protected:
  static constexpr std::size_t kBudget = std::size_t{8} << 20U;

  void open(std::size_t budget) {
    memory_ = std::make_shared<MemoryBudget>(budget);
    limits_.index.memory = memory_;
    store_.reset();
    store_.emplace(directory_.path() / "data", limits_);
  }

  static std::string text(int words, int different) {
    std::string text;
    for (int i = 0; i < words; ++i) {
      auto left = static_cast<std::uint32_t>(i % different) * 2654435761U;
      for (int j = 0; j < 7; ++j, left /= 26) text += static_cast<char>('a' + left % 26);
      text += ' ';
    }
    return text;
  }
  static std::string few(int words) { return text(words, 50); }
  static std::string many(int words) { return text(words, words); }

  std::vector<std::string> keys(const std::string& word) {
    SearchQuery query;
    query.text = word;
    const auto source = store_->search("c", query);
    std::vector<std::string> found;
    for (Hit hit; source->next(hit);) found.push_back(hit.key);
    return found;
  }

  /// The most that is set aside while these are brought into an index.
  std::size_t mostFor(const std::vector<Change>& changes, std::vector<ParseOutcome>& refused) {
    const tq::test::TemporaryDirectory directory;
    IndexLimits limits;
    limits.memory = memory_ = std::make_shared<MemoryBudget>(kBudget);
    XapianIndex::create(directory.path(), {"en", {}, 1});
    XapianIndex index(directory.path(), limits);
    index.beginUpdate();
    std::size_t most = 0;
    refused = index.applyBatch(changes, [&] { most = std::max(most, memory_->used()); });
    index.endUpdate();
    EXPECT_EQ(memory_->used(), 0U);
    return most;
  }

  tq::test::TemporaryDirectory directory_;
  StoreLimits limits_;
  std::shared_ptr<MemoryBudget> memory_;
  std::optional<LocalStore> store_;
};

TEST_F(LargeDocumentTest, ThatNeedsMoreThanTheBudgetIsRefusedAlone) {
  open(kBudget);
  store_->createCollection("c", "en");
  store_->addDocument("c", {"large", {}, "hound"});
  store_->updateIndex("c");
  keys("hound");
  const std::size_t idle = memory_->used();
  store_->queueDocument("c", {"a", {}, "fox"});
  store_->queueDocument("c", {"large", {}, many(20000)});
  store_->queueDocument("c", {"z", {}, "fox"});
  store_->takeParseOutcomes("c");
  try {
    store_->updateIndex("c");
    ADD_FAILURE() << "not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::DocumentsNotIndexed);
  }
  {
    const std::vector<ParseOutcome> outcomes = store_->takeParseOutcomes("c");
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().key, "large");
    EXPECT_EQ(outcomes.front().messageId, messageId(ErrorKind::DocumentsNotIndexed));
    EXPECT_THAT(outcomes.front().messageText,
                AllOf(HasSubstr("MiB of memory"), HasSubstr("--max-memory")));
  }
  EXPECT_THAT(keys("fox"), ::testing::UnorderedElementsAre("a", "z"));
  EXPECT_THAT(keys("hound"), ::testing::ElementsAre("large")) << "it is as it was";
  EXPECT_EQ(store_->state("c"), CollectionState::Current);
  EXPECT_EQ(memory_->used(), idle);

  open(8 * kBudget);
  store_->addDocument("c", {"large", {}, many(20000)});
  EXPECT_NO_THROW(store_->updateIndex("c"));
  EXPECT_THAT(keys("hound"), ::testing::IsEmpty());
}

TEST_F(LargeDocumentTest, ThatIsRefusedDoesNotBringBackWhatWasDeletedBeforeIt) {
  open(kBudget);
  store_->createCollection("c", "en");
  for (const char* key : {"deleted", "replaced"}) store_->addDocument("c", {key, {}, "hound"});
  store_->updateIndex("c");
  store_->deleteDocument("c", "deleted");
  for (const char* key : {"deleted", "replaced"}) {
    store_->addDocument("c", {key, {}, many(20000)});
  }
  EXPECT_THROW(store_->updateIndex("c"), ServerError);
  EXPECT_THAT(keys("hound"), ::testing::ElementsAre("replaced"));
}

TEST_F(LargeDocumentTest, WhatIsSetAsideForOneIsNeverMoreThanTheBudget) {
  std::vector<ParseOutcome> refused;
  const auto put = [](const std::string& key, std::string text) {
    return Change{ChangeKind::Put, {key, {}, std::move(text)}};
  };
  EXPECT_LE(mostFor({put("a", "fox"), put("b", many(20000)), put("c", "fox")}, refused), kBudget);
  EXPECT_EQ(refused.size(), 1U);
  // Sixteen times its bytes would be twice the budget, and it takes a third of that.
  EXPECT_LE(mostFor({put("a", few(1 << 17))}, refused), kBudget);
  EXPECT_TRUE(refused.empty());
  // Each of them fits alone.
  EXPECT_LE(mostFor({put("a", many(5000)), put("b", many(4999)), put("c", many(4998))}, refused),
            kBudget);
  EXPECT_TRUE(refused.empty());
}

}  // namespace
}  // namespace corvaned
