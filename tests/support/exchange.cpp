#include "tests/support/exchange.h"

#include <list>

#include "comm/kruKVPair.h"
#include "comm/kruRESTException.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::test {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::RESTException;

namespace {

void noteError(Outcome& outcome, const tq::oss::BaseException& error) {
  const auto& messages = error.getMessageList();
  if (messages.empty()) {
    outcome.errorId = "(no message)";
    return;
  }
  const tq::oss::Message& first = messages.front();
  outcome.errorId = utf8(first.getMessageId());
  outcome.errorText = utf8(first.getMessageText());
  outcome.errorLevel = static_cast<int>(first.getLevel());
  outcome.errorFile = first.getFileName() == nullptr ? "(null)" : first.getFileName();
  for (const auto& argument : first.getArguments())
    outcome.errorArguments.push_back(utf8(argument));
}

void pullLooping(CorvaneRESTClient& client, ClientResponse& response, Outcome& outcome) {
  for (;;) {
    auto& hits = response.getSearchResponse(client, true);
    if (!hits.hasMore()) return;
    takeHits(hits, outcome);
  }
}

// A scalar search's list grows from portion to portion, so its hits are taken once, at the end; a
// streaming search's list is replaced.
void pullSingly(CorvaneRESTClient& client, ClientResponse& response, bool grows, Outcome& outcome) {
  if (!grows) takeHits(response.getSearchResponse(), outcome);
  while (!client.isEndOfStream()) {
    client.recv(response);
    if (!grows) takeHits(response.getSearchResponse(), outcome);
  }
  if (grows) takeHits(response.getSearchResponse(), outcome);
}

void takeResults(CorvaneRESTClient& client, ClientResponse& response, int kind, Pull pull,
                 Outcome& outcome) {
  if (kind == kStreamSearch || kind == kScalarSearch) {
    if (pull == Pull::Looping) pullLooping(client, response, outcome);
    if (pull == Pull::Single) pullSingly(client, response, kind == kScalarSearch, outcome);
  } else {
    takeHits(response.getSearchResponse(), outcome);
  }
  takeParsed(response.getParseResponse(), outcome);
}

}  // namespace

void takeHits(tq::comm::SearchResponse& response, Outcome& outcome) {
  while (response.hasMore()) {
    auto& hit = response.getNext();
    outcome.hits.push_back({utf8(hit.getDocId()), hit.getScore()});
  }
}

void takeParsed(tq::comm::ParseResponse& response, Outcome& outcome) {
  while (response.hasMore()) {
    auto& row = response.getNext();
    Parsed parsed{utf8(row.getDocument()), {}, {}, 0};
    if (row.hasMessage()) {
      parsed.messageId = utf8(row.getMessage().getMessageId());
      parsed.messageText = utf8(row.getMessage().getMessageText());
      parsed.level = static_cast<int>(row.getMessage().getLevel());
    }
    outcome.parsed.push_back(std::move(parsed));
  }
}

void noteResponse(ClientResponse& response, Outcome& outcome) {
  outcome.returnCode = response.getReturnCode();
  outcome.statusCode = response.getStatusCode();
  const auto& selectivity = response.getSelectivityInfo();
  outcome.selectivity = {static_cast<std::uint64_t>(selectivity.getFirst()),
                         static_cast<std::uint64_t>(selectivity.getSecond()),
                         static_cast<std::uint64_t>(selectivity.getThird())};
}

std::string utf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

ClientRequest requestFor(int kind) {
  static constexpr char kKey[] = "\x01\x02key";
  static constexpr char kContent[] = "the document's text";
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"query", u"x");
  ClientRequest request;
  request.buildRequest(u"c1", static_cast<ClientRequest::REQUEST>(kind), properties);
  if (kind == kAddDocument || kind == kAsynchAddDocument || kind == kDeleteDocument) {
    request.setContent(std::list<tq::comm::KVPair>{{u"title", u"one"}}, kContent,
                       kind == kDeleteDocument ? 0 : sizeof kContent - 1);
    request.setDocKey(kKey, sizeof kKey - 1);
  }
  return request;
}

Outcome runExchange(CorvaneRESTClient& client, ClientRequest& request, Pull pull) {
  Outcome outcome;
  ClientResponse response;
  try {
    client.sendAndRecvMesg(request, response);
    takeResults(client, response, request.getRequest(), pull, outcome);
    outcome.endOfStream = client.isEndOfStream();
    outcome.truncated = client.isTruncated();
  } catch (const RESTException& error) {
    noteError(outcome, error);
  }
  noteResponse(response, outcome);
  return outcome;
}

Outcome runExchange(CorvaneRESTClient& client, int kind, Pull pull) {
  auto request = requestFor(kind);
  return runExchange(client, request, pull);
}

Outcome errorOf(const std::function<void()>& call) {
  Outcome outcome;
  try {
    call();
  } catch (const tq::oss::BaseException& error) {
    noteError(outcome, error);
  }
  return outcome;
}

}  // namespace tq::test
