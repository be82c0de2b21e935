#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/server/changeHistory.h"
#include "tests/server/rawClient.h"
#include "tests/server/requestBytes.h"
#include "tests/support/corvanedProcess.h"
#include "tests/support/temporaryDirectory.h"

// The program as its users have it, killed at random moments, over and over on the same directory.
//
// KRUCOMM_SEED=N runs the histories of that seed and nothing else, KRUCOMM_LONG=1 ten times as
// many. A seed gives the same requests again; the moment of the kill is as near as the machine is.
namespace corvaned {
namespace {

using test::binaryRequest;
using test::Model;
using test::Progress;
using test::RawClient;
using test::Step;
using test::Steps;
using test::StepSource;
using Kind = Step::Kind;

const std::string kSuccess("\0\1", 2);
const std::string kChangesPending("\0\5", 2);

std::string blocksOf(const Batch& batch) {
  std::string blocks;
  for (const Document& document : batch.changes.documents) {
    blocks += test::documentBlock(document.key, document.metadata, document.content);
  }
  blocks += test::terminateRecord();
  for (const std::string& key : batch.changes.deletions) {
    blocks += test::documentBlock(key, {}, {});
  }
  return blocks;
}

std::string requestFor(const Step& step) {
  const auto request = [&](const std::string& action, const std::string& body = {}) {
    return binaryRequest({{"action", action}, {"index", step.collection}}, body);
  };
  const auto block = [&] {
    const Document document = documentOf(step);
    return test::documentBlock(step.key, document.metadata, document.content);
  };
  switch (step.kind) {
    case Kind::Create:
      return binaryRequest(
          {{"action", "createCollection"},
           {"index", step.collection},
           {"refresh", test::isSearchableAtOnce(step.collection) ? "immediate" : "manual"}});
    case Kind::Drop:
      return request("deleteCollection");
    case Kind::Add:
      return request("addDocument", block());
    case Kind::Queue:
      return request("asyncAddDocument", block());
    case Kind::Report:
      return request("getParseResult");
    case Kind::Remove:
      return request("deleteDocument", test::documentBlock(step.key, {}, {}));
    case Kind::Batch:
      return binaryRequest(
          {{"action", "addDocument"}, {"index", step.collection}, {"batch", step.word}},
          test::documentBlock("any", {}, blocksOf(test::batchOf(step))));
    case Kind::Update:
      break;
  }
  return request("updateIndex");
}

/// The server behind one connection.
class ServerSubject : public test::Subject {
 public:
  explicit ServerSubject(unsigned port) : client_(static_cast<std::uint16_t>(port)) {}

  /// From any thread: how many steps have been sent and, where that is to be, answered.
  std::size_t applied() const { return applied_; }

  bool apply(const Step& step) override {
    const bool acknowledged = client_.send(requestFor(step)) && isAnswered(step);
    ++applied_;
    return acknowledged;
  }

  /// False when the server is gone. Throws when it refuses.
  bool ask(const test::Headers& headers) {
    return client_.send(binaryRequest(headers)) && receiveSuccess();
  }

  std::optional<CollectionState> state(const std::string& collection) override {
    client_.send(binaryRequest({{"action", "getStatus"}, {"index", collection}}));
    const std::string code = client_.receive(2);
    if (code == kSuccess) return CollectionState::Current;
    if (code == kChangesPending) return CollectionState::ChangesPending;
    const std::string error = receiveWithLength();
    if (error.find("ZVK0007E") != std::string::npos) return std::nullopt;
    throw std::runtime_error("status of " + collection + ": " + error);
  }

  std::set<std::string> search(const std::string& collection, const std::string& query) override {
    client_.send(binaryRequest({{"action", "search"}, {"index", collection}, {"query", query}}));
    if (!receiveSuccess()) throw std::runtime_error("a search is not answered");
    const auto keys = receiveRecords().value();
    return {keys.begin(), keys.end()};
  }

  bool knows(const Step& batch) override {
    client_.send(binaryRequest(
        {{"action", "getParseResult"}, {"index", batch.collection}, {"batch", batch.word}}));
    if (client_.receive(2) == kSuccess) return receiveRecords().value().size() == 1;
    const std::string error = receiveWithLength();
    if (error.find("ZVK0033E") != std::string::npos) return false;
    throw std::runtime_error("batch " + batch.word + ": " + error);
  }

 private:
  bool isAnswered(const Step& step) {
    if (step.kind == Kind::Queue) {
      ++queued_[step.collection];
      return false;
    }
    if (step.kind == Kind::Drop) queued_.erase(step.collection);
    return receiveSuccess() && (step.kind != Kind::Report || isReported(step.collection));
  }

  bool isReported(const std::string& collection) {
    const auto records = receiveRecords();
    if (!records) return false;
    for (const std::string& record : *records) {
      if (record.find("MsgId") != std::string::npos) throw std::runtime_error(record);
    }
    if (records->size() != std::exchange(queued_[collection], 0)) {
      throw std::runtime_error("the parse results are not those of the documents that were queued");
    }
    return true;
  }

  // False when the server is gone.
  bool receiveSuccess() {
    const std::string code = client_.receive(2);
    if (code.size() < 2) return false;
    if (code != kSuccess) throw std::runtime_error("refused: " + receiveWithLength());
    return true;
  }

