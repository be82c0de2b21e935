// By how much an operation overshoots its deadline, over real sockets, for each way in which a peer
// can fail to answer. A wait of the system that nothing disturbs stands beside the figures: what it
// overshoots is the machine's doing.
//
//   deadlineOvershoot [--runs=N]    N runs of each case (default 70)

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruKVPair.h"
#include "comm/kruRESTException.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/util/kruExtendedProperties.h"

namespace {

using Clock = std::chrono::steady_clock;
using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;

constexpr unsigned int kDeadlines[] = {5, 10, 20};
constexpr double kTargetMillis = 10.0;

/// A listening socket on a free port of the loopback interface.
class Listener {
 public:
  explicit Listener(int backlog) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    socklen_t length = sizeof address_;
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd_, generic(), length) != 0 || ::getsockname(fd_, generic(), &length) != 0) {
      throw std::runtime_error("no port of the loopback interface is free");
    }
    if (backlog >= 0) ::listen(fd_, backlog);
  }
  ~Listener() { ::close(fd_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int descriptor() const { return fd_; }
  unsigned int port() const { return ntohs(address_.sin_port); }
  sockaddr* generic() { return reinterpret_cast<sockaddr*>(&address_); }

 private:
  int fd_;
  sockaddr_in address_{};
};

/// What a peer does with its connections: it sends `greeting` at the first bytes, or at once, and
/// then a byte of `drip` every two milliseconds for as long as it lasts.
struct Behaviour {
  bool reads = true;
  bool hangsUp = false;
  std::string greeting{};
  char drip = 0;
};

/// A peer in a thread of its own.
class Peer {
 public:
  explicit Peer(Behaviour behaviour)
      : behaviour_(std::move(behaviour)), listener_(64), worker_([this] { serve(); }) {}
  ~Peer() {
    stopping_ = true;
    worker_.join();
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  unsigned int port() const { return listener_.port(); }

 private:
  struct Connection {
    int fd;
    bool greeted = false;
  };

  void serve() {
    constexpr int kStepMillis = 2;
    while (!stopping_) {
      std::vector<pollfd> entries{{listener_.descriptor(), POLLIN, 0}};
      for (const auto& connection : connections_) {
        const bool listens = behaviour_.reads;
        entries.push_back({connection.fd, static_cast<short>(listens ? POLLIN : POLLRDHUP), 0});
      }
      ::poll(entries.data(), entries.size(), kStepMillis);
      std::size_t at = 1;
      for (auto connection = connections_.begin(); connection != connections_.end(); ++at) {
        const bool ended = entries[at].revents != 0 && !take(*connection);
        if (!ended && behaviour_.drip != 0 && connection->greeted)
          send(*connection, {&behaviour_.drip, 1});
        connection = ended ? drop(connection) : std::next(connection);
      }
      if (entries[0].revents != 0) accept();
    }
    while (!connections_.empty()) drop(connections_.begin());
  }

  void accept() {
    const int fd = ::accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    connections_.push_back({fd});
    if (behaviour_.hangsUp) drop(std::prev(connections_.end()));
  }

  bool take(Connection& connection) const {
    if (!behaviour_.reads) return false;  // it was told of the other side's close
    char buffer[65536];
    if (::recv(connection.fd, buffer, sizeof buffer, MSG_DONTWAIT) <= 0) return false;
    if (!connection.greeted) send(connection, behaviour_.greeting);
    connection.greeted = true;
    return true;
  }

  static void send(const Connection& connection, const std::string& bytes) {
    ::send(connection.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }

  std::list<Connection>::iterator drop(std::list<Connection>::iterator connection) {
    ::close(connection->fd);
    return connections_.erase(connection);
  }

  Behaviour behaviour_;
  Listener listener_;
  std::list<Connection> connections_;
  std::atomic<bool> stopping_{false};
  std::thread worker_;
};

/// Has no room for another connection.
class FullListener {
 public:
  FullListener() : listener_(0) {
    for (int& filler : fillers_) {
      filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      // Those that find no room go on trying, which fills the queue as well.
      static_cast<void>(::connect(filler, listener_.generic(), sizeof(sockaddr_in)));
    }
  }
  ~FullListener() {
    for (const int filler : fillers_) ::close(filler);
  }
  FullListener(const FullListener&) = delete;
  FullListener& operator=(const FullListener&) = delete;
  unsigned int port() const { return listener_.port(); }

 private:
  Listener listener_;
  int fillers_[4] = {};
};

enum class Wire { Http, Binary };

std::unique_ptr<CorvaneRESTClient> clientOf(Wire wire, unsigned int port) {
  if (wire == Wire::Http) return std::make_unique<CorvaneRESTClient>(u"127.0.0.1", port, true);
  auto client = std::make_unique<tq::comm::DrestoPerfClient>(u"127.0.0.1", port);
  client->setReassembly(true);
  return client;
}

struct Case {
  std::string name;
  unsigned int port;
  ClientRequest::REQUEST kind = ClientRequest::GET_STATUS;
  bool pulls = false;      // the deadline is that of a pull behind the exchange
  unsigned int pause = 0;  // between attempts, of which there may be any number
  bool largeContent = false;
};

const std::string& largeContent() {
  static const std::string content(std::size_t{16} << 20, 'c');
  return content;
}

ClientRequest requestOf(const Case& one) {
  ClientRequest request;
  request.buildRequest(u"c1", one.kind, tq::util::ExtendedProperties());
  if (one.largeContent) {
    request.setContent(std::list<tq::comm::KVPair>{{u"title", u"one"}}, largeContent().data(),
                       static_cast<unsigned int>(largeContent().size()));
    request.setDocKey("key", 3);
  }
  return request;
}

/// The milliseconds by which one operation overshot; negative: it ended otherwise.
double overshootOnce(Wire wire, const Case& one, unsigned int deadline) {
  const auto client = clientOf(wire, one.port);
  client->setNumRetries(one.pause != 0 ? 1000000 : 1);
  client->setRetryPause(one.pause, one.pause);
  auto request = requestOf(one);
  ClientResponse response;
  if (one.pulls) client->sendAndRecvMesg(request, response);
  client->setDeadline(deadline);
  const auto begin = Clock::now();
  try {
    // Each pull has the deadline anew, and brings at most what has arrived.
    if (one.pulls) client->recv(response);
    if (!one.pulls) client->sendAndRecvMesg(request, response);
  } catch (const tq::comm::RESTException& error) {
    const std::chrono::duration<double, std::milli> taken = Clock::now() - begin;
    if (error.getMessageList().front().getMessageId() ==
        tq::comm::StaticDefs::ERR_SERVER_COMM_TIMEOUT) {
      return std::max(0.0, taken.count() - deadline);
    }
  }
  return -1.0;
}

double waitOnce(unsigned int millis) {
  const auto begin = Clock::now();
  ::poll(nullptr, 0, static_cast<int>(millis));
  const std::chrono::duration<double, std::milli> taken = Clock::now() - begin;
  return std::max(0.0, taken.count() - millis);
}

double quantile(const std::vector<double>& sorted, double share) {
  const auto last = static_cast<double>(sorted.size() - 1);
  return sorted[static_cast<std::size_t>(std::lround(share * last))];
}

void printRow(const std::string& name, std::vector<double> millis) {
  std::sort(millis.begin(), millis.end());
  std::printf("%-34s %7zu %8.3f %8.3f %8.3f %8.3f\n", name.c_str(), millis.size(),
              quantile(millis, 0.5), quantile(millis, 0.99), quantile(millis, 0.999),
              millis.back());
}

std::string headOfHttp(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + body;
}

// Records of a hit: {"URI": "k"} after four bytes that nobody interprets, and a first envelope.
std::string firstChunk() {
  const std::string record("\0\0\0\x03URI\x40\0\0\x01k", 12);
  const std::string body = std::string(4, '\0') + std::string("\0\0\0\x0c", 4) + record;
  return "14\r\n" + body + "\r\n";
}

std::string firstEnvelope() { return std::string("\0\x01\0\x01\0\x01k", 7); }

/// The peers of one protocol.
struct Village {
  explicit Village(Wire wire)
      : silent({}),
        deaf({false, false, {}, 0}),
        closing({true, true, {}, 0}),
        dripping({true, false,
                  wire == Wire::Http ? headOfHttp("ffff\r\n") : std::string("\0\x06\xff\xff", 4),
                  'x'}),
        streaming({true, false,
                   wire == Wire::Http ? headOfHttp(firstChunk())
                                      : std::string("\0\x01", 2) + firstEnvelope(),
                   0}) {}

  std::vector<Case> cases() const {
    return {
        {"never accepts", full.port()},
        {"nobody there, with pauses", nobody.port(), ClientRequest::GET_STATUS, false, 1},
        {"closes at once, with pauses", closing.port(), ClientRequest::GET_STATUS, false, 1},
        {"takes no more bytes", deaf.port(), ClientRequest::ADD_DOCUMENT, false, 0, true},
        {"never answers", silent.port()},
        {"sends byte by byte", dripping.port()},
        {"stops in a stream", streaming.port(), ClientRequest::STREAM_SEARCH, true},
    };
  }

  Peer silent;
  Peer deaf;
  Peer closing;
  Peer dripping;
  Peer streaming;
  FullListener full;
  Listener nobody{-1};
};

std::vector<double> measure(Wire wire, const Case& one, int runs) {
  std::vector<double> millis;
  for (int run = 0; run < runs; ++run) {
    for (const unsigned int deadline : kDeadlines) {
      const double overshoot = overshootOnce(wire, one, deadline);
      if (overshoot < 0) throw std::runtime_error(one.name + ": did not end by its deadline");
      millis.push_back(overshoot);
    }
  }
  return millis;
}

int runsOf(int argc, char** argv) {
  int runs = 70;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument.starts_with("--runs=")) runs = std::atoi(argument.c_str() + 7);
  }
  return std::max(runs, 1);
}

void report(int runs) {
  std::printf("milliseconds beyond deadlines of 5, 10 and 20 ms\n");
  std::printf("%-34s %7s %8s %8s %8s %8s\n", "", "runs", "p50", "p99", "p99.9", "max");
  std::vector<double> waits;
  for (int run = 0; run < runs * 7; ++run) {
    for (const unsigned int deadline : kDeadlines) waits.push_back(waitOnce(deadline));
  }
  printRow("poll of nothing, for comparison", waits);
  std::vector<double> all;
  for (const auto& [wire, prefix] : {std::pair{Wire::Http, "http: "}, {Wire::Binary, "binary: "}}) {
    const Village village(wire);
    for (const auto& one : village.cases()) {
      const auto millis = measure(wire, one, runs);
      printRow(prefix + one.name, millis);
      all.insert(all.end(), millis.begin(), millis.end());
    }
  }
  printRow("all", all);
  std::sort(all.begin(), all.end());
  const bool met = quantile(all, 0.999) <= kTargetMillis;
  std::printf("target: p99.9 at most %.0f ms: %s\n", kTargetMillis, met ? "met" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    report(runsOf(argc, argv));
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "deadlineOvershoot: %s\n", error.what());
    return 1;
  }
}
