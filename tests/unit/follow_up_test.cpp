#include "server/service.h"

#include "common/config.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "tests/support/admin_server.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/handlers.h"
#include "tests/support/serving.h"
#include "tests/support/staged_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace rdx;
using namespace std::string_literals;
using namespace rdx::test;
using testing::HasSubstr;
using testing::Not;

using TwoStagesTest = StagedTest;

TEST_F(TwoStagesTest, AcknowledgesAndPostsTheResult) {
    const AdminServer admin(kTaken);
    Use(admin);
    replaced.handler = Answering("<wddxPacket/>");
    const CaptureStdout quiet;
    const int descriptors = OpenDescriptors();
    {
        Serving serving;
        EXPECT_EQ(Serve(serving, Get(kTicketUri)), 0);
        EXPECT_EQ(serving.Received(), kTicketAnswer);
        EXPECT_TRUE(serving.IsClosed());
        EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
    }
    EXPECT_EQ(admin.Request(), FollowUp("vsFollowUpSuccess&SvcTicket=42", "<wddxPacket/>"));
    EXPECT_EQ(admin.FollowUps()[0].peer, Here());
    EXPECT_EQ(TimesClosed(lastConnect->socket), 1);
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors() == descriptors; }));
}

TEST_F(TwoStagesTest, PostsWhateverComesOfTheHandler) {
    const struct {
        int handled;
        const char* command;
        std::string body;
    } rows[] = {
        {0, "vsFollowUpSuccess", "output"},      {1, "vsFollowUpFailure", kBadPage},
        {400, "vsFollowUpFailure", kBadPage},    {-1, "vsFollowUpFailure", kErrorPage},
        {-401, "vsFollowUpFailure", kErrorPage}, {-404, "vsFollowUpFailure", kErrorPage},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.handled);
        const AdminServer admin(kTaken);
        Use(admin);
        replaced.handler = [&](HttpRequest*, char* out, unsigned long* length, unsigned char*) {
            *length = "output"s.copy(out, *length);
            return row.handled;
        };
        const CaptureStdout quiet;
        Serving serving;
        EXPECT_EQ(Serve(serving, Get(kTicketUri)), 0);
        EXPECT_EQ(serving.Received(), kTicketAnswer);
        EXPECT_EQ(admin.Request(), FollowUp(row.command + "&SvcTicket=42"s, row.body));
    }
}

TEST_F(TwoStagesTest, PostsAnEmptyResult) {
    const AdminServer admin(kTaken);
    Use(admin);
    replaced.handler = Answering("");
    const CaptureStdout quiet;
    Serving serving;
    EXPECT_EQ(Serve(serving, Get(kTicketUri)), 0);
    EXPECT_EQ(admin.Request(), FollowUp("vsFollowUpSuccess&SvcTicket=42", ""));
}

TEST_F(TwoStagesTest, PostsARealMethodsResult) {
    const AdminServer admin(kTaken);
    Use(admin);
    const CaptureStdout quiet;
    Serving serving;
    EXPECT_EQ(Serve(serving, VersionCall("&SvcTicket=42")), 0);
    EXPECT_EQ(serving.Received(), kTicketAnswer);
    EXPECT_THAT(admin.Request(), HasSubstr(" /VServer?FunctionName=vsFollowUpSuccess&SvcTicket=42 "));
    EXPECT_THAT(admin.Request(), HasSubstr("<number>100</number>"));
}

TEST_F(TwoStagesTest, SendsTheTerminatorBehindAcknowledgeAndFollowUp) {
    ucEntityTerminator = 1;
    std::strcpy(szEntityTerminator, "END");
    const AdminServer admin(kTaken, AdminServer::Then::StayOpen, 3);
    Use(admin);
    replaced.handler = Answering("result");
    const CaptureStdout quiet;
    Serving serving;
    EXPECT_EQ(Serve(serving, Get(kTicketUri)), 0);
    EXPECT_EQ(serving.Received(), kTicketAnswer + "END");
    EXPECT_EQ(admin.Request(), FollowUp("vsFollowUpSuccess&SvcTicket=42", "result") + "END");
}

