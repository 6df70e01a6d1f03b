// Whether threads that nobody joins have ended.
#ifndef RDX_TESTS_SUPPORT_THREADS_H
#define RDX_TESTS_SUPPORT_THREADS_H

#include "tests/support/eventually.h"

#include <filesystem>
#include <iterator>

namespace rdx::test {

// True as soon as no thread but the test's own runs.
inline bool OtherThreadsEnd() {
#if defined(__SANITIZE_THREAD__)
    constexpr long kOwnThreads = 2; // the sanitizer has one
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    constexpr long kOwnThreads = 2;
#else
    constexpr long kOwnThreads = 1;
#endif
#else
    constexpr long kOwnThreads = 1;
#endif
    return Eventually([] {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::distance(begin(tasks), end(tasks)) <= kOwnThreads;
    });
}

} // namespace rdx::test

#endif
