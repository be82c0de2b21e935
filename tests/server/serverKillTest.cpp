#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/server/changeHistory.h"
#include "tests/server/rawClient.h"
#include "tests/server/requestBytes.h"
#include "tests/support/corvanedProcess.h"
#include "tests/support/temporaryDirectory.h"

// The program as its users have it, killed at random moments, over and over on the same directory.
//
// KRUCOMM_SEED=N runs the histories of that seed and nothing else, KRUCOMM_LONG=1 more than a
// thousand rounds. A seed gives the same requests again; the moment of the kill is as near as the
// machine is.
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

/// How the server is used with the histories of a seed.
struct Usage {
  explicit Usage(std::uint64_t seed) : parts(seed % 2 == 0 ? 1 : 2 + seed / 2 % 2) {
    if (seed / 2 % 2 == 1) refreshed.insert("b");
  }

  std::size_t parts;
  /// Collections that are updated all the time although nobody asks for it.
  std::set<std::string> refreshed;
};

std::string refreshOf(const std::string& collection, const Usage& usage) {
  if (test::isSearchableAtOnce(collection)) return "immediate";
  return usage.refreshed.contains(collection) ? "5" : "manual";
}

std::string requestFor(const Step& step, const Usage& usage) {
  const auto request = [&](const std::string& action, const std::string& body = {}) {
    return binaryRequest({{"action", action}, {"index", step.collection}}, body);
  };
  const auto block = [&] {
    const Document document = documentOf(step);
    return test::documentBlock(step.key, document.metadata, document.content);
  };
  switch (step.kind) {
    case Kind::Create:
      return binaryRequest({{"action", "createCollection"},
                            {"index", step.collection},
                            {"refresh", refreshOf(step.collection, usage)}});
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
  ServerSubject(const tq::test::CorvanedProcess& server, Usage usage)
      : client_(static_cast<std::uint16_t>(server.binaryPort())), usage_(std::move(usage)) {}

  /// From any thread: how many steps have been sent and, where that is to be, answered.
  std::size_t applied() const { return applied_; }
  /// From any thread: how many have certainly been done.
  std::size_t acknowledged() const { return acknowledged_; }

  bool apply(const Step& step) override {
    const bool acknowledged = client_.send(requestFor(step, usage_)) && isAnswered(step);
    ++applied_;
    if (acknowledged) acknowledged_ = applied_.load();
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

  bool refreshesByItself(const std::string& collection) const override {
    return Subject::refreshesByItself(collection) || usage_.refreshed.contains(collection);
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
    if (code == kSuccess) return true;
    std::string error = receiveWithLength();
    // The reply was cut.
    if (error.empty()) return false;
    // The text of an exception ends with the first of them.
    std::replace(error.begin(), error.end(), '\0', ' ');
    throw std::runtime_error("refused: " + error);
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
  const Usage usage_;
  std::atomic<std::size_t> applied_ = 0;
  std::atomic<std::size_t> acknowledged_ = 0;
  std::map<std::string, std::size_t> queued_;
};

// Until the server is gone.
void updateIndexes(ServerSubject& subject) {
  for (bool there = true; there;) {
    for (const char* collection : {"a", "b"}) {
      try {
        there = there && subject.apply({Kind::Update, collection, {}, {}});
      } catch (const std::runtime_error& error) {
        const std::string text = error.what();
        // There is no such collection now.
        if (text.find("ZVK0007E") == std::string::npos) ADD_FAILURE() << text;
      }
    }
  }
}

/// Of backups, by their names: which steps their collections have in any case, and which at most.
using BackupTimes = std::map<std::string, Progress>;

constexpr Progress kAnyTime{0, std::numeric_limits<std::size_t>::max()};

// A collection that the histories know nothing of.
const std::string kCopy = "copy";

/// Makes backups until the server is gone, and a copy of "a" from each that has it.
BackupTimes makeBackups(ServerSubject& keeper, const ServerSubject& changer,
                        const std::filesystem::path& backups, const std::string& prefix) {
  BackupTimes times;
  try {
    for (int number = 0;; ++number) {
      const std::string name = prefix + std::to_string(number);
      Progress& steps = times[name];
      steps = {changer.acknowledged(), kAnyTime.sent};
      if (!keeper.ask({{"action", "backup"}, {"backup", name}})) break;
      steps.sent = changer.applied() + 1;
      if (!std::filesystem::exists(backups / name / "collections" / "a")) continue;
      if (!keeper.ask({{"action", "restore"},
                       {"backup", name},
                       {"from", "a"},
                       {"index", kCopy},
                       {"replace", "true"}})) {
        break;
      }
    }
  } catch (const std::runtime_error& error) {
    ADD_FAILURE() << error.what();
  }
  return times;
}

/// What was done before a kill, and beside it.
struct Round {
  Model before;
  Steps steps;
  Progress progress;
  BackupTimes backups;
};

void mustAsk(ServerSubject& subject, const test::Headers& headers) {
  if (!subject.ask(headers)) throw std::runtime_error("the server is gone");
}

// Whether `copy` has the documents that `collection` had at some time between those steps.
void requireExplained(ServerSubject& subject, const std::string& copy, const Round& round,
                      Progress between, const std::string& collection) {
  between.sent = std::min(between.sent, round.progress.sent);
  const test::Words documents = documentsOfCopy(subject, copy, round.before, round.steps);
  if (explainsCopy(round.before, round.steps, between, collection, documents)) return;
  test::Collections found;
  found[collection].documents = documents;
  throw std::runtime_error("the copy is none of " + collection + "\n" +
                           describe(round.before, round.steps, between, found));
}

// What a restore that was cut has left is nothing or whole. Returns whether there is something.
bool lookAtCopy(ServerSubject& subject, const Round& round) {
  if (!subject.state(kCopy)) return false;
  requireExplained(subject, kCopy, round, kAnyTime, "a");
  mustAsk(subject, {{"action", "deleteCollection"}, {"index", kCopy}});
  return true;
}

// Every backup that has its name is whole, and has what its collections had when it was made.
// Returns how many of them there are.
std::size_t restoreAll(ServerSubject& subject, const Round& round,
                       const std::filesystem::path& backups) {
  const std::string restored = "restored";
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(backups)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with('.')) throw std::runtime_error("the start has left " + name);
    for (const auto& each : std::filesystem::directory_iterator(entry.path() / "collections")) {
      const std::string from = each.path().filename().string();
      mustAsk(subject, {{"action", "restore"},
                        {"backup", name},
                        {"from", from},
                        {"index", restored},
                        {"replace", "true"}});
      if (from == kCopy) {
        requireExplained(subject, restored, round, kAnyTime, "a");
      } else {
        requireExplained(subject, restored, round, round.backups.at(name), from);
      }
      ++count;
    }
    std::filesystem::remove_all(entry.path());
  }
  if (count > 0) mustAsk(subject, {{"action", "deleteCollection"}, {"index", restored}});
  return count;
}

/// What goes on beside the steps.
struct Others {
  bool update = false;
  /// Names of backups begin with it; none are made if it is empty.
  std::string prefix;
  std::filesystem::path backups;
};

Round carryOutUntilKilled(tq::test::CorvanedProcess& server, const Usage& usage, Round round,
                          StepSource& source, const Others& others) {
  ServerSubject subject(server, usage);
  ServerSubject other(server, usage);
  ServerSubject keeper(server, usage);
  const std::uint64_t before = source.number(round.steps.size() * 2 / 3);
  const std::chrono::microseconds wait{source.number(3000)};
  std::jthread updater;
  if (others.update) updater = std::jthread([&] { updateIndexes(other); });
  std::jthread backups;
  if (!others.prefix.empty()) {
    backups = std::jthread(
        [&] { round.backups = makeBackups(keeper, subject, others.backups, others.prefix); });
  }
  std::jthread killer([&](const std::stop_token& stop) {
    while (subject.applied() < before && !stop.stop_requested()) {
      std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    std::this_thread::sleep_for(wait);
    server.kill();
  });
  round.progress = carryOut(subject, round.steps);
  killer.request_stop();
  killer.join();
  if (backups.joinable()) backups.join();
  return round;
}

std::vector<std::string> optionsFor(const Usage& usage, const std::filesystem::path& backups) {
  return {"--backup-directory", backups, "--shards-per-collection", std::to_string(usage.parts)};
}

TEST(ServerKill, LosesNothingThatWasAcknowledgedAndDoesNothingByHalves) {
  const std::size_t rounds = test::isLongForm() ? 17 : 8;
  std::size_t cut = 0;
  std::size_t restored = 0;
  std::size_t copies = 0;
  const std::vector<std::uint64_t> seeds = test::seeds(6);
  for (const std::uint64_t seed : seeds) {
    StepSource source(seed);
    const Usage usage(seed);
    const tq::test::TemporaryDirectory backups;
    tq::test::CorvanedProcess server(optionsFor(usage, backups.path()));
    Model model;
    for (std::size_t number = 0; number < rounds; ++number) {
      SCOPED_TRACE("KRUCOMM_SEED=" + std::to_string(seed) + ", round " + std::to_string(number));
      const bool othersUpdate = number % 2 == 1;
      const std::string prefix = number % 4 < 2 ? "" : "b" + std::to_string(number) + "-";
      const std::set<std::string> updated =
          othersUpdate ? std::set<std::string>{"a", "b", "once"} : usage.refreshed;
      const Steps steps = source.make(model, 60);
      ASSERT_NO_THROW({
        const Round round = carryOutUntilKilled(server, usage, {model, steps, {}, {}}, source,
                                                {othersUpdate, prefix, backups.path()});
        cut += round.progress.sent < steps.size() ? 1U : 0U;
        server.start();
        ServerSubject subject(server, usage);
        const test::Collections found = lookAt(subject, model, steps);
        const auto after = explain(model, steps, round.progress, found, updated);
        ASSERT_TRUE(after) << describe(model, steps, round.progress, found);
        model = *after;
        copies += lookAtCopy(subject, round) ? 1U : 0U;
        server.kill();
        server.start();
        ServerSubject again(server, usage);
        ASSERT_TRUE(repeatsHarmlessly(again, model, steps, round.progress))
            << describe(model, steps, round.progress, found);
        restored += restoreAll(again, round, backups.path());
      });
    }
  }
  EXPECT_GT(restored, 0U) << "the kills come too early for backups";
  EXPECT_GT(copies, 0U) << "the kills come too early for restores";
  EXPECT_GT(cut, seeds.size() * rounds / 4) << "the kills come too late to show anything";
}

}  // namespace
}  // namespace corvaned
