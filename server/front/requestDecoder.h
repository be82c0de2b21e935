#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "server/base/errors.h"
#include "server/front/framing.h"
#include "server/front/request.h"

namespace corvaned {

struct DecoderLimits {
  /// Maximum length of a header block in bytes. (The binary protocol allows 65535.)
  std::size_t headerBytes = std::size_t{64} << 10U;
  /// Maximum number of content bytes that a request may announce.
  std::uint64_t contentBytes = std::uint64_t{65} << 20U;
  /// Maximum number of lines of a header block. Each costs far more memory than it has bytes.
  std::size_t headerLines = 1000;
};

/// The start of the next request is unknown, so the connection must be closed.
class FramingError : public ServerError {
 public:
  FramingError(ErrorKind kind, const std::string& text) : ServerError(kind, text) {}
  /// For a client that speaks another protocol, which is the one to answer in.
  FramingError(ErrorKind kind, const std::string& text, Framing spoken)
      : ServerError(kind, text), spoken_(spoken) {}
  std::optional<Framing> spoken() const { return spoken_; }

 private:
  std::optional<Framing> spoken_;
};

/// Decides on each request as soon as its header block is decoded, before any of its content is
/// kept.
class Admission {
 public:
  enum class Verdict {
    Take,
    /// The decoder keeps the request back, and asks again with the next call of next().
    Wait,
  };

  virtual ~Admission() = default;
  /// Throws ServerError to refuse the request. It then comes out of the decoder at once, with the
  /// refusal, and its content is discarded as it arrives.
  /// What `request` refers to stays where it is until the request comes out of the decoder.
  virtual Verdict admit(Request& request, std::uint64_t contentBytes) = 0;
};

/// Splits the byte stream of one connection into requests. Feed it bytes in portions of any size,
/// and call next() until it returns nothing. Its memory grows with the bytes received, not with the
/// lengths announced. Not thread-safe; one object per connection.
///
/// ready() and waitingValue() only look for the end of a header block, which a network thread can
/// afford. next() decodes.
class RequestDecoder {
 public:
  /// Without an admission every request is taken. It must outlive the decoder.
  RequestDecoder(Framing framing, DecoderLimits limits, Admission* admission = nullptr)
      : framing_(framing), limits_(limits), admission_(admission) {}

  void feed(std::string_view bytes);

  /// True if next() can get further with the bytes that are there. Throws FramingError.
  bool ready();
  /// The value that the waiting request has for a header; empty if it has none. Only while ready().
  std::string_view waitingValue(std::string_view name) const;

  /// The next complete request, or one that is refused, or nothing if more bytes are needed. After
  /// a FramingError the decoder must not be used again.
  std::optional<Request> next();

  /// Refuses the request that the admission keeps back.
  void refuse(const ServerError& error);
  /// True if the admission keeps a request back.
  bool keptBack() const { return stage_ == Stage::Admission; }

  /// Bytes buffered for requests whose content is not being received yet.
  std::size_t pendingBytes() const { return pending_.size(); }
  /// How many bytes of content are missing; 0 if the end of a header block is.
  std::uint64_t missingBytes() const {
    return stage_ == Stage::Content || discards() ? missing_ : 0;
  }
  /// True if the missing bytes are those of a request that was refused.
  bool discards() const { return stage_ == Stage::Discard; }

  /// True if no part of a request is buffered.
  bool idle() const { return stage_ == Stage::Header && position_ == pending_.size(); }

 private:
  enum class Stage { Header, Admission, Content, Discard };

  std::string_view held() const { return std::string_view(pending_).substr(position_); }
  bool findBlockEnd(std::string_view bytes);
  bool httpBlockEnds();
  bool binaryBlockEnds();
  bool blockEnds() { return framing_ == Framing::Http ? httpBlockEnds() : binaryBlockEnds(); }
  void refuseBinaryFrame() const;
  /// The lines of a block whose end has been found.
  std::string_view lines() const;
  void startRequest();
  bool admitted();
  void keepContent(std::string_view bytes);
  void moveContent();
  void compact();

  Framing framing_;
  DecoderLimits limits_;
  Admission* admission_ = nullptr;

  // Received bytes; those before position_ are already decoded.
  std::string pending_;
  std::size_t position_ = 0;
  // Where the search for the block's last line continues, so that each byte is examined once even
  // if bytes arrive one by one.
  std::size_t lineStart_ = 0;
  std::size_t searched_ = 0;

  // The request whose header block has been decoded, and how many bytes of its content are missing.
  Stage stage_ = Stage::Header;
  Request request_;
  std::uint64_t missing_ = 0;
};

}  // namespace corvaned
