#pragma once

#include <cstdint>
#include <mutex>
#include <string_view>
#include <vector>

#include "server/faults/faultScript.h"

namespace corvaned {

/// Assigns a script's faults to the replies of all connections in the order in which the replies
/// begin. Replies that begin in the same order get the same faults again. May be used from any
/// number of threads.
class FaultPlan {
 public:
  explicit FaultPlan(FaultScript script);

  /// The faults of the next reply, from the first rule that picks it. Every matching rule counts
  /// it.
  Faults next(Framing framing, std::string_view action);

  /// How many replies have begun.
  std::uint64_t begun() const;

 private:
  bool picks(std::size_t rule, std::uint64_t number) const;

  const FaultScript script_;
  mutable std::mutex mutex_;
  std::uint64_t begun_ = 0;            // Guarded by mutex_.
  std::vector<std::uint64_t> counts_;  // One a rule. Guarded by mutex_.
};

}  // namespace corvaned
