#include <algorithm>
#include <array>
#include <string>

#include "tests/comm/adversarySchedule.h"
#include "tests/comm/adversaryWorld.h"

namespace tq::test {

namespace {

constexpr unsigned int kFirstTag = 1000;
// Of replies that belong to nobody.
constexpr unsigned int kAlienTag = 900;
constexpr auto kTimeOutId = "ERR_SERVER_COMM_TIMEOUT";
// Taken for the reply because they have a length or chunks.
constexpr std::array<const char*, 4> kInterimReplies{
    "", "HTTP/1.1 103 Early Hints\r\nContent-Length: 0\r\n\r\n",
    "HTTP/1.1 100 Continue\r\nContent-Length: 5\r\n\r\nhello",
    "HTTP/1.1 102 Processing\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"};

class Run {
 public:
  explicit Run(const Schedule& schedule)
      : schedule_(schedule),
        world_(schedule.binary, schedule.joined, schedule.persistent,
               [this](std::size_t c, Question& q) { answer(c, q); }) {}

  std::string violation();

 private:
  // The peer.
  void answer(std::size_t connection, Question& question);
  void sendReply(std::size_t connection, const Question& question, const PeerPlan& plan);
  void sendPieces(std::size_t connection, const std::string& text, const PeerPlan& plan);
  std::size_t pauseAt(const std::string& text, const PeerPlan& plan) const;
  std::string stray(const PeerPlan& plan, const std::string& text) const;
  std::string textOf(const TaggedReply& reply, const PeerPlan& plan) const;
  std::string wellFormed(int kind, unsigned int tag) const;
  int kindOf(std::size_t step) const;

  // The caller.
  void prepare(const StepPlan& plan);
  void act(const StepPlan& plan);
  void set(Act what, std::size_t client);
  void exchange(const StepPlan& plan);
  void takeStream(const StepPlan& plan);
  void finish(std::size_t client);

