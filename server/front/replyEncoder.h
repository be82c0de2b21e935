#pragma once

#include <memory>
#include <string>

#include "server/front/framing.h"
#include "server/front/reply.h"

namespace corvaned {

/// Turns one reply into bytes, a portion at a time, so that a long result waits on the disk's side
/// of a slow client and not in a buffer for it.
class ReplyEncoder {
 public:
  virtual ~ReplyEncoder() = default;
  /// Appends the next bytes to `out`; false when there are none left. When it throws, the reply
  /// cannot be ended properly and the connection must be closed: an end mark would make half a
  /// result look whole.
  virtual bool next(std::string& out) = 0;
};

/// The encoder of a protocol. A reply that is not to be sent has none left from the start.
std::unique_ptr<ReplyEncoder> encodeHttp(Reply reply);
std::unique_ptr<ReplyEncoder> encodeBinary(Reply reply);
std::unique_ptr<ReplyEncoder> encode(Framing framing, Reply reply);

/// The encoder of a reply that is there as a whole; of one without bytes there is nothing to send.
std::unique_ptr<ReplyEncoder> wholeReply(std::string bytes);

/// How many bytes of records an encoder gathers before it hands them out.
constexpr std::size_t kPortionBytes = 16384;

}  // namespace corvaned
