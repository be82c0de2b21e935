#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/front/dispatcher.h"
#include "server/front/documentBlock.h"
#include "server/front/documentText.h"
#include "tests/server/front/mockStore.h"
#include "tests/server/logLines.h"
#include "tests/server/requestBytes.h"

namespace corvaned {
namespace {

using test::documentBlock;
using test::MockStore;
using ::testing::_;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Return;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::StrictMock;
using ::testing::Throw;

class DispatcherTest : public ::testing::Test {
 protected:
  Reply handle(const test::Headers& headers, const std::string& content = {}) {
    Request request;
    request.headers.insert(headers.begin(), headers.end());
    request.content = content;
    return dispatcher_.handle(std::move(request));
  }

  // The error that a request gets, "none" when it is served.
  std::string error(const test::Headers& headers, const std::string& content = {}) {
    const Reply reply = handle(headers, content);
    const auto* refused = std::get_if<ErrorReply>(&reply);
    return refused ? refused->id + " " + refused->text : "none";
  }

  template <typename Expected>
  static void expectIs(const Reply& reply) {
    EXPECT_TRUE(std::holds_alternative<Expected>(reply)) << reply.index();
  }

  StrictMock<MockStore> store_;
  Dispatcher dispatcher_{store_, "9.8.7"};
};

const std::string kBlock = documentBlock("k", {{"a", "b"}}, "text");

auto isTheDocument() {
  return AllOf(
      Field(&Document::key, "k"), Field(&Document::content, "text"),
      Field(&Document::metadata, ElementsAre(std::pair<std::string, std::string>("a", "b"))));
}

TEST_F(DispatcherTest, CollectionActionsReachTheStore) {
  EXPECT_CALL(store_, createCollection("c", "en_us", Refresh{}, TextOptions{}));
  expectIs<DoneReply>(handle({{"action", "createCollection"}, {"index", "c"}}));
  EXPECT_CALL(store_, createCollection("c", "de", Refresh{}, TextOptions{}));
  expectIs<DoneReply>(handle({{"action", "createCollection"}, {"index", "c"}, {"docLang", "de"}}));
  EXPECT_CALL(store_, openCollection("c"));
  expectIs<DoneReply>(handle({{"action", "openCollection"}, {"index", "c"}}));
  EXPECT_CALL(store_, closeCollection("c"));
  expectIs<DoneReply>(handle({{"action", "closeCollection"}, {"index", "c"}}));
  EXPECT_CALL(store_, deleteCollection("c"));
  expectIs<DoneReply>(handle({{"action", "deleteCollection"}, {"index", "c"}}));
  EXPECT_CALL(store_, updateIndex("c"));
  expectIs<DoneReply>(handle({{"action", "updateIndex"}, {"index", "c"}}));
}

TEST_F(DispatcherTest, RefreshIsPassedOnAndRefusedByNameIfItIsNone) {
  const auto create = [](const std::string& refresh) {
    return test::Headers{{"action", "createCollection"}, {"index", "c"}, {"refresh", refresh}};
  };
  const Refresh immediate{Refresh::Mode::Immediate, {}};
  EXPECT_CALL(store_, createCollection("c", "en_us", immediate, TextOptions{}));
  expectIs<DoneReply>(handle(create("immediate")));
  const Refresh interval{Refresh::Mode::Interval, std::chrono::milliseconds(250)};
  EXPECT_CALL(store_, createCollection("c", "en_us", interval, TextOptions{}));
  expectIs<DoneReply>(handle(create("250")));
  EXPECT_CALL(store_, createCollection("c", "en_us", Refresh{}, TextOptions{})).Times(2);
  expectIs<DoneReply>(handle(create("manual")));
  expectIs<DoneReply>(handle(create("")));
  EXPECT_THAT(error(create("sometimes")),
              AllOf(HasSubstr("ZVK0006E"), HasSubstr("\"refresh\" is \"sometimes\"")));
}

TEST_F(DispatcherTest, TextOptionsArePassedOn) {
  const TextOptions options{false, false, false, true, {"the", "a", "of"}};
  EXPECT_CALL(store_, createCollection("c", "en_us", Refresh{}, options));
  expectIs<DoneReply>(handle({{"action", "createCollection"},
                              {"index", "c"},
                              {"storeText", "false"},
                              {"storePositions", "false"},
                              {"stemming", "false"},
                              {"searchableMetadata", "marked"},
                              {"stopWords", " the,a , of,"}}));
}

TEST_F(DispatcherTest, LanguageThatIsNoneIsRefused) {
  for (const std::string& language :
       {std::string("englsh"), std::string("en refresh=immediate"), std::string("../../etc"),
        std::string("_US"), std::string("xx"), std::string("d\xC3\xA9"), std::string(60000, 'e')}) {
    for (const char* action : {"createCollection", "addDocument"}) {
      EXPECT_THAT(error({{"action", action}, {"index", "c"}, {"docLang", language}},
                        documentBlock("k", {}, "text")),
                  AllOf(StartsWith("ZVK0006E"), HasSubstr("\"docLang\"")))
          << language.substr(0, 50);
    }
  }
}

TEST_F(DispatcherTest, FormOfADocumentGoesWithIt) {
  const auto isOfForm = [](const DocumentForm& form) {
    return Field(&Document::metadata,
                 ::testing::ResultOf([](const Metadata& all) { return formNotedIn(all); }, form));
  };
  const std::string block = documentBlock("k", {}, "<a/>");
  test::Headers add{{"action", "addDocument"}, {"index", "c"}, {"docLang", "de"}};
  const std::vector<std::tuple<const char*, const char*, TextType>> cases{
      {"docType", "html", TextType::Html},
      {"KnownContentType", "xml", TextType::Xml},
      {"mimeType", "text/html", TextType::Html},
      {"mimeType", "text/xml", TextType::Xml},
      {"mimeType", "application/xml", TextType::Xml},
      {"docType", "text", TextType::Plain},
      {"docType", "ContentTypeNotDefined", TextType::Plain}};
  for (const auto& [name, value, type] : cases) {
    test::Headers headers = add;
    headers[name] = value;
    EXPECT_CALL(store_, addDocument("c", isOfForm({type, "de"}))).RetiresOnSaturation();
    expectIs<DoneReply>(handle(headers, block));
  }
  add["docType"] = "xml";
  add["mimeType"] = "text/html";
  EXPECT_THAT(error(add, block), AllOf(HasSubstr("ZVK0006E"), HasSubstr("\"mimeType\"")));
}

TEST_F(DispatcherTest, XmlThatCannotBeReadIsRefusedWithItsPlace) {
  test::Headers add{{"action", "addDocument"}, {"index", "c"}, {"docType", "xml"}};
  const std::string block = documentBlock("k", {}, "<a>\n<b></a>");
  EXPECT_THAT(error(add, block), AllOf(HasSubstr("ZVK0012E"), HasSubstr("line 2")));
  add["action"] = "asyncAddDocument";
  EXPECT_CALL(store_, reportOutcome("c",
                                    AllOf(Field(&ParseOutcome::key, "k"),
                                          Field(&ParseOutcome::messageId, "ZVK0012E")),
                                    ""));
  expectIs<NoReply>(handle(add, block));
}

TEST_F(DispatcherTest, ConfigurationReplacesAllDefaultsOfDocuments) {
  const auto configure = [&](test::Headers headers) {
    headers.insert({{"action", "setConstructorConfiguration"}, {"index", "c"}});
    return error(headers);
  };
  const auto expect = [&](const DocumentReading& defaults) {
    EXPECT_CALL(store_, setDocumentDefaults("c", defaults)).RetiresOnSaturation();
  };
  expect({{TextType::Html, "de"}, "windows-1252"});
  EXPECT_EQ(configure({{"docType", "html"}, {"docLang", "de"}, {"charset", "windows-1252"}}),
            "none");
  expect({{TextType::Xml, ""}, ""});
  EXPECT_EQ(configure({{"mimeType", "application/xml"}}), "none");
  expect({{TextType::Xml, ""}, "UTF-16"});
  EXPECT_EQ(configure({{"KnownContentType", "xml"}, {"KnownCharset", "UTF-16"}}), "none");
  // As the same charset is called where no blanks may be.
  expect({{TextType::Plain, ""}, "ISO8859-1"});
  EXPECT_EQ(configure({{"charset", "ISO 8859-1"}}), "none");
  expect({});
  EXPECT_EQ(configure({}), "none");
  expect({});
  EXPECT_EQ(configure({{"docType", "ContentTypeNotDefined"}}), "none");
  EXPECT_THAT(configure({{"docType", "text"}, {"mimeType", "text/html"}}), StartsWith("ZVK0006E"));
  EXPECT_THAT(configure({{"charset", "klingon"}}), StartsWith("ZVK0006E"));
  EXPECT_THAT(error({{"action", "setConstructorConfiguration"}}), StartsWith("ZVK0005E"));
}

struct DefaultsCase {
  test::Headers said;
  DocumentReading effective;
};

TEST_F(DispatcherTest, EachDefaultCountsWhereTheRequestDoesNotSayIt) {
  store_.defaults = {{TextType::Html, "de"}, "ISO-8859-1"};
  // What a document declares counts behind both.
  const std::string content = "<meta charset=windows-1251>\xE9";
  const std::vector<DefaultsCase> cases{
      {{}, {{TextType::Html, "de"}, "ISO-8859-1"}},
      {{{"docType", "ContentTypeNotDefined"}}, {{TextType::Html, "de"}, "ISO-8859-1"}},
      {{{"docType", "text"}}, {{TextType::Plain, "de"}, "ISO-8859-1"}},
      {{{"mimeType", "text/plain"}}, {{TextType::Plain, "de"}, "ISO-8859-1"}},
      {{{"charset", "windows-1253"}}, {{TextType::Html, "de"}, "windows-1253"}},
      {{{"docLang", "fr"}}, {{TextType::Html, "fr"}, "ISO-8859-1"}},
      {{{"docType", "text"}, {"KnownCharset", "KOI8-R"}, {"docLang", "fr"}},
       {{TextType::Plain, "fr"}, "KOI8-R"}}};
  for (const DefaultsCase& each : cases) {
    Document expected{"k", {}, content};
    prepare(expected, each.effective);
    const auto isExpected = AllOf(Field(&Document::content, expected.content),
                                  Field(&Document::metadata, expected.metadata));
    test::Headers headers = each.said;
    headers["index"] = "c";
    const std::string block = documentBlock("k", {}, content);
    headers["action"] = "addDocument";
    EXPECT_CALL(store_, addDocument("c", isExpected)).RetiresOnSaturation();
    EXPECT_EQ(error(headers, block), "none");
    headers["action"] = "asyncAddDocument";
    EXPECT_CALL(store_, queueDocument("c", isExpected, "")).RetiresOnSaturation();
    expectIs<NoReply>(handle(headers, block));
    headers["action"] = "addDocument";
    headers["batch"] = "b";
    EXPECT_CALL(store_, apply("c", _)).WillOnce([&](const std::string&, const Batch& batch) {
      EXPECT_THAT(batch.changes.documents, ElementsAre(isExpected));
      return BatchOutcome{};
    });
    EXPECT_EQ(error(headers, documentBlock("any", {}, block)), "none");
    headers.erase("batch");
    headers.insert({{"action", "search"}, {"query", "fox"}, {"match", "document"}});
    headers["action"] = "search";
    EXPECT_CALL(store_, match("c", _, ElementsAre(isExpected)))
        .WillOnce(
            [](const auto&, const auto&, const auto&) { return std::make_unique<test::NoHits>(); });
    EXPECT_EQ(error(headers, block), "none");
  }
}

TEST_F(DispatcherTest, CollectionMayBeNamedByItsDisplayName) {
  EXPECT_CALL(store_, openCollection("c"));
  expectIs<DoneReply>(handle({{"action", "openCollection"}, {"collectionName", "c"}}));
  EXPECT_CALL(store_, openCollection("c"));
  expectIs<DoneReply>(
      handle({{"action", "openCollection"}, {"index", "c"}, {"collectionName", "c"}}));
}

TEST_F(DispatcherTest, TwoNamesOfACollectionAreNotChosenFrom) {
  EXPECT_THAT(error({{"action", "openCollection"}, {"index", "c"}, {"collectionName", "d"}}),
              AllOf(HasSubstr("ZVK0006E"), HasSubstr("\"c\" and \"d\"")));
}

TEST_F(DispatcherTest, DocumentActionsDecodeTheBlock) {
  EXPECT_CALL(store_, addDocument("c", isTheDocument()));
  expectIs<DoneReply>(handle({{"action", "addDocument"}, {"index", "c"}}, kBlock));
  EXPECT_CALL(store_, deleteDocument("c", "k", false));
  expectIs<DoneReply>(handle({{"action", "deleteDocument"}, {"index", "c"}}, kBlock));
  EXPECT_CALL(store_, queueDocument("c", isTheDocument(), ""));
  expectIs<NoReply>(handle({{"action", "asyncAddDocument"}, {"index", "c"}}, kBlock));
}

TEST_F(DispatcherTest, ContentIsConvertedFromItsCharset) {
  const test::Headers add{{"action", "addDocument"}, {"index", "c"}, {"charset", "ISO-8859-1"}};
  EXPECT_CALL(store_, addDocument("c", Field(&Document::content, "caf\u00e9")));
  expectIs<DoneReply>(handle(add, documentBlock("k", {{"a", "\u00e9"}}, "caf\xE9")));
  const test::Headers queue{
      {"action", "asyncAddDocument"}, {"index", "c"}, {"KnownCharset", "utf-16be"}};
  EXPECT_CALL(store_, queueDocument("c", Field(&Document::content, "\u5168x"), ""));
  expectIs<NoReply>(handle(queue, documentBlock("k", {{"a", "b"}}, std::string("\x51\x68\0x", 4))));
}

TEST_F(DispatcherTest, ContentThatIsNoTextInItsCharsetIsRefused) {
  const test::Headers add{{"action", "addDocument"}, {"index", "c"}, {"charset", "Shift_JIS"}};
  EXPECT_THAT(error(add, documentBlock("k", {{"a", "b"}}, "fox \x81")),
              AllOf(HasSubstr("ZVK0012E"), HasSubstr("Shift_JIS")));
}

TEST_F(DispatcherTest, TwoCharsetsAreNotChosenFrom) {
  EXPECT_THAT(error({{"action", "addDocument"},
                     {"index", "c"},
                     {"charset", "ISO-8859-1"},
                     {"KnownCharset", "UTF-8"}},
                    kBlock),
              AllOf(HasSubstr("ZVK0006E"), HasSubstr("\"KnownCharset\""), HasSubstr("8859")));
}

// Such names must not reach the file system either.
TEST_F(DispatcherTest, CharsetThatIsNoNameOfOneIsRefused) {
  for (const char* charset : {"klingon", "../../etc/passwd", "UTF-8,swaplfnl", "utf-8/../x", "*"}) {
    EXPECT_THAT(error({{"action", "addDocument"}, {"index", "c"}, {"charset", charset}}, kBlock),
                AllOf(HasSubstr("ZVK0006E"), HasSubstr("\"charset\"")));
  }
}

TEST_F(DispatcherTest, DocumentThatCannotBeReadIsRefused) {
  for (const char* action : {"addDocument", "deleteDocument"}) {
    EXPECT_THAT(error({{"action", action}, {"index", "c"}}), HasSubstr("ZVK0012E"));
    EXPECT_THAT(error({{"action", action}, {"index", "c"}}, "garbage"), HasSubstr("ZVK0012E"));
    EXPECT_THAT(error({{"action", action}, {"index", "c"}}, test::terminateRecord()),
                HasSubstr("end-of-documents"));
  }
}

TEST_F(DispatcherTest, LastDocumentRecordIsTakenWithoutAReply) {
  expectIs<NoReply>(
      handle({{"action", "asyncAddDocument"}, {"index", "c"}}, test::terminateRecord()));
}

TEST_F(DispatcherTest, QueuedDocumentThatIsRefusedIsToldAmongTheParseResults) {
  EXPECT_CALL(store_, queueDocument("c", _, ""))
      .WillOnce(Throw(ServerError(ErrorKind::DocumentTooLarge, "too large")));
  EXPECT_CALL(store_, reportOutcome("c",
                                    AllOf(Field(&ParseOutcome::key, "k"),
                                          Field(&ParseOutcome::messageId, "ZVK0013E"),
                                          Field(&ParseOutcome::messageText, "too large")),
                                    ""));
  expectIs<NoReply>(handle({{"action", "asyncAddDocument"}, {"index", "c"}}, kBlock));
  EXPECT_CALL(store_, reportOutcome("c", Field(&ParseOutcome::messageId, "ZVK0012E"), ""));
  expectIs<NoReply>(handle({{"action", "asyncAddDocument"}, {"index", "c"}}, "garbage"));
}

TEST_F(DispatcherTest, QueuedDocumentThatIsRefusedIsToldToTheOperator) {
  const test::LogLines log;
  EXPECT_CALL(store_, queueDocument("c", _, ""))
      .WillOnce(Return())
      .WillOnce(Throw(ServerError(ErrorKind::StorageFailed, "the disk is full")))
      .WillOnce(Throw(ServerError(ErrorKind::DocumentTooLarge, "too large")));
  EXPECT_CALL(store_, reportOutcome("c", _, "")).Times(2);
  for (int i = 0; i < 3; ++i) {
    expectIs<NoReply>(handle({{"action", "asyncAddDocument"}, {"index", "c"}}, kBlock));
  }
  EXPECT_THAT(log.with("asyncAddDocument"),
              ElementsAre(AllOf(StartsWith("error failure: "), HasSubstr("error=ZVK0014E"),
                                HasSubstr("collection=\"c\""), HasSubstr("the disk is full")),
                          AllOf(StartsWith("warning refused: "), HasSubstr("error=ZVK0013E"))));
  const std::string metrics = dispatcher_.metrics().text();
  for (const char* error : {"", "ZVK0013E", "ZVK0014E"}) {
    EXPECT_THAT(metrics, HasSubstr("corvaned_requests_total{action=\"asyncAddDocument\",error=\"" +
                                   std::string(error) + "\"} 1\n"));
  }
}

// Each of them names another collection, so that no line is as one before.
TEST_F(DispatcherTest, RefusalsWithoutAReplyDoNotFillTheLogWhateverTheyName) {
  const test::LogLines log;
  for (int i = 0; i < 100; ++i) {
    const std::string name = "c" + std::to_string(i);
    const ServerError unknown(ErrorKind::UnknownCollection, "no collection " + name);
    EXPECT_CALL(store_, queueDocument(name, _, "")).WillOnce(Throw(unknown));
    expectIs<NoReply>(handle({{"action", "asyncAddDocument"}, {"index", name}}, kBlock));
  }
  EXPECT_THAT(log.with("refused: "), ElementsAre(AllOf(StartsWith("warning "), HasSubstr("c0"))));
}

TEST_F(DispatcherTest, WhatAClientSendsAddsNoFieldsToALineOfTheLog) {
  const test::LogLines log;
  const std::string name = R"(a" error=ZVK0014E reason="\)";
  const ServerError unknown(ErrorKind::UnknownCollection, "there is no collection " + shown(name));
  EXPECT_CALL(store_, queueDocument(name, _, "")).WillOnce(Throw(unknown));
  expectIs<NoReply>(handle({{"action", "asyncAddDocument"}, {"index", name}}, kBlock));
  dispatcher_.logFailure(name, name);
  ASSERT_THAT(log.with("refused: "), SizeIs(1));
  const std::map<std::string, std::string> refused{{"action", "asyncAddDocument"},
                                                   {"collection", name},
                                                   {"error", "ZVK0007E"},
                                                   {"reason", unknown.what()}};
  EXPECT_EQ(test::fieldsOf(log.with("refused: ").front()), refused);
  ASSERT_THAT(log.with("failure: "), SizeIs(1));
  const std::map<std::string, std::string> failure{{"action", name}, {"reason", name}};
  EXPECT_EQ(test::fieldsOf(log.with("failure: ").front()), failure);
}

TEST_F(DispatcherTest, StrangersWriteNothingIntoTheLog) {
  const test::LogLines log;
  const auto queueRefused = [&](ErrorKind kind) {
    Request request;
    request.headers = {{"action", "asyncAddDocument"}, {"index", "c"}};
    request.refusal = ServerError(kind, "refused");
    expectIs<NoReply>(dispatcher_.handle(std::move(request)));
  };
  queueRefused(ErrorKind::Unauthorized);
  EXPECT_THAT(log.with("refused: "), IsEmpty());
  EXPECT_THAT(dispatcher_.metrics().text(), HasSubstr("error=\"ZVK0022E\"} 1\n"));
  queueRefused(ErrorKind::Forbidden);
  EXPECT_THAT(log.with("refused: "), SizeIs(1));
}

// A worker serves several that write and are not awaited, one after the other.
TEST_F(DispatcherTest, RequestIsTimedFromItsArrivalUnlessItFollowsOthersOfItsRow) {
  const auto beganOf = [&](const test::Headers& headers) {
    Request request;
    request.headers.insert(headers.begin(), headers.end());
    request.content = kBlock;
    return dispatcher_.begin(std::move(request)).began;
  };
  EXPECT_CALL(store_, addDocument("c", _)).Times(2);
  EXPECT_CALL(store_, summary("c"));
  const test::Headers add{{"action", "addDocument"}, {"index", "c"}};
  const test::Headers report{
      {"action", "getParseResult"}, {"index", "c"}, {"report", "collection"}};
  const auto context = std::make_shared<RequestContext>(RequestContext::Limits{});
  const RequestContext::Scope scope(*context);
  while (RequestContext::Clock::now() == context->began()) {
  }
  EXPECT_EQ(beganOf(add), context->began());
  EXPECT_GT(beganOf(add), context->began());
  EXPECT_EQ(beganOf(report), context->began());
}

TEST_F(DispatcherTest, RefusalForWantOfARightNamesTheRight) {
  const Identity reader("ada", {{Right::Read, "*"}});
  const auto refusal = [&](const test::Headers& headers) {
    Request request;
    request.headers.insert(headers.begin(), headers.end());
    try {
      Dispatcher::permit(request, reader);
    } catch (const ServerError& error) {
      return std::string(error.what());
    }
    return std::string("permitted");
  };
  EXPECT_THAT(refusal({{"action", "getParseResult"}, {"index", "c"}}),
              HasSubstr("on the collection \"c\", which takes the right write"));
  EXPECT_THAT(refusal({{"action", "deleteCollection"}, {"index", "c"}}),
              HasSubstr("takes the right admin"));
  EXPECT_THAT(refusal({{"action", "shutdown"}}), HasSubstr("the right admin to every collection"));
  EXPECT_EQ(refusal({{"action", "search"}, {"index", "c"}}), "permitted");
}

// A client with several documents under way has to know which one to send again.
TEST_F(DispatcherTest, QueuedDocumentIsToldByItsKeyWhateverIsWrongWithIt) {
  const std::string whole = documentBlock("k1", {{"a", "b"}}, "text");
  const std::vector<std::pair<std::string, std::string>> cases{
      {documentBlock(std::string(129, 'k'), {}, "text"), std::string(128, 'k')},
      {documentBlock("k2", Metadata(kMaxMetadata + 1), "text"), "k2"},
      {whole.substr(0, whole.size() - 1), "k1"},
      {whole + "x", "k1"},
      {whole.substr(0, whole.find("k1")), ""},
      {"garbage", ""},
  };
  for (const auto& [block, key] : cases) {
    EXPECT_CALL(store_, reportOutcome("c",
                                      AllOf(Field(&ParseOutcome::key, key),
                                            Field(&ParseOutcome::messageId, "ZVK0012E")),
                                      ""));
    expectIs<NoReply>(handle({{"action", "asyncAddDocument"}, {"index", "c"}}, block));
  }
}

TEST_F(DispatcherTest, OutcomesAreThoseOfTheClientThatIsNamed) {
  const test::Headers queue{{"action", "asyncAddDocument"}, {"index", "c"}, {"client", "ada"}};
  EXPECT_CALL(store_, queueDocument("c", isTheDocument(), "ada"));
  expectIs<NoReply>(handle(queue, kBlock));
  EXPECT_CALL(store_, reportOutcome("c", Field(&ParseOutcome::messageId, "ZVK0012E"), "ada"));
  expectIs<NoReply>(handle(queue, "garbage"));
  EXPECT_CALL(store_, takeParseOutcomes("c", "ada"));
  expectIs<OutcomesReply>(
      handle({{"action", "getParseResult"}, {"index", "c"}, {"client", "ada"}}));
}

TEST_F(DispatcherTest, NameOfAClientHasAtMost128Bytes) {
  const auto queueAs = [&](std::size_t size) {
    expectIs<NoReply>(
        handle({{"action", "asyncAddDocument"}, {"index", "c"}, {"client", std::string(size, 'a')}},
               kBlock));
  };
  EXPECT_CALL(store_, queueDocument("c", _, std::string(128, 'a')));
  queueAs(128);
  EXPECT_CALL(store_, reportOutcome("c",
                                    AllOf(Field(&ParseOutcome::key, "k"),
                                          Field(&ParseOutcome::messageId, "ZVK0006E")),
                                    ""));
  queueAs(129);
  EXPECT_THAT(
      error({{"action", "getParseResult"}, {"index", "c"}, {"client", std::string(129, 'a')}}),
      AllOf(HasSubstr("ZVK0006E"), HasSubstr("\"client\"")));
}

TEST_F(DispatcherTest, BatchesOutcomeIsNoClients) {
  EXPECT_THAT(
      error({{"action", "getParseResult"}, {"index", "c"}, {"client", "a"}, {"batch", "b"}}),
      AllOf(HasSubstr("ZVK0024E"), HasSubstr("\"client\""), HasSubstr("\"batch\"")));
}

TEST_F(DispatcherTest, NothingIsEverAnsweredToAQueuedDocument) {
  expectIs<NoReply>(handle({{"action", "asyncAddDocument"}}, kBlock));
  EXPECT_CALL(store_, queueDocument("c", _, ""))
      .WillOnce(Throw(ServerError(ErrorKind::UnknownCollection, "unknown")));
  expectIs<NoReply>(handle({{"action", "asyncAddDocument"}, {"index", "c"}}, kBlock));
  EXPECT_CALL(store_, queueDocument("c", _, "")).WillOnce(Throw(std::runtime_error("unexpected")));
  expectIs<NoReply>(handle({{"action", "asyncAddDocument"}, {"index", "c"}}, kBlock));
}

TEST_F(DispatcherTest, KeysOfASearchAreBase64WithCommas) {
  const test::Headers request{
      {"action", "search"}, {"index", "c"}, {"query", "fox"}, {"keys", "azE=,AP8="}};
  EXPECT_CALL(store_,
              search("c", Field(&SearchQuery::keys, ElementsAre("k1", std::string("\0\xFF", 2)))));
  handle(request);
  for (const char* bad : {",", "azE=,,azE=", "base64:azE=", "azE= ,azE="}) {
    test::Headers wrong = request;
    wrong["keys"] = bad;
    EXPECT_THAT(error(wrong), AllOf(HasSubstr("ZVK0006E"), HasSubstr("\"keys\""))) << bad;
  }
}

TEST_F(DispatcherTest, MatchedDocumentsHaveNoOtherKeysAndNoPages) {
  for (const auto& [name, value] : test::Headers{{"keys", "azE="}, {"searchAfter", "begin"}}) {
    EXPECT_THAT(
        error({{"action", "search"},
               {"index", "c"},
               {"query", "fox"},
               {name, value},
               {"match", "document"}}),
        AllOf(HasSubstr("ZVK0024E"), HasSubstr("\"" + name + "\""), HasSubstr("\"match\"")));
  }
}

TEST_F(DispatcherTest, SearchGoesOnFromAPlace) {
  const ResultPlace place{{1, 2, 3}, "query", 4, 0.5, "k"};
  SearchQuery seen;
  EXPECT_CALL(store_, search("c", _))
      .Times(3)
      .WillRepeatedly([&](const std::string&, const SearchQuery& query) {
        seen = query;
        return std::make_unique<test::NoHits>();
      });
  test::Headers request{{"action", "search"}, {"index", "c"}, {"query", "fox"}};
  handle(request);
  EXPECT_FALSE(seen.inPages);
  request["searchAfter"] = "begin";
  handle(request);
  EXPECT_TRUE(seen.inPages);
  EXPECT_FALSE(seen.from);
  request["searchAfter"] = textOf(place);
  handle(request);
  EXPECT_TRUE(seen.inPages);
  ASSERT_TRUE(seen.from);
  EXPECT_EQ(textOf(*seen.from), textOf(place));
}

TEST_F(DispatcherTest, SearchPassesItsParametersOn) {
  EXPECT_CALL(store_,
              search("c", AllOf(Field(&SearchQuery::text, "fox"), Field(&SearchQuery::start, 3U),
                                Field(&SearchQuery::size, 4U), Field(&SearchQuery::limit, 5U),
                                Field(&SearchQuery::scale, ScoreScale::Raw))))
      .WillOnce([] { return nullptr; });
  const Reply reply = handle({{"action", "search"},
                              {"index", "c"},
                              {"query", "fox"},
                              {"mode", "streaming"},
                              {"start", "3"},
                              {"size", "4"},
                              {"resultLimit", "5"},
                              {"scoreWanted", "true"},
                              {"scoreType", "raw"}});
  ASSERT_TRUE(std::holds_alternative<HitsReply>(reply));
  EXPECT_TRUE(std::get<HitsReply>(reply).streaming);
  EXPECT_TRUE(std::get<HitsReply>(reply).withScore);
}

TEST_F(DispatcherTest, SearchWithoutParametersReturnsEverythingWithoutScore) {
  const SearchQuery defaults;
  EXPECT_CALL(store_, search("c", AllOf(Field(&SearchQuery::start, 0U),
                                        Field(&SearchQuery::size, defaults.size),
                                        Field(&SearchQuery::limit, defaults.limit),
                                        Field(&SearchQuery::scale, ScoreScale::Normalized))))
      .WillOnce([] { return nullptr; });
  const Reply reply = handle({{"action", "search"},
                              {"index", "c"},
                              {"query", "fox"},
                              {"mode", "scalar"},
                              {"start", ""},
                              {"scoreWanted", "false"}});
  ASSERT_TRUE(std::holds_alternative<HitsReply>(reply));
  EXPECT_FALSE(std::get<HitsReply>(reply).streaming);
  EXPECT_FALSE(std::get<HitsReply>(reply).withScore);
}

TEST_F(DispatcherTest, SearchPassesOrderAndRangeOfKeysOn) {
  EXPECT_CALL(
      store_,
      search("c", AllOf(Field(&SearchQuery::text, "fox"), Field(&SearchQuery::everything, false),
                        Field(&SearchQuery::order, HitOrder::Key), Field(&SearchQuery::after, "k1"),
                        Field(&SearchQuery::upTo, std::string("k\0", 2)))))
      .WillOnce([] { return nullptr; });
  expectIs<HitsReply>(handle({{"action", "search"},
                              {"index", "c"},
                              {"query", "fox"},
                              {"sortField", "KEY"},
                              {"scoreWanted", "false"},
                              {"after", "base64:azE="},
                              {"upTo", "base64:awA="}}));
  EXPECT_CALL(store_, search("c", AllOf(Field(&SearchQuery::everything, true),
                                        Field(&SearchQuery::order, HitOrder::Any))))
      .WillOnce([] { return nullptr; });
  expectIs<HitsReply>(handle({{"action", "search"}, {"index", "c"}, {"sortField", "UNSORTED"}}));
}

TEST_F(DispatcherTest, HitsThatAreNotSortedByScoreHaveNone) {
  for (const char* order : {"KEY", "UNSORTED"}) {
    const test::Headers search{
        {"action", "search"}, {"index", "c"}, {"query", "fox"}, {"sortField", order}};
    for (const auto& [name, value] :
         test::Metadata{{"scoreWanted", "true"}, {"scoreType", "raw"}}) {
      test::Headers headers = search;
      headers[name] = value;
      EXPECT_THAT(error(headers), AllOf(HasSubstr("ZVK0006E"), HasSubstr(name)));
    }
  }
}

TEST_F(DispatcherTest, DocumentsToMatchReachTheStore) {
  const test::Headers one{
      {"action", "search"}, {"index", "c"}, {"query", "fox"}, {"match", "document"}};
  EXPECT_CALL(store_, match("c", Field(&SearchQuery::text, "fox"), ElementsAre(isTheDocument())))
      .WillOnce([] { return nullptr; });
  expectIs<HitsReply>(handle(one, kBlock));
  test::Headers several = one;
  several["match"] = "documents";
  EXPECT_CALL(store_, match("c", _, ElementsAre(isTheDocument(), Field(&Document::key, "l"))))
      .WillOnce([] { return nullptr; });
  expectIs<HitsReply>(
      handle(several, documentBlock("texts", {{"-", ""}}, kBlock + documentBlock("l", {}, ""))));
  EXPECT_THAT(error(one), HasSubstr("ZVK0012E"));
  EXPECT_THAT(error(several, documentBlock("texts", {{"-", ""}}, "rubbish")),
              AllOf(HasSubstr("ZVK0012E"), HasSubstr("document 1")));
}

// A client may keep the document of an earlier request.
TEST_F(DispatcherTest, SearchThatCarriesADocumentButDoesNotMatchItIsAnOrdinaryOne) {
  EXPECT_CALL(store_, search("c", _)).WillOnce([] { return nullptr; });
  expectIs<HitsReply>(handle({{"action", "search"}, {"index", "c"}, {"query", "fox"}}, kBlock));
}

TEST_F(DispatcherTest, ParametersThatMakeNoSenseAreNamed) {
  const test::Headers search{{"action", "search"}, {"index", "c"}, {"query", "fox"}};
  const std::vector<std::pair<std::string, std::string>> cases{
      {"start", "-1"},         {"start", "x"},
      {"size", "1.5"},         {"resultLimit", "1 "},
      {"mode", "selectivity"}, {"scoreWanted", "yes"},
      {"scoreType", "best"},   {"size", "18446744073709551616"},
      {"sortField", "1st"},    {"after", "k1"},
      {"after", "base64:"},    {"upTo", "base64:a"}};
  for (const auto& [name, value] : cases) {
    test::Headers headers = search;
    headers[name] = value;
    EXPECT_THAT(error(headers), AllOf(HasSubstr("ZVK0006E"), HasSubstr(name), HasSubstr(value)));
  }
}

TEST_F(DispatcherTest, MissingParametersAreNamed) {
  for (const char* action :
       {"createCollection", "openCollection", "closeCollection", "deleteCollection", "updateIndex",
        "getParseResult", "search", "selectivity"}) {
    EXPECT_THAT(error({{"action", action}}), AllOf(HasSubstr("ZVK0005E"), HasSubstr("\"index\"")));
  }
  for (const char* action : {"search", "selectivity"}) {
    EXPECT_THAT(error({{"action", action}, {"index", "c"}}),
                AllOf(HasSubstr("ZVK0005E"), HasSubstr("\"query\"")));
  }
}

TEST_F(DispatcherTest, RequestWithSeveralFaultsIsRefusedForItsCollectionFirst) {
  for (const char* action : {"addDocument", "deleteDocument", "search", "selectivity"}) {
    EXPECT_THAT(error({{"action", action}}, "garbage"),
                AllOf(HasSubstr("ZVK0005E"), HasSubstr("\"index\"")));
  }
}

TEST_F(DispatcherTest, SelectivityGivesTheStoresEstimate) {
  EXPECT_CALL(store_, estimate("c", "fox", 10000U)).WillOnce(Return(Estimate{1, 2, 3}));
  const Reply reply = handle(
      {{"action", "selectivity"}, {"index", "c"}, {"query", "fox"}, {"mode", "selectivity"}});
  ASSERT_TRUE(std::holds_alternative<EstimateReply>(reply));
  EXPECT_EQ(std::get<EstimateReply>(reply).estimate.atMost, 2U);
}

TEST_F(DispatcherTest, SelectivityCountsAsManyHitsAsTheRequestSays) {
  EXPECT_CALL(store_, estimate("c", "fox", 0U)).WillOnce(Return(Estimate{1, 2, 3}));
  expectIs<EstimateReply>(
      handle({{"action", "selectivity"}, {"index", "c"}, {"query", "fox"}, {"exactHits", "0"}}));
}

TEST_F(DispatcherTest, ParseResultsComeFromTheStore) {
  EXPECT_CALL(store_, takeParseOutcomes("c", ""))
      .WillOnce(Return(std::vector<ParseOutcome>{{"k", "", ""}}));
  const Reply reply = handle({{"action", "getParseResult"}, {"index", "c"}});
  ASSERT_TRUE(std::holds_alternative<OutcomesReply>(reply));
  EXPECT_EQ(std::get<OutcomesReply>(reply).outcomes.size(), 1U);
}

TEST_F(DispatcherTest, StatusTellsWhetherChangesWaitAndWhyThereIsNone) {
  const auto code = [](const Reply& reply) { return std::get<StatusReply>(reply).code; };
  EXPECT_EQ(code(handle({{"action", "getStatus"}})), 0U);
  EXPECT_CALL(store_, state("c")).WillOnce(Return(CollectionState::Current));
  EXPECT_EQ(code(handle({{"action", "getStatus"}, {"index", "c"}})), 0U);
  EXPECT_CALL(store_, state("c")).WillOnce(Return(CollectionState::ChangesPending));
  EXPECT_EQ(code(handle({{"action", "getStatus"}, {"index", "c"}})), 1U);
  EXPECT_CALL(store_, state("c")).WillOnce(Return(CollectionState::ChangesPending));
  EXPECT_EQ(code(handle({{"action", "getStatus"}, {"collectionName", "c"}})), 1U);
  EXPECT_CALL(store_, state("c"))
      .WillOnce(Throw(ServerError(ErrorKind::UnknownCollection, "none")));
  const Reply missing = handle({{"action", "getStatus"}, {"index", "c"}});
  EXPECT_EQ(code(missing), 2U);
  EXPECT_EQ(std::get<StatusReply>(missing).reason.id, "ZVK0007E");
}

TEST_F(DispatcherTest, FailuresThatAStatusOrAReportTellsOfAreToldToTheOperator) {
  const test::LogLines log;
  const ServerError damaged(ErrorKind::StorageFailed, "iamglass is damaged");
  EXPECT_CALL(store_, state("c")).WillRepeatedly(Throw(damaged));
  for (int i = 0; i < 3; ++i) {
    expectIs<StatusReply>(handle({{"action", "getStatus"}, {"index", "c"}}));
  }
  EXPECT_THAT(log.with("getStatus"),
              ElementsAre(AllOf(StartsWith("error failure: "), HasSubstr("error=ZVK0014E"),
                                HasSubstr("collection=\"c\""), HasSubstr("iamglass"))));
  EXPECT_CALL(store_, state("none"))
      .WillOnce(Throw(ServerError(ErrorKind::UnknownCollection, "there is no such collection")));
  expectIs<StatusReply>(handle({{"action", "getStatus"}, {"index", "none"}}));
  EXPECT_THAT(log.with("failure: "), SizeIs(1));
  EXPECT_CALL(store_, collections(_, _)).WillOnce(Return(std::vector<std::string>{"c", "d"}));
  EXPECT_CALL(store_, summary("c")).WillOnce(Throw(damaged));
  EXPECT_CALL(store_, summary("d")).WillOnce(Return(CollectionSummary{}));
  expectIs<ReportReply>(handle({{"action", "getParseResult"}, {"report", "collections"}}));
  ASSERT_THAT(log.with("failure: "), SizeIs(2));
  const std::map<std::string, std::string> told{{"action", "collections"},
                                                {"reason", "\"c\": ZVK0014E iamglass is damaged"}};
  EXPECT_EQ(test::fieldsOf(log.with("failure: ").back()), told);
}

TEST_F(DispatcherTest, ReportOfManyFailuresDoesNotFillTheLog) {
  const test::LogLines log;
  std::vector<std::string> names;
  for (int i = 0; i < 100; ++i) names.push_back("c" + std::to_string(i));
  EXPECT_CALL(store_, collections(_, _)).WillRepeatedly(Return(names));
  EXPECT_CALL(store_, summary(_))
      .WillRepeatedly(Throw(ServerError(ErrorKind::StorageFailed, "damaged")));
  for (int i = 0; i < 3; ++i) {
    expectIs<ReportReply>(handle({{"action", "getParseResult"}, {"report", "collections"}}));
    names.erase(names.begin());
    EXPECT_CALL(store_, collections(_, _)).WillRepeatedly(Return(names));
  }
  EXPECT_THAT(log.with("failure: "), ElementsAre(AllOf(HasSubstr("c0"), HasSubstr("and 99 more"))));
}

TEST_F(DispatcherTest, VersionIsTheOneItWasGiven) {
  EXPECT_EQ(std::get<TextReply>(handle({{"action", "getServerVersion"}})).text, "9.8.7");
}

TEST_F(DispatcherTest, ActionsThatDoNotExistYetAreRefusedByName) {
  for (const char* action : {"takeover", "shutdown"}) {
    EXPECT_THAT(error({{"action", action}}), AllOf(HasSubstr("ZVK0004E"), HasSubstr(action)));
  }
}

MATCHER_P4(restores, backup, from, collection, replace, "") {
  return arg.backup == backup && arg.from == from && arg.collection == collection &&
         arg.replace == replace;
}

TEST_F(DispatcherTest, BackupsReachTheStore) {
  EXPECT_CALL(store_, backup("b", "c"));
  expectIs<DoneReply>(handle({{"action", "backup"}, {"index", "c"}, {"backup", "b"}}));
  EXPECT_CALL(store_, backup("b", ""));
  expectIs<DoneReply>(handle({{"action", "backup"}, {"backup", "b"}}));
  EXPECT_CALL(store_, restore(restores("b", "", "", false)));
  expectIs<DoneReply>(handle({{"action", "restore"}, {"backup", "b"}}));
  EXPECT_CALL(store_, restore(restores("b", "c", "d", true)));
  expectIs<DoneReply>(handle({{"action", "restore"},
                              {"backup", "b"},
                              {"from", "c"},
                              {"collectionName", "d"},
                              {"replace", "true"}}));
}

TEST_F(DispatcherTest, BackupNeedsANameAndWhatBecomesOfACollectionToo) {
  for (const char* action : {"backup", "restore"}) {
    EXPECT_THAT(error({{"action", action}, {"index", "c"}}),
                AllOf(HasSubstr("ZVK0005E"), HasSubstr("\"backup\"")));
  }
  EXPECT_THAT(error({{"action", "restore"}, {"backup", "b"}, {"from", "c"}}),
              AllOf(HasSubstr("ZVK0006E"), HasSubstr("\"from\"")));
}

TEST_F(DispatcherTest, BackupsTakeTheRightToAllThatIsInThem) {
  const auto refusal = [](const Identity& who, const test::Headers& headers) -> std::string {
    Request request;
    request.headers.insert(headers.begin(), headers.end());
    try {
      Dispatcher::permit(request, who);
      return "none";
    } catch (const ServerError& error) {
      return std::string(messageId(error.kind())) + " " + error.what();
    }
  };
  const Identity all("ada", {{Right::Admin, "*"}});
  const Identity one("bob", {{Right::Admin, "c*"}, {Right::Write, "d"}});
  for (const char* action : {"backup", "restore"}) {
    const test::Headers whole{{"action", action}, {"backup", "b"}};
    test::Headers ofOne = whole;
    ofOne["index"] = "c1";
    test::Headers ofOther = whole;
    ofOther["index"] = "d";
    EXPECT_EQ(refusal(all, whole), "none");
    EXPECT_EQ(refusal(one, ofOne), "none");
    EXPECT_THAT(refusal(one, whole), AllOf(HasSubstr("ZVK0023E"), HasSubstr("the whole server")));
    EXPECT_THAT(refusal(one, ofOther), AllOf(HasSubstr("ZVK0023E"), HasSubstr("\"d\"")));
  }
  test::Headers renamed{{"action", "restore"}, {"backup", "b"}, {"from", "c1"}, {"index", "c2"}};
  EXPECT_EQ(refusal(one, renamed), "none");
  renamed["from"] = "d";
  EXPECT_THAT(refusal(one, renamed), AllOf(HasSubstr("ZVK0023E"), HasSubstr("\"d\"")));
}

TEST_F(DispatcherTest, NameThatIsTooLongIsRefusedBeforeItIsLookedForAmongRights) {
  const Identity all("ada", {{Right::Admin, "*"}});
  const std::string longest(240, 'a');
  for (const std::string& name : {longest + "a", std::string(60000, 'a'), std::string(81, '.')}) {
    for (const char* parameter : {"index", "collectionName", "from", "alsoIn"}) {
      Request request;
      request.headers = {{"action", "getParseResult"}, {"report", "hits"}, {"index", "c"}};
      request.headers[parameter] = name;
      if (parameter == std::string_view("collectionName")) request.headers.erase("index");
      try {
        Dispatcher::permit(request, all);
        FAIL() << parameter;
      } catch (const ServerError& error) {
        EXPECT_EQ(error.kind(), ErrorKind::BadCollectionName) << error.what();
      }
    }
  }
  Request request;
  request.headers = {{"action", "search"}, {"index", longest}};
  EXPECT_NO_THROW(Dispatcher::permit(request, all));
}

TEST_F(DispatcherTest, ScopeMustBeWhatTheStatusIsOf) {
  expectIs<StatusReply>(handle({{"action", "getStatus"}, {"scope", "system"}}));
  EXPECT_CALL(store_, state("c")).WillOnce(Return(CollectionState::Current));
  expectIs<StatusReply>(handle({{"action", "getStatus"}, {"index", "c"}, {"scope", "collection"}}));
  EXPECT_THAT(error({{"action", "getStatus"}, {"scope", "collection"}}),
              AllOf(HasSubstr("ZVK0006E"), HasSubstr("names no collection")));
  EXPECT_THAT(error({{"action", "getStatus"}, {"index", "c"}, {"scope", "system"}}),
              AllOf(HasSubstr("ZVK0006E"), HasSubstr("names a collection")));
}

TEST_F(DispatcherTest, ClientsOfTheSameMajorVersionAreServed) {
  for (const char* version : {"9", "9.0.0", "9.8.7-build42", "9.99"}) {
    expectIs<DoneReply>(
        handle({{"action", "versionsValidation"}, {"Implementation-Version", version}}));
  }
  for (const char* version : {"8.8.7", "10.0.0", "99.8.7", "x"}) {
    EXPECT_THAT(error({{"action", "versionsValidation"}, {"Implementation-Version", version}}),
                AllOf(HasSubstr("ZVK0025E"), HasSubstr(version), HasSubstr("9.8.7")));
  }
}

TEST_F(DispatcherTest, ServerMustBeAmongTheVersionsThatAClientWorksWith) {
  for (const char* versions : {"9.8.7", "9.8.7-build42", "9.8.6,9.8.7,9.9.0", "1.0, 9.8.7 , 2.0"}) {
    expectIs<DoneReply>(
        handle({{"action", "versionsValidation"}, {"Supported-Server-Versions", versions}}));
  }
  for (const char* versions : {"9.8.6", "9.8", "9.8.70", "19.8.7", ",", "9.8.6,9.8.8"}) {
    EXPECT_THAT(error({{"action", "versionsValidation"}, {"Supported-Server-Versions", versions}}),
                AllOf(HasSubstr("ZVK0025E"), HasSubstr(versions), HasSubstr("9.8.7")));
  }
  EXPECT_THAT(error({{"action", "versionsValidation"},
                     {"Implementation-Version", "9.0"},
                     {"Supported-Server-Versions", "9.0"}}),
              HasSubstr("ZVK0025E"));
}

TEST_F(DispatcherTest, VersionsValidationNeedsAVersion) {
  EXPECT_THAT(error({{"action", "versionsValidation"}}),
              AllOf(HasSubstr("ZVK0005E"), HasSubstr("Implementation-Version")));
}

/// A store whose collections are opened when somebody asks for that.
class OpeningStore : public StrictMock<MockStore> {
 public:
  bool isOpen(const std::string& name) override { return opened.contains(name); }
  void open(const std::string& name, Opened ready) override {
    asked.push_back(name);
    if (name == "damaged") return ready(ServerError(ErrorKind::StorageFailed, "it is damaged"));
    opened.insert(name);
    ready(std::nullopt);
  }

