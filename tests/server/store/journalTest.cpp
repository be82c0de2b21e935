#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "server/base/errors.h"
#include "server/store/journal.h"
#include "tests/server/store/descriptorLimit.h"
#include "tests/server/store/fileSizeLimit.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

Change put(const std::string& key, const std::string& content = "text") {
  return {ChangeKind::Put, {key, {{"a", "b"}, {"c", std::string("\0x", 2)}}, content}};
}

class JournalTest : public ::testing::Test {
 protected:
  using Keys = std::vector<std::string>;

  static Journal::Visitor into(Keys& keys) {
    return [&keys](std::uint64_t, Change&& change) { keys.push_back(change.document.key); };
  }

  Journal open() {
    found_.clear();
    return Journal(directory_.path(), into(found_));
  }

  std::filesystem::path segment(int number) const {
    return directory_.path() / ("journal-000000000" + std::to_string(number));
  }

  std::string bytesOf(int number) const {
    std::ifstream file(segment(number), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  void rewrite(int number, const std::string& bytes) const {
    std::ofstream(segment(number), std::ios::binary | std::ios::trunc) << bytes;
  }

  tq::test::TemporaryDirectory directory_;
  Keys found_;
};

TEST_F(JournalTest, ChangesAreFoundAgainWholeAndInOrder) {
  {
    Journal journal = open();
    journal.append(put("k1"));
    journal.sync(journal.append({ChangeKind::Remove, {std::string("k\0\xFF", 3), {}, {}}}).ticket);
  }
  std::vector<Change> changes;
  Journal journal(directory_.path(),
                  [&](std::uint64_t, Change&& change) { changes.push_back(std::move(change)); });
  ASSERT_EQ(changes.size(), 2U);
  EXPECT_EQ(changes[0].kind, ChangeKind::Put);
  EXPECT_EQ(changes[0].document.key, "k1");
  EXPECT_EQ(changes[0].document.metadata, put("k1").document.metadata);
  EXPECT_EQ(changes[0].document.content, "text");
  EXPECT_EQ(changes[1].kind, ChangeKind::Remove);
  EXPECT_EQ(changes[1].document.key, std::string("k\0\xFF", 3));
}

TEST_F(JournalTest, LastChangeIsDroppedWhereverItIsCutAndNothingElse) {
  {
    Journal journal = open();
    journal.append(put("k1"));
  }
  const std::size_t one = bytesOf(1).size();
  {
    Journal journal = open();
    journal.append(put("k2"));
  }
  const std::string whole = bytesOf(1);
  for (std::size_t length = one; length < whole.size(); ++length) {
    rewrite(1, whole.substr(0, length));
    {
      Journal journal = open();
      EXPECT_THAT(found_, ElementsAre("k1")) << length;
      journal.append(put("k3"));
    }
    open();
    EXPECT_THAT(found_, ElementsAre("k1", "k3")) << length;
  }
}

TEST_F(JournalTest, EveryFlippedBitOfTheLastChangeIsNoticed) {
  {
    Journal journal = open();
    journal.append(put("k1"));
  }
  const std::string whole = bytesOf(1);
  for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
    std::string bytes = whole;
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    rewrite(1, bytes);
    open();
    EXPECT_THAT(found_, IsEmpty()) << bit;
  }
}

TEST_F(JournalTest, DamageInAClosedSegmentIsReportedWithItsFile) {
  {
    Journal journal = open();
    journal.append(put("k1"));
    journal.rotate();
    journal.append(put("k2"));
  }
  rewrite(1, bytesOf(1).substr(0, 20));
  try {
    open();
    FAIL() << "the damage was not noticed";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::StorageFailed);
    EXPECT_THAT(error.what(), HasSubstr(segment(1).string()));
  }
}

TEST_F(JournalTest, ClosedSegmentsAreReadAndRemovedWhileNewChangesArrive) {
  Journal journal = open();
  EXPECT_TRUE(journal.empty());
  journal.append(put("k1"));
  journal.append(put("k2"));
  EXPECT_FALSE(journal.empty());
  const std::uint64_t closed = journal.rotate();
  journal.append(put("k3"));
  Keys keys;
  journal.read(closed, into(keys));
  EXPECT_THAT(keys, ElementsAre("k1", "k2"));
  journal.remove(closed);
  EXPECT_FALSE(std::filesystem::exists(segment(1)));
  EXPECT_FALSE(journal.empty());
  keys.clear();
  journal.read(journal.rotate(), into(keys));
  EXPECT_THAT(keys, ElementsAre("k3"));
}

