#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/store/checksum.h"
#include "server/store/journal.h"
#include "server/store/journalTail.h"
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

Change batchOf(const std::string& name, std::vector<Document> documents,
               std::vector<std::string> deletions) {
  BatchEntry entry{name, "digest", 3, {std::move(documents), std::move(deletions), "mark"}};
  return {ChangeKind::Batch, {}, std::make_shared<BatchEntry>(std::move(entry))};
}

Change batchOfThree(const std::string& name) {
  return batchOf(name, {put(name + "a").document, {name + "b", {}, ""}}, {name + "c"});
}

class JournalTest : public ::testing::Test {
 protected:
  using Keys = std::vector<std::string>;

  static void readInto(Keys& keys, const Journal& journal, std::uint64_t lastSegment) {
    JournalPart part = journal.read({}, {lastSegment + 1, 0});
    while (const auto change = part.next()) keys.push_back(change->document.key);
  }

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

// A process can be killed between writing a change and having it synced. Who sends the change once
// more is told that it is there.
TEST_F(JournalTest, WhatIsFoundAtTheOpeningIsOnDiskFromThenOn) {
  const auto durable = [&] { return JournalMark::open(directory_.path())->range().durable; };
  {
    Journal journal = open();
    journal.sync(journal.append(put("k1")).ticket);
    journal.append(put("k2"));
  }
  EXPECT_EQ(durable(), 1U);
  open();
  EXPECT_THAT(found_, ElementsAre("k1", "k2"));
  EXPECT_EQ(durable(), 2U);
}

TEST_F(JournalTest, BatchIsFoundAgainWhole) {
  {
    Journal journal = open();
    EXPECT_FALSE(journal.allowsBatches());
    journal.sync(journal.append(batchOfThree("n")).ticket);
    EXPECT_TRUE(journal.allowsBatches());
    EXPECT_EQ(journal.pending(), 3U);
  }
  std::vector<Change> changes;
  const Journal journal(directory_.path(), [&](std::uint64_t, Change&& change) {
    changes.push_back(std::move(change));
  });
  EXPECT_TRUE(journal.allowsBatches());
  EXPECT_EQ(journal.pending(), 3U);
  ASSERT_EQ(changes.size(), 1U);
  ASSERT_EQ(changes[0].kind, ChangeKind::Batch);
  const BatchEntry& batch = *changes[0].batch;
  EXPECT_EQ(batch.name, "n");
  EXPECT_EQ(batch.digest, "digest");
  EXPECT_EQ(batch.unknown, 3U);
  EXPECT_EQ(batch.changes.newMark, "mark");
  ASSERT_EQ(batch.changes.documents.size(), 2U);
  EXPECT_EQ(batch.changes.documents[0].key, "na");
  EXPECT_EQ(batch.changes.documents[0].metadata, put("").document.metadata);
  EXPECT_EQ(batch.changes.documents[0].content, "text");
  EXPECT_EQ(batch.changes.documents[1].key, "nb");
  EXPECT_THAT(batch.changes.deletions, ElementsAre("nc"));
}

TEST_F(JournalTest, BatchThatIsCutIsDroppedWholeAndADamagedOneIsReported) {
  {
    Journal journal = open();
    journal.append(put("k1"));
  }
  const std::size_t one = bytesOf(1).size();
  {
    Journal journal = open();
    journal.append(batchOfThree("n"));
  }
  const std::string whole = bytesOf(1);
  for (std::size_t length = one; length < whole.size(); ++length) {
    rewrite(1, whole.substr(0, length));
    open();
    EXPECT_THAT(found_, ElementsAre("k1")) << length;
  }
  for (std::size_t bit = one * 8; bit < whole.size() * 8; ++bit) {
    std::string bytes = whole;
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    rewrite(1, bytes);
    EXPECT_THROW(open(), ServerError) << bit;
    EXPECT_THAT(found_, ElementsAre("k1")) << bit;
  }
}

TEST_F(JournalTest, AcknowledgedBatchThatIsDamagedIsReported) {
  {
    Journal journal = open();
    journal.sync(journal.append(batchOfThree("n")).ticket);
  }
  const std::string whole = bytesOf(1);
  for (std::size_t place = 0; place < whole.size(); ++place) {
    std::string bytes = whole;
    bytes[place] = static_cast<char>(bytes[place] ^ 1);
    rewrite(1, bytes);
    EXPECT_THROW(open(), ServerError) << place;
  }
}

// Sizes that lead past the end, with a checksum that fits.
TEST_F(JournalTest, BatchWhoseCountsCannotBeIsNoChange) {
  const auto withCount = [](std::size_t place, char value) {
    std::string entry = encodeEntry(batchOf("n", {{"k", {}, ""}}, {"d"}));
    entry[32 + place] = value;
    const std::uint32_t sum = checksumOf(std::string_view(entry).substr(32));
    for (std::size_t i = 0; i < 4; ++i) entry[8 + i] = static_cast<char>(sum >> (24 - 8 * i));
    numberEntry(entry, 1, 0);
    return entry;
  };
  // kind, name, digest, unknown, mark, then the number of documents
  const std::size_t documents = 1 + 5 + 10 + 4 + 8;
  const std::size_t deletions = documents + 4 + 5 + 4 + 4;
  open();
  const std::string fresh = bytesOf(0);
  for (const std::size_t place : {documents, deletions}) {
    for (const char value : {'\x7F', '\xFF'}) {
      std::filesystem::remove(segment(1));
      rewrite(0, fresh);
      open();
      rewrite(1, withCount(place, value));
      EXPECT_THROW(open(), ServerError) << place;
      EXPECT_THAT(found_, IsEmpty()) << place;
    }
    std::filesystem::remove(segment(1));
    rewrite(0, fresh);
    rewrite(1, withCount(place, 0));
    std::size_t batches = 0;
    const Journal journal(directory_.path(), [&](std::uint64_t, Change&&) { ++batches; });
    EXPECT_EQ(batches, 1U) << "it is the right place";
  }
}

TEST_F(JournalTest, ProgramsThatKnowNoBatchesRefuseTheJournal) {
  {
    Journal journal = open();
    journal.sync(journal.append(put("k1")).ticket);
  }
  EXPECT_THAT(bytesOf(0), HasSubstr("KRM2"));
  {
    Journal journal = open();
    journal.sync(journal.append(batchOfThree("n")).ticket);
    journal.append(put("k2"));
    journal.rotate();
  }
  EXPECT_THAT(bytesOf(0), ::testing::Not(HasSubstr("KRM2")));
  EXPECT_THAT(bytesOf(0), HasSubstr("format 3"));
  EXPECT_EQ(bytesOf(0).size(), 1048U);
  const auto mark = JournalMark::open(directory_.path());
  EXPECT_EQ(mark->range().durable, 3U);
  EXPECT_TRUE(mark->allowsBatches());
}

TEST_F(JournalTest, ChangesOfABatchAreReadOneByOneAndCountAtItsEnd) {
  Journal journal = open();
  journal.append(put("k1"));
  const JournalPosition before = journal.end();
  journal.append(batchOfThree("n"));
  const std::uint64_t batchBytes = journal.end().bytes - before.bytes;
  journal.append(batchOf("empty", {}, {}));
  journal.append(put("k2"));
  JournalPart part = journal.read(before, journal.end());
  for (int round = 0; round < 3; ++round) {
    std::vector<std::pair<ChangeKind, std::string>> changes;
    while (const auto change = part.next()) {
      changes.emplace_back(change->kind, change->document.key);
      EXPECT_EQ(part.isInsideBatch(), changes.size() < 3);
      if (changes.size() < 4) {
        EXPECT_EQ(part.bytesRead(), changes.size() < 3 ? 0U : batchBytes);
      }
      if (round > 0) part.closeFile();
    }
    EXPECT_THAT(changes,
                ElementsAre(std::pair(ChangeKind::Put, "na"), std::pair(ChangeKind::Put, "nb"),
                            std::pair(ChangeKind::Remove, "nc"), std::pair(ChangeKind::Put, "k2")));
    part.rewind();
    EXPECT_EQ(part.next()->document.content, "text");
    part.rewind();
  }
}

TEST_F(JournalTest, BatchThatHasBegunIsNotReadOnceMore) {
  Journal journal = open();
  std::vector<Document> documents;
  for (int i = 0; i < 7; ++i) {
    documents.push_back({"k" + std::to_string(i), {}, std::string(1000, 'x')});
  }
  journal.append(batchOf("b", std::move(documents), {"k7", "k8", "k9"}));
  JournalPart part = journal.read({}, journal.end());
  EXPECT_EQ(part.bytesHeld(), 0U);
  for (int i = 0; i < 10; ++i) {
    const auto change = part.next();
    ASSERT_TRUE(change);
    EXPECT_EQ(change->document.key, "k" + std::to_string(i));
    if (i == 9) break;
    part.closeFile();
    EXPECT_GT(part.bytesHeld(), 7000U);
    std::filesystem::remove(segment(1));
  }
  EXPECT_EQ(part.bytesHeld(), 0U);
  EXPECT_FALSE(part.next());
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
  const std::string mark = bytesOf(0);
  for (std::size_t length = one; length < whole.size(); ++length) {
    rewrite(1, whole.substr(0, length));
    rewrite(0, mark);
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
    EXPECT_THROW(open(), ServerError) << bit;
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
  readInto(keys, journal, closed);
  EXPECT_THAT(keys, ElementsAre("k1", "k2"));
  journal.remove(closed);
  EXPECT_FALSE(std::filesystem::exists(segment(1)));
  EXPECT_FALSE(journal.empty());
  keys.clear();
  readInto(keys, journal, journal.rotate());
  EXPECT_THAT(keys, ElementsAre("k3"));
}

TEST_F(JournalTest, PartsAreReadFromOnePlaceToAnotherAndAgain) {
  Journal journal = open();
  std::vector<JournalPosition> ends{{}};
  for (const char* key : {"k1", "k2", "k3", "k4"}) {
    ends.push_back(journal.append(put(key)).end);
    if (ends.size() == 3) journal.rotate();
  }
  EXPECT_EQ(journal.end(), ends.back());
  EXPECT_THAT(ends, ::testing::WhenSorted(ends));
  const Keys all{"k1", "k2", "k3", "k4"};
  for (std::size_t from = 0; from < ends.size(); ++from) {
    for (std::size_t to = from; to < ends.size(); ++to) {
      JournalPart part = journal.read(ends[from], ends[to]);
      for (int round = 0; round < 2; ++round) {
        Keys keys;
        while (const auto change = part.next()) {
          keys.push_back(change->document.key);
          if (round == 1) part.closeFile();
        }
        const auto begin = all.begin();
        EXPECT_EQ(keys, Keys(begin + static_cast<int>(from), begin + static_cast<int>(to)));
        part.rewind();
        EXPECT_EQ(part.bytesRead(), 0U);
      }
    }
  }
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
  EXPECT_EQ(journal.append(put("k1")).end.segment, 1U);
  EXPECT_EQ(journal.rotate(), 1U);
  EXPECT_EQ(journal.append(put("k2")).end.segment, 2U);
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
  readInto(keys, journal, 3);
  EXPECT_THAT(keys, ElementsAre("k2", "k3"));
  journal.remove(3);
  EXPECT_FALSE(std::filesystem::exists(segment(3)));
  EXPECT_TRUE(journal.empty());
}

// Damage and loss. What the mark asks for is found, or the journal is refused.

class DamagedJournalTest : public JournalTest {
 protected:
  /// A journal of three acknowledged changes, each in its own segment or all in one.
  void write(bool apart) {
    Journal journal = open();
    for (const char* key : {"k1", "k2", "k3"}) {
      journal.sync(journal.append(put(key)).ticket);
      if (apart && key != std::string("k3")) journal.rotate();
    }
  }

  std::filesystem::path mark() const { return directory_.path() / "journal-0000000000"; }

  using Files = std::map<std::filesystem::path, std::string>;

  Files files() const {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
      files[entry.path()] = read(entry.path());
    }
    return files;
  }

  static std::string read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  /// Acknowledges one change, and then does `more`. Returns the mark as it was in between.
  template <typename More>
  std::string markBefore(const More& more) {
    Journal journal = open();
    journal.sync(journal.append(put("k1")).ticket);
    std::string before = read(mark());
    more(journal);
    return before;
  }

  /// What is on disk if these sectors of 512 bytes were not written.
  static std::string withoutSectors(std::string bytes, std::size_t first, std::size_t count) {
    return bytes.replace(first * 512, count * 512, count * 512, '\0');
  }

  void restore(const Files& files) const {
    std::filesystem::remove_all(directory_.path());
    std::filesystem::create_directory(directory_.path());
    for (const auto& [path, bytes] : files) std::ofstream(path, std::ios::binary) << bytes;
  }

  /// Why the journal is refused; empty when it opens. It must then be as it was.
  std::string refusal() {
    const Files before = files();
    try {
      open();
      return {};
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::StorageFailed);
      EXPECT_EQ(files(), before) << "a damaged journal was changed";
      return error.what();
    }
  }
};

