#include "server/base/descriptorBudget.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "server/base/errors.h"

namespace corvaned {
namespace {

// What no budget counts: standard streams, listeners, event queues, the monitor; clients that are
// only told that there are too many; and the files that a thread opens for a moment, of which an
// index update has the most.
constexpr std::size_t kForTheProcess = 160;
constexpr std::size_t kLeastToServe = 64;

}  // namespace

DescriptorPlan divideDescriptors(std::size_t limit, std::size_t connectionsWanted) {
  if (limit < kForTheProcess + kLeastToServe) {
    throw std::runtime_error(fmt::format(
        "{} open files are too few, the server needs {}; raise the limit of the system (ulimit -n, "
        "LimitNOFILE) or --max-open-files",
        limit, kForTheProcess + kLeastToServe));
  }
  const std::size_t rest = limit - kForTheProcess;
  const std::size_t connections = std::min(connectionsWanted, rest / 2);
  return {connections, rest - connections};
}

DescriptorBudget::Share::~Share() {
  if (budget_) budget_->giveBack(count_);
}

void DescriptorBudget::Share::add(std::size_t count) {
  while (budget_ && !budget_->take(count)) {
    if (budget_->reclaim_ && budget_->reclaim_()) continue;
    throw ServerError(ErrorKind::TryAgain,
                      fmt::format("the {} files that collections may have open are all in use; try "
                                  "again, or raise the limit of open files",
                                  budget_->limit()));
  }
  count_ += count;
}

std::size_t DescriptorBudget::used() const {
  const std::lock_guard lock(mutex_);
  return used_;
}

bool DescriptorBudget::take(std::size_t count) {
  const std::lock_guard lock(mutex_);
  if (count > limit_ - used_) return false;
  used_ += count;
  return true;
}

void DescriptorBudget::giveBack(std::size_t count) {
  const std::lock_guard lock(mutex_);
  used_ -= count;
}

}  // namespace corvaned
