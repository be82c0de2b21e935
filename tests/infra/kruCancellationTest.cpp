#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <future>
#include <stdexcept>

#include "infra/oss/kruTrace.h"
#include "infra/oss/kruWaitHook.h"
#include "tests/infra/socketFixture.h"

namespace {

/// Runs the operation on a thread of its own; true when the thread ended by being cancelled.
class SocketCancellation : public SocketFixture {
 protected:
  static bool isCancelledIn(std::function<void()> operation) {
    return endsByCancellation(start(operation));
  }

  static pthread_t start(std::function<void()>& operation) {
    pthread_t thread{};
    if (::pthread_create(&thread, nullptr, run, &operation) != 0) {
      throw std::runtime_error("no thread");
    }
    return thread;
  }

  static bool endsByCancellation(pthread_t thread) {
    void* result = nullptr;
    ::pthread_join(thread, &result);
    return result == PTHREAD_CANCELED;
  }

 private:
  static void* run(void* operation) {
    (*static_cast<std::function<void()>*>(operation))();
    return nullptr;
  }
};

TEST_F(SocketCancellation, WhileConnectingClosesTheDescriptor) {
  for (const Call call : {Call::Connect, Call::Poll}) {
    Socket socket;
    fake.resetCounts();
    fake.stallConnects(1);
    fake.cancelIn(call, 1);
    EXPECT_TRUE(isCancelledIn([&] {
      socket.connect(u"127.0.0.1", listener.port(), Socket::NullAddrInfoExternal, nullptr);
    }));
    EXPECT_FALSE(socket.isOpen());
    EXPECT_EQ(fake.count(Call::Close), 1U);
  }
}

TEST_F(SocketCancellation, WhileReadingClosesTheConnection) {
  char bytes[4];
  using Operation = std::function<void(Socket&)>;
  for (const Operation& operation :
       {Operation([&](Socket& socket) { socket.readOnce(bytes, 0, 4); }),
        Operation([&](Socket& socket) { socket.read(bytes, 0, 4); }),
        Operation([&](Socket& socket) { socket.look(); })}) {
    Socket socket;
    tq::test::Peer peer = connected(socket);
    fake.resetCounts();
    fake.cancelIn(Call::Recv, 1);
    EXPECT_TRUE(isCancelledIn([&] { operation(socket); }));
    EXPECT_FALSE(socket.isOpen()) << "how much the receive took is unknown";
    EXPECT_TRUE(peer.seesClose());
  }
}

TEST_F(SocketCancellation, WhileWaitingForBytesClosesTheConnection) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  socket.setDeadline(Deadline::in(60000));
  fake.resetCounts();
  fake.cancelIn(Call::Poll, 1);
  char byte = 0;
  EXPECT_TRUE(isCancelledIn([&] { socket.readOnce(&byte, 0, 1); }));
  EXPECT_FALSE(socket.isOpen());
  EXPECT_TRUE(peer.seesClose());
}

TEST_F(SocketCancellation, WhileWritingClosesTheConnection) {
  for (const Call call : {Call::Sendmsg, Call::Poll}) {
    Socket socket;
    tq::test::Peer peer = connected(socket);
    fake.stall(Call::Sendmsg);
    socket.setDeadline(Deadline::in(60000));
    fake.resetCounts();
    fake.cancelIn(call, 1);
    EXPECT_TRUE(isCancelledIn([&] { socket.write("abc", 0, 3); }));
    EXPECT_FALSE(socket.isOpen());
    EXPECT_TRUE(peer.seesClose());
    fake.stall(Call::Sendmsg, false);
  }
}

TEST_F(SocketCancellation, WhileSelectingLeavesTheConnection) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.resetCounts();
  fake.cancelIn(Call::Poll, 1);
  EXPECT_TRUE(isCancelledIn([&] {
    std::list<Socket> readers{socket};
    std::list<Socket> none;
    Socket::select(readers, none, none, nullptr);
  }));
  peer.send("a");
  EXPECT_EQ(readOnce(socket, 1), "a");
}

TEST_F(SocketCancellation, EndsAPause) {
  fake.cancelIn(Call::Poll, 1);
  EXPECT_TRUE(isCancelledIn([] { tq::oss::pauseFor(1000000000000U); }));
}

