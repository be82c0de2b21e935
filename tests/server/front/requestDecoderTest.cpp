#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "server/front/requestDecoder.h"
#include "tests/server/requestBytes.h"

namespace corvaned {
namespace {

using test::binaryRequest;
using test::documentBlock;
using test::Headers;
using test::httpRequest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct Outcome {
  std::vector<Request> requests;
  std::string error;
  ErrorKind kind = ErrorKind::Internal;
};

Outcome decode(RequestDecoder& decoder, const std::vector<std::string>& portions) {
  Outcome outcome;
  try {
    for (const std::string& portion : portions) {
      decoder.feed(portion);
      while (auto request = decoder.next()) outcome.requests.push_back(std::move(*request));
    }
  } catch (const FramingError& error) {
    outcome.error = error.what();
    outcome.kind = error.kind();
  }
  return outcome;
}

Outcome decode(Framing framing, const std::string& bytes, DecoderLimits limits = {}) {
  RequestDecoder decoder(framing, limits);
  return decode(decoder, {bytes});
}

std::string encoded(Framing framing, const Headers& headers, const std::string& body) {
  return framing == Framing::Http ? httpRequest(headers, body) : binaryRequest(headers, body);
}

class BothFramings : public ::testing::TestWithParam<Framing> {
 protected:
  std::string threeRequests() const {
    return encoded(GetParam(), {{"action", "search"}, {"query", "a: b"}}, "") +
           encoded(GetParam(), {{"action", "addDocument"}},
                   documentBlock("k", {{"a", "b"}}, "content\r\n\r\nmore")) +
           encoded(GetParam(), {{"action", "getStatus"}}, "");
  }

  static void expectThree(const Outcome& outcome, const std::string& context) {
    ASSERT_EQ(outcome.error, "") << context;
    ASSERT_EQ(outcome.requests.size(), 3U) << context;
    EXPECT_EQ(outcome.requests[0].header("query"), "a: b") << context;
    EXPECT_EQ(outcome.requests[0].content, "") << context;
    EXPECT_EQ(outcome.requests[1].content, documentBlock("k", {{"a", "b"}}, "content\r\n\r\nmore"))
        << context;
    EXPECT_EQ(outcome.requests[2].header("action"), "getStatus") << context;
  }
};

INSTANTIATE_TEST_SUITE_P(Framings, BothFramings, ::testing::Values(Framing::Http, Framing::Binary),
                         [](const auto& parameter) {
                           return parameter.param == Framing::Http ? "Http" : "Binary";
                         });

TEST_P(BothFramings, BatchInOneSegmentGivesAllRequestsInOrder) {
  expectThree(decode(GetParam(), threeRequests()), "whole");
}

TEST_P(BothFramings, EverySplitIntoTwoGivesTheSameRequests) {
  const std::string bytes = threeRequests();
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    RequestDecoder decoder(GetParam(), {});
    expectThree(decode(decoder, {bytes.substr(0, cut), bytes.substr(cut)}),
                "cut at " + std::to_string(cut));
    EXPECT_TRUE(decoder.idle());
  }
}

TEST_P(BothFramings, EverySegmentSizeGivesTheSameRequests) {
  const std::string bytes = threeRequests();
  for (const std::size_t size : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 16U, 31U}) {
    std::vector<std::string> portions;
    for (std::size_t at = 0; at < bytes.size(); at += size)
      portions.push_back(bytes.substr(at, size));
    RequestDecoder decoder(GetParam(), {});
    expectThree(decode(decoder, portions), "segments of " + std::to_string(size));
  }
}

TEST_P(BothFramings, EveryProperPrefixGivesNoFurtherRequestAndNoError) {
  const std::string bytes =
      encoded(GetParam(), {{"action", "addDocument"}}, documentBlock("k", {{"a", "b"}}, "x"));
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    RequestDecoder decoder(GetParam(), {});
    const Outcome outcome = decode(decoder, {bytes.substr(0, length)});
    EXPECT_EQ(outcome.error, "") << length;
    EXPECT_TRUE(outcome.requests.empty()) << length;
    EXPECT_EQ(decoder.idle(), length == 0) << length;
  }
}

TEST_P(BothFramings, EmptyContentLengthMeansNoContent) {
  const Outcome outcome = decode(GetParam(), encoded(GetParam(), {{"Content-Length  ", ""}}, ""));
  ASSERT_EQ(outcome.requests.size(), 1U);
  EXPECT_EQ(outcome.requests[0].content, "");
}

TEST_P(BothFramings, ContentLengthNameNeedsItsTrailingBlanks) {
  const Outcome outcome = decode(
      GetParam(), encoded(GetParam(), {{"Content-Length", "7"}, {"Content-Length  ", ""}}, ""));
  ASSERT_EQ(outcome.requests.size(), 1U);
  EXPECT_EQ(outcome.requests[0].content, "");
}

