// The library lives in other people's processes and leaves everything as it finds it there.

#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unicode/ucnv.h>
#include <unicode/uloc.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <memory_resource>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruSocketException.h"
#include "tests/comm/faultExchange.h"
#include "tests/comm/faultNetwork.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/chunks.h"
#include "tests/support/exchange.h"
#include "tests/support/loopback.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"

extern char** environ;

namespace {

using namespace tq::test;

using Descriptors = std::map<int, bool>;  // each with whether it is closed on exec

int listenOnLoopback(unsigned int& port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(fd, generic, length) != 0 || ::listen(fd, 64) != 0 ||
      ::getsockname(fd, generic, &length) != 0) {
    throw std::runtime_error("no port to listen on");
  }
  port = ntohs(address.sin_port);
  return fd;
}

/// What the peer answers to a request on its nth connection; an empty text closes the connection.
using Conversation = std::function<std::string(const std::string& request, unsigned int nth)>;

/// A peer in a process of its own, so that this one has no thread but the test's.
class PeerProcess {
 public:
  PeerProcess(bool framed, const Conversation& conversation) {
    const int listener = listenOnLoopback(port_);
    std::fflush(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) serve(listener, framed, conversation);
    ::close(listener);
  }
  ~PeerProcess() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  unsigned int port() const { return port_; }

 private:
  struct Connection {
    unsigned int nth;
    std::string pending{};
  };

  [[noreturn]] static void serve(int listener, bool framed, const Conversation& conversation) {
    std::map<int, Connection> connections;
    for (unsigned int accepted = 0;;) {
      std::vector<pollfd> entries{{listener, POLLIN, 0}};
      for (const auto& [fd, connection] : connections) entries.push_back({fd, POLLIN, 0});
      ::poll(entries.data(), entries.size(), -1);
      for (const auto& entry : entries) {
        if (entry.revents == 0) continue;
        if (entry.fd == listener) {
          connections[::accept(listener, nullptr, nullptr)].nth = ++accepted;
        } else if (!converse(entry.fd, connections[entry.fd], framed, conversation)) {
          ::close(entry.fd);
          connections.erase(entry.fd);
        }
      }
    }
  }

  static bool converse(int fd, Connection& connection, bool framed,
                       const Conversation& conversation) {
    char buffer[65536];
    const ssize_t count = ::recv(fd, buffer, sizeof buffer, 0);
    if (count <= 0) return false;
    connection.pending.append(buffer, static_cast<std::size_t>(count));
    while (const auto length = completeRequestLength(connection.pending, framed)) {
      const auto reply = conversation(connection.pending.substr(0, length), connection.nth);
      connection.pending.erase(0, length);
      if (reply.empty()) return false;
      ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    }
    return true;
  }

  unsigned int port_ = 0;
  pid_t pid_ = -1;
};

std::string joined(const Answer& answer) {
  std::string text;
  for (const auto& segment : answer.segments) text += segment;
  return text + answer.tail;
}

Conversation answering(Protocol protocol) {
  return [answer = answererOf(protocol)](const std::string& request, unsigned int) {
    const auto reply = joined(answer(request));
    // A kind without a reply must not look like a peer that closes.
    return reply.empty() ? std::string("\r\n") : reply;
  };
}

/// Both peers, each with answers to everything.
struct Peers {
  PeerProcess http{false, answering(Protocol::Http)};
  PeerProcess binary{true, answering(Protocol::Binary)};

  const PeerProcess& of(Protocol protocol) const {
    return protocol == Protocol::Http ? http : binary;
  }
};

Descriptors openDescriptors() {
  Descriptors found;
  DIR* directory = ::opendir("/proc/self/fd");
  while (const dirent* entry = ::readdir(directory)) {
    const int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] == '.' || fd == ::dirfd(directory)) continue;
    found[fd] = (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
  }
  ::closedir(directory);
  return found;
}

