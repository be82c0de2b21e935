#pragma once

#include <memory>

#include "server/faults/faultScript.h"

namespace corvaned {

class OutletFactory;

/// Outlets that share one script: it counts the replies of all connections together.
std::shared_ptr<OutletFactory> faultyOutlets(FaultScript script);

}  // namespace corvaned
