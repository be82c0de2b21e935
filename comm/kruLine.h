#pragma once

#include <cstddef>
#include <cstdint>

#include "comm/kruChunkTail.h"
#include "comm/kruForks.h"

namespace tq::oss {
class Socket;
}

namespace tq::comm {

/// What one connection still owes, and to which exchange: the place that decides whether the next
/// request may go out on the connection that is there, or needs another.
///
/// A reply carries no number, so the order on the connection is all that tells whose it is. As soon
/// as that order is in doubt the line never becomes clean again; only a new connection does. A line
/// knows no protocol. One object serves one thread.
class Line {
 public:
  enum class State {
    NotConnected,
    /// Nothing is owed.
    Clean,
    /// Nothing is owed but the rest of a chunked reply whose results are complete.
    Tail,
    /// The reply of one exchange is being read, or is a stream that can be read on.
    Owed,
    /// One question was written, and nothing of its reply has been read.
    Asked,
    /// Some reply may be on its way, and no longer is it known whose. So is every connection of a
    /// forked child's copy: its parent asks and reads there as well.
    Uncertain,
    /// Part of a request was written: whatever follows would be read as the rest of it.
    Broken,
  };

  State state() const noexcept {
    if (state_ == State::NotConnected || state_ == State::Broken) return state_;
    if (isInherited()) return State::Uncertain;
    return state_ == State::Clean && tail_.active() ? State::Tail : state_;
  }

  /// No two connections have the same one; 0 before the first.
  std::uint64_t connectionNumber() const noexcept { return number_; }

  // What happens to the connection.
  void connected() noexcept;
  void closed() noexcept;

  /// True when the reply to a request that goes out now would be the next thing to arrive. Never
  /// waits. A peer that has closed would cost an attempt, and a request without a reply would be
  /// lost with no sign; bytes that answer nothing would be read as this reply. Both can hide after
  /// the tail of the old reply, which is discarded as far as it has come.
  bool isReusable(tq::oss::Socket& socket);

  /// Covers a write. Until `done()` the line counts as broken, however the write ends.
  class Sending {
   public:
    explicit Sending(Line& line) noexcept;
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;
    /// All was written, `questions` of the messages with a reply to come.
    void done(unsigned int questions) noexcept;

   private:
    Line& line_;
    State before_;
  };

  // What an exchange reads.
  /// The exchange begins to read the reply to its question.
  void beginReply(std::uint64_t exchange) noexcept;
  /// The exchange reads its stream on. A tail of its own is then part of what it reads.
  void readOn(std::uint64_t exchange) noexcept;
  /// The exchange has read its reply to the end.
  void endReply(std::uint64_t exchange) noexcept;
  /// The same for a chunked reply of which the rest may still be to come. No further chunk may
  /// announce more than `maxChunk` bytes.
  void endChunkedReply(std::uint64_t exchange, bool lastChunkSeen, std::size_t maxChunk) noexcept;
  /// The reply that is being read is the last one to be had here: with its end, the connection
  /// becomes uncertain.
  void noteLastReply() noexcept { lastReply_ = true; }
  /// An exchange has ended without reading its reply to the end.
  void abandonReply() noexcept;
  /// It is no longer known what arrives next.
  void doubt() noexcept;
  /// Bytes were taken from the connection past all bookkeeping: a reply can be read no further.
  void disturb() noexcept;
  bool isDisturbed() const noexcept { return disturbed_ || isInherited(); }

  /// True while the tail of an older reply has not been seen to its end.
  bool hasTail() const noexcept { return tail_.active(); }
  /// Discards what has arrived of the tail of an older reply. False: nothing had.
  bool skipArrivedTail(tq::oss::Socket& socket);
  /// True when something else came than the rest of a chunked reply, or too much of it.
  bool tailIsBroken() const noexcept { return tail_.broken(); }

 private:
  bool isInherited() const noexcept { return forkNumber_ != forkNumber(); }

  State state_ = State::NotConnected;
  // That of the process that has connected, or has made the line.
  unsigned int forkNumber_ = forkNumber();
  std::uint64_t number_ = 0;
  // The exchange whose reply was begun last.
  std::uint64_t owner_ = 0;
  ChunkTail tail_;
  std::uint64_t tailOwner_ = 0;
  bool disturbed_ = false;
  bool lastReply_ = false;
};

}  // namespace tq::comm
