#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "comm/kruBatch.h"
#include "tests/support/forkedChild.h"

namespace tq::comm {
namespace {

std::string bytesOf(const Batch& batch) { return {batch.bytes().begin(), batch.bytes().end()}; }

Batch::Message messageWith(std::string_view header) {
  Batch::Message message{};
  message.header = header;
  return message;
}

Batch::Message waiting() {
  Batch::Message message = messageWith("w");
  message.mayWait = true;
  return message;
}

/// Each test begins with no message waiting anywhere in the process, and leaves none.
class BatchesTogether : public testing::Test {
 protected:
  ~BatchesTogether() override { messagesThatWaited(); }

  /// How many messages waited in all batches of the process. None does any more.
  static int messagesThatWaited() {
    constexpr int kDue = 50;
    Batch batch;
    int added = 0;
    for (; !batch.isDue(waiting()); ++added) batch.append(waiting());
    batch.written();
    return kDue - added;
  }

  static void append(Batch& batch, int messages) {
    for (int i = 0; i < messages; ++i) batch.append(waiting());
  }

  Batch one;
  Batch other;
};

TEST_F(BatchesTogether, AreDueWhenFiftyMessagesWaitInAllOfThem) {
  append(one, 20);
  append(other, 29);
  EXPECT_FALSE(one.isDue(waiting()));
  EXPECT_FALSE(other.isDue(waiting()));
  append(one, 1);
  EXPECT_TRUE(one.isDue(waiting()));
  EXPECT_TRUE(other.isDue(waiting()));
  one.takeBack();
  EXPECT_FALSE(one.isDue(waiting()));
  EXPECT_FALSE(other.isDue(waiting()));
}

TEST_F(BatchesTogether, CountTheMessagesThatWaitAndNoOthers) {
  const struct {
    const char* what;
    std::function<void(Batch& first, Batch& second)> happens;
    int waiting;
  } cases[] = {
      {"nothing", [](Batch&, Batch&) {}, 0},
      {"appended",
       [](Batch& first, Batch& second) {
         append(first, 2);
         append(second, 1);
       },
       3},
      {"taken back",
       [](Batch& first, Batch&) {
         append(first, 2);
         first.takeBack();
       },
       1},
      {"written, by any of them",
       [](Batch& first, Batch& second) {
         append(first, 1);
         append(second, 1);
         first.written();
       },
       0},
      {"taken back after another was written",
       [](Batch& first, Batch& second) {
         append(first, 1);
         second.written();
         first.takeBack();
       },
       0},
      {"messages that do not wait",
       [](Batch& first, Batch&) {
         for (int i = 0; i < 100; ++i) first.append(messageWith("h"));
       },
       0},
      {"a message that does not wait, taken back",
       [](Batch& first, Batch&) {
         append(first, 2);
         first.append(messageWith("h"));
         first.takeBack();
       },
       2},
  };
  for (const auto& c : cases) {
    Batch first;
    Batch second;
    c.happens(first, second);
    EXPECT_EQ(messagesThatWaited(), c.waiting) << c.what;
  }
}

TEST(Batch, HoldsEachMessageBehindTheLengthOfItsHeader) {
  Batch batch;
  EXPECT_TRUE(batch.empty());
  Batch::Message message = messageWith("head");
  message.prefix = "pp";
  message.body = "bbb";
  EXPECT_EQ(batch.append(message), "");
  EXPECT_FALSE(batch.empty());
  Batch::Message last = messageWith("x");
  last.terminator = "end";
  EXPECT_EQ(batch.append(last), "");
  EXPECT_EQ(bytesOf(batch), std::string("\0\4headppbbb\0\1xend", 17));
  batch.written();
  EXPECT_TRUE(batch.empty());
  const std::string header(0x0102, 'h');
  batch.append(messageWith(header));
  EXPECT_EQ(bytesOf(batch), "\1\2" + header);
}

TEST(Batch, ABodyOfMoreThanTenThousandBytesIsLarge) {
  const std::string bytes(10001, 'b');
  for (const std::size_t length : {std::size_t{10000}, std::size_t{10001}}) {
    Batch batch;
    Batch::Message message = messageWith("h");
    message.body = std::string_view(bytes).substr(0, length);
    const std::string_view rest = batch.append(message);
    EXPECT_EQ(message.hasLargeBody(), length == 10001);
    EXPECT_EQ(rest.size(), length == 10001 ? 5001U : 0U);
    EXPECT_EQ(batch.bytes().size() + rest.size(), 3 + length);
  }
}

TEST(Batch, TheStartOfALargeBodyGoesAlongWithASmallBatch) {
  const std::string body(20000, 'b');
  for (const std::size_t before : {std::size_t{4999}, std::size_t{5000}}) {
    // The bytes in front of the body: of another message and of its own.
    for (const std::size_t own : {std::size_t{3}, before}) {
      Batch batch;
      const std::string other(before - own, 'o');
      if (before != own) batch.append(messageWith(std::string_view(other).substr(2)));
      const std::string header(own - 3, 'h');
      Batch::Message message = messageWith(header);
      message.prefix = "p";
      message.body = body;
      const std::string_view rest = batch.append(message);
      EXPECT_EQ(batch.bytes().size(), before == 4999 ? 9999U : 5000U);
      EXPECT_EQ(rest.size(), before == 4999 ? 15000U : 20000U);
      EXPECT_EQ(rest.data() + rest.size(), body.data() + body.size());
    }
  }
}

// Otherwise a message could be there in part when there is no memory for the rest of it.
TEST(Batch, MakesRoomForAMessageBeforeItAddsAnyOfIt) {
  Batch batch;
  Batch::Message message = messageWith("0123456789");
  message.terminator = "012";
  message.prefix = "01";
  batch.append(message);
  EXPECT_EQ(batch.bytes().capacity(), 17U);
  batch.append(messageWith("h"));
  EXPECT_EQ(batch.bytes().capacity(), 34U);
  batch.append(messageWith("0123456789ab"));
  EXPECT_EQ(batch.bytes().size(), 34U);
  EXPECT_EQ(batch.bytes().capacity(), 34U);
}

TEST(Batch, IsDueWhenItIsLargeOrItsLastMessageDoesNotWait) {
  const std::string bytes(10001, 'b');
  for (const std::size_t size : {std::size_t{9999}, std::size_t{10000}}) {
    Batch batch;
    const Batch::Message message = messageWith(std::string_view(bytes).substr(0, size - 2));
    batch.append(message);
    EXPECT_EQ(batch.isDue(message), size == 10000);
  }
  const Batch batch;
  Batch::Message message = messageWith("h");
  EXPECT_FALSE(batch.isDue(message));
  message.body = bytes;
  EXPECT_TRUE(batch.isDue(message));
  message.body = {};
  message.terminator = "end";
  EXPECT_TRUE(batch.isDue(message));
}

TEST(Batch, KnowsHowManyRepliesItWillGetAndWhetherItAddsToTheQueue) {
  Batch batch;
  Batch::Message answered = messageWith("a");
  answered.answered = true;
  Batch::Message queued = messageWith("q");
  queued.queued = true;
  EXPECT_EQ(batch.questions(), 0U);
  EXPECT_FALSE(batch.holdsQueued());
  batch.append(answered);
  batch.append(answered);
  EXPECT_EQ(batch.questions(), 2U);
  EXPECT_FALSE(batch.holdsQueued());
  batch.takeBack();
  batch.takeBack();
  EXPECT_EQ(batch.questions(), 1U);
  batch.append(queued);
  EXPECT_EQ(batch.questions(), 1U);
  EXPECT_TRUE(batch.holdsQueued());
  batch.takeBack();
  EXPECT_FALSE(batch.holdsQueued());
  EXPECT_EQ(batch.questions(), 1U);
  batch.append(queued);
  batch.written();
  EXPECT_EQ(batch.questions(), 0U);
  EXPECT_FALSE(batch.holdsQueued());
}

TEST(Batch, OnlyTheLastMessageIsTakenBackAndOnlyOnce) {
  Batch batch;
  batch.takeBack();
  batch.append(messageWith("a"));
  batch.append(messageWith("b"));
  batch.takeBack();
  batch.takeBack();
  EXPECT_EQ(bytesOf(batch), std::string("\0\1a", 3));
  batch.append(messageWith("c"));
  batch.seal();
  batch.takeBack();
  EXPECT_EQ(bytesOf(batch), std::string("\0\1a\0\1c", 6));
  batch.written();
  batch.takeBack();
  EXPECT_TRUE(batch.empty());
}

TEST(Batch, AMessageThatWasWrittenIsNotTakenBack) {
  Batch batch;
  Batch::Message message = messageWith("a");
  message.answered = true;
  batch.append(message);
  batch.written();
  batch.takeBack();
  EXPECT_EQ(batch.questions(), 0U);
}

TEST_F(BatchesTogether, OfAForkedChildForgetWhatItsParentHolds) {
  Batch::Message message = waiting();
  message.answered = true;
  message.queued = true;
  one.append(message);
  EXPECT_TRUE(test::holdsInChild([&] {
    one.dropInherited();
    if (!one.empty() || one.questions() != 0 || one.holdsQueued()) return false;
    one.append(waiting());
    one.dropInherited();
    return !one.empty() && messagesThatWaited() == 1;
  })) << "and keep what the child has added";
  one.dropInherited();
  EXPECT_FALSE(one.empty());
  EXPECT_EQ(one.questions(), 1U);
  EXPECT_TRUE(one.holdsQueued());
}

}  // namespace
}  // namespace tq::comm
