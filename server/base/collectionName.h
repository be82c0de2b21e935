#pragma once

#include <string_view>

namespace corvaned {

/// Whether a byte of a collection's name stands for itself in the name of its directory. Any other
/// takes three bytes there.
bool standsForItself(char c);

/// Throws ServerError(BadCollectionName) if the name is too long for a directory. It costs a look
/// at the name, so it comes before whatever costs more.
void requireShortName(std::string_view collection);

}  // namespace corvaned
