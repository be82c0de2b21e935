#pragma once

/// For constants that are built at run time: built before, and destroyed after, every object of the
/// host without a priority of its own. In a static library they would otherwise wait for the
/// linker's order, and a request that a static constructor of the host encodes would find them
/// empty. 101 is the first priority that is not reserved for the compiler.
#define KRU_BUILT_FIRST [[gnu::init_priority(101)]]
