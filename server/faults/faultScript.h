#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "server/front/framing.h"

namespace corvaned {

enum class Tamper { None, Missing, Extra };

/// What is done to one reply. Everything is off by default.
struct Faults {
  /// Pause before the first byte.
  std::chrono::milliseconds delay{0};
  /// Maximum number of bytes per write (0: no limit), and the pause between two writes.
  std::size_t piece = 0;
  std::chrono::milliseconds pause{0};
  /// The connection ends, in an orderly way or with a reset, after this many bytes of the reply.
  std::optional<std::uint64_t> dropAfter;
  std::optional<std::uint64_t> resetAfter;
  /// Added to the first length that frames the reply's body.
  std::int64_t lengthError = 0;
  /// What happens to the last record and to the end mark after it.
  Tamper record = Tamper::None;
  Tamper end = Tamper::None;

  /// True if the content of the reply is changed, not only how it is sent.
  bool lies() const { return lengthError != 0 || record != Tamper::None || end != Tamper::None; }
};

/// Which replies get which faults. A rule counts the replies of its protocol and action from 1 and
/// picks some of them by number and by chance.
struct FaultRule {
  std::optional<Framing> protocol;
  std::string action;  // empty: any
  std::uint64_t first = 1;
  std::uint64_t last = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t every = 1;
  double chance = 1;
  Faults faults;
};

struct FaultScript {
  std::uint64_t seed = 1;
  std::vector<FaultRule> rules;
};

/// A script with an error. what() is one line of text that names the line of the script.
class FaultScriptError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The language is described in docs/server.md. Throws FaultScriptError.
FaultScript parseFaultScript(std::string_view text);

/// Reads the script from the file of that name. If there is no such file, and the text has a colon
/// as every script does, the text itself is the script. Throws FaultScriptError.
FaultScript loadFaultScript(const std::string& fileOrText);

}  // namespace corvaned
