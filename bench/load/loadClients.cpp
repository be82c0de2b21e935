// Clients that work a real server, each with a connection and a thread of its own; every second one
// speaks the other protocol. Prints one line of JSON.
//
//   loadClients WORK --http=PORT --binary=PORT [--index=NAME] [--texts=FILE] [--documents=N]
//               [--clients=N] [--seconds=N] [--collections=N] [--used=N] [--refresh=MODE]
//               [--matched=N]
//
// WORK is one of those in `kWorks` below.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bench/load/corpus.h"
#include "bench/load/latencies.h"
#include "bench/measure.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTMessage.h"
#include "infra/oss/kruBaseException.h"

namespace {

using bench::Options;
using load::Corpus;
using load::Latencies;
using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::KVPair;
using tq::util::ExtendedProperties;

using Clock = Latencies::Clock;

// Results are taken so often, so that none is forgotten in a long load.
constexpr std::uint64_t kQueued = 20000;
constexpr std::uint32_t kWindowSeconds = 10;
// How many of its documents a client looks for when the others have ended.
constexpr std::size_t kLookedFor = 50;
constexpr std::uint64_t kCommitsForALook = 10;
constexpr std::chrono::milliseconds kBetweenOpenings{500};
constexpr const char16_t* kPage = u"10";
// A row of a database whose text is no document yet.
constexpr std::size_t kMatchedBytes = 400;

icu::UnicodeString wide(const std::string& text) { return icu::UnicodeString::fromUTF8(text); }

std::string textOf(const tq::oss::BaseException& failure) {
  const auto& message = failure.getMessageList().front();
  std::string text;
  message.getMessageId().toUTF8String(text);
  text.append(": ");
  message.getMessageText().toUTF8String(text);
  for (const auto& argument : message.getArguments()) {
    text.append("; ");
    argument.toUTF8String(text);
  }
  return text;
}

/// The text has to last as long as the request.
void attach(ClientRequest& request, const load::Text& text) {
  request.setDocKey(text.key.data(), static_cast<unsigned int>(text.key.size()));
  request.setContent({KVPair(u"title", wide(text.title), 0, 0)}, text.content.data(),
                     static_cast<unsigned int>(text.content.size()));
}

/// The document as it stands within the content of a request that has several.
std::string blockOf(const load::Text& text) {
  ClientRequest request;
  request.buildRequest(ClientRequest::ADD_DOCUMENT, {});
  attach(request, text);
  tq::comm::RESTMessage message(u"", request);
  return std::string(message.getMsgPrefix(), message.getMsgPrefixLen()) + text.content;
}

/// A connection to the server and what is asked over it. Throws what the library throws, and
/// std::runtime_error where a reply is not what it has to be.
class Client {
 public:
  Client(const Options& options, std::uint64_t number)
      : index_(wide(options.text("index", "load"))) {
    if (number % 2 == 0) {
      auto binary = std::make_unique<tq::comm::DrestoPerfClient>(
          u"127.0.0.1", static_cast<unsigned int>(options.number("binary", 0)));
      binary->setReassembly(true);
      client_ = std::move(binary);
    } else {
      client_ = std::make_unique<CorvaneRESTClient>(
          u"127.0.0.1", static_cast<unsigned int>(options.number("http", 0)), true);
    }
    // Long enough for everything, short enough for a hang to be noticed.
    client_->setTimeOut(600000);
  }

  void use(const std::string& index) { index_ = wide(index); }

  void create(const std::string& refresh) {
    ExtendedProperties properties;
    properties.putProperty(u"refresh", wide(refresh));
    ClientResponse response;
    ask(ClientRequest::CREATE_COLLECTION, properties, response);
  }

  void add(const load::Text& text) {
    ClientResponse response;
    send(ClientRequest::ADD_DOCUMENT, text, {}, response);
  }
  void queue(const load::Text& text) {
    ClientResponse response;
    send(ClientRequest::ASYNCH_ADD_DOCUMENT, text, {}, response);
  }
  void batchQueued() { client_->useBufferedConnection(true); }

