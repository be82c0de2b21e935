#include "tests/e2e/conversation.h"

#include <ostream>
#include <stdexcept>

#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTException.h"
#include "infra/util/kruBase64.h"

namespace tq::test {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;

namespace {

constexpr unsigned int kTimeOutMillis = 60000;
constexpr std::string_view kDocIdPrefix = "base64:";

std::vector<Said> messagesOf(const tq::oss::BaseException& failure) {
  std::vector<Said> said;
  for (const auto& message : failure.getMessageList()) {
    said.push_back({toUtf8(message.getMessageId()), toUtf8(message.getMessageText()),
                    static_cast<int>(message.getLevel())});
  }
  if (said.empty()) said.push_back({"(no message)", "", 0});
  return said;
}

/// Takes the results of one exchange.
class Taker {
 public:
  Taker(CorvaneRESTClient& client, ClientResponse& response, std::size_t most, Answer& answer)
      : client_(client), response_(response), most_(most), answer_(answer) {}

  void hitsLooping() {
    hits(response_.getSearchResponse());
    while (wantsMore()) hits(response_.getSearchResponse(client_, true));
  }

  // The list of a scalar search grows from portion to portion, so its hits are taken at the end.
  void hitsSingly(bool listGrows) {
    if (!listGrows) hits(response_.getSearchResponse());
    while (wantsMore()) {
      client_.recv(response_);
      if (!listGrows) hits(response_.getSearchResponse());
    }
    if (listGrows) hits(response_.getSearchResponse());
  }

  void parseResults() {
    parseResults(response_.getParseResponse());
    while (!client_.isEndOfStream()) parseResults(response_.getParseResponse(client_));
  }

 private:
  bool wantsMore() const { return !client_.isEndOfStream() && answer_.hits.size() < most_; }

  void hits(tq::comm::SearchResponse& portion) {
    if (portion.hasMore()) ++answer_.portions;
    while (portion.hasMore() && answer_.hits.size() < most_) {
      tq::comm::SearchResult& hit = portion.getNext();
      answer_.hits.push_back({toUtf8(hit.getDocId()), hit.getScore()});
    }
  }

  void parseResults(tq::comm::ParseResponse& portion) {
    if (portion.hasMore()) ++answer_.portions;
    while (portion.hasMore()) {
      const tq::comm::ParseResult& result = portion.getNext();
      Parsed parsed{toUtf8(result.getDocument()), {}, {}, 0};
      if (result.hasMessage()) {
        parsed.messageId = toUtf8(result.getMessage().getMessageId());
        parsed.messageText = toUtf8(result.getMessage().getMessageText());
        parsed.level = static_cast<int>(result.getMessage().getLevel());
      }
      answer_.parsed.push_back(std::move(parsed));
    }
  }

  CorvaneRESTClient& client_;
  ClientResponse& response_;
  std::size_t most_;
  Answer& answer_;
};

void takeResults(CorvaneRESTClient& client, int kind, ClientResponse& response, Taking taking,
                 std::size_t most, Answer& answer) {
  Taker taker(client, response, most, answer);
  if (kind == kParseResult) {
    taker.parseResults();
  } else if (kind == kStreamSearch || kind == kScalarSearch) {
    if (taking == Taking::Looping) taker.hitsLooping();
    if (taking == Taking::Singly) taker.hitsSingly(kind == kScalarSearch);
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& out, Protocol protocol) {
  return out << (protocol == Protocol::Http ? "Http" : "Binary");
}

std::unique_ptr<CorvaneRESTClient> newClient(Protocol protocol, const CorvanedProcess& server) {
  std::unique_ptr<CorvaneRESTClient> client;
  if (protocol == Protocol::Http) {
    client = std::make_unique<CorvaneRESTClient>(u"127.0.0.1", server.httpPort(), true);
  } else {
    auto binary = std::make_unique<DrestoPerfClient>(u"127.0.0.1", server.binaryPort());
    binary->setReassembly(true);
    client = std::move(binary);
  }
  client->setTimeOut(kTimeOutMillis);
  return client;
}

ClientRequest requestTo(std::string_view collection, int kind, const Parameters& parameters) {
  tq::util::ExtendedProperties properties;
  for (const auto& [name, value] : parameters) {
    properties.putProperty(fromUtf8(name), fromUtf8(value));
  }
  ClientRequest request;
  request.buildRequest(fromUtf8(collection), static_cast<ClientRequest::REQUEST>(kind), properties);
  return request;
}

void attachDocument(ClientRequest& request, const std::string& key, std::string_view text,
                    const std::list<tq::comm::KVPair>& metadata) {
  request.setDocKey(key.data(), static_cast<unsigned int>(key.size()));
  request.setContent(metadata, text.empty() ? nullptr : text.data(),
                     static_cast<unsigned int>(text.size()));
}

std::vector<std::string> Answer::keys() const {
  std::vector<std::string> keys;
  keys.reserve(hits.size());
  for (const Hit& hit : hits) keys.push_back(keyOf(hit.id));
  return keys;
}

std::ostream& operator<<(std::ostream& out, const Answer& answer) {
  out << (answer.success ? "success" : "no success") << ", outcome "
      << static_cast<int>(answer.outcome) << ", status " << answer.statusCode;
  for (const Said& said : answer.failure) {
    out << ", " << said.id << " (level " << said.level << ") " << said.text;
  }
  if (!answer.content.empty()) out << ", content \"" << answer.content << '"';
  out << ", " << (answer.complete ? "complete" : "incomplete") << ", " << answer.hits.size()
      << " hits";
  for (const Hit& hit : answer.hits) out << ' ' << hit.id << '=' << hit.score;
  out << ", " << answer.parsed.size() << " parse results";
  for (const Parsed& parsed : answer.parsed) {
    out << ' ' << parsed.document << " [" << parsed.messageId << ' ' << parsed.messageText << ']';
  }
  return out;
}

Answer ask(CorvaneRESTClient& client, ClientRequest& request, Taking taking, std::size_t most) {
  Answer answer;
  ClientResponse response;
  try {
    client.sendAndRecvMesg(request, response);
    takeResults(client, request.getRequest(), response, taking, most, answer);
    answer.complete = client.isEndOfStream() && !client.isTruncated();
  } catch (const tq::comm::RESTException& failure) {
    answer.failure = messagesOf(failure);
  }
  answer.success = response.success();
  answer.statusCode = response.getStatusCode();
  answer.content = toUtf8(response.getContent());
  const auto& selectivity = response.getSelectivityInfo();
  answer.selectivity = {selectivity.getFirst(), selectivity.getSecond(), selectivity.getThird()};
  answer.outcome = client.getRequestOutcome();
  return answer;
}

std::string toUtf8(const icu::UnicodeString& text) {
  std::string out;
  return text.toUTF8String(out);
}

icu::UnicodeString fromUtf8(std::string_view bytes) {
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(bytes.data(), static_cast<std::int32_t>(bytes.size())));
}

std::string docIdOf(std::string_view key) {
  std::string text(tq::util::Base64::encodeSize(key.size()), '\0');
  tq::util::Base64::encode(key.data(), key.size(), text.data());
  return std::string(kDocIdPrefix) + text;
}

std::string keyOf(const std::string& docId) {
  std::string key;
  if (!docId.starts_with(kDocIdPrefix) ||
      !tq::util::Base64::decode(docId.data() + kDocIdPrefix.size(),
                                docId.size() - kDocIdPrefix.size(), key)) {
    throw std::runtime_error("not a document id: " + docId);
  }
  return key;
}

}  // namespace tq::test
