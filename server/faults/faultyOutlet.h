#pragma once

#include <memory>

namespace corvaned {

class FaultPlan;
class OutletFactory;

/// Outlets that share one plan: it counts the replies of all connections together.
std::shared_ptr<OutletFactory> faultyOutlets(std::shared_ptr<FaultPlan> plan);

}  // namespace corvaned
