#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <random>

#include "comm/kruGenRespRecord.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTMessage.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruNLSException.h"
#include "tests/comm/kruCommText.h"
#include "tests/comm/kruScarceMemory.h"
#include "tests/support/kinds.h"
#include "tests/support/raised.h"
#include "tests/support/scarceTexts.h"
#include "tests/support/slowHeader.h"

namespace tq::comm {
namespace {

using test::Fields;
using test::hex;
using test::properties;
using test::utf8;
using tq::test::kAddDocument;
using tq::test::kAsynchAddDocument;
using tq::test::kCreateCollection;
using tq::test::kDeleteDocument;
using tq::test::kGetStatus;
using tq::test::kLastDocSent;

constexpr const char* kHost = "server";

ClientRequest::REQUEST kindOf(int number) { return static_cast<ClientRequest::REQUEST>(number); }

class RESTMessageTest : public testing::Test {
 protected:
  void build(int kind, const Fields& fields = {}) {
    request.buildRequest(kindOf(kind), properties(fields));
  }
  void document(std::string key, const std::list<KVPair>& metadata, std::string content) {
    keyBytes = std::move(key);
    contentBytes = std::move(content);
    request.setDocKey(keyBytes.data(), static_cast<unsigned int>(keyBytes.size()));
    request.setContent(metadata, contentBytes.data(),
                       static_cast<unsigned int>(contentBytes.size()));
  }
  std::string header() {
    RESTMessage message(test::utf16(kHost), request);
    return message.getSerializedHeader();
  }
  static std::string prefixOf(const RESTMessage& message) {
    return {message.getMsgPrefix(), message.getMsgPrefixLen()};
  }

  // The reason is for people. Arguments belong to programs, and host and port are not known here.
  static void expectRefusal(const std::string& reason, const std::function<void()>& call) {
    const tq::test::Raised raised = tq::test::raisedBy(call);
    ASSERT_EQ(1U, raised.size());
    EXPECT_EQ("ERR_CLIENT_INTERNAL", raised[0].id);
    EXPECT_EQ(reason, raised[0].text);
    EXPECT_TRUE(raised[0].arguments.empty());
    EXPECT_EQ("kruRESTMessage", raised[0].file);
  }

