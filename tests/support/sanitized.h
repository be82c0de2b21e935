#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KRUCOMM_LEAKS_ARE_FOUND
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define KRUCOMM_LEAKS_ARE_FOUND
#endif
#ifdef KRUCOMM_LEAKS_ARE_FOUND
#include <sanitizer/lsan_interface.h>
#endif

namespace tq::test {

/// Whether the test runs under a sanitizer, which makes it ten times as expensive and finds what it
/// looks for in a part of the cases.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

/// What is allocated in its lifetime is not looked for in the end: for another's library that gives
/// nothing back where it fails.
class LeaksOfOthers {
 public:
#ifdef KRUCOMM_LEAKS_ARE_FOUND
  LeaksOfOthers() { __lsan_disable(); }
  ~LeaksOfOthers() { __lsan_enable(); }
#else
  LeaksOfOthers() {}
  ~LeaksOfOthers() {}
#endif
  LeaksOfOthers(const LeaksOfOthers&) = delete;
  LeaksOfOthers& operator=(const LeaksOfOthers&) = delete;
};

}  // namespace tq::test
