// Parse results are kept as the bytes of their records. Whatever arrives, they are those that
// decoding record by record gives, and so is every other thing that a caller sees.

#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfResponse.h"
#include "comm/kruParseFiller.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTResponse.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/util/kruExtendedProperties.h"
#include "tests/comm/kruCommText.h"
#include "tests/support/recordByRecord.h"

namespace tq::comm {
namespace {

using test::utf8;
using tq::test::RecordByRecord;

std::string seen(const tq::oss::Message& message) {
  return utf8(message.getMessageId()) + '/' + utf8(message.getMessageText()) + '/' +
         std::to_string(message.getLevel()) + '/' + std::to_string(message.getArguments().size());
}

std::string seen(const ParseResult& result) {
  return utf8(result.getDocument()) + (result.hasMessage() ? " with " : " without ") +
         seen(result.getMessage()) + (result.getProperties() != nullptr ? " properties" : "");
}

/// Copies are made of the result before and after its own texts were.
std::string seenInTurns(const ParseResult& result) {
  // NOLINTBEGIN(performance-unnecessary-copy-initialization): copying is what is tested
  const ParseResult before(result);
  ParseResult assigned(false);
  assigned = before;
  const std::string own = seen(result);
  const ParseResult after(result);
  // NOLINTEND(performance-unnecessary-copy-initialization)
  return own + " | " + seen(before) + " | " + seen(assigned) + " | " + seen(after);
}

using Feed = std::function<int(const std::string& portion, ClientResponse&, bool& done)>;

std::string transcriptOf(const std::vector<std::string>& portions, bool emptied, const Feed& feed) {
  ClientResponse response;
  std::string text;
  for (const std::string& portion : portions) {
    bool done = false;
    response.resetResultCount();
    if (emptied) response.getParseResponse().init();
    try {
      text += "left " + std::to_string(feed(portion, response, done));
    } catch (const tq::oss::BaseException& e) {
      text += seen(e.getMessageList().front());
    }
    text += " done " + std::to_string(done);
    text += " count " + std::to_string(response.getResultCount()) + '\n';
    auto& results = response.getParseResponse();
    while (results.hasMore()) text += seenInTurns(results.getNext()) + '\n';
  }
  return text;
}

/// One form of the records: how a record and a portion of them are written and read.
struct Form {
  const char* name;
  std::string (*record)(const test::Fields&);
  std::string (*framed)(const std::string&);
  std::string end;
  Feed feed;
};

void PrintTo(const Form& form, std::ostream* out) { *out << form.name; }

int feedHttp(const std::string& portion, ClientResponse& response, bool& done) {
  RESTResponse parser(ClientRequest::PARSE_RESULT, true);
  parser.setMaxReplyBytes(3000);
  // In memory of exactly its size, so that a sanitizer sees a read beyond the end.
  const std::vector<char> exact(portion.begin(), portion.end());
  return parser.parseParseResultResponse(exact.data(), static_cast<int>(exact.size()), response,
                                         done);
}

int feedBinary(const std::string& portion, ClientResponse& response, bool& done) {
  DrestoPerfResponse parser(ClientRequest::PARSE_RESULT, true);
  parser.setMaxReplyBytes(3000);
  const std::vector<char> exact(portion.begin(), portion.end());
  return parser.parseParseResultResponse(exact.data(), static_cast<int>(exact.size()), response,
                                         done);
}

std::string framedWide(const std::string& record) {
  return test::word32(static_cast<std::uint32_t>(record.size())) + record;
}

std::string framedNarrow(const std::string& record) {
  return test::word16(1) + test::word16(static_cast<std::uint16_t>(record.size())) + record;
}

const Form kForms[] = {
    {"http", test::record32, framedWide, test::word32(0), feedHttp},
    {"binary", test::record16, framedNarrow, test::word16(1) + test::word16(0), feedBinary}};

class ParseFillers : public testing::TestWithParam<Form> {};

std::string randomRecord(std::mt19937& random, const Form& form) {
  static const std::string kNames[] = {"Doc",   "MsgId", "MsgText", "Doc",
                                       "MsgId", "Other", "",        std::string("Doc\0x", 5)};
  static const std::string kTexts[] = {"base64:AAECAwQFBgcICQoLDA0ODw==",
                                       "ZVK2007W",
                                       "ZVK1I",
                                       "A text of some length, which says what was wrong.",
                                       "",
                                       std::string("cut\0here", 8),
                                       "\xC3\xBC\xFF",
                                       std::string(400, 'x')};
  static const std::vector<std::size_t> kShapes[] = {{0}, {0}, {0, 1, 2}, {0, 1, 2}, {2, 1, 0}};
  test::Fields fields;
  const auto add = [&](std::size_t name) {
    fields.emplace_back(kNames[name], kTexts[random() % std::size(kTexts)]);
  };
  if (random() % 5 != 0) {
    for (const std::size_t name : kShapes[random() % std::size(kShapes)]) add(name);
  } else {
    for (std::size_t left = random() % 5; left > 0; --left) add(random() % std::size(kNames));
  }
  std::string record = form.record(fields);
  if (!record.empty() && random() % 25 == 0) record[random() % record.size()] ^= 0x10;
  if (random() % 25 == 0) record.resize(random() % (record.size() + 1));
  return record;
}

std::string randomPortion(std::mt19937& random, const Form& form) {
  std::string portion;
  for (std::size_t left = random() % 12; left > 0; --left) {
    portion += form.framed(randomRecord(random, form));
  }
  if (random() % 3 == 0) portion += form.end;
  if (random() % 4 == 0) portion.resize(random() % (portion.size() + 1));
  return portion;
}

TEST_P(ParseFillers, MakeTheResultsOfAnyRecordsAsTheCodecDoes) {
  const Form& form = GetParam();
  for (unsigned int seed = 0; seed < 4000; ++seed) {
    std::mt19937 random(seed);
    std::vector<std::string> portions(1 + random() % 4);
    for (std::string& portion : portions) portion = randomPortion(random, form);
    const bool emptied = random() % 2 != 0;
    const std::string filled = transcriptOf(portions, emptied, form.feed);
    const RecordByRecord slowly;
    ASSERT_EQ(transcriptOf(portions, emptied, form.feed), filled) << seed;
  }
}

TEST_P(ParseFillers, ACopyOutlivesTheListAndTheListTheNextPortion) {
  const Form& form = GetParam();
  std::unique_ptr<ParseResult> copy;
  std::unique_ptr<ParseResponse> list;
  {
    ClientResponse response;
    bool done = false;
    const std::string record =
        form.record({{"Doc", "first"}, {"MsgId", "ZVK1W"}, {"MsgText", "text"}});
    form.feed(form.framed(record), response, done);
    copy = std::make_unique<ParseResult>(response.getParseResponse().getNext());
    list = std::make_unique<ParseResponse>(response.getParseResponse());
    response.getParseResponse().init();
    form.feed(form.framed(form.record({{"Doc", "second"}})), response, done);
    EXPECT_EQ("second without //2/0", seen(response.getParseResponse().getNext()));
  }
  EXPECT_EQ("first with ZVK1W/text/4/0", seen(*copy));
  EXPECT_EQ("first with ZVK1W/text/4/0", seen(list->getNext()));
}

TEST_P(ParseFillers, TextsStayWhereTheyAreWhileOtherResultsAreAdded) {
  const Form& form = GetParam();
  ClientResponse response;
  bool done = false;
  const std::string record = form.framed(form.record({{"Doc", "first"}}));
  form.feed(record, response, done);
  const ParseResult& first = response.getParseResponse().getNext();
  const icu::UnicodeString& document = first.getDocument();
  for (int i = 0; i < 1000; ++i) form.feed(record, response, done);
  EXPECT_EQ(&document, &first.getDocument());
  EXPECT_EQ("first", utf8(document));
}

TEST_P(ParseFillers, WhatACallerMadeOfAResultDoesNotReachTheNextPortion) {
  const Form& form = GetParam();
  ClientResponse response;
  bool done = false;
  form.feed(form.framed(form.record({{"Doc", "first"}})), response, done);
  ParseResult& changed = response.getParseResponse().getNext();
  changed.init(true);
  changed.getProperties()->putProperty(u"Doc", u"of the caller");
  changed.reset();
  EXPECT_EQ("of the caller without //2/0 properties", seen(changed));
  response.getParseResponse().init();
  form.feed(form.framed(form.record({{"Doc", "second"}})), response, done);
  EXPECT_EQ("second without //2/0", seen(response.getParseResponse().getNext()));
}

TEST_P(ParseFillers, OfARecordWithATextButNoIdHaveNoMessage) {
  const Form& form = GetParam();
  ClientResponse response;
  bool done = false;
  form.feed(form.framed(form.record({{"Doc", "first"}, {"MsgText", "text"}})), response, done);
  EXPECT_EQ("first without //2/0", seen(response.getParseResponse().getNext()));
}

INSTANTIATE_TEST_SUITE_P(Protocols, ParseFillers, testing::ValuesIn(kForms),
                         [](const auto& form) { return form.param.name; });

// Which records are read without the general way, which would hide that they are not.

std::string readOf(const std::string& record, fields::Form form) {
  ParseRow row;
  if (!row.read(record, form)) return "refused";
  return std::string(row.document) + '/' + std::string(row.messageId) + '/' +
         std::string(row.messageText);
}

TEST(ParseRow, IsReadFromADocumentAndAMessageThatHasAText) {
  const std::pair<test::Fields, std::string> cases[] = {
      {{{"Doc", "d"}}, "d//"},
      {{{"Doc", ""}}, "//"},
      {{{"Doc", "d"}, {"MsgId", "i"}, {"MsgText", "t"}}, "d/i/t"},
      {{{"MsgText", "t"}, {"MsgId", "i"}, {"Doc", "d"}}, "d/i/t"},
      {{{"Doc", "d"}, {"MsgId", "i"}, {"MsgText", ""}}, "d/i/"},
      {{{"Doc", "d"}, {"MsgText", "t"}}, "d//t"},
      {{{"Doc", "d"}, {"MsgId", ""}}, "d//"},
      {{{"Doc", "d"}, {"Doc", "e"}}, "e//"},
      {{{"Doc", std::string("d\0e", 3)}, {"MsgId", std::string("\0i", 2)}}, "d//"},
      {{{"Doc", "d"}, {"MsgId", "i"}}, "refused"},
      {{{"MsgId", "i"}, {"MsgText", "t"}}, "refused"},
      {{{"Doc", "d"}, {"LANG", "de"}}, "refused"},
      {{{"doc", "d"}}, "refused"},
      {{}, "refused"},
  };
  for (const auto& [record, read] : cases) {
    EXPECT_EQ(readOf(test::record32(record), fields::Form::Wide), read);
    EXPECT_EQ(readOf(test::record16(record), fields::Form::Narrow), read);
  }
}

TEST(ParseRow, IsNotReadFromAPartOfItsRecord) {
  const std::size_t document = test::record32({{"Doc", "d"}}).size();
  const std::string whole = test::record32({{"Doc", "d"}, {"MsgText", "t"}});
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(readOf(whole.substr(0, length), fields::Form::Wide),
              length == document ? "d//" : "refused")
        << length;
  }
}

}  // namespace
}  // namespace tq::comm