  ClientRequest request;
  std::string keyBytes;
  std::string contentBytes;
};

TEST_F(RESTMessageTest, AStreamSearchIsSevenLinesInTheOrderOfTheirNames) {
  request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, properties({{"query", "x"}}));
  EXPECT_EQ(
      "Content-Length  : \n"
      "action: search\n"
      "actionType: select\n"
      "index: c1\n"
      "mode: streaming\n"
      "query: x\n"
      "ver: 1.1\n"
      "\r\n",
      header());
}

TEST_F(RESTMessageTest, AnAsynchronousAddAnnouncesThePrefixAndItsHundredBytesOfContent) {
  request.buildRequest(u"c1", ClientRequest::ASYNCH_ADD_DOCUMENT, {});
  document("k1", {{u"a", u"bc"}}, std::string(100, '#'));
  RESTMessage message(u"server", request);
  const unsigned int total = 8 + 11 + 4 + 5 + 4 + 2 + 4 + 4 + 4 + 100;
  EXPECT_EQ("Content-Length  : " + std::to_string(total) +
                "\naction: asyncAddDocument\nactionType: update\nindex: c1\nver: 1.1\n\r\n",
            message.getSerializedHeader());
  EXPECT_EQ(total - 100, message.getMsgPrefixLen());
  EXPECT_EQ(100U, message.getMsgBodyLength());
  EXPECT_EQ(contentBytes.data(), message.getMsgBody());
}

TEST_F(RESTMessageTest, WritesNoRequestLineAndNoHostLine) {
  build(kGetStatus);
  const std::string text = header();
  EXPECT_EQ(0U, text.find("Content-Length  : \n"));
  EXPECT_EQ(std::string::npos, text.find("HTTP"));
  EXPECT_EQ(std::string::npos, text.find("host"));
  EXPECT_EQ(std::string::npos, text.find(kHost));
}

TEST_F(RESTMessageTest, LinesEndInALineFeedAndTheBlockInCrLf) {
  build(kGetStatus);
  const std::string text = header();
  EXPECT_EQ(text.size() - 2, text.find('\r'));
  EXPECT_EQ("\n\r\n", text.substr(text.size() - 3));
}

TEST_F(RESTMessageTest, EscapesNothing) {
  build(kGetStatus, {{"a: b&=?%", "c: d\r\ne"}});
  EXPECT_NE(std::string::npos, header().find("a: b&=?%: c: d\r\ne\n"));
}

TEST_F(RESTMessageTest, TheAuthorizationLineKeepsThePlaceOfTheTokenAndItsBareValue) {
  build(kGetStatus, {{"a", "1"}, {"authToken", "c2VjcmV0"}, {"b", "2"}});
  EXPECT_EQ(
      "Content-Length  : \na: 1\naction: getStatus\nactionType: monitor\n"
      "Authorization: c2VjcmV0\nb: 2\nver: 1.1\n\r\n",
      header());
}

TEST_F(RESTMessageTest, ATokenAndACallersAuthorizationAreTwoLines) {
  build(kGetStatus, {{"authToken", "t"}, {"Authorization", "own"}});
  EXPECT_EQ(
      "Authorization: own\nContent-Length  : \naction: getStatus\nactionType: monitor\n"
      "Authorization: t\nver: 1.1\n\r\n",
      header());
}

TEST_F(RESTMessageTest, OrdersNamesByTheirCodeUnits) {
  build(kGetStatus,
        {{"b", "1"}, {"B", "2"}, {"\xEF\xBD\x81", "3"}, {"\xF0\x9F\x98\x80", "4"}, {"", "5"}});
  // U+1F600 begins with the unit D83D, below FF41, although its code point is above.
  EXPECT_EQ(
      ": 5\nB: 2\nContent-Length  : \naction: getStatus\nactionType: monitor\nb: 1\nver: 1.1\n"
      "\xF0\x9F\x98\x80: 4\n\xEF\xBD\x81: 3\n\r\n",
      header());
}

TEST_F(RESTMessageTest, WritesTextAsUtf8) {
  build(kGetStatus, {{"grüße", "\xE2\x82\xAC"}});
  EXPECT_NE(std::string::npos, header().find("grüße: \xE2\x82\xAC\n"));
}

TEST_F(RESTMessageTest, TheKindsActionReplacesTheCallersWhereThereIsOne) {
  build(kGetStatus, {{"action", "mine"}, {"actionType", "mine"}, {"Content-Length  ", "mine"}});
  EXPECT_EQ("Content-Length  : \naction: getStatus\nactionType: monitor\nver: 1.1\n\r\n", header());
}

TEST_F(RESTMessageTest, TheCallersActionSurvivesForAKindWithoutOne) {
  for (const int kind : {-1, 0, 6, 7, 25, 64, 1000}) {
    build(kind, {{"action", "mine"}, {"actionType", "mine"}});
    EXPECT_EQ("Content-Length  : \naction: mine\nactionType: unknown\nver: 1.1\n\r\n", header())
        << kind;
  }
}

TEST_F(RESTMessageTest, SendsNoActionLineForAKindWithoutOne) {
  build(0);
  EXPECT_EQ("Content-Length  : \nactionType: unknown\nver: 1.1\n\r\n", header());
}

TEST_F(RESTMessageTest, TheLengthHeaderIsSentEvenWhenItIsEmpty) {
  build(kCreateCollection);
  RESTMessage message(u"server", request);
  EXPECT_EQ("Content-Length  : \nver: 1.1\n", utf8(message.getParamString(true)));
}

TEST_F(RESTMessageTest, ParametersCanBeWrittenAsAQueryString) {
  build(kGetStatus, {{"authToken", "t"}, {"q", "a&b"}});
  RESTMessage message(u"server", request);
  EXPECT_EQ("?Content-Length  =&Authorization=t&q=a&b&ver=1.1",
            utf8(message.getParamString(false)));
}

TEST_F(RESTMessageTest, ActionLinesAreThereOnceTheProtocolTextWasBuilt) {
  build(kGetStatus);
  RESTMessage message(u"server", request);
  icu::UnicodeString out(u"before ");
  message.buildProtocolMsg(out, ClientRequest::TAKEOVER);
  EXPECT_EQ("before Content-Length  : \naction: takeover\nactionType: monitor\nver: 1.1\n\r\n",
            utf8(out));
  EXPECT_EQ("?Content-Length  =&action=takeover&actionType=monitor&ver=1.1",
            utf8(message.getParamString(false)));
}

TEST_F(RESTMessageTest, AnActionOnceBuiltSurvivesAKindWithoutOne) {
  build(kGetStatus);
  RESTMessage message(u"server", request);
  icu::UnicodeString out;
  message.buildProtocolMsg(out, ClientRequest::TAKEOVER);
  out.remove();
  message.buildProtocolMsg(out, kindOf(0));
  EXPECT_EQ("Content-Length  : \naction: takeover\nactionType: unknown\nver: 1.1\n\r\n", utf8(out));
}

TEST_F(RESTMessageTest, CopiesTheRequestsProperties) {
  build(kGetStatus, {{"a", "1"}});
  RESTMessage message(u"server", request);
  request.getReqProperties().putProperty(u"a", u"2");
  request.getReqProperties().putProperty(u"b", u"3");
  EXPECT_EQ("?Content-Length  =&a=1&ver=1.1", utf8(message.getParamString(false)));
}

TEST_F(RESTMessageTest, LeavesTheRequestsPropertiesAlone) {
  build(kGetStatus, {{"a", "1"}});
  header();
  EXPECT_EQ((std::vector<std::string>{"a=1", "ver=1.1"}), test::listed(request.getReqProperties()));
}

TEST_F(RESTMessageTest, CanBecomeTheMessageOfAnotherRequest) {
  build(kAddDocument);
  document("key", {{u"a", u"b"}}, "content");
  RESTMessage message(u"server", request);
  ASSERT_NE(0U, message.getMsgPrefixLen());
  message.getSerializedHeader();
  ClientRequest other;
  other.buildRequest(kindOf(0), properties({{"x", "y"}}));
  message.initMessage(other);
  EXPECT_EQ("?Content-Length  =&ver=1.1&x=y", utf8(message.getParamString(false)));
  EXPECT_EQ(0U, message.getMsgPrefixLen());
  EXPECT_EQ(0U, message.getMsgBodyLength());
  EXPECT_STREQ("Content-Length  : \nactionType: unknown\nver: 1.1\nx: y\n\r\n",
               message.getSerializedHeader());
}

TEST_F(RESTMessageTest, TheHeaderIsTheSameWhenItIsAskedForAgain) {
  build(kGetStatus, {{"a", "1"}});
  RESTMessage message(u"server", request);
  const std::string first = message.getSerializedHeader();
  EXPECT_EQ(first, message.getSerializedHeader());
}

class HeaderLength : public RESTMessageTest, public testing::WithParamInterface<std::size_t> {};

// Around the size of the room inside the message, 16384 with the terminating zero.
TEST_P(HeaderLength, IsReturnedWhole) {
  build(0, {{"q", ""}});
  const std::size_t fixed = header().size();
  const std::string value(GetParam() - fixed, 'v');
  build(0, {{"q", value}});
  const std::string text = header();
  EXPECT_EQ(GetParam(), text.size());
  EXPECT_NE(std::string::npos, text.find("q: " + value + "\n"));
  EXPECT_EQ("\nver: 1.1\n\r\n", text.substr(text.size() - 12));
}

INSTANTIATE_TEST_SUITE_P(AroundTheInlineRoom, HeaderLength,
                         testing::Values(16381, 16382, 16383, 16384, 16385, 16386, 40000, 1000000));

// A header that fills a block to its last byte needs the next larger one for its terminating zero.
TEST_F(RESTMessageTest, TheBlockOfALongHeaderHasRoomForItsTerminatingZero) {
  build(0, {{"q", ""}});
  const std::size_t fixed = header().size();
  for (const std::size_t block : {32768U, 65536U, 131072U}) {
    build(0, {{"q", std::string(block - 1 - fixed, 'v')}});
    EXPECT_EQ(block - 1, header().size());
    EXPECT_EQ(block, test::lastBufferSize());
    build(0, {{"q", std::string(block - fixed, 'v')}});
    EXPECT_EQ(block, header().size());
    EXPECT_EQ(2 * block, test::lastBufferSize());
  }
}

TEST_F(RESTMessageTest, ALongHeaderOfWideCharactersIsReturnedWhole) {
  std::string value;
  for (int i = 0; i < 10000; ++i) value += "\xE2\x82\xAC";
  build(0, {{"q", value}});
  EXPECT_NE(std::string::npos, header().find("q: " + value + "\nver: 1.1\n\r\n"));
}

// The message's kind stands right after the room inside the message.
TEST_F(RESTMessageTest, AHeaderOfWideCharactersNeverLeavesTheRoomInsideTheMessage) {
  std::string wide;
  for (int i = 0; i < 5000; ++i) wide += "\xE2\x82\xAC";
  build(kGetStatus, {{"b", ""}, {"z", wide}});
  const std::size_t fixed = header().size();
  for (std::size_t length = 16365; length <= 16390; ++length) {
    build(kGetStatus, {{"b", std::string(length - fixed, 'b')}, {"z", wide}});
    RESTMessage message(u"server", request);
    const std::string text = message.getSerializedHeader();
    EXPECT_EQ(length, text.size());
    EXPECT_EQ("\nz: " + wide + "\n\r\n", text.substr(text.size() - wide.size() - 7));
    EXPECT_EQ(15, message.getRequest()) << length;
  }
}

TEST_F(RESTMessageTest, ALongNameWithALongValueIsReturnedWhole) {
  std::string wide;
  for (int i = 0; i < 3000; ++i) wide += "\xE2\x82\xAC";
  build(kGetStatus, {{wide, wide}});
  EXPECT_NE(std::string::npos, header().find("\n" + wide + ": " + wide + "\n\r\n"));
}

TEST_F(RESTMessageTest, AFirstLineLongerThanTheRoomInsideTheMessageIsReturnedWhole) {
  const std::string value(40000, 'v');
  build(kGetStatus, {{"A", value}});
  EXPECT_EQ("A: " + value +
                "\nContent-Length  : \naction: getStatus\nactionType: monitor\nver: 1.1\n\r\n",
            header());
}

TEST_F(RESTMessageTest, WithoutMemoryForTheTextOfItsLinesThereIsNone) {
  build(kGetStatus, {{"a", std::string(1000, 'v')}});
  const RESTMessage message(u"server", request);
  const tq::test::ScarceTexts none;
  EXPECT_THROW(message.getParamString(true), tq::oss::NLSException);
}

// A header text that did not change is kept with its request. Whatever a caller does to a request
// in between, and by whatever reference, the next message says what it is then.
class KeptHeaderTest : public testing::Test {
 protected:
  icu::UnicodeString draw(std::size_t longest = 9) {
    static constexpr char16_t kUnits[] = {u'a', u'a',      u'b',   u'Z',   u'~',   u'\0',
                                          u':', u'\u00e4', 0xD83D, 0xDE00, 0xFFFF, u'\n'};
    icu::UnicodeString text;
    for (auto length = below(longest); length != 0; --length) {
      text.append(kUnits[below(std::size(kUnits))]);
    }
    return text;
  }
  icu::UnicodeString drawName() {
    static constexpr const char16_t* kNames[] = {u"query",     u"action",           u"actionType",
                                                 u"authToken", u"Content-Length  ", u"ver"};
    return below(3) == 0 ? icu::UnicodeString(kNames[below(std::size(kNames))]) : draw();
  }
  void expectHeader(ClientRequest& request) {
    RESTMessage message(u"server", request);
    const std::string expected =
        tq::test::slowHeader(request, tq::test::announcedLength(request, message));
    ASSERT_EQ(std::string(message.getSerializedHeader(), expected.size() + 1),
              std::string(expected.c_str(), expected.size() + 1));
  }
  void change(ClientRequest& request, tq::util::ExtendedProperties& reference) {
    switch (below(12)) {
      case 0:
        request.buildRequest(kindOf(static_cast<int>(below(26))), reference);
        break;
      case 1:
        request.buildRequest(draw(), kindOf(static_cast<int>(below(26))), {});
        break;
      case 2:
        reference.clear();
        break;
      case 3:
        reference = tq::util::ExtendedProperties(reference);
        break;
      case 4:
        request.setDocKey("key", below(4));
        break;
      case 5:
        request.setContent({{draw(), draw()}}, "content", below(8));
        break;
      case 6:
        reference.putProperty(drawName(), draw(below(20) == 0 ? 20000 : 9));
        break;
      case 7:
      case 8:
        reference.putProperty(drawName(), draw());
        break;
      default:
        break;
    }
  }

