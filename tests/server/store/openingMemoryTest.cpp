#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/store/localStore.h"
#include "tests/support/temporaryDirectory.h"

// Opening a collection whose journal has many deletions.
namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

/// A journal with deletions that the next opening has to know.
class OpeningMemoryTest : public ::testing::Test {
 protected:
  static constexpr std::size_t kDeletions = 10000;

  OpeningMemoryTest() {
    open(nullptr);
    store_->createCollection("c", "en");
    for (int i = 0; i < 10; ++i) store_->addDocument("c", {std::to_string(i), {}, "fox"});
    store_->updateIndex("c");
    Batch batch{"b1", {}, {}, false, {}};
    for (std::size_t i = 9; i < 9 + kDeletions; ++i) {
      batch.changes.deletions.push_back(std::to_string(i));
    }
    store_->apply("c", std::move(batch));
  }

  void open(std::shared_ptr<MemoryBudget> memory) {
    store_.reset();
    StoreLimits limits;
    limits.index.memory = std::move(memory);
    store_.emplace(directory_.path() / "data", limits);
  }

  std::uint64_t hits() {
    SearchQuery query;
    query.text = "fox";
    return store_->count("c", query);
  }

  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> files;
    const auto root = directory_.path() / "data" / "collections" / "c";
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
      if (!entry.is_regular_file()) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      files[entry.path().string()] = {std::istreambuf_iterator<char>(file), {}};
    }
    return files;
  }

  tq::test::TemporaryDirectory directory_;
  std::optional<LocalStore> store_;
};

TEST_F(OpeningMemoryTest, DeletedKeysThatCannotFitRefuseItAndDestroyNothing) {
  open(std::make_shared<MemoryBudget>(std::size_t{1} << 20U));
  const auto before = files();
  for (int i = 0; i < 2; ++i) {
    try {
      store_->openCollection("c");
      ADD_FAILURE() << "not refused";
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::OutOfMemory);
      EXPECT_THAT(error.what(), AllOf(HasSubstr("\"c\""), HasSubstr("deletions"),
                                      HasSubstr("--max-memory"), HasSubstr("updateIndex")));
    }
  }
  EXPECT_EQ(files(), before);
  open(std::make_shared<MemoryBudget>(std::size_t{16} << 20U));
  EXPECT_EQ(hits(), 9U);
  store_->updateIndex("c");
  open(std::make_shared<MemoryBudget>(std::size_t{1} << 20U));
  EXPECT_EQ(hits(), 9U);
}

TEST_F(OpeningMemoryTest, OthersAreClosedForDeletedKeys) {
  const auto memory = std::make_shared<MemoryBudget>(std::size_t{8} << 20U);
  open(memory);
  for (int i = 0; i < 10; ++i) {
    const std::string name = "other" + std::to_string(i);
    store_->createCollection(name, "en");
    store_->openCollection(name);
  }
  MemoryBudget::Share rest(*memory);
  rest.force(memory->limit() - memory->used() - kDeletions * 100);
  EXPECT_NO_THROW(store_->openCollection("c"));
  EXPECT_FALSE(store_->isOpen("other0"));
  EXPECT_TRUE(store_->isOpen("other9"));
  // What it has begun comes first: the keys are removed from the index.
  store_->closeCollection("c");
  while (store_->isOpen("c") || !store_->isSettled("c")) std::this_thread::yield();
  rest.force(rest.bytes() + memory->limit() - memory->used());
  try {
    store_->openCollection("c");
    ADD_FAILURE() << "not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::TryAgain) << error.what();
    EXPECT_THAT(error.what(), HasSubstr("\"c\""));
  }
  rest.force(0);
  EXPECT_EQ(hits(), 9U);
}

TEST_F(OpeningMemoryTest, FewDeletedKeysWaitForNobody) {
  const auto memory = std::make_shared<MemoryBudget>(std::size_t{8} << 20U);
  open(memory);
  store_->createCollection("other", "en");
  store_->openCollection("other");
  MemoryBudget::Share rest(*memory);
  rest.force(memory->limit() / 2);
  const auto waits = memory->await(memory->limit() / 4 * 3, [](MemoryBudget::Share) {});
  EXPECT_EQ(hits(), 9U);
  EXPECT_TRUE(store_->isOpen("other"));
  memory->withdraw(waits);
}

TEST_F(OpeningMemoryTest, CollectionThatCouldNotBeOpenedAgainStaysOpenUntilItsUpdate) {
  open(std::make_shared<MemoryBudget>(std::size_t{4} << 20U));
  store_->createCollection("d", "en");
  store_->addDocument("d", {"0", {}, "fox"});
  store_->updateIndex("d");
  Batch batch{"b1", {}, {}, false, {}};
  for (int i = 1; i < 25000; ++i) batch.changes.deletions.push_back(std::to_string(i));
  store_->apply("d", std::move(batch));
  SearchQuery query;
  query.text = "fox";
  store_->closeCollection("d");
  while (!store_->isSettled("d")) std::this_thread::yield();
  EXPECT_TRUE(store_->isOpen("d"));
  EXPECT_EQ(store_->count("d", query), 1U);
  store_->updateIndex("d");
  store_->closeCollection("d");
  while (store_->isOpen("d")) std::this_thread::yield();
  EXPECT_EQ(store_->count("d", query), 1U);
}

}  // namespace
}  // namespace corvaned
