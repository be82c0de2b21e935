#include "comm/kruParseFiller.h"

namespace tq::comm {

bool ParseRow::read(std::string_view record, fields::Form form) noexcept {
  bytes::Reader left(record.data(), record.size());
  bool documented = false;
  bool worded = false;
  while (left.remaining() != 0) {
    std::string_view name;
    std::string_view value;
    if (!fields::takeText(left, form, name) || !fields::takeText(left, form, value)) return false;
    // As in a set of properties, a later field replaces an earlier one of its name.
    value = fields::upToZero(value);
    if (name == "Doc") {
      document = value;
      documented = true;
    } else if (name == "MsgId") {
      messageId = value;
    } else if (name == "MsgText") {
      messageText = value;
      worded = true;
    } else {
      return false;
    }
  }
  return documented && (messageId.empty() || worded);
}

ParseRow ParseRow::stored(const char* record, fields::Form form) noexcept {
  const bool wide = form == fields::Form::Wide;
  const std::size_t length = wide ? bytes::loadInt(record) : bytes::loadShort(record);
  ParseRow row;
  row.read({record + (wide ? 4 : 2), length}, form);
  return row;
}

}  // namespace tq::comm
