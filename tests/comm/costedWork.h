#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/comm/cannedKernel.h"

namespace tq::test {

/// A kind of exchange whose cost is known and kept, ready to be repeated.
class CostedWork {
 public:
  /// Of costedWorkNames().
  explicit CostedWork(const std::string& name);

  /// One exchange with all that it brings, or one batch.
  void run() { run_(); }
  long systemCalls() const { return kernel_->systemCalls(); }

 private:
  std::unique_ptr<CannedKernel> kernel_;
  std::function<void()> run_;
};

const std::vector<std::string>& costedWorkNames();

/// What the first exchange makes is made: the connection and buffers that are kept.
CostedWork warmedUp(const std::string& name);

/// What one run costs once the first ones are over.
struct Cost {
  long systemCalls;
  long allocations;
};
Cost costOf(const std::string& name);

}  // namespace tq::test
