#include "server/service.h"

#include "common/config.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "tests/support/client.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/listener.h"
#include "tests/support/request.h"
#include "tests/support/server_loop.h"
#include "tests/support/serving.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <semaphore>
#include <thread>
#include <vector>

namespace {

using namespace rdx;
using namespace rdx::test;
using testing::HasSubstr;
using testing::Not;

TEST_F(RunHttpServerTest, ServesEachRequestOnAThreadOfItsOwn) {
    constexpr int kClients = 4;
    std::atomic<int> inside = 0;
    std::counting_semaphore<> leave{0};
    replaced.handler = [&](HttpRequest*, char*, unsigned long* length, unsigned char*) {
        EXPECT_NE(PrimaryThreadID(), CurrentThreadID());
        ++inside;
        leave.acquire();
        *length = 0;
        return 0;
    };
    std::atomic<int> passes = 0;
    replaced.pause = [&](useconds_t) { ++passes; };
    LoopRun loop(kClients);
    std::vector<Client> clients;
    for (int i = 0; i < kClients; ++i) clients.push_back(loop.Connect());
    for (int round = 0; round < 3; ++round) {
        // All of them are inside the handler at the same time.
        inside = 0;
        for (Client& client : clients) client.Send(Get("/rDx"));
        ASSERT_TRUE(Eventually([&] { return inside == kClients; })) << round;
        EXPECT_EQ(NumOfThreads(), kClients);
        leave.release(kClients);
        for (Client& client : clients) {
            EXPECT_EQ(client.Read(Answer(200, "").size()), Answer(200, ""));
        }
        ASSERT_TRUE(Serving(0));
        const int harvested = passes + kClients + 1; // a slot in each pass
        ASSERT_TRUE(Eventually([&] { return passes > harvested; }));
    }
    EXPECT_EQ(loop.Stop(), 0);
    for (Client& client : clients) EXPECT_EQ(client.ReadUntilClosed(), "");
}

TEST_F(RunHttpServerTest, TracesItsThreads) {
    ucVerbosity = VERBOSITY_ALL;
    std::atomic<unsigned> thread = 0;
    replaced.handler = [&](HttpRequest*, char*, unsigned long* length, unsigned char*) {
        thread = ThreadNumber();
        *length = 0;
        return 0;
    };
    LoopRun loop(2);
    Client client = loop.Connect();
    client.Send(Get("/rDx", "close"));
    EXPECT_EQ(client.ReadUntilClosed(), Answer(200, ""));
    EXPECT_TRUE(Printed("ThreadTerminate(): remaining threads = (0)"));
    EXPECT_EQ(loop.Stop(), 0);
    const std::string text = Text();
    const int socket = LastHandled();
    const unsigned long primary = loop.ThreadNumberOfLoop();
    for (const std::string& line :
         {ThreadLine("RunHttpServer()", "found activity on server socket", loop.Socket(), primary),
          ThreadLine("RunHttpServer()", "handling service on descriptor", socket, primary),
          ThreadLine("RunHttpServer()", "removed handle from active set", socket, primary),
          ThreadLine("RunHttpServer()", "created thread ID =", static_cast<int>(thread), primary),
          ThreadLine("ServeClientDone()", "client socket closed", socket, thread),
          ThreadLine("ThreadTerminate()", "remaining threads =", 0, thread)}) {
        EXPECT_EQ(Count(text, line), 1U) << line << "\n---" << text;
    }
}

TEST_F(RunHttpServerTest, TracesNoThreadsBelowTheHighestVerbosity) {
    ucVerbosity = VERBOSITY_LOG;
    LoopRun loop(2);
    Client client = loop.Connect();
    client.Send(Get("/other", "close"));
    EXPECT_EQ(client.ReadUntilClosed(), NotFoundAnswer());
    EXPECT_EQ(loop.Stop(), 0);
    for (const char* text : {"created thread ID", "remaining threads", "removed handle", "found activity"}) {
        EXPECT_THAT(Text(), Not(HasSubstr(text)));
    }
}

TEST_F(RunHttpServerTest, EndsWhenNoThreadCanBeStarted) {
    const struct {
        const char* call;
        int error;
    } rows[] = {{"pthread_create", EAGAIN}, {"pthread_attr_setschedpolicy", EPERM}};
    for (const auto& row : rows) {
        ucTerminated = 0;
        LoopRun loop([&row](unsigned server) {
            const FailCall noThread(row.call, 1, row.error);
            const int result = RunHttpServer(server, 3);
            EXPECT_TRUE(noThread.Struck());
            return result;
        });
        Client client = loop.Connect();
        client.Send(Get("/other"));
        EXPECT_EQ(client.ReadUntilClosed(), "") << "closed without an answer";
        EXPECT_EQ(loop.Join(), 0);
        EXPECT_EQ(ucTerminated, 1);
        EXPECT_EQ(NumOfThreads(), 0);
        EXPECT_EQ(TimesClosed(LastHandled()), 1);
        ForgetClosed();
    }
}

// Such a thread runs: the connection is its own, and the loop must leave it alone.
TEST_F(RunHttpServerTest, EndsWhenAThreadCannotBeDetachedButLetsItServe) {
    std::counting_semaphore<> leave{0};
    std::atomic<pthread_t> thread{};
    replaced.handler = [&](HttpRequest*, char*, unsigned long* length, unsigned char*) {
        thread = pthread_self();
        leave.acquire();
        *length = 0;
        return 0;
    };
    LoopRun loop([](unsigned server) {
        const FailCall notDetached("pthread_detach", 1, EINVAL);
        const int result = RunHttpServer(server, 3);
        EXPECT_TRUE(notDetached.Struck());
        return result;
    });
    Client client = loop.Connect();
    client.Send(Get("/rDx"));
    EXPECT_EQ(loop.Join(), 0);
    EXPECT_EQ(ucTerminated, 1);
    leave.release();
    EXPECT_EQ(client.ReadUntilClosed(), Answer(200, ""));
    EXPECT_TRUE(ServingThreadsEnd());
    EXPECT_EQ(TimesClosed(LastHandled()), 1);
    pthread_detach(thread);
}

TEST_F(RunHttpServerTest, EndsTheScanWhenNoThreadCanBeStarted) {
    ucVerbosity = VERBOSITY_LOG;
    std::atomic<bool> bothHaveSent = false;
    int server = -1;
    replaced.select = [&](int count, fd_set* ready, timeval* timeout) {
        const int found = __real_select(count, ready, nullptr, nullptr, timeout);
        if (found <= 0 || bothHaveSent) return found;
        const bool connecting = FD_ISSET(server, ready);
        FD_ZERO(ready); // requests are not seen yet
        if (connecting) FD_SET(server, ready);
        return connecting ? 1 : 0;
    };
    auto listener = std::make_shared<test::Listener>();
    server = listener->Socket();
    LoopRun loop(
        [](unsigned socket) {
            const FailCall noThread("pthread_create", 1, EAGAIN);
            return RunHttpServer(socket, 3);
        },
        listener);
    std::array<Client, 2> clients{loop.Connect(), loop.Connect()};
    for (Client& client : clients) client.Send(Get("/other"));
    ASSERT_TRUE(Eventually([&] { return Count(Text(), "accepted connection") == 2; }));
    bothHaveSent = true;
    for (Client& client : clients) EXPECT_EQ(client.ReadUntilClosed(), "");
    EXPECT_EQ(loop.Join(), 0);
    EXPECT_EQ(Count(Text(), "Handling socket"), 1U);
}

TEST_F(RunHttpServerTest, LeavesAConnectionAloneThatFindsEveryThreadBusy) {
    LoopRun loop(2);
    std::vector<Client> busy;
    for (int i = 0; i < 2; ++i) {
        busy.push_back(loop.Connect());
        busy.back().Send("GET /other HT"); // half a request keeps a thread
    }
    ASSERT_TRUE(Serving(2));
    Client late = loop.Connect();
    late.Send(Get("/other"));
    ASSERT_TRUE(Eventually([&] { return Count(Text(), "Handling socket") == 3; }));
    for (Client& client : busy) {
        client.Send("TP/1.1\r\nHost: a\r\n\r\n");
        EXPECT_EQ(client.Read(NotFoundAnswer().size()), NotFoundAnswer());
    }
    ASSERT_TRUE(Serving(0));
    // Threads are free again and serve, but the late connection is not watched.
    Client next = loop.Connect();
    next.Send(Get("/other", "close"));
    EXPECT_EQ(next.ReadUntilClosed(), NotFoundAnswer());
    EXPECT_TRUE(late.StaysSilent(milliseconds(0)));
    EXPECT_EQ(loop.Stop(), 0);
    EXPECT_EQ(late.ReadUntilClosed(), "");
}

// They are told apart by the descriptors that select reports at once, and only once.
TEST_F(RunHttpServerTest, LeavesEveryConnectionAloneThatThePassFindsReady) {
    ucVerbosity = VERBOSITY_LOG;
    enum { kAll, kServerOnly, kBothOnce };
    std::atomic<int> shown = kAll;
    auto listener = std::make_shared<test::Listener>();
    replaced.select = [&, server = listener->Socket()](int count, fd_set* ready, timeval*) {
        timeval soon{0, 5000};
        const int found = __real_select(count, ready, nullptr, nullptr, &soon);
        if (found <= 0 || shown == kAll) return found;
        if (shown == kBothOnce && found == 2) {
            shown = kServerOnly;
            return found;
        }
        const bool connecting = FD_ISSET(server, ready);
        FD_ZERO(ready);
        if (connecting) FD_SET(server, ready);
        return connecting ? 1 : 0;
    };
    LoopRun loop([](unsigned server) { return RunHttpServer(server, 2); }, listener);
    std::vector<Client> busy;
    for (int i = 0; i < 2; ++i) {
        busy.push_back(loop.Connect());
        busy.back().Send("GET /other HT");
    }
    ASSERT_TRUE(Serving(2));
    ForgetClosed();
    shown = kServerOnly;
    std::array<Client, 2> late{loop.Connect(), loop.Connect()};
    for (Client& client : late) client.Send(Get("/other"));
    ASSERT_TRUE(Eventually([&] { return Count(Text(), "accepted connection") == 4; }));
    shown = kBothOnce;
    EXPECT_TRUE(Eventually([&] { return Count(Text(), "Handling socket") == 4; }));
    EXPECT_EQ(shown, kServerOnly);
    for (Client& client : late) EXPECT_TRUE(client.StaysSilent());
    for (Client& client : busy) client.Close();
    EXPECT_EQ(loop.Stop(), 0);
    for (Client& client : late) EXPECT_EQ(client.ReadUntilClosed(), "");
    for (const auto& [descriptor, times] : TimesClosed()) EXPECT_EQ(times, 1) << descriptor;
}

// A client that has left is closed where it is found, without a thread: all of them are busy here.
TEST_F(RunHttpServerTest, NeedsNoThreadForAClientThatHasLeft) {
    for (const bool reset : {false, true}) {
        for (const unsigned char required : kFlags) {
            ucTerminated = 0;
            ucAuthRequired = required;
            LoopRun loop(2);
            Client kept = loop.Connect();
            std::vector<Client> busy;
            for (int i = 0; i < 2; ++i) {
                busy.push_back(loop.Connect());
                busy.back().Send("GET /other HT");
            }
            ASSERT_TRUE(Serving(2));
            ForgetClosed();
            Client leaving = loop.Connect();
            if (reset) {
                leaving.Reset();
            } else {
                leaving.Close();
            }
            ASSERT_TRUE(Eventually([] { return !TimesClosed().empty(); })) << reset;
            EXPECT_EQ(TimesClosed(LastHandled()), 1);
            EXPECT_TRUE(Printed("\nServeClientDone: Socket closed"));
            EXPECT_EQ(NumOfThreads(), 2);
            for (Client& client : busy) client.Close();
            EXPECT_EQ(loop.Stop(), 0);
            ASSERT_TRUE(ServingThreadsEnd()); // they close connections, too
        }
    }
}

// In junior mode as well, with the traces of that mode.
TEST_F(RunHttpServerTest, NeedsNoThreadForAClientThatHasLeftInJuniorMode) {
    ucVerbosity = VERBOSITY_ALL;
    ucRunAsJunior = 1;
    LoopRun loop(2);
    Client closing = loop.Connect();
    closing.Close();
    EXPECT_TRUE(Printed("FinalizeRequest(): client socket closed"));
    Client resetting = loop.Connect();
    resetting.Reset();
    EXPECT_TRUE(Eventually([&] { return Count(Text(), "FinalizeRequest(): client socket closed") == 2; }));
    EXPECT_THAT(Text(), Not(HasSubstr("created thread ID")));
    EXPECT_THAT(Text(), Not(HasSubstr("ServeClientInStages 2"))) << "nothing was asked";
    EXPECT_EQ(loop.Stop(), 0);
}

TEST_F(RunHttpServerTest, ServesARequestWhoseClientHasEndedItsSide) {
    LoopRun loop(2);
    Client client = loop.Connect();
    client.Send(Get("/other"));
    client.FinishSending();
    EXPECT_EQ(client.ReadUntilClosed(), NotFoundAnswer());
    EXPECT_EQ(loop.Stop(), 0);
}

// What an earlier request was answered may still be on its way: the thread that closes waits for it.
TEST_F(RunHttpServerTest, LetsAThreadCloseWhereAnAnswerIsNotDelivered) {
    constexpr std::size_t kSize = 100'000;
    replaced.handler = Answering(std::string(kSize, 'x'));
    LoopRun loop(2);
    Client client = loop.Connect(4096);
    client.Send(Get("/rDx"));
    ASSERT_TRUE(Printed("ServeClient: HTTP_OK"));
    client.FinishSending();
    const std::string answer = Answer(200, std::string(kSize, 'x'));
    EXPECT_EQ(client.ReadUntilClosed(), answer);
    EXPECT_EQ(loop.Stop(), 0);
}

// One that found no thread is closed when its client has left, also with its request unread.
TEST_F(RunHttpServerTest, ClosesAConnectionWithoutAThreadWhenItsClientHasLeft) {
    LoopRun loop(2);
    std::vector<Client> busy;
    for (int i = 0; i < 2; ++i) {
        busy.push_back(loop.Connect());
        busy.back().Send("GET /other HT");
    }
    ASSERT_TRUE(Serving(2));
    const auto begin = std::chrono::steady_clock::now();
    std::vector<Client> late;
    for (std::size_t i = 0; i < 4; ++i) {
        late.push_back(loop.Connect());
        late.back().Send(Get("/other"));
        ASSERT_TRUE(Eventually([&] { return Count(Text(), "Handling socket") == 3 + i; }));
    }
    ForgetClosed();
    late[0].Close();
    late[1].Reset();
    late[2].FinishSending();
    EXPECT_EQ(late[2].ReadUntilClosed(), "");
    EXPECT_TRUE(Eventually([] { return TimesClosed().size() == 3; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1)) << "looked for too often";
    EXPECT_TRUE(late[3].StaysSilent()) << "its client is there";
    for (const auto& [descriptor, times] : TimesClosed()) EXPECT_EQ(times, 1) << descriptor;
    for (Client& client : busy) client.Close();
    EXPECT_EQ(loop.Stop(), 0);
    EXPECT_EQ(late[3].ReadUntilClosed(), "");
}

// Not before it has what an earlier request was answered: a close would throw that away.
TEST_F(RunHttpServerTest, ClosesAConnectionWithoutAThreadWhenItsAnswerIsDelivered) {
    const std::string answer = Answer(200, std::string(100'000, 'x'));
    replaced.handler = Answering(std::string(100'000, 'x'));
    LoopRun loop(2);
    Client kept = loop.Connect(4096);
    kept.Send(Get("/rDx"));
    ASSERT_TRUE(Printed("ServeClient: HTTP_OK"));
    ASSERT_TRUE(Serving(0));
    std::vector<Client> busy;
    for (int i = 0; i < 2; ++i) {
        busy.push_back(loop.Connect());
        busy.back().Send("GET /other HT");
    }
    ASSERT_TRUE(Serving(2));
    kept.Send(Get("/other"));
    ASSERT_TRUE(Eventually([&] { return Count(Text(), "Handling socket") == 4; }));
    Client other = loop.Connect();
    other.Send(Get("/other"));
    ASSERT_TRUE(Eventually([&] { return Count(Text(), "Handling socket") == 5; }));
    ForgetClosed();
    kept.FinishSending();
    other.Close();
    ASSERT_TRUE(Eventually([] { return TimesClosed().size() == 1; })) << "the loop has looked";
    EXPECT_EQ(kept.ReadUntilClosed(), answer);
    for (Client& client : busy) client.Close();
    EXPECT_EQ(loop.Stop(), 0);
}

// A thread may still be on its way out when its slot is free again.
TEST_F(RunHttpServerTest, GoesByTheNumberOfThreadsToo) {
    std::atomic<int> passes = 0;
    replaced.pause = [&](useconds_t) { ++passes; };
    LoopRun loop(2);
    Client served = loop.Connect();
    served.Send(Get("/other", "close"));
    EXPECT_EQ(served.ReadUntilClosed(), NotFoundAnswer());
    ASSERT_TRUE(Serving(0));
    StoreShared(nThreads, 2);
    Client late = loop.Connect();
    late.Send(Get("/other"));
    ASSERT_TRUE(Eventually([&] { return Count(Text(), "Handling socket") == 2; }));
    const int before = passes; // the pass that writes this goes on to count the threads
    ASSERT_TRUE(Eventually([&] { return passes > before; }));
    StoreShared(nThreads, 1);
    Client next = loop.Connect();
    next.Send(Get("/other", "close"));
    EXPECT_EQ(next.ReadUntilClosed(), NotFoundAnswer());
    EXPECT_TRUE(late.StaysSilent(milliseconds(0)));
    ASSERT_TRUE(Serving(1));
    StoreShared(nThreads, 0);
    EXPECT_EQ(loop.Stop(), 0);
}

TEST_F(RunHttpServerTest, NeverServesMoreRequestsAtOnceThanItsLimit) {
    std::atomic<int> inside = 0;
    replaced.handler = [&](HttpRequest*, char*, unsigned long* length, unsigned char*) {
        EXPECT_LE(++inside, 3);
        EXPECT_LE(NumOfThreads(), 3);
        std::this_thread::yield();
        --inside;
        *length = 0;
        return 0;
    };
    LoopRun loop(3);
    std::vector<std::thread> callers;
    std::atomic<int> answered = 0;
    for (int i = 0; i < 6; ++i) {
        callers.emplace_back([&] {
            for (int call = 0; call < 10; ++call) {
                Client client = loop.Connect();
                client.Send(Get("/rDx", "close"));
                // Unanswered when all threads are busy: then the client gives up.
                const auto patience = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
                while (client.StaysSilent(milliseconds(0)) && std::chrono::steady_clock::now() < patience) {
                    std::this_thread::yield();
                }
                if (!client.StaysSilent(milliseconds(0)) && client.ReadUntilClosed() == Answer(200, ""))
                    ++answered;
            }
        });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_GT(answered, 0);
    EXPECT_EQ(loop.Stop(), 0);
}

// --- loops that end while threads serve ----------------------------------------------------------------

TEST_F(RunHttpServerTest, LetsAServingThreadOutliveItsLoop) {
    auto listener = std::make_shared<test::Listener>();
    const LoopRun::Body body = [](unsigned server) { return RunHttpServer(server, 2); };
    for (int run = 0; run < 20; ++run) {
        SCOPED_TRACE(run);
        StoreShared<unsigned char>(ucTerminated, 0);
        std::optional<LoopRun> first(std::in_place, body, listener);
        Client old = first->Connect();
        Client idle = first->Connect();
        old.Send("GET /other HTTP/1.1\r\nHo");
        ASSERT_TRUE(Serving(1));
        const int oldSocket = LastHandled();
        ASSERT_EQ(first->Stop(), 0);
        EXPECT_EQ(NumOfThreads(), 0);
        EXPECT_EQ(idle.ReadUntilClosed(), "") << "watched connections are closed";
        EXPECT_TRUE(old.StaysSilent(milliseconds(0))) << "the one in service is not";

        StoreShared<unsigned char>(ucTerminated, 0);
        std::optional<LoopRun> second(std::in_place, body, listener);
        std::vector<Client> busy; // the old thread takes none of the new loop's
        for (int i = 0; i < 2; ++i) {
            busy.push_back(second->Connect());
            busy.back().Send("GET /oth");
        }
        ASSERT_TRUE(Serving(2));
        old.Send("st: a\r\n\r\n");
        EXPECT_EQ(old.ReadUntilClosed(), NotFoundAnswer()) << "whole, and closed although it was to be kept";
        EXPECT_EQ(NumOfThreads(), 2) << "the old thread does not count";
        for (Client& client : busy) {
            client.Send("er HTTP/1.1\r\nHost: a\r\n\r\n");
            EXPECT_EQ(client.Read(NotFoundAnswer().size()), NotFoundAnswer());
        }
        ASSERT_TRUE(Serving(0));
        ASSERT_EQ(second->Stop(), 0);
        EXPECT_TRUE(ServingThreadsEnd());
        EXPECT_EQ(NumOfThreads(), 0);
        EXPECT_EQ(TimesClosed(oldSocket), 1);
        ForgetClosed();
    }
}

TEST_F(RunHttpServerTest, LetsAThreadServeWhenNoLoopRunsAnyMore) {
    replaced.handler = Answering(std::string(100000, 'x'));
    for (int run = 0; run < 5; ++run) {
        StoreShared<unsigned char>(ucTerminated, 0);
        LoopRun loop(2);
        Client client = loop.Connect();
        client.Send("GET /rDx HTTP/1.1\r\nHo");
        ASSERT_TRUE(Serving(1));
        ASSERT_EQ(loop.Stop(), 0);
        client.Send("st: a\r\n\r\n");
        EXPECT_EQ(client.ReadUntilClosed(), Answer(200, std::string(100000, 'x')));
        EXPECT_TRUE(ServingThreadsEnd());
        EXPECT_EQ(NumOfThreads(), 0);
    }
}

// A request for termination that comes from a thread of an ended loop has nobody to go to.
TEST_F(RunHttpServerTest, IgnoresARequestForTerminationOfAnOldThread) {
    replaced.handler = [](HttpRequest*, char*, unsigned long* length, unsigned char* terminate) {
        *terminate = 1;
        *length = 0;
        return 0;
    };
    LoopRun first(2);
    Client old = first.Connect();
    old.Send("GET /rDx HTTP/1.1\r\nHo");
    ASSERT_TRUE(Serving(1));
    ASSERT_EQ(first.Stop(), 0);
    StoreShared<unsigned char>(ucTerminated, 0);
    LoopRun second(2);
    old.Send("st: a\r\n\r\n");
    EXPECT_EQ(old.ReadUntilClosed(), Answer(200, ""));
    Client client = second.Connect();
    client.Send(Get("/other", "close"));
    EXPECT_EQ(client.ReadUntilClosed(), NotFoundAnswer()) << "the new loop goes on";
    EXPECT_EQ(LoadShared(ucTerminated), 0);
    EXPECT_EQ(second.Stop(), 0);
}

// The thread puts its connection back while the loop ends: one of the two closes it, and only one.
TEST_F(RunHttpServerTest, ClosesAConnectionOnceThatIsPutBackWhileTheLoopEnds) {
    std::atomic<bool> go = false;
    std::atomic<int> inside = 0;
    replaced.handler = [&](HttpRequest*, char*, unsigned long* length, unsigned char*) {
        ++inside;
        while (!go) std::this_thread::yield();
        *length = 0;
        return 0;
    };
    for (int run = 0; run < 30; ++run) {
        SCOPED_TRACE(run);
        StoreShared<unsigned char>(ucTerminated, 0);
        go = false;
        inside = 0;
        LoopRun loop(4);
        std::vector<Client> clients;
        for (int i = 0; i < 4; ++i) {
            clients.push_back(loop.Connect());
            clients.back().Send(Get("/rDx"));
        }
        ASSERT_TRUE(Eventually([&] { return inside == 4; }));
        std::thread stopper([&] { StoreShared<unsigned char>(ucTerminated, 1); });
        for (int i = 0; i < run * 20; ++i) std::this_thread::yield();
        go = true;
        stopper.join();
        EXPECT_EQ(loop.Join(), 0);
        for (Client& client : clients) EXPECT_EQ(client.ReadUntilClosed(), Answer(200, ""));
        EXPECT_TRUE(ServingThreadsEnd());
        EXPECT_EQ(TimesClosed().size(), 4U);
        for (const auto& [socket, times] : TimesClosed()) EXPECT_EQ(times, 1) << socket;
        ForgetClosed();
    }
}

TEST_F(RunHttpServerTest, AssertsTheNumberOfANewThread) {
    const struct {
        ThreadID thread;
        const char* text;
    } rows[] = {{0, "pSvc->hThreadId != 0L"}, {kNone, "pSvc->hThreadId != ((ThreadID)(-1))"}};
    for (const auto& row : rows) {
        const test::Listener listener;
        Client client(listener.Port());
        client.Send(Get("/other"));
        EXPECT_DEATH(
            {
                replaced.threadCreate = [&row](ThreadID* thread) {
                    *thread = row.thread;
                    return 0;
                };
                RunHttpServer(static_cast<unsigned>(listener.Socket()), 2);
            },
            testing::AllOf(HasSubstr("server/service.cpp:"),
                           HasSubstr("Assertion `" + std::string(row.text) + "' failed.")));
    }
}

} // namespace
