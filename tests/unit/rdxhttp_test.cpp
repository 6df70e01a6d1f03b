#include "server/rdxhttp.h"

#include "common/config.h"
#include "common/log.h"
#include "common/portability_sockets.h"
#include "common/signal_windows.h"
#include "rDxsd/rDxsd.h"
#include "server/service.h"
#include "tests/support/capture.h"
#include "tests/support/client.h"
#include "tests/support/entry.h"
#include "tests/support/faults.h"
#include "tests/support/free_port.h"
#include "tests/support/listener.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <string>

namespace {

using namespace rdx;
using namespace rdx::test;
using testing::HasSubstr;
using testing::Not;

// --- small entries -------------------------------------------------------------------------------------

TEST_F(RdxHttpTest, InstanceFunctionsDoNothing) {
    Arguments arguments{"-x"};
    const CaptureStdout capture;
    EXPECT_EQ(rDxHttpCreateInstance(arguments.argc(), arguments.argv()), 0);
    EXPECT_EQ(rDxHttpCreateInstance(0, nullptr), 0);
    EXPECT_EQ(rDxHttpDeinitialize(), 0);
    EXPECT_EQ(AssertCrt(), 0);
    EXPECT_EQ(OpenLogfile("/nowhere/log"), 0);
    EXPECT_EQ(OpenLogfile(nullptr), 0);
    EXPECT_EQ(capture.Text(), "");
    EXPECT_FALSE(std::filesystem::exists("/nowhere"));
}

TEST_F(RdxHttpTest, ExitFunctionSaysGoodbye) {
    for (const int verbosity : kVerbosities) {
        ucVerbosity = static_cast<unsigned char>(verbosity);
        const CaptureStdout capture;
        ExitFunction();
        EXPECT_EQ(WithoutTimes(capture.Text()), "\n[TIME],ExitFunction(): program exits (0)");
    }
}

// A stream that counts how often it was closed.
FILE* CountingStream(int* closed) {
    cookie_io_functions_t functions{};
    functions.close = [](void* cookie) {
        ++*static_cast<int*>(cookie);
        return 0;
    };
    return fopencookie(closed, "w", functions);
}

TEST_F(RdxHttpTest, CloseLogfileSetsTheStandardStreamsBack) {
    errlog = nullptr;
    outlog = nullptr;
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(errlog, StdErr);
    EXPECT_EQ(outlog, StdOut);
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(errlog, StdErr);
    EXPECT_EQ(outlog, StdOut);
    EXPECT_GE(fileno(stderr), 0) << "not closed";
    EXPECT_GE(fileno(stdout), 0);
}

TEST_F(RdxHttpTest, CloseLogfileClosesOtherStreams) {
    int errors = 0;
    int log = 0;
    errlog = CountingStream(&errors);
    outlog = StdOut;
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(errors, 1);
    EXPECT_EQ(errlog, StdErr);

    outlog = CountingStream(&log);
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(log, 1);
    EXPECT_EQ(outlog, StdOut);

    errlog = CountingStream(&errors);
    outlog = CountingStream(&log);
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(errors, 2);
    EXPECT_EQ(log, 2);
}

TEST_F(RdxHttpTest, CloseLogfileClosesAStreamOfBothLogsOnce) {
    int closed = 0;
    errlog = outlog = CountingStream(&closed);
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(closed, 1);
    EXPECT_EQ(errlog, StdErr);
    EXPECT_EQ(outlog, StdOut);
}

// Each stream is spared by the log that it is the standard of, and only by that.
TEST_F(RdxHttpTest, CloseLogfileClosesTheErrorStreamAsALog) {
    Child child([] {
        errlog = outlog = StdErr;
        EXPECT_EQ(CloseLogfile(), 0);
        EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFD), -1);
        EXPECT_EQ(errlog, StdErr);
        EXPECT_EQ(outlog, StdOut);
        return 0;
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpTest, CloseLogfileDoesNotCareWhetherClosingFailed) {
    outlog = std::fopen("/dev/full", "w");
    ASSERT_NE(outlog, nullptr);
    std::fputs("lost", outlog);
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(outlog, StdOut);
}

// --- the start -----------------------------------------------------------------------------------------

using RdxHttpMainTest = RdxHttpTest;

TEST_F(RdxHttpMainTest, BeginsWithItsDefaults) {
    Child child([] {
        ReplaceAll(VERBOSITY_WARN);
        nMaxThreads = 9;
        uiAdminServerPort = 9;
        uiReconfigurations = 9;
        ucRunAsJunior = 1;
        replaced.readIniFile = [](const char* path, const char* section) {
            EXPECT_STREQ(path, "/etc/tnd.ini");
            EXPECT_STREQ(section, "HTTP");
            EXPECT_EQ(uiAdminServerPort, 0U);
            EXPECT_EQ(ucRunAsJunior, 0);
            EXPECT_EQ(errlog, StdErr);
            EXPECT_EQ(outlog, StdOut);
            return 0;
        };
        const time_t before = time(nullptr);
        EXPECT_EQ(RunMain({}), 0);
        EXPECT_EQ(nMaxThreads, 1);
        EXPECT_EQ(uiReconfigurations, 0U);
        EXPECT_GE(server_start_time, static_cast<unsigned>(before));
        EXPECT_LE(server_start_time, static_cast<unsigned>(time(nullptr)));
        return 0;
    });
    EXPECT_EQ(child.Result(), 0);
    EXPECT_EQ(child.Output(), "\n[TIME],main(): rdxhttp_main (0)"
                              "\n[TIME],main(): running single threaded server (1)"
                              "\n<dump>\n<listen www 5>\n<serve 1>");
}

TEST_F(RdxHttpMainTest, TracesAtEveryVerbosity) {
    for (const int verbosity : kVerbosities) {
        for (const char* configured : {"www", "8090"}) {
            Child child([verbosity, configured] {
                ReplaceAll(verbosity);
                replaced.readIniFile = [verbosity, configured](const char*, const char*) {
                    ucVerbosity = static_cast<unsigned char>(verbosity);
                    std::strcpy(szConfigSvcPort, configured);
                    return 0;
                };
                return RunMain({});
            });
            EXPECT_EQ(child.Result(), 0);
            const bool log = verbosity > VERBOSITY_WARN;
            const std::string port = configured;
            std::string expected = "\n[TIME],main(): rdxhttp_main (0)"
                                   "\n[TIME],main(): running single threaded server (1)";
            if (log) {
                expected += "\n[TIME],InitSignalHandling(): signal handler installed (10)"
                            "\n[TIME],main(): socket library initialized (0)";
            }
            expected += "\n<dump>";
            if (log && port != "www") {
                expected += "\n[TIME],main(): warning - svc port from config file overrides cmdline or "
                            "default param <8090>";
            }
            expected += "\n<listen " + port + " 5>";
            if (log) expected += "\n[TIME],main(): server socket created (0)";
            expected += "\n<serve 1>";
            if (log) expected += "\n[TIME],main(): ordinary HTTP server shutdown (0)";
            EXPECT_EQ(child.Output(), expected);
        }
    }
}

TEST_F(RdxHttpMainTest, AlwaysTakesTheConfiguredPort) {
    for (const int verbosity : kVerbosities) {
        Child child([verbosity] {
            ReplaceAll(verbosity);
            return RunMain({"-p", "8080"});
        });
        EXPECT_EQ(child.Result(), 0);
        EXPECT_THAT(child.Output(), HasSubstr("\n<listen www 5>"));
        EXPECT_EQ(child.CountOf("main(): warning - svc port from config file overrides cmdline or default "
                                "param <www>"),
                  verbosity > VERBOSITY_WARN ? 1 : 0);
    }
}

TEST_F(RdxHttpMainTest, SaysHowManyThreadsServe) {
    for (const int verbosity : kVerbosities) {
        Child child([verbosity] {
            ReplaceAll(verbosity);
            return RunMain({"-mt", "8"});
        });
        EXPECT_EQ(child.Result(), 0);
        const std::string line = "\n[TIME],main(): MT server - maximum concurrency level = (8) [tid=";
        EXPECT_THAT(child.Output(), HasSubstr(line));
        EXPECT_THAT(child.Output(), HasSubstr("\n<serve 8>"));
        EXPECT_THAT(child.Output(), Not(HasSubstr("single threaded")));
    }
    for (const char* few : {"0", "-3", "1"}) {
        Child child([few] {
            ReplaceAll(VERBOSITY_NONE);
            return RunMain({"-mt", few});
        });
        EXPECT_EQ(child.Result(), 0);
        EXPECT_THAT(child.Output(), HasSubstr("\n[TIME],main(): running single threaded server (1)"));
        EXPECT_THAT(child.Output(), HasSubstr("\n<serve 1>"));
    }
}

TEST_F(RdxHttpMainTest, RunsAsJuniorWithAnAdministrationServer) {
    Child child([] {
        ReplaceAll(VERBOSITY_WARN);
        replaced.readIniFile = [](const char*, const char*) {
            EXPECT_EQ(ucRunAsJunior, 1) << "before the file is read";
            std::memset(szConfigAuthInfo, 'x', 48);
            szConfigAuthInfo[48] = '\0';
            return 0;
        };
        EXPECT_EQ(RunMain({"-as", "admin:8080", "-ba", "replaced"}), 0);
        EXPECT_EQ(ucRunAsJunior, 1);
        EXPECT_STREQ(szAdminServerHost, "admin");
        EXPECT_EQ(uiAdminServerPort, 8080U);
        EXPECT_EQ(szAuthInfo, "Basic " + std::string(48, 'x'));
        return 0;
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpMainTest, IsNoJuniorOtherwise) {
    for (const bool port0 : {false, true}) {
        Child child([port0] {
            ReplaceAll(VERBOSITY_WARN);
            EXPECT_EQ(port0 ? RunMain({"-as", "admin:0", "-ba", "kept"}) : RunMain({"-ba", "kept"}), 0);
            EXPECT_EQ(ucRunAsJunior, 0);
            EXPECT_STREQ(szAuthInfo, "Basic kept");
            return 0;
        });
        EXPECT_EQ(child.Result(), 0);
    }
}

TEST_F(RdxHttpMainTest, RefusesABadCommandLineBeforeItReadsAFile) {
    replaced.readIniFile = [](const char*, const char*) {
        ADD_FAILURE() << "reads the file";
        return 0;
    };
    const CaptureStdout capture;
    EXPECT_EQ(RunMain({"-x"}), -1);
    EXPECT_EQ(RunMain({"-p"}), -1);
    EXPECT_EQ(RunMain({"-as", "host:port"}), -1);
    EXPECT_EQ(RunMain({"-ba", std::string(27, 'x')}), -1);
    const std::string line = "\n[TIME],main(): rdxhttp_main (0)";
    EXPECT_EQ(WithoutTimes(capture.Text()), line + line + line + line);
}

TEST_F(RdxHttpMainTest, NeedsItsConfiguration) {
    const IniFile bad("[HTTP]\nVerbosity=LOUD\n");
    const CaptureStdout quiet;
    EXPECT_EQ(RunMain({"-c", bad.Path() + ".missing"}), -2);
    EXPECT_EQ(RunMain({"-c", ""}), -2);
    EXPECT_EQ(RunMain({"-c", bad.Path()}), -2);
    const IniFile good;
    const FailCall unreadable("fopen", 1, EMFILE);
    EXPECT_EQ(RunMain({"-c", good.Path()}), -2);
    EXPECT_TRUE(unreadable.Struck());
}

TEST_F(RdxHttpMainTest, LeavesTheLogStreamsWhenItCannotStart) {
    const CaptureStdout quiet;
    replaced.readIniFile = [](const char*, const char*) {
        outlog = stderr;
        return -4;
    };
    EXPECT_EQ(RunMain({}), -2);
    EXPECT_EQ(outlog, stderr);
}

TEST_F(RdxHttpMainTest, TakesALogfileForGranted) {
    Child child([] {
        ReplaceAll(VERBOSITY_WARN);
        replaced.readIniFile = [](const char*, const char*) {
            std::strcpy(szConfigLogfile, "/nowhere/log");
            return 0;
        };
        return RunMain({});
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpMainTest, NeedsItsSignals) {
    for (int nth = 1; nth <= 5; ++nth) {
        Child child([nth] {
            ReplaceAll(VERBOSITY_WARN);
            const FailCall refused("sigaction", nth, EINVAL);
            return RunMain({});
        });
        EXPECT_EQ(child.Result(), -6) << nth;
        EXPECT_THAT(child.Output(), Not(HasSubstr("<dump>")));
    }
}

TEST_F(RdxHttpMainTest, NeedsTheSocketLibrary) {
    Child child([] {
        ReplaceAll(VERBOSITY_ALL);
        replaced.initSockLib = [] { return 1; };
        return RunMain({});
    });
    EXPECT_EQ(child.Result(), -7);
    EXPECT_THAT(child.Output(), Not(HasSubstr("socket library initialized")));
    EXPECT_THAT(child.Output(), Not(HasSubstr("<dump>")));
}

TEST_F(RdxHttpMainTest, NeedsItsServicePort) {
    const test::Listener taken;
    const IniFile busy("[HTTP]\nServicePort=" + std::to_string(taken.Port()) + "\n");
    const IniFile unknown("[HTTP]\nServicePort=nosuchsvc\n");
    for (const IniFile* file : {&busy, &unknown}) {
        Child child([file] { return RunMain({"-c", file->Path()}); });
        EXPECT_EQ(child.Result(), -9);
        EXPECT_THAT(child.Output(), HasSubstr("DumpConfiguration-\n"));
        EXPECT_THAT(child.Output(), Not(HasSubstr("ucTerminated")));
    }
}

TEST_F(RdxHttpMainTest, NeedsItsServiceLoop) {
    const IniFile file("[HTTP]\nServicePort=" + std::to_string(test::FreePort()) +
                       "\nVerbosity=VERBOSITY_ALL\n");
    for (int nth = 1; nth <= 3; ++nth) {
        Child child([&file, nth] {
            std::optional<FailCall> noMemory;
            int server = -1;
            replaced.runHttpServer = [&](unsigned socket, unsigned threads) {
                server = static_cast<int>(socket);
                noMemory.emplace("calloc", nth);
                return __real_RunHttpServer(socket, threads);
            };
            const int result = RunMain({"-c", file.Path(), "-mt", "4"});
            EXPECT_TRUE(noMemory->Struck());
            EXPECT_EQ(fcntl(server, F_GETFD), -1) << "the service port is closed";
            return result;
        });
        EXPECT_EQ(child.Result(), -10) << nth;
        EXPECT_THAT(child.Output(), Not(HasSubstr("ordinary HTTP server shutdown")));
    }
}

TEST_F(RdxHttpMainTest, MustBeAbleToCloseItsServicePort) {
    Child child([] {
        ReplaceAll(VERBOSITY_ALL);
        const FailCall stuck("close", 1, EIO);
        const int result = RunMain({});
        EXPECT_TRUE(stuck.Struck());
        return result;
    });
    EXPECT_EQ(child.Result(), -11);
    EXPECT_THAT(child.Output(), testing::EndsWith("main(): ordinary HTTP server shutdown (0)"));
}

TEST_F(RdxHttpMainTest, BeginsAgainAfterAReconfiguration) {
    for (const int verbosity : kVerbosities) {
        Child child([verbosity] {
            ReplaceAll(verbosity);
            int loops = 0;
            replaced.runHttpServer = [&loops](unsigned socket, unsigned) {
                EXPECT_GE(fcntl(static_cast<int>(socket), F_GETFD), 0);
                std::printf("\n<serve>");
                ++loops;
                ucReconfigured = loops < 3;
                if (loops == 2) std::strcpy(szConfigSvcPort, "8090");
                return 0;
            };
            EXPECT_EQ(RunMain({}), 0);
            EXPECT_EQ(ucReconfigured, 0);
            return 0;
        });
        EXPECT_EQ(child.Result(), 0);
        const std::string output = child.Output();
        const bool log = verbosity > VERBOSITY_WARN;
        const auto loop = [log](const std::string& port) {
            std::string text = "\n<listen " + port + " 5>";
            if (log) text += "\n[TIME],main(): server socket created (0)";
            text += "\n<serve>";
            if (log) text += "\n[TIME],main(): ordinary HTTP server shutdown (0)";
            return text;
        };
        const std::string event = log ? "\n[TIME],main(): Tavrin reconfiguration event (0)" : "";
        const std::string warning = log ? "\n[TIME],main(): warning - svc port from config file overrides "
                                          "cmdline or default param <8090>"
                                        : "";
        EXPECT_THAT(output, testing::EndsWith("\n<dump>" + loop("www") + event + "\n<dump>" + loop("www") +
                                              event + "\n<dump>" + warning + loop("8090")));
    }
}

TEST_F(RdxHttpMainTest, RestoresTheLogStreams) {
    for (const bool errors : {false, true}) {
        Child child([errors] {
            ReplaceAll(VERBOSITY_WARN);
            int closed = 0;
            replaced.runHttpServer = [&](unsigned, unsigned) {
                (errors ? errlog : outlog) = CountingStream(&closed);
                return 0;
            };
            EXPECT_EQ(RunMain({}), 0);
            EXPECT_EQ(closed, 1);
            EXPECT_EQ(errlog, StdErr);
            EXPECT_EQ(outlog, StdOut);
            return 0;
        });
        EXPECT_EQ(child.Result(), 0);
    }
}

TEST_F(RdxHttpMainTest, DumpsToTheLog) {
    Child child([] {
        ReplaceAll(VERBOSITY_WARN);
        int closed = 0;
        FILE* const log = CountingStream(&closed);
        replaced.readIniFile = [log](const char*, const char*) {
            outlog = log;
            return 0;
        };
        replaced.dumpConfiguration = [log](FILE* stream) {
            EXPECT_EQ(stream, log);
            return 0;
        };
        return RunMain({});
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpMainTest, LeavesTheLogStreamsWhenItCannotServe) {
    for (const int result : {-7, -9, -10}) {
        Child child([result] {
            ReplaceAll(VERBOSITY_WARN);
            int closed = 0;
            FILE* const log = CountingStream(&closed);
            replaced.readIniFile = [log](const char*, const char*) {
                outlog = log;
                return 0;
            };
            replaced.dumpConfiguration = [](FILE*) { return 0; };
            if (result == -7) replaced.initSockLib = [] { return 1; };
            if (result == -9) replaced.createSrvSocket = [](const char*, int, int*) { return -1; };
            if (result == -10) replaced.runHttpServer = [](unsigned, unsigned) { return 1; };
            EXPECT_EQ(RunMain({}), result);
            EXPECT_EQ(outlog, log);
            EXPECT_EQ(closed, 0);
            return 0;
        });
        EXPECT_EQ(child.Result(), 0) << result;
    }
}

// The host may hold any lock by then.
TEST_F(RdxHttpMainTest, OnlyNotesSignalsOnceItHasEnded) {
    Child child([] {
        ReplaceAll(VERBOSITY_ALL);
        replaced.runHttpServer = [](unsigned, unsigned) {
            raise(SIGUSR1); // waits, for there is no window
            return 0;
        };
        EXPECT_EQ(RunMain({}), 0);
        EXPECT_EQ(ucReconfigured, 0);
        const CaptureStdout capture;
        raise(SIGUSR1);
        EXPECT_EQ(signalled, 0);
        for (const int number : {SIGTERM, SIGBUS, SIGSYS, SIGHUP}) {
            signalled = 0;
            raise(number);
            EXPECT_EQ(sigerr, number);
            EXPECT_EQ(signalled, 1);
        }
        EXPECT_EQ(ucReconfigured, 0);
        EXPECT_EQ(capture.Text(), "");
        return 0;
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpMainTest, RestoresTheSignalMask) {
    Child child([] {
        ReplaceAll(VERBOSITY_WARN);
        sigset_t before;
        sigemptyset(&before);
        sigaddset(&before, SIGUSR1);
        sigaddset(&before, SIGALRM);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        replaced.runHttpServer = [](unsigned, unsigned) {
            sigset_t now;
            pthread_sigmask(SIG_BLOCK, nullptr, &now);
            for (const int number : {SIGTERM, SIGBUS, SIGSYS, SIGHUP, SIGUSR1, SIGALRM}) {
                EXPECT_EQ(sigismember(&now, number), 1) << number;
            }
            return 0;
        };
        EXPECT_EQ(RunMain({}), 0);
        sigset_t after;
        pthread_sigmask(SIG_BLOCK, nullptr, &after);
        for (int number = 1; number < 32; ++number) {
            EXPECT_EQ(sigismember(&after, number), number == SIGALRM ? 1 : 0) << number;
        }
        return 0;
    });
    EXPECT_EQ(child.Result(), 0);
}

} // namespace