  unsigned int below(std::size_t limit) { return static_cast<unsigned int>(random_() % limit); }

 private:
  std::mt19937 random_{1};
};

TEST_F(KeptHeaderTest, IsWhatWouldBeWrittenAnewWhateverWasChangedSince) {
  for (int run = 0; run < 200; ++run) {
    ClientRequest request;
    request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, properties({{"query", "x"}}));
    request.setContent({{u"name", u"value"}}, nullptr, 0);
    tq::util::ExtendedProperties& reference = request.getReqProperties();
    ClientRequest other = request;
    for (int step = 0; step < 40; ++step) {
      change(request, reference);
      for (auto times = below(4); times != 0; --times) expectHeader(request);
      if (below(8) == 0) other = request;
      if (below(8) == 0) expectHeader(other);
      if (HasFatalFailure()) FAIL() << "run " << run << " step " << step;
    }
  }
}

TEST_F(KeptHeaderTest, MayHaveItsLengthBehindALongLine) {
  ClientRequest request;
  std::string wide;
  for (int i = 0; i < 5000; ++i) wide += "\xE2\x82\xAC";
  request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, properties({{"A", wide}}));
  for (int i = 0; i < 4; ++i) expectHeader(request);
}

TEST_F(KeptHeaderTest, IsTheMessagesOwnOnceTheMessageIsMade) {
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, properties({{"query", "x"}}));
  for (int i = 0; i < 3; ++i) expectHeader(request);
  const std::string before = tq::test::slowHeader(request, "");
  RESTMessage message(u"server", request);
  const icu::UnicodeString text = message.getParamString(true);
  request.getReqProperties().putProperty(u"query", u"changed");
  EXPECT_EQ(before, message.getSerializedHeader());
  EXPECT_EQ(text,
            RESTMessage(u"server", request).getParamString(true).findAndReplace(u"changed", u"x"));
  *message.getSerializedHeader() = '#';
  EXPECT_EQ(before, message.getSerializedHeader()) << "what a caller wrote into it";
  RESTMessage another(u"server", request);
  another.getSerializedHeader()[3] = '#';
  expectHeader(request);
  expectHeader(request);
}

