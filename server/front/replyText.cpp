#include "server/front/replyText.h"

#include <fmt/format.h>

#include "server/base/base64.h"
#include "server/base/errors.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

// Keeps an error record within the smallest read that a client makes for one.
constexpr std::size_t kMaxErrorText = 600;

}  // namespace

std::string documentId(std::string_view key) { return "base64:" + base64(key); }

std::string scoreText(std::uint16_t milliScore) {
  return fmt::format("{}.{:03}", milliScore / 1000, milliScore % 1000);
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
