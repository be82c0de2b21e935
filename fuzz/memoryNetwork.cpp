#include "fuzz/memoryNetwork.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fuzz/check.h"
#include "infra/oss/kruSystemCalls.h"

namespace tq::fuzz {

namespace {

// Far above what the system hands out, so that a descriptor that slips through is refused by it.
constexpr int kFirstDescriptor = 1 << 30;
constexpr std::uint64_t kNanosPerMilli = 1000000;

// What any number of connections may cost, and what each byte that a script sends may.
constexpr std::size_t kCallsBase = 2000;
constexpr std::size_t kCallsPerByte = 16;
// A write that takes something is progress, of however many bytes.
constexpr std::size_t kCallsPerWrite = 4;

MemoryNetwork* active = nullptr;

int failWith(int error) {
  errno = error;
  return -1;
}

std::size_t bytesOf(const std::vector<PeerScript>& scripts) {
  std::size_t total = 0;
  for (const PeerScript& script : scripts) {
    for (const PeerStep& step : script) total += step.bytes.size() + 1;
  }
  return total;
}

bool endsConnection(PeerStep::Kind kind) {
  return kind == PeerStep::Kind::Close || kind == PeerStep::Kind::Reset;
}

}  // namespace

std::vector<PeerScript> parseScripts(std::string_view text, PeerStep::Kind end) {
  constexpr std::string_view kCommand = "\xFF\xFE";
  std::vector<PeerScript> scripts(1);
  const auto add = [&](PeerStep step) {
    scripts.back().push_back(step);
    if (endsConnection(step.kind)) scripts.emplace_back();
  };
  while (!text.empty()) {
    const std::size_t command = text.find(kCommand);
    const std::string_view bytes = text.substr(0, command);
    if (!bytes.empty()) add({PeerStep::Kind::Send, bytes});
    text.remove_prefix(std::min(text.size(), bytes.size() + kCommand.size()));
    if (text.empty() || command == std::string_view::npos) break;
    const char letter = text.front();
    text.remove_prefix(1);
    if (letter == 'N') add({PeerStep::Kind::Await});
    if (letter == 'C') add({PeerStep::Kind::Close});
    if (letter == 'R') add({PeerStep::Kind::Reset});
    if (letter == 'S') add({PeerStep::Kind::Silence});
  }
  scripts.back().push_back({end});
  return scripts;
}

/// The functions that stand in for the system's.
class MemoryNetwork::Calls {
 public:
  static const tq::oss::SystemCalls& table() {
    static const tq::oss::SystemCalls calls = [] {
      auto all = tq::oss::realSystemCalls();
      all.socket = openSocket;
      all.connect = connectSocket;
      all.poll = pollSockets;
      all.recv = receive;
      all.sendmsg = sendPieces;
      all.close = closeSocket;
      all.setsockopt = setOption;
      all.getsockopt = getOption;
      all.fcntl = controlDescriptor;
      all.clock_gettime = readClock;
      return all;
    }();
    return calls;
  }

 private:
  static int openSocket(int, int type, int) {
    active->countCall();
    if (active->used_ == kMostConnections) return failWith(EMFILE);
    Connection& connection = active->connections_[active->used_];
    connection.open = true;
    connection.nonBlocking = (type & SOCK_NONBLOCK) != 0;
    return kFirstDescriptor + static_cast<int>(active->used_++);
  }

  static int connectSocket(int descriptor, const sockaddr*, socklen_t) {
    active->countCall();
    Connection* connection = active->find(descriptor);
    if (connection == nullptr) return failWith(EBADF);
    if (active->manners_.refusals != 0) {
      --active->manners_.refusals;
      return failWith(ECONNREFUSED);
    }
    connection->connected = true;
    connection->script = active->nextScript_++;
    if (active->behaving_) connection->script = active->scripts_.size();
    return 0;
  }

