#include "common/signal_windows.h"

#include "common/shared.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/handlers.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <thread>
#include <type_traits>
#include <unistd.h>

namespace rdx {
namespace {

using test::Eventually;
using test::handledSignals;
using test::Handlers;

static_assert(std::is_same_v<decltype(sigerr), int> && std::is_same_v<decltype(signalled), int>);
static_assert(kCaughtSignals == std::array<int, 5>{SIGTERM, SIGBUS, SIGSYS, SIGHUP, SIGUSR1});

const int signalAtLoad = sigerr;
const int signalledAtLoad = signalled;

constexpr std::array kOtherSignals = {SIGUSR2, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGCHLD, SIGSEGV};

sigset_t MaskNow() {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return mask;
}

bool IsBlocked(int number) {
    const sigset_t mask = MaskNow();
    return sigismember(&mask, number) == 1;
}

void ExpectCaughtSignalsBlocked(bool blocked) {
    for (const int number : kCaughtSignals) EXPECT_EQ(IsBlocked(number), blocked) << strsignal(number);
    for (const int number : kOtherSignals) EXPECT_FALSE(IsBlocked(number)) << strsignal(number);
}

// Sends a signal to the calling thread.
void SignalMyself(int number) { ASSERT_EQ(pthread_kill(pthread_self(), number), 0); }

// Runs a test's body on a thread of its own: gtest's keeps its mask whatever goes wrong.
void OnAThread(const std::function<void()>& body) { std::thread(body).join(); }

class Pair {
public:
    Pair() {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends_) != 0) std::abort();
    }
    ~Pair() {
        close(ends_[0]);
        close(ends_[1]);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    int Near() const { return ends_[0]; }
    int Far() const { return ends_[1]; }

    // Something to be read at the near end.
    void Say() const { EXPECT_EQ(send(Far(), "x", 1, 0), 1); }

    bool Readable() const {
        pollfd state{Near(), POLLIN, 0};
        return poll(&state, 1, 0) == 1;
    }

private:
    int ends_[2];
};

TEST(Signals, AreNoneWhenTheLibraryIsLoaded) {
    EXPECT_EQ(signalAtLoad, 0);
    EXPECT_EQ(signalledAtLoad, 0);
}

TEST(CaughtSignals, AreBlockedForAScope) {
    OnAThread([] {
        ExpectCaughtSignalsBlocked(false);
        {
            const CaughtSignalsBlocked blocked;
            ExpectCaughtSignalsBlocked(true);
            EXPECT_EQ(sigismember(&blocked.Before(), SIGTERM), 0);
            {
                const CaughtSignalsBlocked again;
                ExpectCaughtSignalsBlocked(true);
                EXPECT_EQ(sigismember(&again.Before(), SIGTERM), 1);
            }
            ExpectCaughtSignalsBlocked(true);
        }
        ExpectCaughtSignalsBlocked(false);
    });
}

TEST(CaughtSignals, WaitForTheEndOfTheScope) {
    OnAThread([] {
        const Handlers handlers;
        {
            const CaughtSignalsBlocked blocked;
            for (const int number : kCaughtSignals) SignalMyself(number);
            EXPECT_EQ(handledSignals, 0);
        }
        EXPECT_EQ(handledSignals, static_cast<int>(kCaughtSignals.size()));
    });
}

TEST(CaughtSignals, StayBlockedWhereTheyWereBefore) {
    OnAThread([] {
        sigset_t hangUp;
        sigemptyset(&hangUp);
        sigaddset(&hangUp, SIGHUP);
        sigaddset(&hangUp, SIGUSR2);
        pthread_sigmask(SIG_BLOCK, &hangUp, nullptr);
        { const CaughtSignalsBlocked blocked; }
        EXPECT_TRUE(IsBlocked(SIGHUP));
        EXPECT_TRUE(IsBlocked(SIGUSR2));
        EXPECT_FALSE(IsBlocked(SIGTERM));
    });
}

TEST(SignalsInWindows, AreBlockedOutsideOfThem) {
    OnAThread([] {
        EXPECT_FALSE(HandlesSignalsInWindows());
        {
            const SignalsInWindowsOnly signals;
            EXPECT_TRUE(HandlesSignalsInWindows());
            ExpectCaughtSignalsBlocked(true);
            {
                const SignalWindow window;
                EXPECT_TRUE(HandlesSignalsInWindows());
                ExpectCaughtSignalsBlocked(false);
            }
            ExpectCaughtSignalsBlocked(true);
        }
        EXPECT_FALSE(HandlesSignalsInWindows());
        ExpectCaughtSignalsBlocked(false);
    });
}

TEST(SignalsInWindows, AreHandledInTheNextWindow) {
    OnAThread([] {
        const Handlers handlers;
        const SignalsInWindowsOnly signals;
        for (const int number : kCaughtSignals) {
            const int before = handledSignals;
            SignalMyself(number);
            EXPECT_EQ(handledSignals, before) << strsignal(number);
            { const SignalWindow window; }
            EXPECT_EQ(handledSignals, before + 1) << strsignal(number);
        }
    });
}

TEST(SignalsInWindows, AreHandledAtOnceInsideAWindow) {
    OnAThread([] {
        const Handlers handlers;
        const SignalsInWindowsOnly signals;
        const SignalWindow window;
        SignalMyself(SIGHUP);
        EXPECT_EQ(handledSignals, 1);
        EXPECT_EQ(LoadShared(sigerr), SIGHUP);
    });
}

TEST(SignalsInWindows, AreHandledAtTheLatestWhenTheScopeEnds) {
    OnAThread([] {
        const Handlers handlers;
        {
            const SignalsInWindowsOnly signals;
            SignalMyself(SIGTERM);
            EXPECT_EQ(handledSignals, 0);
        }
        EXPECT_EQ(handledSignals, 1);
    });
}

TEST(SignalsInWindows, BelongToOneThread) {
    const SignalsInWindowsOnly signals;
    OnAThread([] {
        EXPECT_FALSE(HandlesSignalsInWindows());
        const sigset_t inherited = MaskNow();
        const SignalWindow nothing;
        const sigset_t now = MaskNow();
        for (const int number : kCaughtSignals) {
            EXPECT_EQ(sigismember(&now, number), sigismember(&inherited, number)) << strsignal(number);
        }
    });
}

TEST(SignalsInWindows, HaveTheOutermostScopesMaskInAWindow) {
    OnAThread([] {
        const SignalsInWindowsOnly outer;
        {
            const SignalsInWindowsOnly inner;
            ExpectCaughtSignalsBlocked(true);
            const SignalWindow window;
            ExpectCaughtSignalsBlocked(false);
        }
        EXPECT_TRUE(HandlesSignalsInWindows());
        ExpectCaughtSignalsBlocked(true);
        const SignalWindow window;
        ExpectCaughtSignalsBlocked(false);
    });
}

TEST(SignalsInWindows, KeepBlockedInAWindowWhatTheThreadHadBlocked) {
    OnAThread([] {
        sigset_t hangUp;
        sigemptyset(&hangUp);
        sigaddset(&hangUp, SIGHUP);
        pthread_sigmask(SIG_BLOCK, &hangUp, nullptr);
        const SignalsInWindowsOnly signals;
        const SignalWindow window;
        EXPECT_TRUE(IsBlocked(SIGHUP));
        EXPECT_FALSE(IsBlocked(SIGTERM));
    });
}

TEST(ASignalWindow, DoesNothingInAThreadWithoutWindows) {
    OnAThread([] {
        const CaughtSignalsBlocked blocked;
        const SignalWindow window;
        ExpectCaughtSignalsBlocked(true);
    });
}

TEST(ASignalWindow, LeavesTheErrorOfWhatWaitedInIt) {
    OnAThread([] {
        const SignalsInWindowsOnly signals;
        {
            const SignalWindow window;
            errno = EBADF;
        }
        EXPECT_EQ(errno, EBADF);
    });
}

TEST(WaitForPeer, ReturnsWhenThePeerIsReady) {
    for (const bool inWindows : {false, true}) {
        OnAThread([&] {
            std::optional<SignalsInWindowsOnly> signals;
            if (inWindows) signals.emplace();
            const Pair pair;
            EXPECT_TRUE(WaitForPeer(pair.Near(), POLLOUT, -1));
            pair.Say();
            EXPECT_TRUE(WaitForPeer(pair.Near(), POLLIN, -1));
            EXPECT_TRUE(WaitForPeer(pair.Near(), POLLIN, 100'000));
        });
    }
}

TEST(WaitForPeer, WaitsUntilThePeerIsReady) {
    for (const bool inWindows : {false, true}) {
        OnAThread([&] {
            std::optional<SignalsInWindowsOnly> signals;
            if (inWindows) signals.emplace();
            const Pair pair;
            std::thread peer([&] {
                usleep(2000); // most likely the wait has begun; the test holds in any case
                pair.Say();
            });
            EXPECT_TRUE(WaitForPeer(pair.Near(), POLLIN, -1));
            EXPECT_TRUE(pair.Readable());
            peer.join();
        });
    }
}

TEST(WaitForPeer, ReturnsWhenTheConnectionIsOverOrWasNone) {
    Pair pair;
    shutdown(pair.Far(), SHUT_RDWR);
    EXPECT_TRUE(WaitForPeer(pair.Near(), 0, -1));
    const int closed = dup(pair.Near());
    close(closed);
    EXPECT_TRUE(WaitForPeer(closed, POLLIN, -1));
}

TEST(WaitForPeer, ReturnsWhenTheTimeIsUp) {
    for (const bool inWindows : {false, true}) {
        OnAThread([&] {
            std::optional<SignalsInWindowsOnly> signals;
            if (inWindows) signals.emplace();
            const Pair pair;
            EXPECT_TRUE(WaitForPeer(pair.Near(), POLLIN, 0));
            const auto start = std::chrono::steady_clock::now();
            EXPECT_TRUE(WaitForPeer(pair.Near(), POLLIN, 20));
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
        });
    }
}

TEST(WaitForPeer, HandlesSignalsAndGoesOnWaitingAfterSigusr1) {
    OnAThread([] {
        const Handlers handlers;
        const SignalsInWindowsOnly signals;
        const Pair pair;
        SignalMyself(SIGUSR1); // handled as soon as the wait begins
        std::thread peer([&] {
            EXPECT_TRUE(Eventually([] { return handledSignals == 1; }));
            pair.Say();
        });
        EXPECT_TRUE(WaitForPeer(pair.Near(), POLLIN, -1));
        EXPECT_TRUE(pair.Readable());
        EXPECT_EQ(handledSignals, 1);
        ExpectCaughtSignalsBlocked(true);
        peer.join();
    });
}

TEST(WaitForPeer, IsEndedByEveryTerminatingSignal) {
    for (const int number : {SIGTERM, SIGBUS, SIGSYS, SIGHUP}) {
        OnAThread([&] {
            const Handlers handlers;
            const SignalsInWindowsOnly signals;
            const Pair pair;
            SignalMyself(number);
            EXPECT_FALSE(WaitForPeer(pair.Near(), POLLIN, -1)) << strsignal(number);
            EXPECT_EQ(LoadShared(sigerr), number);
            ExpectCaughtSignalsBlocked(true);
        });
    }
}

TEST(WaitForPeer, IsEndedByASignalThatComesWhileItWaits) {
    OnAThread([] {
        const Handlers handlers;
        const SignalsInWindowsOnly signals;
        const Pair pair;
        std::thread sender([waiting = pthread_self()] {
            usleep(2000); // most likely the wait has begun; the test holds in any case
            pthread_kill(waiting, SIGUSR1);
            EXPECT_TRUE(Eventually([] { return handledSignals == 1; }));
            pthread_kill(waiting, SIGTERM);
        });
        EXPECT_FALSE(WaitForPeer(pair.Near(), POLLIN, -1));
        EXPECT_EQ(handledSignals, 2);
        sender.join();
    });
}

TEST(WaitForPeer, EndsALimitedWaitByAnySignal) {
    OnAThread([] {
        constexpr auto kLimit = std::chrono::seconds(20);
        const Handlers handlers;
        const SignalsInWindowsOnly signals;
        const Pair pair;
        SignalMyself(SIGUSR1);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(WaitForPeer(pair.Near(), POLLIN, std::chrono::milliseconds(kLimit).count()));
        EXPECT_LT(std::chrono::steady_clock::now() - start, kLimit);
        EXPECT_EQ(handledSignals, 1);
    });
}

TEST(WaitForPeer, ReturnsWhenItCannotWait) {
    const Pair pair;
    std::atomic<bool> returned = false;
    std::thread peer([&] {
        EXPECT_TRUE(Eventually([&] { return returned.load(); }));
        pair.Say();
    });
    const test::FailCall noWait("ppoll", 1, ENOMEM);
    EXPECT_TRUE(WaitForPeer(pair.Near(), POLLIN, -1));
    returned = true;
    EXPECT_TRUE(noWait.Struck());
    peer.join();
}

TEST(WaitForPeer, EndsALimitedWaitByATerminatingSignal) {
    OnAThread([] {
        const Handlers handlers;
        const SignalsInWindowsOnly signals;
        const Pair pair;
        SignalMyself(SIGHUP);
        EXPECT_FALSE(WaitForPeer(pair.Near(), POLLIN, 100'000));
    });
}

TEST(WaitForPeer, WaitsNoLongerThanItsLimitAfterATerminatingSignal) {
    OnAThread([] {
        const Handlers handlers;
        const SignalsInWindowsOnly signals;
        const Pair pair;
        SignalMyself(SIGTERM);
        { const SignalWindow window; }
        ASSERT_EQ(LoadShared(signalled), 1);
        EXPECT_FALSE(WaitForPeer(pair.Near(), POLLIN, -1));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(WaitForPeer(pair.Near(), POLLIN, 20));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20)) << "a pause";
    });
}

TEST(WaitForPeer, IsNotEndedInAThreadWithoutWindows) {
    OnAThread([] {
        const Handlers handlers;
        const Pair pair;
        StoreShared(signalled, 1);
        std::thread peer([&, waiting = pthread_self()] {
            usleep(2000); // most likely the wait has begun; the test holds in any case
            pthread_kill(waiting, SIGTERM);
            EXPECT_TRUE(Eventually([] { return handledSignals == 1; }));
            pair.Say();
        });
        EXPECT_TRUE(WaitForPeer(pair.Near(), POLLIN, -1));
        EXPECT_TRUE(pair.Readable());
        peer.join();
        EXPECT_TRUE(WaitForPeer(pair.Near(), 0, 1));
    });
}

TEST(WaitForPeer, KeepsTheMaskOfAThreadWithoutWindows) {
    OnAThread([] {
        const Handlers handlers;
        const Pair pair;
        {
            const CaughtSignalsBlocked asInAServingThread;
            SignalMyself(SIGTERM);
            EXPECT_TRUE(WaitForPeer(pair.Near(), POLLIN, 5));
            EXPECT_EQ(handledSignals, 0);
        }
        EXPECT_EQ(handledSignals, 1);
    });
}

} // namespace
} // namespace rdx