/// How many messages write their header anew before one keeps it, which alone takes memory.
int messagesBeforeOneKeepsItsHeader(ClientRequest& request) {
  constexpr long kPlenty = 1000;
  for (int written = 0; written < 1000; ++written) {
    const test::RationedAllocations ration(kPlenty);
    RESTMessage message(u"server", request);
    if (ration.left() != kPlenty) return written;
  }
  return -1;
}

TEST_F(KeptHeaderTest, IsKeptFromTheSecondMessageOnAndAfterEachChangeLater) {
  RESTMessage::initUrls();
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, properties({{"query", "x"}}));
  for (const int written : {1, 2, 4, 8, 16, 32, 64, 64}) {
    EXPECT_EQ(messagesBeforeOneKeepsItsHeader(request), written);
    EXPECT_EQ(messagesBeforeOneKeepsItsHeader(request), -1) << "it is there now";
    request.getReqProperties().putProperty(u"query", u"changed");
  }
}

TEST_F(KeptHeaderTest, OfARequestThatIsBuiltAnewIsForgotten) {
  RESTMessage::initUrls();
  ClientRequest request;
  for (int i = 0; i < 3; ++i) {
    request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, properties({{"query", "x"}}));
    EXPECT_EQ(messagesBeforeOneKeepsItsHeader(request), 1);
  }
}

