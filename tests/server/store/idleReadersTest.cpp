#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/store/idleReaders.h"
#include "tests/server/store/budgetedStore.h"
#include "tests/server/store/refusal.h"
#include "tests/support/sanitized.h"

// What handles for searching take of the memory.
namespace corvaned {
namespace {

using test::refusal;
using ::testing::AllOf;
using ::testing::HasSubstr;

constexpr std::size_t kParts = 4;
constexpr std::size_t kHandle = kParts * IdleReaders::kDatabaseCost;
// For what is found.
constexpr std::size_t kRoom = std::size_t{16} << 10U;

std::size_t taken() {
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

/// Collections "c0" and so on, each with a hundred documents.
class IdleReadersTest : public test::BudgetedStore {
 protected:
  void open(std::size_t budget, int collections, std::size_t parts = kParts) {
    openStore(budget, parts);
    for (int i = 0; i < collections; ++i) {
      store_->createCollection(nameOf(i), "en");
      for (int j = 0; j < 100; ++j) {
        const std::string number = std::to_string(j);
        store_->queueDocument(nameOf(i), {number, {}, "fox number" + number});
      }
      store_->updateIndex(nameOf(i));
      store_->takeParseOutcomes(nameOf(i));
    }
    idle_ = memory_->used();
  }

  static std::string nameOf(int number) { return "c" + std::to_string(number); }

  std::unique_ptr<HitSource> search(int number) {
    SearchQuery query;
    query.text = "fox";
    query.size = 1;
    return store_->search(nameOf(number), query);
  }

  /// The thread that has brought an index up to date may let go of the collection a little later.
  void awaitAtMost(std::size_t bytes) const {
    while (memory_->used() > bytes) std::this_thread::yield();
  }

  /// In the first so many at once.
  void searchAll(int count) {
    SearchQuery query;
    query.text = "fox";
    query.size = 1;
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) names.push_back(nameOf(i));
    EXPECT_EQ(store_->details(names, query, {}).size(), 1U);
  }

  // What the open collections take before the first search.
  std::size_t idle_ = 0;
};

TEST_F(IdleReadersTest, HandleCountsFromTheFirstSearchUntilItsCollectionIsClosed) {
  open(std::size_t{64} << 20U, 3);
  for (int i = 0; i < 3; ++i) {
    const std::size_t before = memory_->used();
    search(i);
    EXPECT_EQ(memory_->used(), before + kHandle) << i;
    search(i);
    EXPECT_EQ(memory_->used(), before + kHandle) << "it is used once more";
  }
  const std::size_t open = memory_->used();
  store_->closeCollection("c1");
  awaitAtMost(open - kHandle - Collection::kOpenBytes);
  store_->openCollection("c1");
  const std::size_t opened = memory_->used();
  search(1);
  EXPECT_EQ(memory_->used(), opened + kHandle);
  store_->deleteCollection("c2");
  awaitAtMost(opened - Collection::kOpenBytes);
  store_.reset();
  EXPECT_EQ(memory_->used(), 0U);
}

// A sanitizer's allocator does not say what it gives.
TEST_F(IdleReadersTest, HandleTakesWhatItCountsAndNotMuchLess) {
  constexpr int kCollections = 20;
  open(std::size_t{1} << 30U, kCollections);
  const std::size_t before = taken();
  for (int i = 0; i < kCollections; ++i) search(i);
  const std::size_t ofAll = taken() - before;
  EXPECT_GE(kCollections * kHandle, ofAll);
  if (!tq::test::kSanitized) {
    EXPECT_LE(kCollections * kHandle, 3 * ofAll);
  }
}

TEST_F(IdleReadersTest, IdleHandlesTakeAnEighthOfTheMemoryAtMost) {
  constexpr std::size_t kBudget = 24 * kHandle;
  open(kBudget, 8);
  for (int i = 0; i < 8; ++i) {
    search(i);
    EXPECT_LE(memory_->used(), idle_ + kBudget / 8) << i;
  }
  EXPECT_EQ(memory_->used(), idle_ + 3 * kHandle);
  // There is room for a hit, and for no handle.
  MemoryBudget::Share rest(*memory_);
  rest.force(kBudget - memory_->used() - kRoom);
  for (int i = 7; i > 4; --i) search(i);
  EXPECT_EQ(memory_->used(), kBudget - kRoom) << "nothing has been opened or closed";
  search(0);
  EXPECT_EQ(memory_->used(), kBudget - kRoom) << "one has been closed for it";
}

TEST_F(IdleReadersTest, SearchIsRefusedWhileTheMemoryIsTaken) {
  open(std::size_t{64} << 20U, 1);
  {
    MemoryBudget::Share rest(*memory_);
    rest.force(memory_->limit() - memory_->used() - kHandle + 1);
    const std::size_t full = memory_->used();
    EXPECT_THAT(refusal(ErrorKind::TryAgain, [&] { search(0); }),
                AllOf(HasSubstr("4 databases"), HasSubstr("try again"), HasSubstr("--max-memory")));
    EXPECT_EQ(memory_->used(), full);
    EXPECT_NO_THROW(store_->addDocument("c0", {"k", {}, "fox"})) << "that takes no handle";
  }
  EXPECT_NO_THROW(search(0));
}

TEST_F(IdleReadersTest, IdleHandlesOfOthersMakeRoomForASearch) {
  open(std::size_t{64} << 20U, 2);
  search(1);
  MemoryBudget::Share rest(*memory_);
  rest.force(memory_->limit() - memory_->used() - kRoom);
  EXPECT_NO_THROW(search(0));
  EXPECT_NO_THROW(search(1));
  EXPECT_EQ(memory_->used(), memory_->limit() - kRoom);
}

TEST_F(IdleReadersTest, HandleThatCanNeverFitIsNoReasonToTryAgain) {
  open(kHandle - 1, 1);
  EXPECT_THAT(refusal(ErrorKind::OutOfMemory, [&] { search(0); }),
              AllOf(HasSubstr("--max-memory"), ::testing::Not(HasSubstr("try again"))));
}

// Each of them could have its own, and all together their handles, but not beside what the open
// collections take.
TEST_F(IdleReadersTest, HandlesThatCanNeverFitTogetherAreNoReasonToTryAgain) {
  open(4 * kHandle + 2 * Collection::kOpenBytes, 4);
  searchAll(3);
  const std::size_t before = memory_->used();
  EXPECT_THAT(refusal(ErrorKind::OutOfMemory, [&] { searchAll(4); }),
              AllOf(HasSubstr("16 databases"), HasSubstr("--max-memory"),
                    ::testing::Not(HasSubstr("try again"))));
  EXPECT_EQ(memory_->used(), before) << "nothing has been closed for it";
}

TEST_F(IdleReadersTest, SearchOfSeveralTriesAgainWhereOthersHaveTheMemory) {
  open(6 * kHandle, 4);
  {
    MemoryBudget::Share rest(*memory_);
    rest.force(memory_->limit() - memory_->used() - 4 * kHandle + 1);
    const std::size_t full = memory_->used();
    EXPECT_THAT(refusal(ErrorKind::TryAgain, [&] { searchAll(4); }), HasSubstr("try again"));
    EXPECT_EQ(memory_->used(), full);
    rest.force(rest.bytes() - kRoom);
    searchAll(4);
  }
}

TEST_F(IdleReadersTest, HandleThatCannotBeOpenedCountsNoLonger) {
  open(std::size_t{64} << 20U, 1);
  const std::filesystem::path part =
      directory_.path() / "data" / "collections" / "c0" / "index" / "part-2";
  const std::filesystem::path away = directory_.path() / "away";
  std::filesystem::rename(part, away);
  EXPECT_THROW(search(0), ServerError);
  EXPECT_EQ(memory_->used(), idle_);
  std::filesystem::rename(away, part);
  EXPECT_NO_THROW(search(0));
  EXPECT_EQ(memory_->used(), idle_ + kHandle);
}

}  // namespace
}  // namespace corvaned
