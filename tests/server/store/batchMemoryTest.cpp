#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

#include "server/base/bytes.h"
#include "server/base/errors.h"
#include "server/store/batchMemory.h"
#include "server/store/checksum.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using ::testing::HasSubstr;

BatchEntry batch(const std::string& name, const std::string& mark = {}) {
  BatchEntry entry;
  entry.name = name;
  entry.digest = "digest of " + name;
  entry.unknown = 1;
  entry.changes.documents = {{"k", {}, "text"}};
  entry.changes.deletions = {"d1", "d2"};
  entry.changes.newMark = mark;
  return entry;
}

std::string numbered(std::size_t number) { return "loader-" + std::to_string(number); }

class BatchMemoryTest : public ::testing::Test {
 protected:
  BatchMemory open() const { return {directory_.path(), {}}; }

  static void save(BatchMemory& memory) {
    if (const auto contents = memory.unsaved()) memory.save(*contents);
  }

  std::filesystem::path file() const { return BatchMemory::pathIn(directory_.path()); }

  std::string bytes() const {
    std::ifstream stream(file(), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  tq::test::TemporaryDirectory directory_;
};

TEST_F(BatchMemoryTest, BatchesAreKnownByTheirNames) {
  BatchMemory memory = open();
  memory.note(batch("b1"), 7);
  const auto known = memory.find("b1");
  ASSERT_TRUE(known);
  EXPECT_EQ(known->digest, "digest of b1");
  EXPECT_EQ(known->outcome.documents, 1U);
  EXPECT_EQ(known->outcome.deletions, 2U);
  EXPECT_EQ(known->outcome.unknown, 1U);
  EXPECT_EQ(known->ticket, 7U);
  EXPECT_FALSE(memory.find("b2"));
}

TEST_F(BatchMemoryTest, MarkIsThatOfTheLastBatchThatHadOne) {
  BatchMemory memory = open();
  EXPECT_EQ(memory.mark(), "");
  memory.note(batch("b1", "m1"), 1);
  memory.note(batch("b2"), 2);
  EXPECT_EQ(memory.mark(), "m1");
}

TEST_F(BatchMemoryTest, FileHoldsAll) {
  {
    BatchMemory memory = open();
    for (std::size_t i = 0; i < BatchMemory::kBatches + 10; ++i) {
      memory.note(batch(numbered(i), "m" + std::to_string(i)), i);
    }
    save(memory);
    EXPECT_FALSE(memory.unsaved());
  }
  const BatchMemory memory = open();
  EXPECT_EQ(memory.mark(), "m1009");
  const auto known = memory.find(numbered(10));
  ASSERT_TRUE(known);
  EXPECT_EQ(known->digest, "digest of loader-10");
  EXPECT_EQ(known->outcome.deletions, 2U);
  EXPECT_EQ(known->outcome.unknown, 1U);
  EXPECT_EQ(known->ticket, 0U) << "it is on disk";
  EXPECT_FALSE(memory.find(numbered(9)));
  EXPECT_TRUE(memory.isOld(numbered(9)));
  EXPECT_FALSE(memory.unsaved());
}

TEST_F(BatchMemoryTest, WhatTheIndexLeftOutIsKnownAsLongAsTheBatch) {
  {
    BatchMemory memory = open();
    memory.note(batch(numbered(0)), 0);
    memory.note(batch(numbered(1)), 0);
    save(memory);
    memory.noteLeftOut(numbered(1), "1 document");
    memory.noteLeftOut(numbered(1), "2 documents");
    memory.noteLeftOut("never was", "3 documents");
    EXPECT_EQ(memory.find(numbered(0))->outcome.leftOut, "");
    EXPECT_EQ(memory.find(numbered(1))->outcome.leftOut, "1 document");
    EXPECT_TRUE(memory.unsaved());
    save(memory);
  }
  BatchMemory memory = open();
  EXPECT_FALSE(memory.unsaved());
  EXPECT_EQ(memory.find(numbered(0))->outcome.leftOut, "");
  EXPECT_EQ(memory.find(numbered(1))->outcome.leftOut, "1 document");
  EXPECT_FALSE(memory.find("never was"));
  memory.endReplay();
  for (std::size_t i = 0; i < BatchMemory::kBatches; ++i) memory.note(batch(numbered(i + 2)), 0);
  memory.note(batch(numbered(1)), 0);
  EXPECT_EQ(memory.find(numbered(1))->outcome.leftOut, "") << "it is another batch of that name";
}

TEST_F(BatchMemoryTest, WhatTheIndexLeftOutOutlivesTheReplayOfItsBatch) {
  {
    BatchMemory memory = open();
    memory.note(batch("b1"), 0);
    memory.note(batch("b2"), 0);
    memory.noteLeftOut("b1", "1 document");
    save(memory);
  }
  BatchMemory memory = open();
  memory.replay(batch("b1"));
  memory.replay(batch("b2"));
  memory.endReplay();
  EXPECT_EQ(memory.find("b1")->outcome.leftOut, "1 document");
}

TEST_F(BatchMemoryTest, FileWhoseTextsEndTooEarlyIsRefused) {
  {
    BatchMemory memory = open();
    memory.note(batch("b1"), 0);
    memory.noteLeftOut("b1", "1 document");
    save(memory);
  }
  const std::string whole = bytes();
  const std::string contents = whole.substr(0, whole.size() - 4);
  for (const std::size_t cut : {1U, 10U, 14U, 16U, 20U, 23U}) {
    std::string shorter = contents.substr(0, contents.size() - cut);
    appendU32(shorter, checksumOf(shorter));
    std::ofstream(file(), std::ios::binary) << shorter;
    EXPECT_THROW(open(), ServerError) << cut;
  }
  std::ofstream(file(), std::ios::binary) << whole;
  EXPECT_NO_THROW(open());
}

TEST_F(BatchMemoryTest, OnlyTheLatestBatchesAreKnown) {
  BatchMemory memory = open();
  for (std::size_t i = 1; i <= BatchMemory::kBatches; ++i) memory.note(batch(numbered(i)), 0);
  EXPECT_TRUE(memory.find(numbered(1)));
  memory.note(batch("one more"), 0);
  EXPECT_FALSE(memory.find(numbered(1)));
  EXPECT_TRUE(memory.find(numbered(2)));
}

TEST_F(BatchMemoryTest, NumbersUpToTheHighestForgottenOneOfTheirSeriesAreOld) {
  BatchMemory memory = open();
  memory.note(batch(numbered(17)), 0);
  EXPECT_FALSE(memory.isOld(numbered(17)));
  for (std::size_t i = 0; i < BatchMemory::kBatches; ++i) {
    memory.note(batch("other" + std::to_string(i) + "x"), 0);
  }
  EXPECT_TRUE(memory.isOld(numbered(17)));
  EXPECT_TRUE(memory.isOld(numbered(3)));
  EXPECT_TRUE(memory.isOld("loader-0016"));
  EXPECT_FALSE(memory.isOld(numbered(18)));
  EXPECT_FALSE(memory.isOld("loader"));
  EXPECT_FALSE(memory.isOld("loader2-3"));
  EXPECT_FALSE(memory.isOld("loader-17x"));
}

TEST_F(BatchMemoryTest, OfManySeriesTheLatestAreKnown) {
  BatchMemory memory = open();
  const std::size_t series = BatchMemory::kSeries + 1;
  const auto name = [](std::size_t i) { return "s" + std::to_string(i) + "-1"; };
  for (std::size_t i = 0; i < series; ++i) memory.note(batch(name(i)), 0);
  for (std::size_t i = 0; i < BatchMemory::kBatches; ++i) {
    memory.note(batch("other" + std::to_string(i) + "x"), 0);
  }
  EXPECT_FALSE(memory.isOld(name(0)));
  for (std::size_t i = 1; i < series; ++i) EXPECT_TRUE(memory.isOld(name(i))) << i;
}

TEST_F(BatchMemoryTest, NumbersOfAnyLengthAreCompared) {
  BatchMemory memory = open();
  const std::string nines(30, '9');
  memory.note(batch(nines), 0);
  for (std::size_t i = 0; i < BatchMemory::kBatches; ++i) {
    memory.note(batch("other" + std::to_string(i) + "x"), 0);
  }
  EXPECT_TRUE(memory.isOld(nines));
  EXPECT_TRUE(memory.isOld(std::string(29, '9') + "8"));
  EXPECT_FALSE(memory.isOld("9"));
}

// The journal brings batches that the file has, and newer ones.
TEST_F(BatchMemoryTest, WhatTheJournalBringsOnceMoreChangesNothing) {
  const std::size_t count = BatchMemory::kBatches * 2;
  {
    BatchMemory memory = open();
    for (std::size_t i = 1; i <= count; ++i) memory.note(batch(numbered(i), "m" + numbered(i)), 0);
    save(memory);
  }
  BatchMemory memory = open();
  for (std::size_t i = count / 4; i <= count; ++i) {
    memory.replay(batch(numbered(i), "m" + numbered(i)));
  }
  memory.endReplay();
  EXPECT_EQ(memory.mark(), "m" + numbered(count));
  EXPECT_FALSE(memory.find(numbered(count / 2)));
  for (std::size_t i = count / 2 + 1; i <= count; ++i) EXPECT_TRUE(memory.find(numbered(i))) << i;
}

// One of several clients may be slower than the others.
TEST_F(BatchMemoryTest, BatchThatNeverCameIsNotOldBecauseTheJournalBringsThoseBeforeIt) {
  const std::size_t count = BatchMemory::kBatches * 2;
  const std::size_t missing = count - 1;
  const std::size_t later = 10;
  {
    BatchMemory memory = open();
    for (std::size_t i = 1; i <= count; ++i) {
      if (i != missing) memory.note(batch(numbered(i), "m" + numbered(i)), 0);
    }
    save(memory);
  }
  BatchMemory memory = open();
  for (std::size_t i = 1; i <= count + later; ++i) {
    if (i != missing) memory.replay(batch(numbered(i), "m" + numbered(i)));
  }
  memory.endReplay();
  EXPECT_FALSE(memory.isOld(numbered(missing)));
  EXPECT_EQ(memory.mark(), "m" + numbered(count + later));
  EXPECT_TRUE(memory.find(numbered(count + later)));
  EXPECT_TRUE(memory.unsaved());
  const std::size_t forgotten = count + later - BatchMemory::kBatches - 1;
  EXPECT_TRUE(memory.isOld(numbered(forgotten)));
  EXPECT_FALSE(memory.find(numbered(forgotten)));
  EXPECT_TRUE(memory.find(numbered(forgotten + 1)));
}

// The journal begins at the file's last batches, or after them.
TEST_F(BatchMemoryTest, NamesThatAreUsedAgainDoNotBringBackWhatTheFileHolds) {
  for (std::size_t earlierOnes = 0; earlierOnes <= 2; ++earlierOnes) {
    SCOPED_TRACE(earlierOnes);
    const std::vector<BatchEntry> inFile{batch("before"), batch("again", "m1")};
    {
      BatchMemory memory = open();
      for (const BatchEntry& entry : inFile) memory.note(entry, 0);
      save(memory);
    }
    std::vector<BatchEntry> journal(inFile.end() - static_cast<std::ptrdiff_t>(earlierOnes),
                                    inFile.end());
    for (std::size_t i = 0; i < BatchMemory::kBatches; ++i) {
      journal.push_back(batch("other" + std::to_string(i) + "x"));
    }
    journal.push_back(inFile.front());
    journal.push_back(batch("again", "m2"));
    journal.back().digest = "other content";
    BatchMemory memory = open();
    for (const BatchEntry& entry : journal) memory.replay(entry);
    memory.endReplay();
    EXPECT_TRUE(memory.find("other" + std::to_string(BatchMemory::kBatches - 1) + "x"));
    EXPECT_EQ(memory.mark(), "m2");
    const auto known = memory.find("again");
    ASSERT_TRUE(known);
    EXPECT_EQ(known->digest, "other content");
  }
}

TEST_F(BatchMemoryTest, SeriesThatIsUsedAgainIsNotTheOneUsedLongestAgo) {
  BatchMemory memory = open();
  const auto noteMany = [&](const std::string& name, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      memory.note(batch(name + std::to_string(i) + "x"), 0);
    }
  };
  for (std::size_t i = 0; i < BatchMemory::kSeries; ++i) {
    memory.note(batch("s" + std::to_string(i) + "-1"), 0);
  }
  noteMany("other", BatchMemory::kBatches);
  memory.note(batch("new-1"), 0);
  memory.note(batch("s0-2"), 0);
  noteMany("another", BatchMemory::kBatches - 1);
  EXPECT_TRUE(memory.isOld("new-1"));
  EXPECT_TRUE(memory.find("s0-2"));
  EXPECT_TRUE(memory.isOld("s0-1"));
  EXPECT_FALSE(memory.isOld("s1-1")) << "it has made room";
}

TEST_F(BatchMemoryTest, EveryFlippedBitOfTheFileAndEachShorterOneIsDamage) {
  {
    BatchMemory memory = open();
    memory.note(batch("b1", "m1"), 0);
    save(memory);
  }
  const std::string whole = bytes();
  const auto expectDamage = [&](const std::string& damaged, std::size_t place) {
    std::ofstream(file(), std::ios::binary | std::ios::trunc) << damaged;
    try {
      open();
      ADD_FAILURE() << place;
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::StorageFailed);
      EXPECT_THAT(error.what(), HasSubstr(file().string()));
    }
  };
  for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
    std::string damaged = whole;
    damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
    expectDamage(damaged, bit);
  }
  for (std::size_t size = 0; size < whole.size(); ++size) expectDamage(whole.substr(0, size), size);
}