TEST_F(DamagedJournalTest, EveryDamagedByteIsHarmlessOrNamed) {
  for (const bool apart : {false, true}) {
    restore({});
    write(apart);
    const Files whole = files();
    std::size_t refused = 0;
    for (const auto& [path, bytes] : whole) {
      for (std::size_t place = 0; place < bytes.size(); ++place) {
        for (const char change : {'\x01', '\xFF'}) {
          SCOPED_TRACE(path.string() + " byte " + std::to_string(place));
          restore(whole);
          std::string damaged = bytes;
          damaged[place] = static_cast<char>(damaged[place] ^ change);
          std::ofstream(path, std::ios::binary) << damaged;
          const std::string reason = refusal();
          if (reason.empty()) {
            EXPECT_THAT(found_, ElementsAre("k1", "k2", "k3"));
            EXPECT_EQ(path, mark()) << "a damaged change was taken for a good one";
            continue;
          }
          ++refused;
          EXPECT_THAT(reason, HasSubstr(" is damaged at byte "));
          EXPECT_THAT(reason, HasSubstr(path.string()));
        }
      }
    }
    EXPECT_GT(refused, 300U);
  }
}

TEST_F(DamagedJournalTest, AcknowledgedChangesThatAreCutOffAreMissed) {
  write(false);
  const Files whole = files();
  for (std::size_t length = 0; length < whole.at(segment(1)).size(); ++length) {
    restore(whole);
    rewrite(1, whole.at(segment(1)).substr(0, length));
    EXPECT_THAT(refusal(), HasSubstr(segment(1).string())) << length;
  }
}

