#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "server/front/dispatcher.h"
#include "server/front/replyEncoder.h"
#include "tests/server/front/mockStore.h"
#include "tests/server/requestBytes.h"

namespace corvaned {
namespace {

using ::testing::_;
using ::testing::AllOf;
using ::testing::DoAll;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::Return;
using ::testing::SaveArg;
using ::testing::StrictMock;
using ::testing::Throw;

using Line = ReportReply::Line;

class ReportsTest : public ::testing::Test {
 protected:
  Reply ask(test::Headers headers) {
    headers["action"] = "getParseResult";
    Request request;
    request.headers.insert(headers.begin(), headers.end());
    return dispatcher_.handle(std::move(request));
  }

  std::vector<Line> lines(const test::Headers& headers) {
    const Reply reply = ask(headers);
    if (const auto* report = std::get_if<ReportReply>(&reply)) return report->lines;
    ADD_FAILURE() << "no report but " << reply.index();
    return {};
  }

  std::string error(const test::Headers& headers) {
    const Reply reply = ask(headers);
    const auto* refused = std::get_if<ErrorReply>(&reply);
    return refused ? refused->id + " " + refused->text : "none";
  }

  // Makes the store hold these.
  void expectVisit(const std::vector<Document>& documents) {
    EXPECT_CALL(store_, visit("c", _, _))
        .WillOnce([documents](const std::string&, const SearchQuery& query, const auto& take) {
          EXPECT_EQ(query.order, HitOrder::Key);
          EXPECT_TRUE(query.everything);
          for (const Document& document : documents) take(document);
        });
  }