TEST_F(KeptHeaderTest, IsNoCopysAndGoesOutOfDateWhenAnotherRequestIsAssigned) {
  RESTMessage::initUrls();
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, properties({{"query", "x"}}));
  for (int i = 0; i < 3; ++i) expectHeader(request);
  ClientRequest copy(request);
  EXPECT_EQ(messagesBeforeOneKeepsItsHeader(copy), 1) << "it has one of its own";
  copy.buildRequest(u"c2", ClientRequest::DELETE_DOCUMENT, properties({{"query", "y"}}));
  request = copy;
  for (int i = 0; i < 4; ++i) expectHeader(request);
}

TEST_F(KeptHeaderTest, ThatThereIsNoMemoryForIsWrittenEachTime) {
  RESTMessage::initUrls();
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, properties({{"query", "x"}}));
  expectHeader(request);
  for (long granted = 0; granted < 4; ++granted) {
    {
      const test::RationedAllocations ration(granted);
      RESTMessage message(u"server", request);
      message.getSerializedHeader();
    }
    expectHeader(request);
    request.getReqProperties().putProperty(u"query", u"changed");
    expectHeader(request);
  }
}

TEST_F(RESTMessageTest, RunningOutOfMemoryForTheHeaderIsTheInfrastructuresException) {
  build(0, {{"q", std::string(20000, 'v')}});
  RESTMessage message(u"server", request);
  const test::FailingAllocations failing;
  try {
    message.getSerializedHeader();
    FAIL() << "no exception";
  } catch (const tq::oss::NLSException& error) {
    ASSERT_EQ(1U, error.getMessageList().size());
    const tq::oss::Message& first = error.getMessageList().front();
    EXPECT_EQ("TQ_ERR_OUT_OF_MEMORY", utf8(first.getMessageId()));
    EXPECT_STREQ("kruConverter", first.getFileName());
    ASSERT_EQ(1U, first.getArguments().size());
    EXPECT_EQ("Converter::convert()", utf8(first.getArguments()[0]));
  }
}

TEST_F(RESTMessageTest, TheHeaderCanBeBuiltOnceThereIsMemoryAgain) {
  build(0, {{"q", std::string(20000, 'v')}});
  RESTMessage message(u"server", request);
  {
    const test::FailingAllocations failing;
    EXPECT_THROW(message.getSerializedHeader(), tq::oss::NLSException);
  }
  EXPECT_EQ(header(), message.getSerializedHeader());
}

TEST_F(RESTMessageTest, RunningOutOfMemoryForThePrefixIsTheInfrastructuresException) {
  build(kAddDocument);
  document(std::string(20000, 'k'), {{u"a", u"b"}}, "");
  const test::FailingAllocations failing;
  EXPECT_THROW(RESTMessage(u"server", request), tq::oss::NLSException);
}

TEST_F(RESTMessageTest, AKeyThatNoRequestCanCarryIsRefusedBeforeItIsRead) {
  build(kAddDocument);
  request.setContent({{u"a", u"b"}}, nullptr, 0);
  request.setDocKey("x", std::numeric_limits<unsigned int>::max());
  expectRefusal("the document's key and metadata are longer than a request can carry",
                [&] { RESTMessage(u"server", request); });
}

TEST_F(RESTMessageTest, TheLongestPrefixHasALengthOfThirtyTwoBits) {
  build(kAddDocument);
  request.setContent({{u"a", u"b"}}, nullptr, 0);
  request.setDocKey("x", 1);
  const auto fixed =
      RESTMessage(u"server", request).getSerializeMetadataLength({{u"a", u"b"}}, "x", 0);
  const auto longest = std::numeric_limits<std::uint32_t>::max() - 2000 - fixed;
  request.setDocKey("x", static_cast<unsigned int>(longest));
  {
    const test::FailingAllocations failing;
    EXPECT_THROW(RESTMessage(u"server", request), tq::oss::NLSException);
  }
  request.setDocKey("x", static_cast<unsigned int>(longest + 1));
  expectRefusal("the document's key and metadata are longer than a request can carry",
                [&] { RESTMessage(u"server", request); });
}

TEST_F(RESTMessageTest, ContentWithoutAKeyIsNotSent) {
  build(kAddDocument);
  request.setContent({{u"a", u"b"}}, "content", 7);
  RESTMessage message(u"server", request);
  EXPECT_EQ(0U, message.getMsgPrefixLen());
  EXPECT_EQ("?Content-Length  =&ver=1.1", utf8(message.getParamString(false)));
}