TEST_F(TwoStagesTest, ReadsTheTicketsNumber) {
    replaced.handler = Answering("x");
    const struct {
        std::string query;
        std::string ticket; // empty: served in one stage
    } rows[] = {
        {"SvcTicket=42", "42"},
        {"SvcTicket=0", "0"},
        {"SvcTicket=007", "7"},
        {"SvcTicket=4294967295", "4294967295"},
        {"SvcTicket=4294967296", "4294967295"},
        {"SvcTicket=99999999999999999999", "4294967295"},
        {"SvcTicket=-1", "4294967295"},
        {"SvcTicket=+7", "7"},
        {"SvcTicket=12abc", "12"},
        {"SvcTicket=abc", "0"},
        {"FunctionName=f&SvcTicket=42&more=1", "42"},
        {"xSvcTicket=42", "42"},
        {"SvcTicket=" + std::string(63, '9'), "4294967295"},
        {"SvcTicket=" + std::string(64, '9'), ""},
        {"SvcTicket=", ""},
        {"SvcTicket=&SvcTicket=42", ""},
        {"SvcTicket", ""},
        {"svcTicket=42", ""},
        {"", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.query);
        const CaptureStdout quiet;
        lastFunction.clear();
        Serving serving;
        Serve(serving, Get("/rDx?" + row.query));
        EXPECT_EQ(serving.Received(), Answer(200, row.ticket.empty() ? "x" : Acknowledge(row.ticket)));
        EXPECT_EQ(lastFunction, row.ticket.empty() ? "" : "vsFollowUpSuccess&SvcTicket=" + row.ticket);
    }
}

// When the handler is called the client has its acknowledge and its connection is out of the service's hands.
TEST_F(TwoStagesTest, AcknowledgesBeforeItHandles) {
    for (const unsigned char keep : kFlags) {
        const CaptureStdout quiet;
        Serving serving;
        serving.call.ucKeepAlive = keep;
        int calls = 0;
        replaced.handler = [&](HttpRequest* request, char* out, unsigned long* length,
                               unsigned char* terminate) {
            ++calls;
            EXPECT_EQ(request->pszUri, kTicketUri);
            EXPECT_EQ(*length, 132096UL);
            EXPECT_EQ(std::string(out, *length), std::string(132096, '\0'));
            EXPECT_EQ(terminate, &serving.call.ucTerminate);
            EXPECT_EQ(serving.Received(), kTicketAnswer);
            EXPECT_EQ(serving.IsWatched(), keep == 1);
            EXPECT_EQ(serving.IsClosed(), keep == 0);
            EXPECT_EQ(serving.call.iSvcStatus, SERVICE_RUNNING);
            return 0;
        };
        Serve(serving, Get(kTicketUri));
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(serving.Received(), "") << "nothing more for this request";
        EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
        EXPECT_EQ(serving.IsWatched(), keep == 1);
        EXPECT_EQ(serving.IsClosed(), keep == 0);
    }
}

// The acknowledge goes by what is left in the slot; only then the request's wish counts, for the next one.
TEST_F(TwoStagesTest, LeavesAWishToKeepInTheSlot) {
    const struct {
        unsigned char left;
        const char* wish;
        unsigned char after;
    } rows[] = {{0, "close", 0}, {0, "keep-alive", 1}, {1, "close", 1}, {1, "keep-alive", 1}};
    for (const auto& row : rows) {
        for (const int handled : {0, 1, -1}) {
            replaced.handler = Failing(handled);
            const CaptureStdout quiet;
            Serving serving;
            serving.call.ucKeepAlive = row.left;
            Serve(serving, Get(kTicketUri, row.wish));
            EXPECT_EQ(serving.IsWatched(), row.left == 1);
            EXPECT_EQ(serving.call.ucKeepAlive, row.after);
        }
    }
}

