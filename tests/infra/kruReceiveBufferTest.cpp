#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "infra/oss/kruReceiveBuffer.h"
#include "tests/support/failingMemory.h"

namespace {

using tq::oss::ReceiveBuffer;

void arrive(ReceiveBuffer& buffer, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ASSERT_TRUE(buffer.makeRoom(buffer.size() + bytes.size() - done));
    const std::size_t step = std::min(buffer.room(), bytes.size() - done);
    ASSERT_GT(step, 0U);
    std::memcpy(buffer.tail(), bytes.data() + done, step);
    buffer.commit(step);
    done += step;
  }
}

std::string take(ReceiveBuffer& buffer, std::size_t length) {
  std::string bytes(length, '?');
  bytes.resize(buffer.take(bytes.data(), length));
  return bytes;
}

TEST(ReceiveBuffer, TakesItsFirstMemoryInOneSlice) {
  ReceiveBuffer buffer;
  EXPECT_EQ(buffer.size(), 0U);
  ASSERT_TRUE(buffer.makeRoom(1));
  EXPECT_EQ(buffer.room(), ReceiveBuffer::kSlice);
}

TEST(ReceiveBuffer, AHugeWishGetsOneSliceUntilBytesArrive) {
  ReceiveBuffer buffer;
  ASSERT_TRUE(buffer.makeRoom(SIZE_MAX));
  EXPECT_EQ(buffer.room(), ReceiveBuffer::kSlice);
  buffer.commit(buffer.room());
  ASSERT_TRUE(buffer.makeRoom(SIZE_MAX));
  EXPECT_EQ(buffer.room(), ReceiveBuffer::kSlice);
  buffer.commit(buffer.room());
  ASSERT_TRUE(buffer.makeRoom(SIZE_MAX));
  EXPECT_EQ(buffer.room(), 2 * ReceiveBuffer::kSlice);
}

TEST(ReceiveBuffer, MoreRoomIsMadeInFrontFirst) {
  ReceiveBuffer buffer;
  ASSERT_TRUE(buffer.makeRoomForMore());
  EXPECT_EQ(buffer.room(), ReceiveBuffer::kSlice);
  arrive(buffer, std::string(ReceiveBuffer::kSlice - 1, 'a') + 'b');
  buffer.drop(ReceiveBuffer::kSlice - 1);
  ASSERT_TRUE(buffer.makeRoomForMore());
  EXPECT_EQ(buffer.room(), ReceiveBuffer::kSlice - 1);
  EXPECT_EQ(take(buffer, 2), "b");
}

TEST(ReceiveBuffer, GrowsOnlyWhenItIsFull) {
  ReceiveBuffer buffer;
  arrive(buffer, std::string(ReceiveBuffer::kSlice, 'a'));
  ASSERT_TRUE(buffer.makeRoomForMore());
  EXPECT_EQ(buffer.room(), ReceiveBuffer::kSlice);
  EXPECT_EQ(buffer.size(), ReceiveBuffer::kSlice);
  const tq::test::OutOfMemory out;
  buffer.commit(buffer.room());
  EXPECT_FALSE(buffer.makeRoomForMore());
  EXPECT_EQ(buffer.size(), 2 * ReceiveBuffer::kSlice);
}

TEST(ReceiveBuffer, DoesNotGrowForAWishWhileOneByteFits) {
  ReceiveBuffer buffer;
  arrive(buffer, std::string(ReceiveBuffer::kSlice - 1, 'a'));
  ASSERT_TRUE(buffer.makeRoom(SIZE_MAX));
  EXPECT_EQ(buffer.room(), 1U);
}

TEST(ReceiveBuffer, EmptiedItHasAllItsRoomAgain) {
  ReceiveBuffer buffer;
  arrive(buffer, "abc");
  EXPECT_EQ(take(buffer, 3), "abc");
  EXPECT_EQ(buffer.room(), ReceiveBuffer::kSlice);
}

TEST(ReceiveBuffer, DropsNoMoreThanThereIs) {
  ReceiveBuffer buffer;
  buffer.drop(1);
  arrive(buffer, "abc");
  buffer.drop(1);
  EXPECT_EQ(std::string(buffer.data(), buffer.size()), "bc");
  buffer.drop(3);
  EXPECT_EQ(buffer.size(), 0U);
  arrive(buffer, "d");
  EXPECT_EQ(take(buffer, 2), "d");
}

