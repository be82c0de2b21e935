// The measured side: one kind of work of the library, repeated, against the canned server.
//
//   libraryClient WORK --protocol=http|binary --port=N [--repeat=N] [--warm=N] [--count=N] ...
//
// WORK is one of those in `works` below.

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/measure.h"
#include "comm/kruDrestoPerfClient.h"

namespace {

using bench::Options;
using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::KVPair;
using tq::util::ExtendedProperties;

bool isBinary(const Options& options) { return options.text("protocol", "binary") == "binary"; }

std::unique_ptr<CorvaneRESTClient> clientOf(const Options& options) {
  const auto port = static_cast<unsigned int>(options.number("port", 0));
  if (!isBinary(options)) return std::make_unique<CorvaneRESTClient>(u"127.0.0.1", port, true);
  auto client = std::make_unique<tq::comm::DrestoPerfClient>(u"127.0.0.1", port);
  client->setReassembly(true);
  return client;
}

void check(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

// With "index" and "ver", which the request puts, eight.
constexpr std::uint64_t kProperties = 6;

/// What a caller puts in a loop: literals and texts of its own.
ExtendedProperties someProperties(std::uint64_t count) {
  static const struct {
    const char16_t* name;
    const char16_t* value;
  } kCommon[] = {{u"query", u"speed AND light"}, {u"start", u"0"},          {u"size", u"100"},
                 {u"resultLimit", u"1000"},      {u"scoreWanted", u"true"}, {u"scoreType", u"0"},
                 {u"docLang", u"en_US"},         {u"charset", u"UTF-8"}};
  ExtendedProperties properties;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (i < std::size(kCommon)) {
      properties.putProperty(kCommon[i].name, kCommon[i].value);
    } else {
      const auto number = icu::UnicodeString::fromUTF8(std::to_string(i));
      properties.putProperty(u"property" + number, u"value " + number);
    }
  }
  return properties;
}

void exchange(CorvaneRESTClient& client, ClientRequest& request) {
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  check(response.success(), "an exchange failed");
}

/// One request, sent again and again.
void reusedExchange(const Options& options) {
  const auto client = clientOf(options);
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::GET_STATUS,
                       someProperties(options.number("properties", kProperties)));
  bench::measure(options, 1, [&] { exchange(*client, request); });
}

/// Request and properties are made for every exchange.
void freshExchange(const Options& options) {
  const auto client = clientOf(options);
  const auto count = options.number("properties", kProperties);
  bench::measure(options, 1, [&] {
    ClientRequest request;
    request.buildRequest(u"c1", ClientRequest::GET_STATUS, someProperties(count));
    exchange(*client, request);
  });
}

/// The clients of one process take turns.
void exchangeOfMany(const Options& options) {
  std::vector<std::unique_ptr<CorvaneRESTClient>> clients(options.number("clients", 1));
  for (auto& client : clients) client = clientOf(options);
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::GET_STATUS, someProperties(kProperties));
  bench::measure(options, clients.size(), [&] {
    for (auto& client : clients) exchange(*client, request);
  });
}

/// As many threads as asked for, each with a client of its own: nothing that they share may cost
/// more with more of them. `once` is one exchange or one search of a client.
template <typename Once>
void inThreads(const Options& options, std::uint64_t repeats, std::uint64_t units, Once once) {
  std::vector<std::unique_ptr<CorvaneRESTClient>> clients(options.number("threads", 1));
  for (auto& client : clients) client = clientOf(options);
  const auto run = [&](CorvaneRESTClient& client) {
    for (std::uint64_t i = 0; i < repeats; ++i) once(client);
  };
  bench::measure(
      options, clients.size() * repeats * units,
      [&] {
        std::vector<std::thread> threads;
        threads.reserve(clients.size());
        for (auto& client : clients) threads.emplace_back(run, std::ref(*client));
        for (auto& thread : threads) thread.join();
      },
      CLOCK_PROCESS_CPUTIME_ID);
}

void exchangesInThreads(const Options& options) {
  ClientRequest common;
  common.buildRequest(u"c1", ClientRequest::GET_STATUS, someProperties(kProperties));
  inThreads(options, options.number("count", 1000), 1, [&](CorvaneRESTClient& client) {
    thread_local ClientRequest request = common;
    exchange(client, request);
  });
}

ClientRequest recordsRequest(ClientRequest::REQUEST kind, std::uint64_t count) {
  ExtendedProperties properties;
  properties.putProperty(u"query", icu::UnicodeString::fromUTF8(std::to_string(count)));
  properties.putProperty(u"scoreWanted", u"true");
  ClientRequest request;
  request.buildRequest(u"c1", kind, properties);
  return request;
}

/// What is read of a hit goes into here, so that reading is work that no compiler leaves out.
struct Sums {
  std::uint64_t hits = 0;
  double scores = 0.0;
  std::uint64_t texts = 0;
};

