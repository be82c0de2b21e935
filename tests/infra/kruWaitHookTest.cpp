#include <dirent.h>
#include <gtest/gtest.h>

#include <array>
#include <deque>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "infra/oss/kruWaitHook.h"
#include "tests/infra/socketFixture.h"

namespace {

using tq::oss::SocketCancelledException;
using tq::oss::WaitResult;
using tq::test::FakeSystemCalls;

constexpr std::uint64_t kMilli = FakeSystemCalls::kMilli;

struct SeenWait {
  int fd;
  short events;
  int millis;
  bool operator==(const SeenWait&) const = default;
};

void PrintTo(const SeenWait& wait, std::ostream* out) {
  *out << "fd " << wait.fd << " events " << wait.events << " millis " << wait.millis;
}

std::size_t openDescriptors() {
  DIR* directory = ::opendir("/proc/self/fd");
  std::size_t count = 0;
  while (::readdir(directory) != nullptr) ++count;
  ::closedir(directory);
  return count;
}

class SocketHook : public SocketFixture {
 protected:
  using Answer = std::function<WaitResult(const SeenWait&)>;

  void hook(Socket& socket) { socket.setWaitHook(wait, this); }

  /// A socket with a hook, connected; the waits of connecting are forgotten.
  tq::test::Peer hooked(Socket& socket) {
    hook(socket);
    tq::test::Peer peer = connected(socket);
    seen.clear();
    fake.resetCounts();
    return peer;
  }

  void answer(WaitResult result, int times = 1) {
    for (int i = 0; i < times; ++i) answers.emplace_back([=](const SeenWait&) { return result; });
  }
  void answer(Answer next) { answers.push_back(std::move(next)); }
  /// Lets the time pass that the test owns, then answers.
  Answer after(std::uint64_t millis, WaitResult result) {
    return [=, this](const SeenWait&) {
      fake.setClock(fake.now() + millis * kMilli);
      return result;
    };
  }

  std::vector<SeenWait> seen;
  std::deque<Answer> answers;

 private:
  // A test that has planned no answer wants to know what was asked, not to hang.
  static WaitResult wait(void* host, int fd, short events, int millis) noexcept {
    auto& test = *static_cast<SocketHook*>(host);
    test.seen.push_back({fd, events, millis});
    if (test.answers.empty()) return reallyWait(test.seen.back());
    const Answer next = std::move(test.answers.front());
    test.answers.pop_front();
    return next(test.seen.back());
  }

