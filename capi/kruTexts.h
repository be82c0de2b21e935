#pragma once

#include <unicode/unistr.h>

#include <cstdint>

namespace tq::capi {

/// A caller's text. Null with a length and what is not UTF-8 are misuse; `what` names it.
icu::UnicodeString takeText(const char* bytes, std::uint32_t length, const char* what);

/// One that becomes part of a header line: it must not begin another one. It must not be empty.
icu::UnicodeString takeLine(const char* bytes, std::uint32_t length, const char* what);

}  // namespace tq::capi