TEST_F(TwoStagesTest, GoesOnWhenTheAcknowledgeCouldNotBeSent) {
    const AdminServer admin(kTaken);
    Use(admin);
    replaced.handler = Answering("result");
    const CaptureStdout quiet;
    Serving serving;
    serving.call.ucKeepAlive = 1;
    serving.Send(Get(kTicketUri));
    serving.CloseClient();
    EXPECT_EQ(Serve(serving), 0);
    EXPECT_TRUE(serving.IsClosed());
    EXPECT_FALSE(serving.IsWatched());
    EXPECT_EQ(admin.Request(), FollowUp("vsFollowUpSuccess&SvcTicket=42", "result"));
}

TEST_F(TwoStagesTest, RefusesATicketWithoutMemoryForTheAcknowledge) {
    const CaptureStdout quiet;
    replaced.handler = [](HttpRequest*, char*, unsigned long*, unsigned char*) {
        ADD_FAILURE() << "the request is not handled";
        return 0;
    };
    for (const unsigned char keep : kFlags) {
        Serving serving;
        serving.call.ucKeepAlive = keep;
        serving.Send(Get(kTicketUri));
        const FailCall noMemory("calloc", 2); // the first one is the request's
        EXPECT_EQ(Serve(serving), static_cast<long>(NoResourcesAnswer().size()));
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(serving.Received(), NoResourcesAnswer());
        EXPECT_EQ(serving.IsWatched(), keep == 1);
    }
    EXPECT_FALSE(lastConnect);
}

TEST_F(TwoStagesTest, KnowsWhatTheAdministrationServerAnswered) {
    const struct {
        const char* why;
        std::string answer;
        long status;
    } rows[] = {
        {"taken", kTaken, 0},
        {"taken without a body", "HTTP/1.0 200 OK\r\nServer: a\r\n\r\n", 0},
        {"not found", "HTTP/1.1 404 Not found\r\nServer: a\r\nContent-length: 3\r\n\r\nabc", -5},
        {"failed", "HTTP/1.1 500 Internal Server Error\r\nServer: a\r\n\r\n", -5},
        {"another success", "HTTP/1.1 201 Created\r\nServer: a\r\n\r\n", -5},
        {"closed without a word", "", -4},
        {"rubbish", "rubbish\r\n\r\n", -4},
        {"half a status line", "HTTP/1.1 20", -4},
        {"half an answer", "HTTP/1.1 200 OK\r\nServer: a\r\nContent-length: 5\r\n\r\nta", -4},
        {"an unknown header", "HTTP/1.1 200 OK\r\nX-Custom: 1\r\n\r\n", -4},
    };
    const CaptureStdout quiet;
    const int descriptors = OpenDescriptors();
    for (const auto& row : rows) {
        const AdminServer admin(row.answer);
        Use(admin);
        EXPECT_EQ(StatusOfFollowUp(), row.status) << row.why;
        EXPECT_EQ(admin.Request(), FollowUp("vsFollowUpSuccess&SvcTicket=42", "result")) << row.why;
        EXPECT_EQ(TimesClosed(lastConnect->socket), 1) << row.why;
    }
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors() == descriptors; }));
}

TEST_F(TwoStagesTest, TakesTheAnswerOfAServerThatKeepsTheConnection) {
    const AdminServer admin(kTaken, AdminServer::Then::StayOpen);
    Use(admin);
    const CaptureStdout quiet;
    for (int turn = 0; turn < 3; ++turn) EXPECT_EQ(StatusOfFollowUp(), 0) << "the local port is free again";
    EXPECT_EQ(admin.FollowUps().size(), 3U);
}