std::set<std::string> threads() {
  std::set<std::string> found;
  DIR* directory = ::opendir("/proc/self/task");
  while (const dirent* entry = ::readdir(directory)) {
    if (entry->d_name[0] != '.') found.insert(entry->d_name);
  }
  ::closedir(directory);
  return found;
}

std::vector<std::string> signalDispositions() {
  std::vector<std::string> all;
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action {};
    if (::sigaction(number, nullptr, &action) != 0) continue;
    all.emplace_back(reinterpret_cast<const char*>(&action.sa_handler), sizeof action.sa_handler);
    all.back() += std::to_string(action.sa_flags);
  }
  sigset_t mask;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  for (int number = 1; number < NSIG; ++number) {
    all.emplace_back(::sigismember(&mask, number) == 1 ? "blocked" : "free");
  }
  return all;
}

std::string workingDirectory() {
  char path[4096];
  return ::getcwd(path, sizeof path) == nullptr ? "" : path;
}

std::vector<long> timers() {
  std::vector<long> all;
  for (const auto which : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
    itimerval value{};
    ::getitimer(which, &value);
    all.push_back(value.it_value.tv_sec * 1000000 + value.it_value.tv_usec);
  }
  return all;
}

/// Everything of the process that belongs to its owner.
struct Belongings {
  std::vector<std::string> signals = signalDispositions();
  std::set<std::string> threadIds = threads();
  std::vector<std::string> environment = [] {
    std::vector<std::string> all;
    for (char** entry = environ; *entry != nullptr; ++entry) all.emplace_back(*entry);
    return all;
  }();
  std::string locale = std::setlocale(LC_ALL, nullptr);
  std::string converter = ucnv_getDefaultName();
  std::string icuLocale = uloc_getDefault();
  std::string directory = workingDirectory();
  std::vector<long> timerValues = timers();
  unsigned int fileMask = [] {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
  }();

  bool operator==(const Belongings&) const = default;
};

constexpr Protocol kProtocols[] = {Protocol::Http, Protocol::Binary, Protocol::BinaryReassembled};

/// All kinds in all protocols, failures of every sort, and `meanwhile` while connections are open.
void behave(
    const Peers& peers, const std::function<void()>& meanwhile = [] {}) {
  unsigned int mark = 1;
  for (const auto protocol : kProtocols) {
    auto client = clientOf(protocol, true, peers.of(protocol).port());
    client->setTimeOut(10000);
    client->setDeadline(20000);
    for (int kind = 1; kind <= 24; ++kind) {
      // Of two kinds it is the last on its connection that tells how its stray answer is taken.
      if (kind == 6 || kind == kAsynchAddDocument || kind == kLastDocSent) continue;
      const MarkedRequest marked{kind, ++mark};
      ASSERT_EQ(runMarked(*client, marked).results, resultsOf(protocol, marked));
    }
    ASSERT_EQ(runMarked(*client, {4, ++mark, true}).errorId, "ZVK0404E");
    ASSERT_EQ(runMarked(*client, {kLastDocSent, ++mark}).errorId, "");
    meanwhile();
    // What fails: nobody there, a wait that is cut short.
    const DeadPort nobody;
    auto lonely = clientOf(protocol, true, nobody.port());
    lonely->setRetryPause(1, 2);
    ASSERT_EQ(runMarked(*lonely, {kUpdateIndex}).errorId, "ERR_CONNECT_SERVER");
    unsigned int deaf = 0;
    const int listener = listenOnLoopback(deaf);
    auto waiting = clientOf(protocol, true, deaf);
    waiting->setDeadline(10);
    ASSERT_EQ(runMarked(*waiting, {kUpdateIndex}).errorId, "ERR_SERVER_COMM_TIMEOUT");
    meanwhile();
    ::close(listener);
  }
}