TEST_F(RESTMessageTest, NullWithALengthIsRefusedWhereItWouldBeSent) {
  build(kAddDocument);
  document("key", {{u"a", u"b"}}, "content");
  RESTMessage message(u"server", request);
  const auto initMessage = [&] { message.initMessage(request); };
  request.setContent(nullptr, 7);
  expectRefusal("the document's content is null although it has a length", initMessage);
  request.setContent("content", 7);
  for (const unsigned int length : {1U, 3U}) {
    request.setDocKey(nullptr, length);
    const char* reason = "the document's key is null although it has a length";
    expectRefusal(reason, initMessage);
    char out[64];
    expectRefusal(reason,
                  [&] { message.serializeMetadata(out, request.getMetadata(), nullptr, length); });
  }
  request.setDocKey(nullptr, 0);
  request.setContent(nullptr, 7);
  message.initMessage(request);
  EXPECT_EQ(0U, message.getMsgPrefixLen());
  EXPECT_EQ("?Content-Length  =&ver=1.1", utf8(message.getParamString(false)));
}

TEST_F(RESTMessageTest, AKeyWithoutMetadataSerializesToNothing) {
  build(kAddDocument);
  document("key", {}, "content");
  RESTMessage message(u"server", request);
  EXPECT_EQ(0U, message.getMsgPrefixLen());
  EXPECT_EQ("?Content-Length  =0&ver=1.1", utf8(message.getParamString(false)));
  char out[8] = "unused";
  EXPECT_EQ(0U, message.serializeMetadata(out, {}, "key", 3));
  EXPECT_EQ(0U, message.getSerializeMetadataLength({}, "key", 3));
  EXPECT_STREQ("unused", out);
}

TEST_F(RESTMessageTest, AKeyWithoutMetadataSerializesToNothingWhateverTheContentIs) {
  for (const char* content : {static_cast<const char*>(nullptr), "never looked at"}) {
    build(kAddDocument);
    document("key", {}, "");
    request.setContent(content, 1000000);
    RESTMessage message(u"server", request);
    EXPECT_EQ(0U, message.getMsgPrefixLen());
    EXPECT_EQ("?Content-Length  =0&ver=1.1", utf8(message.getParamString(false)));
  }
}

TEST_F(RESTMessageTest, ADocumentWithoutContentHasNoDataTag) {
  build(kDeleteDocument);
  document("key", {{u"a", u"bc"}}, "");
  RESTMessage message(u"server", request);
  EXPECT_EQ(
      "00 00 00 00 00 00 00 1b "           // T = 11 + 4 + 5 + 4 + 3
      "00 00 00 01 61 00 00 00 02 62 63 "  // the pair
      "00 00 00 05 72 6f 77 49 64 "        // rowId
      "00 00 00 03 6b 65 79",              // the key
      hex(prefixOf(message)));
  EXPECT_EQ("?Content-Length  =35&ver=1.1", utf8(message.getParamString(false)));
}

TEST_F(RESTMessageTest, APrefixWithContentEndsWithTheContentsLength) {
  build(kAddDocument);
  document("key", {{u"a", u"bc"}, {u"d", u"", 9, 7}}, "content");
  RESTMessage message(u"server", request);
  EXPECT_EQ(
      "00 00 00 00 00 00 00 3b "
      "00 00 00 01 61 00 00 00 02 62 63 "
      "00 00 00 01 64 00 00 00 00 00 00 00 07 "
      "00 00 00 05 72 6f 77 49 64 00 00 00 03 6b 65 79 "
      "00 00 00 04 64 61 74 61 00 00 00 07",
      hex(prefixOf(message)));
  EXPECT_EQ(0x3bU + 8, message.getMsgPrefixLen() + message.getMsgBodyLength());
  EXPECT_EQ("?Content-Length  =67&ver=1.1", utf8(message.getParamString(false)));
}

TEST_F(RESTMessageTest, APairsFirstAttributeIsNeverSent) {
  build(kAddDocument);
  document("key", {{u"a", u"bc", 0}}, "");
  const std::string without = prefixOf(RESTMessage(u"server", request));
  document("key", {{u"a", u"bc", 0xFFFFFFFF}}, "");
  EXPECT_EQ(without, prefixOf(RESTMessage(u"server", request)));
}

TEST_F(RESTMessageTest, TheSizeOfABlockHasASurplusOfEightBytesAPair) {
  const std::list<KVPair> pairs[] = {
      {{u"a", u"bc"}},
      {{u"a", u"bc"}, {u"d", u"e", 0, 1}},
      {{u"", u""}, {u"\u00e9", u"\u20ac"}, {u"index", u"UTF-8"}},
  };
  for (const char* content : {"", "c", "content"}) {
    build(kAddDocument);
    document("key", {}, content);
    const RESTMessage message(u"server", request);
    for (const std::list<KVPair>& metadata : pairs) {
      std::string out(1000, '\0');
      EXPECT_EQ(message.serializeMetadata(out.data(), metadata, "key", 3) + 8 * metadata.size(),
                message.getSerializeMetadataLength(metadata, "key", 3))
          << metadata.size() << content;
    }
  }
}

