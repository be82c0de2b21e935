#include "server/front/replyText.h"

#include <algorithm>

#include "server/base/errors.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// An error record fits the smallest read that a client makes for one.
constexpr std::size_t kMaxErrorText = 600;

}  // namespace

std::string documentId(std::string_view key) {
  std::string id = "base64:";
  for (; !key.empty(); key.remove_prefix(std::min<std::size_t>(3, key.size()))) {
    unsigned group = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      group = group << 8U | (i < key.size() ? static_cast<unsigned char>(key[i]) : 0U);
    }
    for (std::size_t i = 0; i < 4; ++i) {
      id += i <= key.size() ? kAlphabet[group >> (18U - 6U * i) & 0x3FU] : '=';
    }
  }
  return id;
}

std::string scoreText(std::uint16_t milliScore) {
  std::string fraction = std::to_string(milliScore % 1000);
  fraction.insert(0, 3 - fraction.size(), '0');
  return std::to_string(milliScore / 1000) + "." + fraction;
}

std::string messageFields(FieldAppender append, std::string_view id, const std::string& text) {
  std::string fields;
  append(fields, "MsgId", id);
  append(fields, "MsgText", cutBetweenCharacters(text, kMaxErrorText));
  return fields;
}

std::string outcomeFields(FieldAppender append, const ParseOutcome& outcome) {
  std::string fields;
  append(fields, words().doc, documentId(outcome.key));
  if (!outcome.messageId.empty()) {
    fields += messageFields(append, outcome.messageId, outcome.messageText);
  }
  return fields;
}

}  // namespace corvaned
