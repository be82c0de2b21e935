#include "tests/comm/faultExchange.h"

#include <algorithm>
#include <list>
#include <ostream>

#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruKVPair.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruClock.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/util/kruExtendedProperties.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/exchange.h"

namespace tq::test {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;

namespace {

constexpr int kHits = 3;
constexpr std::uint64_t kNanosPerMilli = 1000000;

bool isDocumentKind(int kind) { return kind == kAddDocument || kind == kAsynchAddDocument; }

template <typename Number>
std::string text(const char* word, Number number) {
  return std::string(word).append(std::to_string(number));
}

const std::string kLongQuery = "a query of more letters than a text holds without any memory";
const std::string kLongCollection = "a-collection-whose-name-needs-memory-of-its-own";
const std::string kLongTitle = "a title that is longer than the room inside of a text object";
constexpr char kLongReason[] = " is the code of this reply, whose status line is a long one";

std::string keyOf(const MarkedRequest& marked, int hit) {
  std::string key("m");
  key.append(std::to_string(marked.mark)).append(".").append(std::to_string(hit));
  if (marked.longTexts) key.append(", the key of a document whose id is not short");
  return key;
}

std::string headerValue(const std::string& request, const std::string& name) {
  const auto at = request.find(name + ": ");
  if (at == std::string::npos) return {};
  const auto begin = at + name.size() + 2;
  return request.substr(begin, request.find('\n', begin) - begin);
}

MarkedRequest readMarked(const std::string& request) {
  MarkedRequest marked;
  marked.kind = std::stoi(headerValue(request, "kind"));
  marked.mark = static_cast<unsigned int>(std::stoul(headerValue(request, "mark")));
  marked.refused = !headerValue(request, "refuse").empty();
  marked.longTexts = !headerValue(request, "long").empty();
  return marked;
}

std::vector<std::pair<std::string, std::string>> errorFields(const MarkedRequest& marked) {
  const std::string why = marked.longTexts ? ", for a reason that takes some words to say" : "";
  return {{"MsgId", "ZVK0404E"}, {"MsgText", text("refused ", marked.mark) + why}};
}

// HTTP.

std::string httpRecord(const MarkedRequest& marked, int at) {
  if (marked.refused) return record(errorFields(marked));
  switch (marked.kind) {
    case kParseResult:
      return record({{"Doc", keyOf(marked, at)}});
    case kSelectivity:
      return record({{"first", "5"}, {"second", "7"}, {"third", "9"}});
    case kGetStatus:
      return record({{"STATUS_CODE", std::to_string(marked.mark)}});
    default:
      return hitRecord(idOfKey(keyOf(marked, at)), "0.5");
  }
}

Answer httpWithLength(const MarkedRequest& marked) {
  Reply reply{"", marked.kind};
  if (marked.refused) reply.status = 500;
  const bool hasRecord = marked.refused || marked.kind == kSelectivity || marked.kind == kGetStatus;
  if (hasRecord) reply.body = std::string(4, '\0') + enveloped(httpRecord(marked, 0));
  if (!hasRecord && marked.kind == kGetServerVersion) reply.body = "12.1";
  const auto whole = plain(reply);
  Answer answer{{whole.substr(0, whole.size() - reply.body.size())}};
  if (!reply.body.empty()) answer.segments.push_back(reply.body);
  return answer;
}

Answer httpInChunks(const MarkedRequest& marked) {
  Reply reply{"", marked.kind};
  reply.body = std::string(4, '\0');
  std::vector<std::size_t> ends;
  for (int hit = 0; hit < kHits; ++hit) {
    reply.body += enveloped(httpRecord(marked, hit));
    ends.push_back(reply.body.size());
  }
  reply.body += bigEndian(0);
  ends.push_back(reply.body.size());
  const auto form = chunkedAt(reply, ends, true);
  Answer answer;
  std::size_t at = form.text.find("\r\n\r\n") + 4;
  answer.segments.push_back(form.text.substr(0, at));
  for (const auto& chunk : form.chunks) {
    answer.segments.push_back(form.text.substr(at, chunk.dataEnd + 2 - at));
    at = chunk.dataEnd + 2;
  }
  answer.tail = form.text.substr(at);
  return answer;
}

Answer httpAnswer(const std::string& request) {
  const auto marked = readMarked(request);
  if (!hasReply(marked.kind)) return {};
  Answer answer =
      isStreaming(marked.kind) && !marked.refused ? httpInChunks(marked) : httpWithLength(marked);
  if (marked.longTexts) {
    std::string& header = answer.segments.front();
    header.insert(header.find("\r\n"), kLongReason);
    const auto length = header.find("Content-Length: ");
    if (length != std::string::npos) header.insert(length + 15, 20, ' ');
  }
  return answer;
}

// The binary protocol.

Answer binaryAnswer(const std::string& request) {
  const auto marked = readMarked(request);
  if (!hasReply(marked.kind)) return {};
  if (marked.refused || marked.kind == kGetStatus) {
    return {{word16(6), errorRecord(errorFields(marked))}};
  }
  Answer answer{{word16(1)}};
  if (isStreaming(marked.kind)) {
    for (int hit = 0; hit < kHits; ++hit) {
      const auto key = keyOf(marked, hit);
      answer.segments.push_back(marked.kind == kParseResult ? envelope(1, record16({{"Doc", key}}))
                                                            : scoredHit(500, key));
    }
    answer.segments.push_back(endOfResults());
  }
  if (marked.kind == kSelectivity) {
    answer.segments.push_back(envelope(1, estimate(marked.mark, 9, 7)));
    answer.segments.push_back(endOfResults());
  }
  if (marked.kind == kGetServerVersion) {
    const std::string name =
        marked.longTexts ? "version of a server with a long name " : "version ";
    answer.segments.push_back(envelope(1, text(name.c_str(), marked.mark)));
  }
  return answer;
}

// What a caller takes.

void takeHits(tq::comm::SearchResponse& hits, Ran& ran) {
  while (hits.hasMore()) ran.results.push_back(utf8(hits.getNext().getDocId()));
}

void takeParsed(tq::comm::ParseResponse& rows, Ran& ran) {
  while (rows.hasMore()) ran.results.push_back(utf8(rows.getNext().getDocument()));
}

// The list of a scalar search grows from portion to portion, so its hits are taken once, at the
// end; the lists of the others are replaced.
void takePortion(ClientResponse& response, int kind, bool last, Ran& ran) {
  if (kind == kParseResult) takeParsed(response.getParseResponse(), ran);
  if (kind == kStreamSearch || (kind == kScalarSearch && last)) {
    takeHits(response.getSearchResponse(), ran);
  }
}

void takeSingle(ClientResponse& response, const MarkedRequest& marked, Protocol protocol,
                Ran& ran) {
  if (marked.kind == kGetStatus) {
    ran.results.push_back(text("status ", response.getStatusCode()) + " " +
                          utf8(response.getStatusMessage().getMessageText()));
  }
  if (marked.kind == kSelectivity) {
    ran.results.push_back(text("estimate ", response.getSelectivityInfo().getFirst()));
  }
  if (marked.kind == kGetServerVersion && protocol != Protocol::Http) {
    ran.results.push_back(utf8(response.getContent()));
  }
}

void noteError(const tq::oss::BaseException& error, Ran& ran) {
  const auto& messages = error.getMessageList();
  ran.errorId = "(no message)";
  if (messages.empty()) return;
  ran.errorId = utf8(messages.front().getMessageId());
  for (const auto& argument : messages.front().getArguments()) {
    ran.errorArguments.push_back(utf8(argument));
  }
  if (ran.errorId == "ZVK0404E") {
    ran.errorArguments = {utf8(messages.front().getMessageText())};
  }
}

template <typename Operation>
void timed(Ran& ran, Operation operation) {
  const auto begin = tq::oss::monotonicNanos();
  const auto note = [&] {
    const auto millis = (tq::oss::monotonicNanos() - begin) / kNanosPerMilli;
    ran.longestMillis = std::max(ran.longestMillis, millis);
  };
  try {
    operation();
  } catch (...) {
    note();
    throw;
  }
  note();
}

void runWith(CorvaneRESTClient& client, ClientRequest& request, ClientResponse& response,
             const MarkedRequest& marked, Protocol protocol, Ran& ran) {
  timed(ran, [&] { client.sendAndRecvMesg(request, response); });
  ran.pulling = true;
  takeSingle(response, marked, protocol, ran);
  if (!isStreaming(marked.kind)) return;
  takePortion(response, marked.kind, false, ran);
  // Far more portions than any reply here has: a stream that never ends fails, and does not hang.
  for (int portion = 0; portion < 100 && !client.isEndOfStream(); ++portion) {
    timed(ran, [&] { client.recv(response); });
    takePortion(response, marked.kind, false, ran);
  }
}

}  // namespace

std::string nameOf(Protocol protocol) {
  switch (protocol) {
    case Protocol::Http:
      return "Http";
    case Protocol::Binary:
      return "Binary";
    default:
      return "BinaryReassembled";
  }
}

BuiltRequest::BuiltRequest(const MarkedRequest& marked) : content_(marked.contentSize, 'c') {
  static constexpr char kKey[] = "\x01\x02key";
  tq::util::ExtendedProperties properties;
  const auto textOf = [](const std::string& bytes) { return icu::UnicodeString::fromUTF8(bytes); };
  properties.putProperty(u"query", marked.longTexts ? textOf(kLongQuery) : u"x");
  properties.putProperty(u"kind", icu::UnicodeString::fromUTF8(std::to_string(marked.kind)));
  properties.putProperty(u"mark", icu::UnicodeString::fromUTF8(std::to_string(marked.mark)));
  if (marked.refused) properties.putProperty(u"refuse", u"yes");
  if (marked.longTexts) properties.putProperty(u"long", u"yes");
  request.buildRequest(marked.longTexts ? textOf(kLongCollection) : u"c1",
                       static_cast<ClientRequest::REQUEST>(marked.kind), properties);
  if (!isDocumentKind(marked.kind) && marked.kind != kDeleteDocument) return;
  const tq::comm::KVPair title(u"title", marked.longTexts ? textOf(kLongTitle) : u"one");
  request.setContent(std::list<tq::comm::KVPair>{title}, content_.data(),
                     isDocumentKind(marked.kind) ? static_cast<unsigned int>(content_.size()) : 0);
  request.setDocKey(kKey, sizeof kKey - 1);
}

Answerer answererOf(Protocol protocol) {
  return protocol == Protocol::Http ? httpAnswer : binaryAnswer;
}

bool hasItsLongTexts(const std::string& request) {
  const auto marked = readMarked(request);
  const bool document = isDocumentKind(marked.kind) || marked.kind == kDeleteDocument;
  return headerValue(request, "query") == kLongQuery &&
         headerValue(request, "index") == kLongCollection &&
         (!document || request.find(kLongTitle) != std::string::npos);
}

std::size_t timesSeen(const std::vector<std::string>& journal, unsigned int mark) {
  return static_cast<std::size_t>(
      std::count_if(journal.begin(), journal.end(),
                    [&](const auto& request) { return readMarked(request).mark == mark; }));
}

std::unique_ptr<CorvaneRESTClient> clientOf(Protocol protocol, bool persistent, unsigned int port) {
  if (protocol == Protocol::Http) {
    return std::make_unique<CorvaneRESTClient>(u"127.0.0.1", port, persistent);
  }
  auto client = std::make_unique<tq::comm::DrestoPerfClient>(u"127.0.0.1", port);
  client->usePeristentConnection(persistent);
  client->setReassembly(protocol == Protocol::BinaryReassembled);
  return client;
}

Ran runMarked(CorvaneRESTClient& client, const MarkedRequest& marked) {
  const bool binary = dynamic_cast<tq::comm::DrestoPerfClient*>(&client) != nullptr;
  Ran ran;
  ClientResponse response;
  BuiltRequest built(marked);
  try {
    runWith(client, built.request, response, marked, binary ? Protocol::Binary : Protocol::Http,
            ran);
  } catch (const tq::comm::RESTException& error) {
    noteError(error, ran);
  } catch (const std::exception& error) {
    ran.foreignError = error.what();
  }
  // What came before an error, too.
  takePortion(response, marked.kind, true, ran);
  ran.returnCode = response.getReturnCode();
  ran.endOfStream = client.isEndOfStream();
  ran.truncated = client.isTruncated();
  ran.outcome = client.getRequestOutcome();
  return ran;
}

std::vector<std::string> resultsOf(Protocol protocol, const MarkedRequest& marked) {
  const bool binary = protocol != Protocol::Http;
  if (marked.kind == kGetStatus) {
    return {binary ? text("status 2 refused ", marked.mark) : text("status ", marked.mark) + " "};
  }
  if (marked.refused) return {};
  if (marked.kind == kSelectivity) return {text("estimate ", binary ? marked.mark : 1)};
  if (marked.kind == kGetServerVersion && binary) return {text("version ", marked.mark)};
  std::vector<std::string> results;
  for (int hit = 0; isStreaming(marked.kind) && hit < kHits; ++hit) {
    const auto key = keyOf(marked, hit);
    results.push_back(marked.kind == kParseResult ? key : idOfKey(key));
  }
  return results;
}

std::ostream& operator<<(std::ostream& out, const Ran& ran) {
  out << (ran.errorId.empty() ? "no error" : ran.errorId);
  for (const auto& argument : ran.errorArguments) out << " (" << argument << ")";
  if (!ran.foreignError.empty()) out << " threw " << ran.foreignError;
  if (ran.pulling) out << " pulling";
  for (const auto& result : ran.results) out << " [" << result << "]";
  return out << " code " << ran.returnCode << (ran.endOfStream ? " ended" : " not ended")
             << (ran.truncated ? " truncated" : "") << " outcome " << static_cast<int>(ran.outcome)
             << " longest " << ran.longestMillis << " ms";
}

}  // namespace tq::test
