// Clients on several threads, from the first call of the process on.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "infra/oss/kruTrace.h"
#include "tests/comm/bothProtocols.h"
#include "tests/support/fakeSystemCalls.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;

constexpr int kClients = 8;
constexpr int kRounds = 20;

/// What clients ask and what they must see.
struct Question {
  int kind;
  std::string answer;
  BinaryOutcome expected;
};

Question questionOf(const Reply& reply) { return {reply.kind, plain(reply), {reply.expected}}; }
Question questionOf(const BinaryReply& reply) { return {reply.kind, reply.text, reply.expected}; }

void runTogether(const std::function<void(std::size_t)>& client) {
  std::barrier start(kClients);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      client(i);
    });
  }
  for (auto& thread : threads) thread.join();
}

class ExchangeThreads : public testing::TestWithParam<bool> {
 protected:
  static bool binary() { return GetParam(); }

  static std::unique_ptr<tq::comm::CorvaneRESTClient> clientOf(const ScriptedServer& server) {
    return clientFor(binary(), true, server.port());
  }

  static bool isRight(tq::comm::CorvaneRESTClient& client, const Question& question) {
    return runOver(client, question.kind) == question.expected;
  }

  static Script answers(const Question& question, int times) {
    Script script;
    for (int i = 0; i < times; ++i) Replies(binary()).expect(script).send(question.answer);
    return script.awaitClose();
  }

  static Question questionNamed(const std::string& http, const std::string& binaries) {
    return binary() ? questionOf(binaryReplyNamed(binaries)) : questionOf(replyNamed(http));
  }

  static std::vector<Question> questionsOfFiveKinds() {
    return {questionNamed("StreamSearchWithThreeHits", "StreamSearchWithThreeHits"),
            questionNamed("ScalarSearchWithFortyHits", "ScalarSearchWithScores"),
            questionNamed("ParseResultWithThreeRows", "ParseResultWithThreeRows"),
            questionNamed("GetStatus", "TroubledStatus"),
            questionNamed("ServerErrorOnStreamSearch", "RefusedOnStreamSearch")};
  }
};

// In a process of its own, this is the first message that is ever built: all threads at once.
TEST_P(ExchangeThreads, TheFirstRequestsOfTheProcessMayRunTogether) {
  auto question = questionNamed("StreamSearchWithThreeHits", "StreamSearchWithThreeHits");
  if (!binary()) question.answer = chunked(replyNamed("StreamSearchWithThreeHits"), 16, true).text;
  ScriptedServer server(answers(question, 1));
  std::atomic<int> right{0};
  runTogether([&](std::size_t) {
    const auto client = clientOf(server);
    client->usePeristentConnection(false);
    if (isRight(*client, question)) ++right;
  });
  EXPECT_EQ(right, kClients);
  EXPECT_EQ(server.requests(), static_cast<std::size_t>(kClients));
}

TEST_P(ExchangeThreads, EachClientGetsItsOwnResults) {
  const auto questions = questionsOfFiveKinds();
  std::vector<std::unique_ptr<ScriptedServer>> servers;
  for (const auto& question : questions) {
    servers.push_back(std::make_unique<ScriptedServer>(answers(question, kRounds)));
  }
  std::atomic<int> right{0};
  runTogether([&](std::size_t i) {
    const auto which = i % questions.size();
    const auto client = clientOf(*servers[which]);
    for (int round = 0; round < kRounds; ++round) {
      if (isRight(*client, questions[which])) ++right;
    }
  });
  EXPECT_EQ(right, kClients * kRounds);
}

TEST_P(ExchangeThreads, LongStreamsDoNotDisturbEachOther) {
  const auto question = binary() ? questionOf(longSearch(kStreamSearch, 3000))
                                 : questionOf(replyNamed("FourThousandStreamedHits"));
  const auto& next = nextOver(binary());
  auto script = answerTo(binary(), question.answer, 20000);
  Replies(binary()).expect(script).send(next.text).awaitClose();
  ScriptedServer server(script);
  std::atomic<int> right{0};
  runTogether([&](std::size_t) {
    const auto client = clientOf(server);
    if (isRight(*client, question)) ++right;
    if (runOver(*client, next.kind) == next.expected) ++right;
  });
  EXPECT_EQ(right, 2 * kClients);
}

TEST_P(ExchangeThreads, FailingClientsDoNotDisturbTheOthers) {
  const auto question = questionNamed("ScalarSearchWithThreeHits", "ScalarSearchWithThreeHits");
  ScriptedServer healthy(answers(question, kRounds));
  Script closes;
  ScriptedServer closing(Replies(binary()).expect(closes));
  std::atomic<int> right{0};
  runTogether([&](std::size_t i) {
    const bool fails = i % 2 == 1;
    const auto client = clientOf(fails ? closing : healthy);
    for (int round = 0; round < kRounds; ++round) {
      const auto outcome = runOver(*client, question.kind);
      const bool failed = outcome.seen.errorId == "ERR_SERVER_COMM_RECV";
      if (fails ? failed : outcome == question.expected) ++right;
    }
  });
  EXPECT_EQ(right, kClients * kRounds);
}

/// Runs the operation on a thread that may be cancelled.
pthread_t start(std::function<void()>& operation) {
  const auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  pthread_t thread{};
  if (::pthread_create(&thread, nullptr, run, &operation) != 0) throw std::runtime_error("thread");
  return thread;
}

