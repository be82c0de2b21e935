#include "infra/oss/kruStringTokenizer.h"

#include "infra/oss/kruConverter.h"

namespace tq::oss {

StringTokenizer::StringTokenizer(const icu::UnicodeString& text,
                                 const icu::UnicodeString& delimiters)
    : text_(text), delimiters_(delimiters) {
  Converter::checked(text_);
  Converter::checked(delimiters_);
  skipDelimiters();
}

icu::UnicodeString StringTokenizer::next() {
  const int start = position_;
  while (position_ < text_.length() && !isDelimiter(text_.charAt(position_))) ++position_;
  icu::UnicodeString token(text_, start, position_ - start);
  Converter::checked(token);
  skipDelimiters();
  return token;
}

void StringTokenizer::skipDelimiters() {
  while (position_ < text_.length() && isDelimiter(text_.charAt(position_))) ++position_;
}

}  // namespace tq::oss
