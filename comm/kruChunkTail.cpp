#include "comm/kruChunkTail.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>
#include <string>
#include <utility>

namespace tq::comm {

namespace {

// No trailer line begins with this: the name of a field has no slash.
constexpr std::string_view kProtocol = "HTTP/";
// A peer may never end the old reply; after this many bytes the connection is given up.
constexpr std::size_t kMaxSkipped = std::size_t{1} << 20;

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

}  // namespace

std::optional<std::size_t> chunkSizeOf(std::string_view line) {
  if (!line.ends_with("\r\n")) return std::nullopt;
  line.remove_suffix(2);
  std::string withoutReturns;
  if (line.find('\r') != std::string_view::npos) {
    std::remove_copy(line.begin(), line.end(), std::back_inserter(withoutReturns), '\r');
    line = withoutReturns;
  }
  const auto end = std::find_if_not(line.begin(), line.end(), isHexDigit);
  const auto digits = static_cast<std::size_t>(end - line.begin());
  if (digits == 0) return std::nullopt;
  const bool atEnd = digits == line.size();
  if (!atEnd && std::string_view("; \t").find(*end) == std::string_view::npos) return std::nullopt;
  constexpr int kHexadecimal = 16;
  // A number that does not fit leaves it as it is.
  std::size_t size = std::numeric_limits<std::size_t>::max();
  std::from_chars(line.data(), line.data() + digits, size, kHexadecimal);
  return size;
}

void ChunkTail::clear() {
  state_ = State::Nothing;
  sizeLineLength_ = 0;
  matched_ = 0;
  reclaimable_ = 0;
}

void ChunkTail::startBehindData(std::size_t maxChunk) {
  start(State::LineStart);
  maxChunk_ = maxChunk;
}

void ChunkTail::startBehindLastChunk() { start(State::TrailerStart); }

void ChunkTail::start(State state) {
  clear();
  state_ = state;
  mayStillSkip_ = kMaxSkipped;
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
  // The beginning of a status line that lies in `data` has not been skipped after all.
  const std::size_t notSkipped = std::min(reclaimable_, position);
  reclaimable_ -= notSkipped;
  return position - notSkipped;
}

std::string_view ChunkTail::reclaim() {
  return kProtocol.substr(0, std::exchange(reclaimable_, std::size_t{0}));
}

/// True when the byte belongs to the old reply.
bool ChunkTail::step(char c) {
  switch (state_) {
    case State::LineStart:
      if (c == '\r' || c == '\n') return true;
      // Not a size: whether it is a status line is for the reply parser to see.
      if (c == kProtocol.front()) {
        clear();
        return false;
      }
      state_ = isHexDigit(c) ? State::SizeLine : State::Broken;
      return step(c);
    case State::SizeLine:
      sizeLine_[sizeLineLength_++] = c;
      if (c == '\n') {
        endSizeLine();
      } else if (sizeLineLength_ == sizeLine_.size()) {
        state_ = State::Broken;
      }
      return true;
    case State::TrailerStart:
      return stepAtTrailerStart(c);
    case State::Trailer:
      if (c == '\n') state_ = State::TrailerStart;
      return true;
    default:
      return false;
  }
}

/// Takes a byte of a line of which nothing is known yet but that it began as a status line does.
bool ChunkTail::stepAtTrailerStart(char c) {
  if (c == kProtocol[matched_]) {
    if (++matched_ == kProtocol.size()) {
      clear();
      reclaimable_ = kProtocol.size();
    }
    return true;
  }
  const bool lineIsEmpty = std::exchange(matched_, std::size_t{0}) == 0;
  if (c == '\n') {
    if (lineIsEmpty) clear();
  } else if (c != '\r' || !lineIsEmpty) {
    state_ = State::Trailer;
  }
  return true;
}

void ChunkTail::endSizeLine() {
  const std::optional<std::size_t> size =
      chunkSizeOf({sizeLine_.data(), std::exchange(sizeLineLength_, std::size_t{0})});
  if (!size || *size > maxChunk_) {
    state_ = State::Broken;
    return;
  }
  dataLeft_ = *size;
  state_ = dataLeft_ == 0 ? State::TrailerStart : State::Data;
}

}  // namespace tq::comm