/// The same bytes in the plainest possible container.
TEST(ReceiveBuffer, BehavesLikeAStringUnderAnySequenceOfOperations) {
  ReceiveBuffer buffer;
  std::string model;
  std::uint32_t random = 12345;
  const auto next = [&random](std::uint32_t below) {
    random = random * 1664525U + 1013904223U;
    return (random >> 8) % below;
  };
  for (int i = 0; i < 3000; ++i) {
    const std::string bytes(next(i % 10 == 0 ? 200000 : 900), static_cast<char>('a' + i % 26));
    switch (next(6)) {
      case 0:
        arrive(buffer, bytes);
        model += bytes;
        break;
      case 1:
        ASSERT_TRUE(buffer.putBack(bytes.data(), bytes.size()));
        model.insert(0, bytes);
        break;
      case 2:
        buffer.drop(bytes.size());
        model.erase(0, bytes.size());
        break;
      case 3:
        ASSERT_TRUE(buffer.makeRoomForMore());
        ASSERT_GT(buffer.room(), 0U);
        buffer.tail()[0] = 'z';
        buffer.commit(1);
        model += 'z';
        break;
      default:
        const std::string taken = take(buffer, bytes.size() * 2);
        ASSERT_TRUE(model.compare(0, taken.size(), taken) == 0);
        ASSERT_EQ(taken.size(), std::min(model.size(), bytes.size() * 2));
        model.erase(0, taken.size());
    }
    ASSERT_EQ(buffer.size(), model.size());
    ASSERT_TRUE(std::memcmp(buffer.data(), model.data(), model.size()) == 0);
  }
}

TEST(ReceiveBuffer, RoomInFrontIsUsedBeforeMoreIsTaken) {
  ReceiveBuffer buffer;
  arrive(buffer, std::string(ReceiveBuffer::kSlice, 'a'));
  EXPECT_EQ(take(buffer, ReceiveBuffer::kSlice - 5), std::string(ReceiveBuffer::kSlice - 5, 'a'));
  ASSERT_TRUE(buffer.makeRoom(10));
  EXPECT_EQ(buffer.room(), ReceiveBuffer::kSlice - 5);
  EXPECT_EQ(take(buffer, 10), "aaaaa");
}

TEST(ReceiveBuffer, ALargeBlockIsGivenBackWhenItIsEmpty) {
  ReceiveBuffer buffer;
  arrive(buffer, std::string(2 * ReceiveBuffer::kKept, 'a'));
  EXPECT_EQ(take(buffer, 2 * ReceiveBuffer::kKept).size(), 2 * ReceiveBuffer::kKept);
  EXPECT_EQ(buffer.size(), 0U);
  ASSERT_TRUE(buffer.makeRoom(1));
  EXPECT_EQ(buffer.room(), ReceiveBuffer::kSlice);
}

TEST(ReceiveBuffer, ABlockOfTheSizeThatIsKeptIsKept) {
  ReceiveBuffer buffer;
  arrive(buffer, std::string(ReceiveBuffer::kKept, 'a'));
  EXPECT_EQ(take(buffer, ReceiveBuffer::kKept).size(), ReceiveBuffer::kKept);
  EXPECT_EQ(buffer.room(), ReceiveBuffer::kKept);
}

TEST(ReceiveBuffer, GivingALargeBlockBackTakesNoMemory) {
  ReceiveBuffer buffer;
  arrive(buffer, std::string(2 * ReceiveBuffer::kKept, 'a'));
  const tq::test::OutOfMemory out;
  buffer.drop(2 * ReceiveBuffer::kKept);
  EXPECT_EQ(buffer.room(), 1U);
}

TEST(ReceiveBuffer, WithoutMemoryOneByteCanBePutBack) {
  ReceiveBuffer buffer;
  const tq::test::OutOfMemory out;
  EXPECT_TRUE(buffer.putBack("a", 1));
  EXPECT_EQ(take(buffer, 1), "a");
}

TEST(ReceiveBuffer, WithoutMemoryNothingChanges) {
  ReceiveBuffer buffer;
  arrive(buffer, std::string(ReceiveBuffer::kSlice, 'a'));
  {
    const tq::test::OutOfMemory out;
    EXPECT_FALSE(buffer.makeRoom(ReceiveBuffer::kSlice + 1));
    EXPECT_FALSE(buffer.putBack("x", 1));
  }
  EXPECT_EQ(buffer.size(), ReceiveBuffer::kSlice);
  EXPECT_EQ(take(buffer, 3), "aaa");
}

TEST(ReceiveBuffer, WithoutMemoryAnEmptyOneStillTakesOneByte) {
  ReceiveBuffer buffer;
  const tq::test::OutOfMemory out;
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(buffer.makeRoom(1));
    ASSERT_EQ(buffer.room(), 1U);
    *buffer.tail() = 'a';
    buffer.commit(1);
    EXPECT_EQ(take(buffer, 1), "a");
  }
}

TEST(ReceiveBuffer, ALengthThatCannotBeIsRefused) {
  ReceiveBuffer buffer;
  EXPECT_FALSE(buffer.putBack("x", SIZE_MAX));
  EXPECT_FALSE(buffer.putBack("x", SIZE_MAX / 2));
  EXPECT_EQ(buffer.size(), 0U);
}

}  // namespace
