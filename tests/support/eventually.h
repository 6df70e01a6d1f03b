// How long tests wait: what another thread or process is about to do is polled for, never slept for.
//
// Environment:
//     RDX_TEST_TIME_SCALE  factor on every time limit (default 1, under a sanitizer 8)
#ifndef RDX_TESTS_SUPPORT_EVENTUALLY_H
#define RDX_TESTS_SUPPORT_EVENTUALLY_H

#include "tests/support/sanitizers.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace rdx::test {

using std::chrono::milliseconds;

// How long a test waits for what must happen, before scaling; only a failing test waits that long.
inline constexpr milliseconds kPatience{60000};

// How long to look for what must not happen, before scaling.
inline constexpr milliseconds kGlance{150};

// `limit` times RDX_TEST_TIME_SCALE.
inline milliseconds Scaled(milliseconds limit) {
    static const double scale = [] {
        const char* const wanted = std::getenv("RDX_TEST_TIME_SCALE");
        if (wanted != nullptr) return std::max(1.0, std::atof(wanted));
        return kAddressSanitizer || kThreadSanitizer ? 8.0 : 1.0;
    }();
    return milliseconds(static_cast<milliseconds::rep>(static_cast<double>(limit.count()) * scale));
}

// True as soon as `condition()` holds; false when it did not within the scaled limit.
template <typename Condition>
bool Eventually(Condition condition, milliseconds limit = kPatience) {
    const auto end = std::chrono::steady_clock::now() + Scaled(limit);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
}

} // namespace rdx::test

#endif
