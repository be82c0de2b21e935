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

enum class Tamper { none, missing, extra };

/// What is done to one reply. Everything is off by default.
struct Faults {
  /// Before the first byte.
  std::chrono::milliseconds delay{0};
  /// Most bytes of one write, 0: as many as there are; and the time between two writes.
  std::size_t piece = 0;
  std::chrono::milliseconds pause{0};
  /// The connection ends, orderly or with a reset, when so many bytes of the reply are out.
  std::optional<std::uint64_t> dropAfter;
  std::optional<std::uint64_t> resetAfter;
  /// Added to the first length that frames the reply's body.
  std::int64_t lengthError = 0;
  /// What happens to the last record and to the mark behind it.
  Tamper record = Tamper::none;
  Tamper end = Tamper::none;

  /// True when the reply's bytes themselves are changed.
  bool lies() const { return lengthError != 0 || record != Tamper::none || end != Tamper::none; }
};

/// Which replies get which faults. A rule counts, from 1, the replies of its protocol and action
/// and picks among them by number and by chance.
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

/// A script that is not understood. what() is one line for a person and names the script's line.
class FaultScriptError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The language is described in docs/server.md. Throws FaultScriptError.
FaultScript parseFaultScript(std::string_view text);

/// The script in the file of that name, or, when there is no such file, the text itself if it has a
/// colon as every script does. Throws FaultScriptError.
FaultScript loadFaultScript(const std::string& fileOrText);

}  // namespace corvaned
