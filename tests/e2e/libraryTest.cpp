#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTMessage.h"
#include "tests/e2e/conversation.h"
#include "tests/support/temporaryDirectory.h"

// Every action through each client against the real server: both protocols pass the same tests.
namespace tq::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using tq::comm::ClientRequest;
using tq::comm::CorvaneRESTClient;
using tq::comm::RequestOutcome;

using Keys = std::vector<std::string>;

constexpr unsigned int kReady = 0;
constexpr unsigned int kChangesWait = 1;
constexpr unsigned int kNotAvailable = 2;

class Library : public ::testing::TestWithParam<Protocol> {
 protected:
  static void SetUpTestSuite() { server_ = std::make_unique<CorvanedProcess>(); }
  static void TearDownTestSuite() {
    EXPECT_EQ(server_->stop(), 0);
    server_.reset();
  }

  // Each test has a collection of its own and leaves none behind.
  void SetUp() override { done(ClientRequest::CREATE_COLLECTION); }
  void TearDown() override { send(ClientRequest::DROP_COLLECTION); }

  Answer send(ClientRequest& request, Taking taking = Taking::Looping) {
    return ask(*client_, request, taking);
  }
  Answer send(int kind, const Parameters& parameters = {}) {
    ClientRequest request = requestTo(collection_, kind, parameters);
    return send(request);
  }
  Answer sendDocument(int kind, const std::string& key, const std::string& text = {},
                      const std::list<tq::comm::KVPair>& metadata = {{u"title", u"untitled"}}) {
    ClientRequest request = requestTo(collection_, kind);
    attachDocument(request, key, text, metadata);
    return send(request);
  }

  static void expectSuccess(const Answer& answer) {
    EXPECT_TRUE(answer.success) << answer;
    EXPECT_THAT(answer.failure, IsEmpty()) << answer;
    EXPECT_EQ(answer.outcome, RequestOutcome::Answered) << answer;
  }
  void done(int kind, const Parameters& parameters = {}) { expectSuccess(send(kind, parameters)); }
  void add(const std::string& key, const std::string& text,
           const std::list<tq::comm::KVPair>& metadata = {{u"title", u"untitled"}}) {
    expectSuccess(sendDocument(ClientRequest::ADD_DOCUMENT, key, text, metadata));
  }
  void queue(const std::string& key, const std::string& text,
             const std::list<tq::comm::KVPair>& metadata = {{u"title", u"untitled"}}) {
    const Answer answer = sendDocument(ClientRequest::ASYNCH_ADD_DOCUMENT, key, text, metadata);
    EXPECT_THAT(answer.failure, IsEmpty()) << answer;
    EXPECT_EQ(answer.outcome, RequestOutcome::MayBeApplied);
  }
  void update() { done(ClientRequest::UPDATE_INDEX); }

  Answer search(const std::string& query, Parameters parameters = {},
                int kind = ClientRequest::STREAM_SEARCH, Taking taking = Taking::Looping) {
    parameters.emplace_back("query", query);
    ClientRequest request = requestTo(collection_, kind, parameters);
    Answer answer = send(request, taking);
    expectSuccess(answer);
    EXPECT_TRUE(answer.complete) << answer;
    return answer;
  }
  Keys found(const std::string& query, const Parameters& parameters = {}) {
    return search(query, parameters).keys();
  }

  static void expectRefused(const Answer& answer, const std::string& id, const std::string& words) {
    ASSERT_THAT(answer.failure, SizeIs(1)) << answer;
    EXPECT_EQ(answer.failure[0].id, id);
    EXPECT_THAT(answer.failure[0].text, HasSubstr(words));
    EXPECT_EQ(answer.failure[0].level, 2);
    EXPECT_FALSE(answer.success);
    EXPECT_EQ(answer.outcome, RequestOutcome::Rejected);
  }

  // Documents "d00000", "d00001", ... that all hold "common", each as often.
  void addMany(int count) {
    for (int i = 0; i < count; ++i) queue(numbered(i), "common word" + std::to_string(i));
    EXPECT_THAT(send(ClientRequest::PARSE_RESULT).parsed, SizeIs(count));
    update();
  }
  static std::string numbered(int number) {
    std::string name = std::to_string(100000 + number);
    name.front() = 'd';
    return name;
  }

  static inline std::unique_ptr<CorvanedProcess> server_;
  std::unique_ptr<CorvaneRESTClient> client_ = newClient(GetParam(), *server_);
  std::string collection_ = "books";
};

INSTANTIATE_TEST_SUITE_P(, Library, ::testing::Values(Protocol::Http, Protocol::Binary),
                         ::testing::PrintToStringParamName());

// Collections.

TEST_P(Library, CreatesOpensClosesAndDropsACollection) {
  done(ClientRequest::OPEN_COLLECTION);
  done(ClientRequest::OPEN_COLLECTION_ALT);
  done(ClientRequest::CLOSE_COLLECTION);
  done(ClientRequest::OPEN_COLLECTION);
  done(ClientRequest::DROP_COLLECTION);
  for (const int kind : {kOpenCollection, kCloseCollection, kOpenCollectionAlt, kDropCollection}) {
    expectRefused(send(kind), "ZVK0007E", "there is no collection \"books\"");
  }
}

TEST_P(Library, RefusesASecondCollectionOfAName) {
  expectRefused(send(ClientRequest::CREATE_COLLECTION), "ZVK0008E", "exists already");
}

TEST_P(Library, ServesAClosedCollection) {
  add("k1", "lighthouse");
  update();
  done(ClientRequest::CLOSE_COLLECTION);
  EXPECT_THAT(found("lighthouse"), ElementsAre("k1"));
}

TEST_P(Library, FindsAnEmptyCollectionWhereOneWasDropped) {
  add("k1", "lighthouse");
  update();
  done(ClientRequest::DROP_COLLECTION);
  done(ClientRequest::CREATE_COLLECTION);
  EXPECT_THAT(found("lighthouse"), IsEmpty());
  EXPECT_EQ(send(ClientRequest::GET_STATUS).statusCode, kReady);
}

TEST_P(Library, TakesTheNameFromEitherParameter) {
  ClientRequest request;
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"collectionName", u"books");
  request.buildRequest(ClientRequest::OPEN_COLLECTION, properties);
  expectSuccess(send(request));
}

TEST_P(Library, ServesCollectionsNamedInAnyWriting) {
  collection_ = "Bücher/日本 1";
  done(ClientRequest::CREATE_COLLECTION);
  add("k1", "lighthouse");
  update();
  EXPECT_THAT(found("lighthouse"), ElementsAre("k1"));
  done(ClientRequest::DROP_COLLECTION);
  expectRefused(send(ClientRequest::OPEN_COLLECTION), "ZVK0007E", "Bücher/日本 1");
  collection_ = "books";
}

// Documents.

