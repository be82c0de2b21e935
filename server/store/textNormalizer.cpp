#include "server/store/textNormalizer.h"

#include <unicode/normalizer2.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <xapian.h>

#include <algorithm>

#include "server/base/errors.h"

namespace corvaned {
namespace {

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// As the engine does it to the words of documents.
void appendLower(std::string& out, std::string_view text) {
  for (Xapian::Utf8Iterator c(text.data(), text.size()); c != Xapian::Utf8Iterator(); ++c) {
    const bool isApostrophe = *c == 0x2019 || *c == 0x201b;
    Xapian::Unicode::append_utf8(out, isApostrophe ? '\'' : Xapian::Unicode::tolower(*c));
  }
}

bool isCapital(char c) { return c >= 'A' && c <= 'Z'; }

// "U.S.A", of which the engine makes one word if the initials are capitals. None: 0.
std::size_t lengthOfInitials(std::string_view text) {
  std::size_t length = 0;
  while (length < text.size() && isCapital(text[length])) {
    ++length;
    if (length + 1 >= text.size() || text[length] != '.' || !isCapital(text[length + 1])) break;
    ++length;
  }
  const Xapian::Utf8Iterator behind(text.data() + length, text.size() - length);
  const bool isWhole = length == text.size() || !Xapian::Unicode::is_wordchar(*behind);
  return length > 1 && isWhole ? length : 0;
}

[[noreturn]] void failed(UErrorCode code) {
  throw ServerError(ErrorKind::Internal,
                    std::string("text cannot be normalised: ") + u_errorName(code));
}

using Instance = const icu::Normalizer2* (*)(UErrorCode& code);

const icu::Normalizer2& formOf(Instance instance) {
  UErrorCode code = U_ZERO_ERROR;
  const icu::Normalizer2* form = instance(code);
  if (U_FAILURE(code)) failed(code);
  return *form;
}

class CountingSink final : public icu::ByteSink {
 public:
  void Append(const char* /*bytes*/, std::int32_t length) override {
    count_ += static_cast<std::size_t>(length);
  }
  std::size_t count() const { return count_; }

 private:
  std::size_t count_ = 0;
};

std::string normalized(std::string_view text, Instance instance) {
  UErrorCode code = U_ZERO_ERROR;
  const icu::Normalizer2& form = formOf(instance);
  const auto source = icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
  const icu::UnicodeString normal = form.normalize(source, code);
  if (U_FAILURE(code)) failed(code);
  std::string result;
  return normal.toUTF8String(result);
}

}  // namespace

std::string normalizeText(std::string_view text) {
  if (isAscii(text)) return std::string(text);
  return normalized(text, icu::Normalizer2::getNFKCInstance);
}

std::size_t normalizedBytes(std::string_view text) {
  if (isAscii(text)) return text.size();
  UErrorCode code = U_ZERO_ERROR;
  const icu::Normalizer2& form = formOf(icu::Normalizer2::getNFKCInstance);
  const icu::StringPiece source(text.data(), static_cast<std::int32_t>(text.size()));
  // Most texts are normal, and looking writes nothing.
  if (form.isNormalizedUTF8(source, code) && U_SUCCESS(code)) return text.size();
  CountingSink sink;
  code = U_ZERO_ERROR;
  form.normalizeUTF8(0, source, sink, nullptr, code);
  if (U_FAILURE(code)) failed(code);
  return sink.count();
}

std::string foldedText(std::string_view text) {
  return normalized(text, icu::Normalizer2::getNFKCCasefoldInstance);
}

std::string lowerText(std::string_view text) {
  std::string result;
  appendLower(result, normalizeText(text));
  return result;
}

std::string lowerQueryWords(std::string_view words) {
  std::string result;
  bool isBehindWord = false;
  while (!words.empty()) {
    const std::size_t initials = isBehindWord ? 0 : lengthOfInitials(words);
    Xapian::Utf8Iterator next(words.data(), words.size());
    isBehindWord = Xapian::Unicode::is_wordchar(*next);
    ++next;
    const std::size_t length = initials != 0 ? initials : words.size() - next.left();
    if (initials != 0) {
      result += words.substr(0, length);
    } else {
      appendLower(result, words.substr(0, length));
    }
    words.remove_prefix(length);
  }
  return result;
}

bool areInitials(std::string_view word) {
  return !word.empty() && lengthOfInitials(word) == word.size();
}

bool isUtf8(std::string_view bytes) {
  if (isAscii(bytes)) return true;
  std::int32_t length = 0;
  UErrorCode code = U_ZERO_ERROR;
  u_strFromUTF8(nullptr, 0, &length, bytes.data(), static_cast<std::int32_t>(bytes.size()), &code);
  return code == U_BUFFER_OVERFLOW_ERROR;
}

}  // namespace corvaned