TEST_P(BothFramings, LineIsSplitAtItsFirstSeparator) {
  const Outcome outcome = decode(GetParam(), encoded(GetParam(), {{"a", ": x: y"}}, ""));
  ASSERT_EQ(outcome.requests.size(), 1U);
  EXPECT_EQ(outcome.requests[0].header("a"), ": x: y");
}

TEST_P(BothFramings, LineWithoutSeparatorSpoilsItsRequestOnly) {
  Headers broken{{"query", "one\ntwo"}};
  const Outcome outcome = decode(
      GetParam(), encoded(GetParam(), broken, "xy") + encoded(GetParam(), {{"action", "b"}}, ""));
  ASSERT_EQ(outcome.requests.size(), 2U);
  EXPECT_THAT(outcome.requests[0].defect, HasSubstr("\"two\""));
  EXPECT_EQ(outcome.requests[0].content, "xy");
  EXPECT_EQ(outcome.requests[1].defect, "");
}

TEST_P(BothFramings, CarriageReturnInsideALineDoesNotEndTheBlock) {
  const Outcome outcome = decode(GetParam(), encoded(GetParam(), {{"a", "x\r"}, {"b", "\ry"}}, ""));
  ASSERT_EQ(outcome.requests.size(), 1U);
  EXPECT_EQ(outcome.requests[0].header("a"), "x\r");
  EXPECT_EQ(outcome.requests[0].header("b"), "\ry");
}

TEST_P(BothFramings, ContentLengthThatIsNoNumberLosesTheFraming) {
  for (const char* length : {"x", "-1", "+1", " 1", "1 ", "0x10", "1.5", "1\r"}) {
    const Outcome outcome =
        decode(GetParam(), encoded(GetParam(), {{"Content-Length  ", length}}, ""));
    EXPECT_EQ(outcome.kind, ErrorKind::MalformedRequest) << length;
    EXPECT_THAT(outcome.error, HasSubstr("not a number")) << length;
  }
}

TEST_P(BothFramings, ContentIsTakenUpToTheLimitAndRefusedOneBeyondIt) {
  DecoderLimits limits;
  limits.contentBytes = 100;
  const Outcome at = decode(GetParam(), encoded(GetParam(), {}, std::string(100, 'x')), limits);
  EXPECT_EQ(at.requests.size(), 1U);
  const Outcome over = decode(GetParam(), encoded(GetParam(), {}, std::string(101, 'x')), limits);
  EXPECT_EQ(over.kind, ErrorKind::RequestTooLarge);
  limits.contentBytes = 101;
  const Outcome moved = decode(GetParam(), encoded(GetParam(), {}, std::string(101, 'x')), limits);
  EXPECT_EQ(moved.requests.size(), 1U);
}

TEST_P(BothFramings, AnnouncedSizesNearTheEndOfIntegersAreRefused) {
  for (const char* length :
       {"4294967295", "4294967296", "9223372036854775807", "18446744073709551615",
        "18446744073709551616", "99999999999999999999999999"}) {
    const Outcome outcome =
        decode(GetParam(), encoded(GetParam(), {{"Content-Length  ", length}}, ""));
    EXPECT_EQ(outcome.kind, ErrorKind::RequestTooLarge) << length;
  }
}

/// Takes what it is told to take, and notes what it was asked.
class ScriptedAdmission : public Admission {
 public:
  Verdict admit(Request& request, std::uint64_t contentBytes) override {
    asked.push_back(std::string(request.header("action")) + " " + std::to_string(contentBytes));
    if (refusal) throw *refusal;
    return verdict;
  }

  Verdict verdict = Verdict::Take;
  std::optional<ServerError> refusal;
  std::vector<std::string> asked;
};

TEST_P(BothFramings, AdmissionIsAskedBeforeAnyContentArrives) {
  ScriptedAdmission admission;
  RequestDecoder decoder(GetParam(), {}, &admission);
  const std::string bytes = encoded(GetParam(), {{"action", "addDocument"}}, "content");
  decoder.feed(bytes.substr(0, bytes.size() - 7));
  EXPECT_FALSE(decoder.next());
  EXPECT_THAT(admission.asked, ElementsAre("addDocument 7"));
  EXPECT_EQ(decoder.missingBytes(), 7U);
  decoder.feed("content");
  EXPECT_TRUE(decoder.ready());
  EXPECT_EQ(decoder.next()->content, "content");
  EXPECT_THAT(admission.asked, ElementsAre("addDocument 7"));
}

