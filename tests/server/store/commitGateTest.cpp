#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "server/store/commitGate.h"
#include "server/store/indexReaders.h"
#include "server/store/xapianIndex.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

TEST(CommitGate, CommitWaitsForThoseWhoHoldItUpAndGoesBeforeLaterOnes) {
  CommitGate gate;
  std::mutex mutex;
  std::vector<std::string> order;
  const auto note = [&](const char* what) {
    const std::lock_guard lock(mutex);
    order.emplace_back(what);
  };
  CommitGate::Hold first = gate.hold();
  CommitGate::Hold second = gate.hold();
  std::jthread commit([&] {
    const CommitGate::Passage passage = gate.pass();
    note("commit");
  });
  while (!gate.isAwaited()) std::this_thread::yield();
  std::jthread later([&] {
    const CommitGate::Hold hold = gate.hold();
    note("later");
  });
  note("first ends");
  first.unlock();
  EXPECT_TRUE(gate.isAwaited()) << "there is another one";
  note("second ends");
  second.unlock();
  commit.join();
  later.join();
  EXPECT_THAT(order, ElementsAre("first ends", "second ends", "commit", "later"));
  EXPECT_FALSE(gate.isAwaited());
}

/// An index of several levels, of which a handle does not keep all.
class OvertakenTest : public ::testing::Test {
 protected:
  static constexpr int kDocuments = 2000;

  OvertakenTest() {
    XapianIndex::create(directory_.path(), {"en", {}});
    index_.emplace(directory_.path(), IndexLimits{});
    index_->beginUpdate();
    commit(1);
    for (int i = 0; i < kDocuments; ++i) keys_.push_back(keyOf(i));
  }

  static std::string keyOf(int i) {
    return std::to_string(i * 7919 % 10007) + std::string(60, 'k');
  }

  // Makes every so many documents anew, so that no part of the index stays as it is.
  void commit(int step) {
    std::vector<Change> changes;
    for (int i = 0; i < kDocuments; i += step) {
      changes.push_back({ChangeKind::Remove, {keyOf(i), {}, {}}});
      changes.push_back({ChangeKind::Put, {keyOf(i), {}, "fox"}});
    }
    index_->applyBatch(changes, [] {});
    ++commits_;
  }

  // As many commits as make an earlier snapshot unreadable, unless they have to wait.
  void awaitCommits() const {
    const int enough = commits_ + 3;
    while (commits_ < enough && !index_->commitWaits()) std::this_thread::yield();
  }

  tq::test::TemporaryDirectory directory_;
  std::optional<XapianIndex> index_;
  std::vector<std::string> keys_;
  std::atomic<int> commits_ = 0;
};

TEST_F(OvertakenTest, EndsSinceCommitsWaitForItAtLast) {
  std::jthread writer([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) commit(40);
  });
  const int before = commits_;
  std::size_t calls = 0;
  const auto atEachKey = [&] {
    if (calls++ % 500 == 0) awaitCommits();
  };
  EXPECT_THAT(index_->contain(keys_, atEachKey), Each(true));
  EXPECT_GE(commits_, before + 3 * IndexReaders::kFreeAttempts);
  EXPECT_GT(calls, keys_.size()) << "it has begun again";
}

}  // namespace
}  // namespace corvaned