TEST(GuestManners, NothingThatBelongsToTheProcessIsChanged) {
  const Peers peers;
  const Belongings before;
  behave(peers, [&] { EXPECT_EQ(Belongings(), before); });
  EXPECT_EQ(Belongings(), before);
}

TEST(GuestManners, TheDefaultsOfTheHostPlayNoPart) {
  const Peers peers;
  const std::string converter = ucnv_getDefaultName();
  const std::string locale = uloc_getDefault();
  UErrorCode status = U_ZERO_ERROR;
  ucnv_setDefaultName("ISO-8859-1");
  uloc_setDefault("tr_TR", &status);
  std::setlocale(LC_ALL, "C.UTF-8");
  const Belongings before;
  behave(peers);
  EXPECT_EQ(Belongings(), before);
  std::setlocale(LC_ALL, "C");
  uloc_setDefault(locale.c_str(), &status);
  ucnv_setDefaultName(converter.c_str());
}

TEST(GuestManners, TheHostsResourceForItsOwnContainersPlaysNoPart) {
  const Peers peers;
  struct Restored {
    std::pmr::memory_resource* before =
        std::pmr::set_default_resource(std::pmr::null_memory_resource());
    ~Restored() { std::pmr::set_default_resource(before); }
  } const restored;
  behave(peers);
  EXPECT_EQ(std::pmr::get_default_resource(), std::pmr::null_memory_resource());
}

TEST(GuestManners, NoThreadIsStarted) {
  const Peers peers;
  ASSERT_EQ(threads().size(), 1U);
  behave(peers, [] { EXPECT_EQ(threads().size(), 1U); });
  EXPECT_EQ(threads().size(), 1U);
}

TEST(GuestManners, EveryDescriptorIsClosedOnExecAndInTheEnd) {
  const Peers peers;
  const auto before = openDescriptors();
  std::size_t opened = 0;
  behave(peers, [&] {
    for (const auto& [fd, closedOnExec] : openDescriptors()) {
      if (before.contains(fd)) continue;
      EXPECT_TRUE(closedOnExec) << fd;
      ++opened;
    }
  });
  EXPECT_GE(opened, 3U) << "nothing was looked at";
  EXPECT_EQ(openDescriptors(), before);
}

/// How a child process that does this ended: its exit status, or the negative of a signal's number.
int inChild(const std::function<int()>& what) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(what());
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

/// Writes to a peer that has gone until the system refuses.
int writeUntilRefused(Protocol protocol, unsigned int port) {
  ::signal(SIGPIPE, SIG_DFL);
  auto client = clientOf(protocol, true, port);
  client->open();
  BuiltRequest built({kUpdateIndex});
  for (int i = 0; i < 100000; ++i) {
    try {
      client->send(built.request);
    } catch (const tq::oss::BaseException&) {
      return 0;
    }
  }
  return 1;
}

/// Closes each connection at its first request, with the rest of it unread.
std::string hangUp(const std::string&, unsigned int) { return {}; }

TEST(GuestManners, WritingToAPeerThatHasGoneRaisesNoSignal) {
  for (const auto protocol : kProtocols) {
    SCOPED_TRACE(nameOf(protocol));
    const PeerProcess peer(protocol != Protocol::Http, hangUp);
    EXPECT_EQ(inChild([&] { return writeUntilRefused(protocol, peer.port()); }), 0);
  }
}