  /// How many documents have been stored since the last call.
  std::uint64_t takeStored() {
    ClientResponse announced;
    ask(ClientRequest::LAST_DOC_SENT, {}, announced);
    ClientResponse response;
    ask(ClientRequest::PARSE_RESULT, {}, response);
    std::uint64_t stored = 0;
    auto* results = &response.getParseResponse();
    for (;;) {
      while (results->hasMore()) stored += results->getNext().hasMessage() ? 0U : 1U;
      if (client_->isEndOfStream()) break;
      results = &response.getParseResponse(*client_);
    }
    return stored;
  }

  void remove(const std::string& key) {
    ClientRequest request;
    request.buildRequest(index_, ClientRequest::DELETE_DOCUMENT, {});
    request.setDocKey(key.data(), static_cast<unsigned int>(key.size()));
    request.setContent({KVPair(u"-", u"", 0, 0)}, "", 0);
    ClientResponse response;
    exchange(request, response);
  }

  void updateIndex() {
    ClientResponse response;
    ask(ClientRequest::UPDATE_INDEX, {}, response);
  }

  void open() {
    ClientResponse response;
    ask(ClientRequest::OPEN_COLLECTION, {}, response);
  }
  void close() {
    ClientResponse response;
    ask(ClientRequest::CLOSE_COLLECTION, {}, response);
  }
  void drop() {
    ClientResponse response;
    ask(ClientRequest::DROP_COLLECTION, {}, response);
  }

  void status() {
    ClientResponse response;
    ask(ClientRequest::GET_STATUS, {}, response);
  }

  /// Exact up to so many hits, if the server shall not decide that.
  void estimate(const std::string& query, const char16_t* exactHits = nullptr) {
    ExtendedProperties properties;
    properties.putProperty(u"query", wide(query));
    if (exactHits != nullptr) properties.putProperty(u"exactHits", exactHits);
    ClientResponse response;
    ask(ClientRequest::SELECTIVITY, properties, response);
  }

  /// The number of hits on the first page.
  std::uint64_t search(const std::string& query) {
    ExtendedProperties properties;
    properties.putProperty(u"query", wide(query));
    properties.putProperty(u"size", kPage);
    properties.putProperty(u"resultLimit", kPage);
    properties.putProperty(u"scoreWanted", u"true");
    ClientResponse response;
    ask(ClientRequest::SCALAR_SEARCH, properties, response);
    return hitsIn(response);
  }

  /// How many of the documents the query finds; `blocks` are theirs, back to back.
  std::uint64_t match(const std::string& query, const std::string& blocks) {
    ExtendedProperties properties;
    properties.putProperty(u"query", wide(query));
    properties.putProperty(u"match", u"documents");
    ClientResponse response;
    send(ClientRequest::SCALAR_SEARCH, {"rows", "rows", blocks}, properties, response);
    return hitsIn(response);
  }

 private:
  static std::uint64_t hitsIn(ClientResponse& response) {
    std::uint64_t hits = 0;
    auto& page = response.getSearchResponse();
    for (; page.hasMore(); ++hits) page.getNext();
    return hits;
  }

  void ask(ClientRequest::REQUEST kind, const ExtendedProperties& properties,
           ClientResponse& response) {
    ClientRequest request;
    request.buildRequest(index_, kind, properties);
    exchange(request, response);
  }

  void send(ClientRequest::REQUEST kind, const load::Text& text,
            const ExtendedProperties& properties, ClientResponse& response) {
    ClientRequest request;
    request.buildRequest(index_, kind, properties);
    attach(request, text);
    exchange(request, response);
  }

  void exchange(ClientRequest& request, ClientResponse& response) {
    client_->sendAndRecvMesg(request, response);
    if (!response.success()) throw std::runtime_error("a request was refused");
  }