TEST_P(Library, AddsAndReplacesDocuments) {
  add("k1", "red fox");
  add("k2", "red hen");
  EXPECT_THAT(found("red"), IsEmpty());
  update();
  EXPECT_THAT(found("red"), ElementsAre("k1", "k2"));
  add("k1", "grey goose");
  update();
  EXPECT_THAT(found("red"), ElementsAre("k2"));
  EXPECT_THAT(found("goose"), ElementsAre("k1"));
}

TEST_P(Library, TakesTextsInOtherCharsets) {
  ClientRequest request =
      requestTo(collection_, ClientRequest::ADD_DOCUMENT, {{"charset", "ISO-8859-1"}});
  const std::string key = "k1", text = "caf\xE9";
  attachDocument(request, key, text);
  expectSuccess(send(request));
  update();
  EXPECT_THAT(found("café"), ElementsAre("k1"));
}

TEST_P(Library, TakesDocumentsWithTags) {
  const auto addTyped = [&](const std::string& key, const std::string& text,
                            const Parameters& parameters) {
    ClientRequest request = requestTo(collection_, ClientRequest::ADD_DOCUMENT, parameters);
    attachDocument(request, key, text);
    return send(request);
  };
  expectSuccess(addTyped("k1", "<meta charset=latin1><p id=no>red caf\xE9", {{"docType", "html"}}));
  expectSuccess(addTyped("k2", "<red no='1'>caf\u00e9</red>", {{"mimeType", "text/xml"}}));
  expectRefused(addTyped("k3", "<red>", {{"docType", "xml"}}), "ZVK0012E", "line 1, column 6");
  update();
  EXPECT_THAT(found("café"), ElementsAre("k2", "k1"));
  EXPECT_THAT(found("red"), ElementsAre("k1"));
  EXPECT_THAT(found("no"), IsEmpty());
}

TEST_P(Library, TakesDocumentsInOtherLanguages) {
  ClientRequest request =
      requestTo(collection_, ClientRequest::ADD_DOCUMENT, {{"docLang", "de_DE"}});
  const std::string key = "k1", text = "große Häuser";
  attachDocument(request, key, text);
  expectSuccess(send(request));
  add("k2", "great houses");
  update();
  EXPECT_THAT(found("Haus"), ElementsAre("k1"));
  EXPECT_THAT(found("house"), ElementsAre("k2"));
}

// In one database or in several.
TEST_P(Library, ReadsDocumentsAsTheirCollectionIsConfigured) {
  // What a request is given has to live until it has been sent.
  const std::string html = "<p id=no>caf\xE9", plainKey = "k3", matchedKey = "k4";
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{}, {"--shards-per-collection", "3"}}) {
    CorvanedProcess server(options);
    client_ = newClient(GetParam(), server);
    done(ClientRequest::CREATE_COLLECTION);
    const auto configure = [&](const Parameters& parameters) {
      return send(kSetConstructorConfiguration, parameters);
    };
    expectSuccess(configure({{"docType", "html"}, {"charset", "ISO-8859-1"}, {"docLang", "fr"}}));
    expectRefused(configure({{"docType", "bin"}}), "ZVK0006E", "\"docType\" is \"bin\"");
    expectRefused(configure({{"refresh", "250"}}), "ZVK0024E", "\"refresh\"");
    add("k1", html);
    queue("k2", html);
    EXPECT_THAT(send(ClientRequest::PARSE_RESULT).parsed, SizeIs(1));
    ClientRequest plain =
        requestTo(collection_, ClientRequest::ADD_DOCUMENT, {{"docType", "text"}});
    attachDocument(plain, plainKey, html);
    expectSuccess(send(plain));
    update();
    EXPECT_THAT(found("café"), UnorderedElementsAre("k1", "k2", "k3"));
    EXPECT_THAT(found("no"), ElementsAre("k3"));
    ClientRequest matching = requestTo(collection_, ClientRequest::SCALAR_SEARCH,
                                       {{"query", "café NOT no"}, {"match", "document"}});
    attachDocument(matching, matchedKey, html);
    EXPECT_THAT(send(matching).keys(), ElementsAre("k4"));
    server.kill();
    server.start();
    client_ = newClient(GetParam(), server);
    EXPECT_THAT(
        send(ClientRequest::PARSE_RESULT, {{"report", "collection"}}).parsed.at(0).messageText,
        HasSubstr(" docType=html charset=ISO-8859-1 docLang=fr refresh=manual"));
    add("k5", html);
    expectSuccess(configure({}));
    add("k6", "<p id=no>café");
    update();
    EXPECT_THAT(found("café NOT no"), UnorderedElementsAre("k1", "k2", "k5"));
    EXPECT_THAT(found("no"), UnorderedElementsAre("k3", "k6"));
    done(ClientRequest::DROP_COLLECTION);
    expectRefused(configure({}), "ZVK0007E", "there is no collection \"books\"");
    client_.reset();
    EXPECT_EQ(server.stop(), 0);
  }
  client_ = newClient(GetParam(), *server_);
}

TEST_P(Library, SortsByMarkedMetadata) {
  add("k1", "red fox", {{u"[sortable]year", u"1997"}});
  add("k2", "red hen", {{u"[sortable]year", u"803"}});
  add("k3", "red owl");
  update();
  for (const int kind : {ClientRequest::STREAM_SEARCH, ClientRequest::SCALAR_SEARCH}) {
    EXPECT_EQ(search("red", {{"sortField", "year"}}, kind).keys(), (Keys{"k2", "k1", "k3"}));
    EXPECT_EQ(search("red", {{"sortField", "-year"}}, kind).keys(), (Keys{"k1", "k2", "k3"}));
  }
  expectRefused(send(ClientRequest::STREAM_SEARCH, {{"query", "red"}, {"sortField", "colour"}}),
                "ZVK0006E", "\"colour\"");
}

TEST_P(Library, KeepsWhatIsChosenForACollection) {
  done(ClientRequest::DROP_COLLECTION);
  done(ClientRequest::CREATE_COLLECTION,
       {{"storeText", "false"}, {"storePositions", "false"}, {"stopWords", "the, a"}});
  add("k1", "the red foxes");
  update();
  EXPECT_THAT(found("a fox"), ElementsAre("k1"));
  expectRefused(send(ClientRequest::STREAM_SEARCH, {{"query", "\"red foxes\""}}), "ZVK0010E",
                "the phrase at character 1");
  expectRefused(send(ClientRequest::PARSE_RESULT, {{"report", "digest"}}), "ZVK0004E",
                "without the texts");
  const Answer report = send(ClientRequest::PARSE_RESULT, {{"report", "collection"}});
  ASSERT_THAT(report.parsed, SizeIs(1)) << report;
  EXPECT_THAT(report.parsed[0].messageText,
              HasSubstr(" storeText=false storePositions=false stopWords=2 "));
}