  static WaitResult reallyWait(const SeenWait& wait) noexcept {
    pollfd entry{wait.fd, wait.events, 0};
    return ::poll(&entry, 1, wait.millis) > 0 ? WaitResult::Ready : WaitResult::TimedOut;
  }
};

// Pausing.

TEST_F(SocketHook, APauseThatIsGivenUpSaysWhatItWas) {
  Socket socket;
  hook(socket);
  answer(WaitResult::GiveUp);
  const auto failure =
      thrown<tq::oss::SocketCancelledException>([&] { socket.pauseUntil(Deadline::in(60000)); });
  EXPECT_EQ(firstArgument(failure), u"pause");
}

// Connecting.

TEST_F(SocketHook, WaitsForAConnectionWithoutALimit) {
  Socket socket;
  hook(socket);
  fake.stallConnects(1);
  answer(WaitResult::GiveUp);
  EXPECT_THROW(connected(socket), SocketCancelledException);
  EXPECT_EQ(seen, (std::vector<SeenWait>{{fake.lastDescriptor(), POLLOUT, -1}}));
}

TEST_F(SocketHook, ThatSaysReadyBeforeAConnectionIsMadeIsAskedAgain) {
  Socket socket;
  hook(socket);
  fake.stallConnects(1);
  answer(WaitResult::Ready);
  answer(WaitResult::GiveUp);
  EXPECT_THROW(connected(socket), SocketCancelledException);
  EXPECT_EQ(seen.size(), 2U);
}

TEST_F(SocketHook, ThatWaitsLikePollConnects) {
  Socket socket;
  hook(socket);
  tq::test::Peer peer = connected(socket);
  peer.send("a");
  EXPECT_EQ(readOnce(socket, 1), "a");
}

TEST_F(SocketHook, ThatAlwaysSaysReadyCannotStretchAConnect) {
  Socket socket;
  hook(socket);
  fake.stall(Call::Connect);
  for (int i = 0; i < 4; ++i) answer(after(10, WaitResult::Ready));
  const unsigned long timeout = 35;
  EXPECT_THROW(
      socket.connect(u"127.0.0.1", listener.port(), Socket::NullAddrInfoExternal, &timeout),
      SocketTimeoutException);
  const int fd = fake.lastDescriptor();
  EXPECT_EQ(seen, (std::vector<SeenWait>{
                      {fd, POLLOUT, 35}, {fd, POLLOUT, 25}, {fd, POLLOUT, 15}, {fd, POLLOUT, 5}}));
  EXPECT_FALSE(socket.isOpen());
}

TEST_F(SocketHook, ThatGivesUpAConnectLeavesTheOtherAddressesAlone) {
  const std::size_t before = openDescriptors();
  Socket socket;
  hook(socket);
  fake.resolveTo({"127.0.0.1", "127.0.0.1"});
  fake.stall(Call::Connect);
  answer(WaitResult::GiveUp);
  const auto cancelled = thrown<SocketCancelledException>(
      [&] { socket.connect(u"host", listener.port(), Socket::NullAddrInfoExternal, nullptr); });
  EXPECT_EQ(cancelled.getErrorNumber(), ECANCELED);
  EXPECT_TRUE(firstArgument(cancelled).startsWith(u"connect to host port "));
  EXPECT_EQ(fake.count(Call::Connect), 1U);
  EXPECT_FALSE(socket.isOpen());
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SocketHook, ThatTimesOutLeavesItsShareToTheNextAddress) {
  Socket socket;
  hook(socket);
  fake.resolveTo({"127.0.0.1", "127.0.0.1"});
  fake.stallConnects(1);
  answer(after(50, WaitResult::TimedOut));
  const unsigned long timeout = 100;
  socket.connect(u"host", listener.port(), Socket::NullAddrInfoExternal, &timeout);
  EXPECT_TRUE(socket.isOpen());
  EXPECT_EQ(seen.front().millis, 50);
}

TEST_F(SocketHook, DoesNotHideWhyAConnectFailed) {
  const tq::test::DeadPort dead;
  Socket socket;
  hook(socket);
  const SocketException refused = thrown(
      [&] { socket.connect(u"127.0.0.1", dead.port(), Socket::NullAddrInfoExternal, nullptr); });
  EXPECT_EQ(refused.getErrorNumber(), ECONNREFUSED);
}

// Reading.

TEST_F(SocketHook, WaitsForBytesWithoutALimit) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  answer([&](const SeenWait&) {
    peer.send("abc");
    arrived();
    return WaitResult::Ready;
  });
  EXPECT_EQ(readOnce(socket, 3), "abc");
  EXPECT_EQ(seen, (std::vector<SeenWait>{{fake.lastDescriptor(), POLLIN, -1}}));
  EXPECT_EQ(fake.lastFlags(Call::Recv), MSG_DONTWAIT);
  EXPECT_EQ(fake.count(Call::Poll), 0U) << "the hook waits, nothing else";
}

TEST_F(SocketHook, IsNotCalledForBytesThatAreThere) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  peer.send("abc");
  arrived();
  EXPECT_EQ(read(socket, 3), "abc");
  EXPECT_EQ(readOnce(socket, 3), "abc");
  EXPECT_EQ(socket.look(), Socket::Look::Quiet);
  EXPECT_TRUE(seen.empty());
}

TEST_F(SocketHook, WaitsForEachPartOfALongRead) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  for (const char* part : {"ab", "cd"}) {
    answer([&, part](const SeenWait&) {
      peer.send(part);
      arrived();
      return WaitResult::Ready;
    });
  }
  EXPECT_EQ(read(socket, 4), "abcd");
  EXPECT_EQ(seen.size(), 2U);
}