  std::set<std::string> opened;
  std::vector<std::string> asked;
};

class OpeningTest : public ::testing::Test {
 protected:
  // As a connection does.
  std::vector<std::string> opened(const test::Headers& headers) {
    request_ = {};
    request_.headers.insert(headers.begin(), headers.end());
    store_.asked.clear();
    while (!dispatcher_.isReady(request_)) {
      const std::size_t before = store_.asked.size();
      dispatcher_.makeReady(request_, [] {});
      if (store_.asked.size() == before) return {"endless"};
    }
    return store_.asked;
  }

  OpeningStore store_;
  Dispatcher dispatcher_{store_, "1"};
  Request request_;
};

TEST_F(OpeningTest, EachCollectionOfARequestIsOpenedOnce) {
  const test::Headers request{
      {"action", "getParseResult"}, {"report", "hits"}, {"index", "a"}, {"alsoIn", "b,c,d"}};
  store_.opened = {"b"};
  EXPECT_THAT(opened(request), ElementsAre("a", "c", "d"));
  EXPECT_THAT(opened(request), IsEmpty());
  EXPECT_THAT(opened({{"action", "search"}, {"index", "e"}, {"alsoIn", "f"}}), ElementsAre("e"))
      << "it does not take the parameter";
}

TEST_F(OpeningTest, NoneIsOpenedAfterOneThatCannotBe) {
  EXPECT_THAT(opened({{"action", "getParseResult"},
                      {"report", "hits"},
                      {"index", "a"},
                      {"alsoIn", "damaged,c"},
                      {"query", "fox"}}),
              ElementsAre("a", "damaged"));
  const Reply reply = dispatcher_.handle(request_);
  EXPECT_EQ(std::get<ErrorReply>(reply).text, "it is damaged");
}

TEST_F(OpeningTest, NoMoreAreOpenedThanASearchTakes) {
  std::string many = "b0";
  for (int i = 1; i < 100; ++i) many += ",b" + std::to_string(i);
  EXPECT_THAT(
      opened({{"action", "getParseResult"}, {"report", "hits"}, {"index", "a"}, {"alsoIn", many}}),
      SizeIs(32));
}

TEST(Shutdown, IsForThoseOnTheMachineOrWithTheRight) {
  StrictMock<MockStore> store;
  int ended = 0;
  Dispatcher dispatcher(store, "1", [&] { ++ended; });
  Request request;
  request.headers = {{"action", "shutdown"}};
  EXPECT_EQ(std::get<ErrorReply>(dispatcher.handle(request)).id, "ZVK0023E");
  EXPECT_EQ(ended, 0);
  request.fromThisMachine = true;
  EXPECT_TRUE(std::holds_alternative<DoneReply>(dispatcher.handle(request)));
  EXPECT_EQ(ended, 1);
  request.fromThisMachine = false;
  request.identified = true;
  EXPECT_TRUE(std::holds_alternative<DoneReply>(dispatcher.handle(request)));
  EXPECT_EQ(ended, 2);
}

TEST(Shutdown, TakesTheRightToEverything) {
  Request request;
  request.headers = {{"action", "shutdown"}};
  EXPECT_THROW(Dispatcher::permit(request, Identity("ada", {{Right::Admin, "books-*"}})),
               ServerError);
  EXPECT_THROW(Dispatcher::permit(request, Identity("ada", {{Right::Write, "*"}})), ServerError);
  EXPECT_NO_THROW(Dispatcher::permit(request, Identity("ada", {{Right::Admin, "*"}})));
}

// What an action does not take must not change what it needs. One without a reply is served
// although its parameters are refused: its refusal becomes an outcome of the collection.
TEST(Reports, TakeTheRightToReadAndOtherActionsWhatTheyNeed) {
  const Identity reader("ada", {{Right::Read, "books"}});
  for (const char* action : {"addDocument", "asyncAddDocument", "deleteDocument", "updateIndex",
                             "createCollection", "deleteCollection"}) {
    Request request;
    request.headers = {{"action", action}, {"index", "books"}, {"report", "count"}};
    EXPECT_THROW(Dispatcher::permit(request, reader), ServerError) << action;
    EXPECT_EQ(Dispatcher::workload(action, "count"), Dispatcher::workload(action)) << action;
  }
  Request request;
  request.headers = {{"action", "getParseResult"}, {"index", "books"}, {"report", "count"}};
  EXPECT_NO_THROW(Dispatcher::permit(request, reader));
  EXPECT_EQ(Dispatcher::workload("getParseResult", "count"), Workload::Read);
  request.headers.erase("report");
  EXPECT_THROW(Dispatcher::permit(request, reader), ServerError);
}

TEST_F(DispatcherTest, ReportWithoutItsCollectionIsRefusedForThatWhateverOneMay) {
  const Identity reader("ada", {{Right::Read, "books"}});
  Request request;
  for (const char* report : {"collection", "count", "digest", "hits", "place", "nonsense"}) {
    request.headers = {{"action", "getParseResult"}, {"report", report}, {"query", "x"}};
    EXPECT_NO_THROW(Dispatcher::permit(request, reader)) << report;
    const Reply reply = dispatcher_.handle(request);
    ASSERT_TRUE(std::holds_alternative<ErrorReply>(reply)) << report;
  }
  EXPECT_THAT(error({{"action", "getParseResult"}, {"report", "count"}}), HasSubstr("ZVK0005E"));
  for (const char* report : {"collections", "backups"}) {
    request.headers = {{"action", "getParseResult"}, {"report", report}};
    EXPECT_THROW(Dispatcher::permit(request, reader), ServerError) << report;
  }
}

TEST_F(DispatcherTest, UnknownAndMissingActionsAreRefused) {
  EXPECT_THAT(error({{"action", "dance"}}), AllOf(HasSubstr("ZVK0003E"), HasSubstr("dance")));
  EXPECT_THAT(error({}), HasSubstr("ZVK0003E"));
  EXPECT_THAT(error({{"action", "Search"}}), HasSubstr("ZVK0003E"));
}

TEST_F(DispatcherTest, DefectiveHeaderBlockIsRefused) {
  Request request;
  request.headers["action"] = "getServerVersion";
  request.defect = "a line has no colon";
  const Reply reply = dispatcher_.handle(std::move(request));
  EXPECT_EQ(std::get<ErrorReply>(reply).id, "ZVK0001E");
}

TEST_F(DispatcherTest, EveryFailureOfTheStoreBecomesAnError) {
  const test::Headers update{{"action", "updateIndex"}, {"index", "c"}};
  EXPECT_CALL(store_, updateIndex("c"))
      .WillOnce(Throw(ServerError(ErrorKind::StorageFailed, "no space")))
      .WillOnce(Throw(std::bad_alloc()))
      .WillOnce(Throw(std::system_error(std::make_error_code(std::errc::io_error))))
      .WillOnce(Throw(std::logic_error("what")));
  EXPECT_EQ(error(update), "ZVK0014E no space");
  EXPECT_THAT(error(update), HasSubstr("ZVK0017E"));
  EXPECT_THAT(error(update), HasSubstr("ZVK0014E"));
  EXPECT_THAT(error(update), HasSubstr("ZVK0099E"));
}

TEST(Workload, SearchesWritersAndIndexUpdatesAreKeptApart) {
  const auto of = [](const char* action) {
    Request request;
    request.headers["action"] = action;
    return Dispatcher::workload(request.header("action"));
  };
  EXPECT_EQ(of("search"), Workload::Read);
  EXPECT_EQ(of("addDocument"), Workload::Write);
  EXPECT_EQ(of("updateIndex"), Workload::Index);
  EXPECT_EQ(of("deleteCollection"), Workload::Delete);
  EXPECT_EQ(of("backup"), Workload::Status);
  EXPECT_EQ(of("restore"), Workload::Status);
  EXPECT_EQ(of("getStatus"), Workload::Status);
  EXPECT_EQ(of("nonsense"), Workload::Status);
}

}  // namespace
}  // namespace corvaned