TEST_P(Library, DeletesDocumentsAtOnce) {
  add("k1", "red fox");
  add("k2", "red hen");
  update();
  expectSuccess(sendDocument(ClientRequest::DELETE_DOCUMENT, "k1"));
  EXPECT_THAT(found("red"), ElementsAre("k2"));
  update();
  EXPECT_THAT(found("red"), ElementsAre("k2"));
}

TEST_P(Library, DeletingAnUnknownDocumentIsNoError) {
  expectSuccess(sendDocument(ClientRequest::DELETE_DOCUMENT, "nobody"));
}

TEST_P(Library, KeepsKeysOfAnyBytes) {
  const Keys keys{std::string("\0\xff\r\n: ", 6), std::string(128, 'k'), "größe", " "};
  for (const std::string& key : keys) add(key, "lighthouse");
  update();
  EXPECT_THAT(found("lighthouse"), ::testing::UnorderedElementsAreArray(keys));
}

TEST_P(Library, RefusesKeysThatAreTooLongAndDocumentsWithoutAKey) {
  expectRefused(sendDocument(ClientRequest::ADD_DOCUMENT, std::string(129, 'k'), "x"), "ZVK0012E",
                "129 bytes, more than the 128 allowed");
  expectRefused(sendDocument(ClientRequest::ADD_DOCUMENT, "", "x"), "ZVK0012E",
                "carries no document");
  expectRefused(sendDocument(ClientRequest::DELETE_DOCUMENT, ""), "ZVK0012E",
                "carries no document");
}

TEST_P(Library, RefusesAKeyWithoutMetadataBeforeAnythingIsSent) {
  const Answer answer = sendDocument(ClientRequest::ADD_DOCUMENT, "k1", "x", {});
  ASSERT_THAT(answer.failure, SizeIs(1));
  EXPECT_EQ(answer.failure[0].id, "ERR_CLIENT_INTERNAL");
  update();
  EXPECT_THAT(found("x"), IsEmpty());
}

TEST_P(Library, RefusesADamagedDocumentBlock) {
  // Nothing tells the server that a second attribute follows, so it takes it for a length.
  const Answer answer = sendDocument(ClientRequest::ADD_DOCUMENT, "k1", "x",
                                     {tq::comm::KVPair(u"a", u"b", 0, 0x01000000)});
  expectRefused(answer, "ZVK0012E", "document block cannot be read");
}

TEST_P(Library, FindsMetadataByItsName) {
  add("k1", "fox", {{u"colour", u"red"}, {u"Indexable:place", u"Sankt Pölten"}});
  add("k2", "red", {{u"colour", u"grey"}});
  update();
  EXPECT_THAT(found("colour:red"), ElementsAre("k1"));
  EXPECT_THAT(found("place:pölten"), ElementsAre("k1"));
  EXPECT_THAT(found("red"), ElementsAre("k2"));
}

TEST_P(Library, FindsTextInAnyWriting) {
  add("a", "Größe und Straße");
  add("b", "全文検索エンジン");
  add("c", "cafe\xCC\x81 \xF0\x9F\x98\x80");  // e and a combining accent
  update();
  EXPECT_THAT(found("GRÖSSE OR größe"), ElementsAre("a"));
  EXPECT_THAT(found("検索"), ElementsAre("b"));
  EXPECT_THAT(found("caf\xC3\xA9"), ElementsAre("c"));  // the composed letter
}

TEST_P(Library, TakesDocumentsOfEverySize) {
  // Around the sizes at which a body is cut for sending, and far beyond every buffer.
  const std::vector<std::size_t> sizes{1,     4999,  5000,  5001,  9990,     9999,          10000,
                                       10001, 15001, 16384, 65536, 1 << 20U, (1 << 20U) + 1};
  Keys keys;
  for (const std::size_t size : sizes) {
    // The last word shows that the end has arrived, the key's word that nothing was mixed up.
    const std::string last = " end" + std::to_string(size);
    std::string text(size, '.');
    if (size > last.size()) text.replace(size - last.size(), last.size(), last);
    keys.push_back(std::to_string(size));
    add(keys.back(), text);
  }
  update();
  for (std::size_t i = 1; i < sizes.size(); ++i) {
    EXPECT_THAT(found("end" + keys[i]), ElementsAre(keys[i]));
  }
  EXPECT_THAT(found("NOT nothing"), ::testing::UnorderedElementsAreArray(keys));
}

// Queued documents.

TEST_P(Library, ReportsEachQueuedDocumentOnceAndInOrder) {
  queue("k1", "red fox");
  queue("k2", "red hen");
  EXPECT_THAT(send(ClientRequest::LAST_DOC_SENT).failure, IsEmpty());
  const Answer answer = send(ClientRequest::PARSE_RESULT);
  expectSuccess(answer);
  EXPECT_TRUE(answer.complete);
  EXPECT_THAT(answer.parsed,
              ElementsAre(Parsed{docIdOf("k1"), "", "", 0}, Parsed{docIdOf("k2"), "", "", 0}));
  EXPECT_THAT(send(ClientRequest::PARSE_RESULT).parsed, IsEmpty());
  update();
  EXPECT_THAT(found("red"), ElementsAre("k1", "k2"));
}

TEST_P(Library, ReportsRefusedDocumentsAmongTheOthers) {
  queue("k1", "red fox");
  queue(std::string(129, 'k'), "red hen");
  queue("k2", "x", {tq::comm::KVPair(u"a", u"b", 0, 0x01000000)});
  queue("k3", "red owl");
  const Answer answer = send(ClientRequest::PARSE_RESULT);
  ASSERT_THAT(answer.parsed, SizeIs(4)) << answer;
  EXPECT_EQ(answer.parsed[0], (Parsed{docIdOf("k1"), "", "", 0}));
  EXPECT_EQ(answer.parsed[1].messageId, "ZVK0012E");
  EXPECT_THAT(answer.parsed[1].messageText, HasSubstr("129 bytes"));
  EXPECT_EQ(answer.parsed[1].document, docIdOf(std::string(128, 'k')));
  EXPECT_EQ(answer.parsed[1].level, 2);
  EXPECT_EQ(answer.parsed[2].messageId, "ZVK0012E");
  EXPECT_THAT(answer.parsed[2].messageText, HasSubstr("document block cannot be read"));
  EXPECT_EQ(answer.parsed[3], (Parsed{docIdOf("k3"), "", "", 0}));
  update();
  EXPECT_THAT(found("red"), ElementsAre("k1", "k3"));
}

TEST_P(Library, AnswersWithoutParseResultsWhenNothingWasQueued) {
  const Answer answer = send(ClientRequest::PARSE_RESULT);
  expectSuccess(answer);
  EXPECT_TRUE(answer.complete);
  EXPECT_THAT(answer.parsed, IsEmpty());
}

TEST_P(Library, ReportsManyQueuedDocuments) {
  for (int i = 0; i < 3000; ++i) queue(numbered(i), "x");
  const Answer answer = send(ClientRequest::PARSE_RESULT);
  expectSuccess(answer);
  ASSERT_THAT(answer.parsed, SizeIs(3000));
  for (int i = 0; const Parsed& parsed : answer.parsed) {
    ASSERT_EQ(parsed.document, docIdOf(numbered(i++)));
  }
}