  const Schedule& schedule_;
  // Of each question the step that asked it.
  std::vector<std::size_t> stepOf_{};
  unsigned int tags_ = 0;
  std::string firstText_{};
  World world_;
  std::size_t current_ = 0;
};

// The peer.

int Run::kindOf(std::size_t step) const {
  return step < schedule_.steps.size() ? kKinds[schedule_.steps[step].caller[kKind]]
                                       : static_cast<int>(kGetStatus);
}

std::string Run::textOf(const TaggedReply& reply, const PeerPlan& plan) const {
  if (plan[kBabble] != 0) return schedule_.binary ? std::string("\0\7", 2) : "garbage\r\n";
  if (schedule_.binary) return binaryReply(reply);
  HttpForm form;
  form.chunked = plan[kFraming] != 0;
  form.chunkSize = plan[kFraming] > 1 ? plan[kFraming] : 0;
  form.endMark = plan[kNoEndMark] == 0;
  form.lastChunk = plan[kNoLastChunk] == 0;
  if (plan[kTailData] != 0) form.behindResults = wellFormed(reply.kind, kAlienTag);
  if (plan[kLast] != 0) form.headerLines = "Connection: close\r\n";
  form.measured = plan[kUnmeasured] == 0;
  std::string front;
  if ((plan[kPrefix] & 1) != 0) front += "\r\n";
  if ((plan[kPrefix] & 2) != 0) front += "HTTP/1.1 100 Continue\r\n\r\n";
  return front + kInterimReplies[plan[kInterim]] + httpReply(reply, form);
}

std::string Run::wellFormed(int kind, unsigned int tag) const {
  const TaggedReply reply{kind, tag, 2, TaggedReply::Verdict::Ok};
  return schedule_.binary ? binaryReply(reply) : httpReply(reply, {});
}

void Run::answer(std::size_t connection, Question& question) {
  PeerPlan plan{};
  const std::size_t step = stepOf_[question.number];
  // What batching has held back until the last exchanges is as well-behaved as they are.
  if (current_ < schedule_.steps.size()) {
    plan = schedule_.steps[step].peer[question.answers.empty() ? 0 : 1];
  }
  TaggedReply reply;
  reply.kind = question.kind;
  reply.tag = kFirstTag + tags_++;
  reply.results = plan[kResults];
  reply.verdict = static_cast<TaggedReply::Verdict>(plan[kVerdict]);
  const bool replies = hasReply(reply.kind);
  const bool babbles = plan[kBabble] != 0;
  const bool unmeasured = plan[kUnmeasured] != 0 && plan[kVerdict] != 0;
  question.interim = replies && plan[kInterim] != 0;
  question.last = replies && (plan[kLast] != 0 || question.interim || unmeasured || babbles);
  std::string text = replies ? textOf(reply, plan) : std::string();
  if (tags_ == 1) firstText_ = text;
  const bool begun = plan[kCutAt] == 0 || text.size() * plan[kCutAt] / 16 != 0;
  world_.say(question, reply, std::move(text), begun && !babbles);
  sendReply(connection, question, plan);
}

void Run::sendReply(std::size_t connection, const Question& question, const PeerPlan& plan) {
  TimedNetwork& network = world_.network();
  std::string text = question.answers.back().text;
  if (plan[kCutAt] != 0) text.resize(text.size() * plan[kCutAt] / 16);
  const bool stuck = plan[kPause] == kDelays.size();
  sendPieces(connection, text, plan);
  if (stuck || plan[kCutAt] != 0) {
    if (stuck || plan[kCutHow] == 0) network.fallSilent(connection);
    if (plan[kCutHow] == 1) network.close(connection, 0);
    if (plan[kCutHow] == 2) network.reset(connection, 0);
    return;
  }
  network.sendUnasked(connection, stray(plan, text), kDelays[plan[kStrayDelay]]);
  const bool endless = plan[kNoEndMark] != 0 && plan[kNoLastChunk] != 0;
  if (plan[kEnd] == 1 || endless) network.close(connection, 0);
  if (plan[kEnd] == 2) network.reset(connection, 0);
  if (plan[kEnd] == 3) network.close(connection, kDelays[2]);
}

std::size_t Run::pauseAt(const std::string& text, const PeerPlan& plan) const {
  if (plan[kPauseAt] < 8) return text.size() * plan[kPauseAt] / 8;
  const std::size_t end = schedule_.binary ? 4 : std::string("0\r\n\r\n").size();
  return text.size() - std::min(text.size(), end);
}

void Run::sendPieces(std::size_t connection, const std::string& text, const PeerPlan& plan) {
  const std::size_t size =
      plan[kSegment] == 0 ? std::max<std::size_t>(text.size(), 1) : std::size_t{plan[kSegment]};
  std::uint64_t delay = kDelays[plan[kDelay]];
  std::size_t at = 0;
  const auto sendUpTo = [&](std::size_t end) {
    for (; at < end; at = std::min(end, at + size)) {
      world_.network().send(connection, text.substr(at, std::min(size, end - at)), delay);
    }
  };
  if (plan[kPause] != 0) {
    sendUpTo(pauseAt(text, plan));
    if (plan[kPause] == kDelays.size()) return;
    delay += kDelays[plan[kPause]];
  }
  sendUpTo(text.size());
}

std::string Run::stray(const PeerPlan& plan, const std::string& text) const {
  switch (plan[kStray]) {
    case 0:
      return {};
    case 1:
      return text;
    case 2:
      return firstText_;
    case 3:
      return schedule_.binary ? std::string(2, '\0') : "\r\n";
    case 4:
      return schedule_.binary ? std::string(4, '\0') : "HTTP/1.1 100 Continue\r\n\r\n";
    case 5:
      return "\x01";
    case 6:
      return text.substr(0, text.size() / 2);
    case 7:
      return wellFormed(kindOf(current_ + 1), kAlienTag);
    case 8:
      return schedule_.binary ? std::string("\0\1\0\1\0\0", 6) : "0\r\n\r\n";
    default:
      // More than any buffer on its way holds.
      return std::string(20000, '\n') + wellFormed(kindOf(current_ + 1), kAlienTag);
  }
}

// The caller.

std::string Run::violation() {
  for (std::size_t c = 0; c < World::kClients; ++c) {
    if (auto* client = world_.binaryClient(c)) {
      client->setReassembly(schedule_.reassembly);
      client->useBufferedConnection(schedule_.batching);
    }
    world_.setQueueOnOneConnection(c, schedule_.queueBound);
  }
  for (; current_ < schedule_.steps.size() && world_.violation().empty(); ++current_) {
    prepare(schedule_.steps[current_]);
    act(schedule_.steps[current_]);
  }
  world_.takeAll();
  world_.network().heal();
  world_.giveUpNext(0);
  for (std::size_t c = 0; c < World::kClients; ++c) finish(c);
  if (world_.violation().empty()) return {};
  return "step " + std::to_string(current_) + ": " + world_.violation();
}

void Run::prepare(const StepPlan& plan) {
  const std::size_t c = plan.caller[kClient];
  world_.network().idle(kDelays[plan.caller[kIdle]]);
  world_.setTimeOut(c, plan.caller[kTimeOut] != 0 ? kTimeOutMillis : 0);
  world_.setDeadline(c, plan.caller[kDeadline] != 0 ? kDeadlineMillis : 0);
  world_.setNumRetries(c, plan.caller[kRetries]);
  world_.network().heal();
  world_.giveUpNext(plan.caller[kGiveUp]);
  const unsigned int fault = plan.caller[kFault];
  if (fault == 1) world_.network().failNextConnect();
  if (fault > 1) world_.network().failNextWrite((fault - 2) * std::size_t{40});
}

void Run::act(const StepPlan& plan) {
  const std::size_t c = plan.caller[kClient];
  const std::size_t r = plan.caller[kResponse];
  const auto what = static_cast<Act>(plan.caller[kAct]);
  const auto reading = static_cast<Reading>(plan.caller[kReading]);
  switch (what) {
    case kExchange:
      return exchange(plan);
    case kUnsendable:
      world_.exchangeUnsendable(c, r);
      return;
    case kSendByHand:
    case kSendMesgByHand:
      stepOf_.push_back(current_);
      world_.send(c, kindOf(current_), what == kSendMesgByHand);
      return;
    case kRecvMesgByHand:
      world_.recvMesg(c, r, reading);
      return;
    case kRecv:
    case kRecvStream:
    case kRecvMultResponse:
    case kPullLooping:
    case kPullSingle:
    case kPullParsed:
    case kPullBuffered:
      world_.pull(static_cast<Pulling>(what - kRecv), c, r, reading);
      return;
    case kRenew:
      return world_.renew(r);
    case kCopy:
      return world_.copy(r, (r + 1) % World::kFresh);
    case kRebuild:
      return world_.rebuild(c);
    case kSendBytesByHand:
    case kSendHalfByHand:
      if (!schedule_.binary) return;
      stepOf_.push_back(current_);
      world_.sendBodyChunks(c, kindOf(current_),
                            what == kSendHalfByHand ? World::Bytes::Half : World::Bytes::All);
      return;
    case kReadByHand:
      world_.readByHand(c, static_cast<UpTo>(std::min<std::uint8_t>(plan.caller[kPull], 2)));
      return;
    case kQueueOnOneConnection:
    case kQueueOnAny:
      return world_.setQueueOnOneConnection(c, what == kQueueOnOneConnection);
    case kInit:
      return world_.init(c);
    case kEndOfResponse:
      return world_.destroy(r);
    default:
      return set(what, c);
  }
}

void Run::set(Act what, std::size_t client) {
  auto& caller = world_.client(client);
  auto* binary = world_.binaryClient(client);
  switch (what) {
    case kReopen:
      world_.close(client);
      [[fallthrough]];
    case kOpen:
      world_.open(client);
      return;
    case kPersistent:
    case kNotPersistent:
      return caller.usePeristentConnection(what == kPersistent);
    case kBatching:
    case kNoBatching:
      return caller.useBufferedConnection(what == kBatching);
    case kReassembly:
    case kNoReassembly:
      if (binary != nullptr) binary->setReassembly(what == kReassembly);
      return;
    case kRetryUnsafe:
      return caller.setRetryUnsafe(false);
    case kRetryPause:
      return caller.setRetryPause(1, 2);
    case kMaxReplyBytes:
      return caller.setMaxReplyBytes(200);
    default:
      return world_.close(client);
  }
}

void Run::exchange(const StepPlan& plan) {
  stepOf_.push_back(current_);
  const Seen seen = world_.exchange(plan.caller[kClient], plan.caller[kResponse], kindOf(current_),
                                    static_cast<Asking>(plan.caller[kAsking]),
                                    static_cast<Reading>(plan.caller[kReading]));
  if (!seen.failed) takeStream(plan);
  for (unsigned int i = 0; i < plan.caller[kRecvAfter]; ++i) {
    world_.pull(Pulling::Recv, plan.caller[kClient], plan.caller[kResponse]);
  }
}

/// A time-out loses nothing: who has patience goes on.
void Run::takeStream(const StepPlan& plan) {
  const std::size_t c = plan.caller[kClient];
  if (plan.caller[kPull] == 2) return;
  const bool looping = plan.caller[kPull] == 1 && isSearch(kindOf(current_));
  const auto reading = static_cast<Reading>(plan.caller[kReading]);
  unsigned int timeOuts = 0;
  while (!world_.client(c).isEndOfStream() && world_.violation().empty()) {
    const Seen seen =
        world_.pull(looping ? Pulling::Looping : Pulling::Recv, c, plan.caller[kResponse], reading);
    if (seen.failed && (seen.errorId != kTimeOutId || ++timeOuts == 2)) return;
    // A pull that finds results brings no more of them until they are read.
    if (plan.caller[kPull] == 3 || reading == Reading::Nothing) return;
  }
}

/// Whatever came before, this one must succeed: over the old connection, or over a new one when
/// that has ended by now or never answers again.
void Run::finish(std::size_t client) {
  world_.network().idle(kDelays.back());
  world_.setTimeOut(client, kTimeOutMillis);
  world_.setDeadline(client, 0);
  world_.setNumRetries(client, 1);
  world_.client(client).setRetryUnsafe(true);
  world_.client(client).setMaxReplyBytes(std::size_t{1} << 20);
  stepOf_.push_back(schedule_.steps.size());
  const Seen seen = world_.exchange(client, World::kFresh, kGetStatus);
  world_.require(!seen.failed, "the last exchange fails with ", seen.errorId);
  // A queue that has lost its connection refuses this one, whatever was answered on another.
  stepOf_.push_back(schedule_.steps.size());
  const Seen update = world_.exchange(client, World::kFresh, kUpdateIndex);
  world_.require(!update.failed || update.refusedWithoutQueue(), "the last update fails with ",
                 update.errorId);
}

}  // namespace

std::string violationOf(const Schedule& schedule) { return Run(schedule).violation(); }

}  // namespace tq::test
