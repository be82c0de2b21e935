#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "server/base/errors.h"
#include "server/front/documentBlock.h"
#include "tests/server/requestBytes.h"

namespace corvaned {
namespace {

using test::bigEndian;
using test::documentBlock;
using test::lengthAnd;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

std::string block(const std::string& pairs) {
  return bigEndian(0, 4) + bigEndian(pairs.size(), 4) + pairs;
}

std::string refusal(const std::string& bytes) {
  try {
    parseDocumentBlock(bytes);
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::BadDocument);
    return error.what();
  }
  return "taken";
}

TEST(DocumentBlock, KeyMetadataAndContentAreTold) {
  const std::string key("key\0\xFFx", 6);
  const DocumentBlock parsed =
      parseDocumentBlock(documentBlock(key, {{"a", "b"}, {"", ""}}, "text"));
  EXPECT_FALSE(parsed.terminate);
  EXPECT_EQ(parsed.document.key, key);
  EXPECT_THAT(parsed.document.metadata, ElementsAre(Pair("a", "b"), Pair("", "")));
  EXPECT_EQ(parsed.document.content, "text");
}

TEST(DocumentBlock, DocumentMayHaveNoContent) {
  const DocumentBlock parsed = parseDocumentBlock(documentBlock("k", {{"a", "b"}}, ""));
  EXPECT_EQ(parsed.document.key, "k");
  EXPECT_EQ(parsed.document.content, "");
}

TEST(DocumentBlock, TagsAreTakenFromTheEndSoThatMetadataMayBearTheirNames) {
  const DocumentBlock parsed =
      parseDocumentBlock(documentBlock("k", {{"data", "1"}, {"rowId", "2"}}, "text"));
  EXPECT_THAT(parsed.document.metadata, ElementsAre(Pair("data", "1"), Pair("rowId", "2")));
  EXPECT_EQ(parsed.document.key, "k");
  EXPECT_EQ(parsed.document.content, "text");
}

TEST(DocumentBlock, TwoTopBitsOfALengthCarryNothing) {
  std::string bytes = documentBlock("k", {{"a", "b"}}, "");
  bytes[8] = static_cast<char>(0xC0);
  EXPECT_EQ(parseDocumentBlock(bytes).document.metadata.front().first, "a");
}

TEST(DocumentBlock, EightZeroBytesAreTheTerminateRecord) {
  EXPECT_TRUE(parseDocumentBlock(test::terminateRecord()).terminate);
}

TEST(DocumentBlock, TerminateRecordFollowedByBytesIsRefused) {
  EXPECT_THAT(refusal(test::terminateRecord() + "x"), HasSubstr("announces 0 bytes and holds 1"));
}

TEST(DocumentBlock, KeyHas1To128Bytes) {
  EXPECT_EQ(parseDocumentBlock(documentBlock(std::string(128, 'k'), {}, "")).document.key.size(),
            128U);
  EXPECT_THAT(refusal(documentBlock(std::string(129, 'k'), {}, "")), HasSubstr("129 bytes"));
  EXPECT_THAT(refusal(documentBlock("", {}, "x")), HasSubstr("key is empty"));
}

TEST(DocumentBlock, EveryTruncationIsRefused) {
  const std::string good = documentBlock("k", {{"a", "b"}}, "text");
  for (std::size_t length = 0; length < good.size(); ++length) {
    EXPECT_NE(refusal(good.substr(0, length)), "taken") << length;
  }
}

TEST(DocumentBlock, EveryTruncationWithAMatchingLengthIsRefusedOrHasNoContent) {
  const std::string pairs = documentBlock("k", {{"a", "b"}}, "text").substr(8);
  const std::string withoutContent = documentBlock("k", {{"a", "b"}}, "").substr(8);
  for (std::size_t length = 1; length < pairs.size(); ++length) {
    const std::string result = refusal(block(pairs.substr(0, length)));
    EXPECT_EQ(result == "taken", length == withoutContent.size()) << length << ": " << result;
  }
}

TEST(DocumentBlock, MetadataHasAtMostSoManyPairs) {
  const auto withPairs = [](std::size_t count) {
    return documentBlock("k", test::Metadata(count, {"", ""}), "x");
  };
  EXPECT_EQ(parseDocumentBlock(withPairs(kMaxMetadata)).document.metadata.size(), kMaxMetadata);
  EXPECT_THAT(refusal(withPairs(kMaxMetadata + 1)), HasSubstr("more than 10000 pairs"));
  EXPECT_THAT(refusal(withPairs(kMaxMetadata + 2)), HasSubstr("more than 10000 pairs"));
  EXPECT_THAT(refusal(documentBlock("k", test::Metadata(kMaxMetadata + 1, {"", ""}), "")),
              HasSubstr("more than 10000 pairs"));
}

TEST(DocumentBlock, LengthsBeyondTheBlockAreRefused) {
  for (const std::uint32_t length : {5U, 0x3FFFFFFFU, 0x7FFFFFFFU, 0x80000005U, 0xFFFFFFFFU}) {
    EXPECT_THAT(refusal(block(bigEndian(length, 4) + "abcd")), HasSubstr("longer than the rest"))
        << length;
  }
  EXPECT_THAT(refusal(bigEndian(0, 4) + bigEndian(0xFFFFFFFF, 4) + "abcd"),
              HasSubstr("announces 4294967295 bytes"));
}

TEST(DocumentBlock, BlockThatDoesNotEndWithAKeyIsRefused) {
  EXPECT_THAT(refusal(block(lengthAnd("a") + lengthAnd("b"))),
              HasSubstr("does not end with a key"));
  EXPECT_THAT(refusal(block(lengthAnd("data") + lengthAnd("b"))),
              HasSubstr("does not end with a key"));
  EXPECT_THAT(refusal(block(lengthAnd("rowId"))), HasSubstr("has no value"));
}

std::string refusalOfBlocks(const std::string& bytes) {
  try {
    parseDocumentBlocks(bytes);
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::BadDocument);
    return error.what();
  }
  return "taken";
}

