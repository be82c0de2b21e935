#pragma once

#include <string_view>

namespace tq::comm {

/// Writes the text to standard error in one piece, or loses it where it cannot be written at once.
/// The host's stream object keeps its state, and its format does not apply to the text. A reader
/// that has gone raises no signal.
void writeDiagnostic(std::string_view text) noexcept;

}  // namespace tq::comm
