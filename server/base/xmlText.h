#pragma once

#include <string>
#include <string_view>

namespace corvaned {

/// The text of an XML document in UTF-8, whatever encoding it declares: what stands between the
/// tags, and apart where a tag was. Entities are not expanded, and nothing is loaded.
///
/// Throws ServerError(BadDocument) with line and column if the document is not well-formed, if it
/// declares entities, if its elements are nested more than 10000 deep, or if reading it would take
/// memory out of proportion to its size.
std::string textOfXml(std::string_view xml);

}  // namespace corvaned
