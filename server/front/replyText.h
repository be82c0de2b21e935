#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "server/front/reply.h"

namespace corvaned {

/// The name of a document in replies: "base64:" and the Base64 form of its key.
std::string documentId(std::string_view key);
/// The key that the name stands for. Nothing if it is none.
std::optional<std::string> keyOfDocumentId(std::string_view id);

/// A score as text with exactly three decimals: "1.000", "0.042".
std::string scoreText(std::uint16_t milliScore);

/// How a protocol writes one field of a record.
using FieldAppender = void (*)(std::string& out, std::string_view name, std::string_view value);

/// The fields of an error, of a queued document's outcome, and of a line of a report.
std::string messageFields(FieldAppender append, std::string_view id, const std::string& text);
std::string recordFields(FieldAppender append, const ParseOutcome& outcome);
std::string recordFields(FieldAppender append, const ReportReply::Line& line);

}  // namespace corvaned