TEST_F(DamagedJournalTest, SegmentsThatAreGoneAreMissed) {
  write(true);
  const Files whole = files();
  for (const int number : {1, 2, 3}) {
    restore(whole);
    std::filesystem::remove(segment(number));
    EXPECT_THAT(refusal(), HasSubstr("missing")) << number;
  }
  restore(whole);
  for (const int number : {1, 2, 3}) std::filesystem::remove(segment(number));
  EXPECT_THAT(refusal(), HasSubstr("missing"));
}

TEST_F(DamagedJournalTest, MarkThatIsGoneOrCannotBeReadIsMissed) {
  write(false);
  const Files whole = files();
  std::filesystem::remove(mark());
  EXPECT_THAT(refusal(), HasSubstr(mark().string()));
  restore(whole);
  std::ofstream(mark(), std::ios::binary) << std::string(1048, '\0');
  EXPECT_THAT(refusal(), HasSubstr(mark().string()));
}

TEST_F(DamagedJournalTest, MarkThatWasBeingWrittenDoesNoHarm) {
  write(false);
  const Files whole = files();
  for (const std::size_t place : {std::size_t{512}, std::size_t{1024}}) {
    restore(whole);
    std::string bytes = whole.at(mark());
    bytes.replace(place + 12, 12, std::string(12, '\xEE'));
    std::ofstream(mark(), std::ios::binary) << bytes;
    EXPECT_EQ(refusal(), "");
    EXPECT_THAT(found_, ElementsAre("k1", "k2", "k3"));
  }
}