// That the test above can fail: the same writes without the library's care end the process.
TEST(GuestManners, WritingWithoutCareWouldRaiseIt) {
  const PeerProcess peer(false, hangUp);
  const int end = inChild([&] {
    ::signal(SIGPIPE, SIG_DFL);
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(peer.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return 3;
    const std::string request = "action: x\n\r\n";
    const auto write = [&] { return ::write(fd, request.data(), request.size()); };
    if (write() < 0) return 2;
    awaitReadable(fd);
    // The peer has closed, and answers this one with a reset.
    if (write() < 0) return 4;
    pollfd reset{fd, 0, 0};
    ::poll(&reset, 1, -1);
    return write() < 0 && errno == EPIPE ? 1 : 5;
  });
  EXPECT_EQ(end, -SIGPIPE);
}

struct Written {
  std::string out;
  std::string err;
};

std::string drain(int fd) {
  std::string all;
  char buffer[4096];
  for (ssize_t count = 0; (count = ::read(fd, buffer, sizeof buffer)) > 0;) {
    all.append(buffer, static_cast<std::size_t>(count));
  }
  ::close(fd);
  return all;
}

/// What a child process that does this writes to its standard streams.
Written writtenBy(const std::function<void()>& what) {
  int out[2] = {-1, -1};
  int err[2] = {-1, -1};
  if (::pipe(out) != 0 || ::pipe(err) != 0) throw std::runtime_error("no pipe");
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    what();
    std::fflush(nullptr);
    ::_exit(0);
  }
  ::close(out[1]);
  ::close(err[1]);
  // Far less than a pipe holds is written, so that one can be read after the other.
  Written written{drain(out[0]), drain(err[0])};
  ::waitpid(child, nullptr, 0);
  return written;
}

TEST(GuestManners, NothingIsWrittenToTheStandardStreams) {
  const Peers peers;
  const auto written = writtenBy([&] {
    behave(peers);
    if (testing::Test::HasFailure()) std::puts("it did not behave");
  });
  EXPECT_EQ(written.out, "");
  EXPECT_EQ(written.err, "");
}

TEST(GuestManners, ASearchWithoutABodyIsTheOneThingThatIsWarnedOf) {
  const PeerProcess peer(false, [](const std::string&, unsigned int) {
    Reply reply{"", kStreamSearch};
    reply.body = std::string(4, '\0');
    return plain(reply);
  });
  const auto written = writtenBy([&] {
    auto client = clientOf(Protocol::Http, true, peer.port());
    runMarked(*client, {kStreamSearch});
  });
  EXPECT_EQ(written.out, "");
  EXPECT_EQ(written.err, " [WARN]: parseStreamSearch !!: 0 len for resp\n");
}

TEST(GuestManners, NoWarningGoesIntoTheConnectionOfAHostThatHasClosedStandardError) {
  const PeerProcess peer(false, [](const std::string& request, unsigned int) {
    if (request.find("WARN") != std::string::npos) return std::string();
    Reply reply{"", kStreamSearch};
    reply.body = std::string(4, '\0');
    return plain(reply);
  });
  EXPECT_EQ(inChild([&] {
              ::close(STDERR_FILENO);
              auto client = clientOf(Protocol::Http, true, peer.port());
              client->setNumRetries(0);
              for (int search = 0; search < 2; ++search) {
                if (!runMarked(*client, {kStreamSearch}).errorId.empty()) return 1;
              }
              return client->getConnectionNumber() == 1 ? 0 : 2;
            }),
            0);
}

/// A process whose standard error is a pipe that nobody reads: one without a reader, or a full one.
/// How it ends when it is warned of a search without a body.
int endOfWarned(unsigned int port, bool full) {
  int ends[2] = {-1, -1};
  if (::pipe(ends) != 0) throw std::runtime_error("no pipe");
  // In this process, whose copy would be a reader.
  if (!full) ::close(ends[0]);
  const int end = inChild([&] {
    ::signal(SIGPIPE, SIG_DFL);
    // What waits for ever is ended.
    ::alarm(60);
    ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
    const std::string page(4096, 'x');
    while (full && ::write(ends[1], page.data(), page.size()) > 0) {
    }
    ::fcntl(ends[1], F_SETFL, 0);
    ::dup2(ends[1], STDERR_FILENO);
    const auto before = signalDispositions();
    auto client = clientOf(Protocol::Http, true, port);
    if (!runMarked(*client, {kStreamSearch}).errorId.empty()) return 1;
    sigset_t pending;
    ::sigpending(&pending);
    return signalDispositions() == before && ::sigismember(&pending, SIGPIPE) == 0 ? 0 : 2;
  });
  if (full) ::close(ends[0]);
  ::close(ends[1]);
  return end;
}

