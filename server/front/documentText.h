#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "server/base/documentForm.h"
#include "server/store/store.h"

namespace corvaned {

/// Whether there is a charset of that name, in any of the spellings that IANA and others have.
bool isCharset(const std::string& name);

/// The most bytes that a byte of a text may become in UTF-8.
std::size_t growthInUtf8(const std::string& charset);

/// The text in UTF-8. Throws ServerError(BadDocument) that names the charset if the bytes are no
/// text in it. UTF-8 itself is returned as it is.
std::string toUtf8(std::string bytes, const std::string& charset);

/// The charset that a document says of itself: by a byte order mark, an XML declaration or, in
/// HTML, a meta element near its beginning. Empty if it says nothing. Throws
/// ServerError(BadDocument) if there is no such charset.
std::string declaredCharset(std::string_view bytes, TextType type);

/// Makes of a document as it was sent the one to be stored: its content is in UTF-8, and its form
/// stands among its metadata. Throws ServerError(BadDocument) if that cannot be.
void prepare(Document& document, const DocumentReading& reading);

}  // namespace corvaned
