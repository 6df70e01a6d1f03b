// What the counting library and the load driver share: a file that both map.
#ifndef RDX_BENCH_COUNTERS_H
#define RDX_BENCH_COUNTERS_H

#include <atomic>
#include <sys/types.h>

namespace rdx::bench {

// The environment variable that names the file.
inline constexpr const char* kCountersVariable = "RDX_BENCH_COUNTERS";

struct Counters {
    std::atomic<unsigned long> passes; // of the service loop
    std::atomic<pid_t> process;        // that runs the loop
};

} // namespace rdx::bench

#endif
