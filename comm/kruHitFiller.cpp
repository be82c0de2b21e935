#include "comm/kruHitFiller.h"

#include <cstring>

#include "comm/kruBytes.h"
#include "comm/kruRecordLengths.h"

namespace tq::comm {

namespace {

inline bool takeText(bytes::Reader& record, std::string_view& text) noexcept {
  std::uint32_t word = 0;
  return record.readInt(word) && record.readBytes(word & kLengthMask, text);
}

// Texts of a record end at a zero byte, whatever length they announce.
std::string_view upToZero(std::string_view text) noexcept {
  const void* zero = text.empty() ? nullptr : std::memchr(text.data(), 0, text.size());
  if (zero == nullptr) return text;
  return text.substr(0, static_cast<std::size_t>(static_cast<const char*>(zero) - text.data()));
}

}  // namespace

bool readNamedHit(std::string_view record, NamedHit& hit) noexcept {
  bytes::Reader fields(record.data(), record.size());
  bool named = false;
  while (fields.remaining() != 0) {
    std::string_view name;
    std::string_view value;
    if (!takeText(fields, name) || !takeText(fields, value)) return false;
    if (name == "URI") {
      // As in a set of properties, a later field replaces an earlier one of its name.
      hit.uri = upToZero(value);
      named = true;
    } else if (name == "SCORE") {
      // A number ends at a zero byte by itself.
      hit.score = value;
    } else {
      return false;
    }
  }
  return named;
}

}  // namespace tq::comm