  StrictMock<test::MockStore> store_;
  Dispatcher dispatcher_{store_, "9.8.7"};
};

TEST_F(ReportsTest, CollectionsAreToldWithTheirFacts) {
  EXPECT_CALL(store_, collections("", 100U)).WillOnce(Return(std::vector<std::string>{"a", "b"}));
  EXPECT_CALL(store_, summary("a"))
      .WillOnce(Return(CollectionSummary{1, 2, 3, "en_us", "manual", "m 1"}));
  EXPECT_CALL(store_, summary("b"))
      .WillOnce(Throw(ServerError(ErrorKind::StorageFailed, "the file x is damaged")));
  const std::vector<Line> told = lines({{"report", "collections"}});
  ASSERT_EQ(told.size(), 2U);
  EXPECT_EQ(told[0].subject, "a");
  EXPECT_EQ(told[0].messageId, "ZVK0101I");
  EXPECT_EQ(told[0].messageText,
            "documents=1 pending=2 bytes=3 language=en_us refresh=manual mark=m 1");
  EXPECT_EQ(told[1].subject, "b");
  EXPECT_EQ(told[1].messageId, "ZVK0014E");
  EXPECT_EQ(told[1].messageText, "the file x is damaged");
}

TEST_F(ReportsTest, OneCollectionIsToldOrRefused) {
  EXPECT_CALL(store_, summary("a"))
      .WillOnce(Return(CollectionSummary{1, 2, 3, "de", "250"}))
      .WillOnce(Throw(ServerError(ErrorKind::StorageFailed, "the file x is damaged")));
  const test::Headers request{{"report", "collection"}, {"index", "a"}};
  const std::vector<Line> told = lines(request);
  ASSERT_EQ(told.size(), 1U);
  EXPECT_EQ(told[0].messageText, "documents=1 pending=2 bytes=3 language=de refresh=250 mark=none");
  EXPECT_EQ(error(request), "ZVK0014E the file x is damaged");
}

TEST_F(ReportsTest, OptionsOfACollectionAreToldUnlessTheyAreAsUsual) {
  CollectionSummary summary{1, 2, 3, "de"};
  summary.options = {false, false, false, true, {"der", "die"}};
  EXPECT_CALL(store_, summary("a")).WillOnce(Return(summary));
  const std::vector<Line> told = lines({{"report", "collection"}, {"index", "a"}});
  ASSERT_EQ(told.size(), 1U);
  EXPECT_EQ(told[0].messageText,
            "documents=1 pending=2 bytes=3 language=de storeText=false storePositions=false "
            "stemming=false searchableMetadata=marked stopWords=2 refresh= mark=none");
}

TEST_F(ReportsTest, DefaultsOfDocumentsAreToldWhereSomebodyHasSetThem) {
  const auto told = [&](const DocumentReading& defaults) {
    CollectionSummary summary{1, 2, 3, "en", "manual"};
    summary.documentDefaults = defaults;
    EXPECT_CALL(store_, summary("a")).WillOnce(Return(summary));
    return lines({{"report", "collection"}, {"index", "a"}}).at(0).messageText;
  };
  EXPECT_THAT(told({{TextType::Html, "de"}, "windows-1252"}),
              HasSubstr(" language=en docType=html charset=windows-1252 docLang=de refresh="));
  EXPECT_THAT(told({{TextType::Xml, ""}, ""}), HasSubstr(" language=en docType=xml refresh="));
}

TEST_F(ReportsTest, MemoryOfHitsIsSetAsideUntilTheReplyIsOver) {
  const auto memory = std::make_shared<int>(0);
  HitDetails one{{"k1", 532}};
  one.memory = memory;
  EXPECT_CALL(store_, details("a", _, _)).WillOnce([&](const auto&, const auto&, const auto&) {
    return std::vector<HitDetails>{std::move(one)};
  });
  Reply reply = ask({{"report", "hits"}, {"index", "a"}, {"query", "fox"}});
  EXPECT_EQ(memory.use_count(), 2);
  auto encoder = encode(Framing::Http, std::move(reply));
  EXPECT_EQ(memory.use_count(), 2);
  encoder.reset();
  EXPECT_EQ(memory.use_count(), 1);
  auto binary = encode(Framing::Binary, ReportReply{{}, memory});
  EXPECT_EQ(memory.use_count(), 2);
  binary.reset();
  EXPECT_EQ(memory.use_count(), 1);
}

TEST_F(ReportsTest, HitsAreToldWithWhatIsStoredOfThem) {
  SearchQuery seen;
  DetailsWanted wanted;
  EXPECT_CALL(store_, details("a", ::testing::_, ::testing::_))
      .WillOnce(::testing::DoAll(
          ::testing::SaveArg<1>(&seen), ::testing::SaveArg<2>(&wanted),
          Return(std::vector<HitDetails>{
              {{"k1", 532}, {{"year", "1851"}, {"title", "a=b"}}, "a <b>fox</b>"}, {{"k2", 7}}})));
  const std::vector<Line> told = lines({{"report", "hits"},
                                        {"index", "a"},
                                        {"query", "fox"},
                                        {"start", "3"},
                                        {"size", "2"},
                                        {"values", "year, title, year"},
                                        {"snippet", "80"}});
  EXPECT_EQ(seen.text, "fox");
  EXPECT_EQ(seen.order, HitOrder::Score);
  EXPECT_EQ(seen.start, 3U);
  EXPECT_EQ(seen.size, 2U);
  EXPECT_THAT(wanted.names, ElementsAre("title", "year"));
  EXPECT_EQ(wanted.snippetBytes, 80U);
  const std::vector<std::array<std::string, 3>> expected{
      {"base64:azE=", "ZVK0104I", "score=0.532"},
      {"base64:azE=", "ZVK0105I", "year=1851"},
      {"base64:azE=", "ZVK0105I", "title=a=b"},
      {"base64:azE=", "ZVK0106I", "a <b>fox</b>"},
      {"base64:azI=", "ZVK0104I", "score=0.007"}};
  ASSERT_EQ(told.size(), expected.size());
  for (std::size_t i = 0; i < told.size(); ++i) {
    EXPECT_EQ((std::array{told[i].subject, told[i].messageId, told[i].messageText}), expected[i]);
  }
}

TEST_F(ReportsTest, HitsNeedAQueryOnlyWhereTheyHaveScores) {
  EXPECT_THAT(error({{"report", "hits"}, {"index", "a"}}), HasSubstr("\"query\""));
  SearchQuery seen;
  EXPECT_CALL(store_, details("a", ::testing::_, ::testing::_))
      .WillOnce(::testing::DoAll(::testing::SaveArg<1>(&seen), Return(std::vector<HitDetails>{})));
  EXPECT_TRUE(lines({{"report", "hits"}, {"index", "a"}, {"sortField", "-year"}}).empty());
  EXPECT_TRUE(seen.everything);
  EXPECT_EQ(seen.sortBy, "year");
  EXPECT_EQ(seen.size, 10U);
}

TEST_F(ReportsTest, HitsInPagesAreFollowedByThePlaceOfTheNext) {
  const ResultPlace place{{1, 2, 3}, "query", 12, 0.5, "k2"};
  HitDetails last{{"k2", 7}};
  last.nextPage = place;
  SearchQuery first;
  SearchQuery second;
  EXPECT_CALL(store_, details("a", _, _))
      .WillOnce(DoAll(SaveArg<1>(&first), Return(std::vector<HitDetails>{{{"k1", 532}}, last})))
      .WillOnce(DoAll(SaveArg<1>(&second), Return(std::vector<HitDetails>{{{"k3", 1}}})));
  test::Headers request{{"report", "hits"},       {"index", "a"}, {"query", "fox"},
                        {"searchAfter", "begin"}, {"size", "2"},  {"keys", "azE=,azI=,azM="},
                        {"resultLimit", "50"}};
  const std::vector<Line> told = lines(request);
  ASSERT_EQ(told.size(), 3U);
  EXPECT_EQ(told[2].subject, "a");
  EXPECT_EQ(told[2].messageId, "ZVK0108I");
  EXPECT_EQ(told[2].messageText, "rank=12 place=" + textOf(place));
  EXPECT_TRUE(first.inPages);
  EXPECT_FALSE(first.from);
  EXPECT_THAT(first.keys, ElementsAre("k1", "k2", "k3"));
  EXPECT_EQ(first.limit, 50U);
  request["searchAfter"] = textOf(place);
  EXPECT_EQ(lines(request).size(), 1U) << "there is no further page";
  EXPECT_TRUE(second.inPages);
  ASSERT_TRUE(second.from);
  EXPECT_EQ(textOf(*second.from), textOf(place));
}

TEST_F(ReportsTest, HitsOfSeveralCollectionsAreToldWithTheirs) {
  HitDetails first{{"k1", 1000}, {{"year", "1851"}}};
  first.collection = "my books";
  HitDetails second{{"k1", 999}};
  second.collection = "a";
  EXPECT_CALL(store_, details(std::vector<std::string>{"a", "my books", "b"},
                              Field(&SearchQuery::text, "fox"), _))
      .WillOnce(Return(std::vector<HitDetails>{first, second}));
  const std::vector<Line> told =
      lines({{"report", "hits"}, {"index", "a"}, {"alsoIn", ",my books,,b"}, {"query", "fox"}});
  ASSERT_EQ(told.size(), 3U);
  EXPECT_EQ(told[0].subject, "base64:azE=");
  EXPECT_EQ(told[0].messageId, "ZVK0104I");
  EXPECT_EQ(told[0].messageText, "score=1.000 collection=my books");
  EXPECT_EQ(told[1].messageText, "year=1851");
  EXPECT_EQ(told[2].subject, "base64:azE=");
  EXPECT_EQ(told[2].messageText, "score=0.999 collection=a");
}

TEST_F(ReportsTest, SeveralCollectionsAreOnlyForHitsAndNotForPages) {
  for (const char* report : {"count", "digest", "place", "collection", "collections"}) {
    test::Headers request{{"report", report}, {"alsoIn", "b"}};
    if (std::string(report) != "collections") request["index"] = "a";
    EXPECT_THAT(error(request),
                AllOf(HasSubstr("ZVK0024E"), HasSubstr("\"alsoIn\""), HasSubstr(report)));
  }
  EXPECT_THAT(error({{"alsoIn", "b"}, {"index", "a"}}),
              AllOf(HasSubstr("ZVK0024E"), HasSubstr("\"alsoIn\" without \"report\"")));
  EXPECT_THAT(error({{"report", "hits"},
                     {"index", "a"},
                     {"alsoIn", "b"},
                     {"query", "fox"},
                     {"searchAfter", "begin"}}),
              AllOf(HasSubstr("ZVK0024E"), HasSubstr("\"searchAfter\" beside \"alsoIn\"")));
}

TEST_F(ReportsTest, CollectionsThatAreSearchedTogetherMustBeFewAndDiffer) {
  const auto refused = [&](const std::string& alsoIn) {
    return error({{"report", "hits"}, {"index", "a"}, {"alsoIn", alsoIn}, {"query", "fox"}});
  };
  EXPECT_THAT(refused("b,a"),
              AllOf(HasSubstr("ZVK0006E"), HasSubstr("\"alsoIn\""), HasSubstr("\"a\" twice")));
  EXPECT_THAT(refused("b,c,b"), HasSubstr("\"b\" twice"));
  EXPECT_THAT(refused(",,"), AllOf(HasSubstr("ZVK0006E"), HasSubstr("\"alsoIn\"")));
  std::string most = "c1";
  for (int i = 2; i < 32; ++i) most += ",c" + std::to_string(i);
  EXPECT_CALL(
      store_,
      details(::testing::Matcher<const std::vector<std::string>&>(::testing::SizeIs(32)), _, _));
  EXPECT_EQ(refused(most), "none");
  EXPECT_THAT(refused(most + ",c32"), AllOf(HasSubstr("\"alsoIn\""), HasSubstr("at most 32")));
  EXPECT_THAT(error({{"report", "hits"}, {"alsoIn", "b"}, {"query", "fox"}}),
              AllOf(HasSubstr("ZVK0005E"), HasSubstr("\"index\"")));
}

// It takes the last of the hits before the place to know it, and none for the place that is given.
TEST_F(ReportsTest, PlaceIsTheOneAfterSoManyHits) {
  const ResultPlace place{{1, 2, 3}, "query", 12, 0.5, "k2"};
  const auto expectSearch = [&](std::uint64_t start, std::uint64_t size, bool found) {
    EXPECT_CALL(
        store_,
        search("a", AllOf(Field(&SearchQuery::inPages, true), Field(&SearchQuery::start, start),
                          Field(&SearchQuery::size, size), Field(&SearchQuery::text, "fox"))))
        .WillOnce([=](const std::string&, const SearchQuery&) {
          return std::make_unique<test::NoHits>(found ? std::optional(place) : std::nullopt);
        })
        .RetiresOnSaturation();
  };
  test::Headers request{{"report", "place"}, {"index", "a"}, {"query", "fox"}};
  expectSearch(0, 0, true);
  const std::vector<Line> told = lines(request);
  ASSERT_EQ(told.size(), 1U);
  EXPECT_EQ(told[0].subject, "a");
  EXPECT_EQ(told[0].messageId, "ZVK0108I");
  EXPECT_EQ(told[0].messageText, "rank=12 place=" + textOf(place));
  expectSearch(9, 1, true);
  request["start"] = "10";
  EXPECT_EQ(lines(request).size(), 1U);
  expectSearch(9, 1, false);
  EXPECT_TRUE(lines(request).empty()) << "there are not so many hits";
}

TEST_F(ReportsTest, PlacesThatTheServerHasNotToldAreRefused) {
  for (const char* report : {"hits", "place"}) {
    for (const std::string place : {"Begin", "azE=", "12"}) {
      EXPECT_THAT(
          error({{"report", report}, {"index", "a"}, {"query", "fox"}, {"searchAfter", place}}),
          AllOf(HasSubstr("ZVK0006E"), HasSubstr("\"searchAfter\""), HasSubstr(place)));
    }
  }
}

TEST_F(ReportsTest, ProgressOfAnUpdateIsToldWhileThereIsOne) {
  CollectionSummary summary{1, 2, 3, "de"};
  summary.indexed = 1200;
  summary.indexing = 50000;
  EXPECT_CALL(store_, summary("a")).WillOnce(Return(summary));
  EXPECT_EQ(lines({{"report", "collection"}, {"index", "a"}}).at(0).messageText,
            "documents=1 pending=2 bytes=3 language=de refresh= indexing=1200/50000 mark=none");
}

TEST_F(ReportsTest, BackupsAreToldWithTheirFactsOrTheirDamage) {
  EXPECT_CALL(store_, backups("a", 7U))
      .WillOnce(Return(std::vector<BackupSummary>{{"b", "2026-11-22T06:00:00Z", 2, 81920, ""},
                                                  {"c", "", 0, 0, "BACKUP is damaged"}}));
  const std::vector<Line> told = lines({{"report", "backups"}, {"after", "a"}, {"size", "7"}});
  ASSERT_EQ(told.size(), 2U);
  EXPECT_EQ(told[0].subject, "b");
  EXPECT_EQ(told[0].messageId, "ZVK0107I");
  EXPECT_EQ(told[0].messageText, "made=2026-11-22T06:00:00Z collections=2 bytes=81920");
  EXPECT_EQ(told[1].messageId, "ZVK0014E");
  EXPECT_EQ(told[1].messageText, "BACKUP is damaged");
}

TEST_F(ReportsTest, CollectionsComeInPages) {
  EXPECT_CALL(store_, collections("m", 7U)).WillOnce(Return(std::vector<std::string>{}));
  EXPECT_TRUE(lines({{"report", "collections"}, {"after", "m"}, {"size", "7"}}).empty());
}

// A report without a line would say that the list ends here.
TEST_F(ReportsTest, CollectionsThatAreGoneMeanwhileAreLeftOut) {
  const ServerError unknown(ErrorKind::UnknownCollection, "there is no such collection");
  EXPECT_CALL(store_, collections("", 2U)).WillOnce(Return(std::vector<std::string>{"a", "b"}));
  EXPECT_CALL(store_, collections("b", 2U)).WillOnce(Return(std::vector<std::string>{"c", "d"}));
  for (const char* name : {"a", "b", "d"}) {
    EXPECT_CALL(store_, summary(name)).WillOnce(Throw(unknown));
  }
  EXPECT_CALL(store_, summary("c")).WillOnce(Return(CollectionSummary{1, 2, 3, "de", "250"}));
  const std::vector<Line> told = lines({{"report", "collections"}, {"size", "2"}});
  ASSERT_EQ(told.size(), 1U);
  EXPECT_EQ(told[0].subject, "c");
}

TEST_F(ReportsTest, CountIsTheStores) {
  EXPECT_CALL(store_, count("c", AllOf(Field(&SearchQuery::text, "fox"),
                                       Field(&SearchQuery::everything, false),
                                       Field(&SearchQuery::after, "k1"))))
      .WillOnce(Return(5));
  const std::vector<Line> told =
      lines({{"report", "count"}, {"index", "c"}, {"query", "fox"}, {"after", "base64:azE="}});
  ASSERT_EQ(told.size(), 1U);
  EXPECT_EQ(told[0].messageId, "ZVK0102I");
  EXPECT_EQ(told[0].messageText, "hits=5");
}

// The sums were made with another program from the bytes that the protocol prescribes.
TEST_F(ReportsTest, DigestIsThatOfTheBlocksAsClientsSendThem) {
  expectVisit({{"k1", {{"a", "bc"}}, "hi"}, {"k2", {}, ""}, {"k3", {}, "x"}});
  const std::vector<Line> told = lines({{"report", "digest"}, {"index", "c"}, {"every", "2"}});
  ASSERT_EQ(told.size(), 2U);
  EXPECT_EQ(told[0].subject, "base64:azI=");
  EXPECT_EQ(told[0].messageId, "ZVK0103I");
  EXPECT_EQ(told[0].messageText,
            "documents=2 sha256=c21073feabb2a2bff851fa08bbf570ba506a1ed0836299d38dd7cdd078b39337");
  EXPECT_EQ(told[1].subject, "base64:azM=");
  EXPECT_EQ(told[1].messageText,
            "documents=1 sha256=178565d356268345915765a09f3a5d865455bbb25134dabc9d0009f89c520c61");
}

TEST_F(ReportsTest, DigestTakesNoMoreDocumentsThanItsLinesHold) {
  const auto expectSize = [&](std::uint64_t size) {
    EXPECT_CALL(store_, visit("c", Field(&SearchQuery::size, size), _)).RetiresOnSaturation();
  };
  const std::uint64_t all = SearchQuery{}.size;
  expectSize(20);
  lines({{"report", "digest"}, {"index", "c"}, {"every", "4"}, {"size", "5"}});
  expectSize(all);
  lines({{"report", "digest"}, {"index", "c"}});
  expectSize(all);
  lines({{"report", "digest"}, {"index", "c"}, {"every", "18446744073709551615"}});
  // Of a collection that is unknown, or keeps no texts, nothing is refused as well.
  expectSize(0);
  EXPECT_TRUE(lines({{"report", "digest"}, {"index", "c"}, {"size", "0"}}).empty());
}

TEST_F(ReportsTest, CollectionIsNeededWhereTheReportIsAboutOne) {
  for (const char* report : {"collection", "count", "digest"}) {
    EXPECT_THAT(error({{"report", report}}), AllOf(HasSubstr("ZVK0005E"), HasSubstr("\"index\"")));
  }
}

TEST(ReportRights, ReadingIsEnough) {
  Request request;
  request.headers = {{"action", "getParseResult"}, {"index", "books-1"}, {"report", "count"}};
  const Identity reader("ada", {{Right::Read, "books-*"}});
  EXPECT_NO_THROW(Dispatcher::permit(request, reader));
  request.headers.erase("report");
  EXPECT_THROW(Dispatcher::permit(request, reader), ServerError);
}

// Whether one exists must not show either.
TEST(ReportRights, EachOfSeveralCollectionsTakesItsOwn) {
  Request request;
  request.headers = {{"action", "getParseResult"},
                     {"report", "hits"},
                     {"index", "books-1"},
                     {"alsoIn", "books-2,secret,books-3"}};
  const Identity reader("ada", {{Right::Read, "books-*"}});
  const auto refusal = [&] {
    try {
      Dispatcher::permit(request, reader);
      return std::string("none");
    } catch (const ServerError& error) {
      return std::string(messageId(error.kind())) + " " + error.what();
    }
  };
  const std::string beside = refusal();
  EXPECT_THAT(beside, AllOf(HasSubstr("ZVK0023E"), HasSubstr("\"secret\"")));
  request.headers["alsoIn"] = "books-1";
  request.headers["index"] = "secret";
  EXPECT_EQ(refusal(), beside) << "as if it were the only one";
  request.headers["index"] = "books-3";
  EXPECT_EQ(refusal(), "none");
}

// The names of collections are for those who may read all of them.
TEST(ReportRights, ListOfCollectionsTakesTheRightToAll) {
  Request request;
  request.headers = {{"action", "getParseResult"}, {"report", "collections"}};
  EXPECT_THROW(Dispatcher::permit(request, Identity("ada", {{Right::Admin, "books-*"}})),
               ServerError);
  EXPECT_NO_THROW(Dispatcher::permit(request, Identity("ada", {{Right::Read, "*"}})));
}

TEST(Workload, ReportsRunWithTheSearches) {
  EXPECT_EQ(Dispatcher::workload("getParseResult", "hits"), Workload::Read);
  EXPECT_EQ(Dispatcher::workload("getParseResult", "no report"), Workload::Read);
  EXPECT_EQ(Dispatcher::workload("getParseResult"), Workload::Write);
}

TEST(Workload, ReportOfAllCollectionsRunsByItself) {
  EXPECT_EQ(Dispatcher::workload("getParseResult", "collections"), Workload::Survey);
}

}  // namespace
}  // namespace corvaned
