// The time of the simulated device, which tests move as they like.
#ifndef RDX_SIM_CLOCK_H
#define RDX_SIM_CLOCK_H

#include <chrono>
#include <functional>
#include <thread>

namespace rdx::sim {

using std::chrono::milliseconds;

struct Clock {
    std::function<milliseconds()> now; // since 1970, so that an end of work outlives the process
    std::function<void(milliseconds)> sleep;
};

inline Clock SystemClock() {
    return {.now =
                [] {
                    const auto now = std::chrono::system_clock::now().time_since_epoch();
                    return std::chrono::duration_cast<milliseconds>(now);
                },
            .sleep = [](milliseconds time) { std::this_thread::sleep_for(time); }};
}

} // namespace rdx::sim

#endif
