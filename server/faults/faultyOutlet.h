#pragma once

#include <memory>

#include "server/faults/faultScript.h"

namespace corvaned {

class OutletFactory;

/// Outlets that together carry out the script: each reply of the server, whichever connection it
/// goes to, is one reply of the script.
std::shared_ptr<OutletFactory> faultyOutlets(FaultScript script);

}  // namespace corvaned
