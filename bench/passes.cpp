// Counts the passes of the service loop from outside: preloaded into the server's process, it stands in
// for the sleep that the loop takes once in each pass.
#include "bench/counters.h"

#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

rdx::bench::Counters* MapCounters() {
    const char* const path = std::getenv(rdx::bench::kCountersVariable);
    const int file = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file < 0) return nullptr;
    void* const memory =
        mmap(nullptr, sizeof(rdx::bench::Counters), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    return memory == MAP_FAILED ? nullptr : static_cast<rdx::bench::Counters*>(memory);
}

} // namespace

extern "C" __attribute__((visibility("default"))) int usleep(useconds_t microseconds) {
    static rdx::bench::Counters* const counters = MapCounters();
    constexpr useconds_t kPassPauseUs = 1000; // nothing else in the server sleeps this long
    if (counters != nullptr && microseconds == kPassPauseUs) {
        counters->process.store(getpid(), std::memory_order_relaxed);
        counters->passes.fetch_add(1, std::memory_order_relaxed);
    }
    const timespec pause{static_cast<time_t>(microseconds / 1'000'000),
                         static_cast<long>(microseconds % 1'000'000) * 1000};
    return nanosleep(&pause, nullptr);
}
