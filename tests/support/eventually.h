// Waiting in tests: what another thread or process is about to do is polled for, never slept for.
#ifndef RDX_TESTS_SUPPORT_EVENTUALLY_H
#define RDX_TESTS_SUPPORT_EVENTUALLY_H

#include <chrono>
#include <thread>

namespace rdx::test {

// How long a test waits for what must happen; only a failing test waits that long.
inline constexpr std::chrono::seconds kPatience{30};

// True as soon as `condition()` holds, false when it still does not after kPatience.
template <typename Condition>
bool Eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace rdx::test

#endif
