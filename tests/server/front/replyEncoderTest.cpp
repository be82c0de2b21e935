#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "server/front/replyEncoder.h"
#include "tests/server/requestBytes.h"

namespace corvaned {
namespace {

using test::bigEndian;
using test::lengthAnd;
using ::testing::HasSubstr;

class ListedHits : public HitSource {
 public:
  explicit ListedHits(std::vector<Hit> hits, bool fails = false)
      : hits_(std::move(hits)), fails_(fails) {}

  bool next(Hit& hit) override {
    if (position_ == hits_.size()) {
      if (fails_) throw std::runtime_error("the disk is gone");
      return false;
    }
    hit = hits_[position_++];
    return true;
  }

 private:
  std::vector<Hit> hits_;
  bool fails_;
  std::size_t position_ = 0;
};

Reply hits(std::vector<Hit> list, bool withScore, bool streaming) {
  return HitsReply{std::make_unique<ListedHits>(std::move(list)), withScore, streaming};
}

std::string whole(std::unique_ptr<ReplyEncoder> encoder) {
  std::string bytes;
  while (encoder->next(bytes)) {
  }
  return bytes;
}

std::string http(Reply reply) { return whole(encodeHttp(std::move(reply))); }
std::string binary(Reply reply) { return whole(encodeBinary(std::move(reply))); }

std::string withLength(const std::string& status, const std::string& body) {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         body;
}

std::string fields(const std::vector<std::pair<std::string, std::string>>& list) {
  std::string bytes;
  for (const auto& [name, value] : list) bytes += lengthAnd(name) + lengthAnd(value);
  return bytes;
}

std::string shortFields(const std::vector<std::pair<std::string, std::string>>& list) {
  std::string bytes;
  for (const auto& [name, value] : list) {
    bytes += bigEndian(name.size(), 2) + name + bigEndian(value.size(), 2) + value;
  }
  return bytes;
}

std::string envelope(int status, const std::string& payload) {
  return bigEndian(static_cast<std::uint64_t>(status), 2) + bigEndian(payload.size(), 2) + payload;
}

const std::string kZero(4, '\0');
const std::string kSuccess("\0\1", 2);
const std::string kEnd("\0\1\0\0", 4);

TEST(ReplyEncoder, NoReplyIsNoBytes) {
  EXPECT_EQ(http(NoReply{}), "");
  EXPECT_EQ(binary(NoReply{}), "");
}

TEST(ReplyEncoder, SuccessWithoutResultHasNoBody) {
  EXPECT_EQ(http(DoneReply{}), "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(binary(DoneReply{}), kSuccess);
}

TEST(ReplyEncoder, ErrorIsOneRecord) {
  const ErrorReply error{"ZVK0007E", "no such thing"};
  EXPECT_EQ(
      http(error),
      withLength("500 Internal Server Error",
                 kZero + lengthAnd(fields({{"MsgId", "ZVK0007E"}, {"MsgText", "no such thing"}}))));
  const std::string record = shortFields({{"MsgId", "ZVK0007E"}, {"MsgText", "no such thing"}});
  EXPECT_EQ(binary(error), std::string("\0\6", 2) + bigEndian(record.size(), 2) + record);
}

TEST(ReplyEncoder, LongErrorTextIsCutBetweenCharacters) {
  std::string text(599, 'x');
  text += "\xC3\xA4\xC3\xA4";
  const std::string record = shortFields({{"MsgId", "Z"}, {"MsgText", std::string(599, 'x')}});
  EXPECT_EQ(binary(ErrorReply{"Z", text}),
            std::string("\0\6", 2) + bigEndian(record.size(), 2) + record);
}

TEST(ReplyEncoder, TextsOfAReportAreWhole) {
  const std::string text(5000, 'x');
  const ReportReply report{{{"k", "ZVK0106I", text}}};
  const std::string record = shortFields({{"Doc", "k"}, {"MsgId", "ZVK0106I"}, {"MsgText", text}});
  EXPECT_THAT(binary(report), HasSubstr(record));
  EXPECT_THAT(http(report),
              HasSubstr(fields({{"Doc", "k"}, {"MsgId", "ZVK0106I"}, {"MsgText", text}})));
}

// The name of metadata may be as long as a header block.
TEST(ReplyEncoder, RecordOfAReportFitsIntoAnEnvelope) {
  const std::string text = std::string(59999, 'x') + "\xC3\xA4" + std::string(70000, 'y');
  const std::string reply = binary(ReportReply{{{"k", "ZVK0105I", text}}});
  EXPECT_THAT(reply, HasSubstr(shortFields({{"MsgText", std::string(59999, 'x')}})));
}

TEST(ReplyEncoder, ScalarHitsThatAreFewHaveALength) {
  const std::string body = kZero + lengthAnd(fields({{"URI", "base64:azE="}, {"SCORE", "1.000"}})) +
                           lengthAnd(fields({{"URI", "base64:azI="}, {"SCORE", "0.042"}})) + kZero;
  EXPECT_EQ(http(hits({{"k1", 1000}, {"k2", 42}}, true, false)), withLength("200 OK", body));
}

TEST(ReplyEncoder, StreamedHitsAreChunkedEvenWhenThereAreNone) {
  EXPECT_EQ(http(hits({}, true, true)),
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n8\r\n" + kZero + kZero +
                "\r\n0\r\n\r\n");
}

TEST(ReplyEncoder, ScoreIsLeftOutUnlessWanted) {
  EXPECT_EQ(http(hits({{"k1", 1000}}, false, false)),
            withLength("200 OK", kZero + lengthAnd(fields({{"URI", "base64:azE="}})) + kZero));
  EXPECT_EQ(binary(hits({{"k1", 1000}}, false, false)), kSuccess + envelope(1, "k1") + kEnd);
}

TEST(ReplyEncoder, BinaryHitsWithScoreAreEnvelopesOfStatus5) {
  EXPECT_EQ(binary(hits({{"k1", 65535}, {"k2", 0}}, true, true)),
            kSuccess + envelope(5, "\xFF\xFFk1") + envelope(5, std::string("\0\0k2", 4)) + kEnd);
}

TEST(ReplyEncoder, BothProtocolsReportTheSameScore) {
  using Scores = std::vector<std::uint16_t>;
  for (const std::uint16_t score : Scores{0, 1, 9, 10, 99, 100, 999, 1000, 1001, 65535}) {
    const std::string text = http(hits({{"k", score}}, true, false));
    const std::string bytes = binary(hits({{"k", score}}, true, false));
    const auto high = static_cast<unsigned char>(bytes[6]);
    const auto low = static_cast<unsigned char>(bytes[7]);
    std::string digits = std::to_string(high * 256 + low);
    if (digits.size() < 4) digits.insert(0, 4 - digits.size(), '0');
    digits.insert(digits.size() - 3, ".");
    EXPECT_NE(text.find(lengthAnd("SCORE") + lengthAnd(digits)), std::string::npos) << score;
  }
}

TEST(ReplyEncoder, KeysOfEveryLengthAreNamedInBase64) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
      {std::string("\0\xFF\xFE", 3), "AP/+"}};
  for (const auto& [key, base64] : cases) {
    EXPECT_EQ(
        http(hits({{key, 0}}, false, false)),
        withLength("200 OK", kZero + lengthAnd(fields({{"URI", "base64:" + base64}})) + kZero));
  }
}

// Takes a chunked reply apart, checking its framing.
std::vector<std::string> chunksOf(std::string reply) {
  const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  EXPECT_EQ(reply.substr(0, head.size()), head);
  reply.erase(0, head.size());
  std::vector<std::string> chunks;
  for (;;) {
    const std::size_t line = reply.find("\r\n");
    if (line == std::string::npos) {
      ADD_FAILURE() << "a chunk has no size line";
      return chunks;
    }
    const std::size_t size = std::stoul(reply.substr(0, line), nullptr, 16);
    chunks.push_back(reply.substr(line + 2, size));
    EXPECT_EQ(reply.substr(line + 2 + size, 2), "\r\n");
    reply.erase(0, line + 2 + size + 2);
    if (size == 0) break;
  }
  EXPECT_EQ(reply, "");
  chunks.pop_back();
  return chunks;
}

std::size_t recordsIn(const std::string& bytes, std::size_t position) {
  std::size_t records = 0;
  while (position + 4 <= bytes.size()) {
    const auto at = [&](std::size_t i) {
      return static_cast<std::size_t>(static_cast<unsigned char>(bytes[position + i]));
    };
    const std::size_t length = at(0) << 24 | at(1) << 16 | at(2) << 8 | at(3);
    position += 4;
    if (length == 0) break;
    EXPECT_LE(position + length, bytes.size()) << "a record is cut by its chunk";
    position += length;
    ++records;
  }
  EXPECT_EQ(position, bytes.size());
  return records;
}

TEST(ReplyEncoder, ManyHitsComeInChunksOfWholeRecordsBelow32Kilobytes) {
  for (const bool streaming : {true, false}) {
    std::vector<Hit> list(5000, Hit{std::string(100, 'k'), 7});
    const std::vector<std::string> chunks = chunksOf(http(hits(list, true, streaming)));
    std::size_t records = 0;
    for (std::size_t i = 0; i < chunks.size(); ++i) {
      EXPECT_LT(chunks[i].size(), 32768U);
      records += recordsIn(chunks[i], i == 0 ? 4 : 0);
    }
    EXPECT_EQ(records, 5000U);
    EXPECT_EQ(chunks.front().substr(0, 4), kZero);
    EXPECT_EQ(chunks.back().substr(chunks.back().size() - 4), kZero);
  }
}

TEST(ReplyEncoder, PortionsStaySmallHoweverManyHitsThereAre) {
  const auto encoder = encodeBinary(hits(std::vector<Hit>(20000, Hit{"key", 7}), true, true));
  std::string portion;
  std::size_t total = 0;
  while (encoder->next(portion)) {
    EXPECT_LT(portion.size(), 32768U);
    total += portion.size();
    portion.clear();
  }
  EXPECT_EQ(total, 2 + 20000 * (4 + 2 + 3) + 4U);
}

TEST(ReplyEncoder, FailureInMidStreamLeavesNoEndMark) {
  for (const bool isHttp : {true, false}) {
    Reply reply = HitsReply{
        std::make_unique<ListedHits>(std::vector<Hit>(2000, Hit{"key", 7}), true), true, true};
    const auto encoder = isHttp ? encodeHttp(std::move(reply)) : encodeBinary(std::move(reply));
    std::string bytes;
    EXPECT_THROW(while (encoder->next(bytes)){}, std::runtime_error);
    EXPECT_GT(bytes.size(), 1000U);
    EXPECT_NE(bytes.substr(bytes.size() - 4), kEnd);
    EXPECT_NE(bytes.substr(bytes.size() - 5), "0\r\n\r\n");
  }
}

TEST(ReplyEncoder, ParseResultsNameTheirDocumentsAndTheirMessages) {
  const OutcomesReply reply{{{"k1", "", ""}, {"k2", "ZVK0012E", "bad"}}};
  EXPECT_EQ(http(reply), withLength("200 OK", kZero + lengthAnd(fields({{"Doc", "base64:azE="}})) +
                                                  lengthAnd(fields({{"Doc", "base64:azI="},
                                                                    {"MsgId", "ZVK0012E"},
                                                                    {"MsgText", "bad"}})) +
                                                  kZero));
  EXPECT_EQ(
      binary(reply),
      kSuccess + envelope(1, shortFields({{"Doc", "base64:azE="}})) +
          envelope(
              1, shortFields({{"Doc", "base64:azI="}, {"MsgId", "ZVK0012E"}, {"MsgText", "bad"}})) +
          kEnd);
}

TEST(ReplyEncoder, EstimateCrossesItsLastTwoNumbersInTheBinaryProtocol) {
  const EstimateReply reply{{5, 9, 7}};
  EXPECT_EQ(binary(reply),
            kSuccess + envelope(1, bigEndian(5, 4) + bigEndian(7, 4) + bigEndian(9, 4)) + kEnd);
  EXPECT_EQ(http(reply), withLength("200 OK", kZero + lengthAnd(fields({{"ESTIMATE", "5"},
                                                                        {"AT_MOST", "9"},
                                                                        {"DOCUMENTS", "7"}}))));
}

TEST(ReplyEncoder, EstimateBeyond32BitsIsTheLargestNumber) {
  const std::string most(4, '\xFF');
  EXPECT_EQ(binary(EstimateReply{{1ULL << 32U, 1ULL << 40U, 0xFFFFFFFFU}}),
            kSuccess + envelope(1, most + most + most) + kEnd);
}

TEST(ReplyEncoder, StatusIsARecordOrAReplyHeader) {
  const auto body = [](const char* code) {
    return withLength("200 OK", kZero + lengthAnd(fields({{"STATUS_CODE", code}})));
  };
  EXPECT_EQ(http(StatusReply{0, {}}), body("0"));
  EXPECT_EQ(http(StatusReply{1, {}}), body("1"));
  EXPECT_EQ(http(StatusReply{2, {"Z", "why"}}), body("2"));
  EXPECT_EQ(binary(StatusReply{0, {}}), kSuccess);
  EXPECT_EQ(binary(StatusReply{1, {}}), std::string("\0\5", 2));
  const std::string record = shortFields({{"MsgId", "Z"}, {"MsgText", "why"}});
  EXPECT_EQ(binary(StatusReply{2, {"Z", "why"}}),
            std::string("\0\6", 2) + bigEndian(record.size(), 2) + record);
}

TEST(ReplyEncoder, VersionIsText) {
  EXPECT_EQ(http(TextReply{"1.2.3"}), withLength("200 OK", "1.2.3"));
  EXPECT_EQ(binary(TextReply{"1.2.3"}), kSuccess + envelope(1, "1.2.3"));
}

}  // namespace
}  // namespace corvaned
