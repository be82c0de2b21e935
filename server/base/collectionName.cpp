#include "server/base/collectionName.h"

#include <algorithm>
#include <cstddef>

#include "server/base/errors.h"

namespace corvaned {
namespace {

// File systems limit a name to 255 bytes.
constexpr std::size_t kMaxDirectoryName = 240;

}  // namespace

bool standsForItself(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-';
}

void requireShortName(std::string_view collection) {
  const auto kept = static_cast<std::size_t>(
      std::count_if(collection.begin(), collection.end(), standsForItself));
  if (3 * collection.size() - 2 * kept <= kMaxDirectoryName) return;
  throw ServerError(ErrorKind::BadCollectionName,
                    "the collection name " + shown(collection) +
                        " is too long; at most 240 letters and digits are possible, and 80 bytes "
                        "in any writing");
}

}  // namespace corvaned