TEST_P(Library, SendsQueuedDocumentsTogether) {
  client_->useBufferedConnection(true);
  for (int i = 0; i < 200; ++i) {
    EXPECT_THAT(sendDocument(ClientRequest::ASYNCH_ADD_DOCUMENT, numbered(i), "common").failure,
                IsEmpty());
  }
  EXPECT_THAT(send(ClientRequest::LAST_DOC_SENT).failure, IsEmpty());
  EXPECT_THAT(send(ClientRequest::PARSE_RESULT).parsed, SizeIs(200));
  update();
  EXPECT_THAT(found("common"), SizeIs(200));
}

// Searches.

TEST_P(Library, OrdersHitsByScoreAndThenByKey) {
  add("once", "fox and hen and hen and hen");
  add("twice", "fox fox and hen and");
  add("b", "owl");
  add("a", "owl");
  update();
  const Answer answer = search("fox", {{"scoreWanted", "true"}});
  EXPECT_THAT(answer.keys(), ElementsAre("twice", "once"));
  EXPECT_EQ(answer.hits[0].score, 1.0);
  EXPECT_GT(answer.hits[1].score, 0.0);
  EXPECT_LT(answer.hits[1].score, 1.0);
  EXPECT_THAT(found("owl"), ElementsAre("a", "b"));
}

TEST_P(Library, GivesNoScoresUnlessTheyAreWanted) {
  add("k1", "fox");
  update();
  EXPECT_THAT(search("fox").hits, ElementsAre(Hit{docIdOf("k1"), 0.0}));
  EXPECT_THAT(search("fox", {{"scoreWanted", "false"}}).hits, ElementsAre(Hit{docIdOf("k1"), 0.0}));
  EXPECT_THAT(search("fox", {{"scoreWanted", "true"}}).hits, ElementsAre(Hit{docIdOf("k1"), 1.0}));
}

TEST_P(Library, CutsTheResultAndTakesAPageOfIt) {
  for (const char* key : {"a", "b", "c", "d", "e"}) add(key, "owl");
  update();
  for (const int kind : {kStreamSearch, kScalarSearch}) {
    const auto page = [&](const Parameters& parameters) {
      return search("owl", parameters, kind).keys();
    };
    EXPECT_THAT(page({}), ElementsAre("a", "b", "c", "d", "e"));
    EXPECT_THAT(page({{"start", "1"}, {"size", "2"}}), ElementsAre("b", "c"));
    EXPECT_THAT(page({{"resultLimit", "3"}}), ElementsAre("a", "b", "c"));
    EXPECT_THAT(page({{"start", "2"}, {"size", "9"}, {"resultLimit", "4"}}), ElementsAre("c", "d"));
    EXPECT_THAT(page({{"start", "5"}}), IsEmpty());
    EXPECT_THAT(page({{"size", "0"}}), IsEmpty());
    EXPECT_THAT(page({{"start", "18446744073709551615"}}), IsEmpty());
  }
}

TEST_P(Library, FindsNothingWithoutAnError) {
  for (const int kind : {kStreamSearch, kScalarSearch})
    EXPECT_THAT(search("nowhere", {}, kind).hits, IsEmpty());
}

TEST_P(Library, PullsLargeResultsPortionByPortion) {
  constexpr int kCount = 10000;
  addMany(kCount);
  Keys expected;
  for (int i = 0; i < kCount; ++i) expected.push_back(numbered(i));
  for (const int kind : {kStreamSearch, kScalarSearch}) {
    for (const Taking taking : {Taking::Looping, Taking::Singly}) {
      const Answer answer = search("common", {{"scoreWanted", "true"}}, kind, taking);
      EXPECT_EQ(answer.keys(), expected) << "kind " << kind;
      EXPECT_THAT(answer.hits, Each(Field(&Hit::score, 1.0)));
    }
  }
  EXPECT_GT(search("common").portions, 1U);
}

TEST_P(Library, LeavesAStreamWithoutHarmToTheNextRequest) {
  addMany(3000);
  for (int round = 0; round < 3; ++round) {
    ClientRequest request = requestTo(collection_, 8, {{"query", "common"}});
    EXPECT_THAT(ask(*client_, request, Taking::Looping, 5).keys(),
                ElementsAre("d00000", "d00001", "d00002", "d00003", "d00004"));
    EXPECT_THAT(found("word77"), ElementsAre("d00077"));
    EXPECT_EQ(send(ClientRequest::GET_STATUS).statusCode, kReady);
  }
}

TEST_P(Library, FindsKeysWithoutScoresInTheirOrder) {
  addMany(3000);
  Keys expected;
  for (int i = 0; i < 3000; ++i) expected.push_back(numbered(i));
  for (const int kind : {kStreamSearch, kScalarSearch}) {
    EXPECT_EQ(search("common", {{"sortField", "KEY"}}, kind).keys(), expected);
    EXPECT_THAT(search("common", {{"sortField", "UNSORTED"}}, kind).keys(),
                ::testing::UnorderedElementsAreArray(expected));
    EXPECT_THAT(search("word77 OR word99 OR word55",
                       {{"sortField", "KEY"}, {"after", docIdOf("d00055")}, {"size", "1"}}, kind)
                    .keys(),
                ElementsAre("d00077"));
  }
  ClientRequest everything =
      requestTo(collection_, 8, {{"sortField", "KEY"}, {"upTo", docIdOf("d00001")}});
  EXPECT_THAT(send(everything).keys(), ElementsAre("d00000", "d00001"));
}

TEST_P(Library, TakesPagesOfOneState) {
  add("other", "nothing of it");
  addMany(2500);
  for (const std::string order : {"SCORE", "KEY"}) {
    const Keys all = found("common OR word7 OR word8", {{"sortField", order}});
    ASSERT_THAT(all, SizeIs(2500));
    std::string from = "begin";
    Keys taken;
    const auto place = [&](const std::string& start) {
      const Answer answer =
          send(ClientRequest::PARSE_RESULT, {{"report", "place"},
                                             {"query", "common OR word7 OR word8"},
                                             {"sortField", order},
                                             {"searchAfter", from},
                                             {"start", start}});
      expectSuccess(answer);
      if (answer.parsed.empty()) return std::string();
      EXPECT_EQ(answer.parsed[0].messageId, "ZVK0108I");
      const std::string& facts = answer.parsed[0].messageText;
      EXPECT_THAT(facts, ::testing::StartsWith("rank=" + std::to_string(taken.size())));
      return facts.substr(facts.find(" place=") + 7);
    };
    for (from = place("0"); !from.empty(); from = place("900")) {
      for (const int kind : {kStreamSearch, kScalarSearch}) {
        const Keys page =
            search("common OR word7 OR word8",
                   {{"sortField", order}, {"searchAfter", from}, {"size", "900"}}, kind)
                .keys();
        if (kind == 8) taken.insert(taken.end(), page.begin(), page.end());
        EXPECT_THAT(page, SizeIs(taken.size() == 2500 ? 700 : 900));
      }
      add("new", "common");
      expectSuccess(sendDocument(ClientRequest::DELETE_DOCUMENT, all[100], {}));
    }
    EXPECT_EQ(taken, all);
    update();
  }
}

