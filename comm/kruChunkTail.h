#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace tq::comm {

/// The size that a chunk-size line announces; the line includes its CR LF. Nothing when the line
/// does not begin with a hexadecimal number. A number that no machine could hold becomes the
/// largest one.
std::optional<std::size_t> chunkSizeOf(std::string_view line);

/// The part of a chunked reply that a connection still carries when the results are complete: the
/// CR LF after the last data, perhaps further chunks, the chunk of size 0, trailer lines and a
/// blank line. A client does not wait for the tail; it skips the tail before it reads the next
/// reply. Some servers leave out the end of the tail and go on with a status line, so skipping
/// stops there too.
class ChunkTail {
 public:
  /// Nothing is left to skip.
  void clear();
  /// The data of a chunk has been taken. A further chunk may announce `maxChunk` bytes at most.
  void startBehindData(std::size_t maxChunk);
  /// The line of the chunk of size 0 has been taken.
  void startBehindLastChunk();

  bool active() const { return state_ != State::Nothing && state_ != State::Broken; }
  /// True when the bytes were neither a chunk nor a status line, so that the start of the next
  /// reply cannot be found. Also true when the tail is longer than a megabyte.
  bool broken() const { return state_ == State::Broken; }
  /// True while the last bytes that were skipped may be a trailer line or the beginning of the next
  /// reply.
  bool undecided() const { return matched_ != 0; }

  /// Returns how many bytes at the start of `data` belong to the old reply. The other bytes belong
  /// to the next reply, and the bytes that `reclaim` returns come before them.
  std::size_t skip(const char* data, std::size_t length);

  /// A status line may come in pieces, and its first bytes look like a trailer line. Returns those
  /// that earlier calls of `skip` have taken, once.
  std::string_view reclaim();

 private:
  enum class State { Nothing, LineStart, SizeLine, Data, TrailerStart, Trailer, Broken };

  bool step(char c);
  bool stepAtTrailerStart(char c);
  void endSizeLine();
  void start(State state);

  // The same number of characters as the reply parser accepts, and the CR.
  static constexpr std::size_t kMaxSizeLine = 125 + 1;

  State state_ = State::Nothing;
  // In place: bytes that were taken cannot be offered again when there is no memory to keep them.
  std::array<char, kMaxSizeLine + 1> sizeLine_{};
  std::size_t sizeLineLength_ = 0;
  std::size_t dataLeft_ = 0;
  std::size_t maxChunk_ = 0;
  std::size_t mayStillSkip_ = 0;
  // How much of a status line's beginning the current trailer line has shown so far.
  std::size_t matched_ = 0;
  // How much of it was taken before the line turned out to be a status line.
  std::size_t reclaimable_ = 0;
};

}  // namespace tq::comm