TEST_F(SocketCancellation, WaitsForASocketToBeClosed) {
  auto socket = std::make_unique<Socket>();
  tq::test::Peer peer = connected(*socket);
  bool closed = false;
  EXPECT_TRUE(isCancelledIn([&] {
    ::pthread_cancel(::pthread_self());
    socket.reset();
    closed = true;
    ::pthread_testcancel();
  }));
  EXPECT_TRUE(closed) << "a destructor cannot be unwound";
  EXPECT_TRUE(peer.seesClose());
}

TEST_F(SocketCancellation, WaitsForANameToBeLookedUp) {
  bool found = false;
  EXPECT_TRUE(isCancelledIn([&] {
    ::pthread_cancel(::pthread_self());
    found = Socket::_AddrInfoExternal::resolve(u"localhost", 80).size() != 0;
    ::pthread_testcancel();
  }));
  EXPECT_TRUE(found);
}

TEST_F(SocketCancellation, WaitsForAHookToReturn) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  bool whole = false;
  const auto hook = [](void* host, int, short, int) noexcept {
    ::pthread_cancel(::pthread_self());
    ::pthread_testcancel();
    *static_cast<bool*>(host) = true;
    return tq::oss::WaitResult::Ready;
  };
  socket.setWaitHook(hook, &whole);
  char byte = 0;
  EXPECT_TRUE(isCancelledIn([&] { socket.readOnce(&byte, 0, 1); }));
  EXPECT_TRUE(whole) << "a hook cannot be unwound";
  EXPECT_FALSE(socket.isOpen());
  EXPECT_TRUE(peer.seesClose());
}

TEST_F(SocketCancellation, TakesEffectWhenAHookHasReturnedAlsoWhereItGaveUp) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const auto hook = [](void*, int, short, int) noexcept {
    ::pthread_cancel(::pthread_self());
    return tq::oss::WaitResult::GiveUp;
  };
  socket.setWaitHook(hook, nullptr);
  ASSERT_TRUE(isCancelledIn([&] {
    char byte = 0;
    try {
      socket.readOnce(&byte, 0, 1);
    } catch (const SocketException&) {
      // A thread that is not cancelled gets here.
    }
  }));
  EXPECT_FALSE(socket.isOpen());
  EXPECT_TRUE(peer.seesClose());
}

/// A host that writes its records, as one does who keeps them in a file.
class WritingFacility : public tq::oss::TraceFacility {
 public:
  WritingFacility() { tq::oss::setTraceFacility(this); }
  ~WritingFacility() override { tq::oss::setTraceFacility(nullptr); }

  unsigned long getComponentTraceFlags(unsigned int) override {
    ::pthread_testcancel();
    return 0x20083;
  }
  void traceEntry(unsigned int) override {
    ::pthread_testcancel();
    ++entries;
  }
  void traceExit(unsigned int, long) override {
    ::pthread_testcancel();
    ++exits;
  }

  int entries = 0;
  int exits = 0;
};

TEST_F(SocketCancellation, WaitsForTheHostsTraceFacility) {
  WritingFacility facility;
  bool reached = false;
  EXPECT_TRUE(isCancelledIn([&] {
    ::pthread_cancel(::pthread_self());
    { const tq::oss::TraceScope scope(0x1CD804A0); }
    reached = true;
    ::pthread_testcancel();
  }));
  EXPECT_TRUE(reached) << "a record cannot be unwound";
  EXPECT_EQ(facility.entries, 1);
  EXPECT_EQ(facility.exits, 1);
}

TEST_F(SocketCancellation, ReachesAThreadThatWaitsForARealPeer) {
  Socket outer;
  tq::test::Peer peer = connected(outer);
  tq::test::Peer mine{-1};
  std::promise<void> begins;
  std::function<void()> operation = [&] {
    Socket inner;
    inner.connect(u"127.0.0.1", listener.port(), Socket::NullAddrInfoExternal, nullptr);
    begins.set_value();
    char byte = 0;
    inner.readOnce(&byte, 0, 1);
  };
  const pthread_t thread = start(operation);
  tq::test::Peer theirs = listener.accept();
  begins.get_future().wait();
  ::pthread_cancel(thread);
  EXPECT_TRUE(endsByCancellation(thread));
  EXPECT_TRUE(theirs.seesClose()) << "the stack was unwound, the socket with it";
  peer.send("a");
  EXPECT_EQ(readOnce(outer, 1), "a");
}

}  // namespace
