#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <xapian.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/commitGate.h"
#include "server/store/indexReaders.h"
#include "server/store/indexSums.h"
#include "server/store/indexWriter.h"
#include "server/store/xapianIndex.h"
#include "tests/server/store/slowCollection.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using ::testing::ElementsAre;

constexpr std::chrono::hours kForEver{1};
const StopCheck kGoOn = [] {};

/// Holds commits up from a thread of its own, as each search does: who holds them up already must
/// not ask again, since a commit that waits would stand between.
class Reader {
 public:
  explicit Reader(CommitGate& gate) {
    std::promise<void> holds;
    thread_ = std::thread([&gate, &holds, ended = ended_.get_future()] {
      const CommitGate::Hold hold = gate.hold();
      holds.set_value();
      ended.wait();
    });
    holds.get_future().wait();
  }
  ~Reader() { end(); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  void end() {
    if (!thread_.joinable()) return;
    ended_.set_value();
    thread_.join();
  }

 private:
  std::promise<void> ended_;
  std::thread thread_;
};

TEST(CommitGate, CommitWaitsForThoseWhoHoldItUpAndGoesBeforeLaterOnes) {
  CommitGate gate(kForEver);
  std::mutex mutex;
  std::vector<std::string> order;
  const auto note = [&](const char* what) {
    const std::lock_guard lock(mutex);
    order.emplace_back(what);
  };
  Reader first(gate);
  Reader second(gate);
  std::jthread commit([&] {
    const CommitGate::Passage passage = gate.pass(kGoOn);
    note("commit");
  });
  while (!gate.isAwaited()) std::this_thread::yield();
  std::atomic<bool> laterComes = false;
  std::jthread later([&] {
    laterComes = true;
    const CommitGate::Hold hold = gate.hold();
    note("later");
  });
  while (!laterComes) std::this_thread::yield();
  note("first ends");
  first.end();
  EXPECT_TRUE(gate.isAwaited()) << "there is another one";
  note("second ends");
  second.end();
  commit.join();
  later.join();
  EXPECT_THAT(order, ElementsAre("first ends", "second ends", "commit", "later"));
  EXPECT_FALSE(gate.isAwaited());
}

TEST(CommitGate, CommitThatWaitsCanBeStopped) {
  CommitGate gate(kForEver);
  Reader reader(gate);
  EXPECT_THROW(gate.pass([] { throw std::runtime_error("stop"); }), std::runtime_error);
  EXPECT_FALSE(gate.isAwaited());
  EXPECT_TRUE(gate.hold()) << "nothing stands in the way of later ones";
}

TEST(CommitGate, CommitGoesOnWhenItHasWaitedLongEnough) {
  CommitGate gate(std::chrono::milliseconds(1));
  Reader reader(gate);
  EXPECT_FALSE(gate.pass(kGoOn));
  EXPECT_FALSE(gate.isAwaited());
  reader.end();
  EXPECT_TRUE(gate.pass(kGoOn));
}

/// An index of several levels, of which a handle does not keep all.
class OvertakenTest : public ::testing::Test {
 protected:
  static constexpr int kDocuments = 2000;

  explicit OvertakenTest(std::chrono::milliseconds patience = kForEver, std::size_t parts = 1)
      : readers_(directory_.path() / IndexSums::kIndexDirectory, limits_, patience) {
    IndexWriter::create(directory_.path(), {"en", {}, parts});
    commit(1);
    for (int i = 0; i < kDocuments; ++i) keys_.push_back(keyOf(i));
  }

  static std::string keyOf(int i) {
    return std::to_string(i * 7919 % 10007) + std::string(60, 'k');
  }

  // Makes every so many documents anew, so that no part of the index stays as it is.
  void commit(int step, const StopCheck& stop = kGoOn) {
    std::vector<Change> changes;
    for (int i = 0; i < kDocuments; i += step) {
      changes.push_back({ChangeKind::Remove, {keyOf(i), {}, {}}});
      changes.push_back({ChangeKind::Put, {keyOf(i), {}, "fox"}});
    }
    IndexWriter(directory_.path(), limits_, stop, &readers_).apply(changes);
    ++commits_;
  }

  bool commitWaits() { return readers_.commits().isAwaited(); }

  // As many commits as make an earlier snapshot unreadable, unless they have to wait.
  void awaitCommits() {
    const int enough = commits_ + 3;
    while (commits_ < enough && !commitWaits()) std::this_thread::yield();
  }