TEST_F(DamagedJournalTest, RemovedSegmentsAreNotMissed) {
  {
    Journal journal = open();
    for (const char* key : {"k1", "k2"}) journal.append(put(key));
    journal.remove(journal.rotate());
    EXPECT_TRUE(journal.empty());
  }
  {
    Journal journal = open();
    EXPECT_THAT(found_, IsEmpty());
    journal.sync(journal.append(put("k3")).ticket);
  }
  EXPECT_EQ(refusal(), "");
  EXPECT_THAT(found_, ElementsAre("k3"));
}

TEST_F(DamagedJournalTest, DamageSinceTheOpeningIsNamedWhenTheSegmentIsRead) {
  Journal journal = open();
  journal.append(put("k1"));
  journal.append(put("k2"));
  const std::uint64_t closed = journal.rotate();
  const std::string whole = bytesOf(1);
  Keys keys;
  for (const std::size_t length : {std::size_t{0}, whole.size() / 2, whole.size() - 1}) {
    rewrite(1, whole.substr(0, length));
    EXPECT_THROW(readInto(keys, journal, closed), ServerError) << length;
  }
}

// Journals without a mark and numbers, as earlier versions wrote them.

const std::string kEarlierChange(
    "KRJ1\0\0\0\x28\xE0\x2B\x10\x4C\1\0\0\0\2k2\0\0\0\2\0\0\0\1a\0\0\0\1b\0\0\0\1c\0\0\0\2\0x"
    "\0\0\0\4text",
    52);