TEST_F(SocketHook, MaySayReadyThoughNothingHasCome) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  answer(WaitResult::Ready, 3);
  answer([&](const SeenWait&) {
    peer.send("x");
    arrived();
    return WaitResult::Ready;
  });
  EXPECT_EQ(readOnce(socket, 1), "x");
  EXPECT_EQ(fake.count(Call::Recv), 5U);
}

TEST_F(SocketHook, ThatAlwaysSaysReadyCannotStretchTheDeadline) {
  Socket socket;
  fake.ownClock();
  tq::test::Peer peer = hooked(socket);
  socket.setDeadline(Deadline::in(25));
  for (int i = 0; i < 3; ++i) answer(after(10, WaitResult::Ready));
  thrown<SocketTimeoutException>([&] { readOnce(socket, 1); });
  const int fd = fake.lastDescriptor();
  EXPECT_EQ(seen, (std::vector<SeenWait>{{fd, POLLIN, 25}, {fd, POLLIN, 15}, {fd, POLLIN, 5}}));
}

TEST_F(SocketHook, ThatTimesOutTooEarlyIsAskedAgain) {
  Socket socket;
  fake.ownClock();
  tq::test::Peer peer = hooked(socket);
  socket.setDeadline(Deadline::in(25));
  for (int i = 0; i < 3; ++i) answer(after(10, WaitResult::TimedOut));
  thrown<SocketTimeoutException>([&] { readOnce(socket, 1); });
  EXPECT_EQ(seen.size(), 3U);
  EXPECT_EQ(fake.count(Call::Recv), 1U);
}

TEST_F(SocketHook, CannotTimeOutAWaitWithoutALimit) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  answer(WaitResult::TimedOut, 2);
  answer(WaitResult::GiveUp);
  EXPECT_THROW(readOnce(socket, 1), SocketCancelledException);
  EXPECT_EQ(seen.size(), 3U);
}

TEST_F(SocketHook, ThatGivesUpARead) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  peer.send("ab");
  arrived();
  answer(WaitResult::GiveUp);
  const auto cancelled = thrown<SocketCancelledException>([&] { read(socket, 3); });
  EXPECT_EQ(cancelled.getErrorNumber(), ECANCELED);
  EXPECT_STREQ(cancelled.name(), "oss::SocketCancelledException");
  EXPECT_EQ(firstArgument(cancelled), describe(u"receive from", listener.port()));
  EXPECT_TRUE(socket.isOpen());
  EXPECT_EQ(socket.buffered(), 2U) << "what had come is kept";
  peer.send("c");
  EXPECT_EQ(read(socket, 3), "abc");
}

TEST_F(SocketHook, GivingUpIsNoTimeOut) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  socket.setDeadline(Deadline::in(60000));
  answer(WaitResult::GiveUp);
  try {
    readOnce(socket, 1);
    FAIL();
  } catch (const SocketTimeoutException&) {
    FAIL();
  } catch (const SocketException& caught) {
    EXPECT_EQ(caught.getErrorNumber(), ECANCELED);
  }
}

TEST_F(SocketHook, AnAnswerThatIsNoneGivesUp) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  answer(static_cast<WaitResult>(77));
  EXPECT_THROW(readOnce(socket, 1), SocketCancelledException);
}

// Writing.

TEST_F(SocketHook, WaitsForRoom) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  fake.stall(Call::Sendmsg);
  answer(WaitResult::Ready, 2);
  answer([&](const SeenWait&) {
    fake.stall(Call::Sendmsg, false);
    return WaitResult::Ready;
  });
  socket.write("abc", 0, 3);
  EXPECT_EQ(peer.receive(3), "abc");
  const SeenWait each{fake.lastDescriptor(), POLLOUT, -1};
  EXPECT_EQ(seen, (std::vector<SeenWait>{each, each, each}));
  EXPECT_EQ(fake.lastFlags(Call::Sendmsg), MSG_DONTWAIT | MSG_NOSIGNAL);
  EXPECT_EQ(fake.count(Call::Poll), 0U);
}

