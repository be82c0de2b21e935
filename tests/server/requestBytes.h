#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

// Requests as bytes, put together by hand: neither the library's encoder nor the server's own byte
// helpers have a part in them.
namespace corvaned::test {

using Headers = std::map<std::string, std::string>;
using Metadata = std::vector<std::pair<std::string, std::string>>;

inline std::string bigEndian(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = bytes - 1; i >= 0; --i) text += static_cast<char>(value >> (8 * i) & 0xFF);
  return text;
}

inline std::string lengthAnd(const std::string& text) { return bigEndian(text.size(), 4) + text; }

inline std::string documentBlock(const std::string& key, const Metadata& metadata,
                                 const std::string& content) {
  std::string pairs;
  for (const auto& [name, value] : metadata) pairs += lengthAnd(name) + lengthAnd(value);
  pairs += lengthAnd("rowId") + lengthAnd(key);
  if (!content.empty()) pairs += lengthAnd("data") + lengthAnd(content);
  return bigEndian(0, 4) + bigEndian(pairs.size(), 4) + pairs;
}

inline std::string terminateRecord() { return std::string(8, '\0'); }

inline std::string headerText(Headers headers, const std::string& body) {
  headers.try_emplace("Content-Length  ", body.empty() ? "" : std::to_string(body.size()));
  std::string text;
  for (const auto& [name, value] : headers) text += name + ": " + value + "\n";
  return text + "\r\n";
}

inline std::string httpRequest(const Headers& headers, const std::string& body = {}) {
  return headerText(headers, body) + body;
}

inline std::string binaryRequest(const Headers& headers, const std::string& body = {}) {
  const std::string text = headerText(headers, body);
  return bigEndian(text.size(), 2) + text + body;
}

}  // namespace corvaned::test
