#pragma once

#include <mutex>
#include <string_view>
#include <vector>

#include "server/faults/faultScript.h"

namespace corvaned {

/// Deals a script's faults out to the replies of all connections, in the order in which they are
/// begun. May be used from any number of threads. The same replies in the same order get the same
/// faults.
class FaultPlan {
 public:
  explicit FaultPlan(FaultScript script);

  /// The faults of the next reply: those of the first rule that picks it. All rules count it.
  Faults next(Framing framing, std::string_view action);

 private:
  bool picks(std::size_t rule, std::uint64_t number) const;

  const FaultScript script_;
  std::mutex mutex_;
  std::vector<std::uint64_t> counts_;  // One a rule. Guarded by mutex_.
};

}  // namespace corvaned