TEST_F(SocketHook, WaitsForRoomUntilTheDeadline) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  fake.stall(Call::Sendmsg);
  socket.setDeadline(Deadline::in(15));
  answer(after(10, WaitResult::Ready));
  answer(after(10, WaitResult::TimedOut));
  thrown<SocketTimeoutException>([&] { socket.write("abc", 0, 3); });
  const int fd = fake.lastDescriptor();
  EXPECT_EQ(seen, (std::vector<SeenWait>{{fd, POLLOUT, 15}, {fd, POLLOUT, 5}}));
}

TEST_F(SocketHook, ThatGivesUpAWriteToAPeerThatDoesNotRead) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  answer([](const SeenWait&) { return WaitResult::GiveUp; });
  const std::string bytes(64 * 1024 * 1024, 'w');
  const auto cancelled =
      thrown<SocketCancelledException>([&] { socket.write(bytes.data(), 0, bytes.size()); });
  EXPECT_EQ(firstArgument(cancelled), describe(u"send to", listener.port()));
  EXPECT_EQ(seen, (std::vector<SeenWait>{{fake.lastDescriptor(), POLLOUT, -1}}));
}

TEST_F(SocketHook, LosesNothingOfALongWrite) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  const std::string bytes(16 * 1024 * 1024, 'w');
  std::string got;
  const Answer drain = [&](const SeenWait&) {
    std::string part(1 << 20, '\0');
    const ssize_t n = ::recv(peer.descriptor(), part.data(), part.size(), MSG_DONTWAIT);
    if (n > 0) got.append(part.data(), static_cast<std::size_t>(n));
    return WaitResult::Ready;
  };
  for (int i = 0; i < 100000; ++i) answer(drain);
  socket.write(bytes.data(), 0, bytes.size());
  EXPECT_FALSE(seen.empty());
  got += peer.receive(bytes.size() - got.size());
  EXPECT_TRUE(got == bytes);
}

// Selecting.

TEST_F(SocketHook, WaitsForASocketThatIsSelectedAlone) {
  struct Case {
    std::size_t list;
    short events;
  };
  for (const Case& c : {Case{0, POLLIN}, Case{1, POLLOUT}, Case{2, POLLPRI}}) {
    Socket socket;
    tq::test::Peer peer = hooked(socket);
    std::array<std::list<Socket>, 3> lists;
    lists[c.list].push_back(socket);
    fake.stall(Call::Poll);
    answer(WaitResult::GiveUp);
    const unsigned long timeout = 40;
    EXPECT_THROW(Socket::select(lists[0], lists[1], lists[2], &timeout), SocketCancelledException);
    EXPECT_EQ(seen, (std::vector<SeenWait>{{fake.lastDescriptor(), c.events, 40}}));
    fake.stall(Call::Poll, false);
  }
}

TEST_F(SocketHook, SelectsWhatPollFindsReady) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  std::list<Socket> readers{socket};
  std::list<Socket> none;
  answer(WaitResult::Ready);
  answer([&](const SeenWait&) {
    peer.send("a");
    arrived();
    return WaitResult::Ready;
  });
  EXPECT_EQ(Socket::select(readers, none, none, nullptr), 1);
  EXPECT_EQ(readers.size(), 1U);
  const SeenWait each{fake.lastDescriptor(), POLLIN, -1};
  EXPECT_EQ(seen, (std::vector<SeenWait>{each, each}));
}

TEST_F(SocketHook, ASelectWhosePollFailsIsReported) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  std::list<Socket> readers{socket};
  std::list<Socket> none;
  fake.fail(Call::Poll, 1, ENOMEM);
  const SocketException failure = thrown([&] { Socket::select(readers, none, none, nullptr); });
  EXPECT_EQ(failure.getErrorNumber(), ENOMEM);
  EXPECT_EQ(firstArgument(failure), u"wait for sockets");
}

TEST_F(SocketHook, EndsASelectWithItsTime) {
  Socket socket;
  fake.ownClock();
  tq::test::Peer peer = hooked(socket);
  std::list<Socket> readers{socket};
  std::list<Socket> none;
  answer(after(20, WaitResult::TimedOut));
  answer(after(20, WaitResult::Ready));
  const unsigned long timeout = 40;
  EXPECT_EQ(Socket::select(readers, none, none, &timeout), 0);
  EXPECT_EQ(seen.size(), 2U);
  EXPECT_EQ(seen[1].millis, 20);
}