TEST_F(TwoStagesTest, FailsWithoutAnAdministrationServer) {
    const CaptureStdout quiet;
    EXPECT_EQ(StatusOfFollowUp(), -3) << "refused";
    EXPECT_EQ(lastConnect->socket, -1);
    StoreSharedText(szAdminServerHost, "admin.example");
    EXPECT_EQ(StatusOfFollowUp(), -3) << "not an address";
    StoreSharedText(szAdminServerHost, "127.0.0.1");
    StoreSharedText(szConfigSvcAddr, "192.0.2.1");
    EXPECT_EQ(StatusOfFollowUp(), -3) << "not an address of this machine";
    StoreSharedText(szConfigSvcAddr, "www");
    EXPECT_EQ(StatusOfFollowUp(), -3) << "not an address";
}

TEST_F(TwoStagesTest, FailsWhileAnotherFollowUpHoldsTheLocalPort) {
    const AdminServer admin(kTaken, AdminServer::Then::StayOpen);
    Use(admin);
    int other = -1;
    ASSERT_EQ(__real_CreateClntSocketExt(szConfigSvcAddr,
                                         static_cast<unsigned short>(std::atoi(szConfigSvcPort) + 1),
                                         "127.0.0.1", static_cast<unsigned short>(admin.Port()), &other),
              0);
    const CaptureStdout quiet;
    EXPECT_EQ(StatusOfFollowUp(), -3);
    close(other);
    EXPECT_EQ(StatusOfFollowUp(), 0);
}

TEST_F(TwoStagesTest, FailsWithoutCredentials) {
    StoreSharedText(szAuthInfo, "");
    const AdminServer admin(kTaken);
    Use(admin);
    const CaptureStdout quiet;
    EXPECT_EQ(StatusOfFollowUp(), -4);
    EXPECT_TRUE(Eventually([&] { return admin.FollowUps().size() == 1; }));
    EXPECT_EQ(admin.Request(), "");
    EXPECT_EQ(TimesClosed(lastConnect->socket), 1);
}

TEST_F(TwoStagesTest, WaitsForASilentAdministrationServer) {
    AdminServer admin("", AdminServer::Then::StayOpen);
    Use(admin);
    replaced.handler = Answering("result");
    const CaptureStdout quiet;
    Serving serving;
    std::atomic<long> status = 4711;
    std::thread service([&] {
        serving.call.hThreadId = CurrentThreadID();
        mtPrimaryThread = CurrentThreadID();
        status = Serve(serving, Get(kTicketUri));
    });
    EXPECT_TRUE(Eventually([&] { return admin.FollowUps().size() == 1; }));
    EXPECT_EQ(serving.Received(), kTicketAnswer);
    EXPECT_EQ(LoadShared(serving.call.iSvcStatus), SERVICE_RUNNING);
    EXPECT_EQ(status, 4711);
    admin.HangUp();
    service.join();
    EXPECT_EQ(status, -4);
    EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
}

// In the single-threaded server nothing else could end the wait.
TEST_F(TwoStagesTest, EndsTheWaitForASilentAdministrationServerByATerminatingSignal) {
    AdminServer admin("", AdminServer::Then::StayOpen);
    Use(admin);
    const CaptureStdout quiet;
    std::thread([&] {
        const test::Handlers handlers;
        const SignalsInWindowsOnly signals;
        mtPrimaryThread = CurrentThreadID();
        const pthread_t thread = pthread_self();
        std::thread terminating([&] {
            EXPECT_TRUE(Eventually([&] { return admin.FollowUps().size() == 1; }));
            pthread_kill(thread, SIGTERM);
        });
        EXPECT_EQ(StatusOfFollowUp(), -4);
        EXPECT_EQ(test::handledSignals, 1);
        terminating.join();
    }).join();
}