  std::unique_ptr<CorvaneRESTClient> client_;
  icu::UnicodeString index_;
};

/// What all clients together found out.
class Report {
 public:
  void fail(const std::string& text) {
    const std::lock_guard lock(mutex_);
    if (errors_++ == 0) firstError_ = text;
  }
  void add(const Latencies& latencies) {
    const std::lock_guard lock(mutex_);
    latencies_.add(latencies);
  }
  void count(std::uint64_t checked) { checked_ += checked; }

  /// False if anything failed.
  bool print(double seconds) {
    std::printf(
        "{\"seconds\": %.3f, \"errors\": %llu, \"checked\": %llu, \"operations\": ", seconds,
        static_cast<unsigned long long>(errors_), static_cast<unsigned long long>(checked_.load()));
    latencies_.print(kWindowSeconds);
    std::printf("}\n");
    if (errors_ > 0) std::fprintf(stderr, "loadClients: %s\n", firstError_.c_str());
    return errors_ == 0;
  }

 private:
  std::mutex mutex_;
  Latencies latencies_;
  std::uint64_t errors_ = 0;
  std::string firstError_;
  std::atomic<std::uint64_t> checked_ = 0;
};

/// Runs the function, and notes what fails.
template <typename Function>
void guarded(Report& report, Function&& function) {
  try {
    function();
  } catch (const tq::oss::BaseException& failure) {
    report.fail(textOf(failure));
  } catch (const std::exception& error) {
    report.fail(error.what());
  }
}

struct Work {
  const Options& options;
  const Corpus& corpus;
  Report& report;
  std::uint64_t clients = 0;
  Clock::time_point begin = Clock::now();
  Clock::time_point end;

  bool goesOn() const { return Clock::now() < end; }
};

/// Calls `each` in a thread for each client and waits for all of them. The numbers of the clients
/// begin with 0.
void inClients(Work& work,
               const std::function<void(Client&, std::uint64_t number, Latencies&)>& each) {
  std::vector<std::thread> threads;
  threads.reserve(work.clients);
  for (std::uint64_t number = 0; number < work.clients; ++number) {
    threads.emplace_back([&, number] {
      Latencies latencies;
      guarded(work.report, [&] {
        Client client(work.options, number);
        each(client, number, latencies);
      });
      work.report.add(latencies);
    });
  }
  for (auto& thread : threads) thread.join();
}

/// Repeats the operation until the time is over; each failure is noted.
template <typename Operation>
void repeat(const Work& work, Operation&& operation) {
  while (work.goesOn()) guarded(work.report, operation);
}

void create(Work& work) {
  Client client(work.options, 0);
  client.create(work.options.text("refresh", "manual"));
}

/// Queues every document of the corpus.
void fill(Work& work) {
  Client client(work.options, 0);
  client.batchQueued();
  Latencies latencies;
  std::uint64_t stored = 0;
  for (std::uint64_t number = 0; number < work.corpus.size(); ++number) {
    client.queue(work.corpus.document(number));
    const bool last = number + 1 == work.corpus.size();
    if ((number + 1) % kQueued == 0 || last) {
      latencies.take("getParseResult", work.begin, [&] { stored += client.takeStored(); });
    }
  }
  work.report.add(latencies);
  work.report.count(stored);
  if (stored != work.corpus.size()) throw std::runtime_error("documents were not stored");
}

void update(Work& work) {
  Client client(work.options, 0);
  Latencies latencies;
  latencies.take("update", work.begin, [&] { client.updateIndex(); });
  work.report.add(latencies);
}

/// Searches and nothing else.
void search(Work& work) {
  inClients(work, [&](Client& client, std::uint64_t number, Latencies& latencies) {
    load::Random random(number);
    repeat(work, [&] {
      const std::string query = work.corpus.query(random);
      latencies.take("search", work.begin, [&] { client.search(query); });
    });
  });
}

/// What one client has made of those documents that nobody else changes.
class OwnDocuments {
 public:
  OwnDocuments(const Corpus& corpus, std::uint64_t client, std::uint64_t clients)
      : corpus_(corpus), client_(client), clients_(clients) {}

