#include "tests/comm/adversarySchedule.h"

#include <random>
#include <utility>

namespace tq::test {

namespace {

constexpr std::array<const char*, kPeerFields> kPeerNames{
    "verdict",    "results", "framing", "noEndMark", "noLastChunk", "tailData", "prefix",
    "segment",    "delay",   "pauseAt", "pause",     "cutAt",       "cutHow",   "stray",
    "strayDelay", "end",     "last",    "interim",   "unmeasured",  "babble"};
constexpr std::array<const char*, kCallerFields> kCallerNames{
    "act",     "client", "response",  "kind",  "idle",   "timeOut", "deadline",
    "retries", "pull",   "recvAfter", "fault", "asking", "reading", "giveUp"};
constexpr std::array<const char*, kActs> kActNames{"exchange",       "unsendable request",
                                                   "send",           "sendMesg",
                                                   "recvMesg",       "recv",
                                                   "recvStream",     "recvMultResponse",
                                                   "pull",           "pull one portion",
                                                   "pull parsed",    "pull buffered",
                                                   "close",          "open",
                                                   "close and open", "persistent",
                                                   "not persistent", "batching",
                                                   "no batching",    "reassembly",
                                                   "no reassembly",  "setRetryUnsafe",
                                                   "setRetryPause",  "setMaxReplyBytes",
                                                   "renew response", "copy response",
                                                   "rebuild client", "bytes by hand",
                                                   "init",           "end of response",
                                                   "half by hand",   "read by hand",
                                                   "bind queue",     "unbind queue"};

class Dice {
 public:
  explicit Dice(std::uint64_t seed) : engine_(seed) {}
  /// Below `count`.
  std::uint8_t roll(unsigned int count) { return static_cast<std::uint8_t>(engine_() % count); }
  /// Mostly 0; otherwise from 1 to `most`.
  std::uint8_t seldom(unsigned int oneIn, unsigned int most) {
    return roll(oneIn) != 0 ? std::uint8_t{0} : static_cast<std::uint8_t>(1 + roll(most));
  }