TEST(GuestManners, AWarningThatNobodyReadsNeitherEndsTheProcessNorWaits) {
  const PeerProcess peer(false, [](const std::string&, unsigned int) {
    Reply reply{"", kStreamSearch};
    reply.body = std::string(4, '\0');
    return plain(reply);
  });
  EXPECT_EQ(endOfWarned(peer.port(), false), 0);
  EXPECT_EQ(endOfWarned(peer.port(), true), 0);
}

/// A peer whose answers name the connection on which it came.
Conversation namingConnections(Protocol protocol) {
  return [protocol](const std::string& request, unsigned int nth) {
    if (protocol != Protocol::Http) {
      return std::string("\0\x01\0\x01\0\x01", 6) + std::to_string(nth % 10);
    }
    Reply reply{"", kGetStatus};
    reply.body = std::string(4, '\0') + enveloped(record({{"STATUS_CODE", std::to_string(nth)}}));
    return request.empty() ? std::string() : plain(reply);
  };
}

int connectionUsed(tq::comm::CorvaneRESTClient& client, Protocol protocol) {
  BuiltRequest built({protocol == Protocol::Http ? int{kGetStatus} : int{kGetServerVersion}});
  tq::comm::ClientResponse response;
  client.sendAndRecvMesg(built.request, response);
  if (protocol == Protocol::Http) return static_cast<int>(response.getStatusCode());
  return std::atoi(utf8(response.getContent()).c_str());
}

TEST(GuestManners, AForkedChildThatDestroysItsCopyLeavesTheConnectionToItsParent) {
  for (const auto protocol : kProtocols) {
    SCOPED_TRACE(nameOf(protocol));
    const PeerProcess peer(protocol != Protocol::Http, namingConnections(protocol));
    auto client = clientOf(protocol, true, peer.port());
    client->setNumRetries(0);
    ASSERT_EQ(connectionUsed(*client, protocol), 1);
    EXPECT_EQ(inChild([&] {
                client.reset();
                return 0;
              }),
              0);
    EXPECT_EQ(connectionUsed(*client, protocol), 1);
    EXPECT_EQ(inChild([&] {
                client->close();
                return 0;
              }),
              0);
    EXPECT_EQ(connectionUsed(*client, protocol), 1);
  }
}

TEST(GuestManners, AForkedChildThatExitsLeavesTheConnectionToItsParent) {
  for (const auto protocol : kProtocols) {
    SCOPED_TRACE(nameOf(protocol));
    const PeerProcess peer(protocol != Protocol::Http, namingConnections(protocol));
    // As a host's own object of static storage, which an ordinary exit destroys.
    static std::unique_ptr<tq::comm::CorvaneRESTClient> client;
    client = clientOf(protocol, true, peer.port());
    client->setNumRetries(0);
    ASSERT_EQ(connectionUsed(*client, protocol), 1);
    EXPECT_EQ(inChild([] {
                std::exit(0);
                return 1;
              }),
              0);
    EXPECT_EQ(connectionUsed(*client, protocol), 1);
    client.reset();
  }
}

