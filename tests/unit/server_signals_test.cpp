#include "server/rdxhttp.h"

#include "common/config.h"
#include "common/log.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "server/service.h"
#include "tests/support/answers.h"
#include "tests/support/capture.h"
#include "tests/support/client.h"
#include "tests/support/entry.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/free_port.h"
#include "tests/support/given_tables.h"
#include "tests/support/listener.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <thread>

namespace {

using namespace rdx;
using namespace rdx::test;
using testing::Not;

// --- signals -------------------------------------------------------------------------------------------

TEST_F(RdxHttpTest, SignalsHaveTheNamesOfSystemV) {
    EXPECT_EQ(Names(std::begin(aszSigNames), std::end(aszSigNames)), kSignalNames);
}

TEST_F(RdxHttpTest, SignalHandlerStopsTheServer) {
    const struct {
        int number;
        std::string line;
    } rows[] = {
        {SIGTERM, "handling signal <SIGTERM>"},
        {SIGHUP, "handling signal <SIGHUP>"},
        {7, "handling signal <SIGEMT>"},
        {1, "handling signal <SIGHUP>"},
        {28, "handling signal <SIGPROF>"},
        {29, "handling signal <SIGIO>"},
        {0, "handling signal (0)"},
        {30, "handling signal (30)"},
        {31, "handling signal (31)"},
        {-1, "handling signal (-1)"},
        {64, "handling signal (64)"},
    };
    for (const auto& row : rows) {
        for (const int verbosity : kVerbosities) {
            ucVerbosity = static_cast<unsigned char>(verbosity);
            sigerr = 0;
            signalled = 0;
            const CaptureStdout capture;
            SignalHandler(row.number);
            EXPECT_EQ(sigerr, row.number);
            EXPECT_EQ(signalled, 1);
            EXPECT_EQ(ucReconfigured, 0);
            EXPECT_EQ(WithoutTimes(capture.Text()), "\nSignal handling " + std::to_string(row.number) +
                                                        "\n[TIME],SignalHandler(): " + row.line);
        }
    }
}

TEST_F(RdxHttpTest, SignalHandlerReadsTheConfigurationAgain) {
    const IniFile file("[HTTP]\nVerbosity=VERBOSITY_ALL\nAuthRealm=again\n");
    Arguments arguments{"-c", file.Path()};
    char port[RDXHTTP_PORT_SIZE];
    ASSERT_EQ(ParseCommandLine(arguments.argc(), arguments.argv(), port), 0);
    const CaptureStdout capture;
    SignalHandler(SIGUSR1);
    EXPECT_EQ(ucReconfigured, 1);
    EXPECT_EQ(uiReconfigurations, 1U);
    EXPECT_STREQ(szConfigAuthRealm, "again");
    EXPECT_EQ(ucVerbosity, VERBOSITY_ALL);
    EXPECT_EQ(sigerr, 0);
    EXPECT_EQ(signalled, 0);
    EXPECT_EQ(WithoutTimes(capture.Text()),
              "\nSignal handling 10\n[TIME],SignalHandler(): handling signal <SIGBUS>");
}

TEST_F(RdxHttpTest, SignalHandlerGoesOnWithABadConfiguration) {
    const IniFile file("[HTTP]\nVerbosity=LOUD\n");
    Arguments arguments{"-c", file.Path()};
    char port[RDXHTTP_PORT_SIZE];
    ASSERT_EQ(ParseCommandLine(arguments.argc(), arguments.argv(), port), 0);
    const CaptureStdout quiet;
    SignalHandler(SIGUSR1);
    EXPECT_EQ(ucReconfigured, 0);
    EXPECT_EQ(signalled, 0);
}

TEST_F(RdxHttpTest, SignalHandlerLeavesTheErrorOfTheInterruptedCode) {
    Arguments arguments{"-c", "/nowhere/tnd.ini"};
    char port[RDXHTTP_PORT_SIZE];
    ASSERT_EQ(ParseCommandLine(arguments.argc(), arguments.argv(), port), 0);
    const CaptureStdout quiet;
    errno = EXDEV;
    SignalHandler(SIGUSR1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(ucReconfigured, 0);
}

struct sigaction ActionOf(int number) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    return action;
}

TEST_F(RdxHttpTest, InitSignalHandlingInstallsTheHandler) {
    for (const int verbosity : kVerbosities) {
        Child child([verbosity] {
            ucVerbosity = static_cast<unsigned char>(verbosity);
            sigerr = 5;
            signalled = 1;
            sigset_t blocked;
            sigemptyset(&blocked);
            sigaddset(&blocked, SIGUSR1);
            sigaddset(&blocked, SIGTERM);
            pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
            EXPECT_EQ(InitSignalHandling(), 0);
            EXPECT_EQ(sigerr, 0);
            EXPECT_EQ(signalled, 0);
            for (const int number : {SIGTERM, SIGBUS, SIGSYS, SIGHUP, SIGUSR1}) {
                const struct sigaction action = ActionOf(number);
                EXPECT_EQ(action.sa_handler, SignalHandler) << number;
                for (const int flag : {SA_RESTART, SA_SIGINFO, SA_NODEFER, static_cast<int>(SA_RESETHAND)}) {
                    EXPECT_EQ(action.sa_flags & flag, 0);
                }
                for (int other = 1; other < 32; ++other) EXPECT_EQ(sigismember(&action.sa_mask, other), 0);
            }
            for (const int number : {SIGINT, SIGQUIT, SIGPIPE}) {
                EXPECT_EQ(ActionOf(number).sa_handler, SIG_IGN) << number;
            }
            for (const int number : {SIGUSR2, SIGALRM, SIGCHLD, SIGABRT}) {
                EXPECT_NE(ActionOf(number).sa_handler, SignalHandler) << number;
            }
            sigset_t now;
            pthread_sigmask(SIG_BLOCK, nullptr, &now);
            EXPECT_EQ(sigismember(&now, SIGUSR1), 0);
            EXPECT_EQ(sigismember(&now, SIGTERM), 1) << "another signal stays as it was";
            return 0;
        });
        EXPECT_EQ(child.Result(), 0);
        EXPECT_EQ(child.Output(), verbosity > VERBOSITY_WARN
                                      ? "\n[TIME],InitSignalHandling(): signal handler installed (10)"
                                      : "");
    }
}

// The handler logs too: it must not find a half-written line.
TEST_F(RdxHttpTest, InitSignalHandlingLogsUndisturbed) {
    Child child([] {
        int lines = 0;
        cookie_io_functions_t functions{};
        functions.write = [](void* cookie, const char*, std::size_t size) {
            sigset_t now;
            pthread_sigmask(SIG_BLOCK, nullptr, &now);
            for (const int number : kCaughtSignals) EXPECT_EQ(sigismember(&now, number), 1) << number;
            ++*static_cast<int*>(cookie);
            return static_cast<ssize_t>(size);
        };
        outlog = fopencookie(&lines, "w", functions);
        ucVerbosity = VERBOSITY_ALL;
        EXPECT_EQ(InitSignalHandling(), 0);
        EXPECT_EQ(lines, 1);
        return CloseLogfile();
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpTest, InitSignalHandlingStopsAtTheFirstFailure) {
    const int kOrder[] = {SIGTERM, SIGBUS, SIGSYS, SIGHUP, SIGUSR1};
    for (int nth = 1; nth <= 5; ++nth) {
        Child child([&kOrder, nth] {
            ucVerbosity = VERBOSITY_ALL;
            std::signal(SIGINT, SIG_DFL);
            {
                const FailCall refused("sigaction", nth, EINVAL);
                EXPECT_EQ(InitSignalHandling(), -6);
                EXPECT_TRUE(refused.Struck());
            }
            for (int i = 1; i <= 5; ++i) {
                EXPECT_EQ(ActionOf(kOrder[i - 1]).sa_handler == SignalHandler, i < nth) << i;
            }
            EXPECT_NE(ActionOf(SIGINT).sa_handler, SIG_IGN);
            return 0;
        });
        EXPECT_EQ(child.Result(), 0) << nth;
        EXPECT_EQ(child.Output(), "");
    }
}

TEST_F(RdxHttpTest, InitSignalHandlingDoesNotAskWhetherSignalsAreIgnored) {
    for (int nth = 6; nth <= 8; ++nth) {
        Child child([nth] {
            const FailCall refused("sigaction", nth, EINVAL);
            const int result = InitSignalHandling();
            EXPECT_TRUE(refused.Struck());
            return result;
        });
        EXPECT_EQ(child.Result(), 0) << nth;
    }
}

// --- the server as a whole -----------------------------------------------------------------------------

// A server in a child process.
class ServerTest : public RdxHttpTest {
protected:
    void Start(const std::string& threads = "1") {
        Configure(port_);
        child_.emplace([this, threads] {
            const int result = RunMain({"-c", file_.Path(), "-mt", threads});
            std::printf("\nsigerr=%d signalled=%d", sigerr, signalled);
            return result;
        });
        ASSERT_TRUE(child_->Prints("mtPrimaryThread="));
    }

    void Configure(int port, const std::string& more = "") {
        file_.Write("[HTTP]\nServicePort=" + std::to_string(port) +
                    "\nMethodsAllowed=GET\nVerbosity=VERBOSITY_LOG\n" + more);
    }

    static void ExpectServes(Client& client) {
        client.Send("GET /other HTTP/1.1\r\nConnection: close\r\n\r\n");
        EXPECT_THAT(client.ReadUntilClosed(), testing::EndsWith(kNotFoundPage));
    }

    void ExpectServes(int port) {
        Client client(port);
        ASSERT_TRUE(client.Connected());
        ExpectServes(client);
    }

    Child& Server() { return *child_; }

    int port_ = test::FreePort();
    IniFile file_;

private:
    std::optional<Child> child_;
};

TEST_F(ServerTest, StopsInOrderOnEachTerminatingSignal) {
    const struct {
        int number;
        std::string line;
    } rows[] = {{SIGTERM, "handling signal <SIGTERM>"},
                {SIGHUP, "handling signal <SIGHUP>"},
                {SIGBUS, "handling signal <" + std::string(aszSigNames[SIGBUS]) + ">"},
                {SIGSYS, "handling signal (" + std::to_string(SIGSYS) + ")"}};
    for (const auto& row : rows) {
        for (const char* threads : {"1", "3"}) {
            SCOPED_TRACE(row.number);
            Start(threads);
            ExpectServes(port_);
            Client idle(port_);
            ASSERT_TRUE(Server().Prints("accepted connection", 2));
            ASSERT_TRUE(Server().Prints("ServeClientDone: Socket closed"));
            Server().Signal(row.number);
            EXPECT_EQ(Server().Result(), 0);
            EXPECT_EQ(idle.ReadUntilClosed(), "");
            EXPECT_THAT(Server().Output(),
                        testing::EndsWith("\nSignal handling " + std::to_string(row.number) +
                                          "\n[TIME],SignalHandler(): " + row.line +
                                          "\nucTerminated=0"
                                          "\n[TIME],main(): ordinary HTTP server shutdown (0)"
                                          "\nsigerr=" +
                                          std::to_string(row.number) + " signalled=1"));
        }
    }
}

TEST_F(ServerTest, IgnoresTheSignalsOfATerminal) {
    Start();
    for (const int number : {SIGINT, SIGQUIT, SIGPIPE}) {
        Server().Signal(number);
        ExpectServes(port_);
    }
    Server().Signal(SIGTERM);
    EXPECT_EQ(Server().Result(), 0);
    EXPECT_EQ(Server().CountOf("Signal handling"), 1);
}

TEST_F(ServerTest, BeginsAgainOnSigusr1) {
    for (const char* threads : {"1", "3"}) {
        Start(threads);
        ExpectServes(port_);
        Client idle(port_);
        Server().Signal(SIGUSR1);
        ASSERT_TRUE(Server().Prints("mtPrimaryThread=", 2));
        EXPECT_EQ(idle.ReadUntilClosed(), "");
        ExpectServes(port_);

        const int other = test::FreePort();
        Configure(other);
        Server().Signal(SIGUSR1);
        ASSERT_TRUE(Server().Prints("mtPrimaryThread=", 3));
        ExpectServes(other);
        EXPECT_FALSE(Client(port_).Connected());

        Server().Signal(SIGTERM);
        EXPECT_EQ(Server().Result(), 0);
        for (const char* counter : {"counter: 0", "counter: 1", "counter: 2"}) {
            EXPECT_EQ(Server().CountOf(counter), 1) << counter;
        }
        EXPECT_EQ(Server().CountOf("\nSignal handling 10\n[TIME],SignalHandler(): handling signal <SIGBUS>"),
                  2);
        EXPECT_EQ(Server().CountOf("main(): Tavrin reconfiguration event (0)"), 2);
        EXPECT_EQ(Server().CountOf("param <" + std::to_string(other) + ">"), 1);
    }
}

TEST_F(ServerTest, GoesOnWhenTheNewConfigurationIsBad) {
    Start("3");
    Client idle(port_);
    Configure(port_, "MethodsAllowed=FOO\n");
    Server().Signal(SIGUSR1);
    ASSERT_TRUE(Server().Prints("Signal handling 10"));
    ExpectServes(idle);
    Server().Signal(SIGTERM);
    EXPECT_EQ(Server().Result(), 0);
    EXPECT_EQ(Server().CountOf("mtPrimaryThread="), 1);
}

TEST_F(ServerTest, CannotBeginAgainOnATakenPort) {
    Start();
    const test::Listener taken;
    Configure(taken.Port());
    Server().Signal(SIGUSR1);
    EXPECT_EQ(Server().Result(), -9);
}

TEST_F(ServerTest, AnswersARequestInServiceAfterItBeganAgain) {
    Start("2");
    for (int run = 1; run <= 5; ++run) {
        Client client(port_);
        client.Send("GET /other HTTP/1.1\r\nHo");
        ASSERT_TRUE(Server().Prints("ParseHttpMethodLine ok", run));
        Server().Signal(SIGUSR1);
        ASSERT_TRUE(Server().Prints("mtPrimaryThread=", run + 1));
        client.Send("st: a\r\n\r\n");
        EXPECT_THAT(client.ReadUntilClosed(), testing::EndsWith(kNotFoundPage));
    }
    ExpectServes(port_);
    Server().Signal(SIGTERM);
    EXPECT_EQ(Server().Result(), 0);
}

// In the single-threaded server the thread that handles signals is the one that waits for the client.
TEST_F(ServerTest, IsNotHeldUpByAStalledClient) {
    Start();
    Client stalled(port_);
    stalled.Send("GET /other HTTP/1.1\r\nHo");
    ASSERT_TRUE(Server().Prints("ParseHttpMethodLine ok"));
    Server().Signal(SIGTERM);
    EXPECT_EQ(Server().Result(), 0);
    EXPECT_EQ(stalled.ReadUntilClosed(), "") << "no answer to half a request";
}

TEST_F(ServerTest, FinishesTheRequestBeforeItBeginsAgain) {
    Start();
    Client client(port_);
    client.Send("GET /other HTTP/1.1\r\nHo");
    ASSERT_TRUE(Server().Prints("ParseHttpMethodLine ok"));
    Server().Signal(SIGUSR1);
    ASSERT_TRUE(Server().Prints("handling signal <SIGBUS>"));
    EXPECT_TRUE(client.StaysSilent(milliseconds(0)));
    client.Send("st: a\r\n\r\n");
    EXPECT_THAT(client.ReadUntilClosed(), testing::EndsWith(kNotFoundPage));
    ASSERT_TRUE(Server().Prints("mtPrimaryThread=", 2));
    ExpectServes(port_);
    Server().Signal(SIGTERM);
    EXPECT_EQ(Server().Result(), 0);
}

// A host may leave the caught signals unblocked in threads of its own.
TEST_F(ServerTest, HandlesASignalOfAnotherThreadOnTheServersOwn) {
    Configure(port_);
    Child child([this] {
        static std::atomic<pthread_t> logger{}; // the thread of the handler's line
        cookie_io_functions_t functions{};
        functions.write = [](void*, const char* text, std::size_t size) {
            if (std::string_view(text, size).find("SignalHandler()") != std::string_view::npos) {
                logger = pthread_self();
            }
            return static_cast<ssize_t>(size);
        };
        replaced.readIniFile = [&functions](const char* path, const char* section) {
            outlog = fopencookie(nullptr, "w", functions);
            return __real_ReadIniFile(path, section);
        };
        std::thread other([] {
            Eventually([] { return LoadShared(mtPrimaryThread) != static_cast<ThreadID>(-1); });
            pthread_kill(pthread_self(), SIGTERM);
            EXPECT_TRUE(Eventually([] { return LoadShared(signalled) != 0; }));
        });
        const int result = RunMain({"-c", file_.Path()});
        other.join();
        EXPECT_EQ(logger, pthread_self());
        return result;
    });
    EXPECT_EQ(child.Result(), 0);
    EXPECT_EQ(child.CountOf("\nSignal handling 15"), 1);
}

// Called by a host, and for no signal that the server catches: nothing is passed on.
TEST_F(ServerTest, HandlesAnyOtherNumberWhereItIsCalled) {
    Configure(port_);
    Child child([this] {
        std::thread other([] {
            Eventually([] { return LoadShared(mtPrimaryThread) != static_cast<ThreadID>(-1); });
            for (const int number : {SIGKILL, 0, SIGSEGV, SIGUSR2, 99, -3}) {
                StoreShared(signalled, 0);
                SignalHandler(number);
                EXPECT_EQ(LoadShared(sigerr), number);
                EXPECT_EQ(LoadShared(signalled), 1);
            }
        });
        const int result = RunMain({"-c", file_.Path()});
        other.join();
        return result;
    });
    EXPECT_EQ(child.Result(), 0);
    for (const int number : {0, SIGSEGV, SIGUSR2, SIGKILL, 99, -3}) {
        EXPECT_EQ(child.CountOf("\nSignal handling " + std::to_string(number) + "\n"), 1) << number;
    }
}

TEST_F(ServerTest, ReturnsZeroWhenAHandlerEndsIt) {
    Configure(port_);
    Child child([this] {
        std::thread stopper([] {
            Eventually([] { return LoadShared(mtPrimaryThread) != static_cast<ThreadID>(-1); });
            StoreShared<unsigned char>(ucTerminated, 1);
        });
        const int result = RunMain({"-c", file_.Path(), "-mt", "2"});
        stopper.join();
        return result;
    });
    EXPECT_EQ(child.Result(), 0);
    EXPECT_EQ(child.CountOf("\nucTerminated=1"), 1);
}

} // namespace
