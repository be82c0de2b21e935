#include "tests/support/failingMemory.h"

KRU_FAILING_MEMORY
