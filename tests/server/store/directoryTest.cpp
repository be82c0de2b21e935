#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "server/base/errors.h"
#include "server/store/directory.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace fs = std::filesystem;

class DirectoryTest : public ::testing::Test {
 protected:
  fs::path root() const { return directory_.path() / "root"; }

  void write(const std::string& name, const std::string& bytes = "x") const {
    fs::create_directories((root() / name).parent_path());
    std::ofstream(root() / name) << bytes;
  }

  // With a slash after those that are directories.
  template <typename Reader>
  std::vector<std::string> namesFrom(Reader& reader) const {
    std::vector<std::string> names;
    while (const auto entry = reader.next()) {
      names.push_back(entry->path.lexically_relative(root()).string() +
                      (entry->isDirectory ? "/" : ""));
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::vector<std::string> tree() const {
    TreeReader reader(root());
    return namesFrom(reader);
  }

  tq::test::TemporaryDirectory directory_;
};

TEST_F(DirectoryTest, ReaderTellsWhatStandsInADirectoryAndNothingBelow) {
  for (const char* name : {"a", "b/c", ".hidden", "b/d/e"}) write(name);
  DirectoryReader reader(root());
  EXPECT_THAT(namesFrom(reader), ElementsAre(".hidden", "a", "b/"));
  EXPECT_FALSE(reader.next());
}

TEST_F(DirectoryTest, TreeHasEachDirectoryBeforeWhatIsInIt) {
  for (const char* name : {"a", "b/c", "b/d/e"}) write(name);
  fs::create_directory(root() / "empty");
  EXPECT_THAT(tree(), ElementsAre("a", "b/", "b/c", "b/d/", "b/d/e", "empty/"));
  std::vector<fs::path> seen;
  TreeReader reader(root());
  while (const auto entry = reader.next()) {
    if (entry->path.parent_path() != root()) {
      EXPECT_THAT(seen, ::testing::Contains(entry->path.parent_path()));
    }
    seen.push_back(entry->path);
  }
}

TEST_F(DirectoryTest, WhatIsSkippedIsNotEntered) {
  for (const char* name : {"a/x", "b/x", "b/y/z"}) write(name);
  TreeReader reader(root());
  std::vector<std::string> names;
  while (const auto entry = reader.next()) {
    names.push_back(entry->path.lexically_relative(root()).string());
    if (names.back() == "b") reader.skip();
  }
  EXPECT_THAT(names, ::testing::UnorderedElementsAre("a", "a/x", "b"));
}

TEST_F(DirectoryTest, LinksLeadNowhere) {
  write("a/x", "123");
  fs::create_directory_symlink("..", root() / "a" / "up");
  fs::create_directory_symlink(root() / "a", root() / "other");
  EXPECT_THAT(tree(), ElementsAre("a/", "a/up", "a/x", "other"));
  EXPECT_EQ(bytesInTree(root()), 3U);
  removeTree(root() / "other");
  removeTree(root() / "a" / "up");
  EXPECT_THAT(tree(), ElementsAre("a/", "a/x"));
}

TEST_F(DirectoryTest, BytesAreThoseOfAllFiles) {
  write("a", "12345");
  write("b/c/d", "123");
  write("b/empty", "");
  EXPECT_EQ(bytesInTree(root()), 8U);
  EXPECT_EQ(bytesInTree(root() / "missing"), 0U);
  EXPECT_EQ(bytesInTree(root() / "a"), 0U);
}

TEST_F(DirectoryTest, WhatCannotBeReadIsNamedWithTheReason) {
  write("a");
  for (const char* name : {"missing", "a"}) {
    try {
      DirectoryReader reader(root() / name);
      ADD_FAILURE() << name;
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::StorageFailed);
      EXPECT_THAT(error.what(), HasSubstr("cannot read " + (root() / name).string() + ": "));
    }
  }
}

TEST_F(DirectoryTest, TreeIsRemovedWhole) {
  for (const char* name : {"a", "b/c", "b/d/e"}) write(name);
  write("../beside");
  fs::create_symlink(directory_.path() / "beside", root() / "b" / "link");
  removeTree(root());
  EXPECT_FALSE(fs::exists(root()));
  EXPECT_TRUE(fs::exists(directory_.path() / "beside"));
  EXPECT_NO_THROW(removeTree(root())) << "there is nothing to remove";
  EXPECT_NO_THROW(tryToRemoveTree(root()));
}

TEST_F(DirectoryTest, DeepTreeIsRead) {
  std::string name;
  for (int depth = 0; depth < 60; ++depth) name += "d/";
  write(name + "file");
  EXPECT_EQ(tree().size(), 61U);
  removeTree(root());
  EXPECT_FALSE(fs::exists(root()));
}

}  // namespace
}  // namespace corvaned
