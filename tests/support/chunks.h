#pragma once

#include <cstdio>
#include <string>

namespace tq::test {

/// What a chunked reply begins with.
inline const std::string kChunkedHead = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

/// One chunk of it.
inline std::string chunk(const std::string& data) {
  char size[32];
  std::snprintf(size, sizeof size, "%zx\r\n", data.size());
  return size + data + "\r\n";
}

}  // namespace tq::test