  static int pollSockets(pollfd* entries, nfds_t count, int timeout) {
    active->countCall();
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i) {
      entries[i].revents = readiness(entries[i], timeout != 0);
      if (entries[i].revents != 0) ++ready;
    }
    if (ready != 0 || timeout == 0) return ready;
    if (timeout > 0) {
      active->nanos_ += static_cast<std::uint64_t>(timeout) * kNanosPerMilli;
      return 0;
    }
    for (nfds_t i = 0; i < count; ++i) {
      Connection* connection = active->find(entries[i].fd);
      if (connection != nullptr) connection->broken = true;
      entries[i].revents = POLLERR;
    }
    return static_cast<int>(count);
  }

  static short readiness(const pollfd& entry, bool waits) {
    Connection* connection = active->find(entry.fd);
    if (connection == nullptr) return POLLNVAL;
    short ready = static_cast<short>(entry.events & POLLOUT);
    const bool wanted = (entry.events & POLLIN) != 0;
    if (wanted && active->readable(*connection, waits)) ready = static_cast<short>(ready | POLLIN);
    return ready;
  }

  static ssize_t receive(int descriptor, void* buffer, size_t length, int flags) {
    active->countCall();
    Connection* connection = active->find(descriptor);
    if (connection == nullptr || !connection->connected) return failWith(ENOTCONN);
    const bool waits = !connection->nonBlocking && (flags & MSG_DONTWAIT) == 0;
    if (!active->readable(*connection, waits)) {
      if (!waits) return failWith(EAGAIN);
      connection->broken = true;
    }
    if (active->hasBytes(*connection)) {
      return static_cast<ssize_t>(active->deliver(*connection, static_cast<char*>(buffer), length,
                                                  (flags & MSG_PEEK) != 0));
    }
    if (connection->broken) return failWith(ECONNRESET);
    return 0;
  }

  static ssize_t sendPieces(int descriptor, const msghdr* message, int) {
    active->countCall();
    Connection* connection = active->find(descriptor);
    if (connection == nullptr || !connection->connected) return failWith(ENOTCONN);
    if (++active->writes_ == active->manners_.failingWrite) return failWith(EPIPE);
    if (connection->broken) return failWith(EPIPE);
    std::size_t size = 0;
    for (size_t i = 0; i < message->msg_iovlen; ++i) size += message->msg_iov[i].iov_len;
    if (active->manners_.writeLimit != 0) size = std::min(size, active->manners_.writeLimit);
    connection->written += size;
    active->mostCalls_ += kCallsPerWrite;
    active->takeWrite(*connection);
    return static_cast<ssize_t>(size);
  }

  static int closeSocket(int descriptor) {
    active->countCall();
    Connection* connection = active->find(descriptor);
    if (connection == nullptr) return failWith(EBADF);
    connection->open = false;
    return 0;
  }

  static int setOption(int descriptor, int, int, const void*, socklen_t) {
    return active->find(descriptor) == nullptr ? failWith(EBADF) : 0;
  }

  static int getOption(int descriptor, int, int, void* value, socklen_t* length) {
    if (active->find(descriptor) == nullptr) return failWith(EBADF);
    std::memset(value, 0, *length);
    return 0;
  }

  static int controlDescriptor(int descriptor, int command, int argument) {
    Connection* connection = active->find(descriptor);
    if (connection == nullptr) return failWith(EBADF);
    if (command == F_SETFL) connection->nonBlocking = (argument & O_NONBLOCK) != 0;
    return 0;
  }

  static int readClock(clockid_t, timespec* now) {
    // Somebody who spins until a deadline gets there, and is found by the number of the calls.
    active->countCall();
    active->nanos_ += 1;
    now->tv_sec = static_cast<time_t>(active->nanos_ / 1000000000U);
    now->tv_nsec = static_cast<long>(active->nanos_ % 1000000000U);
    return 0;
  }
};