TEST_P(BothFramings, RefusedRequestComesWithoutItsContentAndTheNextOneIsRead) {
  for (const std::size_t size : {1U, 5U, 1000U}) {
    ScriptedAdmission admission;
    admission.refusal = ServerError(ErrorKind::TryAgain, "not now");
    RequestDecoder decoder(GetParam(), {}, &admission);
    const std::string bytes = encoded(GetParam(), {{"action", "addDocument"}}, "content") +
                              encoded(GetParam(), {{"action", "getStatus"}}, "");
    std::vector<std::string> portions;
    for (std::size_t at = 0; at < bytes.size(); at += size)
      portions.push_back(bytes.substr(at, size));
    const Outcome outcome = decode(decoder, portions);
    ASSERT_EQ(outcome.requests.size(), 2U) << size;
    ASSERT_TRUE(outcome.requests[0].refusal.has_value()) << size;
    EXPECT_STREQ(outcome.requests[0].refusal->what(), "not now") << size;
    EXPECT_EQ(outcome.requests[0].content, "") << size;
    EXPECT_EQ(outcome.requests[1].header("action"), "getStatus") << size;
    EXPECT_TRUE(decoder.idle()) << size;
  }
}

TEST_P(BothFramings, RefusedRequestComesBeforeItsContent) {
  ScriptedAdmission admission;
  admission.refusal = ServerError(ErrorKind::Unauthorized, "who are you?");
  RequestDecoder decoder(GetParam(), {}, &admission);
  const std::string bytes = encoded(GetParam(), {{"action", "addDocument"}}, "content");
  decoder.feed(bytes.substr(0, bytes.size() - 6));
  const auto refused = decoder.next();
  ASSERT_TRUE(refused.has_value());
  EXPECT_STREQ(refused->refusal->what(), "who are you?");
  EXPECT_TRUE(decoder.discards());
  EXPECT_FALSE(decoder.idle());
  EXPECT_FALSE(decoder.ready());
  EXPECT_FALSE(decoder.next());
  EXPECT_EQ(decoder.missingBytes(), 6U);
  decoder.feed("onten");
  EXPECT_EQ(decoder.missingBytes(), 1U);
  admission.refusal.reset();
  decoder.feed("t" + bytes);
  EXPECT_FALSE(decoder.discards());
  EXPECT_EQ(decoder.next()->content, "content");
  EXPECT_TRUE(decoder.idle());
}

TEST_P(BothFramings, RequestThatIsKeptBackIsAskedAboutAgain) {
  ScriptedAdmission admission;
  admission.verdict = Admission::Verdict::Wait;
  RequestDecoder decoder(GetParam(), {}, &admission);
  decoder.feed(encoded(GetParam(), {{"action", "addDocument"}}, "content"));
  EXPECT_FALSE(decoder.next());
  EXPECT_TRUE(decoder.keptBack());
  admission.verdict = Admission::Verdict::Take;
  EXPECT_EQ(decoder.next()->content, "content");
  EXPECT_FALSE(decoder.keptBack());
}

TEST_P(BothFramings, RequestThatIsKeptBackCanBeRefused) {
  ScriptedAdmission admission;
  admission.verdict = Admission::Verdict::Wait;
  RequestDecoder decoder(GetParam(), {}, &admission);
  decoder.feed(encoded(GetParam(), {{"action", "addDocument"}}, "content"));
  EXPECT_FALSE(decoder.next());
  decoder.refuse(ServerError(ErrorKind::TryAgain, "no memory"));
  EXPECT_TRUE(decoder.ready());
  EXPECT_STREQ(decoder.next()->refusal->what(), "no memory");
}

TEST_P(BothFramings, WaitingActionIsTheOneThatTheRequestWillHave) {
  const std::vector<std::string> blocks{"action: search\nquery: x\n",
                                        "action: a\naction: search\nz: action: no\n",
                                        "Content-Length  : 0\naction: search\n",
                                        "x: y\n\naction: search\n\n", "action: search\nquery\n"};
  for (const std::string& block : blocks) {
    const std::string text = block + "\r\n";
    const bool http = GetParam() == Framing::Http;
    RequestDecoder decoder(GetParam(), {});
    decoder.feed(http ? text : test::bigEndian(text.size(), 2) + text);
    ASSERT_TRUE(decoder.ready()) << block;
    EXPECT_EQ(decoder.waitingValue("action"), "search") << block;
    EXPECT_EQ(decoder.next()->header("action"), "search") << block;
  }
}

TEST_P(BothFramings, HeaderBlockHasAtMostSoManyLines) {
  DecoderLimits limits;
  limits.headerLines = 3;
  const Headers two{{"a", "b"}, {"c", "d"}};
  EXPECT_EQ(decode(GetParam(), encoded(GetParam(), two, ""), limits).requests.size(), 1U);
  limits.headerLines = 2;
  const Outcome outcome = decode(GetParam(), encoded(GetParam(), two, ""), limits);
  EXPECT_EQ(outcome.kind, ErrorKind::RequestTooLarge);
  EXPECT_THAT(outcome.error, HasSubstr("more than 2 lines"));
}

