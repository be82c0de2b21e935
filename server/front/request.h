#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "server/base/errors.h"

namespace corvaned {

/// One request as received: without its framing, and not interpreted yet.
struct Request {
  /// Header names and values exactly as sent, in UTF-8. If a name was sent twice, the last value
  /// counts.
  std::map<std::string, std::string, std::less<>> headers;
  /// The bytes after the header block, as many as were announced.
  std::string content;
  /// Why the header block is malformed; empty if it is not. The request is then refused, but since
  /// its end is known the connection can go on.
  std::string defect;
  /// Why the request was not admitted; its content was then discarded.
  std::optional<ServerError> refusal;
  /// Whether whoever asks has proved who they are, and has the right to what they ask for.
  bool identified = false;
  /// Whether the connection comes from the server's own machine.
  bool fromThisMachine = false;
  /// How many of its collections have been opened for it; or that has failed for this reason.
  std::size_t opened = 0;
  std::optional<ServerError> unopened;

  /// The value of a header; empty if it was not sent.
  std::string_view header(std::string_view name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? std::string_view{} : std::string_view{found->second};
  }
};

}  // namespace corvaned