TEST_P(Library, RefusesPagesOfAStateThatHasGone) {
  for (const char* key : {"k1", "k2", "k3"}) add(key, "red fox");
  update();
  const auto ask = [&](Parameters parameters) {
    parameters.insert(parameters.begin(), {{"report", "hits"}, {"query", "fox"}, {"size", "2"}});
    return send(ClientRequest::PARSE_RESULT, parameters);
  };
  const Answer first = ask({{"searchAfter", "begin"}});
  ASSERT_THAT(first.parsed, SizeIs(3));
  EXPECT_THAT(first.parsed[2].messageText, ::testing::StartsWith("rank=2 place="));
  const std::string place = first.parsed[2].messageText.substr(13);
  const Answer second = ask({{"searchAfter", place}});
  ASSERT_THAT(second.parsed, SizeIs(1));
  EXPECT_EQ(second.parsed[0].document, docIdOf("k3"));
  const auto searched = [&](const std::string& query) {
    ClientRequest request = requestTo(collection_, 8, {{"query", query}, {"searchAfter", place}});
    return send(request);
  };
  EXPECT_THAT(searched("fox").keys(), ElementsAre("k3"));
  expectRefused(searched("red"), "ZVK0006E", "another query");
  expectRefused(ask({{"searchAfter", place.substr(1)}}), "ZVK0006E", "\"searchAfter\"");
  add("k4", "fox");
  update();
  expectRefused(searched("fox"), "ZVK0035E", "begin it again");
  expectRefused(ask({{"searchAfter", place}}), "ZVK0035E", "begin it again");
}

// Reports.

TEST_P(Library, ListsCollections) {
  add("k1", "red fox");
  ClientRequest request;
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"report", u"collections");
  request.buildRequest(ClientRequest::PARSE_RESULT, properties);
  const Answer answer = send(request);
  expectSuccess(answer);
  ASSERT_THAT(answer.parsed, SizeIs(1)) << answer;
  EXPECT_EQ(answer.parsed[0].document, "books");
  EXPECT_EQ(answer.parsed[0].messageId, "ZVK0101I");
  EXPECT_EQ(answer.parsed[0].level, 8);
  EXPECT_THAT(answer.parsed[0].messageText,
              ::testing::MatchesRegex("documents=0 pending=1 bytes=[0-9]+ language=en_us "
                                      "refresh=manual mark=none"));
  EXPECT_EQ(send(ClientRequest::PARSE_RESULT, {{"report", "collection"}}).parsed, answer.parsed);
}

TEST_P(Library, TellsAClientTheOutcomesOfItsOwnDocuments) {
  const auto queueAs = [&](const char* name, const std::string& key) {
    ClientRequest request =
        requestTo(collection_, ClientRequest::ASYNCH_ADD_DOCUMENT, {{"client", name}});
    attachDocument(request, key, "fox");
    EXPECT_THAT(send(request).failure, IsEmpty());
  };
  queueAs("ada", "k1");
  queueAs("ben", "k2");
  queue("k3", "fox");
  queueAs("ada", std::string(129, 'k'));
  const auto told = [&](const Parameters& parameters) {
    ClientRequest request = requestTo(collection_, ClientRequest::PARSE_RESULT, parameters);
    return send(request).parsed;
  };
  ASSERT_THAT(told({}), SizeIs(1));
  EXPECT_THAT(told({{"client", "ben"}}), SizeIs(1));
  const auto ofAda = told({{"client", "ada"}});
  ASSERT_THAT(ofAda, SizeIs(2));
  EXPECT_EQ(ofAda[0].document, docIdOf("k1"));
  EXPECT_EQ(ofAda[1].messageId, "ZVK0012E");
  EXPECT_THAT(told({{"client", "ada"}}), IsEmpty());
}

// Batches.

// The bytes of a document as it would be sent.
std::string blockOf(const std::string& key, const std::string& text,
                    const std::list<tq::comm::KVPair>& metadata = {{u"title", u"untitled"}}) {
  ClientRequest request = requestTo("", ClientRequest::ADD_DOCUMENT);
  attachDocument(request, key, text, metadata);
  tq::comm::RESTMessage message(u"", request);
  return std::string(message.getMsgPrefix(), message.getMsgPrefixLen()) + text;
}

TEST_P(Library, AppliesABatchOnceAndWhole) {
  add("k1", "red fox");
  update();
  const std::string blocks =
      blockOf("k2", "grey fox") + std::string(8, '\0') + blockOf("k1", "") + blockOf("k9", "");
  const std::string key = "any";
  const auto apply = [&](const Parameters& parameters, const std::string& content) {
    ClientRequest request = requestTo(collection_, ClientRequest::ADD_DOCUMENT, parameters);
    attachDocument(request, key, content, {{u"-", u""}});
    return send(request);
  };
  const Parameters first{{"batch", "b-1"}, {"expectedMark", "none"}, {"newMark", "m 1"}};
  for (int i = 0; i < 2; ++i) expectSuccess(apply(first, blocks));
  const Answer told = send(ClientRequest::PARSE_RESULT, {{"batch", "b-1"}});
  ASSERT_THAT(told.parsed, SizeIs(1)) << told;
  EXPECT_EQ(told.parsed[0].document, "b-1");
  EXPECT_EQ(told.parsed[0].messageId, "ZVK0110I");
  EXPECT_EQ(told.parsed[0].messageText, "documents=1 deletions=2 unknown=1");
  update();
  EXPECT_THAT(search("fox").keys(), ElementsAre("k2"));
  EXPECT_THAT(send(ClientRequest::PARSE_RESULT, {{"report", "collection"}}).parsed[0].messageText,
              EndsWith(" mark=m 1"));
  expectRefused(apply({{"batch", "b-1"}}, blockOf("k3", "fox")), "ZVK0031E", "b-1");
  expectRefused(apply({{"batch", "b-2"}, {"expectedMark", "m 0"}}, blocks), "ZVK0032E", "m 1");
  expectRefused(
      apply({{"batch", "b-3"}}, blockOf("k3", "fox") + blockOf(std::string(129, 'k'), "")),
      "ZVK0030E", "129 bytes");
  EXPECT_THAT(send(ClientRequest::PARSE_RESULT, {{"batch", "b-3"}}).parsed, SizeIs(2));
  update();
  EXPECT_THAT(search("fox").keys(), ElementsAre("k2"));
}

