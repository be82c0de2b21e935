#pragma once

#include <string>
#include <string_view>

namespace corvaned {

/// What a reader sees of an HTML document in UTF-8: neither tags nor comments, scripts and styles;
/// references to characters as these. What belongs to two paragraphs, cells and the like is apart.
///
/// Takes every input, in time and memory that grow with its size only: nothing is kept of the
/// elements that are open.
std::string textOfHtml(std::string_view html);

}  // namespace corvaned
