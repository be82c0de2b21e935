#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/store/idleReaders.h"
#include "tests/server/store/budgetedStore.h"
#include "tests/server/store/refusal.h"

namespace corvaned {
namespace {

using test::refusal;
using ::testing::AllOf;
using ::testing::HasSubstr;

/// A budget with room for a handle for searching beside what the test is about, and 2000 documents
/// with the word "fox", which need 500 KiB to be sorted, three times as much by
/// metadata, and 76 KB to be kept.
class StoreMemoryTest : public test::BudgetedStore {
 protected:
  void open(std::size_t budget, std::size_t parts = 1) {
    openStore(budget + parts * IdleReaders::kDatabaseCost, parts);
    store_->createCollection("c", "en");
    for (int i = 0; i < 2000; ++i) {
      store_->queueDocument("c", {"a key of many letters " + std::to_string(i),
                                  {{"[sortable]year", std::to_string(i)}},
                                  "fox"});
    }
    store_->updateIndex("c");
    store_->takeParseOutcomes("c");
    search(10);
    idle_ = memory_->used();
  }

  std::unique_ptr<HitSource> search(std::uint64_t size = 5000) {
    SearchQuery query;
    query.text = "fox";
    query.size = size;
    return store_->search("c", query);
  }

  // What the open collection takes when it has been searched.
  std::size_t idle_ = 0;
};

TEST_F(StoreMemoryTest, ResultTakesMemoryUntilItIsRead) {
  open(1U << 20U);
  std::unique_ptr<HitSource> hits = search();
  EXPECT_GT(memory_->used(), idle_ + 2000U * 24);
  EXPECT_LT(memory_->used(), idle_ + 2000U * 100);
  hits.reset();
  EXPECT_EQ(memory_->used(), idle_);
}

TEST_F(StoreMemoryTest, OutcomesCountUntilTheyAreToldAndTheOldestAreForgotten) {
  open(1U << 20U);
  const std::size_t idle = memory_->used();
  for (int i = 0; i < 4000; ++i) store_->queueDocument("c", {std::to_string(i), {}, "fox"});
  EXPECT_GT(memory_->used(), idle + (100U << 10U));
  EXPECT_LE(memory_->used(), idle + memory_->limit() / 8) << "half of a quarter";
  const std::size_t kept = memory_->used();
  {
    const std::vector<ParseOutcome> outcomes = store_->takeParseOutcomes("c");
    ASSERT_GT(outcomes.size(), 400U);
    ASSERT_LT(outcomes.size(), 4000U);
    EXPECT_EQ(outcomes.front().key, std::to_string(4000 - outcomes.size()));
    EXPECT_EQ(outcomes.back().key, "3999");
    EXPECT_GT(memory_->used(), kept - (8U << 10U)) << "it is being told";
  }
  EXPECT_EQ(memory_->used(), idle);
}

SearchQuery among(std::size_t keys) {
  SearchQuery query;
  query.text = "fox";
  query.size = 10;
  for (std::size_t i = 0; i < keys; ++i) query.keys.push_back(std::to_string(i));
  return query;
}

class KeyMemoryTest : public StoreMemoryTest, public ::testing::WithParamInterface<std::size_t> {};

// Each database looks for each key.
TEST_P(KeyMemoryTest, ManyKeysTakeMemory) {
  open(1U << 20U, GetParam());
  const std::size_t many = 600 / GetParam();
  const std::vector<std::function<void()>> questions{
      [&] { store_->search("c", among(many)); }, [&] { store_->count("c", among(many)); },
      [&] { store_->details("c", among(many), {}); },
      [&] { store_->details(std::vector<std::string>{"c"}, among(many), {}); },
      [&] {
        store_->match("c", among(many), {{"0", {}, "fox"}});
      }};
  for (const auto& ask : questions) {
    EXPECT_THAT(refusal(ErrorKind::QueryTooBroad, ask),
                AllOf(HasSubstr(std::to_string(many) + " keys"), HasSubstr("--max-memory")));
  }
  EXPECT_EQ(memory_->used(), idle_);
}

TEST_P(KeyMemoryTest, FewKeysNeedNoneThatIsFree) {
  open(8U << 20U, GetParam());
  const std::size_t few = 1024 / (16 + GetParam());
  MemoryBudget::Share others(*memory_);
  others.force(memory_->limit() - memory_->used() - (16U << 10U));
  EXPECT_EQ(store_->count("c", among(few)), 0U);
  EXPECT_THAT(refusal(ErrorKind::TryAgain, [&] { store_->count("c", among(few + 1)); }),
              HasSubstr("keys"));
}

TEST_P(KeyMemoryTest, KeysTakeLittleWhereThereAreFewDocuments) {
  open(40U << 20U, GetParam());
  store_->createCollection("few", "en");
  store_->queueDocument("few", {"7", {}, "fox"});
  store_->updateIndex("few");
  EXPECT_EQ(store_->count("few", among(13000)), 1U);
}

INSTANTIATE_TEST_SUITE_P(Databases, KeyMemoryTest, ::testing::Values(1, 2));

// The engine opens a list for each word that one with * stands for, in each database.
TEST_F(StoreMemoryTest, WordsThatStandForManyTakeMemory) {
  open(1U << 20U, 2);
  for (int i = 100; i < 300; ++i) {
    const std::string number = std::to_string(i);
    store_->queueDocument("c", {number, {}, "word" + number});
  }
  store_->updateIndex("c");
  store_->takeParseOutcomes("c");
  SearchQuery few;
  few.text = "word11*";
  SearchQuery many = few;
  many.text = "word*";
  EXPECT_EQ(store_->count("c", few), 10U);
  idle_ = memory_->used();
  const std::vector<std::function<void()>> questions{
      [&] { store_->search("c", many); },
      [&] { store_->count("c", many); },
      [&] { store_->estimate("c", many.text); },
      [&] { store_->details("c", many, {}); },
      [&] { store_->details(std::vector<std::string>{"c"}, many, {}); },
      [&] {
        store_->match("c", many, {{"0", {}, "word1"}});
      }};
  for (const auto& ask : questions) {
    try {
      ask();
      ADD_FAILURE() << "it was not refused";
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::QueryTooBroad);
      EXPECT_THAT(error.what(), AllOf(HasSubstr("200 words"), HasSubstr("--max-memory")));
    }
    EXPECT_EQ(memory_->used(), idle_);
  }
}

/// Words that "word*" stands for, so long that their lists are all over several blocks.
class HitListsTest : public StoreMemoryTest {
 protected:
  static constexpr std::size_t kWords = 800;
  static constexpr std::size_t kLists = kWords * (std::size_t{8} << 10U);

