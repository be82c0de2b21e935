#include "tests/support/script.h"

#include <charconv>

namespace tq::test {

namespace {

// Behind the last header line; npos while the block has not ended. A block may also be empty.
std::size_t endOfBlock(std::string_view bytes) {
  if (bytes.starts_with("\r\n")) return 2;
  const auto at = bytes.find("\n\r\n");
  return at == std::string_view::npos ? at : at + 3;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\r')) text.remove_suffix(1);
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  return text;
}

std::size_t number(std::string_view text) {
  std::size_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

}  // namespace

std::size_t announcedLength(std::string_view headerBlock) {
  while (!headerBlock.empty()) {
    const auto end = headerBlock.find('\n');
    const auto line = headerBlock.substr(0, end);
    const auto colon = line.find(": ");
    if (colon != std::string_view::npos && trimmed(line.substr(0, colon)) == "Content-Length") {
      return number(trimmed(line.substr(colon + 2)));
    }
    if (end == std::string_view::npos) break;
    headerBlock.remove_prefix(end + 1);
  }
  return 0;
}

std::size_t completeRequestLength(std::string_view bytes, bool framed) {
  std::size_t start = 0;
  std::size_t headerEnd = 0;
  if (framed) {
    if (bytes.size() < 2) return 0;
    start = 2;
    headerEnd = 2 + static_cast<unsigned char>(bytes[0]) * std::size_t{256} +
                static_cast<unsigned char>(bytes[1]);
  } else {
    headerEnd = endOfBlock(bytes);
  }
  if (headerEnd == std::string_view::npos || headerEnd > bytes.size()) return 0;
  const auto total = headerEnd + announcedLength(bytes.substr(start, headerEnd - start));
  return total > bytes.size() ? 0 : total;
}

}  // namespace tq::test
