#include <gtest/gtest.h>

#include <new>
#include <string>

#include "comm/kruCarry.h"
#include "tests/support/failingMemory.h"

namespace tq::comm {
namespace {

constexpr std::size_t kMegabyte = std::size_t{1} << 20;

TEST(Carry, GivesTheBytesThemselvesWhenItHasNone) {
  Carry carry;
  const std::string arrived = "arrived";
  EXPECT_EQ(carry.join(arrived).data(), arrived.data());
  EXPECT_EQ(carry.join(arrived), arrived);
  EXPECT_EQ(carry.size(), 0U);
}

TEST(Carry, PutsWhatItHasInFront) {
  Carry carry;
  carry.keepLast("abcd", 2);
  EXPECT_EQ(carry.size(), 2U);
  EXPECT_EQ(carry.join("ef"), "cdef");
  EXPECT_EQ(carry.join(""), "cd");
  carry.keepLast(carry.join("ef"), 1);
  EXPECT_EQ(carry.join("g"), "fg");
  carry.keepLast(carry.join("g"), 2);
  EXPECT_EQ(carry.join(""), "fg");
  carry.keepLast(carry.join("h"), 0);
  EXPECT_EQ(carry.size(), 0U);
  EXPECT_EQ(carry.join("i"), "i");
}

TEST(Carry, ForgetsAll) {
  Carry carry;
  carry.keepLast("abcd", 2);
  carry.clear();
  EXPECT_EQ(carry.size(), 0U);
  EXPECT_EQ(carry.join("x"), "x");
}

TEST(Carry, GrowsWithWhatArrives) {
  Carry carry;
  carry.keepLast("0123456789", 10);
  const std::string arrived(100000, 'x');
  EXPECT_EQ(carry.join(arrived), "0123456789" + arrived);
  carry.keepLast(carry.join(arrived), 99999);
  EXPECT_EQ(carry.join("y"), arrived.substr(1) + "y");
}

TEST(Carry, WithoutMemoryItKeepsWhatItHas) {
  Carry carry;
  carry.keepLast("ab", 2);
  const std::string much(100000, 'x');
  {
    const tq::test::OutOfMemory out;
    EXPECT_THROW(carry.join(much), std::bad_alloc);
    EXPECT_THROW(carry.keepLast(much, much.size()), std::bad_alloc);
  }
  EXPECT_EQ(carry.join("c"), "abc");
}

TEST(Carry, AMegabyteOfMemoryIsKeptAndMoreIsGivenBack) {
  const std::string bytes(kMegabyte + 1, 'x');
  for (const std::size_t length : {kMegabyte, kMegabyte + 1}) {
    Carry carry;
    carry.keepLast(bytes, length);
    carry.clear();
    const tq::test::OutOfMemory out;
    if (length == kMegabyte) {
      carry.keepLast(bytes, length);
      EXPECT_EQ(carry.size(), length);
    } else {
      EXPECT_THROW(carry.keepLast(bytes, length), std::bad_alloc);
    }
  }
}

}  // namespace
}  // namespace tq::comm
