#pragma once

#include <string>

#include "server/store/stopCheck.h"

namespace corvaned {

/// The longest word that is indexed, in bytes of UTF-8. A term of the engine has at most 245, and
/// each begins with the prefix of its field.
constexpr unsigned kMaxWordBytes = 200;

/// The normalised text as it is given to the engine, which knows words by their letters
/// alone: each emoji becomes a word of its own, and the words of Thai, Lao, Khmer and Burmese,
/// which are written without blanks, are separated. Documents and queries must pass through it
/// alike. Throws std::bad_alloc, and ServerError(Internal) if ICU has no dictionaries. `stop`
/// throws to end it.
std::string searchableText(const std::string& normal, const StopCheck& stop = {});

/// Whether the character is a word by itself.
bool isEmoji(char32_t c);

}  // namespace corvaned
