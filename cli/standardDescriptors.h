#pragma once

namespace corvane {

/// Opens /dev/null in the place of each standard descriptor that is closed. The first connection
/// would get its number otherwise, and be read as input or written to as output. What is opened in
/// place of the input cannot be read, and of an output not written, so that neither seems to work.
void openStandardDescriptors();

}  // namespace corvane