// A mark needs no document, and so no key.
TEST_P(Library, SetsAMarkAlone) {
  done(ClientRequest::ADD_DOCUMENT, {{"batch", "adopt"}, {"newMark", "m"}});
  EXPECT_THAT(send(ClientRequest::PARSE_RESULT, {{"report", "collection"}}).parsed[0].messageText,
              EndsWith(" mark=m"));
}

TEST_P(Library, DeletesOnlyWhatExistsIfItIsToldSo) {
  add("k1", "red fox");
  const auto deletion = [&](const std::string& key) {
    ClientRequest request =
        requestTo(collection_, ClientRequest::DELETE_DOCUMENT, {{"mustExist", "true"}});
    attachDocument(request, key, {}, {{u"-", u""}});
    return send(request);
  };
  expectSuccess(deletion("k1"));
  expectRefused(deletion("k1"), "ZVK0034E", "k1");
}

TEST_P(Library, TellsWhatIsStoredOfHits) {
  add("k1", "a red fox", {{u"title", u"Reynard"}, {u"[sortable]year", u"1481"}});
  add("k2", "a hen");
  update();
  const Answer answer =
      send(ClientRequest::PARSE_RESULT,
           {{"report", "hits"}, {"query", "fox"}, {"values", "title,year"}, {"snippet", "50"}});
  expectSuccess(answer);
  std::vector<std::string> told;
  for (const Parsed& line : answer.parsed) {
    EXPECT_EQ(line.document, docIdOf("k1"));
    EXPECT_EQ(line.level, 8);
    told.push_back(line.messageId + " " + line.messageText);
  }
  EXPECT_THAT(told, ElementsAre("ZVK0104I score=1.000", "ZVK0105I title=Reynard",
                                "ZVK0105I year=1481", "ZVK0106I a red <b>fox</b>"));
}

TEST_P(Library, TellsLongValuesAndSnippetsOfHitsWhole) {
  std::string text;
  for (int i = 0; i < 500; ++i) text += "fox < " + std::to_string(i) + " ";
  const std::string title(2000, 'x');
  add("k1", text, {{u"title", icu::UnicodeString::fromUTF8(title)}});
  update();
  const Answer answer =
      send(ClientRequest::PARSE_RESULT,
           {{"report", "hits"}, {"query", "fox"}, {"values", "title"}, {"snippet", "4000"}});
  expectSuccess(answer);
  ASSERT_EQ(answer.parsed.size(), 3U);
  EXPECT_EQ(answer.parsed[1].messageText, "title=" + title);
  const std::string& snippet = answer.parsed[2].messageText;
  EXPECT_GT(snippet.size(), 4000U);
  const std::size_t last = snippet.rfind('<');
  ASSERT_NE(last, std::string::npos);
  EXPECT_EQ(snippet.substr(last, 4), "</b>");
}

TEST_P(Library, RanksTheHitsOfSeveralCollections) {
  const auto into = [&](const std::string& collection, const auto& work) {
    const std::string before = std::exchange(collection_, collection);
    work();
    collection_ = before;
  };
  into("magazines", [&] {
    done(ClientRequest::CREATE_COLLECTION);
    add("k1", "a fox");
    add("k2", "a fox among the hens of the whole village");
    update();
  });
  add("k1", "a fox and its den");
  update();
  const auto ask = [&](Parameters parameters) {
    parameters.insert(parameters.end(), {{"report", "hits"}, {"query", "fox"}});
    return send(ClientRequest::PARSE_RESULT, parameters);
  };
  const Answer answer = ask({{"alsoIn", "magazines"}});
  expectSuccess(answer);
  std::vector<std::string> told;
  for (const Parsed& line : answer.parsed) {
    told.push_back(line.document + line.messageText.substr(line.messageText.find(' ')));
  }
  EXPECT_THAT(told, ElementsAre(docIdOf("k1") + " collection=magazines",
                                docIdOf("k1") + " collection=books",
                                docIdOf("k2") + " collection=magazines"));
  into("magazines", [&] { done(ClientRequest::DROP_COLLECTION); });
  expectRefused(ask({{"alsoIn", "magazines"}}), "ZVK0007E", "\"magazines\"");
  expectRefused(send(ClientRequest::SCALAR_SEARCH, {{"query", "fox"}, {"alsoIn", "magazines"}}),
                "ZVK0024E", "\"alsoIn\"");
}

TEST_P(Library, CountsHits) {
  addMany(300);
  const auto count = [&](Parameters parameters) {
    parameters.emplace_back("report", "count");
    const Answer answer = send(ClientRequest::PARSE_RESULT, parameters);
    expectSuccess(answer);
    return answer.parsed.empty() ? "" : answer.parsed[0].messageText;
  };
  EXPECT_EQ(count({}), "hits=300");
  EXPECT_EQ(count({{"query", "NOT word7"}}), "hits=299");
  EXPECT_EQ(count({{"query", "common"}, {"after", docIdOf("d00289")}}), "hits=10");
}

TEST_P(Library, GivesDigestsOfRangesOfDocuments) {
  addMany(25);
  const auto digest = [&](Parameters parameters) {
    parameters.emplace_back("report", "digest");
    const Answer answer = send(ClientRequest::PARSE_RESULT, parameters);
    expectSuccess(answer);
    return answer.parsed;
  };
  const auto before = digest({{"every", "10"}});
  ASSERT_THAT(before, SizeIs(3));
  EXPECT_EQ(before[0].document, docIdOf("d00009"));
  EXPECT_EQ(before[2].document, docIdOf("d00024"));
  EXPECT_THAT(before[0].messageText, StartsWith("documents=10 sha256="));
  EXPECT_THAT(before[2].messageText, StartsWith("documents=5 sha256="));
  EXPECT_EQ(digest({{"after", docIdOf("d00009")}, {"every", "10"}, {"size", "1"}}),
            std::vector<Parsed>{before[1]});
  add("d00012", "another text");
  update();
  const auto now = digest({{"every", "10"}});
  ASSERT_THAT(now, SizeIs(3));
  EXPECT_EQ(now[0], before[0]);
  EXPECT_NE(now[1].messageText, before[1].messageText);
  EXPECT_EQ(now[2], before[2]);
  EXPECT_THAT(digest({}), SizeIs(1));
}

// Matching texts that are not stored.

TEST_P(Library, MatchesATextThatIsNotStored) {
  add("k1", "red fox");
  update();
  const std::string key = "row";
  for (const int kind : {kStreamSearch, kScalarSearch}) {
    const auto match = [&](const std::string& query, const std::string& text) {
      ClientRequest request = requestTo(
          collection_, kind, {{"query", query}, {"match", "document"}, {"scoreWanted", "true"}});
      attachDocument(request, key, text);
      return send(request);
    };
    const Answer yes = match("hens title:untitled", "a hen");
    expectSuccess(yes);
    EXPECT_TRUE(yes.complete);
    EXPECT_THAT(yes.hits, ElementsAre(Hit{docIdOf("row"), 1.0}));
    const Answer no = match("fox", "a hen");
    expectSuccess(no);
    EXPECT_TRUE(no.complete);
    EXPECT_THAT(no.hits, IsEmpty());
    expectRefused(match("red AND", "a hen"), "ZVK0010E", "query cannot be understood");
  }
  EXPECT_THAT(found("hen"), IsEmpty());
  EXPECT_EQ(send(ClientRequest::GET_STATUS).statusCode, kReady);
}