TEST_F(SocketHook, SeveralSocketsAreSelectedByPoll) {
  Socket first;
  Socket second;
  tq::test::Peer firstPeer = hooked(first);
  tq::test::Peer secondPeer = hooked(second);
  secondPeer.send("a");
  std::list<Socket> readers{first, second};
  std::list<Socket> none;
  EXPECT_EQ(Socket::select(readers, none, none, nullptr), 1);
  EXPECT_TRUE(seen.empty());
}

// Pausing.

TEST_F(SocketHook, HoldsAPauseToItsEnd) {
  Socket socket;
  fake.ownClock();
  hook(socket);
  answer(after(10, WaitResult::Ready));
  answer(after(10, WaitResult::TimedOut));
  answer(after(10, WaitResult::TimedOut));
  socket.pauseUntil(Deadline::in(30));
  EXPECT_EQ(seen, (std::vector<SeenWait>{{-1, 0, 30}, {-1, 0, 20}, {-1, 0, 10}}));
  EXPECT_EQ(fake.count(Call::Poll), 0U);
}

TEST_F(SocketHook, ThatGivesUpAPause) {
  Socket socket;
  hook(socket);
  answer(WaitResult::GiveUp);
  EXPECT_THROW(socket.pauseUntil(Deadline::none()), SocketCancelledException);
  EXPECT_EQ(seen, (std::vector<SeenWait>{{-1, 0, -1}}));
}

TEST_F(SocketHook, WithoutOneAPauseIsPolls) {
  Socket socket;
  fake.stall(Call::Poll);
  const std::uint64_t start = fake.now();
  socket.pauseUntil(Deadline::in(30));
  EXPECT_EQ(fake.now() - start, 30 * kMilli);
  EXPECT_EQ(fake.pollTimeouts(), std::vector<int>{30});
}

// What it belongs to.

TEST_F(SocketHook, HoldsForCopiesAndLaterConnections) {
  Socket socket;
  { tq::test::Peer peer = hooked(socket); }
  Socket copy = socket;
  copy.close();
  tq::test::Peer peer = connected(copy);
  seen.clear();
  answer(WaitResult::GiveUp);
  EXPECT_THROW(readOnce(socket, 1), SocketCancelledException);
  EXPECT_EQ(seen.size(), 1U);
}

TEST_F(SocketHook, ThatIsTakenAwayLeavesTheWaitingToTheKernel) {
  Socket socket;
  tq::test::Peer peer = hooked(socket);
  socket.setWaitHook(nullptr, this);
  peer.send("a");
  EXPECT_EQ(readOnce(socket, 1), "a");
  EXPECT_EQ(fake.count(Call::Recv), 1U);
  EXPECT_EQ(fake.lastFlags(Call::Recv), 0) << "one blocking receive";
  socket.write("a", 0, 1);
  EXPECT_EQ(fake.lastFlags(Call::Sendmsg), MSG_NOSIGNAL);
  EXPECT_EQ(fake.count(Call::Poll), 0U);
  EXPECT_EQ(fake.count(Call::Clock), 0U);
  EXPECT_TRUE(seen.empty());
}

TEST_F(SocketHook, ThatGivesUpAgainAndAgainCostsNoDescriptor) {
  const std::size_t before = openDescriptors();
  for (int i = 0; i < 100; ++i) {
    Socket socket;
    tq::test::Peer peer = hooked(socket);
    answer(WaitResult::GiveUp);
    EXPECT_THROW(readOnce(socket, 1), SocketCancelledException);
    fake.stall(Call::Sendmsg);
    answer(WaitResult::GiveUp);
    EXPECT_THROW(socket.write("a", 0, 1), SocketCancelledException);
    fake.stall(Call::Sendmsg, false);
    fake.stallConnects(1);
    answer(WaitResult::GiveUp);
    EXPECT_THROW(connected(socket), SocketCancelledException);
  }
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
