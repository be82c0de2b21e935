#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tq::comm {

/// The size that a chunk-size line announces, the line's CR LF included; nothing when the line does
/// not begin with a number. A number that no machine could hold is the largest one.
std::optional<std::size_t> chunkSizeOf(std::string_view line);

/// What a connection still carries of a chunked reply whose results are complete: the end of the
/// last data, perhaps more chunks, the chunk of size 0 and the blank line behind it. A client does
/// not wait for any of it; it skips it in front of the next reply. A server that sends no such
/// chunk goes on with a status line, which is where skipping stops too.
class ChunkTail {
 public:
  /// Nothing is left to skip.
  void clear();
  /// The data of a chunk has been taken. No further chunk may announce more than `maxChunk` bytes.
  void startBehindData(std::size_t maxChunk);
  /// The line of the chunk of size 0 has been taken.
  void startBehindLastChunk();

  bool active() const { return state_ != State::Nothing && state_ != State::Broken; }
  /// True when something else came than chunks or a status line: nobody knows where the next reply
  /// would begin. Also when it has no end: a megabyte was skipped and more is to come.
  bool broken() const { return state_ == State::Broken; }

  /// How many bytes at the start of `data` belong to the old reply. What does not is left to
  /// whoever reads on.
  std::size_t skip(const char* data, std::size_t length);

 private:
  enum class State { Nothing, LineStart, SizeLine, Data, TrailerStart, Trailer, Broken };

  bool step(char c);
  void endSizeLine();
  void start(State state);

  State state_ = State::Nothing;
  std::string sizeLine_;
  std::size_t dataLeft_ = 0;
  std::size_t maxChunk_ = 0;
  std::size_t mayStillSkip_ = 0;
};

}  // namespace tq::comm
