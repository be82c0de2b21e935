#pragma once

#include <string>
#include <string_view>

#include "server/faults/faultScript.h"

namespace corvaned {

/// Falsifies a complete, well-formed reply as the faults say. A fault in a part that the reply
/// lacks has no effect.
std::string falseReply(Framing framing, std::string_view reply, const Faults& faults);

}  // namespace corvaned
