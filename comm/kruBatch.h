#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace tq::comm {

/// The messages of the binary protocol that wait to be written together, and what is known of the
/// last one. One object serves one thread; what is counted over all batches of the process needs no
/// locking.
class Batch {
 public:
  /// What of a message is sent. Its bytes are not owned.
  ///
  /// On the wire: 2 bytes big-endian length of the header text, the header text, then the
  /// terminate record (LAST_DOC_SENT only) or the prefix and the body.
  struct Message {
    std::string_view header;
    std::string_view terminator;
    std::string_view prefix;
    std::string_view body;
    /// The server will send a reply.
    bool answered;
    /// The message adds to the queue of documents whose outcomes are asked for later.
    bool queued;
    /// It may have to wait for others, and counts towards those that wait.
    bool mayWait;

    bool hasLargeBody() const noexcept;
  };

  Batch() = default;
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  /// Adds a message and returns the end of its body that is not copied: it is written after the
  /// batch. Throws std::bad_alloc and has added nothing then.
  std::string_view append(const Message& message);

  /// Removes the message appended last, if it has not been written and nothing was sealed since.
  void takeBack() noexcept;

  /// What was appended so far stays, whatever becomes of a write.
  void seal() noexcept;

  /// All of it is with the kernel.
  void written() noexcept;

  /// Removes the messages that a forked child has from its parent. The parent sends them.
  void dropInherited() noexcept;

  const std::vector<char>& bytes() const noexcept { return bytes_; }
  bool empty() const noexcept { return bytes_.empty(); }
  /// How many of the messages will be answered.
  unsigned int questions() const noexcept { return questions_; }
  bool holdsQueued() const noexcept { return queued_ != 0; }

  /// True when a batching client writes: the batch is large, long, or ends with a message that does
  /// not wait.
  bool isDue(const Message& last) const noexcept;

 private:
  struct Last {
    std::size_t start;
    bool answered;
    bool queued;
    bool counted;
  };

  void makeRoom(std::size_t size);
  void put(std::string_view part);

  std::vector<char> bytes_;
  unsigned int questions_ = 0;
  unsigned int queued_ = 0;
  std::optional<Last> last_;
  // That of the process that has appended the first message.
  unsigned int forkNumber_ = 0;
};

}  // namespace tq::comm
