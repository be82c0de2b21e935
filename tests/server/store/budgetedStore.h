#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <optional>

#include "server/base/memoryBudget.h"
#include "server/store/localStore.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned::test {

/// A store with a budget that a test looks at.
class BudgetedStore : public ::testing::Test {
 protected:
  /// `parts`: how many databases each collection has.
  void openStore(std::size_t budget, std::size_t parts) {
    memory_ = std::make_shared<MemoryBudget>(budget);
    StoreLimits limits;
    limits.parts = parts;
    limits.index.memory = memory_;
    store_.emplace(directory_.path() / "data", limits);
  }

  tq::test::TemporaryDirectory directory_;
  std::shared_ptr<MemoryBudget> memory_;
  std::optional<LocalStore> store_;
};

}  // namespace corvaned::test
