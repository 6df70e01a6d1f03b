// When the server's signals may be handled.
//
// The handler of a caught signal reads the configuration file, allocates memory and logs, which is only
// safe where the interrupted thread holds no lock of the C library. So the caught signals are blocked in
// every serving thread, and in the primary thread everywhere but in three kinds of places, the windows:
// around the loop's sleep, around its `select`, and while it waits for a peer.
#ifndef RDX_COMMON_SIGNAL_WINDOWS_H
#define RDX_COMMON_SIGNAL_WINDOWS_H

#include "common/signals.h"

#include <array>
#include <csignal>

namespace rdx {

// The signals that the server catches, in the order in which their handler is installed.
inline constexpr std::array<int, 5> kCaughtSignals = {SIGTERM, SIGBUS, SIGSYS, SIGHUP, SIGUSR1};

// Blocks the caught signals in the calling thread for a scope.
class CaughtSignalsBlocked {
public:
    CaughtSignalsBlocked();
    ~CaughtSignalsBlocked();
    CaughtSignalsBlocked(const CaughtSignalsBlocked&) = delete;
    CaughtSignalsBlocked& operator=(const CaughtSignalsBlocked&) = delete;

    // The thread's mask before.
    const sigset_t& Before() const { return before_; }

private:
    sigset_t before_;
};

// Makes the calling thread the one that handles the caught signals, in windows only, for a scope. The mask
// in a window is the one that the thread had before the outermost scope.
class SignalsInWindowsOnly {
public:
    SignalsInWindowsOnly();
    ~SignalsInWindowsOnly();
    SignalsInWindowsOnly(const SignalsInWindowsOnly&) = delete;
    SignalsInWindowsOnly& operator=(const SignalsInWindowsOnly&) = delete;

private:
    CaughtSignalsBlocked blocked_;
    bool outermost_;
};

// Opens a window for a scope; does nothing in a thread that has none.
class SignalWindow {
public:
    SignalWindow();
    ~SignalWindow();
    SignalWindow(const SignalWindow&) = delete;
    SignalWindow& operator=(const SignalWindow&) = delete;
};

// True in a thread that handles the caught signals in windows: one that may not block outside of them.
bool HandlesSignalsInWindows();

// Waits in a window until `descriptor` is ready for the poll events given, has failed, or `milliseconds`
// have passed (-1: no limit). False when a terminating signal has been received; another signal does not
// end the wait. In a thread without windows the mask stays as it is, and the result is always true.
bool WaitForPeer(int descriptor, short events, int milliseconds);

} // namespace rdx

#endif
