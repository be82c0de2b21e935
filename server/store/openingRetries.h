#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

#include "server/base/errors.h"

namespace corvaned {

/// When a collection is to be opened again that could not be opened for an update that nobody asked
/// for. Each attempt may read the whole journal, so they come less and less often. May be used from
/// any thread.
class OpeningRetries {
 public:
  /// After the first failure where the want passes, and the most where it may pass.
  static constexpr std::chrono::milliseconds kFirst{1000};
  static constexpr std::chrono::milliseconds kMost{60000};
  /// The most where only a restart of the server helps: the budget can never hold it.
  static constexpr std::chrono::milliseconds kMostWithoutMemory{300000};

  struct Retry {
    std::chrono::milliseconds after;
    /// Whether the reason is another one than at the last failure, or the first.
    bool isNews;
  };

  /// What is wrong with the files is looked for again after kMost.
  Retry failed(const std::string& collection, const ServerError& failure);
  /// It has been opened, or there is none any more.
  void forget(const std::string& collection) noexcept;

 private:
  struct Failures {
    std::size_t count = 0;
    std::string reason;
  };

  std::mutex mutex_;
  std::map<std::string, Failures> failures_;  // Guarded by mutex_.
};

}  // namespace corvaned