  // Each has room for fifty of them.
  static constexpr std::size_t kBlocks = kWords / 50;

  HitListsTest() {
    open(std::size_t{64} << 20U);
    for (std::size_t i = 0; i < kWords; ++i) {
      const std::string word = "word" + std::to_string(1000 + i) + std::string(150, 'x');
      store_->queueDocument("c", {std::to_string(i), {}, word});
    }
    store_->updateIndex("c");
    store_->takeParseOutcomes("c");
    query_.text = "word*";
    query_.size = 1;
    for (const auto& tell : ways({{}, 100})) tell();
    idle_ = memory_->used();
  }

  /// How a client is told of hits, of one collection and of several.
  std::vector<std::function<void()>> ways(const DetailsWanted& wanted) {
    return {[this, wanted] { store_->details("c", query_, wanted); },
            [this, wanted] { store_->details(std::vector<std::string>{"c"}, query_, wanted); }};
  }

  /// How often this thread reads from files meanwhile.
  static std::size_t readsDuring(const std::function<void()>& work) {
    const std::size_t before = reads();
    work();
    return reads() - before;
  }

  SearchQuery query_;

 private:
  static std::size_t reads() {
    std::ifstream file("/proc/thread-self/io");
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with("syscr: ")) return std::stoul(line.substr(7));
    }
    throw std::runtime_error("the system does not say how often a thread has read");
  }
};

