#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "server/front/monitor.h"
#include "tests/server/rawClient.h"

namespace corvaned {
namespace {

using test::RawClient;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class MonitorTest : public ::testing::Test {
 protected:
  std::string ask(const std::string& request) const {
    RawClient client(monitor_.port());
    client.send(request);
    return client.receiveAll();
  }
  std::string get(const std::string& path) const {
    return ask("GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
  }

  std::string obstacle_;
  std::string notice_;
  Monitor monitor_{
      0, {[] { return "metric 1\n"; }, [this] { return obstacle_; }, [this] { return notice_; }}};
};

TEST_F(MonitorTest, ToolsGetWhatTheyAskFor) {
  EXPECT_THAT(get("/metrics"),
              AllOf(StartsWith("HTTP/1.1 200 OK\r\n"), HasSubstr("Content-Length: 9\r\n"),
                    EndsWith("\r\n\r\nmetric 1\n")));
  EXPECT_THAT(get("/health"), StartsWith("HTTP/1.1 200 "));
  EXPECT_THAT(get("/ready"), StartsWith("HTTP/1.1 200 "));
  EXPECT_THAT(get("/other"), StartsWith("HTTP/1.1 404 "));
  EXPECT_THAT(get("/metrics2"), StartsWith("HTTP/1.1 404 "));
  EXPECT_THAT(ask("POST /metrics HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 405 "));
}

TEST_F(MonitorTest, ProbesMayAskForTheHeadAloneAndAddAQuery) {
  EXPECT_EQ(ask("HEAD /health HTTP/1.1\r\n\r\n") + "alive\n", get("/health"));
  EXPECT_THAT(ask("HEAD /other HTTP/1.1\r\n\r\n"),
              AllOf(StartsWith("HTTP/1.1 404 "), EndsWith("\r\n\r\n")));
  obstacle_ = "no disk";
  EXPECT_THAT(ask("HEAD /ready HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 503 "));
  EXPECT_EQ(get("/metrics?name[]=corvaned"), get("/metrics"));
  EXPECT_THAT(get("/other?/metrics"), StartsWith("HTTP/1.1 404 "));
  EXPECT_THAT(ask("GET /health?x\r\n\r\n"), StartsWith("HTTP/1.1 404 "));
  EXPECT_THAT(ask("?\r\n\r\n"), StartsWith("HTTP/1.1 405 "));
}

TEST_F(MonitorTest, ServerThatIsNotReadySaysWhy) {
  obstacle_ = "no disk";
  EXPECT_THAT(get("/ready"), AllOf(StartsWith("HTTP/1.1 503 "), EndsWith("no disk\n")));
  EXPECT_THAT(get("/health"), StartsWith("HTTP/1.1 200 "));
}

// One collection that fails is no reason to send all other requests elsewhere.
TEST_F(MonitorTest, ServerThatIsReadySaysWhatAnOperatorHasToSeeTo) {
  EXPECT_THAT(get("/ready"), EndsWith("\r\n\r\nready\n"));
  notice_ = "a collection fails\n";
  EXPECT_THAT(get("/ready"),
              AllOf(StartsWith("HTTP/1.1 200 "), EndsWith("\r\n\r\nready\na collection fails\n")));
  obstacle_ = "the server is stopping";
  EXPECT_THAT(get("/ready"), StartsWith("HTTP/1.1 503 "));
}

TEST_F(MonitorTest, RubbishAndSilenceHoldUpNobodyForLong) {
  const RawClient silent(monitor_.port());
  EXPECT_THAT(ask("GET /health\r\n\r\n"), StartsWith("HTTP/1.1 404 "));
  EXPECT_THAT(get("/health"), StartsWith("HTTP/1.1 200 "));
}

TEST_F(MonitorTest, ClientThatDripsHoldsUpNobodyForLong) {
  Monitor monitor(0, {[] { return std::string(); }, [] { return std::string(); }},
                  std::chrono::milliseconds(1000));
  RawClient slow(monitor.port());
  std::promise<void> answered;
  // Each byte comes well before the patience would be at its end if it began anew with each.
  std::thread dripping([&slow, over = answered.get_future()] {
    constexpr std::chrono::milliseconds kPause{50};
    while (slow.send("x") && over.wait_for(kPause) == std::future_status::timeout) {
    }
  });
  RawClient client(monitor.port());
  client.send("GET /health HTTP/1.1\r\n\r\n");
  EXPECT_THAT(client.receiveAll(), StartsWith("HTTP/1.1 200 "));
  answered.set_value();
  dripping.join();
}

// On a machine that is busy the monitor may come to a client when its time is over.
TEST_F(MonitorTest, RequestThatIsThereIsAnsweredHoweverLateItIs) {
  std::promise<void> reached, released;
  const std::future<void> go = released.get_future();
  bool first = true;
  const auto metrics = [&] {
    if (std::exchange(first, false)) {
      reached.set_value();
      go.wait();
    }
    return std::string();
  };
  Monitor monitor(0, {metrics, [] { return std::string(); }}, std::chrono::milliseconds(0));
  // Until a request is there as soon as its connection is, which keeps the monitor busy.
  auto keeping = std::async(std::launch::async, [&monitor] {
    std::string reply;
    while (!reply.starts_with("HTTP/1.1 200 ")) {
      RawClient client(monitor.port());
      client.send("GET /metrics HTTP/1.1\r\n\r\n");
      reply = client.receiveAll();
    }
  });
  reached.get_future().wait();
  RawClient waiting(monitor.port());
  waiting.send("GET /health HTTP/1.1\r\n\r\n");
  waiting.awaitDelivery();
  released.set_value();
  EXPECT_THAT(waiting.receiveAll(), StartsWith("HTTP/1.1 200 "));
  keeping.wait();
}

TEST_F(MonitorTest, SlowClientIsServedAsLongAsNoOtherOneComes) {
  Monitor monitor(0, {[] { return std::string(); }, [] { return std::string(); }},
                  std::chrono::milliseconds(0));
  RawClient slow(monitor.port());
  const std::string request = "GET /health HTTP/1.1\r\n\r\n";
  for (const char byte : request) {
    slow.send(std::string(1, byte));
    slow.awaitDelivery();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_THAT(slow.receiveAll(), StartsWith("HTTP/1.1 200 "));
}

TEST_F(MonitorTest, EndsWhileAClientIsSilent) {
  std::optional<Monitor> monitor;
  monitor.emplace(0, Monitor::Sources{[] { return std::string(); }, [] { return std::string(); }},
                  std::chrono::hours(1));
  RawClient silent(monitor->port());
  monitor.reset();
  // Perhaps it is told that this was no request.
  EXPECT_THAT(silent.receiveAll(), ::testing::AnyOf("", StartsWith("HTTP/1.1 405 ")));
}

TEST_F(MonitorTest, PortThatIsTakenIsNamed) {
  try {
    const Monitor second(monitor_.port(), {});
    FAIL() << "two on one port";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr(std::to_string(monitor_.port())));
  }
}

}  // namespace
}  // namespace corvaned
