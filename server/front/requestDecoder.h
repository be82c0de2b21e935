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
  std::size_t headerBytes = std::size_t{1} << 20U;
  /// Maximum number of content bytes that a request may announce.
  std::uint64_t contentBytes = std::uint64_t{1} << 30U;
};

/// The start of the next request is unknown, so the connection must be closed.
class FramingError : public ServerError {
 public:
  using ServerError::ServerError;
};

/// Splits the byte stream of one connection into requests. Feed it bytes in portions of any size,
/// and call next() until it returns nothing. Its memory grows with the bytes received, not with the
/// lengths announced. Not thread-safe; one object per connection.
class RequestDecoder {
 public:
  RequestDecoder(Framing framing, DecoderLimits limits) : framing_(framing), limits_(limits) {}

  void feed(std::string_view bytes);

  /// The next complete request, or nothing if more bytes are needed. After a FramingError the
  /// decoder must not be used again.
  std::optional<Request> next();

  /// Bytes buffered for requests not yet returned by next().
  std::size_t heldBytes() const { return pending_.size() + request_.content.size(); }

  /// True if no part of a request is buffered.
  bool idle() const { return !inContent_ && position_ == pending_.size(); }

 private:
  std::optional<std::string_view> takeHeaderBlock();
  std::optional<std::string_view> takeHttpBlock();
  std::optional<std::string_view> takeBinaryBlock();
  void startRequest(std::string_view block);
  void moveContent();
  void compact();

  Framing framing_;
  DecoderLimits limits_;

  // Received bytes; those before position_ are already decoded.
  std::string pending_;
  std::size_t position_ = 0;
  // Where the search for the block's last line continues, so that each byte is examined once even
  // if bytes arrive one by one.
  std::size_t lineStart_ = 0;
  std::size_t searched_ = 0;

  // The request whose content is being received, and how many bytes of it are missing.
  bool inContent_ = false;
  Request request_;
  std::uint64_t missing_ = 0;
};

}  // namespace corvaned
