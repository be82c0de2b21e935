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
  /// Longest header block in bytes. (A binary block cannot be longer than 65535 bytes.)
  std::size_t headerBytes = std::size_t{1} << 20U;
  /// Most content bytes that a request may announce.
  std::uint64_t contentBytes = std::uint64_t{1} << 30U;
};

/// Where one request ends and the next begins can no longer be told; the connection must be closed.
class FramingError : public ServerError {
 public:
  using ServerError::ServerError;
};

/// Cuts the byte stream of one connection into requests. Feed it bytes in any portions and take
/// requests until there is none; what it holds grows with the bytes that arrived and never with the
/// bytes that were announced. Not thread-safe; one object serves one connection.
class RequestDecoder {
 public:
  RequestDecoder(Framing framing, DecoderLimits limits) : framing_(framing), limits_(limits) {}

  void feed(std::string_view bytes);

  /// The next whole request, or nothing when more bytes are needed. Throws FramingError, after
  /// which the decoder must not be used again.
  std::optional<Request> next();

  /// How many bytes are held, as far as they are not in a request that was taken.
  std::size_t heldBytes() const { return pending_.size() + request_.content.size(); }

  /// True when no byte of an unfinished request is held.
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

  // Bytes not yet cut; those before position_ are spent.
  std::string pending_;
  std::size_t position_ = 0;
  // How far the search for the block's last line has got, so that bytes that drip in one by one
  // are each looked at once.
  std::size_t lineStart_ = 0;
  std::size_t searched_ = 0;

  // The request whose content is being gathered.
  bool inContent_ = false;
  Request request_;
  std::uint64_t missing_ = 0;
};

}  // namespace corvaned
