#pragma once

#include <vector>

#include "infra/oss/kruDeadline.h"
#include "infra/oss/kruResolver.h"
#include "infra/oss/kruWaiting.h"

namespace tq::oss {

/// A connected, blocking descriptor that the caller owns, or -1 and why the last address failed:
/// `errorNumber` says so when the outcome is `Failed`.
struct Connected {
  int fd = -1;
  Waited outcome = Waited::Failed;
  int errorNumber = 0;
};

/// Tries the addresses in their order. Each may use an equal share of the time that is left, so
/// that one that swallows packets does not keep the next from being tried. None is tried after the
/// waiter has given up.
Connected connectToFirst(const std::vector<Address>& addresses, Deadline deadline,
                         const Waiter& waiter);

}  // namespace tq::oss
