#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/kinds.h"

namespace tq::test {

/// What the peer does with one request.
enum PeerField : std::size_t {
  kVerdict,      // 0 answers, 1 an error, 2 refuses the authentication
  kResults,      // how many
  kFraming,      // HTTP: 0 with a length, 1 in one chunk, 2 and more: in chunks of this many bytes
  kNoEndMark,    // HTTP: the results end with the body
  kNoLastChunk,  // HTTP: the chunks end with the end mark
  kTailData,     // HTTP: a chunk behind the results that holds a whole reply
  kPrefix,       // HTTP: 1 CR LF, 2 an interim block, 3 both, in front of the status line
  kSegment,      // 0 in one piece, else in pieces of so many bytes
  kDelay,        // in front of the reply: a step of kDelays
  kPauseAt,      // in eighths of the reply; 8: where its last chunk or its end mark begins
  kPause,        // a step of kDelays, or for ever
  kCutAt,        // in sixteenths of the reply; 0 not at all
  kCutHow,       // 0 silence, 1 a close, 2 a reset
  kStray,        // what nobody asked for, behind the reply
  kStrayDelay,   // a step of kDelays
  kEnd,          // behind all of it: 1 a close, 2 a reset, 3 a close a while later
  kLast,         // HTTP: 1 the headers announce the end of the connection
  kInterim,      // HTTP: in front an interim reply, 1 of length 0, 2 with a body, 3 in chunks
  kUnmeasured,   // HTTP: 1 a refusal has neither a length nor chunks
  kBabble,       // 1 what is no reply, in place of one
  kPeerFields
};

/// What the caller does in one step.
enum Act : std::uint8_t {
  kExchange,
  kUnsendable,
  kSendByHand,
  kSendMesgByHand,
  kRecvMesgByHand,
  kRecv,
  kRecvStream,
  kRecvMultResponse,
  kPullLooping,
  kPullSingle,
  kPullParsed,
  kPullBuffered,
  kClose,
  kOpen,
  kReopen,
  kPersistent,
  kNotPersistent,
  kBatching,
  kNoBatching,
  kReassembly,
  kNoReassembly,
  kRetryUnsafe,
  kRetryPause,
  kMaxReplyBytes,
  kRenew,
  kCopy,
  kRebuild,
  kSendBytesByHand,
  kInit,
  kEndOfResponse,
  kSendHalfByHand,
  kReadByHand,
  kQueueOnOneConnection,
  kQueueOnAny,
  kActs
};

enum CallerField : std::size_t {
  kAct,
  kClient,
  kResponse,
  kKind,       // an index of kKinds
  kIdle,       // a step of kDelays, before it
  kTimeOut,    // 0 none, 1 set
  kDeadline,   // 0 none, 1 set
  kRetries,    // attempts behind the first
  kPull,       // after an exchange: 0 portion by portion, 1 looping, 2 not at all, 3 one portion;
               // of bytes that are read by hand: 0 one, 1 a header, 2 and more: part of a body, too
  kRecvAfter,  // further receives after an exchange, whatever came before
  kFault,      // 1 the next connect fails, 2 and more: the next write does, behind some bytes
  kAsking,     // an exchange: 0 as set, 1 one attempt by hand, 2 with limits of its own
  kReading,    // of the response: 0 all, 1 nothing is read
  kGiveUp,     // the wait of this number, in the first call of the step; 0 none
  kCallerFields
};

using PeerPlan = std::array<std::uint8_t, kPeerFields>;

struct StepPlan {
  std::array<std::uint8_t, kCallerFields> caller{};
  // Of the first attempt, and of all further ones.
  std::array<PeerPlan, 2> peer{};
};

/// Two clients and what their caller does. All zeros are a well-behaved peer and a plain caller.
struct Schedule {
  std::uint64_t seed = 0;
  bool binary = false;
  bool persistent = true;
  bool joined = false;      // whether one receive brings several pieces
  bool reassembly = false;  // of the binary protocol
  bool batching = false;    // of the binary protocol
  bool queueBound = false;  // to one connection
  std::vector<StepPlan> steps;
};

// Half of what schedules ask is one of the first seven.
constexpr std::array<int, kNamedKinds.size()> kKinds{kGetStatus,
                                                     kStreamSearch,
                                                     kScalarSearch,
                                                     kParseResult,
                                                     kAddDocument,
                                                     kGetServerVersion,
                                                     kSelectivity,
                                                     kCreateCollection,
                                                     kAsynchAddDocument,
                                                     kLastDocSent,
                                                     kUpdateIndex,
                                                     kDropCollection,
                                                     kDeleteDocument,
                                                     kOpenCollection,
                                                     kCloseCollection,
                                                     kBackup,
                                                     kRestore,
                                                     kTakeover,
                                                     kShutdown,
                                                     kOpenCollectionAlt,
                                                     kSetConstructorConfiguration,
                                                     kVersionsValidation};
// Microseconds; time-outs and deadlines lie between them.
constexpr std::array<std::uint64_t, 5> kDelays{0, 100, 4000, 30000, 200000};
constexpr unsigned int kTimeOutMillis = 10;
constexpr unsigned int kDeadlineMillis = 50;

Schedule scheduleOf(std::uint64_t seed);
std::string describe(const Schedule& schedule);

/// Runs it, and after it an exchange of each client with a well-behaved peer, which must succeed.
/// What was delivered to the wrong request, or is not what the server sent; empty when all is well.
std::string violationOf(const Schedule& schedule);

/// The smallest schedule with a violation that dropping and simplifying leads to.
Schedule shrunk(Schedule schedule);

}  // namespace tq::test
