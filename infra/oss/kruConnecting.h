#pragma once

#include <vector>

#include "infra/oss/kruDeadline.h"
#include "infra/oss/kruResolver.h"

namespace tq::oss {

/// A connected, blocking descriptor that the caller owns, or -1 and why the last address failed.
struct Connected {
  int fd = -1;
  int errorNumber = 0;
  bool timedOut = false;
};

/// Tries the addresses in their order. Each may use an equal share of the time that is left, so
/// that one that swallows packets does not keep the next from being tried.
Connected connectToFirst(const std::vector<Address>& addresses, Deadline deadline);

}  // namespace tq::oss
