#pragma once

namespace corvane {

/// What the program tells its caller. The numbers are documented and never change their meaning.
enum class ExitCode {
  Ok = 0,
  Failed = 1,       ///< the server refused, could not be reached, or a file could not be read
  Usage = 2,        ///< the command line is wrong; nothing was sent
  Truncated = 3,    ///< the result was cut off: what was printed is right, but not everything
  PartlyLoaded = 4  ///< every document was offered, or the index updated; some were refused
};

}  // namespace corvane
