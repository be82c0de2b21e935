#include "comm/kruLine.h"

#include <string_view>

#include "infra/oss/kruSocket.h"

namespace tq::comm {

void Line::connected() noexcept {
  watchForks();
  forkNumber_ = forkNumber();
  ++number_;
  state_ = State::Clean;
  owner_ = 0;
  disturbed_ = false;
  lastReply_ = false;
  tail_.clear();
}

void Line::closed() noexcept {
  state_ = State::NotConnected;
  tail_.clear();
}

bool Line::isReusable(tq::oss::Socket& socket) {
  if (state_ != State::Clean || isInherited()) return false;
  // Each pass consumes something, and a tail that goes on for a megabyte counts as broken.
  for (;;) {
    const tq::oss::Socket::Look look = socket.look();
    if (look != tq::oss::Socket::Look::Data) {
      return look == tq::oss::Socket::Look::Quiet && !tail_.undecided();
    }
    skipArrivedTail(socket);
    if (tail_.broken() || socket.buffered() != 0) return false;
  }
}

bool Line::skipArrivedTail(tq::oss::Socket& socket) {
  if (!tail_.active()) return false;
  const std::string_view arrived = socket.peek();
  const std::size_t skipped = tail_.skip(arrived.data(), arrived.size());
  socket.consume(skipped);
  // The beginning of a status line looks like a trailer line until more of it has arrived.
  const std::string_view begun = tail_.reclaim();
  socket.pushBack(begun.data(), begun.size());
  return skipped != 0 || !begun.empty() || tail_.broken();
}

Line::Sending::Sending(Line& line) noexcept : line_(line), before_(line.state_) {
  if (before_ != State::NotConnected) line_.state_ = State::Broken;
}

void Line::Sending::done(unsigned int questions) noexcept {
  if (questions == 0) {
    line_.state_ = before_;
  } else {
    // A second question makes it uncertain which reply is which: what is received by hand says
    // nothing of where one reply ends and the next begins.
    line_.state_ = questions == 1 && before_ == State::Clean ? State::Asked : State::Uncertain;
  }
}

void Line::beginReply(std::uint64_t exchange) noexcept {
  if (state_ != State::Asked && state_ != State::Clean) return;
  state_ = State::Owed;
  owner_ = exchange;
}

void Line::readOn(std::uint64_t exchange) noexcept {
  if (tail_.active() && tailOwner_ == exchange) tail_.clear();
  if (state_ == State::Clean && exchange != 0 && owner_ == exchange) {
    // Results that were complete without their end, such as an estimate, are read to it after all.
    state_ = State::Owed;
  } else if (state_ != State::Owed) {
    doubt();
  }
}

void Line::endReply(std::uint64_t exchange) noexcept {
  if (state_ != State::Owed || owner_ != exchange) return;
  state_ = lastReply_ ? State::Uncertain : State::Clean;
}

void Line::endChunkedReply(std::uint64_t exchange, bool lastChunkSeen,
                           std::size_t maxChunk) noexcept {
  if (state_ != State::Owed || owner_ != exchange) return;
  endReply(exchange);
  if (lastReply_) return;
  tailOwner_ = exchange;
  if (lastChunkSeen) {
    tail_.startBehindLastChunk();
  } else {
    tail_.startBehindData(maxChunk);
  }
}

void Line::abandonReply() noexcept {
  if (state_ == State::Owed || state_ == State::Asked) state_ = State::Uncertain;
}

void Line::disturb() noexcept {
  doubt();
  disturbed_ = true;
}

void Line::doubt() noexcept {
  if (state_ != State::NotConnected && state_ != State::Broken) state_ = State::Uncertain;
}

}  // namespace tq::comm
