#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <cstring>
#include <optional>

#include "infra/oss/kruSystemCalls.h"
#include "tests/support/loopback.h"
#include "tests/support/simulatedKernel.h"

namespace {

using tq::oss::SystemCalls;
using tq::test::SimulatedKernel;
using tq::test::SimulatedPeer;
using tq::test::Wire;

class SilentPeer : public SimulatedPeer {
  void received(Wire&, std::string_view) override {}
};

std::unique_ptr<SimulatedPeer> silent(std::size_t) { return std::make_unique<SilentPeer>(); }

/// A client socket and the peer that it talks to: real ones, or the kernel's under test.
class World {
 public:
  virtual ~World() = default;
  virtual const SystemCalls& calls() const = 0;
  virtual unsigned int port() const = 0;
  virtual void accept() = 0;
  // Each returns when the client's side has got what the peer did.
  virtual void send(int fd, const std::string& bytes) = 0;
  virtual void close(int fd) = 0;
  virtual void reset(int fd) = 0;
  virtual void awaitReset(int fd) = 0;
};

class RealWorld : public World {
 public:
  explicit RealWorld(bool listens) {
    if (!listens) dead_.emplace();
  }
  const SystemCalls& calls() const override { return tq::oss::realSystemCalls(); }
  unsigned int port() const override { return dead_ ? dead_->port() : listener_.port(); }
  void accept() override { peer_.emplace(listener_.accept()); }
  void send(int fd, const std::string& bytes) override {
    int before = 0;
    ::ioctl(fd, FIONREAD, &before);
    peer_->send(bytes);
    for (int there = before; there < before + static_cast<int>(bytes.size());) {
      ::ioctl(fd, FIONREAD, &there);
    }
  }
  void close(int fd) override {
    peer_->close();
    await(fd, POLLRDHUP);
  }
  void reset(int fd) override {
    peer_->reset();
    awaitReset(fd);
  }
  void awaitReset(int fd) override { await(fd, 0); }

 private:
  static void await(int fd, short events) {
    pollfd entry{fd, events, 0};
    while (::poll(&entry, 1, -1) < 0 && errno == EINTR) {
    }
  }

  tq::test::Listener listener_;
  std::optional<tq::test::DeadPort> dead_;
  std::optional<tq::test::Peer> peer_;
};

class SimulatedWorld : public World {
 public:
  explicit SimulatedWorld(bool listens) {
    options_.connectInBackground = true;
    options_.receivesJoin = true;
    if (!listens) options_.connectError = ECONNREFUSED;
  }
  const SystemCalls& calls() const override { return tq::oss::systemCalls(); }
  unsigned int port() const override { return 1; }
  void accept() override {}
  void send(int, const std::string& bytes) override { kernel_.connection(0).send(bytes); }
  void close(int) override { kernel_.connection(0).close(); }
  void reset(int) override { kernel_.connection(0).reset(); }
  void awaitReset(int) override {}

 private:
  SimulatedKernel::Options options_;
  SimulatedKernel kernel_{options_, silent};
};

/// Each letter is a step of the client or its peer; see `step`.
struct Course {
  const char* name;
  const char* steps;
};

class Traveller {
 public:
  explicit Traveller(World& world) : world_(world), calls_(world.calls()) {
    fd_ = calls_.socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  }
  ~Traveller() {
    if (!closed_) calls_.close(fd_);
  }
  Traveller(const Traveller&) = delete;
  Traveller& operator=(const Traveller&) = delete;

  std::string travel(const char* steps) {
    for (; *steps != '\0'; ++steps) {
      log_.append(1, *steps).append(":").append(step(*steps)).append(" ");
    }
    return log_;
  }