TEST_F(DamagedJournalTest, EarlierFormIsReadAndGoesOnInTheNewOne) {
  rewrite(3, kEarlierChange);
  rewrite(4, kEarlierChange);
  {
    Journal journal = open();
    EXPECT_THAT(found_, ElementsAre("k2", "k2"));
    journal.sync(journal.append(put("k3")).ticket);
  }
  EXPECT_EQ(bytesOf(4), kEarlierChange);
  EXPECT_EQ(refusal(), "");
  EXPECT_THAT(found_, ElementsAre("k2", "k2", "k3"));
  Journal journal = open();
  journal.remove(journal.rotate());
  EXPECT_TRUE(journal.empty());
}

TEST_F(DamagedJournalTest, LastChangeOfTheEarlierFormIsDroppedWhereverItIsCut) {
  for (std::size_t length = 0; length < kEarlierChange.size(); ++length) {
    restore({{segment(1), kEarlierChange + kEarlierChange.substr(0, length)}});
    open();
    EXPECT_THAT(found_, ElementsAre("k2")) << length;
    EXPECT_EQ(bytesOf(1), kEarlierChange);
  }
}

TEST_F(DamagedJournalTest, EveryDamagedByteOfTheEarlierFormIsNamed) {
  const std::string whole = kEarlierChange + kEarlierChange;
  for (std::size_t place = 0; place < whole.size(); ++place) {
    for (const char change : {'\x01', '\x80'}) {
      std::string bytes = whole;
      bytes[place] = static_cast<char>(bytes[place] ^ change);
      restore({{segment(1), bytes}});
      EXPECT_THAT(refusal(), HasSubstr(segment(1).string() + " is damaged at byte " +
                                       (place < whole.size() / 2 ? "0" : "52")))
          << place;
    }
  }
}

// The rules of earlier versions: the last of the numbered files may end in a change that cannot be
// read, and is then shortened; in all others that is damage.
TEST_F(DamagedJournalTest, EarlierVersionsRefuseTheNewFormAndShortenNothing) {
  write(false);
  const Files all = files();
  ASSERT_GT(all.size(), 1U);
  EXPECT_EQ(all.begin()->first, mark()) << "it must come first, and not last";
  EXPECT_FALSE(all.begin()->second.starts_with("KRJ1"));
  EXPECT_THAT(all.begin()->second, HasSubstr("The journal of this collection has format 2."));
}

// The machine stopped after the mark's last state was on disk and before its later ones were.

