#pragma once

#include <unicode/unistr.h>

#include <cstddef>
#include <string>

#include "infra/oss/kruExport.h"
#include "infra/oss/kruSizeableBuffer.h"

namespace tq::oss {

/// Text between UTF-16 and UTF-8, whatever the locale and the default converter are. An unpaired
/// surrogate is written as U+FFFD, and so is each part of the input that is not UTF-8. Safe from
/// any thread.
///
/// Where memory runs out, `NLSException` is thrown. Its one message has the id
/// "TQ_ERR_OUT_OF_MEMORY", the argument "Converter::convert()" and the file name of the converter,
/// wherever memory ran out. A bogus text counts as that: ICU makes a text bogus when it gets no
/// memory for it, and a bogus text reads as an empty one.
class KRU_EXPORT Converter {
 public:
  Converter() = delete;

  /// The text itself. Throws the exception described above when the text is bogus.
  static const icu::UnicodeString& checked(const icu::UnicodeString& text) {
    if (text.isBogus()) throwOutOfMemory();
    return text;
  }

  /// Exactly the bytes that `writeUTF8` writes. A bogus text, which these two cannot refuse, has
  /// none.
  static std::size_t utf8Length(const icu::UnicodeString& text) noexcept;

  /// Writes `utf8Length(text)` bytes, without a terminating zero, and returns how many. A text of n
  /// UTF-16 units never needs more than 3 n bytes.
  static std::size_t writeUTF8(const icu::UnicodeString& text, char* out) noexcept;

  /// Replaces the buffer's content by the text and a terminating zero; returns the bytes before the
  /// zero. After an exception the buffer's content is lost.
  template <std::size_t N>
  static std::size_t toUTF8(const icu::UnicodeString& text, SizeableBuffer<char, N>& out) {
    const std::size_t length = utf8Length(checked(text));
    if (length >= out.capacity() && !out.resize(length + 1)) throwOutOfMemory();
    writeUTF8(text, out.data());
    out.data()[length] = '\0';
    return length;
  }

  /// Writes the text after the buffer's first `used` bytes, which are kept; returns the number of
  /// bytes used then. Writes no terminating zero. After an exception the buffer is unchanged.
  template <std::size_t N>
  static std::size_t appendUTF8(const icu::UnicodeString& text, SizeableBuffer<char, N>& out,
                                std::size_t used) {
    const std::size_t worst = static_cast<std::size_t>(checked(text).length()) * 3;
    if (worst > out.capacity() - used) {
      if (!out.grow(used + utf8Length(text), used)) throwOutOfMemory();
    }
    return used + writeUTF8(text, out.data() + used);
  }

  static std::string toUTF8(const icu::UnicodeString& text);

  /// All `length` bytes, zeros included. Null with a length: NLSException, id TQ_ERR_NULL_BYTES.
  static icu::UnicodeString fromUTF8(const char* bytes, std::size_t length);
  /// The same into `text`, whose memory is used again where it suffices. After an exception the
  /// text is empty or bogus.
  static void assignUTF8(icu::UnicodeString& text, const char* bytes, std::size_t length);

  /// Throws the exception described above.
  [[noreturn]] static void throwOutOfMemory();
};

}  // namespace tq::oss
