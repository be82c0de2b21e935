// Both clients as a database uses them, against peers that follow the input.
//
// Input: eight bytes of options (see Options), then the script of the peers (see parseScripts).

#include <array>
#include <deque>
#include <iostream>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruKVPair.h"
#include "comm/kruRESTException.h"
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/memoryMeter.h"
#include "fuzz/memoryNetwork.h"
#include "fuzz/transcript.h"

namespace tq::fuzz {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;
using tq::comm::RequestOutcome;
using tq::comm::RESTException;

// A receive buffer's slice is the largest thing that does not depend on the bytes; requests are of
// a fixed size.
constexpr MemoryBounds kMemory{96 * 1024, 8, 512 * 1024, 200};
constexpr std::string_view kMarksCut("\0\x09", 2);
constexpr std::string_view kMarksError("\0\x06", 2);
constexpr std::size_t kUnlimited = std::size_t{1} << 30;

struct Options {
  explicit Options(Input& input);

  bool binary;
  bool persistent;
  bool reassembly;
  bool batching;
  bool looping;
  bool retryUnsafe;
  bool peersCloseAtLast;
  bool onDemand;
  std::array<std::size_t, 3> requests;
  unsigned int exchanges;
  unsigned int retries;
  unsigned int timeOut;
  unsigned int deadline;
  unsigned int pause;
  std::size_t maxReplyBytes;
  PeerStep::Kind end;
  NetworkManners manners;
};

Options::Options(Input& input) {
  const unsigned int flags = input.byte();
  binary = (flags & 1) != 0;
  persistent = (flags & 2) != 0;
  reassembly = (flags & 4) != 0;
  batching = (flags & 8) != 0;
  looping = (flags & 16) != 0;
  retryUnsafe = (flags & 32) == 0;
  peersCloseAtLast = (flags & 64) != 0;
  onDemand = (flags & 128) != 0;
  for (std::size_t& request : requests) request = input.byte();
  const unsigned int counts = input.byte();
  exchanges = 1 + counts % 4 % 3;
  retries = (counts >> 2) % 4;
  manners.refusals = (counts >> 4) % 4;
  pause = (counts >> 6) % 2 * 20;
  const unsigned int times = input.byte();
  timeOut = times % 4 == 1 ? 50 : 0;
  deadline = (times >> 2) % 4 == 1 ? 200 : 0;
  constexpr std::array kEnds{PeerStep::Kind::Close, PeerStep::Kind::Await, PeerStep::Kind::Reset,
                             PeerStep::Kind::Silence};
  end = kEnds[(times >> 4) % kEnds.size()];
  constexpr std::array<std::size_t, 4> kLimits{kUnlimited, 4096, 64, 0};
  maxReplyBytes = kLimits[(times >> 6) % kLimits.size()];
  manners.pieces = Cutter(input.byte());
  const unsigned int writes = input.byte();
  manners.failingWrite = writes % 8 == 7 ? 1 + (writes >> 3) % 4 : 0;
  manners.writeLimit = writes % 8 == 6 ? 64 + (writes >> 3) * 64 : 0;
  manners.onDemand = onDemand;
}

/// A request's destructor is not virtual; nothing derives from this one.
class Request final : public ClientRequest {};

/// Every kind of request, built once.
class Requests {
 public:
  Requests() {
    for (const int kind : {8, 20, 11, 14, 15, 22, 9, 10, 3, 5, 1, 4, 12, 6, 64}) add(kind, 19);
    add(3, kLargeContent);
    add(9, kLargeContent);
  }

  ClientRequest& at(std::size_t choice) { return requests_[choice % requests_.size()]; }
  std::size_t size() const { return requests_.size(); }
  ClientRequest& ofKind(int kind) {
    for (Request& request : requests_) {
      if (request.getRequest() == kind) return request;
    }
    fail("the kind is among the requests");
  }

 private:
  // Above what the binary client copies into its buffer.
  static constexpr unsigned int kLargeContent = 12000;

  void add(int kind, unsigned int contentSize) {
    static constexpr char kKey[] = "\x01\x02key";
    static const std::string content(kLargeContent, 'x');
    tq::util::ExtendedProperties properties;
    properties.putProperty(u"query", u"x");
    Request& request = requests_.emplace_back();
    request.buildRequest(u"c1", static_cast<ClientRequest::REQUEST>(kind), properties);
    if (kind == 3 || kind == 5 || kind == 9) {
      request.setContent(std::list<tq::comm::KVPair>{{u"title", u"one"}}, content.data(),
                         kind == 5 ? 0 : contentSize);
      request.setDocKey(kKey, sizeof kKey - 1);
    }
  }

