#pragma once

#include <string_view>

namespace tq::comm {

/// Writes the text to standard error in one piece. The host's stream object keeps its format and
/// its state: the format does not apply to the text, and text that cannot be written is lost.
void writeDiagnostic(std::string_view text);

}  // namespace tq::comm
