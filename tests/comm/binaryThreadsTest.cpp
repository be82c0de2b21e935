// Clients side by side, each on its own thread.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "tests/comm/binaryFixture.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;
using tq::comm::ClientResponse;
using tq::comm::DrestoPerfClient;

constexpr int kClients = 4;
constexpr int kDocuments = 120;

/// Queues documents, which share one count of messages with all other clients, and returns what
/// the server must have received.
std::string load(unsigned int port, std::size_t size) {
  DrestoPerfClient client(u"127.0.0.1", port);
  client.useBufferedConnection(true);
  std::string all;
  for (int i = 0; i < kDocuments; ++i) {
    Document document(kAsynchAddDocument, size + static_cast<std::size_t>(i));
    ClientResponse response;
    client.sendAndRecvMesg(document.request, response);
    all += Framed(document.request).whole();
  }
  auto last = requestFor(kLastDocSent);
  ClientResponse response;
  client.sendAndRecvMesg(last, response);
  return all + Framed(last).whole();
}

TEST(BinaryThreads, BatchingClientsLoseAndDoubleNothing) {
  ScriptedServer server(Script().awaitClose());
  std::vector<std::string> sent(kClients);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] { sent[i] = load(server.port(), 1 + 100 * i); });
  }
  for (auto& thread : threads) thread.join();
  std::vector<std::string> received;
  for (std::size_t i = 0; i < kClients; ++i) {
    server.awaitClientClose(i);
    received.push_back(server.connection(i).received);
  }
  std::sort(sent.begin(), sent.end());
  std::sort(received.begin(), received.end());
  EXPECT_TRUE(sent == received);
}

TEST(BinaryThreads, SearchingClientsDoNotDisturbEachOther) {
  const auto reply = longSearch(kStreamSearch, 3000);
  ScriptedServer server(Script()
                            .expectFramedRequest()
                            .send(reply.text, 20000)
                            .expectFramedRequest()
                            .send(nextBinaryReply().text)
                            .awaitClose());
  std::vector<int> right(kClients, 0);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      DrestoPerfClient client(u"127.0.0.1", server.port());
      client.setReassembly(true);
      right[i] += runBinary(client, reply.kind) == reply.expected ? 1 : 0;
      right[i] += runBinary(client, nextBinaryReply().kind) == nextBinaryReply().expected ? 1 : 0;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(right, std::vector<int>(kClients, 2));
}

}  // namespace
