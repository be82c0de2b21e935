// Linked with the static library, whose own constants are built in the linker's order unless they
// are told to come first.

#include <gtest/gtest.h>

#include <string>

#include "comm/kruParseResult.h"
#include "comm/kruRESTMessage.h"
#include "infra/oss/kruMessageList.h"
#include "tests/comm/encodesInStaticConstructor.h"

namespace tq::comm {
namespace {

const std::string kDocument =
    "Content-Length  : 59\n"
    "action: addDocument\n"
    "actionType: unknown\n"
    "docLang: en_us\n"
    "index: c1\n"
    "ver: 1.1\n"
    "\r\n" +
    std::string("\0\0\0\0\0\0\0\x33", 8) + std::string("\0\0\0\5title\0\0\0\3one", 16) +
    std::string("\0\0\0\5rowId\0\0\0\3key", 16) + std::string("\0\0\0\4data\0\0\0\7", 12) +
    "content";

TEST(StaticConstructor, OfTheHostMayEncodeARequest) {
  EXPECT_EQ(kDocument, test::documentEncodedBeforeMain());
}

TEST(StaticConstructor, ThatEncodesLeavesLaterRequestsWhole) {
  EXPECT_EQ(kDocument, test::encodedDocument());
}

// Names the library itself, so that the linker takes its objects before those of the late host.
TEST(StaticConstructor, ThatEncodesLeavesTheActionsWhole) {
  EXPECT_TRUE(RESTMessage::getAction(ClientRequest::ADD_DOCUMENT) == u"addDocument");
}

// The early host asks again when it ends.
TEST(StaticConstructor, OfTheHostMayEndAfterAMessageThatIsNone) {
  EXPECT_TRUE(tq::oss::MessageList().front().getMessageId().isEmpty());
  EXPECT_TRUE(ParseResult(false).getMessage().getMessageId().isEmpty());
}

}  // namespace
}  // namespace tq::comm
