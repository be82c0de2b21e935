// What the sanitizers are told unless the environment says otherwise.

// A deep stack of every allocation would take longer than the parsing, and so would touching fresh
// memory for each of them because the freed is kept for long.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's name
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "malloc_context_size=3:quarantine_size_mb=8:detect_stack_use_after_return=0";
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's name
extern "C" __attribute__((visibility("default"))) const char* __ubsan_default_options() {
  return "print_stacktrace=1";
}