bool endsByCancellation(pthread_t thread) {
  void* result = nullptr;
  ::pthread_join(thread, &result);
  return result == PTHREAD_CANCELED;
}

TEST_P(ExchangeThreads, ACancelledThreadUnwindsThroughAConnect) {
  const auto question = questionNamed("StreamSearchWithThreeHits", "StreamSearchWithThreeHits");
  ScriptedServer server(answers(question, 1));
  tq::test::FakeSystemCalls fake;
  const auto client = clientOf(server);
  fake.cancelIn(tq::test::Call::Connect, 1);
  std::function<void()> opening = [&] { client->open(); };
  EXPECT_TRUE(endsByCancellation(start(opening)));
  EXPECT_FALSE(client->isConnected());
  EXPECT_TRUE(isRight(*client, question)) << "the client goes on";
}

TEST_P(ExchangeThreads, ACancelledThreadUnwindsThroughAReceive) {
  const auto question = questionNamed("StreamSearchWithThreeHits", "StreamSearchWithThreeHits");
  Script half;
  Replies(binary()).sendHits(Replies(binary()).expect(half), {"k1"}, false).stall();
  ScriptedServer server({half, answers(question, 1)});
  const auto client = clientOf(server);
  std::promise<void> exchanged;
  std::function<void()> receiving = [&] {
    auto request = requestFor(kStreamSearch);
    tq::comm::ClientResponse response;
    client->sendAndRecvMesg(request, response);
    exchanged.set_value();
    client->recv(response);
  };
  const pthread_t thread = start(receiving);
  exchanged.get_future().wait();
  ::pthread_cancel(thread);
  EXPECT_TRUE(endsByCancellation(thread));
  server.awaitClientClose(0);
  EXPECT_TRUE(isRight(*client, question)) << "the client goes on";
}

/// A host that writes its records.
class WritingFacility : public tq::oss::TraceFacility {
 public:
  WritingFacility() : null_(::open("/dev/null", O_WRONLY | O_CLOEXEC)) {
    tq::oss::setTraceFacility(this);
  }
  ~WritingFacility() override {
    tq::oss::setTraceFacility(nullptr);
    ::close(null_);
  }
  WritingFacility(const WritingFacility&) = delete;
  WritingFacility& operator=(const WritingFacility&) = delete;

  unsigned long getComponentTraceFlags(unsigned int) override { return 0x20083; }
  void traceEntry(unsigned int id) override { note(id); }
  void traceExit(unsigned int id, long) override { note(id); }

 private:
  void note(unsigned int id) const {
    if (::write(null_, &id, sizeof id) < 0) std::abort();
  }

  int null_;
};

TEST_P(ExchangeThreads, ACancelledThreadUnwindsThroughAnExchangeThatTheHostTraces) {
  const auto question = questionNamed("StreamSearchWithThreeHits", "StreamSearchWithThreeHits");
  ScriptedServer server(answers(question, 1));
  const auto client = clientOf(server);
  {
    const WritingFacility facility;
    std::function<void()> exchanging = [&] {
      ::pthread_cancel(::pthread_self());
      isRight(*client, question);
    };
    EXPECT_TRUE(endsByCancellation(start(exchanging)));
  }
  EXPECT_FALSE(client->isConnected());
  EXPECT_TRUE(isRight(*client, question)) << "the client goes on";
}

TEST_P(ExchangeThreads, ClientsMaySendOneRequestTogether) {
  const Question question{kGetStatus, Replies(binary()).ready(), {}};
  ScriptedServer server(answers(question, kRounds));
  auto request = requestFor(kGetStatus);
  std::atomic<int> right{0};
  runTogether([&](std::size_t) {
    const auto client = clientOf(server);
    for (int round = 0; round < kRounds; ++round) {
      tq::comm::ClientResponse response;
      client->sendAndRecvMesg(request, response);
      if (response.success()) ++right;
    }
  });
  EXPECT_EQ(right, kClients * kRounds);
  EXPECT_EQ(server.requests(), static_cast<std::size_t>(kClients * kRounds));
}

INSTANTIATE_TEST_SUITE_P(Over, ExchangeThreads, testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

// The binary protocol alone has batches.

/// Queues documents, which share one count of messages with all other clients, and returns what
/// the server must have received.
std::string load(unsigned int port, std::size_t size) {
  constexpr std::size_t kDocuments = 120;
  tq::comm::DrestoPerfClient client(u"127.0.0.1", port);
  client.useBufferedConnection(true);
  std::string all;
  for (std::size_t i = 0; i < kDocuments; ++i) {
    Document document(kAsynchAddDocument, size + i);
    tq::comm::ClientResponse response;
    client.sendAndRecvMesg(document.request, response);
    all += Framed(document.request).whole();
  }
  auto last = requestFor(kLastDocSent);
  tq::comm::ClientResponse response;
  client.sendAndRecvMesg(last, response);
  return all + Framed(last).whole();
}

TEST(BatchingClients, LoseAndDoubleNothingSideBySide) {
  ScriptedServer server(Script().awaitClose());
  std::vector<std::string> sent(kClients);
  runTogether([&](std::size_t i) { sent[i] = load(server.port(), 1 + 100 * i); });
  std::vector<std::string> received;
  for (std::size_t i = 0; i < kClients; ++i) {
    server.awaitClientClose(i);
    received.push_back(server.connection(i).received);
  }
  std::sort(sent.begin(), sent.end());
  std::sort(received.begin(), received.end());
  EXPECT_TRUE(sent == received);
}

}  // namespace
