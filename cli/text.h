#pragma once

#include <unicode/unistr.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

/// The longest key of a document, in bytes.
inline constexpr std::size_t kMaxKeyBytes = 128;

std::string toUtf8(const icu::UnicodeString& text);

/// Nothing when the bytes are not UTF-8.
std::optional<icu::UnicodeString> fromUtf8(std::string_view bytes);

/// A text that may become a header line. Throws UsageError, naming `what`, when it is empty, is not
/// UTF-8, or holds CR, LF or NUL: each of these would write header lines of its own.
icu::UnicodeString headerValue(std::string_view what, std::string_view bytes);

/// The number as a header line has it.
icu::UnicodeString digits(std::uint64_t number);

/// Why the bytes cannot be a document's key; nothing when they can.
std::optional<std::string> whyNoKey(std::string_view key);

/// True when a terminal shows the character as it is: no control, direction, line separator or
/// unassigned character.
bool isPrintable(UChar32 character);
bool isPrintable(const icu::UnicodeString& text);

/// The text with each character that is not printable written as \u{hex}, so that what a server, a
/// file name or an argument says cannot steer a terminal.
std::string printable(const icu::UnicodeString& text);
std::string printable(std::string_view bytes);

/// "1 document", "2 documents".
std::string counted(std::uint64_t number, std::string_view noun);

/// Standard Base64 with padding; nothing when the text is anything else.
std::optional<std::string> decodeBase64(std::string_view text);

/// The key's bytes that a document id "base64:..." stands for; nothing for any other id.
std::optional<std::string> keyOfDocId(const icu::UnicodeString& docId);

}  // namespace corvane
