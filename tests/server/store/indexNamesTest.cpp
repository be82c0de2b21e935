#include <gtest/gtest.h>

#include <set>
#include <string>

#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

TEST(IndexNames, AreOnesThatAQueryCanSpell) {
  IndexNames names;
  for (const std::string& name : {std::string("n"), std::string("Title_2"), std::string(64, 'n')}) {
    EXPECT_TRUE(names.prefixFor(name)) << name;
    EXPECT_TRUE(names.slotFor(name)) << name;
  }
  for (const std::string& name : {std::string(), std::string("2nd"), std::string("_n"),
                                  std::string("a-b"), std::string("größe"), std::string(65, 'n')}) {
    EXPECT_FALSE(names.prefixFor(name)) << name;
    EXPECT_FALSE(names.slotFor(name)) << name;
  }
}

TEST(IndexNames, AreNoMoreThanThereArePrefixes) {
  constexpr int kMost = 676;
  IndexNames names;
  std::set<std::string> prefixes;
  std::set<Xapian::valueno> slots;
  for (int i = 0; i < kMost; ++i) {
    const std::string name = "n" + std::to_string(i);
    prefixes.insert(names.prefixFor(name).value());
    slots.insert(names.slotFor(name).value());
  }
  EXPECT_EQ(prefixes.size(), std::size_t{kMost});
  EXPECT_EQ(slots.size(), std::size_t{kMost});
  EXPECT_FALSE(names.prefixFor("another"));
  EXPECT_FALSE(names.slotFor("another"));
  EXPECT_TRUE(prefixes.contains(names.prefixFor("n0").value()));
}

}  // namespace
}  // namespace corvaned
