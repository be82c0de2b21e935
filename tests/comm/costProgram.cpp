// What the exchanges of the library cost, for scripts/costs.
//
//   krucomm_cost_program            each kind of exchange, its system calls and allocations
//   krucomm_cost_program REPEATS    repeats each of them, in one call of `costMeasured` each

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "tests/comm/costedWork.h"

// Callgrind counts from its beginning to its end.
extern "C" [[gnu::noinline]] void costMeasured(tq::test::CostedWork& work, int repeats);

extern "C" void costMeasured(tq::test::CostedWork& work, int repeats) {
  for (; repeats > 0; --repeats) work.run();
}

int main(int argc, char** argv) {
  const int repeats = argc > 1 ? std::atoi(argv[1]) : 0;
  try {
    for (const auto& name : tq::test::costedWorkNames()) {
      if (repeats == 0) {
        const auto cost = tq::test::costOf(name);
        std::printf("%s\t%ld\t%ld\n", name.c_str(), cost.systemCalls, cost.allocations);
      } else {
        auto work = tq::test::warmedUp(name);
        costMeasured(work, repeats);
      }
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "krucomm_cost_program: %s\n", error.what());
    return 1;
  }
}