TEST_P(BothFramings, RequestOfTheOtherProtocolIsRefusedAsSuch) {
  const bool http = GetParam() == Framing::Http;
  // Lengths whose two bytes are both printable, and such with one that is not.
  for (const std::size_t fill : {0U, 100U, 0x2030U, 0x4143U, 0x6F41U}) {
    const Headers headers{{"action", "deleteCollection"}, {"query", std::string(fill, 'q')}};
    const std::string bytes = encoded(http ? Framing::Binary : Framing::Http, headers, "");
    for (const std::size_t cut : {std::size_t{1}, std::size_t{2}, bytes.size()}) {
      RequestDecoder decoder(GetParam(), {});
      const Outcome outcome = decode(decoder, {bytes.substr(0, cut), bytes.substr(cut)});
      EXPECT_TRUE(outcome.requests.empty()) << fill;
      EXPECT_THAT(outcome.error, HasSubstr("use the other port")) << fill;
    }
  }
}

TEST(RequestDecoder, NameThatBeginsLikeALengthIsStillAName) {
  // The first two letters read as a length are exactly that of the block.
  const std::string line = "ab: ";
  const std::string block = line + std::string(0x6162 - line.size() - 1, 'x') + "\n";
  EXPECT_EQ(decode(Framing::Http, block + "\r\n").requests.size(), 1U);
}

TEST(RequestDecoder, EmptyBlockIsRefused) {
  EXPECT_THAT(decode(Framing::Http, "\r\naction: deleteCollection\n\r\n").error,
              HasSubstr("empty"));
}

TEST(RequestDecoder, TwoDifferentContentLengthsLoseTheFraming) {
  const std::string line = "Content-Length  : ";
  EXPECT_EQ(decode(Framing::Http, line + "1\n" + line + "2\n\r\nxx").kind,
            ErrorKind::MalformedRequest);
  EXPECT_EQ(decode(Framing::Http, line + "1\n" + line + "1\n\r\nx").requests.size(), 1U);
}

TEST(RequestDecoder, HeaderBlockIsTakenUpToTheLimitAndRefusedBeyondIt) {
  DecoderLimits limits;
  limits.headerBytes = 64;
  const auto block = [](std::size_t size) { return "a: " + std::string(size - 4, 'x') + "\n\r\n"; };
  EXPECT_EQ(decode(Framing::Http, block(64), limits).requests.size(), 1U);
  EXPECT_EQ(decode(Framing::Http, block(65), limits).kind, ErrorKind::RequestTooLarge);
  limits.headerBytes = 65;
  EXPECT_EQ(decode(Framing::Http, block(65), limits).requests.size(), 1U);
}

TEST(RequestDecoder, EndlessLineIsRefusedWhenItPassesTheLimit) {
  DecoderLimits limits;
  limits.headerBytes = 1000;
  RequestDecoder decoder(Framing::Http, limits);
  const std::vector<std::string> portions(1001, "x");
  EXPECT_EQ(decode(decoder, portions).kind, ErrorKind::RequestTooLarge);
}

TEST(RequestDecoder, BinaryBlockMustEndWhereItsLengthSays) {
  const std::vector<std::string> blocks{"",         "\r",          "\n",      "a: b\n",
                                        "a: b\r\n", "a: b\n\r\nx", "\r\n\r\n"};
  for (const std::string& block : blocks) {
    const Outcome outcome = decode(Framing::Binary, test::bigEndian(block.size(), 2) + block);
    EXPECT_EQ(outcome.kind, ErrorKind::MalformedRequest) << block;
    EXPECT_TRUE(outcome.requests.empty()) << block;
  }
}

TEST(RequestDecoder, BinaryBlockMayHave65535Bytes) {
  const std::string block = "a: " + std::string(65535 - 6, 'x') + "\n\r\n";
  ASSERT_EQ(block.size(), 65535U);
  EXPECT_EQ(decode(Framing::Binary, "\xFF\xFF" + block).requests.size(), 1U);
}

TEST(RequestDecoder, FlippedBitsNeverDoMoreThanAnError) {
  const std::string good =
      binaryRequest({{"action", "addDocument"}}, documentBlock("k", {{"a", "b"}}, "x"));
  for (std::size_t bit = 0; bit < good.size() * 8; ++bit) {
    std::string bytes = good;
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    const Outcome outcome = decode(Framing::Binary, bytes);
    std::size_t held = 0;
    for (const Request& request : outcome.requests) held += request.content.size();
    EXPECT_LE(held, bytes.size()) << bit;
  }
}

}  // namespace
}  // namespace corvaned