TEST_F(BatchMemoryTest, FileIsMadeOnceWithoutBatches) {
  BatchMemory memory = open();
  memory.makeFile();
  const std::string empty = bytes();
  EXPECT_FALSE(empty.empty());
  memory.note(batch("b1"), 0);
  memory.makeFile();
  EXPECT_EQ(bytes(), empty);
  EXPECT_TRUE(memory.unsaved());
}

TEST(BatchDigest, DiffersWithEverythingThatABatchChanges) {
  const BatchChanges base{{{"k", {{"a", "b"}}, "text"}}, {"d"}, "m"};
  EXPECT_EQ(digestOf(base), digestOf(BatchChanges(base)));
  const std::vector<BatchChanges> others{
      {{{"l", {{"a", "b"}}, "text"}}, {"d"}, "m"},
      {{{"k", {{"a", "c"}}, "text"}}, {"d"}, "m"},
      {{{"k", {{"ab", ""}}, "text"}}, {"d"}, "m"},
      {{{"k", {}, "text"}}, {"d"}, "m"},
      {{{"k", {{"a", "b"}}, "texts"}}, {"d"}, "m"},
      {{{"k", {{"a", "b"}}, "text"}}, {"e"}, "m"},
      {{{"k", {{"a", "b"}}, "text"}}, {"d", "e"}, "m"},
      {{{"k", {{"a", "b"}}, "text"}}, {}, "m"},
      {{{"k", {{"a", "b"}}, "text"}}, {"d"}, "n"},
      {{{"k", {{"a", "b"}}, "text"}}, {"d"}, ""},
      {{}, {"d"}, "m"},
  };
  for (std::size_t i = 0; i < others.size(); ++i) {
    EXPECT_NE(digestOf(base), digestOf(others[i])) << i;
  }
}

}  // namespace
}  // namespace corvaned