  /// One of them.
  std::uint64_t any(load::Random& random) const {
    const std::uint64_t mine = (corpus_.size() - client_ + clients_ - 1) / clients_;
    return client_ + clients_ * random.below(mine);
  }
  load::Text nextVersion(std::uint64_t number) const {
    const auto found = versions_.find(number);
    return corpus_.document(number, found == versions_.end() ? 1 : found->second.version + 1);
  }
  void added(std::uint64_t number) {
    State& state = versions_[number];
    ++state.version;
    state.there = true;
  }
  void removed(std::uint64_t number) { versions_[number].there = false; }

  /// Throws if a search does not find what was acknowledged last, and nothing else.
  std::uint64_t check(Client& client) const {
    std::uint64_t checked = 0;
    for (const auto& [number, state] : versions_) {
      if (checked++ == kLookedFor) break;
      const std::string mark = Corpus::mark(number, state.version);
      if (client.search(mark) != (state.there ? 1U : 0U)) {
        throw std::runtime_error((state.there ? "not found: " : "found although deleted: ") + mark);
      }
      if (state.there && client.search(Corpus::mark(number, state.version - 1)) != 0) {
        throw std::runtime_error("an earlier text is found: " + mark);
      }
    }
    return std::min<std::uint64_t>(checked, kLookedFor);
  }

