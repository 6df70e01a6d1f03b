#include "tests/support/serving.h"

#include "common/portability_sockets.h"
#include "tests/support/process.h"

#include <atomic>
#include <mutex>

namespace {

std::atomic<int> threadsEnded = 0;

std::mutex closedMutex;
std::map<int, int> closed;

} // namespace

namespace rdx::test {

// The count is never below 0. It is read for its order: what a thread did before it counted itself has
// happened for the reader, which the number of the system's threads alone does not promise.
bool ServingThreadsEnd() { return OtherThreadsEnd() && threadsEnded >= 0; }

std::map<int, int> TimesClosed() {
    const std::lock_guard lock(closedMutex);
    return closed;
}

int TimesClosed(int descriptor) {
    const std::lock_guard lock(closedMutex);
    return closed[descriptor];
}

void ForgetClosed(int descriptor) {
    const std::lock_guard lock(closedMutex);
    closed.erase(descriptor);
}

void ForgetClosed() {
    const std::lock_guard lock(closedMutex);
    closed.clear();
}

} // namespace rdx::test

extern "C" {
int __real_CloseSocket(int);
int __wrap_CloseSocket(int);
[[noreturn]] void __real_pthread_exit(void*);
[[noreturn]] void __wrap_pthread_exit(void*);

int __wrap_CloseSocket(int socket) {
    {
        const std::lock_guard lock(closedMutex);
        ++closed[socket];
    }
    return __real_CloseSocket(socket);
}

void __wrap_pthread_exit(void* result) {
    ++threadsEnded;
    __real_pthread_exit(result);
}
}
