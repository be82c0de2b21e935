#include "comm/kruRecordBounds.h"

#include "comm/kruBytes.h"
#include "comm/kruRecordLengths.h"

namespace tq::comm {

namespace {

bool skipText(bytes::Reader& reader) noexcept {
  std::uint32_t word = 0;
  return reader.readInt(word) && reader.skip(word & kLengthMask);
}

bool skipTextNew(bytes::Reader& reader) noexcept {
  std::uint16_t length = 0;
  return reader.readShort(length) && reader.skip(length);
}

}  // namespace

bool fieldsFit(const char* record, std::uint32_t len) noexcept {
  bytes::Reader reader(record, len);
  while (reader.remaining() != 0) {
    if (!skipText(reader) || !skipText(reader)) return false;
  }
  return true;
}

bool fieldsFitNew(const char* record, std::uint16_t len) noexcept {
  bytes::Reader reader(record, len);
  while (reader.remaining() != 0) {
    if (!skipTextNew(reader) || !skipTextNew(reader)) return false;
  }
  return true;
}

}  // namespace tq::comm
