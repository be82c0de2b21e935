#pragma once

/// Marks what a library offers to its callers; everything else stays hidden in the shared object.
#define KRU_EXPORT __attribute__((visibility("default")))
