#include <gtest/gtest.h>
#include <xapian.h>

#include <string>
#include <vector>

#include "server/store/indexParts.h"
#include "server/store/indexSums.h"
#include "server/store/indexWriter.h"
#include "server/store/partWriter.h"
#include "tests/server/store/fileSizeLimit.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

constexpr int kDocuments = 200;
const StopCheck kGoOn = [] {};

class PartWriterTest : public ::testing::Test {
 protected:
  PartWriterTest() {
    for (int i = 0; i < kDocuments; ++i) {
      const std::string n = std::to_string(i);
      std::string text;
      for (int word = 0; word < 20; ++word) text += "w" + n + "x" + std::to_string(word) + " ";
      changes_.push_back({ChangeKind::Put, {"key" + n, {}, text}});
    }
    for (const Change& change : changes_) pointers_.push_back(&change);
  }

  /// Whether the commit succeeds where no file may get larger.
  static bool commits(PartWriter& writer, rlim_t bytes) {
    const test::FileSizeLimit full(bytes);
    try {
      writer.commit();
      return true;
    } catch (const Xapian::DatabaseError&) {
      return false;
    }
  }

  /// How many documents there are after a commit for which the files may have this size.
  Xapian::doccount committed(rlim_t bytes) const {
    const tq::test::TemporaryDirectory directory;
    IndexWriter::create(directory.path(), {"en", {}});
    const IndexParts parts = IndexParts::in(directory.path() / IndexSums::kIndexDirectory);
    bool success = false;
    {
      PartWriter writer(parts, 0, kGoOn);
      writer.open();
      writer.prepare(pointers_, writer.names());
      success = commits(writer, bytes);
    }
    const Xapian::Database database(parts.paths().front().string());
    EXPECT_EQ(database.get_doccount(), success ? kDocuments : 0) << bytes;
    EXPECT_EQ(database.term_exists("w1x1"), success) << bytes;
    return database.get_doccount();
  }

  std::vector<Change> changes_;
  std::vector<const Change*> pointers_;
};

// The disk has room again when the handle goes.
TEST_F(PartWriterTest, NothingOfAFailedCommitIsKept) {
  constexpr rlim_t kMost = rlim_t{100} * kTableBlock;
  rlim_t bytes = kTableBlock / 2;
  while (committed(bytes) == 0 && bytes < kMost) bytes += kTableBlock;
  EXPECT_GT(bytes, 10 * kTableBlock) << "hardly any commit has failed";
  EXPECT_LT(bytes, kMost);
}

}  // namespace
}  // namespace corvaned
