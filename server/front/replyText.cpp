#include "server/front/replyText.h"

#include <fmt/format.h>

#include "server/base/base64.h"
#include "server/base/errors.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

// Keeps an error record within the smallest read that a client makes for one.
constexpr std::size_t kMaxErrorText = 600;
// What a report tells is bounded where it is found, but for the names that a client may give to
// metadata. A record has to fit into an envelope of the binary protocol.
constexpr std::size_t kMaxReportText = 60000;

constexpr std::string_view kIdPrefix = "base64:";

std::string messageFields(FieldAppender append, std::string_view id, const std::string& text,
                          std::size_t most) {
  std::string fields;
  append(fields, "MsgId", id);
  append(fields, "MsgText", cutBetweenCharacters(text, most));
  return fields;
}

}  // namespace

std::string documentId(std::string_view key) { return std::string(kIdPrefix) + base64(key); }

std::optional<std::string> keyOfDocumentId(std::string_view id) {
  if (!id.starts_with(kIdPrefix)) return std::nullopt;
  id.remove_prefix(kIdPrefix.size());
  std::string key;
  if (!tq::util::Base64::decode(id.data(), id.size(), key)) return std::nullopt;
  return key;
}

std::string scoreText(std::uint16_t milliScore) {
  return fmt::format("{}.{:03}", milliScore / 1000, milliScore % 1000);
}

std::string messageFields(FieldAppender append, std::string_view id, const std::string& text) {
  return messageFields(append, id, text, kMaxErrorText);
}

std::string recordFields(FieldAppender append, const ParseOutcome& outcome) {
  std::string fields;
  append(fields, words().doc, documentId(outcome.key));
  if (!outcome.messageId.empty()) {
    fields += messageFields(append, outcome.messageId, outcome.messageText);
  }
  return fields;
}

std::string recordFields(FieldAppender append, const ReportReply::Line& line) {
  std::string fields;
  append(fields, words().doc, line.subject);
  return fields + messageFields(append, line.messageId, line.messageText, kMaxReportText);
}

}  // namespace corvaned