  std::deque<Request> requests_;
};

Requests& requests() {
  static Requests instance;
  return instance;
}

const tq::oss::Socket::_AddrInfoExternal& address() {
  static const auto known = [] {
    tq::oss::Socket::_AddrInfoExternal result;
    require(result.add(u"127.0.0.1", 7), "an address in digits is one");
    return result;
  }();
  return known;
}

std::unique_ptr<CorvaneRESTClient> makeClient(bool binary, bool persistent) {
  if (!binary) {
    return std::make_unique<CorvaneRESTClient>(u"server", 7U, address(), persistent);
  }
  return std::make_unique<DrestoPerfClient>(u"server", 7U, address());
}

/// The bytes of a request on the wire.
std::size_t measure(const ClientRequest& request, bool binary) {
  const std::vector<PeerScript> scripts;
  MemoryNetwork network(scripts, NetworkManners());
  const auto client = makeClient(binary, false);
  client->setNumRetries(0);
  ClientRequest copy(request);
  ClientResponse response;
  try {
    client->sendAndRecvMesg(copy, response);
  } catch (const RESTException&) {
    // Nobody answers; what was sent is all that counts.
  }
  return network.mostWritten();
}

std::size_t lengthOf(const ClientRequest& request, bool binary) {
  static std::map<std::pair<const ClientRequest*, bool>, std::size_t> known;
  const auto [at, fresh] = known.try_emplace({&request, binary}, 0);
  if (fresh) at->second = measure(request, binary);
  return at->second;
}

std::unique_ptr<CorvaneRESTClient> makeClient(const Options& options) {
  auto client = makeClient(options.binary, options.persistent);
  client->usePeristentConnection(options.persistent);
  client->useBufferedConnection(options.batching);
  client->setNumRetries(options.retries);
  client->setRetryUnsafe(options.retryUnsafe);
  client->setRetryPause(options.pause, 4 * options.pause);
  client->setTimeOut(options.timeOut);
  client->setDeadline(options.deadline);
  client->setMaxReplyBytes(options.maxReplyBytes);
  if (options.binary) static_cast<DrestoPerfClient&>(*client).setReassembly(options.reassembly);
  return client;
}

bool isSearch(int kind) { return kind == 8 || kind == 20; }

/// One scenario: a client, its peers, and what came of it.
class Run {
 public:
  Run(const Options& options, const std::vector<PeerScript>& scripts, const NetworkManners& manners,
      std::size_t bytes, Transcript::Scores scores)
      : options_(options),
        network_(scripts, manners),
        client_(makeClient(options)),
        pullsLeft_(bytes + 64),
        transcript_(scores) {}

  void exchangeAll() {
    for (unsigned int i = 0; i < options_.exchanges; ++i) {
      exchange(requests().at(options_.requests[i]));
    }
  }

  void requireUsable();
  /// Ends the client.
  void requireNothingLeftOpen();
  const Transcript& transcript() const { return transcript_; }

 private:
  void exchange(ClientRequest& request);
  void pull(int kind, ClientResponse& response);
  void pullLooping(ClientResponse& response);
  void pullSingly(int kind, ClientResponse& response);
  void countPull() {
    require(pullsLeft_-- != 0, "every portion that is pulled brings the stream forward");
  }
  void requireHonestOutcome(const ClientRequest& request);
  bool answersRightly();

