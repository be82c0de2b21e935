#include "server/faults/falseReply.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "server/base/bytes.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

using Pieces = std::vector<std::string>;

std::uint64_t shifted(std::uint64_t length, std::int64_t error, std::uint64_t most) {
  if (error >= 0) return std::min(most, length + static_cast<std::uint64_t>(error));
  const auto less = static_cast<std::uint64_t>(-error);
  return less > length ? 0 : length - less;
}

// Removes or doubles the piece.
void tamper(Pieces& pieces, std::size_t index, Tamper how) {
  const auto place = pieces.begin() + static_cast<std::ptrdiff_t>(index);
  if (how == Tamper::Missing) pieces.erase(place);
  if (how == Tamper::Extra) pieces.insert(place, std::string(*place));
}

/// A reply with a Content-Length has one part, a chunked reply has one part per chunk. A part is a
/// sequence of records.
struct HttpReply {
  std::string head;
  bool chunked = false;
  std::vector<Pieces> parts;
};

std::uint64_t numberIn(std::string_view digits, int base) {
  std::uint64_t value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
  return value;
}

// Splits a part into records, each with its length in front. A part that does not consist of
// records stays one piece.
Pieces recordsOf(std::string_view body, bool first) {
  Pieces pieces;
  ByteReader reader(body);
  if (first && reader.take(4)) pieces.emplace_back(body.substr(0, 4));
  while (!reader.empty()) {
    const std::size_t start = body.size() - reader.remaining();
    const auto length = reader.u32();
    if (!length || !reader.take(*length)) return {std::string(body)};
    pieces.emplace_back(body.substr(start, body.size() - reader.remaining() - start));
  }
  return pieces;
}

const std::string& lengthName() { return words().replyContentLength; }

HttpReply splitHttp(std::string_view bytes) {
  HttpReply reply;
  const std::size_t body = bytes.find("\r\n\r\n") + 4;
  reply.head = bytes.substr(0, body);
  bytes.remove_prefix(body);
  reply.chunked = reply.head.find(lengthName()) == std::string::npos;
  if (!reply.chunked) {
    reply.parts.push_back(recordsOf(bytes, true));
    return reply;
  }
  for (;;) {
    const std::size_t line = bytes.find("\r\n");
    const std::uint64_t size = numberIn(bytes.substr(0, line), 16);
    if (size == 0) return reply;
    reply.parts.push_back(recordsOf(bytes.substr(line + 2, size), reply.parts.empty()));
    bytes.remove_prefix(line + 2 + size + 2);
  }
}

bool isEnd(const std::string& piece) { return piece == std::string(4, '\0'); }

void tamperWithEnd(HttpReply& reply, Tamper how) {
  Pieces& last = reply.parts.back();
  // The first four bytes of the first part precede the records.
  const std::size_t least = reply.parts.size() == 1 ? 2 : 1;
  if (last.size() >= least && isEnd(last.back())) tamper(last, last.size() - 1, how);
}

void tamperWithRecord(HttpReply& reply, Tamper how) {
  for (std::size_t part = reply.parts.size(); part-- > 0;) {
    Pieces& pieces = reply.parts[part];
    const std::size_t first = part == 0 ? 1 : 0;
    for (std::size_t i = pieces.size(); i-- > first;) {
      if (!isEnd(pieces[i])) return tamper(pieces, i, how);
    }
  }
}

std::string joined(const Pieces& pieces) {
  std::string text;
  for (const std::string& piece : pieces) text += piece;
  return text;
}

std::string withContentLength(std::string head, std::uint64_t length) {
  const std::size_t digits = head.find(lengthName()) + lengthName().size() + 2;
  head.replace(digits, head.find("\r\n", digits) - digits, fmt::to_string(length));
  return head;
}

std::string falseHttp(std::string_view bytes, const Faults& faults) {
  HttpReply reply = splitHttp(bytes);
  tamperWithRecord(reply, faults.record);
  tamperWithEnd(reply, faults.end);
  constexpr std::uint64_t kMax = std::numeric_limits<std::int64_t>::max();
  if (!reply.chunked) {
    const std::string body = joined(reply.parts.front());
    return withContentLength(reply.head, shifted(body.size(), faults.lengthError, kMax)) + body;
  }
  std::string out = reply.head;
  std::int64_t error = faults.lengthError;
  for (const Pieces& part : reply.parts) {
    const std::string body = joined(part);
    // An empty chunk would end the reply.
    if (body.empty()) continue;
    std::array<char, 16> digits{};
    const auto size = std::to_chars(digits.data(), digits.data() + digits.size(),
                                    shifted(body.size(), error, kMax), 16);
    out.append(digits.data(), size.ptr).append("\r\n").append(body).append("\r\n");
    error = 0;
  }
  return out + "0\r\n\r\n";
}

// The header, followed by the envelopes, or by the error record with its length.
Pieces splitBinary(std::string_view bytes) {
  constexpr std::uint16_t kError = 6;
  Pieces pieces{std::string(bytes.substr(0, 2))};
  const bool error = loadU16(bytes) == kError;
  bytes.remove_prefix(2);
  while (!bytes.empty()) {
    const std::size_t size = error ? bytes.size() : 4U + loadU16(bytes.substr(2));
    pieces.emplace_back(bytes.substr(0, size));
    bytes.remove_prefix(size);
  }
  return pieces;
}

bool isEndEnvelope(const std::string& piece) { return piece == std::string("\0\1\0\0", 4); }

std::string falseBinary(std::string_view bytes, const Faults& faults) {
  Pieces pieces = splitBinary(bytes);
  for (std::size_t i = pieces.size(); i-- > 1;) {
    if (isEndEnvelope(pieces[i])) continue;
    tamper(pieces, i, faults.record);
    break;
  }
  if (pieces.size() > 1 && isEndEnvelope(pieces.back())) {
    tamper(pieces, pieces.size() - 1, faults.end);
  }
  if (pieces.size() > 1 && faults.lengthError != 0) {
    std::string& first = pieces[1];
    const std::size_t place = loadU16(bytes) == 6 ? 0 : 2;
    const std::uint64_t length = loadU16(std::string_view(first).substr(place));
    std::string field;
    appendU16(field, static_cast<std::uint16_t>(shifted(length, faults.lengthError, 65535)));
    std::copy(field.begin(), field.end(), first.begin() + static_cast<std::ptrdiff_t>(place));
  }
  return joined(pieces);
}

}  // namespace

std::string falseReply(Framing framing, std::string_view reply, const Faults& faults) {
  return framing == Framing::Http ? falseHttp(reply, faults) : falseBinary(reply, faults);
}

}  // namespace corvaned