 private:
  std::string step(char letter) {
    char bytes[64] = {};
    switch (letter) {
      case 'C':
        return connect();
      case 'w':
        return poll(POLLOUT, -1);
      case 'a':
        world_.accept();
        return "";
      case 'd':
        world_.send(fd_, "abcd");
        return "";
      case 'c':
        world_.close(fd_);
        peerClosed_ = true;
        return "";
      case 'r':
        world_.reset(fd_);
        return "";
      case 'R':
        return received(bytes, calls_.recv(fd_, bytes, 3, MSG_DONTWAIT));
      case 'P':
        return received(bytes, calls_.recv(fd_, bytes, 3, MSG_DONTWAIT | MSG_PEEK));
      case 'S':
        return send();
      case 'i':
        return poll(POLLIN, 0);
      case 'o':
        return poll(POLLOUT, 0);
      case 'b':
        return poll(POLLIN | POLLOUT, 0);
      case 'p':
        return poll(POLLPRI, 0);
      case 'e':
        return socketError();
      case 'x':
        closed_ = true;
        return outcome(calls_.close(fd_));
      default:
        throw std::logic_error("no such step");
    }
  }

  std::string connect() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(world_.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return outcome(calls_.connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address));
  }

  std::string send() {
    char bytes[] = "xy";
    iovec piece{bytes, 2};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    std::string result = outcome(calls_.sendmsg(fd_, &message, MSG_DONTWAIT | MSG_NOSIGNAL));
    if (peerClosed_) world_.awaitReset(fd_);
    return result;
  }

  std::string poll(short events, int timeout) {
    pollfd entry{fd_, events, 0};
    const int count = calls_.poll(&entry, 1, timeout);
    return std::to_string(count).append("/").append(std::to_string(entry.revents));
  }

  std::string socketError() {
    int error = 0;
    socklen_t length = sizeof error;
    const int result = calls_.getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length);
    return result == 0 ? std::string("=").append(std::to_string(error)) : outcome(result);
  }

  static std::string received(const char* bytes, ssize_t count) {
    return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : outcome(count);
  }
  static std::string outcome(ssize_t result) {
    return result < 0 ? ::strerrorname_np(errno) : std::to_string(result);
  }

  World& world_;
  const SystemCalls& calls_;
  int fd_;
  bool closed_ = false;
  bool peerClosed_ = false;
  std::string log_;
};

class KernelCourse : public testing::TestWithParam<Course> {};

TEST_P(KernelCourse, IsTheSameOverLoopback) {
  const bool listens = GetParam().name != std::string_view("RefusedConnect");
  std::string real;
  {
    RealWorld world(listens);
    real = Traveller(world).travel(GetParam().steps);
  }
  SimulatedWorld world(listens);
  EXPECT_EQ(Traveller(world).travel(GetParam().steps), real);
}

// Blank letters do nothing; C connects in the background, w waits for room, a accepts. The peer
// sends (d), closes (c) and resets (r); the client receives (R), peeks (P), sends (S), asks for the
// pending error (e), polls for bytes (i), room (o), both (b) and urgent data (p), and closes (x).
INSTANTIATE_TEST_SUITE_P(
    Loopback, KernelCourse,
    testing::Values(Course{"Fresh", "RSioebp"}, Course{"Connect", "CwaebCCip"},
                    Course{"RefusedConnect", "CwibeeRSob"}, Course{"Bytes", "CwaiRdipPRiRiR"},
                    Course{"BytesTwice", "CwaddRRRiR"}, Course{"Close", "CwacibpRRe"},
                    Course{"CloseAfterBytes", "CwadciRiRiRoi"},
                    Course{"SendToClosed", "CwacSibpRR"}, Course{"SendTwiceToClosed", "CwacSSSRei"},
                    Course{"ErrorAfterSendToClosed", "CwacSeeSRb"},
                    Course{"BytesSurviveSendToClosed", "CwadcSRRRSR"},
                    Course{"Reset", "CwaribpRRRSi"}, Course{"ResetAfterBytes", "CwadribRRRRSS"},
                    Course{"ResetFoundBySend", "CwarSSRRei"},
                    Course{"ResetFoundByError", "CwareeRSb"}, Course{"ResetFoundByPeek", "CwarPPR"},
                    Course{"PeekBeforeReset", "CwadrPPRRR"}, Course{"Closed", "CwaxRSiexC"}),
    [](const auto& course) { return std::string(course.param.name); });

}  // namespace