 private:
  std::mt19937_64 engine_;
};

void rollPeer(Dice& dice, PeerPlan& peer) {
  static constexpr std::array<std::uint8_t, 8> kSegments{0, 0, 0, 1, 2, 3, 7, 16};
  static constexpr std::array<std::uint8_t, 8> kFramings{0, 0, 1, 1, 2, 7, 16, 40};
  peer[kVerdict] = dice.seldom(6, 2);
  peer[kResults] = dice.roll(5);
  peer[kFraming] = kFramings[dice.roll(8)];
  peer[kNoEndMark] = dice.seldom(5, 1);
  peer[kNoLastChunk] = peer[kNoEndMark] != 0 ? 0 : dice.seldom(4, 1);
  peer[kTailData] = dice.seldom(8, 1);
  peer[kPrefix] = dice.seldom(6, 3);
  peer[kSegment] = kSegments[dice.roll(8)];
  peer[kDelay] = dice.seldom(3, kDelays.size() - 1);
  peer[kPause] = dice.seldom(4, kDelays.size());
  peer[kPauseAt] = dice.roll(9);
  peer[kCutAt] = dice.seldom(5, 15);
  peer[kCutHow] = dice.roll(3);
  peer[kStray] = dice.seldom(3, 9);
  peer[kStrayDelay] = dice.seldom(2, 3);
  peer[kEnd] = dice.seldom(6, 3);
}

/// Drawn apart, so that a seed draws all the rest as it did without this.
void rollEnding(Dice& dice, PeerPlan& peer, bool binary) {
  peer[kBabble] = dice.seldom(24, 1);
  if (binary) return;
  peer[kLast] = dice.seldom(5, 1);
  peer[kInterim] = dice.seldom(16, 3);
  peer[kUnmeasured] = dice.seldom(4, 1);
}

/// Two steps of five are exchanges, as many are sends and receives, and most are of one client.
std::uint8_t rollAct(Dice& dice) {
  static constexpr std::array kSteps{
      kSendHalfByHand,   kReadByHand,     kSendByHand,     kSendByHand, kSendByHand,
      kSendMesgByHand,   kRecvMesgByHand, kRecvMesgByHand, kRecv,       kRecvStream,
      kRecvMultResponse, kPullLooping,    kPullLooping,    kPullSingle, kPullParsed};
  const unsigned int chance = dice.roll(5);
  if (chance < 2) return kExchange;
  return chance < 4 ? static_cast<std::uint8_t>(kSteps[dice.roll(kSteps.size())])
                    : dice.roll(kActs);
}

std::uint8_t rollKind(Dice& dice, bool queueBound) {
  static constexpr std::array<std::uint8_t, 4> kOfAQueue{3, 8, 9, 10};
  static_assert(kKinds[3] == kParseResult && kKinds[8] == kAsynchAddDocument &&
                kKinds[9] == kLastDocSent && kKinds[10] == kUpdateIndex);
  if (queueBound && dice.roll(2) != 0) return kOfAQueue[dice.roll(kOfAQueue.size())];
  // Half of the others are of a kind that brings something.
  return dice.roll(2) != 0 ? dice.roll(7) : dice.roll(kKinds.size());
}

void rollStep(Dice& dice, StepPlan& plan, bool queueBound) {
  auto& caller = plan.caller;
  caller[kAct] = rollAct(dice);
  caller[kClient] = dice.seldom(5, 1);
  caller[kResponse] = dice.seldom(3, 2);
  caller[kKind] = rollKind(dice, queueBound);
  caller[kIdle] = dice.seldom(2, 4);
  caller[kTimeOut] = dice.roll(4) != 0;
  caller[kDeadline] = dice.seldom(4, 1);
  caller[kRetries] = dice.roll(3);
  caller[kPull] = dice.roll(4);
  caller[kRecvAfter] = dice.seldom(4, 3);
  caller[kFault] = dice.seldom(8, 5);
  caller[kAsking] = dice.seldom(5, 2);
  caller[kReading] = dice.seldom(4, 1);
  caller[kGiveUp] = dice.seldom(8, 3);
  for (auto& peer : plan.peer) rollPeer(dice, peer);
}

}  // namespace

Schedule scheduleOf(std::uint64_t seed) {
  Dice dice(seed * 0x9E3779B97F4A7C15U + 1);
  Schedule schedule{seed,
                    dice.roll(2) != 0,
                    dice.roll(4) != 0,
                    dice.roll(2) != 0,
                    dice.roll(3) == 0,
                    dice.roll(4) == 0,
                    dice.roll(4) == 0,
                    {}};
  schedule.steps.resize(1 + dice.roll(7));
  for (StepPlan& plan : schedule.steps) rollStep(dice, plan, schedule.queueBound);
  Dice endings(seed * 0x9E3779B97F4A7C15U + 2);
  for (StepPlan& plan : schedule.steps) {
    for (auto& peer : plan.peer) rollEnding(endings, peer, schedule.binary);
  }
  return schedule;
}

std::string describe(const Schedule& schedule) {
  std::string text = "seed " + std::to_string(schedule.seed);
  text += schedule.binary ? ", binary" : ", HTTP";
  if (schedule.persistent) text += ", persistent";
  if (schedule.joined) text += ", joined";
  if (schedule.reassembly) text += ", reassembly";
  if (schedule.batching) text += ", batching";
  if (schedule.queueBound) text += ", queue on one connection";
  for (const StepPlan& plan : schedule.steps) {
    text += std::string("\n  ") + kActNames[plan.caller[kAct]];
    const auto add = [&](const char* name, unsigned int value) {
      if (value != 0) text += std::string(" ") + name + "=" + std::to_string(value);
    };
    for (std::size_t i = kClient; i < kCallerFields; ++i) {
      add(kCallerNames[i],
          i == kKind ? static_cast<unsigned int>(kKinds[plan.caller[i]]) : plan.caller[i]);
    }
    for (std::size_t attempt = 0; attempt < plan.peer.size(); ++attempt) {
      text += attempt == 0 ? " | first:" : " | later:";
      for (std::size_t i = 0; i < kPeerFields; ++i) add(kPeerNames[i], plan.peer[attempt][i]);
    }
  }
  return text;
}

namespace {

bool fails(const Schedule& schedule) { return !violationOf(schedule).empty(); }

bool dropSteps(Schedule& schedule) {
  bool smaller = false;
  for (std::size_t i = schedule.steps.size(); i-- > 0;) {
    Schedule candidate = schedule;
    candidate.steps.erase(candidate.steps.begin() + static_cast<std::ptrdiff_t>(i));
    if (!fails(candidate)) continue;
    schedule = std::move(candidate);
    smaller = true;
  }
  return smaller;
}

/// Puts 0 for a value of the schedule where the violation stays.
template <typename Value>
bool simplify(Schedule& schedule, Value& value) {
  if (value == Value{}) return false;
  const Value before = std::exchange(value, Value{});
  if (fails(schedule)) return true;
  value = before;
  return false;
}

bool simplifyAll(Schedule& schedule) {
  bool smaller = simplify(schedule, schedule.joined);
  smaller |= simplify(schedule, schedule.reassembly);
  smaller |= simplify(schedule, schedule.batching);
  smaller |= simplify(schedule, schedule.queueBound);
  for (StepPlan& plan : schedule.steps) {
    for (auto& value : plan.caller) smaller |= simplify(schedule, value);
    for (auto& peer : plan.peer) {
      for (auto& value : peer) smaller |= simplify(schedule, value);
    }
  }
  return smaller;
}

}  // namespace

Schedule shrunk(Schedule schedule) {
  while (dropSteps(schedule) || simplifyAll(schedule)) {
  }
  return schedule;
}

}  // namespace tq::test
