#include "infra/oss/kruUTF8String.h"

#include "infra/oss/kruConverter.h"
#include "infra/oss/kruNullBytes.h"

namespace tq::oss {

UTF8String::UTF8String() = default;
UTF8String::UTF8String(const icu::UnicodeString& text) { append(text); }
UTF8String::UTF8String(const char* bytes, std::size_t length) { append(bytes, length); }

UTF8String& UTF8String::append(const char* bytes, std::size_t length) {
  if (length == 0) return *this;
  if (bytes == nullptr) throwNullBytes("kruUTF8String");
  bytes_.append(bytes, length);
  return *this;
}

UTF8String& UTF8String::append(const icu::UnicodeString& text) {
  const std::size_t before = bytes_.size();
  bytes_.resize(before + Converter::utf8Length(Converter::checked(text)));
  Converter::writeUTF8(text, bytes_.data() + before);
  return *this;
}

icu::UnicodeString UTF8String::toUnicodeString() const {
  return Converter::fromUTF8(bytes_.data(), bytes_.size());
}

}  // namespace tq::oss
