#include <gtest/gtest.h>

#include <deque>

#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruRESTException.h"
#include "comm/kruRaise.h"
#include "comm/kruStaticDefs.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using test::utf8;

constexpr Raiser fail("kruCorvaneClient");

SearchResult hit(const std::string& key) {
  SearchResult result(false);
  result.parseRecordNew(key.data(), static_cast<unsigned short>(key.size()), 1);
  return result;
}

ParseResult parsed(const std::string& document) {
  ParseResult result(true);
  result.getProperties()->putProperty(StaticDefs::DOC, test::utf16(document));
  result.reset();
  return result;
}

using Portion = std::vector<std::string>;
using Portions = std::deque<Portion>;

// Hands out portions of results, one a receive; the stream ends with the last one.
class PortionClient : public CorvaneRESTClient {
 public:
  explicit PortionClient(Portions planned, bool parses = false)
      : portions_(std::move(planned)), parses_(parses) {
    endOfStream_ = portions_.empty();
  }

  void recv(ClientResponse& response) override {
    ++receives;
    countsBefore.push_back(response.getResultCount());
    if (fails) fail(StaticDefs::ERR_SERVER_COMM_TIMEOUT, Details().server(u"server", 1));
    if (portions_.empty()) return;
    for (const std::string& name : portions_.front()) {
      if (parses_) {
        response.addParseResult(parsed(name));
      } else {
        response.addSearchResult(hit(name));
      }
    }
    portions_.pop_front();
    endOfStream_ = portions_.empty();
  }

  int receives = 0;
  bool fails = false;
  std::vector<int> countsBefore;

 private:
  std::deque<Portion> portions_;
  bool parses_;
};

const Portions kEnded;

std::string takeAll(SearchResponse& hits) {
  std::string keys;
  while (hits.hasMore()) {
    const SearchResult& next = hits.getNext();
    keys.append(next.getKey(), next.getKeyLen());
  }
  return keys;
}

std::string takeAll(ParseResponse& results) {
  std::string documents;
  while (results.hasMore()) documents += utf8(results.getNext().getDocument());
  return documents;
}

TEST(PullingHits, WithBufferedResultsReceivesNothingAndClearsTheMark) {
  for (const bool streaming : {false, true}) {
    PortionClient client(Portions{{"a"}, {"b"}});
    ClientResponse response;
    response.addSearchResult(hit("held"));
    response.setResultsBuffered(true);
    EXPECT_EQ("held", takeAll(response.getSearchResponse(client, streaming)));
    EXPECT_EQ(0, client.receives);
    EXPECT_EQ(1, response.getResultCount());
    response.getSearchResponse(client, streaming);
    EXPECT_EQ(1, client.receives);
  }
}

TEST(PullingHits, EveryGetterWithoutArgumentsClearsTheBufferedMark) {
  for (const bool parse : {false, true}) {
    PortionClient client(Portions{{"a"}, {"b"}});
    ClientResponse response;
    response.setResultsBuffered(true);
    if (parse) {
      response.getParseResponse();
    } else {
      response.getSearchResponse();
    }
    response.getSearchResponse(client, false);
    EXPECT_EQ(1, client.receives);
  }
}

TEST(PullingHits, TheSelectivityGetterKeepsTheBufferedMark) {
  PortionClient client(Portions{{"a"}});
  ClientResponse response;
  response.setResultsBuffered(true);
  response.getSelectivityInfo();
  response.getSearchResponse(client, false);
  EXPECT_EQ(0, client.receives);
}

TEST(PullingHits, NotStreamingReceivesExactlyOnceEvenIfItBringsNothing) {
  PortionClient client(Portions{{}, {"a"}});
  ClientResponse response;
  response.addSearchResult(hit("x"));
  response.getSearchResponse().getNext();
  response.getSearchResponse(client, false);
  EXPECT_EQ(1, client.receives);
  EXPECT_EQ(0, response.getResultCount());
}

TEST(PullingHits, NotStreamingReceivesEvenWhenTheStreamHasEndedOrHitsAreLeft) {
  PortionClient client(kEnded);
  ClientResponse response;
  response.addSearchResult(hit("left"));
  EXPECT_EQ("left", takeAll(response.getSearchResponse(client, false)));
  EXPECT_EQ(1, client.receives);
}

TEST(PullingHits, StreamingReceivesUntilThereAreHits) {
  PortionClient client(Portions{{}, {}, {"a", "b"}, {"c"}});
  ClientResponse response;
  EXPECT_EQ("ab", takeAll(response.getSearchResponse(client, true)));
  EXPECT_EQ(3, client.receives);
  EXPECT_EQ(2, response.getResultCount());
}