TEST_F(RESTMessageTest, TheSurplusNeverReachesTheLengthHeader) {
  build(kAddDocument);
  document("key", {{u"a", u"bc"}, {u"d", u"e"}}, "content");
  RESTMessage message(u"server", request);
  const std::string total = std::to_string(message.getMsgPrefixLen() + message.getMsgBodyLength());
  EXPECT_EQ("?Content-Length  =" + total + "&ver=1.1", utf8(message.getParamString(false)));
}

TEST_F(RESTMessageTest, AContentOfMoreThanThirtyBitsLosesTheTopBitsOfItsLengthButNotOfT) {
  build(kAddDocument);
  document("key", {{u"a", u"bc"}}, "");
  const unsigned int huge = 0xC0000005;
  request.setContent(contentBytes.data(), huge);
  const RESTMessage message(u"server", request);
  const std::string prefix = prefixOf(message);
  EXPECT_EQ("00 00 00 05", hex(prefix.substr(prefix.size() - 4)));
  const std::uint64_t t = prefix.size() - 8 + std::uint64_t{huge};
  EXPECT_EQ(hex(test::word32(static_cast<std::uint32_t>(t))), hex(prefix.substr(4, 4)));
  EXPECT_EQ("?Content-Length  =" + std::to_string(t + 8) + "&ver=1.1",
            utf8(message.getParamString(false)));
}

TEST_F(RESTMessageTest, SizesThePrefixWithoutTheContent) {
  build(kAddDocument);
  document("key", {{u"a", u"bc"}}, "");
  request.setContent(contentBytes.data(), 0xFFFFFFFF);
  const test::FailingAllocations failing;
  const RESTMessage message(u"server", request);
  EXPECT_EQ(8U + 11 + 9 + 7 + 12, message.getMsgPrefixLen());
}

TEST_F(RESTMessageTest, ThePrefixHasRoomFor2000BytesMoreThanItsBlock) {
  build(kAddDocument);
  const std::list<KVPair> metadata{{u"a", u"bc"}};
  document("k", metadata, "");
  const auto size = RESTMessage(u"server", request).getSerializeMetadataLength(metadata, "k", 1);
  // Up to the 16384 bytes inside the message nothing is allocated.
  const std::size_t longest = 1 + 16384 - 2000 - static_cast<std::size_t>(size);
  for (const bool fits : {true, false}) {
    document(std::string(fits ? longest : longest + 1, 'k'), metadata, "");
    const test::FailingAllocations failing;
    if (fits) {
      EXPECT_NO_THROW(RESTMessage(u"server", request));
    } else {
      EXPECT_THROW(RESTMessage(u"server", request), tq::oss::NLSException);
    }
  }
}

TEST_F(RESTMessageTest, ALargeKeyAndMuchMetadataAreWrittenWhole) {
  build(kAddDocument);
  std::list<KVPair> metadata;
  for (int i = 0; i < 3000; ++i) metadata.emplace_back(u"name", u"value");
  document(std::string(70000, 'k'), metadata, "");
  const RESTMessage message(u"server", request);
  const std::string prefix = prefixOf(message);
  EXPECT_EQ(8U + 3000 * 17 + 9 + 4 + 70000, prefix.size());
  EXPECT_EQ(keyBytes, prefix.substr(prefix.size() - 70000));
}

TEST_F(RESTMessageTest, ABlockThatIsNoShortOneHasJustTheRoomThatItNeeds) {
  build(kAddDocument);
  const struct {
    std::size_t pairs;
    std::int32_t name;
    std::int32_t value;
  } cases[] = {{200, 100, 100}, {400, 100, 100}, {800, 100, 100}, {3000, 4, 3}};
  for (const auto& [pairs, name, value] : cases) {
    const KVPair pair(icu::UnicodeString(name, u'n', name), icu::UnicodeString(value, u'v', value));
    const std::list<KVPair> metadata(pairs, pair);
    document("key", metadata, "");
    RESTMessage message(u"server", request);
    const auto pairLength = static_cast<std::size_t>(name) + static_cast<std::size_t>(value) + 8;
    EXPECT_EQ(8 + pairs * pairLength + 9 + 4 + 3, message.getMsgPrefixLen());
    const std::uint64_t needed = message.getSerializeMetadataLength(metadata, "key", 3) + 2000;
    EXPECT_GE(test::lastBufferSize(), needed);
    EXPECT_LT(test::lastBufferSize(), 2 * needed);
  }
}

TEST_F(RESTMessageTest, TheTerminateRecordIsEightZeroBytes) {
  build(kLastDocSent);
  document("key", {{u"a", u"b"}}, "content");
  RESTMessage message(u"server", request);
  unsigned int length = 0;
  const char* record = message.getTerminateRecord(length);
  EXPECT_EQ("00 00 00 00 00 00 00 00", hex({record, length}));
  EXPECT_EQ(0U, message.getMsgPrefixLen());
  EXPECT_EQ("?Content-Length  =8&ver=1.1", utf8(message.getParamString(false)));
}

