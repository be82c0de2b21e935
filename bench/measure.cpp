#include "bench/measure.h"

#include <stdexcept>

void bench::perform(const Options& options, std::initializer_list<Work> works) {
  std::string names;
  for (const Work& work : works) {
    if (options.work() == work.name) return work.function(options);
    names.append(names.empty() ? "" : "|").append(work.name);
  }
  std::string text("there is no work '");
  throw std::runtime_error(text.append(options.work()).append("', only ").append(names));
}

// In a unit of its own, so that no compiler can make it part of its caller.
extern "C" void benchMeasured(void (*work)(void*), void* context, std::uint64_t repeats) {
  for (; repeats > 0; --repeats) work(context);
}
