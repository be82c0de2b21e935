#include "server/store/checksum.h"

#include <zlib.h>

namespace corvaned {

std::uint32_t checksumOf(std::string_view bytes, std::uint32_t before) {
  // zlib takes no bytes at a null pointer for a wish to start anew.
  if (bytes.empty()) return before;
  const void* data = bytes.data();
  return static_cast<std::uint32_t>(
      ::crc32_z(before, static_cast<const unsigned char*>(data), bytes.size()));
}

}  // namespace corvaned
