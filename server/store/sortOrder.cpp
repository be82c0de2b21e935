#include "server/store/sortOrder.h"

#include "server/base/errors.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

constexpr char kWithValue = '\0';
constexpr char kWithoutValue = '\1';

// No value is then the beginning of another one, so that what follows them cannot disturb the
// order, and the complement of all bytes turns it round.
void appendEscaped(std::string& out, std::string_view value) {
  for (const char c : value) {
    out += c;
    if (c == '\0') out += '\xFF';
  }
  out.append(2, '\0');
}

}  // namespace

void throwUnsortable(const std::string& name) {
  throw ServerError(ErrorKind::BadParameter,
                    "documents cannot be sorted by " + shown(name) +
                        ": none of them has metadata of that name, of at most 64 letters, digits "
                        "and \"_\", that is marked \"[sortable]\"");
}

std::string ValueOrder::operator()(const Xapian::Document& document) const {
  const std::string value = document.get_value(slot_);
  const std::string key = document.get_value(kKeySlot);
  std::string place(1, value.empty() ? kWithoutValue : kWithValue);
  if (!value.empty()) {
    appendEscaped(place, value);
    for (std::size_t i = 1; descending_ && i < place.size(); ++i) {
      place[i] = static_cast<char>(~place[i]);
    }
  }
  place += key;
  // At the end, where it comes into play only between equal keys.
  place += static_cast<char>(key.size());
  return place;
}

std::string_view ValueOrder::keyIn(std::string_view sortedBy) {
  const std::size_t size = static_cast<unsigned char>(sortedBy.back());
  return sortedBy.substr(sortedBy.size() - 1 - size, size);
}

}  // namespace corvaned
