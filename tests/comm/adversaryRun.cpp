#include <algorithm>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruKVPair.h"
#include "comm/kruRESTException.h"
#include "infra/util/kruExtendedProperties.h"
#include "tests/comm/adversaryNetwork.h"
#include "tests/comm/adversarySchedule.h"
#include "tests/comm/taggedReplies.h"
#include "tests/support/exchange.h"

namespace tq::test {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;
using tq::comm::RESTException;

constexpr unsigned int kFirstTag = 1000;
// Of replies that belong to nobody.
constexpr unsigned int kAlienTag = 900;
// Who sends by hand asks under a name of his own.
constexpr std::size_t kByHand = 100;

bool hasReply(int kind) { return kind != kAsynchAddDocument && kind != kLastDocSent; }

/// What the peer has said to one request.
struct Said {
  std::size_t exchange;
  TaggedReply reply;
  std::string text;
  bool begun;  // whether as much as the beginning of it was sent
};

/// What the caller has seen of one exchange.
struct Seen {
  bool failed = false;
  std::string errorId{};
  std::string errorText{};
  std::vector<std::string> names{};
  bool whole = false;  // all that there was, as far as the caller can know
};

class Run {
 public:
  explicit Run(const Schedule& schedule)
      : schedule_(schedule),
        network_(schedule.binary, schedule.joined,
                 [this](std::size_t c, const std::string& r) { answer(c, r); }) {}

  std::string violation();

 private:
  // The peer.
  void answer(std::size_t connection, const std::string& request);
  void sendReply(std::size_t connection, std::string text, const PeerPlan& plan);
  void sendPieces(std::size_t connection, const std::string& text, const PeerPlan& plan);
  std::string stray(const PeerPlan& plan, const std::string& text, std::size_t exchange) const;
  std::string textOf(const TaggedReply& reply, const PeerPlan& plan) const;
  std::string wellFormed(int kind, unsigned int tag) const;
  int kindOf(std::size_t exchange) const;

  // The caller.
  void makeClient();
  void exchange(std::size_t index, const ExchangePlan& plan);
  void prepare(std::size_t index, const ExchangePlan& plan);
  void actBefore(std::size_t index, const ExchangePlan& plan);
  Seen perform(std::size_t index, const ExchangePlan& plan, ClientResponse& response);
  void pull(const ExchangePlan& plan, ClientResponse& response, Seen& seen);
  void pullPortions(const ExchangePlan& plan, ClientResponse& response, Seen& seen);
  void takeNames(int kind, ClientResponse& response, Seen& seen) const;

  // The judge.
  void judge(std::size_t index, const Seen& seen, ClientResponse& response);
  void judgeNames(std::size_t index, const Seen& seen);
  void judgeError(const Seen& seen, const Said& last);
  void judgeSuccess(const Seen& seen, const Said& last, ClientResponse& response);
  void require(bool holds, const std::string& what);

