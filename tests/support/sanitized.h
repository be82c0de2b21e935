#pragma once

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

}  // namespace tq::test
