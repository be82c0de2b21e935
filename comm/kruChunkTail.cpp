#include "comm/kruChunkTail.h"

#include <algorithm>
#include <cstdlib>

namespace tq::comm {

namespace {

// Enough for any number of bytes that a machine could hold, and the CR behind it.
constexpr std::size_t kMaxSizeLine = 125 + 1;
constexpr char kStatusLineStart = 'H';
// A peer that never ends its reply must not keep the one who waits for the next.
constexpr std::size_t kMostSkipped = std::size_t{1} << 20;

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

}  // namespace

std::optional<std::size_t> chunkSizeOf(std::string_view line) {
  std::size_t digits = 0;
  while (digits < line.size() && isHexDigit(line[digits])) ++digits;
  if (digits == 0 || line.size() < digits + 2 || !line.ends_with("\r\n")) return std::nullopt;
  if (std::string_view("\r; \t").find(line[digits]) == std::string_view::npos) return std::nullopt;
  return std::strtoul(std::string(line.substr(0, digits)).c_str(), nullptr, 16);
}

void ChunkTail::clear() {
  state_ = State::Nothing;
  sizeLine_.clear();
  dataLeft_ = 0;
}

void ChunkTail::startBehindData(std::size_t maxChunk) {
  start(State::LineStart);
  maxChunk_ = maxChunk;
}

void ChunkTail::startBehindLastChunk() { start(State::TrailerStart); }

void ChunkTail::start(State state) {
  clear();
  state_ = state;
  mayStillSkip_ = kMostSkipped;
}

std::size_t ChunkTail::skip(const char* data, std::size_t length) {
  std::size_t position = 0;
  while (position < length && active()) {
    if (state_ == State::Data) {
      const std::size_t skipped = std::min(dataLeft_, length - position);
      position += skipped;
      dataLeft_ -= skipped;
      if (dataLeft_ == 0) state_ = State::LineStart;
    } else if (step(data[position])) {
      ++position;
    }
  }
  mayStillSkip_ -= std::min(mayStillSkip_, position);
  if (mayStillSkip_ == 0 && active()) state_ = State::Broken;
  return position;
}

/// True when the byte belongs to the old reply.
bool ChunkTail::step(char c) {
  switch (state_) {
    case State::LineStart:
      if (c == '\r' || c == '\n') return true;
      if (c == kStatusLineStart) {
        clear();
        return false;
      }
      state_ = isHexDigit(c) ? State::SizeLine : State::Broken;
      return step(c);
    case State::SizeLine:
      sizeLine_.push_back(c);
      if (c == '\n') {
        endSizeLine();
      } else if (sizeLine_.size() > kMaxSizeLine) {
        state_ = State::Broken;
      }
      return true;
    case State::TrailerStart:
      if (c == kStatusLineStart) {
        clear();
        return false;
      }
      if (c == '\n')
        clear();
      else if (c != '\r')
        state_ = State::Trailer;
      return true;
    case State::Trailer:
      if (c == '\n') state_ = State::TrailerStart;
      return true;
    default:
      return false;
  }
}

void ChunkTail::endSizeLine() {
  const std::optional<std::size_t> size = chunkSizeOf(sizeLine_);
  sizeLine_.clear();
  if (!size || *size > maxChunk_) {
    state_ = State::Broken;
    return;
  }
  dataLeft_ = *size;
  state_ = dataLeft_ == 0 ? State::TrailerStart : State::Data;
}

}  // namespace tq::comm
