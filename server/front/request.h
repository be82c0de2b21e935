#pragma once

#include <map>
#include <string>
#include <string_view>

namespace corvaned {

/// One request as it came off the wire, framing removed and nothing interpreted yet.
struct Request {
  /// Header names and values exactly as sent, UTF-8. Of a name sent twice the last value counts.
  std::map<std::string, std::string, std::less<>> headers;
  /// The bytes behind the header block, as many as were announced.
  std::string content;
  /// Why the header block is no list of names and values; empty when it is one. Such a request is
  /// refused, but where it ends is known, so its connection goes on.
  std::string defect;

  /// The value of a header, empty when it was not sent.
  std::string_view header(std::string_view name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? std::string_view{} : std::string_view{found->second};
  }
};

}  // namespace corvaned