TEST_P(Library, MatchesManyTextsAtOnceWithTheScoresOfASearch) {
  add("k1", "red fox");
  add("k2", "grey goose and fox");
  update();
  const auto text = [](int i) {
    return (i % 2 == 0 ? "fox " : "hen ") + std::string(static_cast<std::size_t>(i % 7), 'x');
  };
  std::string texts;
  for (int i = 0; i < 3000; ++i) texts += blockOf(numbered(i), text(i));
  const Parameters parameters{{"query", "fox"}, {"scoreWanted", "true"}, {"scoreType", "raw"}};
  Parameters matching = parameters;
  matching.emplace_back("match", "documents");
  ClientRequest request = requestTo(collection_, ClientRequest::STREAM_SEARCH, matching);
  const std::string name = "texts";
  attachDocument(request, name, texts);
  const Answer matched = send(request);
  expectSuccess(matched);
  EXPECT_TRUE(matched.complete);
  EXPECT_THAT(matched.hits, SizeIs(1500));
  for (int i = 0; i < 3000; ++i) queue(numbered(i), text(i));
  update();
  std::vector<Hit> expected = search("fox", {{"scoreWanted", "true"}, {"scoreType", "raw"}}).hits;
  std::erase_if(expected, [](const Hit& hit) { return keyOf(hit.id).starts_with('k'); });
  EXPECT_EQ(matched.hits, expected);
}

TEST_P(Library, SaysWhichOfTheTextsCannotBeRead) {
  ClientRequest request = requestTo(collection_, ClientRequest::STREAM_SEARCH,
                                    {{"query", "fox"}, {"match", "documents"}});
  const std::string name = "texts", texts = blockOf("a", "fox") + blockOf("a", "fox");
  attachDocument(request, name, texts);
  expectRefused(send(request), "ZVK0012E", "document 2: an earlier one has the same key");
  ClientRequest none = requestTo(collection_, ClientRequest::STREAM_SEARCH,
                                 {{"query", "fox"}, {"match", "document"}});
  expectRefused(send(none), "ZVK0012E", "carries no document");
}

// Everything else.

TEST_P(Library, EstimatesAsTheProtocolAllows) {
  for (const char* key : {"a", "b", "c"}) add(key, "owl");
  add("d", "hen");
  update();
  const Answer answer = send(ClientRequest::SELECTIVITY, {{"query", "owl"}});
  expectSuccess(answer);
  if (GetParam() == Protocol::Binary) {
    EXPECT_THAT(answer.selectivity, ElementsAre(3, 3, 4));
  } else {
    EXPECT_THAT(answer.selectivity, ElementsAre(1, 1, 100));
  }
}

TEST_P(Library, EstimatesWithinABudget) {
  addMany(200);
  const auto estimate = [&](const char* exactHits) {
    const Answer answer =
        send(ClientRequest::SELECTIVITY, {{"query", "NOT word7"}, {"exactHits", exactHits}});
    expectSuccess(answer);
    return answer.selectivity;
  };
  if (GetParam() == Protocol::Binary) {
    EXPECT_EQ(estimate("200")[0], 199);
    EXPECT_LE(estimate("0")[0], 200);
  } else {
    EXPECT_THAT(estimate("200"), ElementsAre(1, 1, 100));
  }
}

TEST_P(Library, TellsTheStatusOfACollection) {
  EXPECT_EQ(send(ClientRequest::GET_STATUS).statusCode, kReady);
  add("k1", "fox");
  const Answer waiting = send(ClientRequest::GET_STATUS);
  expectSuccess(waiting);
  EXPECT_EQ(waiting.statusCode, kChangesWait);
  update();
  EXPECT_EQ(send(ClientRequest::GET_STATUS).statusCode, kReady);
  collection_ = "elsewhere";
  const Answer missing = send(ClientRequest::GET_STATUS);
  EXPECT_TRUE(missing.success) << missing;
  EXPECT_EQ(missing.statusCode, kNotAvailable);
  collection_ = "books";
}

TEST_P(Library, TellsTheStatusOfTheServer) {
  ClientRequest request;
  request.buildRequest(ClientRequest::GET_STATUS, {});
  const Answer answer = send(request);
  expectSuccess(answer);
  EXPECT_EQ(answer.statusCode, kReady);
}

TEST_P(Library, TellsTheVersionWhereTheProtocolCarriesIt) {
  ClientRequest request;
  request.buildRequest(ClientRequest::GET_SERVER_VERSION, {});
  const Answer answer = send(request);
  expectSuccess(answer);
  if (GetParam() == Protocol::Binary) {
    EXPECT_EQ(answer.content, CORVANED_VERSION);
  } else {
    EXPECT_EQ(answer.content, "");
  }
}

// Errors.

TEST_P(Library, NamesACollectionThatIsNotThere) {
  collection_ = "elsewhere";
  for (const int kind : {kDropCollection, kUpdateIndex, kParseResult, kOpenCollection,
                         kCloseCollection, kOpenCollectionAlt}) {
    expectRefused(send(kind), "ZVK0007E", "there is no collection \"elsewhere\"");
  }
  for (const int kind : {kStreamSearch, kSelectivity, kScalarSearch}) {
    expectRefused(send(kind, {{"query", "fox"}}), "ZVK0007E", "\"elsewhere\"");
  }
  for (const int kind : {kAddDocument, kDeleteDocument}) {
    expectRefused(sendDocument(kind, "k1", "fox"), "ZVK0007E", "\"elsewhere\"");
  }
  collection_ = "books";
}

TEST_P(Library, SaysWhichParameterIsMissing) {
  for (const int kind : {kStreamSearch, kSelectivity, kScalarSearch}) {
    expectRefused(send(kind), "ZVK0005E", "the parameter \"query\" is missing");
  }
  for (const int kind : {kCreateCollection, kDropCollection, kAddDocument, kUpdateIndex,
                         kDeleteDocument, kStreamSearch, kParseResult, kOpenCollection,
                         kCloseCollection, kSelectivity, kScalarSearch, kOpenCollectionAlt}) {
    ClientRequest request;
    request.buildRequest(static_cast<ClientRequest::REQUEST>(kind), {});
    expectRefused(send(request), "ZVK0005E", "the parameter \"index\" is missing");
  }
}

TEST_P(Library, ExplainsABadQuery) {
  for (const int kind : {kStreamSearch, kSelectivity, kScalarSearch}) {
    expectRefused(send(kind, {{"query", "red AND"}}), "ZVK0010E", "query cannot be understood");
  }
  expectRefused(send(8, {{"query", std::string(20000, 'x')}}), "ZVK0011E", "20000 bytes");
}