TEST_F(TwoStagesTest, NamesTheLocalPortByTheServicesPort) {
    const CaptureStdout quiet;
    const struct {
        const char* service;
        int localPort;
    } rows[] = {
        {"8080", 8081}, {"80", 81}, {"www", 1}, {"", 1}, {"0", 1}, {" 80x", 81}, {"-1", 0}, {"65534", 65535},
    };
    StoreSharedText(szConfigSvcAddr, "192.0.2.1"); // nothing is bound
    for (const auto& row : rows) {
        StoreSharedText(szConfigSvcPort, row.service);
        EXPECT_EQ(StatusOfFollowUp(), -3);
        EXPECT_EQ(lastConnect->localAddress, "192.0.2.1");
        EXPECT_EQ(lastConnect->localPort, row.localPort) << row.service;
        EXPECT_EQ(lastConnect->remoteAddress, "127.0.0.1");
        EXPECT_EQ(lastConnect->remotePort, static_cast<int>(uiAdminServerPort));
    }
}

TEST_F(TwoStagesTest, DoesNotConnectFromOrToWhatIsNoPort) {
    const CaptureStdout quiet;
    StoreSharedText(szConfigSvcAddr, "192.0.2.1"); // nothing is bound
    const struct {
        const char* service;
        unsigned admin;
    } rows[] = {{"65535", 80},        {"65536", 80},   {"2147483647", 80}, {"99999999999", 80},  {"-2", 80},
                {"-99999999999", 80}, {"8080", 65536}, {"8080", 65616},    {"8080", 4294967295U}};
    for (const auto& row : rows) {
        StoreSharedText(szConfigSvcPort, row.service);
        StoreShared(uiAdminServerPort, row.admin);
        lastConnect.reset();
        EXPECT_EQ(StatusOfFollowUp(), -3) << row.service << " " << row.admin;
        EXPECT_FALSE(lastConnect) << row.service << " " << row.admin;
    }
}