void useHit(Sums& sums, const tq::comm::SearchResult& hit, bool text, bool key) {
  ++sums.hits;
  sums.scores += hit.getScore();
  if (key) {
    std::uint64_t word = 0;
    std::memcpy(&word, hit.getKey(), sizeof word);
    sums.texts += word;
  }
  if (text) sums.texts += static_cast<std::uint64_t>(hit.getDocId()[30]);
}

void searchOnce(CorvaneRESTClient& client, ClientRequest& request, std::uint64_t count, bool text,
                bool key) {
  ClientResponse response;
  Sums sums;
  client.sendAndRecvMesg(request, response);
  auto* hits = &response.getSearchResponse();
  for (;;) {
    while (hits->hasMore()) useHit(sums, hits->getNext(), text, key);
    if (client.isEndOfStream()) break;
    hits = &response.getSearchResponse(client, true);
  }
  check(sums.hits == count && !client.isTruncated(), "hits are missing");
}

/// `hits` reads score and key (HTTP has no key: score alone), `hitTexts` the document id as well.
void streamedHits(const Options& options) {
  const auto client = clientOf(options);
  const std::uint64_t count = options.number("count", 1000000);
  const bool text = options.work() == "hitTexts";
  ClientRequest request = recordsRequest(ClientRequest::STREAM_SEARCH, count);
  bench::measure(options, count,
                 [&] { searchOnce(*client, request, count, text, isBinary(options)); });
}

void hitsInThreads(const Options& options) {
  const std::uint64_t count = options.number("count", 100000);
  inThreads(options, 1, count, [&](CorvaneRESTClient& client) {
    ClientRequest request = recordsRequest(ClientRequest::STREAM_SEARCH, count);
    searchOnce(client, request, count, true, isBinary(options));
  });
}

/// The results of a load, pulled as they come and kept by nobody.
void parseResults(const Options& options) {
  const auto client = clientOf(options);
  const std::uint64_t count = options.number("count", 1000000);
  ClientRequest request = recordsRequest(ClientRequest::PARSE_RESULT, count);
  bench::measure(options, count, [&] {
    ClientResponse response;
    std::uint64_t seen = 0;
    std::uint64_t messages = 0;
    client->sendAndRecvMesg(request, response);
    auto* results = &response.getParseResponse();
    for (;;) {
      for (; results->hasMore(); ++seen) messages += results->getNext().hasMessage() ? 1U : 0U;
      if (client->isEndOfStream()) break;
      results = &response.getParseResponse(*client);
    }
    check(seen == count && messages == count / 10, "results are missing");
  });
}

ClientRequest documentRequest(ClientRequest::REQUEST kind, const std::string& content) {
  ClientRequest request;
  request.buildRequest(u"c1", kind, ExtendedProperties());
  request.setContent(std::list<KVPair>{{u"title", u"a document"}}, content.data(),
                     static_cast<unsigned int>(content.size()));
  request.setDocKey("0123456789abcdef", 16);
  return request;
}

void document(const Options& options) {
  const auto client = clientOf(options);
  const std::string content(options.number("bytes", 1024), 'd');
  ClientRequest request = documentRequest(ClientRequest::ADD_DOCUMENT, content);
  bench::measure(options, 1, [&] { exchange(*client, request); });
}

/// Documents without replies, batched, and the announcement of the last one. --count documents are
/// one run.
void queuedDocuments(const Options& options) {
  const auto client = clientOf(options);
  client->useBufferedConnection(true);
  const std::uint64_t count = options.number("count", 1000);
  const std::string content(options.number("bytes", 1024), 'd');
  ClientRequest request = documentRequest(ClientRequest::ASYNCH_ADD_DOCUMENT, content);
  ClientRequest last;
  last.buildRequest(u"c1", ClientRequest::LAST_DOC_SENT, ExtendedProperties());
  bench::measure(options, count, [&] {
    for (std::uint64_t i = 0; i < count; ++i) exchange(*client, request);
    exchange(*client, last);
  });
}

}  // namespace

int main(int argc, char** argv) {
  try {
    bench::perform(Options(argc, argv), {{"reused", reusedExchange},
                                         {"fresh", freshExchange},
                                         {"many", exchangeOfMany},
                                         {"hits", streamedHits},
                                         {"hitTexts", streamedHits},
                                         {"parseResults", parseResults},
                                         {"document", document},
                                         {"queued", queuedDocuments},
                                         {"threadedExchange", exchangesInThreads},
                                         {"threadedHits", hitsInThreads}});
    return 0;
  } catch (const tq::oss::BaseException& failure) {
    std::string text;
    failure.getMessageList().front().getMessageId().toUTF8String(text);
    std::fprintf(stderr, "libraryClient: %s\n", text.c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "libraryClient: %s\n", error.what());
  }
  return 1;
}
