#include "tests/support/faultPlan.h"

#include <algorithm>

namespace tq::test {

void FaultPlan::add(Entry entry, std::size_t nth, const Fault& fault) {
  planned_.push_back({entry, count(entry) + nth, fault});
}

std::optional<Fault> FaultPlan::enter(Entry entry, Phase phase, std::size_t awaited) {
  if (records_ && entry != Entry::Clock) calls_.push_back({entry, phase, awaited});
  const auto count = ++counts_[static_cast<std::size_t>(entry)];
  const auto due = std::find_if(planned_.begin(), planned_.end(), [&](const Plan& plan) {
    return plan.entry == entry && plan.at == count;
  });
  if (due == planned_.end()) return std::nullopt;
  const Fault fault = due->fault;
  planned_.erase(due);
  return fault;
}

void FaultPlan::moved() {
  if (records_) calls_.back().moved = true;
}

const char* nameOf(Entry entry) {
  static constexpr const char* kNames[] = {"socket", "setsockopt",  "connect", "getsockopt",
                                           "fcntl",  "poll",        "recv",    "sendmsg",
                                           "close",  "getaddrinfo", "clock"};
  return kNames[static_cast<std::size_t>(entry)];
}

std::string nameOf(const Fault& fault) {
  static constexpr const char* kNames[] = {"error",       "interrupt", "would block", "one byte",
                                           "end of file", "SO_ERROR",  "stall",       "delay"};
  std::string name = kNames[static_cast<std::size_t>(fault.kind)];
  if (fault.value != 0) name.append(" ").append(std::to_string(fault.value));
  return name;
}

}  // namespace tq::test
