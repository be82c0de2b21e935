#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "server/store/store.h"

namespace corvaned {

/// Counts what the server does and how long that takes. May be used from any thread.
class Metrics {
 public:
  /// A request was served. `error` is the id of the error it was refused with, empty if it was not.
  void served(std::string_view action, std::string_view error, std::chrono::nanoseconds time);
  /// A request was refused before it could be told which one it is, or when it arrived.
  void refused(std::string_view error);
  void connectionTaken() { ++taken_; }
  void connectionEnded() { ++ended_; }
  void connectionTurnedAway() { ++turnedAway_; }

  /// Everything counted so far in the text format of Prometheus.
  std::string text() const;

 private:
  // Upper bounds in milliseconds of all but the last bucket, which has none.
  static constexpr std::array<std::uint32_t, 12> kBounds{1,   2,   5,    10,   20,    50,
                                                         100, 500, 1000, 5000, 20000, 60000};

  struct Latency {
    std::array<std::uint64_t, kBounds.size() + 1> buckets{};
    std::uint64_t nanoseconds = 0;
  };

  mutable std::mutex mutex_;
  // Guarded by mutex_. Actions and error ids are those of the server, so their number is bounded.
  std::map<std::pair<std::string, std::string>, std::uint64_t> served_;
  std::map<std::string, Latency, std::less<>> latencies_;

  std::atomic<std::uint64_t> taken_ = 0;
  std::atomic<std::uint64_t> ended_ = 0;
  std::atomic<std::uint64_t> turnedAway_ = 0;
};

/// Appends how many collections there are in the text format of Prometheus. They have no names
/// there: there may be any number, and whoever asks need not be allowed to know them.
void appendCollections(std::string& out, const CollectionCounts& counts);

/// What is wrong with how many collections, in one line; empty if nothing is.
std::string noticeOf(const CollectionCounts& counts);

/// Appends one value in the text format of Prometheus.
void appendMetric(std::string& out, std::string_view name, std::string_view type,
                  std::string_view help, std::uint64_t value);

}  // namespace corvaned