  const Schedule& schedule_;
  std::vector<Said> said_{};
  TimedNetwork network_;
  std::unique_ptr<CorvaneRESTClient> client_{};
  std::size_t current_ = 0;
  bool failed_ = false;
  std::string violation_{};
};

// The peer.

int Run::kindOf(std::size_t exchange) const {
  return exchange < schedule_.exchanges.size() ? kKinds[schedule_.exchanges[exchange].caller[kKind]]
                                               : static_cast<int>(kGetStatus);
}

std::string Run::textOf(const TaggedReply& reply, const PeerPlan& plan) const {
  if (schedule_.binary) return binaryReply(reply);
  HttpForm form;
  form.chunked = plan[kFraming] != 0;
  form.chunkSize = plan[kFraming] > 1 ? plan[kFraming] : 0;
  form.endMark = plan[kNoEndMark] == 0;
  form.lastChunk = plan[kNoLastChunk] == 0;
  if (plan[kTailData] != 0) form.behindResults = wellFormed(reply.kind, kAlienTag);
  std::string front;
  if ((plan[kPrefix] & 1) != 0) front += "\r\n";
  if ((plan[kPrefix] & 2) != 0) front += "HTTP/1.1 100 Continue\r\n\r\n";
  return front + httpReply(reply, form);
}

std::string Run::wellFormed(int kind, unsigned int tag) const {
  const TaggedReply reply{kind, tag, 2, TaggedReply::Verdict::Ok};
  return schedule_.binary ? binaryReply(reply) : httpReply(reply, {});
}

void Run::answer(std::size_t connection, const std::string& request) {
  const auto at = request.find("query: m");
  // A terminate record that stands by itself.
  if (at == std::string::npos) return;
  const std::size_t name = std::stoul(request.substr(at + 8));
  const std::size_t exchange = name % kByHand;
  const auto before =
      std::count_if(said_.begin(), said_.end(), [&](const Said& s) { return s.exchange == name; });
  PeerPlan plan{};
  if (current_ < schedule_.exchanges.size()) {
    plan = schedule_.exchanges[exchange].peer[before == 0 && name < kByHand ? 0 : 1];
  }
  TaggedReply reply;
  reply.kind = name < kByHand ? kindOf(exchange) : static_cast<int>(kCreateCollection);
  reply.tag = kFirstTag + static_cast<unsigned int>(said_.size());
  reply.results = plan[kResults];
  reply.verdict = static_cast<TaggedReply::Verdict>(plan[kVerdict]);
  std::string text = hasReply(reply.kind) ? textOf(reply, plan) : std::string();
  said_.push_back({name, reply, text, plan[kCutAt] == 0 || text.size() * plan[kCutAt] / 16 != 0});
  sendReply(connection, std::move(text), plan);
}

void Run::sendReply(std::size_t connection, std::string text, const PeerPlan& plan) {
  if (plan[kCutAt] != 0) text.resize(text.size() * plan[kCutAt] / 16);
  const bool stuck = plan[kPause] == kDelays.size();
  sendPieces(connection, text, plan);
  if (stuck || plan[kCutAt] != 0) {
    if (stuck || plan[kCutHow] == 0) network_.fallSilent(connection);
    if (plan[kCutHow] == 1) network_.close(connection, 0);
    if (plan[kCutHow] == 2) network_.reset(connection, 0);
    return;
  }
  const std::string more = stray(plan, text, said_.back().exchange % kByHand);
  network_.sendUnasked(connection, more, kDelays[plan[kStrayDelay]]);
  const bool endless = plan[kNoEndMark] != 0 && plan[kNoLastChunk] != 0;
  if (plan[kEnd] == 1 || endless) network_.close(connection, 0);
  if (plan[kEnd] == 2) network_.reset(connection, 0);
  if (plan[kEnd] == 3) network_.close(connection, kDelays[2]);
}

void Run::sendPieces(std::size_t connection, const std::string& text, const PeerPlan& plan) {
  const std::size_t size =
      plan[kSegment] == 0 ? std::max<std::size_t>(text.size(), 1) : std::size_t{plan[kSegment]};
  const std::size_t pauseAt = text.size() * plan[kPauseAt] / 8;
  std::uint64_t delay = kDelays[plan[kDelay]];
  std::size_t at = 0;
  const auto sendUpTo = [&](std::size_t end) {
    for (; at < end; at = std::min(end, at + size)) {
      network_.send(connection, text.substr(at, std::min(size, end - at)), delay);
    }
  };
  if (plan[kPause] != 0) {
    sendUpTo(pauseAt);
    if (plan[kPause] == kDelays.size()) return;
    delay += kDelays[plan[kPause]];
  }
  sendUpTo(text.size());
}

std::string Run::stray(const PeerPlan& plan, const std::string& text, std::size_t exchange) const {
  switch (plan[kStray]) {
    case 0:
      return {};
    case 1:
      return text;
    case 2:
      return said_.front().text;
    case 3:
      return schedule_.binary ? std::string(2, '\0') : "\r\n";
    case 4:
      return schedule_.binary ? std::string(4, '\0') : "HTTP/1.1 100 Continue\r\n\r\n";
    case 5:
      return "\x01";
    case 6:
      return text.substr(0, text.size() / 2);
    case 7:
      return wellFormed(kindOf(exchange + 1), kAlienTag);
    case 8:
      return schedule_.binary ? std::string("\0\1\0\1\0\0", 6) : "0\r\n\r\n";
    default:
      // More than any buffer on its way holds.
      return std::string(20000, '\n') + wellFormed(kindOf(exchange + 1), kAlienTag);
  }
}

// The caller.

ClientRequest requestNamed(std::size_t name, int kind) {
  static constexpr char kKey[] = "key";
  tq::util::ExtendedProperties properties;
  properties.putProperty(
      u"query", icu::UnicodeString::fromUTF8(std::string("m").append(std::to_string(name))));
  ClientRequest request;
  request.buildRequest(u"c1", static_cast<ClientRequest::REQUEST>(kind), properties);
  if (kind == kAsynchAddDocument) {
    request.setContent(std::list<tq::comm::KVPair>{{u"title", u"one"}}, nullptr, 0);
    request.setDocKey(kKey, sizeof kKey - 1);
  }
  return request;
}

void Run::makeClient() {
  if (schedule_.binary) {
    auto client = std::make_unique<DrestoPerfClient>(u"adversary", 7);
    client->setReassembly(schedule_.reassembly);
    client->useBufferedConnection(schedule_.batching);
    client->usePeristentConnection(schedule_.persistent);
    client_ = std::move(client);
  } else {
    client_ = std::make_unique<CorvaneRESTClient>(u"adversary", 7, schedule_.persistent);
  }
}

std::string Run::violation() {
  makeClient();
  for (; current_ < schedule_.exchanges.size(); ++current_) {
    exchange(current_, schedule_.exchanges[current_]);
    if (!violation_.empty()) return violation_;
  }
  // Whatever came before, this one must succeed: over the old connection, or over a new one when
  // that has ended by now or never answers again.
  ExchangePlan last;
  last.caller[kIdle] = kDelays.size() - 1;
  last.caller[kTimeOut] = 1;
  last.caller[kRetries] = 1;
  network_.heal();
  exchange(current_, last);
  return violation_;
}

void Run::exchange(std::size_t index, const ExchangePlan& plan) {
  prepare(index, plan);
  ClientResponse response;
  const Seen seen = perform(index, plan, response);
  failed_ = seen.failed;
  judge(index, seen, response);
  if (index == schedule_.exchanges.size()) {
    require(!seen.failed, "the last exchange fails with " + seen.errorId);
  }
}

void Run::prepare(std::size_t index, const ExchangePlan& plan) {
  network_.idle(kDelays[plan.caller[kIdle]]);
  client_->setTimeOut(plan.caller[kTimeOut] != 0 ? kTimeOutMillis : 0);
  client_->setDeadline(plan.caller[kDeadline] != 0 ? kDeadlineMillis : 0);
  client_->setNumRetries(plan.caller[kRetries]);
  try {
    actBefore(index, plan);
  } catch (const RESTException&) {
    // As the schedule may have wanted.
  } catch (const tq::oss::BaseException&) {
  }
  const unsigned int fault = plan.caller[kFault];
  if (fault == 1) network_.failNextConnect();
  if (fault > 1) network_.failNextWrite((fault - 2) * std::size_t{40});
}

void Run::actBefore(std::size_t index, const ExchangePlan& plan) {
  switch (plan.caller[kBefore]) {
    case 1:
      client_->close();
      break;
    case 2:
      client_->open();
      break;
    case 3:
      client_->close();
      client_->open();
      break;
    case 4: {
      // Behind half a message nothing can be sent by hand.
      if (failed_) client_->close();
      client_->open();
      ClientRequest request = requestNamed(index + kByHand, kCreateCollection);
      client_->send(request);
      break;
    }
    case 5:
      client_->usePeristentConnection(false);
      break;
    case 6:
      client_->usePeristentConnection(true);
      break;
    default:
      break;
  }
}

void noteError(const tq::oss::BaseException& error, Seen& seen) {
  seen.failed = true;
  const auto& messages = error.getMessageList();
  if (messages.empty()) return;
  seen.errorId = utf8(messages.front().getMessageId());
  seen.errorText = utf8(messages.front().getMessageText());
}

Seen Run::perform(std::size_t index, const ExchangePlan& plan, ClientResponse& response) {
  Seen seen;
  const int kind = kindOf(index);
  ClientRequest request = requestNamed(index, kind);
  try {
    client_->sendAndRecvMesg(request, response);
    pull(plan, response, seen);
  } catch (const RESTException& error) {
    noteError(error, seen);
  }
  for (unsigned int i = 0; i < plan.caller[kRecvAfter]; ++i) {
    try {
      // At the end of the stream a receive empties the list.
      if (kind != kScalarSearch || client_->isEndOfStream()) takeNames(kind, response, seen);
      client_->recv(response);
    } catch (const RESTException&) {
      // It may have nothing to go on with.
    }
  }
  takeNames(kind, response, seen);
  seen.whole = !seen.failed && client_->isEndOfStream() && !client_->isTruncated();
  return seen;
}

void Run::pull(const ExchangePlan& plan, ClientResponse& response, Seen& seen) {
  if (plan.caller[kPull] == 2) return;
  const int kind = kindOf(current_);
  const bool looping = plan.caller[kPull] == 1 && (kind == kStreamSearch || kind == kScalarSearch);
  for (unsigned int timeOuts = 0;; ++timeOuts) {
    try {
      if (!looping) return pullPortions(plan, response, seen);
      while (response.getSearchResponse(*client_, true).hasMore()) takeNames(kind, response, seen);
      return;
    } catch (const RESTException& error) {
      Seen failure;
      noteError(error, failure);
      // A time-out loses nothing: whoever has patience goes on.
      if (failure.errorId != "ERR_SERVER_COMM_TIMEOUT" || timeOuts == 2) throw;
    }
  }
}

void Run::pullPortions(const ExchangePlan& plan, ClientResponse& response, Seen& seen) {
  const int kind = kindOf(current_);
  while (!client_->isEndOfStream()) {
    // The list of a scalar search grows; it is taken once.
    if (kind != kScalarSearch) takeNames(kind, response, seen);
    client_->recv(response);
    if (plan.caller[kPull] == 3) return;
  }
}

void Run::takeNames(int kind, ClientResponse& response, Seen& seen) const {
  if (kind == kParseResult) {
    auto& rows = response.getParseResponse();
    while (rows.hasMore()) seen.names.push_back(utf8(rows.getNext().getDocument()));
  }
  auto& hits = response.getSearchResponse();
  while (hits.hasMore()) seen.names.push_back(utf8(hits.getNext().getDocId()));
}

// The judge.

void Run::require(bool holds, const std::string& what) {
  if (!holds && violation_.empty()) {
    violation_ = "exchange " + std::to_string(current_) + ": " + what;
  }
}

void Run::judge(std::size_t index, const Seen& seen, ClientResponse& response) {
  const auto last = std::find_if(said_.rbegin(), said_.rend(),
                                 [&](const Said& s) { return s.exchange == index; });
  judgeNames(index, seen);
  if (!hasReply(kindOf(index))) return;
  if (last == said_.rend()) {
    require(seen.failed, "succeeds although the server never saw its request");
    require(seen.errorId != "ZVK0001E", "has an error although the server never saw its request");
  } else if (seen.failed) {
    judgeError(seen, *last);
  } else {
    judgeSuccess(seen, *last, response);
  }
}

/// What was delivered is the beginning of what the server said to one attempt, and all of it when
/// the client says so.
void Run::judgeNames(std::size_t index, const Seen& seen) {
  bool begins = seen.names.empty();
  for (const Said& said : said_) {
    if (said.exchange != index) continue;
    const auto names = said.reply.names(schedule_.binary);
    begins = begins || (seen.names.size() <= names.size() &&
                        std::equal(seen.names.begin(), seen.names.end(), names.begin()));
  }
  require(begins, "delivers " + (seen.names.empty() ? "" : seen.names.front()) +
                      " and so on, which the server did not say to it");
}

void Run::judgeError(const Seen& seen, const Said& last) {
  using Verdict = TaggedReply::Verdict;
  if (seen.errorId == "ZVK0001E") {
    require(last.reply.verdict == Verdict::Error, "has an error that the server did not mean");
    require(seen.errorText == tagText(last.reply.tag), "has the error " + seen.errorText);
  }
  if (seen.errorId == "ERR_SERVER_INVALID_AUTH") {
    require(last.reply.verdict == Verdict::Refused, "is refused, which the server did not mean");
  }
}

void Run::judgeSuccess(const Seen& seen, const Said& last, ClientResponse& response) {
  const TaggedReply& said = last.reply;
  const bool binary = schedule_.binary;
  require(last.begun, "succeeds although the server did not answer");
  const bool errorIsStatus = binary && said.kind == kGetStatus;
  require(said.verdict == TaggedReply::Verdict::Ok ||
              (errorIsStatus && said.verdict == TaggedReply::Verdict::Error),
          "succeeds although the server refused it");
  if (seen.whole) require(seen.names == said.names(binary), "is whole, but not all was delivered");
  if (said.kind == kGetStatus && !binary) {
    require(response.getStatusCode() == said.tag,
            "has the status " + std::to_string(response.getStatusCode()));
  }
  if (said.kind == kGetStatus && binary) {
    const std::string text = utf8(response.getStatusMessage().getMessageText());
    const bool cut = text.empty() && client_->isTruncated();
    require(cut || text == tagText(said.tag), "has the status " + text);
  }
  if (said.kind == kGetServerVersion && binary) {
    require(utf8(response.getContent()) == tagText(said.tag), "has another's version");
  }
  if (said.kind == kSelectivity && binary) {
    require(response.getSelectivityInfo().getFirst() == said.tag, "has another's estimate");
  }
}

}  // namespace

std::string violationOf(const Schedule& schedule) { return Run(schedule).violation(); }

}  // namespace tq::test