  // Runs the work and returns in how many attempts: also those that end before the work is called,
  // as commits overtake the refreshing of a handle, too.
  template <typename Work, typename Progress>
  int attemptsOf(const Work& work, const Progress& progress) {
    int attempts = 0;
    // It is asked once at the beginning of each.
    EXPECT_TRUE(readers_.run(work, [&] {
      ++attempts;
      return progress();
    }));
    return attempts;
  }

  // Expects the index to have all keys, and returns how many attempts that takes. `atEachKey` is
  // called before each, with the number of keys that the present attempt has asked for.
  template <typename AtEachKey>
  int findAll(const AtEachKey& atEachKey) {
    const auto find = [&](const IndexReader& reader) {
      std::size_t asked = 0;
      return std::all_of(keys_.begin(), keys_.end(), [&](const std::string& key) {
        atEachKey(asked++);
        return reader.contains(key);
      });
    };
    return attemptsOf(find, [] { return 0; });
  }

  // Looks for all keys while one commit follows the other.
  void expectToEnd() {
    std::jthread writer([&](const std::stop_token& stop) {
      while (!stop.stop_requested()) commit(40);
    });
    std::size_t calls = 0;
    const int attempts = findAll([&](std::size_t asked) {
      ++calls;
      if (asked % 500 == 0) awaitCommits();
    });
    EXPECT_EQ(attempts, IndexReaders::kFreeAttempts + 1);
    EXPECT_GT(calls, keys_.size()) << "it has begun again";
  }

  tq::test::TemporaryDirectory directory_;
  const IndexLimits limits_;
  IndexReaders readers_;
  std::vector<std::string> keys_;
  std::atomic<int> commits_ = 0;
};

class ImpatientTest : public OvertakenTest {
 protected:
  ImpatientTest() : OvertakenTest(std::chrono::milliseconds(1)) {}

  // On a thread of its own, as whoever reads may hold commits up.
  void commitOften() {
    std::async(std::launch::async, [this] {
      for (int i = 0; i < 3; ++i) commit(40);
    }).get();
  }
};

class OvertakenInPartsTest : public OvertakenTest {
 protected:
  OvertakenInPartsTest() : OvertakenTest(kForEver, 2) {}
};

TEST_F(OvertakenTest, EndsSinceCommitsWaitForItAtLast) { expectToEnd(); }

TEST_F(OvertakenInPartsTest, EndsSinceCommitsWaitForItAtLast) { expectToEnd(); }

// No more than its own request or the end of the commit has to come: the disk may stall.
TEST_F(OvertakenInPartsTest, SearchThatWaitsForTheEndOfACommitCanBeEnded) {
  std::latch begun(1);
  std::latch goesOn(1);
  std::jthread writer([&] {
    readers_.publish([&] {
      begun.count_down();
      goesOn.wait();
    });
  });
  begun.wait();
  const auto request = std::make_shared<RequestContext>(RequestContext::Limits{});
  std::atomic<pid_t> client = 0;
  auto search = std::async(std::launch::async, [&] {
    const RequestContext::Scope scope(*request);
    client = ::gettid();
    try {
      return readers_.run([](const IndexReader&) { return std::string("searched"); });
    } catch (const ServerError&) {
      return std::string("ended");
    }
  });
  while (client == 0 || !test::sleeps(client)) std::this_thread::yield();
  request->cancelAt(RequestContext::Clock::now());
  EXPECT_EQ(search.get(), "ended");
  goesOn.count_down();
  writer.join();
  EXPECT_TRUE(readers_.run([](const IndexReader&) { return true; }));
}

TEST_F(OvertakenInPartsTest, HandleThatSeesTheLastTransactionDoesNotWaitForTheNext) {
  const auto search = [&] {
    return readers_.run([](const IndexReader& reader) { return reader.summary().documents; });
  };
  EXPECT_EQ(search(), kDocuments);
  readers_.publish([&] { EXPECT_EQ(search(), kDocuments); });
}

// Opening the index to ask is overtaken, too.
TEST_F(OvertakenTest, RevisionIsToldWhileOneCommitFollowsTheOther) {
  std::jthread writer([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) commit(kDocuments);
  });
  std::uint64_t last = 0;
  for (int i = 0; i < 500 || commits_ <= 2; ++i) {
    const std::uint64_t revision = readers_.revisions().at({});
    EXPECT_GE(revision, last);
    last = revision;
  }
}

