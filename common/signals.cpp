#include "common/signal_windows.h"

#include "common/shared.h"

#include <cerrno>
#include <ctime>
#include <poll.h>
#include <pthread.h>

int sigerr = 0;
int signalled = 0;

namespace rdx {
namespace {

// The calling thread's mask inside a window; null in a thread that has no windows.
thread_local const sigset_t* windowMask = nullptr;

sigset_t CaughtSet() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : kCaughtSignals) sigaddset(&set, number);
    return set;
}

} // namespace

CaughtSignalsBlocked::CaughtSignalsBlocked() {
    const sigset_t caught = CaughtSet();
    pthread_sigmask(SIG_BLOCK, &caught, &before_);
}

CaughtSignalsBlocked::~CaughtSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

SignalsInWindowsOnly::SignalsInWindowsOnly() : outermost_(windowMask == nullptr) {
    if (outermost_) windowMask = &blocked_.Before();
}

SignalsInWindowsOnly::~SignalsInWindowsOnly() {
    if (outermost_) windowMask = nullptr;
}

SignalWindow::SignalWindow() {
    if (windowMask != nullptr) pthread_sigmask(SIG_SETMASK, windowMask, nullptr);
}

SignalWindow::~SignalWindow() {
    if (windowMask == nullptr) return;
    const int error = errno; // what the wait in the window reported
    const sigset_t caught = CaughtSet();
    pthread_sigmask(SIG_BLOCK, &caught, nullptr);
    errno = error;
}

bool HandlesSignalsInWindows() { return windowMask != nullptr; }

bool WaitForPeer(int descriptor, short events, int milliseconds) {
    timespec limit{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    pollfd peer{descriptor, events, 0};
    const auto stopped = [] { return windowMask != nullptr && LoadShared(signalled) != 0; };
    // The signal came in an earlier window: nothing would end a wait without a limit.
    if (milliseconds < 0 && stopped()) return false;
    // ppoll opens the window and waits in one step: a signal cannot slip in between and be waited over.
    while (ppoll(&peer, 1, milliseconds < 0 ? nullptr : &limit, windowMask) < 0 && errno == EINTR) {
        if (stopped() || milliseconds >= 0) break; // a limited wait is a pause: a shorter one does no harm
    }
    return !stopped();
}

} // namespace rdx