TEST(PullingHits, StreamingLooksAtTheEndOfTheStreamBeforeItReceives) {
  PortionClient client(kEnded);
  ClientResponse response;
  response.addSearchResult(hit("a"));
  takeAll(response.getSearchResponse());
  EXPECT_FALSE(response.getSearchResponse(client, true).hasMore());
  EXPECT_EQ(0, client.receives);
  EXPECT_EQ(0, response.getResultCount());
}

TEST(PullingHits, StreamingGoesByTheHitsNotYetTaken) {
  PortionClient client(Portions{{"b"}});
  ClientResponse response;
  response.addSearchResult(hit("a"));
  EXPECT_EQ("a", takeAll(response.getSearchResponse(client, true)));
  EXPECT_EQ(0, client.receives);
  EXPECT_EQ(0, response.getResultCount());
}

TEST(PullingHits, StreamingHandsOutEveryHitExactlyOnce) {
  PortionClient client(Portions{{"a", "b"}, {}, {"c"}, {"d", "e", "f"}});
  ClientResponse response;
  std::string keys;
  for (int i = 0; i < 10; ++i) keys += takeAll(response.getSearchResponse(client, true));
  EXPECT_EQ("abcdef", keys);
  EXPECT_EQ(4, client.receives);
}

TEST(PullingHits, TheResultCountIsZeroWhenReceivingBegins) {
  for (const bool streaming : {false, true}) {
    PortionClient client(Portions{{"a"}});
    ClientResponse response;
    response.addParseResult(parsed("x"));
    response.getSearchResponse(client, streaming);
    EXPECT_EQ(std::vector<int>{0}, client.countsBefore);
  }
}

TEST(PullingHits, AFailedReceiveReachesTheCallerUnchanged) {
  for (const bool streaming : {false, true}) {
    PortionClient client(Portions{{"a"}});
    client.fails = true;
    ClientResponse response;
    try {
      response.getSearchResponse(client, streaming);
      FAIL() << "no exception";
    } catch (const RESTException& error) {
      EXPECT_EQ(StaticDefs::ERR_SERVER_COMM_TIMEOUT, error.getMessageList().front().getMessageId());
      EXPECT_EQ(2U, error.getMessageList().front().getArguments().size());
    }
    EXPECT_EQ(1, client.receives);
  }
}

TEST(PullingHits, OverABareConnectionIsMisuseAndChangesNothing) {
  CorvaneClient client;
  ClientResponse response;
  response.addSearchResult(hit("a"));
  for (const bool streaming : {false, true}) {
    try {
      response.getSearchResponse(client, streaming);
      FAIL() << "no exception";
    } catch (const RESTException& error) {
      const tq::oss::Message& message = error.getMessageList().front();
      EXPECT_EQ(StaticDefs::ERR_INVALID_STATE, message.getMessageId());
      EXPECT_EQ(u"this client speaks no protocol", message.getMessageText());
      EXPECT_STREQ("kruClientResponse", message.getFileName());
    }
  }
  EXPECT_THROW(response.getParseResponse(client), RESTException);
  EXPECT_EQ(1, response.getResultCount());
  response.setResultsBuffered(true);
  EXPECT_EQ("a", takeAll(response.getSearchResponse(client, true)));
}

TEST(PullingParseResults, ReceivesUntilThereAreResultsAndHandsEachOutOnce) {
  PortionClient client(Portions{{}, {"a", "b"}, {"c"}}, true);
  ClientResponse response;
  EXPECT_EQ("ab", takeAll(response.getParseResponse(client)));
  EXPECT_EQ(2, client.receives);
  EXPECT_EQ("c", takeAll(response.getParseResponse(client)));
  EXPECT_EQ("", takeAll(response.getParseResponse(client)));
  EXPECT_EQ(3, client.receives);
}

TEST(PullingParseResults, WithBufferedResultsReceivesNothingAndClearsTheMark) {
  PortionClient client(Portions{{"b"}}, true);
  ClientResponse response;
  response.addParseResult(parsed("a"));
  response.setResultsBuffered(true);
  EXPECT_EQ("a", takeAll(response.getParseResponse(client)));
  EXPECT_EQ(0, client.receives);
  EXPECT_EQ("b", takeAll(response.getParseResponse(client)));
  EXPECT_EQ(1, client.receives);
}

TEST(PullingParseResults, AtTheEndOfTheStreamReceivesNothing) {
  PortionClient client(kEnded, true);
  ClientResponse response;
  response.addSearchResult(hit("x"));
  EXPECT_FALSE(response.getParseResponse(client).hasMore());
  EXPECT_EQ(0, client.receives);
  EXPECT_EQ(0, response.getResultCount());
}

}  // namespace
}  // namespace tq::comm