TEST_P(Library, SaysWhichValueIsWrong) {
  expectRefused(send(8, {{"query", "x"}, {"start", "first"}}), "ZVK0006E", "\"start\"");
  expectRefused(send(8, {{"query", "x"}, {"size", "-1"}}), "ZVK0006E", "\"size\"");
  expectRefused(send(8, {{"query", "x"}, {"resultLimit", "18446744073709551616"}}), "ZVK0006E",
                "\"resultLimit\"");
  expectRefused(send(20, {{"query", "x"}, {"scoreWanted", "maybe"}}), "ZVK0006E", "\"maybe\"");
}

TEST_P(Library, NamesAParameterThatAnActionDoesNotTake) {
  expectRefused(send(ClientRequest::STREAM_SEARCH, {{"query", "x"}, {"pageNumber", "2"}}),
                "ZVK0024E", "\"pageNumber\"");
  expectRefused(send(ClientRequest::UPDATE_INDEX, {{"nonsense", "1"}}), "ZVK0024E", "\"nonsense\"");
  ClientRequest queued =
      requestTo(collection_, ClientRequest::ASYNCH_ADD_DOCUMENT, {{"charset", "klingon"}});
  const std::string key = "k1", text = "fox";
  attachDocument(queued, key, text);
  send(queued);
  const Answer answer = send(ClientRequest::PARSE_RESULT);
  ASSERT_THAT(answer.parsed, SizeIs(1)) << answer;
  EXPECT_EQ(answer.parsed[0].document, docIdOf("k1"));
  EXPECT_EQ(answer.parsed[0].messageId, "ZVK0006E");
  EXPECT_THAT(answer.parsed[0].messageText, HasSubstr("\"charset\""));
}

TEST_P(Library, TakesWhatSaysWhatTheServerDoesInAnyCase) {
  done(ClientRequest::OPEN_COLLECTION, {{"scope", "collection"}, {"conPersist", "true"}});
  done(ClientRequest::UPDATE_INDEX, {{"incremental", "true"}, {"locale", "en_US"}});
  done(ClientRequest::STREAM_SEARCH, {{"query", "x"}, {"sortField", "SCORE"}, {"output", "rdx"}});
}

TEST_P(Library, ComparesVersions) {
  const auto validate = [&](const Parameters& parameters) {
    ClientRequest request;
    tq::util::ExtendedProperties properties;
    for (const auto& [name, value] : parameters) {
      properties.putProperty(fromUtf8(name), fromUtf8(value));
    }
    request.buildRequest(ClientRequest::VERSIONS_VALIDATION, properties);
    return send(request);
  };
  expectSuccess(validate({{"Implementation-Version", CORVANED_VERSION},
                          {"Supported-Server-Versions", "0.1," CORVANED_VERSION}}));
  expectRefused(validate({{"Implementation-Version", "0.1"}}), "ZVK0025E", "\"0.1\"");
  expectRefused(validate({{"Supported-Server-Versions", "0.1"}}), "ZVK0025E", CORVANED_VERSION);
}

TEST_P(Library, ShutsTheServerDown) {
  CorvanedProcess server;
  const std::unique_ptr<CorvaneRESTClient> client = newClient(GetParam(), server);
  ClientRequest ofACollection = requestTo("books", ClientRequest::SHUTDOWN);
  expectRefused(ask(*client, ofACollection), "ZVK0024E", "\"index\"");
  ClientRequest request;
  request.buildRequest(ClientRequest::SHUTDOWN, {});
  expectSuccess(ask(*client, request));
  EXPECT_EQ(server.awaitEnd(), 0);
}

TEST_P(Library, RefusesActionsThatTheServerHasNot) {
  expectRefused(send(kTakeover), "ZVK0004E", "not supported by this server");
  for (const int kind : {kBackup, kRestore}) {
    expectRefused(send(kind, {{"backup", "b"}}), "ZVK0004E", "--backup-directory");
  }
  expectRefused(send(25), "ZVK0003E", "names no action");
}

TEST_P(Library, KeepsItsConnectionThroughErrors) {
  add("k1", "fox");
  update();
  for (int round = 0; round < 20; ++round) {
    expectRefused(send(8, {{"query", "red AND"}}), "ZVK0010E", "query");
    EXPECT_THAT(found("fox"), ElementsAre("k1"));
  }
}

// The server has said no before the client has sent all, and the client reads it when it has.
// Nobody has the secret of a token without a hash.
TEST_P(Library, IsToldThatATokenIsWrongHoweverLargeTheDocument) {
  const TemporaryDirectory directory;
  const std::filesystem::path users = directory.path() / "users";
  std::ofstream(users) << "token t x\nallow t admin *\n";
  std::filesystem::permissions(
      users, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  CorvanedProcess server({"--users", users.string()});
  const std::unique_ptr<CorvaneRESTClient> client = newClient(GetParam(), server);
  const std::string key = "k1";
  std::string text;
  text.resize(12000000, 'x');
  for (const char* token : {"Bearer t.wrong", "nonsense", "Bearer t.wrong"}) {
    ClientRequest addition = requestTo("c", ClientRequest::ADD_DOCUMENT, {{"authToken", token}});
    attachDocument(addition, key, text);
    const Answer answer = ask(*client, addition);
    ASSERT_THAT(answer.failure, ::testing::Not(IsEmpty())) << token;
    EXPECT_EQ(answer.failure[0].id, "ERR_SERVER_INVALID_AUTH") << token;
  }
}

TEST_P(Library, ReachesAServerThatWasStartedAgain) {
  CorvanedProcess server;
  std::unique_ptr<CorvaneRESTClient> client = newClient(GetParam(), server);
  ClientRequest create = requestTo("c", ClientRequest::CREATE_COLLECTION);
  expectSuccess(ask(*client, create));
  ClientRequest addition = requestTo("c", ClientRequest::ADD_DOCUMENT);
  const std::string key = "k1", text = "fox";
  attachDocument(addition, key, text);
  expectSuccess(ask(*client, addition));
  server.kill();
  ClientRequest status = requestTo("c", ClientRequest::GET_STATUS);
  const Answer dead = ask(*client, status);
  ASSERT_THAT(dead.failure, ::testing::Not(IsEmpty()));
  EXPECT_EQ(dead.failure[0].id, "ERR_CONNECT_SERVER");
  server.start();
  client = newClient(GetParam(), server);
  EXPECT_EQ(ask(*client, status).statusCode, kChangesWait);
  ClientRequest update = requestTo("c", ClientRequest::UPDATE_INDEX);
  expectSuccess(ask(*client, update));
  ClientRequest query = requestTo("c", ClientRequest::STREAM_SEARCH, {{"query", "fox"}});
  EXPECT_THAT(ask(*client, query).keys(), ElementsAre("k1"));
}

}  // namespace
}  // namespace tq::test
