// The server's way with the caught signals, for tests of what waits for a peer.
#ifndef RDX_TESTS_SUPPORT_HANDLERS_H
#define RDX_TESTS_SUPPORT_HANDLERS_H

#include "common/shared.h"
#include "common/signal_windows.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>

namespace rdx::test {

// How many caught signals were handled so far.
inline std::atomic<int> handledSignals = 0;

// While it lives, the caught signals are handled as the server handles them: SIGUSR1 changes settings, any
// other one is recorded as the server's end. Their handlers from before, and no such record, are back
// afterwards.
class Handlers {
public:
    Handlers() {
        struct sigaction action {};
        action.sa_handler = Handle;
        for (std::size_t i = 0; i < kCaughtSignals.size(); ++i) {
            if (sigaction(kCaughtSignals[i], &action, &before_[i]) != 0) std::abort();
        }
        handledSignals = 0;
        Forget();
    }
    ~Handlers() {
        for (std::size_t i = 0; i < kCaughtSignals.size(); ++i) {
            sigaction(kCaughtSignals[i], &before_[i], nullptr);
        }
        Forget();
    }
    Handlers(const Handlers&) = delete;
    Handlers& operator=(const Handlers&) = delete;

private:
    static void Handle(int number) {
        if (number != SIGUSR1) {
            StoreShared(sigerr, number);
            StoreShared(signalled, 1);
        }
        ++handledSignals;
    }

    static void Forget() {
        StoreShared(sigerr, 0);
        StoreShared(signalled, 0);
    }

    std::array<struct sigaction, kCaughtSignals.size()> before_;
};

} // namespace rdx::test

#endif