  std::string receiveWithLength() {
    const std::string length = client_.receive(2);
    if (length.size() < 2) return {};
    return client_.receive(static_cast<unsigned char>(length[0]) * 256U +
                           static_cast<unsigned char>(length[1]));
  }

  // Nothing when the server goes before they are at their end.
  std::optional<std::vector<std::string>> receiveRecords() {
    std::vector<std::string> records;
    while (client_.receive(2) == kSuccess) {
      records.push_back(receiveWithLength());
      if (!records.back().empty()) continue;
      records.pop_back();
      return records;
    }
    return std::nullopt;
  }

  RawClient client_;
  std::atomic<std::size_t> applied_ = 0;
  std::map<std::string, std::size_t> queued_;
};

// Until the server is gone.
void updateIndexes(ServerSubject& subject) {
  for (bool there = true; there;) {
    for (const char* collection : {"a", "b"}) {
      try {
        there = there && subject.apply({Kind::Update, collection, {}, {}});
      } catch (const std::runtime_error&) {
        // There is no such collection now.
      }
    }
  }
}

// Until the server is gone.
void makeBackups(ServerSubject& subject, const std::string& prefix) {
  try {
    for (int number = 0;; ++number) {
      if (!subject.ask({{"action", "backup"}, {"backup", prefix + std::to_string(number)}})) return;
    }
  } catch (const std::runtime_error& error) {
    ADD_FAILURE() << error.what();
  }
}

// Every backup that has its name is whole: its collections are restored and opened. Returns how
// many there are.
std::size_t restoreAll(ServerSubject& subject, const std::filesystem::path& backups) {
  const auto mustAsk = [&](const test::Headers& headers) {
    if (!subject.ask(headers)) throw std::runtime_error("the server is gone");
  };
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(backups)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with('.')) throw std::runtime_error("the start has left " + name);
    for (const auto& each : std::filesystem::directory_iterator(entry.path() / "collections")) {
      mustAsk({{"action", "restore"},
               {"backup", name},
               {"from", each.path().filename().string()},
               {"index", "restored"},
               {"replace", "true"}});
      mustAsk({{"action", "updateIndex"}, {"index", "restored"}});
      ++count;
    }
    std::filesystem::remove_all(entry.path());
  }
  if (count > 0) mustAsk({{"action", "deleteCollection"}, {"index", "restored"}});
  return count;
}

/// What goes on beside the steps.
struct Others {
  bool update = false;
  /// Names of backups begin with it; none are made if it is empty.
  std::string backups;
};

Progress carryOutUntilKilled(tq::test::CorvanedProcess& server, const Steps& steps,
                             StepSource& source, const Others& others) {
  ServerSubject subject(server.binaryPort());
  ServerSubject other(server.binaryPort());
  ServerSubject keeper(server.binaryPort());
  const std::uint64_t before = source.number(steps.size() * 2 / 3);
  const std::chrono::microseconds wait{source.number(3000)};
  std::jthread updater;
  if (others.update) updater = std::jthread([&] { updateIndexes(other); });
  std::jthread backups;
  if (!others.backups.empty()) {
    backups = std::jthread([&] { makeBackups(keeper, others.backups); });
  }
  const std::jthread killer([&](const std::stop_token& stop) {
    while (subject.applied() < before && !stop.stop_requested()) {
      std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    std::this_thread::sleep_for(wait);
    server.kill();
  });
  return carryOut(subject, steps);
}

TEST(ServerKill, LosesNothingThatWasAcknowledgedAndDoesNothingByHalves) {
  constexpr std::size_t kRounds = 8;
  std::size_t cut = 0;
  std::size_t restored = 0;
  const std::vector<std::uint64_t> seeds = test::seeds(6);
  for (const std::uint64_t seed : seeds) {
    StepSource source(seed);
    const tq::test::TemporaryDirectory backups;
    tq::test::CorvanedProcess server({"--backup-directory", backups.path()});
    Model model;
    for (std::size_t round = 0; round < kRounds; ++round) {
      SCOPED_TRACE("KRUCOMM_SEED=" + std::to_string(seed) + ", round " + std::to_string(round));
      const bool othersUpdate = round % 2 == 1;
      const Others others{othersUpdate, round % 4 < 2 ? "" : "b" + std::to_string(round) + "-"};
      const Steps steps = source.make(model, 60);
      ASSERT_NO_THROW({
        const Progress progress = carryOutUntilKilled(server, steps, source, others);
        cut += progress.sent < steps.size() ? 1U : 0U;
        server.start();
        ServerSubject subject(server.binaryPort());
        const test::Collections found = lookAt(subject, model, steps);
        const auto after = explain(model, steps, progress, found, othersUpdate);
        ASSERT_TRUE(after) << describe(model, steps, progress, found);
        model = *after;
        server.kill();
        server.start();
        ServerSubject again(server.binaryPort());
        ASSERT_TRUE(repeatsHarmlessly(again, model, steps, progress))
            << describe(model, steps, progress, found);
        restored += restoreAll(again, backups.path());
      });
    }
  }
  EXPECT_GT(restored, 0U) << "the kills come too early for backups";
  EXPECT_GT(cut, seeds.size() * kRounds / 4) << "the kills come too late to show anything";
}

}  // namespace
}  // namespace corvaned