TEST_F(DamagedJournalTest, DamagedByteOfTheLastSyncIsNamedWhenTheMarkIsOld) {
  const std::string mark = markBefore([](Journal& journal) {
    std::uint64_t ticket = 0;
    for (const char* key : {"k2", "k3", "k4"}) ticket = journal.append(put(key)).ticket;
    journal.sync(ticket);
  });
  Files whole = files();
  whole[this->mark()] = mark;
  const std::size_t one = whole.at(segment(1)).size() / 4;
  for (std::size_t place = one; place < 4 * one; ++place) {
    for (const char change : {'\x01', '\x80'}) {
      restore(whole);
      std::string bytes = whole.at(segment(1));
      bytes[place] = static_cast<char>(bytes[place] ^ change);
      rewrite(1, bytes);
      EXPECT_THAT(refusal(), HasSubstr(segment(1).string())) << place;
    }
  }
}

TEST_F(DamagedJournalTest, LaterChangesTellWhatWasAcknowledgedWhenTheMarkIsOld) {
  const std::string text(2000, 'x');
  const std::string mark = markBefore([&](Journal& journal) {
    for (const char* key : {"k2", "k3", "k4"}) {
      journal.sync(journal.append(put(key, text)).ticket);
    }
  });
  Files whole = files();
  whole[this->mark()] = mark;
  const std::size_t last = whole.at(segment(1)).rfind("KRJ2");
  for (std::size_t sector = 1; (sector + 1) * 512 < whole.at(segment(1)).size(); ++sector) {
    SCOPED_TRACE(sector);
    restore(whole);
    rewrite(1, withoutSectors(whole.at(segment(1)), sector, 1));
    if ((sector + 1) * 512 <= last) {
      EXPECT_THAT(refusal(), HasSubstr(segment(1).string()));
      continue;
    }
    EXPECT_EQ(refusal(), "") << "nothing on disk says that it was acknowledged";
    const bool head = sector * 512 < last;
    EXPECT_EQ(found_, head ? Keys({"k1", "k2"}) : Keys({"k1", "k2", "k3"}));
  }
}

// What the machine brought to disk of changes that nobody waited for, out of their order.
TEST_F(DamagedJournalTest, HoleAmongChangesThatWereNotAcknowledgedIsDroppedWithWhatFollows) {
  const std::string text(1500, 'x');
  {
    Journal journal = open();
    journal.sync(journal.append(put("k1", text)).ticket);
    for (const char* key : {"k2", "k3", "k4"}) journal.append(put(key, text));
  }
  const Files whole = files();
  const std::string bytes = whole.at(segment(1));
  const std::size_t one = bytes.size() / 4;
  const std::size_t first = one / 512 + 1;
  for (std::size_t count = 1; (first + count) * 512 < bytes.size(); ++count) {
    restore(whole);
    rewrite(1, withoutSectors(bytes, first, count));
    {
      Journal journal = open();
      EXPECT_THAT(found_, ElementsAre("k1"));
      journal.sync(journal.append(put("k5")).ticket);
    }
    open();
    EXPECT_THAT(found_, ElementsAre("k1", "k5"));
  }
  // What stood in the sector when it was last written is still there.
  for (std::size_t left = 0; left + 32 <= 512; left += 7) {
    restore(whole);
    std::string hole = bytes;
    hole.replace(first * 512 + left, 512 - left, 512 - left, '\0');
    rewrite(1, hole);
    EXPECT_EQ(refusal(), "") << left;
    EXPECT_THAT(found_, ElementsAre("k1")) << left;
  }
}

// However few of its bytes stood there.
TEST_F(DamagedJournalTest, SectorThatWasNotWrittenIsKnownByZerosAlone) {
  const std::string text(1500, 'x');
  for (std::size_t length = 0; length < 512; length += 5) {
    SCOPED_TRACE(length);
    restore({});
    {
      Journal journal = open();
      journal.sync(journal.append(put("k1", std::string(length, 'x'))).ticket);
      journal.append(put("k2", text));
    }
    const Files whole = files();
    const std::string bytes = whole.at(segment(1));
    const std::size_t second = bytes.rfind("KRJ2");
    const std::size_t next = (second / 512 + 1) * 512;
    rewrite(1, std::string(bytes).replace(second, next - second, next - second, '\0'));
    EXPECT_EQ(refusal(), "") << "its first bytes";
    EXPECT_THAT(found_, ElementsAre("k1"));
    restore(whole);
    const std::size_t last = (bytes.size() - 1) / 512 * 512;
    rewrite(1, withoutSectors(bytes, last / 512, 1).substr(0, bytes.size()));
    EXPECT_EQ(refusal(), "") << "its last bytes";
    EXPECT_THAT(found_, ElementsAre("k1"));
  }
}