  const Options& options_;
  MemoryNetwork network_;
  std::unique_ptr<CorvaneRESTClient> client_;
  std::size_t pullsLeft_;
  Transcript transcript_;
};

void Run::exchange(ClientRequest& request) {
  const int kind = request.getRequest();
  ClientResponse response;
  network_.mark();
  try {
    client_->sendAndRecvMesg(request, response);
    requireHonestOutcome(request);
    pull(kind, response);
    transcript_.note("ended", client_->isEndOfStream() ? 1 : 0);
    transcript_.note("truncated", client_->isTruncated() ? 1 : 0);
  } catch (const RESTException& error) {
    requireHonestOutcome(request);
    transcript_.noteError(error);
  }
  transcript_.takeHits(response.getSearchResponse());
  transcript_.takeRows(response.getParseResponse());
  transcript_.noteResponse(response);
}

/// "Not sent" promises that the server cannot have acted on the request.
void Run::requireHonestOutcome(const ClientRequest& request) {
  if (options_.batching || client_->getRequestOutcome() != RequestOutcome::NotSent) return;
  require(network_.mostWritten() < lengthOf(request, options_.binary),
          "a request that the server has seen whole is not reported as not sent");
}

void Run::pull(int kind, ClientResponse& response) {
  if (kind == ClientRequest::PARSE_RESULT && options_.binary) {
    transcript_.takeRows(response.getParseResponse());
    while (!client_->isEndOfStream()) {
      countPull();
      transcript_.takeRows(response.getParseResponse(*client_));
    }
  } else if (isSearch(kind) && options_.looping) {
    pullLooping(response);
  } else if (isSearch(kind) || kind == ClientRequest::SELECTIVITY) {
    pullSingly(kind, response);
  }
}

void Run::pullLooping(ClientResponse& response) {
  for (;;) {
    countPull();
    tq::comm::SearchResponse& hits = response.getSearchResponse(*client_, true);
    if (!hits.hasMore()) break;
    transcript_.takeHits(hits);
  }
  require(client_->isEndOfStream(), "a search without further hits has ended");
}

void Run::pullSingly(int kind, ClientResponse& response) {
  const bool replaced = kind == ClientRequest::STREAM_SEARCH;
  if (replaced) transcript_.takeHits(response.getSearchResponse());
  while (!client_->isEndOfStream()) {
    countPull();
    client_->recv(response);
    if (replaced) transcript_.takeHits(response.getSearchResponse());
  }
}

/// Whatever has happened, a server that answers as it should is understood, and an answer never
/// belongs to another request.
void Run::requireUsable() {
  using namespace std::string_view_literals;
  constexpr auto kHttpReply =
      "HTTP/1.1 200 OK\r\nContent-Length: "
      "31\r\n\r\n\x7F\x01\xFE\x02\x00\x00\x00\x17\x00\x00\x00\x0B"
      "STATUS_CODE\x00\x00\x00\x04"
      "4242"sv;
  constexpr auto kBinaryReply = "\x00\x01\x00\x01\x00\x06marker"sv;
  client_->setNumRetries(1);
  client_->setRetryUnsafe(true);
  client_->setRetryPause(0, 0);
  client_->setTimeOut(0);
  client_->setDeadline(0);
  client_->setMaxReplyBytes(kUnlimited);
  client_->useBufferedConnection(false);
  network_.behave(options_.binary ? kBinaryReply : kHttpReply);
  if (options_.peersCloseAtLast) network_.closeAll();
  // A peer that broke off within a chunk owes its rest first, and is understood to send it.
  if (answersRightly()) return;
  require(!options_.peersCloseAtLast, "a client goes on when its peers have closed");
  require(answersRightly(), "a client goes on after any failure");
}

void Run::requireNothingLeftOpen() {
  client_.reset();
  require(network_.openDescriptors() == 0, "a client leaves no descriptor open");
}

/// False when the exchange fails; a success must be the right one.
bool Run::answersRightly() {
  const int kind = options_.binary ? ClientRequest::GET_SERVER_VERSION : ClientRequest::GET_STATUS;
  ClientResponse response;
  try {
    client_->sendAndRecvMesg(requests().ofKind(kind), response);
  } catch (const RESTException&) {
    return false;
  }
  require(response.success(), "an answer that says so is a success");
  const bool right = options_.binary ? response.getContent() == icu::UnicodeString(u"marker")
                                     : response.getStatusCode() == 4242;
  require(right, "an answer belongs to its request");
  return true;
}

/// All that the peers send, without the breaks in which they wait or close: a mark may lie across
/// one.
std::string sentBytes(const std::vector<PeerScript>& scripts) {
  std::string bytes;
  for (const PeerScript& script : scripts) {
    for (const PeerStep& step : script) bytes += step.bytes;
  }
  return bytes;
}

/// True when what the caller sees may not depend on the cut. Over the binary protocol that is
/// promised with reassembly only, and not for two forms of envelopes that no server sends (see
/// Envelopes); over either, what a connection brings between two requests is seen or not depending
/// on when it comes.
bool cutMustNotMatter(const Options& options, const std::vector<PeerScript>& scripts) {
  if (options.exchanges != 1) return false;
  if (!options.binary) return true;
  if (!options.reassembly) return false;
  const std::string sent = sentBytes(scripts);
  if (sent.find(kMarksCut) != std::string::npos) return false;
  const int kind = requests().at(options.requests[0]).getRequest();
  return kind != ClientRequest::GET_SERVER_VERSION || sent.find(kMarksError) == std::string::npos;
}

/// A hit without a score keeps the one of the hit before it in the same block; servers do not mix
/// the two, because what a hit says would then depend on the cut.
Transcript::Scores scoresOf(const Options& options) {
  return options.binary ? Transcript::Scores::Ignored : Transcript::Scores::Noted;
}

enum class Usable { Checked, Unchecked };

Transcript play(const Options& options, const std::vector<PeerScript>& scripts,
                const NetworkManners& manners, std::size_t bytes, Usable usable) {
  const MemoryMeter meter;
  Run run(options, scripts, manners, bytes, scoresOf(options));
  run.exchangeAll();
  if (usable == Usable::Checked) run.requireUsable();
  run.requireNothingLeftOpen();
  requireWithin(meter, kMemory, bytes);
  return run.transcript();
}

/// What is made once must not count as the memory of an exchange.
void warmUp() {
  for (std::size_t i = 0; i < requests().size(); ++i) {
    for (const bool binary : {false, true}) {
      require(lengthOf(requests().at(i), binary) != 0, "a request is sent");
    }
  }
}

}  // namespace

}  // namespace tq::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tq::fuzz::warmUp();
  // The warning about a search without a body is wanted, thousands of them a second are not.
  std::cerr.rdbuf(nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tq::fuzz;
  Input input(data, size);
  const Options options(input);
  const std::vector<PeerScript> scripts = parseScripts(input.rest(), options.end);
  const Transcript cut =
      play(options, scripts, options.manners, input.rest().size(), Usable::Checked);
  if (!cutMustNotMatter(options, scripts)) return 0;
  NetworkManners whole = options.manners;
  whole.pieces = Cutter::whole();
  Transcript::requireEqual(play(options, scripts, whole, input.rest().size(), Usable::Unchecked),
                           cut);
  return 0;
}