TEST(GuestManners, AForkedChildThatUsesItsCopyTakesAConnectionOfItsOwn) {
  for (const auto protocol : kProtocols) {
    SCOPED_TRACE(nameOf(protocol));
    const PeerProcess peer(protocol != Protocol::Http, namingConnections(protocol));
    auto client = clientOf(protocol, true, peer.port());
    client->setNumRetries(0);
    ASSERT_EQ(connectionUsed(*client, protocol), 1);
    EXPECT_EQ(inChild([&] {
                const int first = connectionUsed(*client, protocol);
                // What it has made itself it keeps, and its own child takes another one.
                const int second = connectionUsed(*client, protocol);
                const int third = inChild([&] { return connectionUsed(*client, protocol); });
                return first == 2 && second == 2 && third == 3 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(connectionUsed(*client, protocol), 1) << "the parent keeps its own";
  }
}

/// A client that lets messages wait, its server in memory, and what that has seen.
struct Waiting {
  static FaultNetwork::Options framed() {
    FaultNetwork::Options options;
    options.framed = true;
    return options;
  }
  Waiting() { client->useBufferedConnection(true); }

  bool isExchanged(const MarkedRequest& marked) {
    return runMarked(*client, marked).errorId.empty();
  }
  std::size_t seen(unsigned int mark) { return timesSeen(network.journal(), mark); }

  FaultNetwork network{framed(), answererOf(Protocol::Binary)};
  std::unique_ptr<tq::comm::CorvaneRESTClient> client = clientOf(Protocol::Binary);
};

TEST(GuestManners, AForkedChildSendsNoDocumentThatItsParentHoldsBack) {
  for (const bool connected : {false, true}) {
    Waiting held;
    ASSERT_TRUE(!connected || held.isExchanged({kGetStatus, 1}));
    BuiltRequest document({kAsynchAddDocument, 2});
    held.client->send(document.request);
    ASSERT_EQ(held.seen(2), 0U) << "it is held back";
    EXPECT_EQ(inChild([&] {
                if (!held.isExchanged({kAsynchAddDocument, 3})) return 1;
                if (!held.isExchanged({kLastDocSent, 4})) return 2;
                return held.seen(2) == 0 && held.seen(3) == 1 && held.seen(4) == 1 ? 0 : 3;
              }),
              0);
    EXPECT_TRUE(held.isExchanged({kLastDocSent, 4}));
    EXPECT_EQ(held.seen(2), 1U);
  }
}

TEST(GuestManners, AForkedChildAsksNoQuestionThatItsParentHoldsBack) {
  Waiting held;
  BuiltRequest question({kCreateCollection, 2});
  held.client->send(question.request);
  ASSERT_EQ(held.seen(2), 0U) << "it is held back";
  EXPECT_EQ(inChild([&] {
              if (!held.isExchanged({kGetStatus, 3})) return 1;
              return held.seen(2) == 0 && held.network.connectTimes().size() == 1 ? 0 : 2;
            }),
            0);
  EXPECT_TRUE(held.isExchanged({kGetStatus, 3}));
  EXPECT_EQ(held.seen(2), 1U);
}

// What it does by hand comes by no exchange that would have dropped its parent's.
TEST(GuestManners, AForkedChildSendsByHandNothingThatItsParentHoldsBack) {
  for (const bool receives : {false, true}) {
    Waiting held;
    held.client->setNumRetries(0);
    // Its parser still waits for a header then, so that a reply can be received by hand.
    held.network.plan(Entry::Recv, 1, Fault{Fault::Kind::Eof});
    ASSERT_FALSE(held.isExchanged({kCreateCollection, 1}));
    held.client->close();
    BuiltRequest question({kCreateCollection, 2});
    held.client->send(question.request);
    ASSERT_EQ(held.seen(2), 0U) << "it is held back";
    const auto asReceiver = [&] {
      tq::comm::ClientResponse response;
      try {
        held.client->recvMesg(response);
      } catch (const tq::comm::RESTException& e) {
        const bool isRefused = e.getMessageList().front().getMessageId() == u"ERR_INVALID_STATE";
        return isRefused && held.seen(2) == 0 ? 0 : 1;
      }
      return 2;
    };
    const auto asSender = [&] {
      held.client->useBufferedConnection(false);
      BuiltRequest own({kCreateCollection, 3});
      held.client->send(own.request);
      return held.seen(2) == 0 && held.seen(3) == 1 ? 0 : 3;
    };
    EXPECT_EQ(inChild([&] {
                held.client->open();
                return receives ? asReceiver() : asSender();
              }),
              0);
  }
}

/// The hits of a search in more than one portion.
constexpr unsigned int kHits = 1000;

Conversation inPortions(Protocol protocol) {
  return [protocol](const std::string&, unsigned int) {
    std::string reply = protocol == Protocol::Http ? kChunkedHead + chunk(std::string(4, '\0'))
                                                   : std::string("\0\x01", 2);
    for (unsigned int i = 0; i < kHits; ++i) {
      const std::string key = std::to_string(i);
      reply += protocol == Protocol::Http ? chunk(enveloped(hitRecord(idOfKey(key), "1")))
                                          : plainHit(key);
    }
    return reply +
           (protocol == Protocol::Http ? chunk(bigEndian(0)) + "0\r\n\r\n" : endOfResults());
  };
}

TEST(GuestManners, AForkedChildTakesNothingOfItsParentsReplies) {
  for (const auto protocol : kProtocols) {
    SCOPED_TRACE(nameOf(protocol));
    const PeerProcess peer(protocol != Protocol::Http, inPortions(protocol));
    auto client = clientOf(protocol, true, peer.port());
    client->setNumRetries(0);
    client->setTimeOut(10000);
    BuiltRequest built({kStreamSearch});
    tq::comm::ClientResponse response;
    client->sendAndRecvMesg(built.request, response);
    unsigned int hits = response.getSearchResponse().count();
    ASSERT_LT(hits, kHits);
    EXPECT_EQ(inChild([&] {
                errorOf([&] { client->recv(response); });
                return client->isEndOfStream() && client->isTruncated() ? 0 : 1;
              }),
              0);
    while (!client->isEndOfStream()) {
      client->recv(response);
      hits += response.getSearchResponse().count();
    }
    EXPECT_FALSE(client->isTruncated());
    EXPECT_EQ(hits, kHits);
  }
}

bool isMapped(const std::string& name) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(name) != std::string::npos) return true;
  }
  return false;
}

