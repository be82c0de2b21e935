#include "server/faults/faultPlan.h"

#include <cmath>
#include <utility>

namespace corvaned {
namespace {

std::uint64_t mixed(std::uint64_t value) {
  value += 0x9E3779B97F4A7C15U;
  value = (value ^ value >> 30U) * 0xBF58476D1CE4E5B9U;
  value = (value ^ value >> 27U) * 0x94D049BB133111EBU;
  return value ^ value >> 31U;
}

// From 0 to just below 1. A function of the reply's number, not a generator with a state: what a
// reply gets must not depend on which other rules drew before.
double drawn(std::uint64_t seed, std::size_t rule, std::uint64_t number) {
  return std::ldexp(static_cast<double>(mixed(mixed(mixed(seed) + rule) + number) >> 11U), -53);
}

}  // namespace

FaultPlan::FaultPlan(FaultScript script)
    : script_(std::move(script)), counts_(script_.rules.size()) {}

bool FaultPlan::picks(std::size_t index, std::uint64_t number) const {
  const FaultRule& rule = script_.rules[index];
  return number >= rule.first && number <= rule.last && number % rule.every == 0 &&
         drawn(script_.seed, index, number) < rule.chance;
}

Faults FaultPlan::next(Framing framing, std::string_view action) {
  const std::lock_guard lock(mutex_);
  ++begun_;
  const FaultRule* picked = nullptr;
  for (std::size_t i = 0; i < script_.rules.size(); ++i) {
    const FaultRule& rule = script_.rules[i];
    if (rule.protocol.value_or(framing) != framing) continue;
    if (!rule.action.empty() && rule.action != action) continue;
    const std::uint64_t number = ++counts_[i];
    if (picked == nullptr && picks(i, number)) picked = &rule;
  }
  return picked == nullptr ? Faults{} : picked->faults;
}

std::uint64_t FaultPlan::begun() const {
  const std::lock_guard lock(mutex_);
  return begun_;
}

}  // namespace corvaned