TEST(DocumentBlocks, StandBackToBack) {
  const std::vector<Document> documents =
      parseDocumentBlocks(documentBlock("k", {{"a", "b"}}, "text") + documentBlock("l", {}, "") +
                          documentBlock("m", {}, "more"));
  ASSERT_EQ(documents.size(), 3U);
  EXPECT_EQ(documents[0].key, "k");
  EXPECT_THAT(documents[0].metadata, ElementsAre(Pair("a", "b")));
  EXPECT_EQ(documents[0].content, "text");
  EXPECT_EQ(documents[1].key, "l");
  EXPECT_EQ(documents[1].content, "");
  EXPECT_EQ(documents[2].content, "more");
  EXPECT_TRUE(parseDocumentBlocks("").empty());
}

TEST(DocumentBlocks, EachLengthThatCutsTheLastOneIsRefusedByItsNumber) {
  const std::string first = documentBlock("k", {{"a", "b"}}, "text");
  const std::string both = first + documentBlock("l", {{"a", "b"}}, "text");
  for (std::size_t length = first.size() + 1; length < both.size(); ++length) {
    EXPECT_THAT(refusalOfBlocks(both.substr(0, length)), HasSubstr("document 2: "));
  }
}

TEST(DocumentBlocks, RefuseWhatIsNoDocument) {
  const std::string one = documentBlock("k", {}, "");
  EXPECT_THAT(refusalOfBlocks(test::terminateRecord() + one), HasSubstr("document 1: it has no"));
  EXPECT_THAT(refusalOfBlocks(one + documentBlock("", {}, "")), HasSubstr("document 2: "));
  EXPECT_THAT(refusalOfBlocks(one + documentBlock("l", {}, "") + one),
              HasSubstr("document 3: an earlier one has the same key"));
}

}  // namespace
}  // namespace corvaned