// The port is privileged on most systems, and only root's there.
bool CanBindPortOne() {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = LoopbackAddress(1);
    const int on = 1;
    const bool bound = setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                       bind(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return bound;
}

TEST_F(TwoStagesTest, PostsFromPortOneForAServiceThatIsNamed) {
    const AdminServer admin(kTaken);
    Use(admin);
    StoreSharedText(szConfigSvcPort, "www");
    const CaptureStdout quiet;
    if (!CanBindPortOne()) {
        EXPECT_EQ(StatusOfFollowUp(), -3);
        return;
    }
    EXPECT_EQ(StatusOfFollowUp(), 0);
    EXPECT_EQ(admin.FollowUps()[0].peer, OwnAddress() + ":1");
}

TEST_F(TwoStagesTest, FailsWhenTheFollowUpCannotBeBuilt) {
    const AdminServer admin(kTaken);
    Use(admin);
    const CaptureStdout quiet;
    for (int result = -7; result < 0; ++result) {
        replaced.build = [&](HttpRequest*) { return result; };
        EXPECT_EQ(StatusOfFollowUp(), -2);
    }
    EXPECT_FALSE(lastConnect);
    EXPECT_TRUE(admin.FollowUps().empty());
}

TEST_F(TwoStagesTest, FailsWhenTheResultIsTooLongToBeSent) {
    const AdminServer admin(kTaken);
    Use(admin);
    const CaptureStdout quiet;
    for (const std::size_t size : {std::size_t{SERVICE_BUFFER_SIZE - 1}, std::size_t{SERVICE_BUFFER_SIZE}}) {
        replaced.handler = Answering(std::string(size, 'x'));
        Serving serving;
        EXPECT_EQ(Serve(serving, Get(kTicketUri)), -4);
        EXPECT_EQ(serving.Received(), kTicketAnswer);
    }
}

TEST_F(TwoStagesTest, TracesAtEveryVerbosity) {
    const AdminServer admin(kTaken);
    Use(admin);
    const std::string uri = "/VServer?FunctionName=vsFollowUpSuccess&SvcTicket=42";
    replaced.handler = [](HttpRequest*, char* out, unsigned long* length, unsigned char* terminate) {
        *terminate = 1;
        *length = "50% <result>\n"s.copy(out, *length);
        return 0;
    };
    for (const int verbosity : kVerbosities) {
        for (const unsigned char keep : kFlags) {
            SCOPED_TRACE(verbosity);
            ucVerbosity = static_cast<unsigned char>(verbosity);
            const CaptureStdout capture;
            Serving serving;
            serving.call.ucKeepAlive = keep;
            EXPECT_EQ(Serve(serving, Get(kTicketUri)), 0);
            const int socket = serving.call.hSocket;
            const long sent = static_cast<long>(kTicketAnswer.size());
            EXPECT_THAT(
                WithoutTimes(capture.Text()),
                HasTracesAt(
                    verbosity,
                    {{kDetail, ThreadLine("ReadHttpReqHeaders()", "got request line from socket, len =", 30)},
                     {kAlways, kRead + Consumed(200)},
                     {kProgress, ThreadLine("FinalizeRequest()", "sent bytes successfully", sent)},
                     {kDetail,
                      ThreadLine("FinalizeRequest()",
                                 keep == 1 ? "added handle to active set again" : "client socket closed",
                                 socket)},
                     {kProgress,
                      ThreadLine("ServeClientInStages()", "termination request from handle =", socket)},
                     {kAlways, StringLine("body is", "50% <result>\n")},
                     {kAlways, StringLine("rewritten URI", uri)}}));
            EXPECT_EQ(serving.call.ucTerminate, 1);
        }
    }
}

TEST_F(TwoStagesTest, TracesNoBodyOfAFailure) {
    for (const int result : {1, -1}) {
        replaced.handler = Failing(result);
        const CaptureStdout capture;
        Serving serving;
        Serve(serving, Get(kTicketUri));
        const std::string traces = WithoutTimes(capture.Text());
        EXPECT_THAT(traces, HasLines({StringLine("rewritten URI",
                                                 "/VServer?FunctionName=vsFollowUpFailure&SvcTicket=42")}));
        EXPECT_THAT(traces, Not(HasSubstr("body is")));
    }
}

// Whatever allocation fails, the client is answered or closed and the slot finished, and nothing leaks. The
// two texts that a follow-up cannot be without are assertions.
TEST_F(TwoStagesTest, SurvivesEveryFailedAllocation) {
    replaced.handler = Answering("result");
    constexpr int kAsserted = 2;
    for (const char* allocator : {"malloc", "calloc"}) {
        bool struck = true;
        int asserted = 0;                  // the first allocation whose failure is an assertion
        for (int nth = 0; struck; ++nth) { // 0: none fails
            ASSERT_LT(nth, 200);
            if (allocator[0] == 'm' && asserted > 0 && nth >= asserted && nth < asserted + kAsserted)
                continue;
            const AdminServer admin(kTaken);
            Use(admin);
            const CaptureStdout quiet;
            Serving serving;
            serving.Send(Get(kTicketUri));
            const int before = CallsOf("malloc");
            const FailCall noMemory(allocator, nth);
            const long status = Serve(serving);
            struck = nth == 0 || noMemory.Struck();
            if (nth == 0) asserted = mallocsBeforeBuilding - before + 1;
            EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
            EXPECT_TRUE(serving.IsClosed());
            const std::string answer = serving.Received();
            if (answer == kTicketAnswer) {
                EXPECT_LE(status, 0) << allocator << " " << nth;
                EXPECT_GE(status, -4) << allocator << " " << nth;
                EXPECT_TRUE(status != -2 || admin.FollowUps().empty()) << allocator << " " << nth;
            } else {
                EXPECT_EQ(status, answer.empty() ? -2 : static_cast<long>(answer.size()));
            }
            if (!struck) {
                EXPECT_EQ(status, 0);
                EXPECT_GT(nth, 3);
            }
        }
    }
}

} // namespace
