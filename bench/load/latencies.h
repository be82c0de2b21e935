#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace load {

/// How long operations took, by their names. For one thread.
class Latencies {
 public:
  using Clock = std::chrono::steady_clock;

  /// Runs the operation and notes how long it took, also if it fails.
  template <typename Operation>
  void take(const std::string& name, Clock::time_point begin, Operation&& operation) {
    takeAs([&] { return name; }, begin, operation);
  }

  /// The same where only the end of the operation tells its name.
  template <typename Name, typename Operation>
  void takeAs(Name&& name, Clock::time_point begin, Operation&& operation) {
    const auto start = Clock::now();
    const auto note = [&] {
      const auto end = Clock::now();
      const auto second = std::chrono::duration_cast<std::chrono::seconds>(end - begin).count();
      const std::chrono::duration<float, std::milli> taken = end - start;
      taken_[name()].push_back({static_cast<std::uint32_t>(second), taken.count()});
    };
    try {
      operation();
    } catch (...) {
      note();
      throw;
    }
    note();
  }

  void add(const Latencies& other) {
    for (const auto& [name, taken] : other.taken_) {
      auto& own = taken_[name];
      own.insert(own.end(), taken.begin(), taken.end());
    }
  }

  /// One object of JSON: for each name its number, percentiles and maximum in milliseconds; and for
  /// each `window` seconds their number and 99th percentile.
  void print(std::uint32_t window) {
    const char* separator = "";
    std::printf("{");
    for (auto& [name, taken] : taken_) {
      std::printf("%s\"%s\": {\"windows\": [", separator, name.c_str());
      printWindows(taken, window);
      std::sort(taken.begin(), taken.end(),
                [](const Taken& one, const Taken& other) { return one.millis < other.millis; });
      std::printf("], \"count\": %zu, \"p50\": %.3f, \"p99\": %.3f, \"p999\": %.3f, \"max\": %.3f}",
                  taken.size(), part(taken, 0.5), part(taken, 0.99), part(taken, 0.999),
                  static_cast<double>(taken.back().millis));
      separator = ", ";
    }
    std::printf("}");
  }

 private:
  struct Taken {
    std::uint32_t second;
    float millis;
  };

  /// What the given part of the sorted operations took at most.
  static double part(const std::vector<Taken>& sorted, double share) {
    const double place = std::ceil(share * static_cast<double>(sorted.size()));
    return static_cast<double>(sorted[static_cast<std::size_t>(std::max(place, 1.0)) - 1].millis);
  }

  static void printWindows(const std::vector<Taken>& taken, std::uint32_t window) {
    std::map<std::uint32_t, std::vector<Taken>> windows;
    for (const Taken& one : taken) windows[one.second / window].push_back(one);
    const char* separator = "";
    for (auto& [number, within] : windows) {
      std::sort(within.begin(), within.end(),
                [](const Taken& one, const Taken& other) { return one.millis < other.millis; });
      std::printf("%s{\"second\": %u, \"count\": %zu, \"p99\": %.3f}", separator, number * window,
                  within.size(), part(within, 0.99));
      separator = ", ";
    }
  }

  std::map<std::string, std::vector<Taken>> taken_;
};

}  // namespace load
