// Every fault at every call: each kind of request runs once to count its system calls, and then
// again for each of them and each way in which it can go wrong.

#include <gtest/gtest.h>
#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "comm/kruClientResponse.h"
#include "tests/comm/faultExchange.h"
#include "tests/comm/faultNetwork.h"

namespace {

using namespace tq::test;
using tq::comm::RequestOutcome;
using FaultKind = Fault::Kind;

constexpr unsigned int kTimeOutMillis = 100;
constexpr unsigned int kDeadlineMillis = 1000;
// What an operation may take beyond its deadline: rounding to the milliseconds that poll knows.
constexpr unsigned int kToleranceMillis = 3;

constexpr unsigned int kFirstMark = 100;
constexpr unsigned int kMark = 200;
constexpr unsigned int kNextMark = 300;

enum class Connection {
  Fresh,     // the first exchange
  Reused,    // the second exchange on a persistent connection
  Replaced,  // the second exchange of a client whose connection is not persistent
};

enum class Limit { None, TimeOut, Deadline, Both };

struct Setting {
  Protocol protocol;
  Connection connection;
  Limit limit;
  unsigned int retries = 0;

  bool hasTimeOut() const { return limit == Limit::TimeOut || limit == Limit::Both; }
  bool hasDeadline() const { return limit == Limit::Deadline || limit == Limit::Both; }
};

/// A call of the run without a fault: the nth of its entry.
struct Target {
  SeenCall call;
  std::size_t nth;
  bool inFirstSegment;  // what it receives is the start of the reply
  bool inFirstPortion;  // or the first part of its body
  bool inPull;          // the exchange itself has returned
};

bool hasBinaryBody(int kind) {
  return isStreaming(kind) || kind == kSelectivity || kind == kGetServerVersion;
}

std::vector<Fault> errors(const std::vector<int>& numbers) {
  std::vector<Fault> faults;
  for (const int number : numbers) faults.push_back({FaultKind::Error, number});
  return faults;
}

std::vector<Fault> operator+(std::vector<Fault> left, const std::vector<Fault>& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// What each call can do instead of what it should.
std::vector<Fault> faultsOf(Entry entry) {
  const Fault interrupt{FaultKind::Interrupt};
  const Fault wouldBlock{FaultKind::WouldBlock};
  const Fault oneByte{FaultKind::Short};
  const Fault stall{FaultKind::Stall};
  switch (entry) {
    case Entry::Socket:
      return errors({EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES, EAFNOSUPPORT});
    case Entry::Setsockopt:
      return errors({ENOPROTOOPT, ENOBUFS, EINVAL});
    case Entry::Connect:
      return errors({ECONNREFUSED, ETIMEDOUT, EHOSTUNREACH, ENETUNREACH, EADDRNOTAVAIL, EAGAIN}) +
             std::vector{interrupt, stall};
    case Entry::Getsockopt:
      return errors({ENOBUFS, EINVAL}) + std::vector<Fault>{{FaultKind::SoError, ECONNREFUSED},
                                                            {FaultKind::SoError, EHOSTUNREACH}};
    case Entry::Fcntl:
      return errors({EINVAL, EPERM});
    case Entry::Poll:
      return errors({ENOMEM, EINVAL}) + std::vector{interrupt, stall};
    case Entry::Recv:
      return errors({ECONNRESET, ETIMEDOUT, EHOSTUNREACH, ENOMEM}) +
             std::vector{interrupt, wouldBlock, oneByte, Fault{FaultKind::Eof}, stall};
    case Entry::Sendmsg:
      return errors({EPIPE, ECONNRESET, ENOBUFS, ENOMEM, EHOSTUNREACH}) +
             std::vector{interrupt, wouldBlock, oneByte, stall};
    case Entry::Close:
      return errors({EIO}) + std::vector{interrupt};
    case Entry::Getaddrinfo:
      return errors({EAI_AGAIN, EAI_NONAME, EAI_MEMORY, EAI_FAIL, EAI_SYSTEM}) +
             std::vector{interrupt};
    case Entry::Clock:
      // Its looks are no calls of one phase; they have a sweep of their own.
      break;
  }
  return {};
}

/// What the failure tables say of one fault.
struct Verdict {
  std::string id{};         // empty: the exchange succeeds
  bool repeated = false;    // a further attempt is made, where there is one
  bool streamEnds = false;  // no error, but the stream is over and says that it was cut off
};

const Verdict kNothing{};

Verdict verdictOnStall(const Setting& setting, const Target& target) {
  const Phase phase = target.call.phase;
  if (phase == Phase::Connect && setting.hasTimeOut()) return {"ERR_CONNECT_SERVER", true};
  if (phase == Phase::Receive && setting.hasTimeOut()) {
    return {"ERR_SERVER_COMM_TIMEOUT", !target.inPull};
  }
  // Nothing is left of the deadline for another attempt.
  return {"ERR_SERVER_COMM_TIMEOUT"};
}

Verdict verdictOnHttpReceive(int kind, const Target& target) {
  const bool continuation = kind == kParseResult && !target.inFirstPortion;
  if (target.inPull || continuation) return {"", false, true};
  return {"ERR_SERVER_COMM_RECV", true};
}

Verdict verdictOnBinaryReceive(const Setting& setting, const Fault& fault, const Target& target,
                               const MarkedRequest& marked) {
  if (setting.protocol == Protocol::BinaryReassembled) {
    return {"ERR_SERVER_COMM_RECV", !target.inPull};
  }
  if (fault.kind != FaultKind::Eof) return {"ERR_CLIENT_INTERNAL"};
  if (target.inFirstSegment) return {"ERR_SERVER_COMM_RECV", true};
  // An error reply that ends before its record still is an error of the server.
  if (marked.refused) return {"ERR_SERVER_APP"};
  // Of a status the reply's code is answer enough.
  if (marked.kind == kGetStatus) return {"", false, true};
  // The stream counts as ended, and the parser refuses a portion without a byte.
  return {"ERR_SERVER_PROTOCOL"};
}

/// Without reassembly the first portion of results must hold a record, or the end mark. The header
/// and an error are read on however they are cut.
bool cutsFirstPortion(const Setting& setting, const MarkedRequest& marked, const Target& target) {
  return setting.protocol == Protocol::Binary && target.call.phase == Phase::Receive &&
         target.call.moved && target.inFirstPortion && !target.inFirstSegment && !marked.refused &&
         hasBinaryBody(marked.kind);
}

bool isAbsorbed(const Setting& setting, const MarkedRequest& marked, const Fault& fault,
                const Target& target) {
  const Phase phase = target.call.phase;
  if (phase == Phase::Close) return true;
  if (fault.kind == FaultKind::Interrupt || fault.kind == FaultKind::WouldBlock) return true;
  // A connection that is found closed, or in trouble, before it is used is replaced by another.
  if (phase == Phase::Look && fault.kind != FaultKind::Stall) return true;
  if (fault.kind == FaultKind::Short) return !cutsFirstPortion(setting, marked, target);
  // Nothing that the client needs was still to come.
  return phase == Phase::Receive && target.call.awaited == 0;
}

Verdict verdictOn(const Setting& setting, const MarkedRequest& marked, const Fault& fault,
                  const Target& target) {
  if (isAbsorbed(setting, marked, fault, target)) return kNothing;
  if (fault.kind == FaultKind::Short) {
    return {marked.kind == kGetServerVersion ? "ERR_SERVER_PROTOCOL" : "ERR_CLIENT_RESP_PARSING"};
  }
  if (fault.kind == FaultKind::Stall) return verdictOnStall(setting, target);
  switch (target.call.phase) {
    case Phase::Resolve:
    case Phase::Connect:
      return {"ERR_CONNECT_SERVER", true};
    case Phase::Send:
      if (setting.protocol == Protocol::Http) return {"ERR_CLIENT_INTERNAL"};
      return {"ERR_SERVER_COMM_SEND", true};
    case Phase::Receive:
      if (setting.protocol == Protocol::Http) return verdictOnHttpReceive(marked.kind, target);
      return verdictOnBinaryReceive(setting, fault, target, marked);
    default:
      return kNothing;
  }
}

/// A stall that no setting bounds lasts, as its caller asked. A time-out bounds connecting and the
/// receives of reply bytes, also those that stall although the wait before them said otherwise.
bool isBounded(const Setting& setting, const Fault& fault, const Target& target) {
  if (fault.kind != FaultKind::Stall || setting.hasDeadline()) return true;
  const Phase phase = target.call.phase;
  return setting.hasTimeOut() && (phase == Phase::Receive || phase == Phase::Connect);
}

FaultNetwork::Options optionsOf(Protocol protocol) {
  FaultNetwork::Options options;
  options.framed = protocol != Protocol::Http;
  return options;
}

/// One client on one network, up to the exchange that matters.
struct Bench {
  explicit Bench(const Setting& chosen)
      : setting(chosen), network(optionsOf(chosen.protocol), answererOf(chosen.protocol)) {
    client = clientOf(setting.protocol, setting.connection != Connection::Replaced);
    if (setting.hasTimeOut()) client->setTimeOut(kTimeOutMillis);
    if (setting.hasDeadline()) client->setDeadline(kDeadlineMillis);
    client->setNumRetries(0);
    if (setting.connection != Connection::Fresh) {
      const MarkedRequest first{kGetStatus, kFirstMark};
      EXPECT_EQ(runMarked(*client, first).results, resultsOf(setting.protocol, first));
    }
    client->setNumRetries(setting.retries);
    network.forgetCalls();
  }

  Setting setting;
  FaultNetwork network;
  std::unique_ptr<tq::comm::CorvaneRESTClient> client;
};

std::vector<Target> targetsOf(const Setting& setting, const MarkedRequest& marked) {
  Bench bench(setting);
  tq::comm::ClientResponse response;
  BuiltRequest built(marked);
  bool failed = false;
  try {
    bench.client->sendAndRecvMesg(built.request, response);
  } catch (const std::exception&) {
    failed = true;
  }
  EXPECT_EQ(failed, marked.refused);
  const std::size_t ofExchange = bench.network.calls().size();
  if (isStreaming(marked.kind) && !failed) {
    while (!bench.client->isEndOfStream()) bench.client->recv(response);
  }
  bench.client.reset();
  const auto answer = answererOf(setting.protocol)(bench.network.journal().back());
  std::vector<std::size_t> sizes{0, 0};
  for (std::size_t i = 0; i < std::min<std::size_t>(2, answer.segments.size()); ++i) {
    sizes[i] = answer.segments[i].size();
  }
  std::vector<Target> targets;
  std::map<Entry, std::size_t> counts;
  std::size_t whole = 0;
  for (std::size_t i = 0; i < bench.network.calls().size(); ++i) {
    const auto& call = bench.network.calls()[i];
    whole = std::max(whole, call.awaited);
    targets.push_back({call, ++counts[call.entry], call.awaited + sizes[0] > whole,
                       call.awaited + sizes[0] + sizes[1] > whole, i >= ofExchange});
  }
  return targets;
}

bool isAnswered(RequestOutcome outcome) {
  return outcome == RequestOutcome::Answered || outcome == RequestOutcome::Rejected;
}

void checkOutcome(const MarkedRequest& marked, const Ran& ran,
                  const std::vector<std::string>& journal) {
  const bool seen = timesSeen(journal, marked.mark) != 0;
  EXPECT_FALSE(seen && ran.outcome == RequestOutcome::NotSent) << "it was seen whole";
  EXPECT_FALSE(!seen && isAnswered(ran.outcome)) << "nobody can have answered";
  if (!ran.errorId.empty() && ran.errorId != "ZVK0404E" && !ran.pulling) {
    EXPECT_NE(ran.outcome, RequestOutcome::Answered);
  }
}

/// `uncertain`: an earlier attempt has been sent, and nobody knows what became of it.
void checkSuccess(const Setting& setting, const MarkedRequest& marked, bool uncertain,
                  const Ran& ran) {
  const bool refused = marked.refused && marked.kind != kGetStatus && hasReply(marked.kind);
  EXPECT_EQ(ran.errorId, refused ? "ZVK0404E" : "");
  if (refused) {
    EXPECT_EQ(ran.errorArguments,
              std::vector<std::string>{std::string("refused ") + std::to_string(marked.mark)});
    EXPECT_EQ(ran.outcome, uncertain ? RequestOutcome::MayBeApplied : RequestOutcome::Rejected);
    return;
  }
  EXPECT_EQ(ran.results, resultsOf(setting.protocol, marked));
  EXPECT_EQ(ran.returnCode, 0);
  EXPECT_TRUE(ran.endOfStream || marked.kind == kSelectivity);
  EXPECT_FALSE(ran.truncated);
  EXPECT_EQ(ran.outcome,
            hasReply(marked.kind) ? RequestOutcome::Answered : RequestOutcome::MayBeApplied);
}

void checkPrefix(const Setting& setting, const MarkedRequest& marked, const Ran& ran) {
  const auto whole = resultsOf(setting.protocol, marked);
  if (!isStreaming(marked.kind) || marked.refused) return;
  ASSERT_LE(ran.results.size(), whole.size()) << "a hit too many";
  EXPECT_TRUE(std::equal(ran.results.begin(), ran.results.end(), whole.begin())) << "a wrong hit";
}

bool carriesHostAndPort(const std::string& id) {
  return id == "ERR_CONNECT_SERVER" || id.starts_with("ERR_SERVER_COMM_");
}

void checkFailure(const Verdict& verdict, const Ran& ran, const Target& target) {
  EXPECT_EQ(ran.errorId, verdict.id);
  EXPECT_EQ(ran.pulling, target.inPull);
  if (carriesHostAndPort(verdict.id)) {
    EXPECT_EQ(ran.errorArguments, (std::vector<std::string>{"127.0.0.1", "7"}));
  }
  const Phase phase = target.call.phase;
  if (phase == Phase::Resolve || phase == Phase::Connect || phase == Phase::Send) {
    EXPECT_EQ(ran.outcome, RequestOutcome::NotSent);
  }
}

void checkTruncated(const Ran& ran) {
  EXPECT_EQ(ran.errorId, "");
  EXPECT_TRUE(ran.endOfStream);
  EXPECT_TRUE(ran.truncated);
}

int failures() {
  const auto& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
  int count = 0;
  for (int i = 0; i < result.total_part_count(); ++i) count += result.GetTestPartResult(i).failed();
  return count;
}

/// Whatever has happened, the next request gets its own answer, and nothing is left behind.
void checkAftermath(Bench& bench, const Ran& ran) {
  const MarkedRequest next{kGetStatus, kNextMark};
  bench.client->setNumRetries(0);
  const auto after = runMarked(*bench.client, next);
  EXPECT_EQ(after.errorId, "");
  EXPECT_EQ(after.results, resultsOf(bench.setting.protocol, next));
  EXPECT_EQ(timesSeen(bench.network.journal(), kNextMark), 1U);
  bench.client.reset();
  EXPECT_TRUE(bench.network.planIsOver()) << "the fault never came";
  EXPECT_EQ(bench.network.openDescriptors(), 0U) << "leaked";
  EXPECT_EQ(bench.network.misusedDescriptors(), 0U);
  EXPECT_FALSE(bench.network.waitedForever());
  EXPECT_EQ(ran.foreignError, "");
  if (bench.setting.hasDeadline()) {
    EXPECT_LE(ran.longestMillis, kDeadlineMillis + kToleranceMillis);
    EXPECT_LE(after.longestMillis, kDeadlineMillis + kToleranceMillis);
  }
}

void checkRun(const Setting& setting, const MarkedRequest& marked, const Target& target,
              const Fault& fault) {
  const int before = failures();
  Bench bench(setting);
  bench.network.plan(target.call.entry, target.nth, fault);
  const auto ran = runMarked(*bench.client, marked);
  const auto verdict = verdictOn(setting, marked, fault, target);
  const bool repeats = verdict.repeated && setting.retries != 0;
  if (verdict.streamEnds) {
    checkTruncated(ran);
  } else if (verdict.id.empty() || repeats) {
    checkSuccess(setting, marked, repeats && target.call.phase == Phase::Receive, ran);
  } else {
    checkFailure(verdict, ran, target);
  }
  checkPrefix(setting, marked, ran);
  checkOutcome(marked, ran, bench.network.journal());
  EXPECT_LE(timesSeen(bench.network.journal(), marked.mark), repeats ? 2U : 1U);
  checkAftermath(bench, ran);
  if (failures() != before) ADD_FAILURE() << ran;
}

// The unassigned kind whose replies count as those of a search has none in the binary protocol.
constexpr int kUnassignedSearchKind = 6;

std::vector<MarkedRequest> allRequests(Protocol protocol) {
  std::vector<MarkedRequest> all;
  for (int kind = 1; kind <= 24; ++kind) {
    if (kind == kUnassignedSearchKind && protocol != Protocol::Http) continue;
    all.push_back({kind, kMark});
  }
  for (const int kind : {kUpdateIndex, kStreamSearch, kParseResult, kSelectivity, kScalarSearch})
    all.push_back({kind, kMark, true});
  // Longer than what leaves in one write.
  all.push_back({kAddDocument, kMark, false, 25000});
  return all;
}

std::string nameOf(Connection connection) {
  static constexpr const char* kNames[] = {"Fresh", "Reused", "Replaced"};
  return kNames[static_cast<std::size_t>(connection)];
}

std::string nameOf(Limit limit) {
  static constexpr const char* kNames[] = {"WithoutLimits", "WithTimeOut", "WithDeadline",
                                           "WithBoth"};
  return kNames[static_cast<std::size_t>(limit)];
}

// A clock that cannot be read, once or from some look on. Nobody can tell then how much time is
// left: what has to wait ends at once, as if the limit had passed, and never waits without one.

enum class Peer { Answers, IsSilent, Drips, NeverAccepts, TakesLittle };

struct Blind {
  Setting setting;
  Peer peer;
  bool lasting;
};

FaultNetwork::Options optionsOf(const Blind& blind) {
  auto options = optionsOf(blind.setting.protocol);
  options.silent = blind.peer == Peer::IsSilent;
  options.dripMillis = blind.peer == Peer::Drips ? kTimeOutMillis + 50 : 0;
  options.neverAccepts = blind.peer == Peer::NeverAccepts;
  // No time-out bounds a write.
  if (blind.peer == Peer::TakesLittle && blind.setting.hasDeadline()) options.window = 50;
  return options;
}

/// A connect whose time is over is an error of its own.
bool saysThatTimeIsOver(const std::string& id) {
  return id == "ERR_SERVER_COMM_TIMEOUT" || id == "ERR_CONNECT_SERVER";
}

/// False: there are not that many looks at the clock.
bool checkBlindRun(const Blind& blind, const MarkedRequest& marked, std::size_t nth) {
  const auto& setting = blind.setting;
  FaultNetwork network(optionsOf(blind), answererOf(setting.protocol));
  auto client = clientOf(setting.protocol);
  if (setting.hasTimeOut()) client->setTimeOut(kTimeOutMillis);
  if (setting.hasDeadline()) client->setDeadline(kDeadlineMillis);
  client->setNumRetries(setting.retries);
  if (blind.lasting) {
    network.options().clockFailsFrom = nth;
  } else {
    network.plan(Entry::Clock, nth, {FaultKind::Error, EPERM});
  }
  const auto begin = network.nowNanos();
  const auto ran = runMarked(*client, marked);
  const auto millis = (network.nowNanos() - begin) / 1000000;
  const bool reached = network.count(Entry::Clock) >= nth;
  if (ran.errorId.empty()) {
    EXPECT_TRUE(blind.peer == Peer::Answers || blind.peer == Peer::Drips ||
                blind.peer == Peer::TakesLittle);
    EXPECT_EQ(ran.results, resultsOf(setting.protocol, marked));
    EXPECT_FALSE(ran.truncated);
  } else {
    EXPECT_TRUE(saysThatTimeIsOver(ran.errorId)) << ran;
    checkPrefix(setting, marked, ran);
  }
  EXPECT_EQ(ran.foreignError, "");
  EXPECT_FALSE(network.waitedForever());
  // A single time-out bounds connecting and each wait.
  const auto most = setting.hasDeadline() ? kDeadlineMillis : 2 * kTimeOutMillis;
  EXPECT_LE(millis, (setting.hasDeadline() ? 1 : setting.retries + 1) * most + kToleranceMillis);
  checkOutcome(marked, ran, network.journal());
  network.options() = optionsOf(setting.protocol);
  const MarkedRequest next{kGetStatus, kNextMark};
  EXPECT_EQ(runMarked(*client, next).results, resultsOf(setting.protocol, next));
  client.reset();
  EXPECT_EQ(network.openDescriptors(), 0U);
  return reached;
}

class BlindSweep : public testing::TestWithParam<std::tuple<Protocol, Limit, bool>> {};

TEST_P(BlindSweep, EveryLookAtTheClockMayFail) {
  const auto [protocol, limit, lasting] = GetParam();
  std::size_t runs = 0;
  for (const auto peer :
       {Peer::Answers, Peer::IsSilent, Peer::Drips, Peer::NeverAccepts, Peer::TakesLittle}) {
    for (const auto& marked : std::vector<MarkedRequest>{
             {kGetStatus, kMark}, {kStreamSearch, kMark}, {kAddDocument, kMark, false, 25000}}) {
      // Without reassembly the first byte of a portion is refused.
      if (peer == Peer::Drips && marked.kind == kStreamSearch) continue;
      for (const unsigned int retries : {0U, 1U}) {
        const Blind blind{{protocol, Connection::Fresh, limit, retries}, peer, lasting};
        bool reached = true;
        for (std::size_t nth = 1; reached; ++nth) {
          SCOPED_TRACE("peer " + std::to_string(static_cast<int>(peer)) + ", kind " +
                       std::to_string(marked.kind) + ", " + std::to_string(retries) +
                       " retries, look " + std::to_string(nth));
          reached = checkBlindRun(blind, marked, nth);
          ++runs;
          if (HasFailure()) return;
        }
      }
    }
  }
  RecordProperty("runs", static_cast<int>(runs));
  EXPECT_GT(runs, 100U);
}

INSTANTIATE_TEST_SUITE_P(
    Matrix, BlindSweep,
    testing::Combine(testing::Values(Protocol::Http, Protocol::Binary, Protocol::BinaryReassembled),
                     testing::Values(Limit::TimeOut, Limit::Deadline, Limit::Both),
                     testing::Bool()),
    [](const auto& test) {
      return tq::test::nameOf(std::get<0>(test.param)) + nameOf(std::get<1>(test.param)) +
             (std::get<2>(test.param) ? "FromThenOn" : "Once");
    });

using Parameters = std::tuple<Protocol, Connection, Limit>;

class FaultSweep : public testing::TestWithParam<Parameters> {};

std::size_t sweep(const Setting& setting, const MarkedRequest& marked) {
  std::size_t runs = 0;
  for (const auto& target : targetsOf(setting, marked)) {
    for (const auto& fault : faultsOf(target.call.entry)) {
      if (!isBounded(setting, fault, target)) continue;
      SCOPED_TRACE(std::string("kind ") + std::to_string(marked.kind) +
                   (marked.refused ? " refused" : "") + ", " + std::to_string(setting.retries) +
                   " retries, " + nameOf(target.call.entry) + " no. " + std::to_string(target.nth) +
                   (target.inPull ? " (pull)" : "") + ": " + tq::test::nameOf(fault));
      checkRun(setting, marked, target, fault);
      ++runs;
      // A defect shows in many runs; a hundred lines are enough to find it.
      if (failures() > 100) return runs;
    }
  }
  return runs;
}

TEST_P(FaultSweep, EveryFaultAtEveryCallEndsAsTheFailureTablesSay) {
  const auto [protocol, connection, limit] = GetParam();
  std::size_t runs = 0;
  for (const auto& marked : allRequests(protocol)) {
    for (const unsigned int retries : {0U, 1U}) {
      runs += sweep({protocol, connection, limit, retries}, marked);
      if (failures() > 100) return;
    }
  }
  RecordProperty("runs", static_cast<int>(runs));
  EXPECT_GT(runs, 1000U);
}

INSTANTIATE_TEST_SUITE_P(
    Matrix, FaultSweep,
    testing::Combine(testing::Values(Protocol::Http, Protocol::Binary, Protocol::BinaryReassembled),
                     testing::Values(Connection::Fresh, Connection::Reused, Connection::Replaced),
                     testing::Values(Limit::None, Limit::TimeOut, Limit::Deadline, Limit::Both)),
    [](const auto& test) {
      return tq::test::nameOf(std::get<0>(test.param)) + nameOf(std::get<1>(test.param)) +
             nameOf(std::get<2>(test.param));
    });

}  // namespace
