#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "infra/oss/kruSocket.h"
#include "tests/support/loopback.h"

namespace {

using tq::oss::Socket;

TEST(SocketThreads, DifferentConnectionsNeedNoLocking) {
  constexpr int kClients = 4;
  constexpr int kRounds = 50;
  tq::test::Listener listener;
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&listener] {
      Socket socket;
      socket.connect(u"127.0.0.1", listener.port(), Socket::NullAddrInfoExternal, nullptr);
      for (int round = 0; round < kRounds; ++round) {
        const std::string sent = std::to_string(round);
        socket.write(sent.data(), 0, sent.size());
        std::string got(sent.size(), '?');
        EXPECT_EQ(socket.read(got.data(), 0, got.size()), got.size());
        EXPECT_EQ(socket.readOnce(got.data(), 0, got.size()), got.size());
        EXPECT_EQ(got, sent);
      }
    });
    threads.emplace_back([&listener] {
      tq::test::Peer peer = listener.accept();
      for (std::string byte = peer.receive(1); !byte.empty(); byte = peer.receive(1)) {
        peer.send(byte);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
