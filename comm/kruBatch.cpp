#include "comm/kruBatch.h"

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "comm/kruBytes.h"
#include "comm/kruForks.h"

namespace tq::comm {

namespace {

// A body above this is written after the batch, in pieces.
constexpr std::size_t kLargeBody = 10000;
// A batch smaller than this takes as many bytes of a large body along.
constexpr std::size_t kBodyStart = 5000;

constexpr std::size_t kDueBytes = 10000;
constexpr int kDueMessages = 50;

constexpr std::size_t kHeaderLengthField = 2;

/// Messages held in the batches of all clients of the process.
std::atomic<int> messagesInBuffer{0};

}  // namespace

bool Batch::Message::hasLargeBody() const noexcept { return body.size() > kLargeBody; }

std::string_view Batch::append(const Message& message) {
  const std::size_t start = bytes_.size();
  if (start == 0) {
    // A message can wait before any connection is made.
    watchForks();
    forkNumber_ = forkNumber();
  }
  const std::size_t fixed = kHeaderLengthField + message.header.size() + message.terminator.size() +
                            message.prefix.size();
  std::string_view copied = message.body;
  if (message.hasLargeBody()) {
    copied = start + fixed < kBodyStart ? message.body.substr(0, kBodyStart) : std::string_view();
  }
  makeRoom(start + fixed + copied.size());
  char length[kHeaderLengthField];
  bytes::storeShort(length, static_cast<std::uint16_t>(message.header.size()));
  for (const std::string_view part : {std::string_view(length, sizeof length), message.header,
                                      message.terminator, message.prefix, copied}) {
    put(part);
  }
  last_ = {start, message.answered, message.queued, message.mayWait};
  questions_ += message.answered ? 1U : 0U;
  queued_ += message.queued ? 1U : 0U;
  if (message.mayWait) messagesInBuffer.fetch_add(1);
  return message.body.substr(copied.size());
}

void Batch::makeRoom(std::size_t size) {
  if (size > bytes_.capacity()) bytes_.reserve(std::max(size, 2 * bytes_.capacity()));
}

// Without the zeros that growing first would write.
void Batch::put(std::string_view part) { bytes_.insert(bytes_.end(), part.begin(), part.end()); }

void Batch::takeBack() noexcept {
  if (!last_) return;
  const Last last = *last_;
  last_.reset();
  bytes_.resize(last.start);
  questions_ -= last.answered ? 1U : 0U;
  queued_ -= last.queued ? 1U : 0U;
  if (!last.counted) return;
  // Another client may have reset the count in the meantime.
  int held = messagesInBuffer.load();
  while (held > 0 && !messagesInBuffer.compare_exchange_weak(held, held - 1)) {
  }
}

void Batch::seal() noexcept { last_.reset(); }

void Batch::written() noexcept {
  bytes_.clear();
  questions_ = 0;
  queued_ = 0;
  last_.reset();
  // Clients that let nothing wait must not pass a cache line to and fro among their threads.
  if (messagesInBuffer.load() != 0) messagesInBuffer.store(0);
}

void Batch::dropInherited() noexcept {
  if (!bytes_.empty() && forkNumber_ != forkNumber()) written();
}

bool Batch::isDue(const Message& last) const noexcept {
  return bytes_.size() >= kDueBytes || !last.terminator.empty() || last.hasLargeBody() ||
         messagesInBuffer.load() >= kDueMessages;
}

}  // namespace tq::comm
