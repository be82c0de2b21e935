#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "server/base/errors.h"
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

  /// Why the work is refused, which has to be an error of this kind.
  static std::string refusal(ErrorKind kind, const std::function<void()>& work) {
    try {
      work();
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), kind) << error.what();
      return error.what();
    }
    return "not refused";
  }

  tq::test::TemporaryDirectory directory_;
  std::shared_ptr<MemoryBudget> memory_;
  std::optional<LocalStore> store_;
};

}  // namespace corvaned::test
