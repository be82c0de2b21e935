#pragma once

// What every measured program shares, the peers included: options, and the measurement itself. It
// uses nothing of the library.

#include <dlfcn.h>
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>

#include "bench/counts.h"

namespace bench {

/// The command line: words, and options of the form --name=value.
class Options {
 public:
  Options(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
      const std::string_view argument = argv[i];
      const std::size_t equals = argument.find('=');
      if (!argument.starts_with("--") || equals == std::string_view::npos) {
        work_ = argument;
      } else {
        values_[std::string(argument.substr(2, equals - 2))] = argument.substr(equals + 1);
      }
    }
  }

  /// What is to be measured: the word without dashes.
  const std::string& work() const { return work_; }

  std::string text(const std::string& name, const char* otherwise) const {
    const auto found = values_.find(name);
    return found == values_.end() ? otherwise : found->second;
  }
  std::uint64_t number(const std::string& name, std::uint64_t otherwise) const {
    const auto found = values_.find(name);
    return found == values_.end() ? otherwise : std::strtoull(found->second.c_str(), nullptr, 10);
  }

 private:
  std::string work_;
  std::map<std::string, std::string> values_;
};

/// One thing that a program measures.
struct Work {
  const char* name;
  void (*function)(const Options&);
};

/// Does the work that the command line names.
void perform(const Options& options, std::initializer_list<Work> works);

inline double nanosOf(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// Callgrind collects from the entry of this function to its end (--toggle-collect=benchMeasured).
extern "C" void benchMeasured(void (*work)(void*), void* context, std::uint64_t repeats);

/// Runs `work` --warm times, then --repeat times, and prints what one of the latter took as one
/// line of JSON. Each run counts as `units` operations. Allocations and system calls are there when
/// the counting library is preloaded.
template <typename Work>
void measure(const Options& options, std::uint64_t units, Work&& work,
             clockid_t clock = CLOCK_THREAD_CPUTIME_ID) {
  const auto call = [](void* context) { (*static_cast<Work*>(context))(); };
  const auto countsOf = reinterpret_cast<BenchCountsFunction>(::dlsym(RTLD_DEFAULT, "benchCounts"));
  const std::uint64_t repeats = options.number("repeat", 1);
  for (std::uint64_t i = options.number("warm", 1); i > 0; --i) work();
  BenchCounts before{};
  BenchCounts after{};
  if (countsOf != nullptr) countsOf(&before);
  const double wall = nanosOf(CLOCK_MONOTONIC);
  const double cpu = nanosOf(clock);
  benchMeasured(call, &work, repeats);
  const double cpuTaken = nanosOf(clock) - cpu;
  const double wallTaken = nanosOf(CLOCK_MONOTONIC) - wall;
  if (countsOf != nullptr) countsOf(&after);
  const double all = static_cast<double>(repeats) * static_cast<double>(units);
  std::printf("{\"operations\": %.0f, \"cpuNanos\": %.3f, \"wallNanos\": %.3f", all, cpuTaken / all,
              wallTaken / all);
  if (countsOf != nullptr) {
    const auto each = [all](std::uint64_t end, std::uint64_t start) {
      return static_cast<double>(end - start) / all;
    };
    std::printf(
        ", \"allocations\": %.6f, \"systemCalls\": %.6f, \"receives\": %.6f"
        ", \"peakBytes\": %.3f",
        each(after.allocations, before.allocations), each(after.systemCalls, before.systemCalls),
        each(after.receives, before.receives), each(after.peakBytes, before.liveBytes));
  }
  std::printf("}\n");
}

}  // namespace bench