 private:
  struct State {
    std::uint32_t version = 0;
    bool there = true;
  };
  const Corpus& corpus_;
  const std::uint64_t client_;
  const std::uint64_t clients_;
  std::unordered_map<std::uint64_t, State> versions_;
};

/// Of a hundred operations 70 are searches, 14 additions, 10 estimates, 3 deletions, 2 questions
/// for the status, and one brings the changes into the index.
void mixedOperation(const Work& work, Client& client, load::Random& random, OwnDocuments& own,
                    Latencies& latencies) {
  const std::uint64_t choice = random.below(100);
  if (choice < 70) {
    const std::string query = work.corpus.query(random);
    latencies.take("search", work.begin, [&] { client.search(query); });
  } else if (choice < 84) {
    const std::uint64_t number = own.any(random);
    const load::Text text = own.nextVersion(number);
    latencies.take("add", work.begin, [&] { client.add(text); });
    own.added(number);
  } else if (choice < 94) {
    const std::string query = work.corpus.query(random);
    latencies.take("estimate", work.begin, [&] { client.estimate(query); });
  } else if (choice < 97) {
    const std::uint64_t number = own.any(random);
    const std::string key = work.corpus.document(number).key;
    latencies.take("delete", work.begin, [&] { client.remove(key); });
    own.removed(number);
  } else if (choice < 99) {
    latencies.take("status", work.begin, [&] { client.status(); });
  } else {
    latencies.take("update", work.begin, [&] { client.updateIndex(); });
  }
}

void mixed(Work& work) {
  std::vector<OwnDocuments> own;
  for (std::uint64_t i = 0; i < work.clients; ++i) own.emplace_back(work.corpus, i, work.clients);
  inClients(work, [&](Client& client, std::uint64_t number, Latencies& latencies) {
    load::Random random(number);
    repeat(work, [&] { mixedOperation(work, client, random, own[number], latencies); });
  });
  Client(work.options, 0).updateIndex();
  inClients(work, [&](Client& client, std::uint64_t number, Latencies&) {
    work.report.count(own[number].check(client));
  });
}

/// Commits of single documents; some are looked for as soon as they are acknowledged. For a
/// collection that makes changes searchable at once.
void visible(Work& work) {
  inClients(work, [&](Client& client, std::uint64_t number, Latencies& latencies) {
    for (std::uint64_t i = number; work.goesOn(); i += work.clients) {
      guarded(work.report, [&] {
        const load::Text text = work.corpus.document(i % work.corpus.size());
        latencies.take("commit", work.begin, [&] { client.add(text); });
        if (i / work.clients % kCommitsForALook != 0) return;
        if (client.search(Corpus::mark(i % work.corpus.size(), 0)) != 1) {
          throw std::runtime_error("a document was acknowledged and is not found");
        }
        work.report.count(1);
      });
    }
  });
}

void drop(Work& work) { Client(work.options, 0).drop(); }

/// Opens a collection as the first request for it does.
void open(Work& work) {
  Client client(work.options, 0);
  Latencies latencies;
  latencies.take("open", work.begin, [&] { client.open(); });
  work.report.add(latencies);
}

/// A text of exactly so many bytes, which begins with the mark of its document.
load::Text matchedText(const Corpus& corpus, std::uint64_t number) {
  load::Text text = corpus.document(number);
  std::string content = Corpus::mark(number, 0);
  for (std::uint64_t i = number; content.size() < kMatchedBytes; ++i) {
    content.append(" ").append(corpus.document(i % corpus.size()).content);
  }
  text.content = content.substr(0, kMatchedBytes);
  return text;
}

/// Matches queries with texts that are not stored, `matched` in a request.
void match(Work& work) {
  const std::uint64_t texts = work.options.number("matched", 1);
  std::string blocks;
  for (std::uint64_t i = 0; i < texts; ++i) blocks += blockOf(matchedText(work.corpus, i));
  inClients(work, [&](Client& client, std::uint64_t number, Latencies& latencies) {
    if (client.match(Corpus::mark(0, 0), blocks) != 1) {
      throw std::runtime_error("a text does not match its own word");
    }
    load::Random random(number);
    repeat(work, [&] {
      const std::string query = work.corpus.query(random);
      latencies.take("match", work.begin, [&] { client.match(query, blocks); });
      work.report.count(texts);
    });
  });
}

/// Estimates beside searches for the same query, which has been asked before, so that none of them
/// is the first to read what the query needs.
void estimate(Work& work) {
  inClients(work, [&](Client& client, std::uint64_t number, Latencies& latencies) {
    load::Random random(number);
    repeat(work, [&] {
      const std::string query = work.corpus.query(random);
      client.search(query);
      latencies.take("search", work.begin, [&] { client.search(query); });
      latencies.take("estimate", work.begin, [&] { client.estimate(query); });
      latencies.take("statistics", work.begin, [&] { client.estimate(query, u"0"); });
    });
  });
}

/// Searches, beside which the collection "journal" is closed and opened in turn.
void opening(Work& work) {
  // Odd while it is being opened.
  std::atomic<std::uint64_t> turn = 0;
  std::atomic<bool> isOver = false;
  inClients(work, [&](Client& client, std::uint64_t number, Latencies& latencies) {
    if (number == 0) {
      client.use("journal");
      repeat(work, [&] {
        client.close();
        std::this_thread::sleep_for(kBetweenOpenings);
        ++turn;
        latencies.take("open", work.begin, [&] { client.open(); });
        ++turn;
      });
      isOver = true;
      return;
    }
    load::Random random(number);
    while (!isOver) {
      guarded(work.report, [&] {
        const std::string query = work.corpus.query(random);
        const std::uint64_t before = turn;
        const auto name = [&] {
          return before % 2 == 1 || before != turn ? "during" : "otherwise";
        };
        latencies.takeAs(name, work.begin, [&] { client.search(query); });
      });
    }
  });
}

/// Updates of two large collections, whose end is that they are deleted.
class LargeUpdates {
 public:
  static constexpr std::uint64_t kCount = 2;

  static std::string name(std::uint64_t number) { return "large-" + std::to_string(number); }

