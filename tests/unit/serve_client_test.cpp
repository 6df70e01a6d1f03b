#include "server/service.h"

#include "common/config.h"
#include "common/portability_sockets.h"
#include "rDxsd/rDxsd.h"
#include "tests/support/capture.h"
#include "tests/support/client.h"
#include "tests/support/faults.h"
#include "tests/support/listener.h"
#include "tests/support/request.h"
#include "tests/support/service.h"
#include "tests/support/serving.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <thread>

namespace {

using namespace rdx;
using namespace rdx::test;
using testing::HasSubstr;
using testing::Not;

using ServeClientTest = ServiceTest;

struct ServedRow {
    const char* why;
    std::string request;
    std::string answer;
    std::string trace; // behind what is printed while the request is read
};

TEST_F(ServeClientTest, AnswersWhatTheParserRefuses) {
    const std::string bad = "\nServeClient: HTTP_BAD_REQUEST\nServeClient-: HTTP_BAD_REQUEST 0";
    const std::string error = "ServeClient: HTTP_INTERNAL_SERVER_ERROR";
    const std::string invalid = BadRequestAnswer();
    const std::string notAllowed = NotAllowedAnswer();
    const ServedRow rows[] = {
        {"no protocol", "GET /x\r\n\r\n", invalid, "\nParsing: method ok (1)" + bad},
        {"no header", "GET /x HTTP/1.0\r\n\r\n", invalid, kRead + bad},
        {"two CRs", "GET /x HTTP/1.1\r\r\n", invalid, bad},
        {"a line of 512 characters", "GET /" + std::string(507, 'x') + "\r\n", invalid, bad},
        {"length 0", "POST /rDx HTTP/1.1\r\nContent-length: 0\r\n\r\n", invalid, kRead + bad},
        {"unknown method", "FOO /x HTTP/1.1\r\n", notAllowed, "ServeClient: HTTP_METHOD_NOT_ALLOWED"},
        {"forbidden method", "PUT /x HTTP/1.1\r\n", notAllowed,
         "\nParsing: method ok (0)ServeClient: HTTP_METHOD_NOT_ALLOWED"},
        {"unknown header", "GET /x HTTP/1.1\r\nX-Custom: 1\r\n", ServerErrorAnswer(), kRead + error},
        {"unknown protocol", "GET /x FTP/1.0\r\n", ServerErrorAnswer(), "\nParsing: method ok (1)" + error},
        {"unknown version", "GET /x HTTP/2.0\r\n", ServerErrorAnswer(), "\nParsing: method ok (1)" + error},
    };
    for (const ServedRow& row : rows) {
        SCOPED_TRACE(row.why);
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(Serve(serving, row.request), static_cast<long>(row.answer.size()));
        EXPECT_EQ(serving.Received(), row.answer);
        EXPECT_THAT(capture.Text(), HasLines({row.trace, "\nServeClientDone: Socket closed"}));
        EXPECT_TRUE(serving.IsClosed());
        EXPECT_FALSE(serving.IsWatched());
        EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
    }
}

TEST_F(ServeClientTest, AsksForCredentials) {
    ucAuthRequired = 1;
    std::strcpy(szConfigAuthInfo, "dXNlcjpwYXNz");
    const CaptureStdout capture;
    Serving without;
    EXPECT_EQ(Serve(without, Get("/other")), static_cast<long>(UnauthorizedAnswer().size()));
    EXPECT_EQ(without.Received(), UnauthorizedAnswer());
    EXPECT_THAT(capture.Text(),
                HasLines({kRead, "ConsumeHttpRequest: no auth", "ServeClient: HTTP_UNAUTHORIZED",
                          "ServeClientDone: Socket closed"}));
    Serving with;
    Serve(with, "GET /other HTTP/1.1\r\nAuthorization: Basic dXNlcjpwYXNz\r\n\r\n");
    EXPECT_EQ(with.Received(), NotFoundAnswer());
}

TEST_F(ServeClientTest, AnswersEveryOutcomeOfAHandler) {
    const std::string bad = "\nServeClient: HTTP_BAD_REQUEST\nServeClient-: HTTP_BAD_REQUEST 0";
    const struct {
        int handled;
        std::string answer;
        std::string trace;
    } rows[] = {
        {400, BadRequestAnswer(), bad},
        {1, BadRequestAnswer(), bad},
        {-401, UnauthorizedAnswer(), "ServeClient: HTTP_UNAUTHORIZED"},
        {-6, ServerErrorAnswer(), "ServeClient: HTTP_INTERNAL_SERVER_ERROR"},
        {-404, ServerErrorAnswer(), "ServeClient: HTTP_INTERNAL_SERVER_ERROR"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.handled);
        replaced.handler = Failing(row.handled);
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(Serve(serving, Get("/rDx", "close")), static_cast<long>(row.answer.size()));
        EXPECT_EQ(serving.Received(), row.answer);
        EXPECT_THAT(capture.Text(), HasLines({kRead, row.trace, "\nServeClientDone: Socket closed"}));
        EXPECT_TRUE(serving.IsClosed());
    }
}

TEST_F(ServeClientTest, AnswersWithTheHandlersOutput) {
    for (const std::string uri : {"/rDx", "/rdx", "/RDXanything"}) {
        replaced.handler = Answering("<wddxPacket/>");
        const CaptureStdout capture;
        Serving serving;
        Serve(serving, Get(uri));
        EXPECT_EQ(serving.Received(), Answer(200, "<wddxPacket/>")) << uri;
        EXPECT_THAT(capture.Text(), HasLines({kRead, "ServeClient: HTTP_OK"}));
    }
    for (const std::string uri : {"/rD", "/other", "/"}) {
        const CaptureStdout capture;
        Serving serving;
        Serve(serving, Get(uri));
        EXPECT_EQ(serving.Received(), NotFoundAnswer()) << uri;
        EXPECT_THAT(capture.Text(),
                    HasLines({kRead, "ServeClient: HTTP_NOT_FOUND\nServeClientDone: Socket closed"}));
    }
}

TEST_F(ServeClientTest, SendsAnEmptyOutputWithoutALength) {
    replaced.handler = Answering("");
    const CaptureStdout quiet;
    Serving serving;
    Serve(serving, Get("/rDx"));
    EXPECT_EQ(serving.Received(), Answer(200, ""));
}

TEST_F(ServeClientTest, ServesARealMethod) {
    const CaptureStdout capture;
    Serving serving;
    Serve(serving, "POST /rDx?FunctionName=rdxGetVersion HTTP/1.1\r\nContent-length: " +
                       std::to_string(std::strlen(kVersionArguments)) + "\r\n\r\n" + kVersionArguments);
    const std::string answer = serving.Received();
    const std::size_t body = answer.find("\r\n\r\n") + 4;
    EXPECT_EQ(answer, Answer(200, answer.substr(body)));
    EXPECT_THAT(answer, HasSubstr("<number>100</number>"));
    EXPECT_THAT(capture.Text(), HasSubstr("\nrDxProcessCall: Req=rdxGetVersion\n"));
}

TEST_F(ServeClientTest, GivesTheHandlerARoomOf129KiB) {
    replaced.handler = [](HttpRequest*, char* out, unsigned long* length, unsigned char*) {
        EXPECT_EQ(*length, 132096UL);
        EXPECT_EQ(std::string(out, *length), std::string(132096, '\0'));
        return -1;
    };
    const CaptureStdout quiet;
    Serving serving;
    Serve(serving, Get("/rDx"));
}

// The largest output that the answer's own buffer has room for, and one byte more.
TEST_F(ServeClientTest, SendsAnOutputUpToTheSizeOfTheAnswersBuffer) {
    const std::size_t head = Answer(200, std::string(131000, 'x')).size() - 131000;
    const std::size_t most = SERVICE_BUFFER_SIZE - 2 - head;
    const CaptureStdout capture;
    for (const std::size_t size : {most, most + 1}) {
        replaced.handler = Answering(std::string(size, 'x'));
        Serving serving;
        std::string received;
        std::atomic<bool> done = false;
        serving.Send(Get("/rDx"));
        std::thread reader([&] {
            while (!done) received += serving.Received();
            received += serving.Received();
        });
        const long status = Serve(serving);
        done = true;
        reader.join();
        EXPECT_EQ(status, size == most ? static_cast<long>(head + most) : -3);
        EXPECT_EQ(received, size == most ? Answer(200, std::string(size, 'x')) : "");
        EXPECT_EQ(serving.IsWatched(), size == most);
        EXPECT_EQ(serving.IsClosed(), size != most);
    }
}

TEST_F(ServeClientTest, EndsAFullOutputWithANul) {
    replaced.handler = [](HttpRequest*, char* out, unsigned long* length, unsigned char*) {
        std::memset(out, 'x', *length);
        return 0; // all of it
    };
    const CaptureStdout quiet;
    Serving serving;
    lastByte = -1;
    EXPECT_EQ(Serve(serving, Get("/rDx")), -3) << "no room for the head";
    EXPECT_EQ(lastByte, 0);
    EXPECT_TRUE(serving.IsClosed());
}

TEST_F(ServeClientTest, SendsTheEntityTerminatorBehindTheAnswer) {
    ucEntityTerminator = 1;
    std::strcpy(szEntityTerminator, "END");
    const CaptureStdout quiet;
    Serving serving;
    Serve(serving, Get("/other"));
    EXPECT_EQ(serving.Received(), NotFoundAnswer() + "END");
}

TEST_F(ServeClientTest, SendsNothingWhenThePeerClosedBeforeARequest) {
    const CaptureStdout capture;
    Serving serving;
    serving.call.ucKeepAlive = 1;
    serving.EndSending();
    EXPECT_EQ(Serve(serving), -1);
    EXPECT_EQ(serving.Received(), "");
    EXPECT_THAT(capture.Text(), HasLines({"\nServeClientDone: Socket closed"}));
    EXPECT_TRUE(serving.IsClosed());
    EXPECT_FALSE(serving.IsWatched());
}

// Whether credentials are wanted is no matter to a client that did not ask for anything.
TEST_F(ServeClientTest, SendsNothingToAClosedConnectionAlsoWhenCredentialsAreRequired) {
    ucAuthRequired = 1;
    for (const unsigned char keep : kFlags) {
        const CaptureStdout quiet;
        Serving serving;
        serving.call.ucKeepAlive = keep;
        serving.EndSending();
        EXPECT_EQ(Serve(serving), -1);
        EXPECT_EQ(serving.Received(), "");
        EXPECT_TRUE(serving.IsClosed());
        EXPECT_FALSE(serving.IsWatched());
    }
}

TEST_F(ServeClientTest, SendsNothingWhenReceivingFailed) {
    const CaptureStdout capture;
    Serving serving;
    serving.Send(Get("/other"));
    const FailCall reset("recv", 1, ECONNRESET);
    EXPECT_EQ(Serve(serving), -1);
    EXPECT_TRUE(reset.Struck());
    EXPECT_EQ(serving.Received(), "");
    EXPECT_THAT(capture.Text(), HasLines({"\nServeClientDone: Socket closed"}));
    EXPECT_TRUE(serving.IsClosed());
}

TEST_F(ServeClientTest, FindsNothingForAnEmptyFirstLine) {
    for (const char* line : {"\r\n", "\n"}) {
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(Serve(serving, line), static_cast<long>(NotFoundAnswer().size()));
        EXPECT_EQ(serving.Received(), NotFoundAnswer());
        EXPECT_THAT(capture.Text(),
                    HasLines({"ServeClient: HTTP_NOT_FOUND\nServeClientDone: Socket closed"}));
    }
}

// A client that has nothing more to say still wants to hear.
TEST_F(ServeClientTest, AnswersAnEmptyFirstLineWhenTheClientHasEndedItsSide) {
    for (const char* line : {"\r\n", "\n", "\r"}) {
        const CaptureStdout capture;
        Serving serving;
        serving.Send(line);
        serving.EndSending();
        EXPECT_EQ(Serve(serving), static_cast<long>(NotFoundAnswer().size()));
        EXPECT_EQ(serving.Received(), NotFoundAnswer());
    }
}

TEST_F(ServeClientTest, AnswersWithAnErrorWhenMemoryForTheBuffersIsShort) {
    for (int nth = 1; nth <= 2; ++nth) {
        const CaptureStdout capture;
        Serving serving;
        serving.Send("\r\n"); // needs no malloc to be read
        const FailCall noMemory("malloc", nth);
        EXPECT_EQ(Serve(serving), static_cast<long>(ServerErrorAnswer().size())) << nth;
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(serving.Received(), ServerErrorAnswer());
        EXPECT_THAT(capture.Text(), HasLines({"\nServeClient: HTTP_INTERNAL_SERVER_ERROR"
                                              "ServeClient: HTTP_INTERNAL_SERVER_ERROR"
                                              "\nServeClientDone: Socket closed"}));
    }
}

TEST_F(ServeClientTest, DoesNotHandleARequestThatThereAreNoBuffersFor) {
    replaced.handler = [](HttpRequest*, char*, unsigned long*, unsigned char*) {
        ADD_FAILURE() << "the handler has no buffer to write to";
        return 0;
    };
    Serving dry;
    int before = CallsOf("malloc");
    {
        const CaptureStdout quiet;
        HttpRequest* request = nullptr;
        dry.Send(Get("/rDx"));
        ASSERT_EQ(ConsumeHttpRequest(dry.call.hSocket, &request), 200);
        before = CallsOf("malloc") - before;
        FreeHttpRequest(request);
        std::free(request);
    }
    for (int nth = 1; nth <= 2; ++nth) {
        const CaptureStdout quiet;
        Serving serving;
        serving.Send(Get("/rDx"));
        const FailCall noMemory("malloc", before + nth);
        EXPECT_EQ(Serve(serving), static_cast<long>(ServerErrorAnswer().size()));
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(serving.Received(), ServerErrorAnswer());
    }
}

TEST_F(ServeClientTest, SendsNothingWhenNoResponseCanBeMade) {
    const CaptureStdout capture;
    Serving serving;
    serving.call.ucKeepAlive = 1;
    serving.Send("FOO /x HTTP/1.1\r\n");
    const FailCall noMemory("calloc", 2); // the first one is the request's
    EXPECT_EQ(Serve(serving), -2);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(serving.Received(), "");
    EXPECT_TRUE(serving.IsClosed());
    EXPECT_FALSE(serving.IsWatched());
    EXPECT_THAT(capture.Text(),
                HasLines({"ServeClient: HTTP_METHOD_NOT_ALLOWED\nServeClientDone: Socket closed"}));
}

TEST_F(ServeClientTest, TracesTheResultOfABadRequestsResponse) {
    const CaptureStdout capture;
    Serving serving;
    serving.Send("GET /x\r\n");
    const FailCall noMemory("calloc", 2);
    EXPECT_EQ(Serve(serving), -2);
    EXPECT_THAT(capture.Text(),
                HasSubstr("\nServeClient: HTTP_BAD_REQUEST\nServeClient-: HTTP_BAD_REQUEST -1"));
}

TEST_F(ServeClientTest, AnswersWithAnErrorWhenMemoryForTheRequestIsShort) {
    const CaptureStdout capture;
    Serving serving;
    serving.Send(Get("/other"));
    const FailCall noMemory("calloc");
    EXPECT_EQ(Serve(serving), static_cast<long>(ServerErrorAnswer().size()));
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(serving.Received(), ServerErrorAnswer());
    EXPECT_THAT(capture.Text(),
                HasLines({"ServeClient: HTTP_INTERNAL_SERVER_ERROR\nServeClientDone: Socket closed"}));
}

// Whatever allocation fails, the request is answered or the connection closed, and nothing leaks.
TEST_F(ServeClientTest, SurvivesEveryFailedAllocation) {
    replaced.handler = Answering("body");
    for (const char* allocator : {"malloc", "calloc"}) {
        bool struck = true;
        for (int nth = 1; struck; ++nth) {
            ASSERT_LT(nth, 1000);
            const CaptureStdout quiet;
            Serving serving;
            serving.Send(Get("/rDx"));
            const FailCall noMemory(allocator, nth);
            const long status = Serve(serving);
            struck = noMemory.Struck();
            EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
            EXPECT_NE(serving.IsWatched(), serving.IsClosed()) << allocator << " " << nth;
            const std::string answer = serving.Received();
            EXPECT_EQ(status > 0, !answer.empty()) << allocator << " " << nth;
            if (!struck) {
                EXPECT_EQ(answer, Answer(200, "body"));
                EXPECT_GT(nth, 1);
            }
        }
    }
}

TEST_F(ServeClientTest, ClosesAConnectionThatCannotBeSentTo) {
    for (const int error : {EPIPE, ECONNRESET}) {
        const CaptureStdout capture;
        Serving serving;
        serving.call.ucKeepAlive = 1;
        serving.Send(Get("/other"));
        const FailCall broken("send", 1, error);
        EXPECT_EQ(Serve(serving), -2);
        EXPECT_TRUE(broken.Struck());
        EXPECT_TRUE(serving.IsClosed());
        EXPECT_FALSE(serving.IsWatched());
    }
}

TEST_F(ServeClientTest, ClosesAConnectionWhosePeerHasGone) {
    const CaptureStdout quiet;
    Serving serving;
    serving.call.ucKeepAlive = 1;
    serving.Send(Get("/other"));
    serving.CloseClient();
    EXPECT_EQ(Serve(serving), -2);
    EXPECT_TRUE(serving.IsClosed());
}

TEST_F(ServeClientTest, KeepsTheConnectionAsTheRequestWishes) {
    replaced.handler = Answering("x");
    const struct {
        const char* request;
        bool kept;
    } rows[] = {
        {"GET /rDx HTTP/1.1\r\nHost: a\r\n\r\n", true},
        {"GET /rDx HTTP/1.1\r\nConnection: close\r\n\r\n", false},
        {"GET /rDx HTTP/1.0\r\nHost: a\r\n\r\n", false},
        {"GET /rDx HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", true},
    };
    for (const auto& row : rows) {
        for (const unsigned char before : kFlags) { // what an earlier request left
            const CaptureStdout capture;
            Serving serving;
            serving.call.ucKeepAlive = before;
            Serve(serving, row.request);
            EXPECT_EQ(serving.call.ucKeepAlive, row.kept) << row.request;
            EXPECT_EQ(serving.IsWatched(), row.kept) << row.request;
            EXPECT_EQ(serving.IsClosed(), !row.kept) << row.request;
            EXPECT_THAT(capture.Text(), HasLines({kRead, "ServeClient: HTTP_OK",
                                                  (row.kept ? "" : "\nServeClientDone: Socket closed")}));
        }
    }
}

// The handler's answer keeps or closes as asked also when the handler failed.
TEST_F(ServeClientTest, KeepsTheConnectionBehindAnErrorOfTheHandler) {
    for (const int handled : {400, -401, -1}) {
        replaced.handler = Failing(handled);
        const CaptureStdout quiet;
        Serving serving;
        Serve(serving, Get("/rDx"));
        EXPECT_TRUE(serving.IsWatched()) << handled;
    }
}

// A request that has no handler, or cannot be read, goes by the flag that the slot's last request left.
TEST_F(ServeClientTest, LeavesTheSlotsFlagFromRequestToRequest) {
    for (const char* request : {"GET /other HTTP/1.1\r\nConnection: close\r\n\r\n", "FOO\r\n", "\r\n"}) {
        for (const unsigned char left : kFlags) {
            const CaptureStdout quiet;
            Serving serving;
            serving.call.ucKeepAlive = left;
            Serve(serving, request);
            EXPECT_EQ(serving.call.ucKeepAlive, left) << request;
            EXPECT_EQ(serving.IsWatched(), left == 1) << request;
        }
    }
}

TEST_F(ServeClientTest, TracesAtEveryVerbosity) {
    replaced.handler = [](HttpRequest*, char* out, unsigned long* length, unsigned char* terminate) {
        *terminate = 1;
        out[0] = 'x';
        *length = 1;
        return 0;
    };
    for (const int verbosity : kVerbosities) {
        for (const char* connection : {"keep-alive", "close"}) {
            SCOPED_TRACE(verbosity);
            ucVerbosity = static_cast<unsigned char>(verbosity);
            const bool kept = connection[0] == 'k';
            const CaptureStdout capture;
            Serving serving;
            const long sent = Serve(serving, Get("/rDx", connection));
            const unsigned long thread = CurrentThreadID();
            const int socket = serving.call.hSocket;
            EXPECT_THAT(
                WithoutTimes(capture.Text()),
                HasTracesAt(
                    verbosity,
                    {{kDetail,
                      ThreadLine("ReadHttpReqHeaders()", "got request line from socket, len =", 17, thread)},
                     {kAlways, kRead},
                     {kProgress,
                      ThreadLine("ServeClient()", "termination request from handle =", socket, thread)},
                     {kAlways, "ServeClient: HTTP_OK"},
                     {kProgress, ThreadLine("ServeClient()", "sent bytes successfully", sent, thread)},
                     {kDetail, ThreadLine("ServeClientDone()",
                                          kept ? "added handle to active set again" : "client socket closed",
                                          socket, thread)},
                     {kAlways, kept ? "" : "\nServeClientDone: Socket closed"}}));
            EXPECT_EQ(serving.call.ucTerminate, 1);
        }
    }
}

TEST_F(ServeClientTest, LogsNoBytesForAFailedSend) {
    ucVerbosity = VERBOSITY_ALL;
    const CaptureStdout capture;
    Serving serving;
    serving.Send("FOO\n");
    const FailCall broken("send", 1, EPIPE);
    Serve(serving);
    EXPECT_THAT(capture.Text(), Not(HasSubstr("sent bytes successfully")));
}

TEST_F(ServeClientTest, TracesThePeerOfATcpConnection) {
    const test::Listener listener;
    Client client(listener.Port());
    ASSERT_TRUE(client.Connected());
    client.Send(Get("/other", "close"));
    Serving serving;
    serving.Replace(accept(listener.Socket(), nullptr, nullptr));
    const CaptureStdout capture;
    Serve(serving);
    EXPECT_THAT(
        capture.Text(),
        HasLines({kRead, "ConsumeHttpRequest: szPeerName = 127.0.0.1:" + std::to_string(client.Port()),
                  "ServeClient: HTTP_NOT_FOUND", "ServeClientDone: Socket closed"}));
    EXPECT_EQ(client.ReadUntilClosed(), NotFoundAnswer());
}

// Closing resets the connection; what was sent must have arrived by then.
TEST_F(ServeClientTest, LosesNothingOfALongAnswerThatIsReadSlowly) {
    const test::Listener listener;
    const std::string body(130000, 'x');
    replaced.handler = Answering(body);
    const CaptureStdout quiet;
    for (int run = 0; run < 5; ++run) {
        Client client(listener.Port());
        client.Send(Get("/rDx", "close"));
        std::string received;
        std::thread reader([&] {
            std::string piece;
            while (!(piece = client.Read(1000)).empty()) {
                received += piece;
                std::this_thread::yield();
            }
        });
        Serving serving;
        serving.Replace(accept(listener.Socket(), nullptr, nullptr));
        Serve(serving);
        reader.join();
        EXPECT_EQ(received, Answer(200, body));
    }
}

TEST_F(ServeClientTest, IsAsserted) {
    EXPECT_DEATH(ServeClient(nullptr), Report("void* ServeClient(ServiceCall*)", "pArgs != __null"));
    Serving unwatched;
    unwatched.call.pFdSet = nullptr;
    EXPECT_DEATH(ServeClient(&unwatched.call),
                 Report("void* ServeClient(ServiceCall*)", "pArgs->pFdSet != __null"));
    for (const int status : {-1, 0, 2}) {
        Serving idle;
        idle.call.iSvcStatus = status;
        EXPECT_DEATH(ServeClient(&idle.call),
                     Report("void* ServeClient(ServiceCall*)", "pArgs->iSvcStatus == 1"));
    }
}

} // namespace
