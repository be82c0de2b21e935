#pragma once

#include <string>
#include <string_view>

#include "server/faults/faultScript.h"

namespace corvaned {

/// A whole, well-formed reply made to lie as the faults say. What the reply does not have cannot be
/// tampered with and is left as it is.
std::string falseReply(Framing framing, std::string_view reply, const Faults& faults);

}  // namespace corvaned
