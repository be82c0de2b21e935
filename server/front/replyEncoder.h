#pragma once

#include <memory>
#include <string>

#include "server/front/framing.h"
#include "server/front/reply.h"

namespace corvaned {

/// Turns one reply into bytes. The next portion is made when the client has taken the last, so a
/// long result does not pile up in memory.
class ReplyEncoder {
 public:
  virtual ~ReplyEncoder() = default;
  /// Appends the next bytes to `out`; once there are none left, appends nothing and returns false.
  /// If it throws, the connection must be closed without an end mark, which would make half a
  /// result look complete.
  virtual bool next(std::string& out) = 0;
};

/// The encoder of a protocol. For NoReply, next() appends nothing and returns false.
std::unique_ptr<ReplyEncoder> encodeHttp(Reply reply);
std::unique_ptr<ReplyEncoder> encodeBinary(Reply reply);
std::unique_ptr<ReplyEncoder> encode(Framing framing, Reply reply);

/// The encoder of a reply whose bytes are already complete.
std::unique_ptr<ReplyEncoder> wholeReply(std::string bytes);

/// How many bytes of records an encoder gathers into one portion.
constexpr std::size_t kPortionBytes = 16384;

}  // namespace corvaned