TEST_F(RESTMessageTest, TheTerminateRecordIsWrittenOverWhateverWasThere) {
  build(kLastDocSent);
  RESTMessage message(u"server", request);
  unsigned int length = 0;
  const char* record = message.getTerminateRecord(length);
  std::fill_n(const_cast<char*>(record), length, '#');
  message.serializeTermRecord();
  EXPECT_EQ("00 00 00 00 00 00 00 00", hex({record, length}));
}

TEST_F(RESTMessageTest, AMessageOfAnotherKindHasNoTerminateRecord) {
  build(kAsynchAddDocument);
  const RESTMessage message(u"server", request);
  unsigned int length = 5;
  EXPECT_NE(nullptr, message.getTerminateRecord(length));
  EXPECT_EQ(0U, length);
}

TEST_F(RESTMessageTest, KnowsItsKindAndHost) {
  build(kAsynchAddDocument);
  const RESTMessage message(u"server", request);
  EXPECT_EQ(ClientRequest::ASYNCH_ADD_DOCUMENT, message.getRequest());
  EXPECT_EQ("server", utf8(message.getHost()));
}

struct KindWords {
  int kind;
  const char* action;
  const char* type;
};

const KindWords kKindWords[] = {
    {-1, "", "unknown"},
    {0, "", "unknown"},
    {1, "createCollection", "admin"},
    {2, "deleteCollection", "admin"},
    {3, "addDocument", "unknown"},
    {4, "updateIndex", "admin"},
    {5, "deleteDocument", "update"},
    {6, "", "unknown"},
    {7, "", "unknown"},
    {8, "search", "select"},
    {9, "asyncAddDocument", "update"},
    {10, "asyncAddDocument", "update"},
    {11, "getParseResult", "update"},
    {12, "openCollection", "update"},
    {13, "closeCollection", "update"},
    {14, "selectivity", "select"},
    {15, "getStatus", "monitor"},
    {16, "backup", "admin"},
    {17, "restore", "admin"},
    {18, "takeover", "monitor"},
    {19, "shutdown", "monitor"},
    {20, "search", "select"},
    {21, "openCollection", "unknown"},
    {22, "getServerVersion", "monitor"},
    {23, "setConstructorConfiguration", "update"},
    {24, "versionsValidation", "monitor"},
    {25, "", "unknown"},
    {63, "", "unknown"},
    {64, "", "unknown"},
    {std::numeric_limits<int>::max(), "", "unknown"},
    {std::numeric_limits<int>::min(), "", "unknown"},
};

TEST(RESTMessage, EachKindHasItsActionAndActionType) {
  for (const KindWords& words : kKindWords) {
    EXPECT_EQ(words.action, utf8(RESTMessage::getAction(kindOf(words.kind)))) << words.kind;
    EXPECT_EQ(words.type, utf8(RESTMessage::getActionType(kindOf(words.kind)))) << words.kind;
  }
}

TEST(RESTMessage, AddingADocumentIsOfUnknownType) {
  EXPECT_EQ(StaticDefs::ACT_UNKNOWN, RESTMessage::getActionType(ClientRequest::ADD_DOCUMENT));
}

TEST(RESTMessage, KindsThatShareAnAction) {
  const auto action = [](ClientRequest::REQUEST kind) { return RESTMessage::getAction(kind); };
  EXPECT_EQ(action(ClientRequest::STREAM_SEARCH), action(ClientRequest::SCALAR_SEARCH));
  EXPECT_EQ(action(ClientRequest::ASYNCH_ADD_DOCUMENT), action(ClientRequest::LAST_DOC_SENT));
  EXPECT_EQ(action(ClientRequest::OPEN_COLLECTION), action(ClientRequest::OPEN_COLLECTION_ALT));
}

TEST(RESTMessage, ToB64AppendsTheEncodedUtf8Bytes) {
  const std::pair<const char16_t*, const char*> cases[] = {{u"", "has:"},
                                                           {u"user:pass", "has:dXNlcjpwYXNz"},
                                                           {u"\u20ac", "has:4oKs"},
                                                           {u"a", "has:YQ=="}};
  for (const auto& [in, expected] : cases) {
    icu::UnicodeString text(in);
    icu::UnicodeString out(u"has:");
    RESTMessage::toB64(text, out);
    EXPECT_EQ(expected, utf8(out));
  }
}

TEST(RESTMessage, ConvertNumberToStringAppendsTheDigits) {
  const std::pair<unsigned int, const char*> cases[] = {
      {0, "n=0"}, {7, "n=7"}, {10, "n=10"}, {1000000, "n=1000000"}, {4294967295U, "n=4294967295"}};
  for (const auto& [number, expected] : cases) {
    icu::UnicodeString out(u"n=");
    convertNumberToString(out, number);
    EXPECT_EQ(expected, utf8(out));
  }
}

TEST(RESTMessage, FillingTheTablesAgainChangesNothing) {
  RESTMessage::initUrls();
  const icu::UnicodeString before = RESTMessage::getAction(ClientRequest::STREAM_SEARCH);
  RESTMessage::initUrls();
  EXPECT_EQ(before, RESTMessage::getAction(ClientRequest::STREAM_SEARCH));
}

}  // namespace
}  // namespace tq::comm
