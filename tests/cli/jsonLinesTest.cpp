#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "cli/errors.h"
#include "cli/jsonLines.h"
#include "cli/text.h"

using namespace corvane;

namespace {

using Item = std::variant<Document, Refusal>;

std::vector<Item> readAll(const std::string& input, std::size_t maxLineBytes = 1 << 20) {
  std::istringstream stream(input);
  DocumentReader reader(stream, maxLineBytes);
  std::vector<Item> items;
  while (auto item = reader.next()) items.push_back(std::move(*item));
  return items;
}

Item readOne(const std::string& input) {
  auto items = readAll(input);
  EXPECT_EQ(items.size(), 1U);
  return items.empty() ? Item{} : items.front();
}

Document document(const std::string& input) {
  auto item = readOne(input);
  EXPECT_TRUE(std::holds_alternative<Document>(item)) << input;
  return std::holds_alternative<Document>(item) ? std::get<Document>(item) : Document{};
}

std::string reason(const std::string& input) {
  auto item = readOne(input);
  return std::holds_alternative<Refusal>(item) ? std::get<Refusal>(item).reason : "accepted";
}

TEST(DocumentReader, TakesKeyAndTextAndMakesOtherFieldsMetadata) {
  const Document read =
      document(R"({"title":"T","key":"k1","text":"words","year":1851,"ok":true,"f":1.5})");
  EXPECT_EQ(read.key, "k1");
  EXPECT_EQ(read.text, "words");
  ASSERT_EQ(read.metadata.size(), 4U);
  std::string all;
  for (const auto& pair : read.metadata) all += toUtf8(pair.key) + "=" + toUtf8(pair.value) + ";";
  EXPECT_EQ(all, "title=T;year=1851;ok=true;f=1.5;");
}

TEST(DocumentReader, KeepsNestedFieldsAsJsonAndDropsNull) {
  const Document read = document(R"({"key":"k","text":"","a":[1,"x"],"o":{"b":null},"n":null})");
  ASSERT_EQ(read.metadata.size(), 2U);
  EXPECT_EQ(read.metadata.front().value, u"[1,\"x\"]");
  EXPECT_EQ(read.metadata.back().value, u"{\"b\":null}");
}

TEST(DocumentReader, KeepsEveryCharacterOfTheText) {
  const Document read = document(R"({"key":"k","text":"a\r\nb\u0000c\ud83d\ude00"})");
  EXPECT_EQ(read.text, std::string("a\r\nb\0c\xf0\x9f\x98\x80", 10));
}

TEST(DocumentReader, TakesTheDigitsOfAWholeNumberAsKey) {
  EXPECT_EQ(document(R"({"key":42,"text":""})").key, "42");
  EXPECT_EQ(document(R"({"key":-7,"text":""})").key, "-7");
}

TEST(DocumentReader, RefusesKeysThatNoDocumentCanHave) {
  EXPECT_EQ(reason(R"({"text":"x"})"), "the object has no \"key\"");
  EXPECT_EQ(reason(R"({"key":"","text":"x"})"), "the key is empty");
  EXPECT_EQ(reason(R"({"key":1.5,"text":"x"})"),
            "the \"key\" is neither a string nor a whole number");
  EXPECT_EQ(reason(R"({"key":null,"text":"x"})"),
            "the \"key\" is neither a string nor a whole number");
  EXPECT_EQ(reason(R"({"key":")" + std::string(129, 'k') + R"(","text":"x"})"),
            "the key has 129 bytes; a key has at most 128");
}

TEST(DocumentReader, RefusesDocumentsWithoutATextString) {
  EXPECT_EQ(reason(R"({"key":"k"})"), "the object has no \"text\"");
  EXPECT_EQ(reason(R"({"key":"k","text":3})"), "the \"text\" is not a string");
}

TEST(DocumentReader, NamesTheKeyOfADocumentThatItRefuses) {
  const auto item = readOne(R"({"key":"k9"})");
  ASSERT_TRUE(std::holds_alternative<Refusal>(item));
  EXPECT_EQ(std::get<Refusal>(item).key, "k9");
}

TEST(DocumentReader, RefusesWhatIsNoObject) {
  EXPECT_EQ(reason("[1]"), "the line is not a JSON object");
  EXPECT_EQ(reason("3"), "the line is not a JSON object");
  EXPECT_EQ(reason(R"({"key":"k")").rfind("not JSON: ", 0), 0U);
  EXPECT_EQ(reason("hello").rfind("not JSON: ", 0), 0U);
}

TEST(DocumentReader, RefusesIllFormedUtf8) {
  EXPECT_EQ(reason("{\"key\":\"k\",\"text\":\"\xff\"}").rfind("not JSON: ", 0), 0U);
}

TEST(DocumentReader, RefusesNestingThatWouldExhaustTheStack) {
  const std::string deep(200'000, '[');
  EXPECT_EQ(reason(R"({"key":"k","text":"","a":)" + deep), "the object is nested too deeply");
}

TEST(DocumentReader, GoesOnBehindEveryRefusalAndCountsLines) {
  const auto items =
      readAll("oops\n\n  \r\n{\"key\":\"a\",\"text\":\"\"}\n[]\n{\"key\":\"b\",\"text\":\"\"}");
  ASSERT_EQ(items.size(), 4U);
  EXPECT_EQ(std::get<Refusal>(items[0]).line, 1U);
  EXPECT_EQ(std::get<Document>(items[1]).line, 4U);
  EXPECT_EQ(std::get<Refusal>(items[2]).line, 5U);
  EXPECT_EQ(std::get<Document>(items[3]).key, "b");
  EXPECT_EQ(std::get<Document>(items[3]).line, 6U);
}

TEST(DocumentReader, TakesALineOfTheLimitAndPassesOverALongerOne) {
  const std::string line = R"({"key":"k","text":"x"})";
  const auto items = readAll(line + "\n" + line + " \n" + line + "\n", line.size());
  ASSERT_EQ(items.size(), 3U);
  EXPECT_TRUE(std::holds_alternative<Document>(items[0]));
  ASSERT_TRUE(std::holds_alternative<Refusal>(items[1]));
  EXPECT_EQ(std::get<Refusal>(items[1]).reason, "the line is longer than 22 bytes");
  EXPECT_TRUE(std::holds_alternative<Document>(items[2]));
}

TEST(DocumentReader, SaysWhyTheInputCannotBeReadAnyMore) {
  // As a file whose disk fails.
  struct FailingBuffer : std::stringbuf {
    using std::stringbuf::stringbuf;
    int_type underflow() override {
      const int_type c = std::stringbuf::underflow();
      if (c != traits_type::eof()) return c;
      throw std::ios_base::failure("read", std::make_error_code(std::errc::io_error));
    }
    int_type uflow() override {
      const int_type c = underflow();
      gbump(1);
      return c;
    }
  };
  FailingBuffer buffer(R"({"key":"a","text":"x"})"
                       "\n");
  std::istream input(&buffer);
  DocumentReader reader(input);
  EXPECT_TRUE(reader.next());
  try {
    reader.next();
    FAIL() << "the failure was taken for the end";
  } catch (const OperationError& failure) {
    EXPECT_EQ(std::string(failure.what()), "cannot read the input after line 1: " +
                                               std::make_error_code(std::errc::io_error).message());
  }
}

TEST(DocumentReader, FindsNothingInAnEmptyInput) {
  EXPECT_TRUE(readAll("").empty());
  EXPECT_TRUE(readAll("\n\n\r\n").empty());
}

}  // namespace
