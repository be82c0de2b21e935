#include "bench/measure.h"

// In a unit of its own, so that no compiler can make it part of its caller.
extern "C" void benchMeasured(void (*work)(void*), void* context, std::uint64_t repeats) {
  for (; repeats > 0; --repeats) work(context);
}