TEST_F(JournalTest, SegmentsLeftByACrashAreFoundInOrder) {
  {
    Journal journal = open();
    for (int i = 0; i < 12; ++i) {
      journal.append(put("k" + std::to_string(i)));
      journal.rotate();
    }
  }
  open();
  ASSERT_EQ(found_.size(), 12U);
  for (std::size_t i = 0; i < 12; ++i) EXPECT_EQ(found_[i], "k" + std::to_string(i));
}

TEST_F(JournalTest, ChangesOfManyThreadsAreAllThere) {
  {
    Journal journal = open();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&journal, t] {
        for (int i = 0; i < 50; ++i) {
          journal.sync(journal.append(put(std::to_string(t) + "-" + std::to_string(i))).ticket);
        }
      });
    }
    for (int i = 0; i < 5; ++i) journal.rotate();
    for (std::thread& thread : threads) thread.join();
  }
  open();
  EXPECT_EQ(found_.size(), 200U);
  EXPECT_EQ(std::set<std::string>(found_.begin(), found_.end()).size(), 200U);
}

TEST_F(JournalTest, ChangeThatCannotBeWrittenLeavesNothingBehind) {
  {
    Journal journal = open();
    journal.append(put("k1"));
    {
      const test::FileSizeLimit full(4096);
      EXPECT_THROW(journal.append(put("k2", std::string(100000, 'x'))), ServerError);
    }
    journal.append(put("k3"));
  }
  open();
  EXPECT_THAT(found_, ElementsAre("k1", "k3"));
}

TEST_F(JournalTest, SegmentThatCannotBeStartedIsStartedLater) {
  {
    Journal journal = open();
    journal.append(put("k1"));
    // Once without a failure: see DescriptorLimit.
    EXPECT_EQ(journal.rotate(), 1U);
    {
      // Enough for the segment's file and not for its directory, which is to be brought to disk.
      const test::DescriptorLimit few(1);
      EXPECT_THROW(journal.rotate(), ServerError);
    }
    EXPECT_FALSE(std::filesystem::exists(segment(3)));
    journal.append(put("k2"));
    EXPECT_EQ(journal.rotate(), 2U);
    journal.append(put("k3"));
  }
  open();
  EXPECT_THAT(found_, ElementsAre("k1", "k2", "k3"));
}

TEST_F(JournalTest, ChangesKnowTheirSegment) {
  Journal journal = open();
  EXPECT_EQ(journal.append(put("k1")).segment, 1U);
  EXPECT_EQ(journal.rotate(), 1U);
  EXPECT_EQ(journal.append(put("k2")).segment, 2U);
}

TEST_F(JournalTest, SegmentThatCannotBeRemovedStaysWithTheNewerOnes) {
  Journal journal = open();
  for (const char* key : {"k1", "k2", "k3"}) {
    journal.append(put(key));
    journal.rotate();
  }
  // What is no file and not empty cannot be removed as one.
  const std::string bytes = bytesOf(2);
  std::filesystem::remove(segment(2));
  std::filesystem::create_directories(segment(2) / "x");
  EXPECT_ANY_THROW(journal.remove(3));
  std::filesystem::remove_all(segment(2));
  rewrite(2, bytes);
  Keys keys;
  journal.read(3, into(keys));
  EXPECT_THAT(keys, ElementsAre("k2", "k3"));
  journal.remove(3);
  EXPECT_FALSE(std::filesystem::exists(segment(3)));
  EXPECT_TRUE(journal.empty());
}

TEST_F(JournalTest, LargeChangeGoesThrough) {
  const std::string content(3U << 20U, 'x');
  {
    Journal journal = open();
    journal.append(put("k1", content));
    journal.append(put("k2"));
  }
  std::size_t bytes = 0;
  Journal journal(directory_.path(),
                  [&](std::uint64_t, Change&& change) { bytes += change.document.content.size(); });
  EXPECT_EQ(bytes, content.size() + 4);
}

}  // namespace
}  // namespace corvaned