  /// For a thread of each of them.
  void run(Client& client, std::uint64_t number) {
    client.use(name(number));
    begun_.wait(false);
    try {
      client.updateIndex();
      oneEnded_ = true;
    } catch (const tq::oss::BaseException&) {
      if (deleted_) return;
      oneEnded_ = true;
      throw;
    }
  }
  void begin() {
    begun_ = true;
    begun_.notify_all();
    // So that both are at work.
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  bool goOn() const { return !oneEnded_; }
  void end(Client& client) {
    deleted_ = true;
    for (std::uint64_t number = 0; number < kCount; ++number) {
      client.use(name(number));
      client.drop();
    }
  }

 private:
  std::atomic<bool> begun_ = false;
  std::atomic<bool> oneEnded_ = false;
  std::atomic<bool> deleted_ = false;
};

/// Documents are added and made searchable one by one: first alone, then beside large updates, for
/// which the first clients are.
void small(Work& work) {
  LargeUpdates large;
  inClients(work, [&](Client& client, std::uint64_t number, Latencies& latencies) {
    if (number < LargeUpdates::kCount) return large.run(client, number);
    std::uint64_t next = 0;
    const auto change = [&](const char* name) {
      guarded(work.report, [&] {
        const load::Text text = work.corpus.document(next++ % work.corpus.size());
        latencies.take(name, work.begin, [&] {
          client.add(text);
          client.updateIndex();
        });
      });
    };
    const auto half = work.begin + (work.end - work.begin) / 2;
    while (Clock::now() < half) change("alone");
    large.begin();
    const std::uint64_t alone = next;
    while (work.goesOn() && large.goOn()) change("beside");
    large.end(client);
    if (next == alone) throw std::runtime_error("the large updates were over at once");
  });
}

std::string collectionName(std::uint64_t number) { return "many-" + std::to_string(number); }

/// Makes many collections.
void makeMany(Work& work) {
  std::atomic<std::uint64_t> next = 0;
  const std::uint64_t count = work.options.number("collections", 100000);
  inClients(work, [&](Client& client, std::uint64_t, Latencies& latencies) {
    for (std::uint64_t i = next++; i < count; i = next++) {
      client.use(collectionName(i));
      latencies.take("create", work.begin, [&] { client.create("manual"); });
    }
  });
}

/// Uses some of many collections: documents are added, made searchable and looked for.
void useMany(Work& work) {
  const std::uint64_t used = work.options.number("used", 200);
  const std::uint64_t step = std::max<std::uint64_t>(
      1, work.options.number("collections", 100000) / std::max<std::uint64_t>(used, 1));
  inClients(work, [&](Client& client, std::uint64_t number, Latencies& latencies) {
    load::Random random(number);
    repeat(work, [&] {
      client.use(collectionName(step * random.below(used)));
      const load::Text text = work.corpus.document(random.below(work.corpus.size()));
      if (random.below(10) == 0) {
        latencies.take("add", work.begin, [&] { client.add(text); });
        latencies.take("update", work.begin, [&] { client.updateIndex(); });
      }
      const std::string query = work.corpus.query(random);
      latencies.take("search", work.begin, [&] { client.search(query); });
    });
  });
}

void (*workOf(const std::string& name))(Work&) {
  static const struct {
    const char* name;
    void (*work)(Work&);
  } kWorks[] = {{"create", create},     {"fill", fill},       {"update", update},
                {"search", search},     {"mixed", mixed},     {"visible", visible},
                {"makeMany", makeMany}, {"useMany", useMany}, {"open", open},
                {"drop", drop},         {"match", match},     {"estimate", estimate},
                {"opening", opening},   {"small", small}};
  for (const auto& one : kWorks) {
    if (name == one.name) return one.work;
  }
  throw std::runtime_error("there is no work '" + name + "'");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options(argc, argv);
    const auto run = workOf(options.work());
    const Corpus corpus(options.text("texts", ""), options.number("documents", 0));
    Report report;
    Work work{options, corpus, report, options.number("clients", 1), Clock::now(), {}};
    work.end = work.begin + std::chrono::seconds(options.number("seconds", 0));
    guarded(report, [&] { run(work); });
    const std::chrono::duration<double> taken = Clock::now() - work.begin;
    return report.print(taken.count()) ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "loadClients: %s\n", error.what());
    return 2;
  }
}
