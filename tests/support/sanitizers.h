// What this build is instrumented with.
#ifndef RDX_TESTS_SUPPORT_SANITIZERS_H
#define RDX_TESTS_SUPPORT_SANITIZERS_H

namespace rdx::test {

#if defined(__has_feature) // clang
inline constexpr bool kAddressSanitizer = __has_feature(address_sanitizer);
inline constexpr bool kThreadSanitizer = __has_feature(thread_sanitizer);
#else
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif
#ifdef __SANITIZE_THREAD__
inline constexpr bool kThreadSanitizer = true;
#else
inline constexpr bool kThreadSanitizer = false;
#endif
#endif

} // namespace rdx::test

#endif
