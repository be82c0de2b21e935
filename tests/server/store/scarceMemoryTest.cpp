#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <optional>
#include <string>

#include "server/base/errors.h"
#include "server/store/collection.h"
#include "server/store/localStore.h"
#include "server/store/registry.h"
#include "tests/support/countedMemory.h"
#include "tests/support/temporaryDirectory.h"

// Memory is out during a request, for one allocation or from one on.
namespace corvaned {
namespace {

using tq::test::ScarceMemory;

// More than a request allocates.
constexpr long kMost = 2000;

/// False if the allocation that was to fail did not come.
template <typename Work>
bool without(long failing, bool lasting, const Work& work) {
  const ScarceMemory scarce(failing, lasting, ScarceMemory::Of::Objects);
  try {
    work();
  } catch (const std::bad_alloc&) {
  } catch (const ServerError&) {
  }
  return scarce.count() >= failing;
}

class ScarceMemoryTest : public ::testing::TestWithParam<bool> {
 protected:
  ScarceMemoryTest() {
    store_->createCollection("c", "en");
    for (const char* key : {"d1", "d2"}) store_->addDocument("c", {key, {}, "fox"});
    store_->updateIndex("c");
    // What is done once and for all needs no memory later.
    apply("warm 1");
    apply("warm 2");
  }

  static Batch batch(const std::string& name) {
    const std::string start = "a key that is too long to stand within its string: " + name;
    return {name, {{{start, {}, "fox"}}, {start + "x", "d1"}, "mark of " + name}, {}, false, {}};
  }

  BatchOutcome apply(const std::string& name) { return store_->apply("c", batch(name)); }

  tq::test::TemporaryDirectory directory_;
  std::unique_ptr<LocalStore> store_ =
      std::make_unique<LocalStore>(directory_.path() / "data", StoreLimits{});
};

// One of its two deletions finds a document: if it were applied twice, that would find none either.
TEST_P(ScarceMemoryTest, BatchIsAppliedOnceWhicheverAllocationFails) {
  long failing = 1;
  for (bool failed = true; failed; ++failing) {
    ASSERT_LT(failing, kMost);
    const std::string name = "b" + std::to_string(failing) + "x";
    store_->addDocument("c", {"d1", {}, "fox"});
    const std::uint64_t before = store_->summary("c").pending;
    Batch wanted = batch(name);
    failed = without(failing, GetParam(), [&] { store_->apply("c", std::move(wanted)); });
    std::optional<BatchOutcome> outcome;
    while (!outcome) {
      try {
        outcome = apply(name);
      } catch (const ServerError& error) {
        ASSERT_EQ(error.kind(), ErrorKind::TryAgain) << failing << ": " << error.what();
      }
    }
    EXPECT_EQ(outcome->unknown, 1U) << failing;
    EXPECT_EQ(store_->summary("c").pending, before + 3) << failing;
    EXPECT_EQ(store_->summary("c").mark, "mark of " + name) << failing;
  }
  EXPECT_GT(failing, 20);
  store_->updateIndex("c");
  EXPECT_EQ(store_->estimate("c", "fox").hits, static_cast<std::uint64_t>(failing) + 2);
}

// Otherwise all who ask for the collection would wait for an opening that nobody carries out.
TEST_P(ScarceMemoryTest, FailedOpeningIsOverWhicheverAllocationFails) {
  const std::string name = "the name of a collection that is not quite short";
  const auto refuse = [](const std::string&) -> std::unique_ptr<Collection> {
    throw ServerError(ErrorKind::StorageFailed, "a reason that takes memory of its own");
  };
  for (const bool waits : {false, true}) {
    long failing = 1;
    for (bool failed = true; failed; ++failing) {
      ASSERT_LT(failing, kMost);
      Registry registry(refuse);
      failed = without(failing, GetParam(), [&] {
        if (!waits) registry.use(name);
        const auto opening = registry.awaitOpen(name, [](const std::optional<ServerError>&) {});
        if (opening) opening->carryOut();
      });
      EXPECT_EQ(registry.size(), 0U) << failing;
      EXPECT_THROW(registry.use(name), ServerError) << failing;
    }
    EXPECT_GT(failing, 3);
  }
}

INSTANTIATE_TEST_SUITE_P(One, ScarceMemoryTest, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(OneAndAllThatFollow, ScarceMemoryTest, ::testing::Values(true));

}  // namespace
}  // namespace corvaned
