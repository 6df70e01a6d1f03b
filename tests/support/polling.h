// Waiting in a test for what another thread or the system does: polled, and bounded.
#ifndef RDX_TESTS_SUPPORT_POLLING_H
#define RDX_TESTS_SUPPORT_POLLING_H

#include <chrono>
#include <unistd.h>

namespace rdx::test {

// True as soon as `condition()` is; false when it is not within 20 seconds.
template <typename Condition>
bool Await(Condition condition) {
    constexpr int kPauseUs = 500;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        usleep(kPauseUs);
    }
    return true;
}

// The time since it was made.
class Stopwatch {
public:
    std::chrono::milliseconds Elapsed() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                     start_);
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace rdx::test

#endif
