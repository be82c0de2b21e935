#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

// Who may include whom among the server's sources. A wing that reaches into another one, or two
// units that need each other, can no longer be understood or changed one at a time.
namespace corvaned {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The files that each file includes; all names are relative to the server's folder.
using Includes = std::map<std::string, std::vector<std::string>>;

/// What the files of a wing may include: folders (with "/") and single files.
const std::map<std::string, std::set<std::string>> kAllowed{
    {"base/", {"base/"}},
    {"access/", {"base/", "access/"}},
    {"store/", {"base/", "store/"}},
    {"front/", {"base/", "front/", "access/accessControl.h", "store/store.h"}},
    {"faults/", {"base/", "front/", "faults/"}},
};

std::string wingOf(const std::string& file) { return file.substr(0, file.find('/') + 1); }

/// A header and its source are one unit: whatever either needs, the other cannot do without.
std::string unitOf(const std::string& file) { return file.substr(0, file.rfind('.')); }

std::vector<std::string> forbidden(const Includes& includes) {
  std::vector<std::string> arrows;
  for (const auto& [file, included] : includes) {
    // The program itself, whose files stand in no folder, puts the wings together.
    if (wingOf(file).empty()) continue;
    const auto allowed = kAllowed.find(wingOf(file));
    for (const std::string& other : included) {
      if (allowed == kAllowed.end() ||
          (!allowed->second.contains(wingOf(other)) && !allowed->second.contains(other))) {
        arrows.push_back(file + " -> " + other);
      }
    }
  }
  return arrows;
}

using Units = std::map<std::string, std::set<std::string>>;

Units unitsOf(const Includes& includes) {
  Units units;
  for (const auto& [file, included] : includes) {
    std::set<std::string>& needed = units[unitOf(file)];
    for (const std::string& other : included) needed.insert(unitOf(other));
    needed.erase(unitOf(file));
  }
  return units;
}

/// The units that are left when those that need nothing that is left are taken away, again and
/// again: the circles, and what needs them.
std::vector<std::string> circular(const Includes& includes) {
  Units units = unitsOf(includes);
  for (bool taken = true; taken;) {
    taken = std::erase_if(units, [&](const auto& unit) {
              return std::none_of(unit.second.begin(), unit.second.end(),
                                  [&](const std::string& other) { return units.contains(other); });
            }) > 0;
  }
  std::vector<std::string> names;
  for (const auto& [name, needed] : units) names.push_back(name);
  return names;
}

Includes includesBelow(const std::filesystem::path& root) {
  static const std::regex line("#include \"server/([^\"]+)\"");
  Includes includes;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    const std::string extension = entry.path().extension();
    if (extension != ".h" && extension != ".cpp") continue;
    std::ifstream file(entry.path());
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    std::vector<std::string>& included = includes[entry.path().lexically_relative(root).string()];
    for (std::sregex_iterator found(text.begin(), text.end(), line), end; found != end; ++found) {
      included.push_back((*found)[1]);
    }
  }
  return includes;
}

TEST(Wings, IncludeOnlyWhatStandsBelowThem) {
  const Includes includes = includesBelow(CORVANED_SOURCES);
  ASSERT_TRUE(includes.contains("front/connection.cpp"));
  ASSERT_THAT(includes.at("front/connection.cpp"), ::testing::Contains("front/connection.h"));
  EXPECT_THAT(forbidden(includes), IsEmpty());
}

TEST(Wings, HaveNoUnitsThatNeedEachOther) {
  EXPECT_THAT(circular(includesBelow(CORVANED_SOURCES)), IsEmpty());
}

TEST(Wings, ArrowIntoAnotherWingIsNoticed) {
  EXPECT_THAT(forbidden({{"front/a.cpp", {"store/store.h", "store/journal.h", "base/errors.h"}},
                         {"store/a.h", {"front/framing.h", "store/b.h"}},
                         {"faults/a.h", {"front/outlet.h", "store/store.h"}},
                         {"base/a.h", {"store/store.h"}},
                         {"elsewhere/a.h", {"base/bytes.h"}},
                         {"main.cpp", {"store/localStore.h", "faults/a.h"}}}),
              ElementsAre("base/a.h -> store/store.h", "elsewhere/a.h -> base/bytes.h",
                          "faults/a.h -> store/store.h", "front/a.cpp -> store/journal.h",
                          "store/a.h -> front/framing.h"));
}

TEST(Wings, UnitsThatNeedEachOtherAreNoticed) {
  EXPECT_THAT(circular({{"front/a.h", {"front/b.h"}},
                        {"front/a.cpp", {"front/a.h"}},
                        {"front/b.h", {}},
                        {"front/b.cpp", {"front/b.h", "front/a.h"}},
                        {"front/c.h", {}}}),
              ElementsAre("front/a", "front/b"));
}

}  // namespace
}  // namespace corvaned
