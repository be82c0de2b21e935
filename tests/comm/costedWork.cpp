#include "tests/comm/costedWork.h"

#include <list>
#include <stdexcept>
#include <utility>

#include "comm/kruDrestoPerfClient.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/countedMemory.h"
#include "tests/support/replyCorpus.h"

namespace tq::test {

namespace {

using comm::ClientRequest;
using comm::ClientResponse;
using comm::CorvaneRESTClient;
using util::ExtendedProperties;

constexpr int kManyHits = 1000;
// With the announcement of the last, as many messages as a batch holds at most.
constexpr int kQueued = 49;

struct Case {
  std::string name;
  bool binary;
  ClientRequest::REQUEST kind;
  std::string reply;
  std::size_t contentBytes = 0;
  bool fresh = false;  // request and properties are made for every exchange
  bool texts = false;  // the hits' document ids are read
};

std::string withLength(const std::string& status, const std::string& body) {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         body;
}

std::string inOneChunk(const std::string& body) {
  Reply reply{.name = "", .kind = kStreamSearch, .body = body};
  return chunked(reply, 0, true).text;
}

std::string keyOf(int number) {
  std::string key(16, 'k');
  for (std::size_t i = 0; i < key.size(); ++i) {
    key[i] = static_cast<char>(number * 31 + static_cast<int>(i) * 7);
  }
  return key;
}

std::string hits(bool binary, int count) {
  std::string records;
  for (int i = 0; i < count; ++i) {
    const int thousandths = 65000 - i;
    if (binary) {
      records += scoredHit(static_cast<unsigned int>(thousandths), keyOf(i));
    } else {
      const std::string digits = std::to_string(thousandths);
      records +=
          enveloped(hitRecord(idOfKey(keyOf(i)), digits.substr(0, 2) + "." + digits.substr(2)));
    }
  }
  if (binary) return word16(1) + records + endOfResults();
  return inOneChunk(bigEndian(0) + records + bigEndian(0));
}

std::string outcomes(bool binary, int count) {
  std::string records;
  for (int i = 0; i < count; ++i) {
    std::vector<std::pair<std::string, std::string>> fields{{"Doc", idOfKey(keyOf(i))}};
    if (i % 10 == 9) {
      fields.emplace_back("MsgId", "ZVK2007W");
      fields.emplace_back("MsgText", "no text");
    }
    records += binary ? envelope(1, record16(fields)) : enveloped(record(fields));
  }
  if (binary) return word16(1) + records + endOfResults();
  return inOneChunk(bigEndian(0) + records + bigEndian(0));
}

std::string refusal(bool binary) {
  const std::vector<std::pair<std::string, std::string>> fields{{"MsgId", "ZVK1002E"},
                                                                {"MsgText", "no"}};
  if (binary) return word16(6) + errorRecord(fields);
  return withLength("500 Internal Server Error", bigEndian(0) + enveloped(record(fields)));
}

std::string statusOf(bool binary) {
  if (binary) return word16(1);
  return withLength("200 OK", bigEndian(0) + enveloped(record({{"STATUS_CODE", "0"}})));
}

std::string estimateOf(bool binary) {
  if (binary) return word16(1) + envelope(1, estimate(1, 3, 2)) + endOfResults();
  return withLength("200 OK", bigEndian(0) + enveloped(record({{"x", "1"}})));
}

std::string versionOf(bool binary) {
  if (binary) return word16(1) + envelope(1, "corvaned 1.0.0");
  return withLength("200 OK", "corvaned 1.0.0");
}

void addCasesOf(bool binary, std::vector<Case>& cases) {
  const std::string name = binary ? "binary " : "http ";
  const std::string done = binary ? word16(1) : withLength("200 OK", "");
  const auto add = [&](const char* what, ClientRequest::REQUEST kind, std::string reply) -> Case& {
    cases.push_back(
        {.name = name + what, .binary = binary, .kind = kind, .reply = std::move(reply)});
    return cases.back();
  };
  add("status, request reused", ClientRequest::GET_STATUS, statusOf(binary));
  add("status, request built anew", ClientRequest::GET_STATUS, statusOf(binary)).fresh = true;
  add("no results", ClientRequest::UPDATE_INDEX, done);
  add("refusal", ClientRequest::UPDATE_INDEX, refusal(binary));
  add("estimate", ClientRequest::SELECTIVITY, estimateOf(binary));
  add("version", ClientRequest::GET_SERVER_VERSION, versionOf(binary));
  add("10 hits", ClientRequest::SCALAR_SEARCH, hits(binary, 10));
  add("1000 hits", ClientRequest::STREAM_SEARCH, hits(binary, kManyHits));
  add("1000 hits with ids", ClientRequest::STREAM_SEARCH, hits(binary, kManyHits)).texts = true;
  add("1000 parse results", ClientRequest::PARSE_RESULT, outcomes(binary, kManyHits));
  add("document of 1 KB", ClientRequest::ADD_DOCUMENT, done).contentBytes = 1024;
  add("document of 64 KB", ClientRequest::ADD_DOCUMENT, done).contentBytes = 65536;
  add("deletion", ClientRequest::DELETE_DOCUMENT, done);
  add("batch of queued documents", ClientRequest::ASYNCH_ADD_DOCUMENT, "").contentBytes = 1024;
}

const std::vector<Case>& allCases() {
  static const std::vector<Case> cases = [] {
    std::vector<Case> made;
    addCasesOf(true, made);
    addCasesOf(false, made);
    return made;
  }();
  return cases;
}

const Case& caseNamed(const std::string& name) {
  for (const auto& one : allCases()) {
    if (one.name == name) return one;
  }
  throw std::runtime_error("there is no work '" + name + "'");
}

// With "index" and "ver", which the request puts, eight.
ExtendedProperties sixProperties() {
  ExtendedProperties properties;
  properties.putProperty(u"query", u"speed AND light");
  properties.putProperty(u"start", u"0");
  properties.putProperty(u"size", u"100");
  properties.putProperty(u"resultLimit", u"1000");
  properties.putProperty(u"scoreWanted", u"true");
  properties.putProperty(u"scoreType", u"0");
  return properties;
}

/// The client, the request and the bytes that the request refers to.
class Exchange {
 public:
  explicit Exchange(const Case& one)
      : case_(one), content_(one.contentBytes, 'd'), request_(requestOf(one.kind)) {
    if (one.binary) {
      auto client = std::make_unique<comm::DrestoPerfClient>(u"127.0.0.1", 1);
      client->setReassembly(true);
      client_ = std::move(client);
    } else {
      client_ = std::make_unique<CorvaneRESTClient>(u"127.0.0.1", 1, true);
    }
    last_.buildRequest(u"c1", ClientRequest::LAST_DOC_SENT, ExtendedProperties());
    client_->useBufferedConnection(one.kind == ClientRequest::ASYNCH_ADD_DOCUMENT);
  }

