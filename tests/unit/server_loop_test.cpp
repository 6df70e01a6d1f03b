#include "server/service.h"

#include "common/config.h"
#include "common/delivery.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "tests/support/capture.h"
#include "tests/support/client.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/listener.h"
#include "tests/support/reports.h"
#include "tests/support/request.h"
#include "tests/support/server_loop.h"
#include "tests/support/serving.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <sys/resource.h>
#include <vector>

namespace {

using namespace rdx;
using namespace rdx::test;
using testing::HasSubstr;
using testing::Not;

TEST_F(RunHttpServerTest, EndsWhenItIsToTerminate) {
    for (const unsigned threads : {0U, 1U, 4U}) {
        ucTerminated = 0;
        LoopRun loop(threads);
        EXPECT_EQ(loop.Stop(), 0) << threads;
    }
    EXPECT_THAT(Text(), testing::EndsWith("\nucTerminated=1"));
}

TEST_F(RunHttpServerTest, EndsWhenItIsToReconfigureOrWasSignalled) {
    for (const unsigned threads : {1U, 4U}) {
        LoopRun loop(threads);
        StoreShared<unsigned char>(ucReconfigured, 1);
        EXPECT_EQ(loop.Join(), 0);
        EXPECT_EQ(ucReconfigured, 1) << "the caller's to take back";
        ucReconfigured = 0;
        LoopRun signalledLoop(threads);
        StoreShared(signalled, 1);
        EXPECT_EQ(signalledLoop.Join(), 0);
        signalled = 0;
    }
    EXPECT_EQ(Count(Text(), "\nucTerminated=0"), 4U);
}

TEST_F(RunHttpServerTest, DoesNotBeginWhenItIsToEndAlready) {
    replaced.select = [](int, fd_set*, timeval*) {
        ADD_FAILURE() << "waits";
        return 0;
    };
    ucTerminated = 1;
    EXPECT_EQ(LoopRun(1).Join(), 0);
    ucTerminated = 0;
    signalled = 1;
    EXPECT_EQ(LoopRun(4).Join(), 0);
}

TEST_F(RunHttpServerTest, NeedsMemoryForItsSlots) {
    for (int nth = 1; nth <= 3; ++nth) {
        LoopRun loop([nth](unsigned server) {
            const FailCall noMemory("calloc", nth);
            const int result = RunHttpServer(server, 4);
            EXPECT_TRUE(noMemory.Struck());
            return result;
        });
        EXPECT_EQ(loop.Join(), -1);
    }
    EXPECT_THAT(Text(), Not(HasSubstr("ucTerminated")));
}

TEST_F(RunHttpServerTest, RefusesAListeningSocketThatNoSetCanHold) {
    for (const unsigned server : {1024U, 20000U, ~0U}) {
        EXPECT_EQ(RunHttpServer(server, 1), -1) << server;
        EXPECT_EQ(RunHttpServer(server, 4), -1) << server;
    }
}

TEST_F(RunHttpServerTest, ServesOnTheCallingThreadWhateverSlotsWereMadeBefore) {
    LoopRun loop([](unsigned server) {
        EXPECT_EQ(InitializeThreads(4), 0);
        return RunHttpServer(server, 1);
    });
    std::atomic<unsigned> handledBy = 0;
    replaced.handler = [&](HttpRequest*, char*, unsigned long* length, unsigned char*) {
        handledBy = ThreadNumber();
        *length = 0;
        return 0;
    };
    Client client = loop.Connect();
    client.Send(Get("/rDx", "close"));
    EXPECT_EQ(client.ReadUntilClosed(), Answer(200, ""));
    EXPECT_EQ(handledBy, loop.ThreadNumberOfLoop());
    EXPECT_EQ(loop.Stop(), 0);
    EXPECT_EQ(DeinitializeThreads(), 0);
}

TEST_F(RunHttpServerTest, SleepsAMillisecondInEachPassAndTakesItsTimeOutOnce) {
    std::atomic<int> passes = 0;
    std::atomic<bool> polls = false;
    std::vector<long> timeouts;
    replaced.pause = [&](useconds_t microseconds) {
        EXPECT_EQ(microseconds, 1000U);
        ++passes;
    };
    replaced.select = [&](int count, fd_set* ready, timeval* timeout) {
        EXPECT_EQ(count, std::min(getdtablesize(), 1024));
        EXPECT_EQ(passes, static_cast<int>(timeouts.size()) + 1) << "one pause for each wait";
        timeouts.push_back(timeout->tv_sec * 1'000'000 + timeout->tv_usec);
        if (timeouts.back() == 0 && timeouts.size() > 10) polls = true;
        return __real_select(count, ready, nullptr, nullptr, timeout);
    };
    LoopRun loop(1);
    EXPECT_TRUE(Eventually([&] { return polls.load(); }));
    EXPECT_EQ(loop.Stop(), 0);
    ASSERT_GT(timeouts.size(), 10U);
    EXPECT_EQ(timeouts[0], 500000);
    EXPECT_EQ(timeouts[1], 0) << "used up by the first wait";
    EXPECT_TRUE(std::is_sorted(timeouts.rbegin(), timeouts.rend())) << "never set again";
}

TEST_F(RunHttpServerTest, TracesAtEveryVerbosity) {
    for (const int verbosity : kVerbosities) {
        SCOPED_TRACE(verbosity);
        ucTerminated = 0;
        ucVerbosity = static_cast<unsigned char>(verbosity);
        const CaptureStdout capture;
        LoopRun loop(1);
        Client client = loop.Connect();
        client.Send(Get("/other", "close"));
        EXPECT_EQ(client.ReadUntilClosed(), NotFoundAnswer());
        EXPECT_TRUE(
            Eventually([&] { return Count(capture.Text(), "\nServeClientDone: Socket closed") == 1; }));
        EXPECT_EQ(loop.Stop(), 0);
        const std::string text = capture.Text();
        int socket = -1;
        const std::size_t mark = text.find("Handling socket (");
        ASSERT_NE(mark, std::string::npos) << text;
        socket = std::atoi(text.c_str() + mark + 17);
        const std::string number = std::to_string(socket);
        const unsigned long thread = loop.ThreadNumberOfLoop();
        const auto line = [thread](const char* label, const char* message, long value) {
            return ThreadLine(label, message, value, thread);
        };
        EXPECT_THAT(
            WithoutTimes(text),
            HasTracesAt(
                verbosity,
                {{kAlways, "\n[TIME],InitThreadLib(): running POSIX threads (0)\nmtPrimaryThread=" +
                               std::to_string(static_cast<int>(thread))},
                 {kDetail, line("RunHttpServer()", "found activity on server socket", loop.Socket())},
                 {kProgress, "\n[TIME],RunHttpServer(): accepted connection from 127.0.0.1 (clnt socket "
                             "handle = " +
                                 number + ")"},
                 {kAlways, "\nHttpServer: Handling socket (" + number + ")"},
                 {kDetail, line("RunHttpServer()", "handling service on descriptor", socket)},
                 {kDetail, line("RunHttpServer()", "removed handle from active set", socket)},
                 {kDetail, line("ReadHttpReqHeaders()", "got request line from socket, len =", 19)},
                 {kAlways, kRead},
                 {kAlways, "\nConsumeHttpRequest: szPeerName = 127.0.0.1:" + std::to_string(client.Port())},
                 {kAlways, "ServeClient: HTTP_NOT_FOUND"},
                 {kProgress, line("ServeClient()", "sent bytes successfully",
                                  static_cast<long>(NotFoundAnswer().size()))},
                 {kDetail, line("ServeClientDone()", "client socket closed", socket)},
                 {kAlways, "\nServeClientDone: Socket closed"},
                 {kAlways, "\nucTerminated=1"}}));
    }
}

TEST_F(RunHttpServerTest, LogsConnectionsWhereTheLogGoes) {
    ucVerbosity = VERBOSITY_LOG;
    char* text = nullptr;
    std::size_t size = 0;
    outlog = open_memstream(&text, &size);
    LoopRun loop(1);
    Client client = loop.Connect();
    client.Send(Get("/other", "close"));
    EXPECT_EQ(client.ReadUntilClosed(), NotFoundAnswer());
    EXPECT_EQ(loop.Stop(), 0);
    std::fclose(std::exchange(outlog, nullptr));
    EXPECT_THAT(text, HasSubstr("accepted connection from 127.0.0.1"));
    EXPECT_THAT(Text(), Not(HasSubstr("accepted connection")));
    std::free(text);
}

TEST_F(RunHttpServerTest, ServesOneRequestAtATimeOnItsOwnThread) {
    std::atomic<unsigned> handledBy = 0;
    std::atomic<int> running = 0;
    replaced.handler = [&](HttpRequest*, char*, unsigned long* length, unsigned char*) {
        EXPECT_EQ(++running, 1);
        handledBy = ThreadNumber();
        EXPECT_EQ(NumOfThreads(), 0);
        EXPECT_EQ(PrimaryThreadID(), CurrentThreadID());
        *length = 0;
        --running;
        return 0;
    };
    LoopRun loop(1);
    std::vector<Client> clients;
    for (int i = 0; i < 4; ++i) clients.push_back(loop.Connect());
    for (int round = 0; round < 3; ++round) {
        for (Client& client : clients) client.Send(Get("/rDx"));
        for (Client& client : clients) {
            EXPECT_EQ(client.Read(Answer(200, "").size()), Answer(200, ""));
        }
    }
    EXPECT_EQ(handledBy, loop.ThreadNumberOfLoop());
    EXPECT_EQ(loop.Stop(), 0);
    for (Client& client : clients)
        EXPECT_EQ(client.ReadUntilClosed(), "") << "kept ones are closed at the end";
}

TEST_F(RunHttpServerTest, ServesSuccessiveRequestsOfOneConnection) {
    replaced.handler = Answering("body");
    for (const unsigned threads : {1U, 3U}) {
        ucTerminated = 0;
        LoopRun loop(threads);
        Client client = loop.Connect();
        for (int i = 0; i < 20; ++i) {
            client.Send(Get("/rDx", i < 19 ? "keep-alive" : "close"));
            EXPECT_EQ(client.Read(Answer(200, "body").size()), Answer(200, "body")) << i;
        }
        EXPECT_EQ(client.ReadUntilClosed(), "");
        EXPECT_EQ(loop.Stop(), 0);
    }
}

TEST_F(RunHttpServerTest, GoesOnWhenAcceptFails) {
    for (const unsigned threads : {1U, 3U}) {
        ucTerminated = 0;
        LoopRun loop([threads](unsigned server) {
            const FailCall aborted("accept", 1, ECONNABORTED);
            TakeReports();
            const int result = RunHttpServer(server, threads);
            EXPECT_TRUE(aborted.Struck());
            EXPECT_EQ(TakeReports(), std::vector<std::string>{"RunHttpServer(): accept failed"});
            return result;
        });
        Client client = loop.Connect();
        client.Send(Get("/other", "close"));
        EXPECT_EQ(client.ReadUntilClosed(), NotFoundAnswer());
        EXPECT_EQ(loop.Stop(), 0);
    }
}

TEST_F(RunHttpServerTest, ServesNobodyInThePassInWhichAcceptFails) {
    auto listener = std::make_shared<test::Listener>();
    const int server = listener->Socket();
    std::atomic<bool> armed = false;
    std::atomic<int> turn = 0;
    std::atomic<std::size_t> servedInThatPass = 99;
    replaced.select = [&](int count, fd_set* ready, timeval*) {
        if (turn == 1) {
            turn = 2;
            servedInThatPass = static_cast<std::size_t>(Count(Text(), "Handling socket"));
        }
        timeval soon{0, 5000};
        const int found = __real_select(count, ready, nullptr, nullptr, &soon);
        if (found <= 0 || FD_ISSET(server, ready)) return found;
        if (!armed) { // the request is not seen yet
            FD_ZERO(ready);
            return 0;
        }
        if (turn == 0) { // and now together with a connection that is not there
            turn = 1;
            FD_SET(server, ready);
            return found + 1;
        }
        return found;
    };
    ucVerbosity = VERBOSITY_LOG;
    LoopRun loop(
        [](unsigned socket) {
            const FailCall failing("accept", 2, EAGAIN); // the first one is the client's
            const int result = RunHttpServer(socket, 1);
            EXPECT_TRUE(failing.Struck());
            return result;
        },
        listener);
    Client client = loop.Connect();
    client.Send(Get("/other", "close"));
    ASSERT_TRUE(Eventually([&] { return Count(Text(), "accepted connection") > 0; }));
    armed = true;
    EXPECT_EQ(client.ReadUntilClosed(), NotFoundAnswer());
    EXPECT_EQ(servedInThatPass, 0U);
    EXPECT_EQ(loop.Stop(), 0);
}

TEST_F(RunHttpServerTest, GoesOnWhenSelectFails) {
    std::atomic<int> failures = 0;
    replaced.select = [&](int count, fd_set* ready, timeval* timeout) {
        if (failures++ < 5) {
            errno = EINTR;
            return -1;
        }
        return __real_select(count, ready, nullptr, nullptr, timeout);
    };
    LoopRun loop(1);
    Client client = loop.Connect();
    client.Send(Get("/other", "close"));
    EXPECT_EQ(client.ReadUntilClosed(), NotFoundAnswer());
    EXPECT_GE(failures, 5);
    EXPECT_EQ(loop.Stop(), 0);
}

TEST_F(RunHttpServerTest, EndsWhenSelectSpeaksOfDescriptorsThatNobodyKnows) {
    for (const unsigned threads : {1U, 3U}) {
        ucTerminated = 0;
        replaced.select = [](int, fd_set* ready, timeval*) {
            FD_ZERO(ready);
            return 1;
        };
        LoopRun loop(threads);
        EXPECT_EQ(loop.Join(), 0);
        EXPECT_EQ(ucTerminated, 1);
    }
}

TEST_F(RunHttpServerTest, ClosesARefusedClientAtOnce) {
    ucVerbosity = VERBOSITY_ALL;
    replaced.granted = [] { return 0; };
    LoopRun loop(1);
    Client client = loop.Connect();
    client.Send(Get("/rDx"));
    EXPECT_EQ(client.ReadUntilClosed(), "");
    EXPECT_EQ(loop.Stop(), 0);
    EXPECT_THAT(Text(), Not(HasSubstr("Handling socket")));
    EXPECT_THAT(Text(), Not(HasSubstr("accepted connection")));
}

TEST_F(RunHttpServerTest, ClosesAConnectionThatNoSetCanHold) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit raised = before;
    raised.rlim_cur = std::min<rlim_t>(before.rlim_max, 4096);
    if (raised.rlim_cur < 1100 || setrlimit(RLIMIT_NOFILE, &raised) != 0) {
        GTEST_SKIP() << "descriptors are limited to " << before.rlim_max;
    }
    for (const unsigned threads : {1U, 3U}) {
        ucTerminated = 0;
        LoopRun loop(threads);
        std::vector<int> taken;
        while (taken.empty() || taken.back() < FD_SETSIZE) taken.push_back(dup(0));
        Client refused = loop.Connect();
        EXPECT_TRUE(refused.Connected());
        EXPECT_EQ(refused.ReadUntilClosed(), "");
        for (const int descriptor : taken) close(descriptor);
        Client served = loop.Connect();
        served.Send(Get("/other", "close"));
        EXPECT_EQ(served.ReadUntilClosed(), NotFoundAnswer());
        EXPECT_EQ(loop.Stop(), 0);
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(RunHttpServerTest, EndsWhenAHandlerAsksForIt) {
    replaced.handler = [](HttpRequest*, char*, unsigned long* length, unsigned char* terminate) {
        *terminate = 1;
        *length = 0;
        return 0;
    };
    for (const unsigned threads : {1U, 3U}) {
        for (const int verbosity : kVerbosities) {
            ucTerminated = 0;
            ucVerbosity = static_cast<unsigned char>(verbosity);
            const CaptureStdout capture;
            LoopRun loop(threads);
            Client client = loop.Connect();
            client.Send(Get("/rDx"));
            EXPECT_EQ(client.ReadUntilClosed(), Answer(200, "")) << "the answer is sent before";
            EXPECT_EQ(loop.Join(), 0);
            EXPECT_EQ(ucTerminated, 1);
            const std::string text = WithoutTimes(capture.Text());
            EXPECT_THAT(text, HasSubstr("\nucTerminated=1"));
            EXPECT_EQ(Count(text, "UpdateServerStatus(): termination request from thread ID= ("),
                      verbosity > kDetail ? 1U : 0U);
            EXPECT_EQ(Count(text, "ServeClient(): termination request from handle = ("),
                      verbosity > kProgress ? 1U : 0U);
        }
    }
}

// The flag of one request must not be taken for the next one's.
// Sets both requests of the slot that was used, on the loop's thread, once nobody serves.
TEST_F(RunHttpServerTest, ClearsTheRequestsOfASlotBeforeItIsUsedAgain) {
    for (const unsigned threads : {1U, 2U}) {
        ucTerminated = 0;
        std::atomic<unsigned char*> requests = nullptr; // ucTerminate and, behind it, ucReconfigure
        std::atomic<bool> soiled = false;
        int quietPasses = 0;
        replaced.handler = [&](HttpRequest*, char*, unsigned long* length, unsigned char* terminate) {
            EXPECT_EQ(terminate[0], 0);
            EXPECT_EQ(terminate[1], 0);
            requests = terminate;
            *length = 0;
            return 0;
        };
        replaced.pause = [&](useconds_t) {
            if (requests == nullptr || NumOfThreads() != 0 || soiled || ++quietPasses < 5) return;
            requests.load()[0] = requests.load()[1] = 1;
            soiled = true;
        };
        LoopRun loop(threads);
        for (int i = 0; i < 2; ++i) {
            Client client = loop.Connect();
            client.Send(Get("/rDx", "close"));
            EXPECT_EQ(client.ReadUntilClosed(), Answer(200, ""));
            ASSERT_TRUE(Eventually([&] { return soiled.load(); }));
        }
        EXPECT_EQ(LoadShared(ucTerminated), 0) << "nobody asked for it";
        EXPECT_EQ(LoadShared(ucReconfigured), 0);
        EXPECT_EQ(loop.Stop(), 0);
    }
}

constexpr int kSmallBuffer = 4096; // bytes

// The answer of a connection that is to be kept may still be on its way when the loop ends.
TEST_F(RunHttpServerTest, LosesNothingOfAnAnswerWhenItEnds) {
    const std::string body(130000, 'x');
    replaced.handler = [&](HttpRequest*, char* out, unsigned long* length, unsigned char* terminate) {
        *length = body.copy(out, *length);
        *terminate = 1;
        return 0;
    };
    for (const unsigned threads : {1U, 3U}) {
        StoreShared<unsigned char>(ucTerminated, 0);
        LoopRun loop(threads);
        Client client = loop.Connect(kSmallBuffer);
        client.Send(Get("/rDx"));
        ASSERT_TRUE(Eventually([] { return LoadShared(ucTerminated) != 0; }));
        EXPECT_EQ(client.ReadUntilClosed(), Answer(200, body));
        EXPECT_EQ(loop.Join(), 0);
    }
}

TEST_F(RunHttpServerTest, DoesNotWaitLongForPeersThatReadNothingWhenItEnds) {
    std::atomic<int> answered = 0;
    replaced.handler = [&](HttpRequest*, char* out, unsigned long* length, unsigned char*) {
        std::memset(out, 'x', 130000);
        *length = 130000;
        ++answered;
        return 0;
    };
    LoopRun loop(1);
    std::vector<Client> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(loop.Connect(kSmallBuffer));
        clients.back().Send(Get("/rDx"));
    }
    ASSERT_TRUE(Eventually([&] { return answered == 5; }));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(loop.Stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4 * kDeliveryPatienceMs))
        << "one patience for each";
}

} // namespace