// Each attempt costs something before it gets on, so that commits wait for these, too.
TEST_F(OvertakenTest, WorkThatGetsOnIsOvertakenAFewTimesOnly) {
  std::jthread writer([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) commit(40);
  });
  std::size_t found = 0;
  const auto findRest = [&](const IndexReader& reader) {
    for (; found < keys_.size(); ++found) {
      if (found % 100 == 0) awaitCommits();
      if (!reader.contains(keys_[found])) return false;
    }
    return true;
  };
  EXPECT_EQ(attemptsOf(findRest, [&] { return found; }), IndexReaders::kFreeAttempts + 1);
}

// No commit waits for long, and yet the work ends.
TEST_F(ImpatientTest, WorkThatGetsOnMayBeOvertakenAsOftenAsItIs) {
  int attempts = 0;
  std::size_t found = 0;
  const auto findRest = [&](const IndexReader& reader) {
    ++attempts;
    const std::size_t before = found;
    for (; found < keys_.size(); ++found) {
      if (found == before + 100) commitOften();
      if (!reader.contains(keys_[found])) return false;
    }
    return true;
  };
  EXPECT_TRUE(readers_.run(findRest, [&] { return found; }));
  EXPECT_GT(attempts, IndexReaders::kFreeAttempts + 1);
}

TEST_F(ImpatientTest, WorkThatGetsNowhereIsRefused) {
  int attempts = 0;
  const auto findAll = [&](const IndexReader& reader) {
    ++attempts;
    commitOften();
    return std::all_of(keys_.begin(), keys_.end(),
                       [&](const std::string& key) { return reader.contains(key); });
  };
  EXPECT_THROW(readers_.run(findAll), Xapian::DatabaseModifiedError);
  EXPECT_EQ(attempts, IndexReaders::kFreeAttempts + 1);
}

// Otherwise a search that is overtaken again and again could cost several times as much as it may.
TEST_F(ImpatientTest, CostsOfAllAttemptsCountTogether) {
  RequestContext context({std::chrono::milliseconds(0), 5 * kDocuments / 2});
  const RequestContext::Scope scope(context);
  SearchQuery query;
  query.text = "fox";
  int attempts = 0;
  const auto search = [&](const IndexReader& reader) {
    ++attempts;
    EXPECT_EQ(reader.count(query, nullptr, limits_), kDocuments);
    commitOften();
    return std::all_of(keys_.begin(), keys_.end(),
                       [&](const std::string& key) { return reader.contains(key); });
  };
  try {
    readers_.run(search);
    FAIL() << "it has ended";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::QueryTooBroad) << error.what();
  }
  EXPECT_EQ(attempts, 3);
}

// So many keys would otherwise be looked for in vain for as long as changes come.
TEST_F(OvertakenTest, KeysThatWereFoundAreNotLookedForAgain) {
  IndexSums::create(directory_.path(), readers_.revisions());
  XapianIndex index(directory_.path(), limits_);
  const auto commitOften = [&] {
    for (int times = 0; times < 3; ++times) {
      std::vector<Change> changes;
      for (int i = 0; i < kDocuments; i += 40) {
        changes.push_back({ChangeKind::Remove, {keyOf(i), {}, {}}});
        changes.push_back({ChangeKind::Put, {keyOf(i), {}, "fox"}});
      }
      index.applyBatch(changes, kGoOn);
    }
  };
  int calls = 0;
  const auto overtake = [&] {
    if (++calls % 400 == 0) std::async(std::launch::async, commitOften).get();
  };
  keys_.emplace_back("none");
  const std::vector<bool> found = index.contain(keys_, overtake);
  EXPECT_EQ(std::count(found.begin(), found.end(), true), kDocuments);
  EXPECT_FALSE(found.back());
  EXPECT_LT(calls, 2 * kDocuments);
}

TEST_F(OvertakenTest, CommitThatWaitsForItCanBeStopped) {
  std::atomic<bool> stopping = false;
  std::atomic<bool> stopped = false;
  const StopCheck stop = [&] {
    if (stopping) throw std::runtime_error("stop");
  };
  std::jthread writer([&] {
    try {
      for (;;) commit(40, stop);
    } catch (const std::runtime_error&) {
      stopped = true;
    }
  });
  findAll([&](std::size_t asked) {
    if (!stopping && asked % 500 == 0) awaitCommits();
    if (!commitWaits()) return;
    stopping = true;
    while (!stopped) std::this_thread::yield();
  });
  EXPECT_TRUE(stopped);
  writer.join();
  commit(1);
  // What was stopped has changed nothing.
  findAll([](std::size_t) {});
}

}  // namespace
}  // namespace corvaned