  void run() {
    if (case_.kind == ClientRequest::ASYNCH_ADD_DOCUMENT) {
      for (int i = 0; i < kQueued; ++i) exchange(request_);
      exchange(last_);
    } else if (case_.fresh) {
      ClientRequest fresh = requestOf(case_.kind);
      exchange(fresh);
    } else {
      exchange(request_);
    }
  }

 private:
  ClientRequest requestOf(ClientRequest::REQUEST kind) const {
    ClientRequest request;
    request.buildRequest(u"c1", kind, sixProperties());
    if (case_.contentBytes != 0 || kind == ClientRequest::DELETE_DOCUMENT) {
      request.setContent(std::list<comm::KVPair>{{u"title", u"a document"}}, nullptr, 0);
      request.setDocKey("0123456789abcdef", 16);
    }
    if (case_.contentBytes != 0) {
      request.setContent(content_.data(), static_cast<unsigned int>(content_.size()));
    }
    return request;
  }

  void exchange(ClientRequest& request) {
    ClientResponse response;
    try {
      client_->sendAndRecvMesg(request, response);
    } catch (const comm::RESTException&) {
      if (!case_.name.ends_with("refusal")) throw;
      return;
    }
    if (case_.kind == ClientRequest::PARSE_RESULT) {
      pullResults(response);
    } else if (case_.kind == ClientRequest::STREAM_SEARCH ||
               case_.kind == ClientRequest::SCALAR_SEARCH) {
      pullHits(response);
    }
  }

  void pullHits(ClientResponse& response) {
    int seen = 0;
    auto* found = &response.getSearchResponse();
    for (;;) {
      for (; found->hasMore(); ++seen) {
        const auto& hit = found->getNext();
        if (hit.getScore() == 0.0 || (case_.texts && hit.getDocId().isEmpty())) fail();
      }
      if (client_->isEndOfStream()) break;
      found = &response.getSearchResponse(*client_, true);
    }
    if (seen != (case_.name.ends_with("10 hits") ? 10 : kManyHits)) fail();
  }

  void pullResults(ClientResponse& response) {
    int seen = 0;
    auto* results = &response.getParseResponse();
    for (;;) {
      for (; results->hasMore(); ++seen) {
        if (results->getNext().getDocument().isEmpty()) fail();
      }
      if (client_->isEndOfStream()) break;
      results = &response.getParseResponse(*client_);
    }
    if (seen != kManyHits) fail();
  }

  [[noreturn]] void fail() const { throw std::runtime_error(case_.name + ": a wrong result"); }

  const Case& case_;
  std::string content_;
  ClientRequest request_;
  ClientRequest last_;
  std::unique_ptr<CorvaneRESTClient> client_;
};

}  // namespace

CostedWork::CostedWork(const std::string& name) {
  const Case& one = caseNamed(name);
  kernel_ = std::make_unique<CannedKernel>(one.reply);
  run_ = [exchange = std::make_shared<Exchange>(one)] { exchange->run(); };
}

const std::vector<std::string>& costedWorkNames() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> all;
    for (const auto& one : allCases()) all.push_back(one.name);
    return all;
  }();
  return names;
}

CostedWork warmedUp(const std::string& name) {
  constexpr int kFirstRuns = 3;
  CostedWork work(name);
  for (int i = 0; i < kFirstRuns; ++i) work.run();
  return work;
}

Cost costOf(const std::string& name) {
  CostedWork work = warmedUp(name);
  const Cost before{work.systemCalls(), allocationsSoFar()};
  work.run();
  const long allocations = allocationsSoFar() - before.allocations;
  return {work.systemCalls() - before.systemCalls, allocations};
}

}  // namespace tq::test