TEST_F(HitListsTest, AreOpenedOnceWhereNoPartsOfTextsAreShown) {
  const std::size_t toSearch = readsDuring([&] { store_->search("c", query_); });
  EXPECT_GE(toSearch, kBlocks);
  for (const auto& tell : ways({{}, 0})) EXPECT_LT(readsDuring(tell), toSearch + kBlocks);
}

// When the hits are known what the lists of the keys have taken is given back.
TEST_F(HitListsTest, TakeTheirMemoryAlsoWhenTheyAreOpenedForPartsOfTexts) {
  query_.keys = among(1000).keys;
  const std::size_t ofKeys = query_.keys.size() * (std::size_t{16} << 10U);
  ASSERT_GT(ofKeys, kLists + (1U << 20U));
  for (const auto& tell : ways({{}, 100})) {
    std::atomic<bool> seen = false;
    std::jthread watch([&] {
      const auto isOfWordsOnly = [&](std::size_t used) {
        return used >= idle_ + kLists && used < idle_ + ofKeys;
      };
      while (!isOfWordsOnly(memory_->used())) std::this_thread::yield();
      seen = true;
    });
    while (!seen) tell();
    EXPECT_EQ(memory_->used(), idle_);
  }
}

TEST_F(StoreMemoryTest, QueryStandsForSoManyWordsAtMost) {
  open(std::size_t{1} << 30U);
  for (int i = 1000; i < 1200; ++i) {
    const std::string number = std::to_string(i);
    store_->queueDocument("c", {number, {}, "word" + number});
  }
  store_->updateIndex("c");
  const auto hits = [&](int times) {
    SearchQuery query;
    for (int i = 0; i < times; ++i) query.text += i == 0 ? "word*" : " OR word*";
    return store_->count("c", query);
  };
  EXPECT_EQ(hits(50), 200U);
  try {
    hits(51);
    ADD_FAILURE() << "it was not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::QueryTooBroad);
    EXPECT_THAT(error.what(), HasSubstr("10000 words"));
  }
}

TEST_F(StoreMemoryTest, ResultsThatNobodyReadsAreRefusedWhenTheyFillTheBudget) {
  open(1U << 20U);
  std::vector<std::unique_ptr<HitSource>> unread;
  for (int i = 0; i < 4; ++i) unread.push_back(search());
  EXPECT_THAT(refusal(ErrorKind::TryAgain, [&] { search(); }),
              AllOf(HasSubstr("2000 hits"), HasSubstr("size")));
  EXPECT_NO_THROW(search(10)) << "a small result still has its place";
  unread.clear();
  EXPECT_NO_THROW(search());
}

// What they are sorted by may be four times as long as their keys.
TEST_F(StoreMemoryTest, HitsThatAreSortedByMetadataNeedMore) {
  open(1U << 20U);
  SearchQuery query;
  query.text = "fox";
  query.size = 5000;
  EXPECT_NO_THROW(store_->search("c", query));
  query.order = HitOrder::Value;
  query.sortBy = "year";
  try {
    store_->search("c", query);
    ADD_FAILURE() << "not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::QueryTooBroad);
    EXPECT_THAT(error.what(), AllOf(HasSubstr("2000 hits"), HasSubstr("--max-memory")));
  }
  query.size = 1000;
  EXPECT_NO_THROW(store_->search("c", query));
}

TEST_F(StoreMemoryTest, ResultThatCanNeverFitIsRefusedAsTooBroad) {
  open(256U << 10U);
  EXPECT_THAT(refusal(ErrorKind::QueryTooBroad, [&] { search(); }), HasSubstr("--max-memory"));
  EXPECT_NO_THROW(search(500));
}

}  // namespace
}  // namespace corvaned
