#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>

#include "infra/oss/kruSizeableBuffer.h"
#include "tests/support/failingMemory.h"

namespace {

using Small = tq::oss::SizeableBuffer<char, 8>;

static_assert(!std::is_copy_constructible_v<Small>);
static_assert(!std::is_copy_assignable_v<Small>);

template <typename Buffer>
bool isInline(const Buffer& buffer) {
  const auto* start = reinterpret_cast<const char*>(&buffer);
  const auto* data = reinterpret_cast<const char*>(buffer.data());
  return data >= start && data < start + sizeof buffer;
}

TEST(SizeableBuffer, StartsWithTheRoomInsideIt) {
  const Small buffer;
  EXPECT_EQ(buffer.capacity(), 8U);
  EXPECT_TRUE(isInline(buffer));
}

TEST(SizeableBuffer, GrowsByPowersOfTwoAboveItsInlineSize) {
  const struct {
    std::size_t asked, given;
  } cases[] = {{0, 8}, {1, 8}, {8, 8}, {9, 16}, {16, 16}, {17, 32}, {1000, 1024}, {1025, 2048}};
  for (const auto& c : cases) {
    Small buffer;
    EXPECT_TRUE(buffer.resize(c.asked));
    EXPECT_EQ(buffer.capacity(), c.given) << c.asked;
    EXPECT_EQ(isInline(buffer), c.given == 8) << c.asked;
  }
}

TEST(SizeableBuffer, TheSmallestBlockHasFourElements) {
  tq::oss::SizeableBuffer<char, 1> buffer;
  EXPECT_TRUE(buffer.resize(2));
  EXPECT_EQ(buffer.capacity(), 4U);
}

TEST(SizeableBuffer, AnInlineSizeThatIsNoPowerOfTwoIsUsedToItsEnd) {
  tq::oss::SizeableBuffer<char, 10> buffer;
  EXPECT_TRUE(buffer.resize(10));
  EXPECT_EQ(buffer.capacity(), 10U);
  EXPECT_TRUE(buffer.resize(11));
  EXPECT_EQ(buffer.capacity(), 16U);
}

TEST(SizeableBuffer, ResizeGoesBackToTheRoomInside) {
  Small buffer;
  ASSERT_TRUE(buffer.resize(100));
  EXPECT_TRUE(buffer.resize(3));
  EXPECT_EQ(buffer.capacity(), 8U);
  EXPECT_TRUE(isInline(buffer));
}

TEST(SizeableBuffer, ResizeShrinksTheBlockToo) {
  Small buffer;
  ASSERT_TRUE(buffer.resize(1000));
  EXPECT_TRUE(buffer.resize(20));
  EXPECT_EQ(buffer.capacity(), 32U);
}

TEST(SizeableBuffer, EveryByteOfItsCapacityCanBeWritten) {
  for (const std::size_t size : {std::size_t{8}, std::size_t{100}, std::size_t{70000}}) {
    Small buffer;
    ASSERT_TRUE(buffer.resize(size));
    std::memset(buffer.data(), 'x', buffer.capacity());
    EXPECT_EQ(buffer.data()[buffer.capacity() - 1], 'x');
  }
}

TEST(SizeableBuffer, WithoutMemoryTheCapacityIsZeroUntilAResizeSucceeds) {
  Small buffer;
  {
    const tq::test::OutOfMemory out;
    EXPECT_FALSE(buffer.resize(9));
    EXPECT_EQ(buffer.capacity(), 0U);
    EXPECT_NE(buffer.data(), nullptr);
    EXPECT_TRUE(buffer.resize(8));
    EXPECT_EQ(buffer.capacity(), 8U);
    EXPECT_FALSE(buffer.resize(9));
  }
  EXPECT_TRUE(buffer.resize(9));
  EXPECT_EQ(buffer.capacity(), 16U);
}

TEST(SizeableBuffer, ASizeThatNoBlockCanHaveIsRefused) {
  constexpr std::size_t kMax = std::numeric_limits<std::size_t>::max();
  for (const std::size_t size : {kMax, kMax / 2 + 2, kMax - 7}) {
    Small buffer;
    EXPECT_FALSE(buffer.resize(size));
    EXPECT_EQ(buffer.capacity(), 0U);
    Small other;
    EXPECT_FALSE(other.grow(size, 8));
    EXPECT_EQ(other.capacity(), 8U);
  }
  tq::oss::SizeableBuffer<std::uint64_t, 2> wide;
  EXPECT_FALSE(wide.resize(kMax / 4));
}

TEST(SizeableBuffer, GrowKeepsTheContent) {
  Small buffer;
  std::memcpy(buffer.data(), "abcdefgh", 8);
  ASSERT_TRUE(buffer.grow(9, 8));
  EXPECT_EQ(buffer.capacity(), 16U);
  EXPECT_EQ(std::string_view(buffer.data(), 8), "abcdefgh");
  std::memcpy(buffer.data() + 8, "ijklmnop", 8);
  ASSERT_TRUE(buffer.grow(100, 16));
  EXPECT_EQ(std::string_view(buffer.data(), 16), "abcdefghijklmnop");
}

TEST(SizeableBuffer, GrowNeverShrinks) {
  Small buffer;
  ASSERT_TRUE(buffer.grow(100, 0));
  const char* before = buffer.data();
  EXPECT_TRUE(buffer.grow(3, 0));
  EXPECT_EQ(buffer.capacity(), 128U);
  EXPECT_EQ(buffer.data(), before);
}

TEST(SizeableBuffer, GrowKeepsNoMoreThanThereIs) {
  Small buffer;
  std::memcpy(buffer.data(), "abcdefgh", 8);
  ASSERT_TRUE(buffer.grow(64, 1000));
  EXPECT_EQ(std::string_view(buffer.data(), 8), "abcdefgh");
}

TEST(SizeableBuffer, AGrowWithoutMemoryChangesNothing) {
  Small buffer;
  std::memcpy(buffer.data(), "abcdefgh", 8);
  const tq::test::OutOfMemory out;
  EXPECT_FALSE(buffer.grow(9, 8));
  EXPECT_EQ(buffer.capacity(), 8U);
  EXPECT_EQ(std::string_view(buffer.data(), 8), "abcdefgh");
}

TEST(SizeableBuffer, GrowWorksAfterAResizeThatGotNoMemory) {
  Small buffer;
  {
    const tq::test::OutOfMemory out;
    ASSERT_FALSE(buffer.resize(100));
    EXPECT_TRUE(buffer.grow(5, 0));
    EXPECT_EQ(buffer.capacity(), 8U);
    ASSERT_FALSE(buffer.resize(100));
  }
  EXPECT_TRUE(buffer.grow(20, 4));
  EXPECT_EQ(buffer.capacity(), 32U);
}

TEST(SizeableBuffer, HoldsOtherElementsToo) {
  tq::oss::SizeableBuffer<std::uint32_t, 2> buffer;
  buffer.data()[1] = 7;
  ASSERT_TRUE(buffer.grow(5, 2));
  EXPECT_EQ(buffer.capacity(), 8U);
  EXPECT_EQ(buffer.data()[1], 7U);
}

}  // namespace