TEST_F(DamagedJournalTest, WhatIsDroppedIsKeptBesideTheJournal) {
  const std::string text(1500, 'x');
  {
    Journal journal = open();
    journal.sync(journal.append(put("k1", text)).ticket);
    for (const char* key : {"k2", "k3", "k4"}) journal.append(put(key, text));
  }
  const std::size_t one = bytesOf(1).size() / 4;
  const std::string hole = withoutSectors(bytesOf(1), one / 512 + 1, 1);
  rewrite(1, hole);
  EXPECT_THAT(tailsSetAsideIn(directory_.path()), IsEmpty());
  open();
  const std::filesystem::path first = directory_.path() / "journal-dropped-1";
  EXPECT_THAT(tailsSetAsideIn(directory_.path()), ElementsAre(first));
  EXPECT_EQ(read(first), hole.substr(one));
  {
    Journal journal = open();
    journal.append(put("k5"));
  }
  rewrite(1, bytesOf(1).substr(0, one + 10));
  const std::string cut = bytesOf(1).substr(one);
  open();
  EXPECT_EQ(read(directory_.path() / "journal-dropped-2"), cut);
  EXPECT_EQ(read(first), hole.substr(one));
}

TEST_F(DamagedJournalTest, WholeChangesAmongWhatIsSetAsideAreCounted) {
  const std::string text(1500, 'x');
  {
    Journal journal = open();
    for (const char* key : {"k1", "k2", "k3"}) journal.append(put(key, text));
  }
  const std::string bytes = bytesOf(1);
  rewrite(1, withoutSectors(bytes, 1, 1));
  const JournalTail tail = setTailAside(segment(1), 0);
  EXPECT_EQ(tail.bytes, bytes.size());
  EXPECT_EQ(tail.changes, 2U);
}

TEST_F(DamagedJournalTest, ChangeWhoseTextLooksLikeChangesIsOne) {
  std::string inner;
  {
    Journal journal = open();
    journal.sync(journal.append(put("inner")).ticket);
    inner = bytesOf(1);
  }
  restore({});
  {
    Journal journal = open();
    journal.sync(journal.append(put("k1")).ticket);
    journal.append(put("k2", inner + inner));
  }
  const std::string whole = bytesOf(1);
  const std::size_t first = whole.find("KRJ2", 1);
  // Cut off, it was never acknowledged, whatever its text says.
  for (std::size_t length = first; length < whole.size(); ++length) {
    restore({{mark(), files().at(mark())}, {segment(1), whole.substr(0, length)}});
    EXPECT_EQ(refusal(), "") << length;
    EXPECT_THAT(found_, ElementsAre("k1")) << length;
  }
}

TEST_F(DamagedJournalTest, MarkTakesNoDescriptor) {
  Journal journal = open();
  const auto descriptors = [] {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return std::distance(begin(open), end(open));
  };
  const auto before = descriptors();
  journal.sync(journal.append(put("k1")).ticket);
  EXPECT_EQ(descriptors(), before);
}

TEST_F(DamagedJournalTest, ChangeThatCannotBeMarkedIsNotAcknowledged) {
  Journal journal = open();
  journal.sync(journal.append(put("k0")).ticket);
  const std::uint64_t ticket = journal.append(put("k1")).ticket;
  {
    const test::DescriptorLimit none(0);
    EXPECT_THROW(journal.sync(ticket), ServerError);
  }
  EXPECT_NO_THROW(journal.sync(ticket));
}

TEST_F(DamagedJournalTest, ServerThatStoppedBetweenTheFormsGoesOn) {
  restore({{segment(1), kEarlierChange}, {segment(2), ""}});
  EXPECT_EQ(refusal(), "");
  EXPECT_THAT(found_, ElementsAre("k2"));
  restore({{segment(1), kEarlierChange.substr(0, 30)}, {segment(2), ""}});
  EXPECT_THAT(refusal(), HasSubstr(segment(1).string() + " is damaged at byte 0"));
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