/// Loads the plugin, exchanges, unloads it; true when nothing of it is left.
bool loadAndUnload(const Peers& peers) {
  const auto descriptors = openDescriptors();
  const Belongings before;
  void* plugin = ::dlopen(KRUCOMM_GUEST_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::fprintf(stderr, "%s\n", ::dlerror());
    return false;
  }
  const bool loaded = isMapped("libkrucomm.so") && isMapped("libkruinfra.so");
  using Exchange = int (*)(unsigned int, unsigned int);
  auto exchange = reinterpret_cast<Exchange>(::dlsym(plugin, "guestExchange"));
  const bool answered =
      exchange != nullptr && exchange(peers.http.port(), peers.binary.port()) == 0;
  const bool unloaded =
      ::dlclose(plugin) == 0 && !isMapped("libkrucomm.so") && !isMapped("libkruinfra.so");
  return loaded && answered && unloaded && openDescriptors() == descriptors &&
         Belongings() == before;
}

// In a child: a thread of the host may still be encoding while a process ends, so the tables of
// words are never freed, and the memory check at this process's end would meet them without their
// module. What they amount to is bounded here.
TEST(GuestManners, LoadingAndUnloadingTheSharedObjectsLeavesNothingButTheTablesOfWords) {
  const Peers peers;
  const int end = inChild([&] {
    // The loader and the C library keep some memory of their own from the first round on.
    for (int round = 0; round < 3; ++round) {
      if (!loadAndUnload(peers)) return 1;
    }
    constexpr std::size_t kRounds = 10;
    constexpr std::size_t kTables = 32768;
    const std::size_t before = ::mallinfo2().uordblks;
    for (std::size_t round = 0; round < kRounds; ++round) {
      if (!loadAndUnload(peers)) return 2;
    }
    return ::mallinfo2().uordblks <= before + kRounds * kTables ? 0 : 3;
  });
  EXPECT_EQ(end, 0);
}

}  // namespace