MemoryNetwork::MemoryNetwork(const std::vector<PeerScript>& scripts, const NetworkManners& manners)
    : scripts_(scripts),
      manners_(manners),
      mostCalls_(kCallsBase + kCallsPerByte * bytesOf(scripts)) {
  active = this;
  tq::oss::replaceSystemCalls(&Calls::table());
}

MemoryNetwork::~MemoryNetwork() {
  tq::oss::replaceSystemCalls(nullptr);
  active = nullptr;
}

void MemoryNetwork::behave(std::string_view reply) {
  behaving_ = true;
  reply_ = reply;
  manners_ = NetworkManners();
}

void MemoryNetwork::closeAll() {
  for (std::size_t i = 0; i < used_; ++i) connections_[i].closed = true;
}

void MemoryNetwork::mark() {
  for (Connection& connection : connections_) connection.written = 0;
}

std::size_t MemoryNetwork::mostWritten() const {
  std::size_t most = 0;
  for (const Connection& connection : connections_) most = std::max(most, connection.written);
  return most;
}

std::size_t MemoryNetwork::openDescriptors() const {
  return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                [](const Connection& c) { return c.open; }));
}

MemoryNetwork::Connection* MemoryNetwork::find(int descriptor) {
  const int index = descriptor - kFirstDescriptor;
  if (index < 0 || static_cast<std::size_t>(index) >= used_) return nullptr;
  Connection& connection = connections_[static_cast<std::size_t>(index)];
  return connection.open ? &connection : nullptr;
}

/// Takes up the steps that need nobody's doing, up to the next bytes.
void MemoryNetwork::advance(Connection& connection) {
  if (connection.script >= scripts_.size()) return;
  const PeerScript& script = scripts_[connection.script];
  while (connection.sending.empty() && connection.step < script.size()) {
    const PeerStep& step = script[connection.step];
    if (step.kind == PeerStep::Kind::Await || step.kind == PeerStep::Kind::Silence) return;
    ++connection.step;
    if (step.kind == PeerStep::Kind::Send) connection.sending = step.bytes;
    if (step.kind == PeerStep::Kind::Close) connection.closed = true;
    if (step.kind == PeerStep::Kind::Reset) connection.broken = true;
    if (endsConnection(step.kind)) connection.step = script.size();
  }
}

bool MemoryNetwork::hasBytes(Connection& connection) {
  if (!connection.broken && !connection.closed) advance(connection);
  if (connection.sending.empty()) std::swap(connection.sending, connection.answer);
  return !connection.sending.empty();
}

/// True when a receive would return at once: with bytes, with the end, or with an error.
bool MemoryNetwork::readable(Connection& connection, bool waits) {
  const bool bytes = hasBytes(connection);
  if (!bytes) return connection.closed || connection.broken;
  if (waits) connection.arrived = true;
  return !manners_.onDemand || connection.arrived;
}

std::size_t MemoryNetwork::deliver(Connection& connection, char* out, std::size_t length,
                                   bool keep) {
  const std::size_t size = std::min({length, connection.sending.size(), manners_.pieces.next()});
  std::memcpy(out, connection.sending.data(), size);
  if (keep) return size;
  connection.sending.remove_prefix(size);
  connection.arrived = false;
  return size;
}

void MemoryNetwork::takeWrite(Connection& connection) {
  if (connection.closed) {
    // The system takes what goes to a peer that has closed; the reset comes back for it.
    connection.broken = true;
    return;
  }
  if (behaving_) {
    connection.answer = reply_;
    return;
  }
  advance(connection);
  if (connection.script >= scripts_.size()) return;
  const PeerScript& script = scripts_[connection.script];
  const bool awaited = connection.sending.empty() && connection.step < script.size() &&
                       script[connection.step].kind == PeerStep::Kind::Await;
  if (awaited) ++connection.step;
}

void MemoryNetwork::countCall() {
  ++calls_;
  require(calls_ <= mostCalls_, "every call of the system brings an exchange forward");
}

}  // namespace tq::fuzz
