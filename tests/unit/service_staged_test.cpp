#include "server/service.h"

#include "common/config.h"
#include "common/portability_sockets.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/client.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/listener.h"
#include "tests/support/serving.h"
#include "tests/support/staged_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

using namespace rdx;
using namespace std::string_literals;
using namespace rdx::test;
using testing::HasSubstr;
using testing::Not;

using OneStageTest = StagedTest;

TEST_F(OneStageTest, AnswersEveryResultOfReading) {
    const struct {
        int result;
        std::string answer;
    } rows[] = {
        {-1, ServerErrorAnswer()},   {-98, ServerErrorAnswer()},  {-99, BadRequestAnswer()},
        {-100, ServerErrorAnswer()}, {-400, ServerErrorAnswer()}, {-401, UnauthorizedAnswer()},
        {-404, ServerErrorAnswer()}, {-405, NotAllowedAnswer()},  {-500, ServerErrorAnswer()},
        {-501, ServerErrorAnswer()}, {-505, ServerErrorAnswer()}, {1, ServerErrorAnswer()},
        {201, ServerErrorAnswer()},
    };
    for (const auto& row : rows) {
        for (const unsigned char keep : kFlags) {
            SCOPED_TRACE(row.result);
            replaced.consume = [&](HttpRequest** request) {
                *request = nullptr;
                return row.result;
            };
            const CaptureStdout capture;
            Serving serving;
            serving.call.ucKeepAlive = keep;
            EXPECT_EQ(Serve(serving), static_cast<long>(row.answer.size()));
            EXPECT_EQ(serving.Received(), row.answer);
            EXPECT_THAT(capture.Text(), HasLines({Consumed(row.result)}));
            EXPECT_EQ(serving.IsWatched(), keep == 1);
            EXPECT_EQ(serving.IsClosed(), keep == 0);
            EXPECT_EQ(serving.call.ucKeepAlive, keep);
            EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
        }
    }
}

TEST_F(OneStageTest, SendsNothingWhenNothingWasRead) {
    replaced.consume = [](HttpRequest** request) {
        *request = nullptr;
        return 0;
    };
    const CaptureStdout capture;
    Serving serving;
    serving.call.ucKeepAlive = 1;
    EXPECT_EQ(Serve(serving), -1);
    EXPECT_EQ(serving.Received(), "");
    EXPECT_EQ(capture.Text(), "");
    EXPECT_TRUE(serving.IsClosed());
    EXPECT_FALSE(serving.IsWatched());
    EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
}

TEST_F(OneStageTest, SendsNothingWhenThePeerClosedBeforeARequest) {
    const CaptureStdout capture;
    Serving serving;
    serving.call.ucKeepAlive = 1;
    serving.EndSending();
    EXPECT_EQ(Serve(serving), -1);
    EXPECT_EQ(serving.Received(), "");
    EXPECT_EQ(capture.Text(), "");
    EXPECT_TRUE(serving.IsClosed());
    EXPECT_FALSE(serving.IsWatched());
}

TEST_F(OneStageTest, AnswersAnEmptyFirstLineWhenTheClientHasEndedItsSide) {
    for (const char* line : {"\r\n", "\n", "\r"}) {
        const CaptureStdout capture;
        Serving serving;
        serving.Send(line);
        serving.EndSending();
        EXPECT_EQ(Serve(serving), static_cast<long>(NotFoundAnswer().size()));
        EXPECT_EQ(serving.Received(), NotFoundAnswer());
    }
}

TEST_F(OneStageTest, AnswersWhatTheParserRefuses) {
    const struct {
        const char* why;
        std::string request;
        std::string answer;
        int result;
        std::string trace;
    } rows[] = {
        {"no protocol", "GET /x\r\n\r\n", ServerErrorAnswer(), -400, "\nParsing: method ok (1)"},
        {"no header", "GET /x HTTP/1.0\r\n\r\n", ServerErrorAnswer(), -400, kRead},
        {"unknown method", "FOO /x HTTP/1.1\r\n", NotAllowedAnswer(), -405, ""},
        {"forbidden method", "PUT /x HTTP/1.1\r\n", NotAllowedAnswer(), -405, "\nParsing: method ok (0)"},
        {"unknown header", "GET /x HTTP/1.1\r\nX-Custom: 1\r\n", ServerErrorAnswer(), -500, kRead},
        {"unknown protocol", "GET /x FTP/1.0\r\n", ServerErrorAnswer(), -501, "\nParsing: method ok (1)"},
        {"unknown version", "GET /x HTTP/2.0\r\n", ServerErrorAnswer(), -505, "\nParsing: method ok (1)"},
    };
    for (const auto& row : rows) {
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(Serve(serving, row.request), static_cast<long>(row.answer.size())) << row.why;
        EXPECT_EQ(serving.Received(), row.answer) << row.why;
        EXPECT_THAT(capture.Text(), HasLines({row.trace, Consumed(row.result)}));
        EXPECT_TRUE(serving.IsClosed());
    }
}

TEST_F(OneStageTest, AsksForCredentials) {
    ucAuthRequired = 1;
    std::strcpy(szConfigAuthInfo, "dXNlcjpwYXNz");
    const CaptureStdout capture;
    Serving without;
    Serve(without, Get("/other"));
    EXPECT_EQ(without.Received(), UnauthorizedAnswer());
    EXPECT_THAT(capture.Text(), HasLines({kRead, "\nConsumeHttpRequest: no auth"s, Consumed(-401)}));
    Serving with;
    Serve(with, "GET /other HTTP/1.1\r\nAuthorization: Basic dXNlcjpwYXNz\r\n\r\n");
    EXPECT_EQ(with.Received(), NotFoundAnswer());
}

TEST_F(OneStageTest, AnswersAFailedReceiveAsAnError) {
    const CaptureStdout capture;
    Serving serving;
    serving.Send(Get("/other"));
    const FailCall reset("recv", 2, ECONNRESET);
    EXPECT_EQ(Serve(serving), static_cast<long>(ServerErrorAnswer().size()));
    EXPECT_TRUE(reset.Struck());
    EXPECT_EQ(serving.Received(), ServerErrorAnswer());
    EXPECT_THAT(capture.Text(), HasLines({Consumed(-1)}));
}

TEST_F(OneStageTest, AnswersEveryOutcomeOfAHandler) {
    const struct {
        int handled;
        std::string answer;
    } rows[] = {{1, BadCallAnswer()},        {400, BadCallAnswer()},      {2147483647, BadCallAnswer()},
                {-1, ServerErrorAnswer()},   {-6, ServerErrorAnswer()},   {-400, ServerErrorAnswer()},
                {-401, ServerErrorAnswer()}, {-404, ServerErrorAnswer()}, {-500, ServerErrorAnswer()}};
    for (const auto& row : rows) {
        replaced.handler = Failing(row.handled);
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(Serve(serving, Get("/rDx")), static_cast<long>(row.answer.size())) << row.handled;
        EXPECT_EQ(serving.Received(), row.answer) << row.handled;
        EXPECT_THAT(capture.Text(), HasLines({kRead, Consumed(200)}));
    }
}

TEST_F(OneStageTest, FindsTheHandlerByTheUrisBeginning) {
    replaced.handler = Answering("<wddxPacket/>");
    const CaptureStdout capture;
    for (const std::string uri : {"/rDx", "/rdx", "/RDXanything", "/rDx?svcticket=42", "/rDx?SvcTicket="}) {
        Serving serving;
        Serve(serving, Get(uri));
        EXPECT_EQ(serving.Received(), Answer(200, "<wddxPacket/>")) << uri;
    }
    for (const std::string uri : {"/rD", "/other", "/", "/other?SvcTicket=42"}) {
        Serving serving;
        Serve(serving, Get(uri));
        EXPECT_EQ(serving.Received(), NotFoundAnswer()) << uri;
    }
    for (const char* line : {"\r\n", "\n"}) {
        Serving serving;
        Serve(serving, line);
        EXPECT_EQ(serving.Received(), NotFoundAnswer()) << "no URI";
    }
    EXPECT_FALSE(lastConnect);
}

TEST_F(OneStageTest, GivesTheHandlerARoomOf129KiB) {
    const CaptureStdout quiet;
    Serving serving;
    replaced.handler = [&](HttpRequest* request, char* out, unsigned long* length, unsigned char* terminate) {
        EXPECT_STREQ(request->pszUri, "/rDx");
        EXPECT_EQ(*length, 132096UL);
        EXPECT_EQ(std::string(out, *length), std::string(132096, '\0'));
        EXPECT_EQ(terminate, &serving.call.ucTerminate);
        return 1;
    };
    Serve(serving, Get("/rDx"));
}

TEST_F(OneStageTest, TakesTheOutputForAText) {
    const CaptureStdout quiet;
    for (const std::string& output : {""s, "a"s, "ab\0cd"s}) {
        replaced.handler = Answering(output);
        Serving serving;
        Serve(serving, Get("/rDx"));
        EXPECT_EQ(serving.Received(), Answer(200, output.c_str()));
    }
}

// The largest output that the response's own buffer has room for, and one byte more.
TEST_F(OneStageTest, SendsAnOutputUpToTheSizeOfTheResponsesBuffer) {
    const std::size_t head = Answer(200, std::string(131000, 'x')).size() - 131000;
    const std::size_t most = SERVICE_BUFFER_SIZE - 2 - head;
    const CaptureStdout quiet;
    for (const std::size_t size : {most, most + 1, std::size_t{SERVICE_BUFFER_SIZE}}) {
        replaced.handler = Answering(std::string(size, 'x'));
        Serving serving;
        serving.call.ucKeepAlive = 1;
        EXPECT_EQ(Serve(serving, Get("/rDx")), size == most ? static_cast<long>(head + most) : -3) << size;
        EXPECT_EQ(serving.Received(), size == most ? Answer(200, std::string(size, 'x')) : "");
        EXPECT_EQ(serving.IsWatched(), size == most);
        EXPECT_EQ(serving.IsClosed(), size != most);
    }
}

TEST_F(OneStageTest, SendsTheEntityTerminatorBehindTheResponse) {
    ucEntityTerminator = 1;
    std::strcpy(szEntityTerminator, "END");
    const CaptureStdout quiet;
    Serving serving;
    Serve(serving, Get("/other"));
    EXPECT_EQ(serving.Received(), NotFoundAnswer() + "END");
}

TEST_F(OneStageTest, KeepsTheConnectionAsTheSlotSays) {
    replaced.handler = Answering("x");
    for (const unsigned char left : kFlags) {
        for (const char* wish : {"keep-alive", "close"}) {
            for (const char* uri : {"/rDx", "/other"}) {
                const CaptureStdout quiet;
                Serving serving;
                serving.call.ucKeepAlive = left;
                Serve(serving, Get(uri, wish));
                EXPECT_EQ(serving.IsWatched(), left == 1) << uri << " " << wish;
                EXPECT_EQ(serving.IsClosed(), left == 0) << uri << " " << wish;
                EXPECT_EQ(serving.call.ucKeepAlive, left) << "the request's wish is not asked";
            }
        }
    }
}

TEST_F(OneStageTest, ClosesAConnectionThatCannotBeSentTo) {
    for (const int error : {EPIPE, ECONNRESET}) {
        const CaptureStdout quiet;
        Serving serving;
        serving.call.ucKeepAlive = 1;
        serving.Send(Get("/other"));
        const FailCall broken("send", 1, error);
        EXPECT_EQ(Serve(serving), -2);
        EXPECT_TRUE(serving.IsClosed());
        EXPECT_FALSE(serving.IsWatched());
    }
    const CaptureStdout quiet;
    Serving serving;
    serving.Send(Get("/other"));
    serving.CloseClient();
    EXPECT_EQ(Serve(serving), -2);
    EXPECT_TRUE(serving.IsClosed());
}

TEST_F(OneStageTest, SendsNothingWhenNoResponseCanBeMade) {
    const CaptureStdout quiet;
    Serving serving;
    serving.call.ucKeepAlive = 1;
    serving.Send(Get("/other"));
    const FailCall noMemory("calloc", 2); // the first one is the request's
    EXPECT_EQ(Serve(serving), -2);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(serving.Received(), "");
    EXPECT_TRUE(serving.IsClosed());
    EXPECT_FALSE(serving.IsWatched());
}

TEST_F(OneStageTest, SurvivesEveryFailedAllocation) {
    replaced.handler = Answering("body");
    for (const char* allocator : {"malloc", "calloc"}) {
        bool struck = true;
        for (int nth = 1; struck; ++nth) {
            ASSERT_LT(nth, 100);
            const CaptureStdout quiet;
            Serving serving;
            serving.Send(Get("/rDx"));
            const FailCall noMemory(allocator, nth);
            const long status = Serve(serving);
            struck = noMemory.Struck();
            EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
            EXPECT_TRUE(serving.IsClosed());
            const std::string answer = serving.Received();
            EXPECT_EQ(status, answer.empty() ? -2 : static_cast<long>(answer.size()));
            if (!struck) {
                EXPECT_EQ(answer, Answer(200, "body"));
                EXPECT_GT(nth, 1);
            }
        }
    }
}

TEST_F(OneStageTest, TracesAtEveryVerbosity) {
    replaced.handler = [](HttpRequest*, char* out, unsigned long*, unsigned char* terminate) {
        *terminate = 1;
        out[0] = 'x';
        return 0;
    };
    for (const int verbosity : kVerbosities) {
        for (const unsigned char keep : kFlags) {
            SCOPED_TRACE(verbosity);
            ucVerbosity = static_cast<unsigned char>(verbosity);
            const CaptureStdout capture;
            Serving serving;
            serving.call.ucKeepAlive = keep;
            const long sent = Serve(serving, Get("/rDx"));
            const int socket = serving.call.hSocket;
            EXPECT_THAT(
                WithoutTimes(capture.Text()),
                HasTracesAt(
                    verbosity,
                    {{kDetail, ThreadLine("ReadHttpReqHeaders()", "got request line from socket, len =", 17)},
                     {kAlways, kRead + Consumed(200)},
                     {kProgress,
                      ThreadLine("ServeClientInStages()", "termination request from handle =", socket)},
                     {kProgress, ThreadLine("FinalizeRequest()", "sent bytes successfully", sent)},
                     {kDetail,
                      ThreadLine("FinalizeRequest()",
                                 keep == 1 ? "added handle to active set again" : "client socket closed",
                                 socket)}}));
            EXPECT_EQ(serving.call.ucTerminate, 1);
        }
    }
}

TEST_F(OneStageTest, LogsNoRequestForTerminationOfAHandlerThatFailed) {
    ucVerbosity = VERBOSITY_LOG;
    for (const int result : {1, -1}) {
        replaced.handler = [&](HttpRequest*, char*, unsigned long*, unsigned char* terminate) {
            *terminate = 1;
            return result;
        };
        const CaptureStdout capture;
        Serving serving;
        Serve(serving, Get("/rDx"));
        EXPECT_THAT(capture.Text(), Not(HasSubstr("termination")));
        EXPECT_EQ(serving.call.ucTerminate, 1) << "it is asked for all the same";
    }
}

TEST_F(OneStageTest, ServesARealMethod) {
    const CaptureStdout quiet;
    Serving serving;
    Serve(serving, VersionCall());
    EXPECT_THAT(serving.Received(), HasSubstr("<number>100</number>"));
}

// --- FinalizeRequest -----------------------------------------------------------------------------------

class FinalizeRequestTest : public StagedTest {
protected:
    static HttpRequest* MakeRequest() {
        auto* const request = static_cast<HttpRequest*>(std::calloc(1, sizeof(HttpRequest)));
        request->pszUri = strdup("/rDx");
        return request;
    }

    static HttpResponse* MakeResponse(const std::string& body = "body") {
        HttpResponse* response = nullptr;
        EXPECT_EQ(
            CreateHttpResponse(&response, 200, "text/html", body.data(), static_cast<unsigned>(body.size())),
            0);
        return response;
    }

    // Finalizes with all that can be given. The request stays the caller's for a status below 0.
    int Finalize(Serving& serving, HttpResponse* response, int responseStatus, int status,
                 unsigned char keep) {
        HttpRequest* const request = MakeRequest();
        const int result = FinalizeRequest(request, response, responseStatus, buffer_.data(), status,
                                           &serving.call, &serving.call, keep);
        if (status < 0) {
            EXPECT_STREQ(request->pszUri, "/rDx");
            FreeHttpRequest(request);
            std::free(request);
        }
        return result;
    }

    std::vector<char> buffer_ = std::vector<char>(SERVICE_BUFFER_SIZE);
};

const std::string kBodyAnswer = Answer(200, "body");

TEST_F(FinalizeRequestTest, SendsTheResponseAndKeepsOrCloses) {
    for (const int status : {0, 1, 17}) {
        for (const int keep : {0, 1, 2, 255}) {
            const CaptureStdout capture;
            Serving serving;
            EXPECT_EQ(Finalize(serving, MakeResponse(), 0, status, static_cast<unsigned char>(keep)),
                      static_cast<int>(kBodyAnswer.size()));
            EXPECT_EQ(serving.Received(), kBodyAnswer);
            EXPECT_EQ(serving.IsWatched(), keep != 0);
            EXPECT_EQ(serving.IsClosed(), keep == 0);
            EXPECT_EQ(serving.call.iSvcStatus, SERVICE_RUNNING) << "the slot is not finished by it";
            EXPECT_EQ(capture.Text(), "");
        }
    }
}

TEST_F(FinalizeRequestTest, SendsNothingForAFailedService) {
    for (const int status : {-1, -2, -500}) {
        for (const unsigned char keep : kFlags) {
            Serving serving;
            EXPECT_EQ(Finalize(serving, MakeResponse(), 0, status, keep), status);
            EXPECT_EQ(serving.Received(), "");
            EXPECT_TRUE(serving.IsClosed());
            EXPECT_FALSE(serving.IsWatched());
        }
    }
    Serving serving;
    EXPECT_EQ(FinalizeRequest(nullptr, nullptr, -1, nullptr, -1, &serving.call, nullptr, 1), -1)
        << "nothing else is needed";
    EXPECT_TRUE(serving.IsClosed());
}

TEST_F(FinalizeRequestTest, SendsNothingWithoutAResponse) {
    for (const int responseStatus : {-1, -3, -7}) {
        Serving serving;
        EXPECT_EQ(Finalize(serving, nullptr, responseStatus, 0, 1), -2);
        EXPECT_EQ(serving.Received(), "");
        EXPECT_TRUE(serving.IsClosed());
        EXPECT_FALSE(serving.IsWatched());
    }
}

TEST_F(FinalizeRequestTest, FailsWithAResponseThatCannotBeWritten) {
    ucVerbosity = VERBOSITY_LOG;
    const CaptureStdout capture;
    Serving large;
    EXPECT_EQ(Finalize(large, MakeResponse(std::string(SERVICE_BUFFER_SIZE, 'x')), 0, 0, 1), -3);
    EXPECT_EQ(large.Received(), "");
    EXPECT_TRUE(large.IsClosed());
    Serving versionless;
    HttpResponse* const response = MakeResponse();
    response->ucHttpVersion = 9;
    EXPECT_EQ(Finalize(versionless, response, 0, 0, 1), -3);
    EXPECT_TRUE(versionless.IsClosed());
    EXPECT_EQ(capture.Text(), "") << "nothing was sent";
}

TEST_F(FinalizeRequestTest, GivesTheResultOfAFailedSend) {
    ucVerbosity = VERBOSITY_ALL;
    for (const int result : {-1, -2, -3}) {
        replaced.send = [&] { return result; };
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(Finalize(serving, MakeResponse(), 0, 0, 1), result);
        EXPECT_TRUE(serving.IsClosed());
        EXPECT_FALSE(serving.IsWatched());
        EXPECT_THAT(
            WithoutTimes(capture.Text()),
            HasLines({ThreadLine("FinalizeRequest()", "sent bytes successfully", result),
                      ThreadLine("FinalizeRequest()", "client socket closed", serving.call.hSocket)}));
    }
}

TEST_F(FinalizeRequestTest, NeedsNoRequest) {
    Serving serving;
    EXPECT_GT(FinalizeRequest(nullptr, MakeResponse(), 0, buffer_.data(), 0, &serving.call, &serving.call, 0),
              0);
    EXPECT_EQ(serving.Received(), kBodyAnswer);
}

TEST_F(FinalizeRequestTest, NeedsNoSetForAConnectionThatIsNotKept) {
    Serving closing;
    closing.call.pFdSet = nullptr;
    EXPECT_GT(Finalize(closing, MakeResponse(), 0, 0, 0), 0);
    Serving failed;
    failed.call.pFdSet = nullptr;
    EXPECT_EQ(Finalize(failed, nullptr, -1, 0, 1), -2);
}

TEST_F(FinalizeRequestTest, TracesAtEveryVerbosity) {
    for (const int verbosity : kVerbosities) {
        ucVerbosity = static_cast<unsigned char>(verbosity);
        const CaptureStdout capture;
        Serving kept;
        const int sent = Finalize(kept, MakeResponse(), 0, 0, 1);
        Serving dropped;
        Finalize(dropped, nullptr, -1, 0, 1);
        EXPECT_THAT(
            WithoutTimes(capture.Text()),
            HasTracesAt(
                verbosity,
                {{kProgress, ThreadLine("FinalizeRequest()", "sent bytes successfully", sent)},
                 {kDetail,
                  ThreadLine("FinalizeRequest()", "added handle to active set again", kept.call.hSocket)},
                 {kDetail, ThreadLine("FinalizeRequest()", "client socket closed", dropped.call.hSocket)}}));
    }
}

TEST_F(FinalizeRequestTest, LosesNothingOfALongResponse) {
    const test::Listener listener;
    const std::string body(130000, 'x');
    for (int run = 0; run < 3; ++run) {
        Client client(listener.Port());
        std::string received;
        std::thread reader([&] { received = client.ReadUntilClosed(); });
        ServiceCall call{};
        call.hSocket = accept(listener.Socket(), nullptr, nullptr);
        ForgetClosed(call.hSocket);
        EXPECT_GT(FinalizeRequest(nullptr, MakeResponse(body), 0, buffer_.data(), 0, &call, nullptr, 0), 0);
        EXPECT_EQ(TimesClosed(call.hSocket), 1);
        reader.join();
        EXPECT_EQ(received, Answer(200, body));
    }
}

TEST_F(FinalizeRequestTest, IsAsserted) {
    const auto assertion = [](const char* text) { return Assertion(kSource, "FinalizeRequest", text); };
    Serving serving;
    const auto finalize = [&](HttpResponse* response, char* buffer) {
        FinalizeRequest(nullptr, response, 0, buffer, 0, &serving.call, nullptr, 1);
    };
    EXPECT_DEATH(finalize(nullptr, nullptr), assertion("pRspBuf != __null"));
    EXPECT_DEATH(finalize(nullptr, buffer_.data()), assertion("pRsp != __null"));
    EXPECT_DEATH(
        {
            replaced.send = [] { return 0; };
            finalize(MakeResponse(), buffer_.data());
        },
        assertion("iSvcStat != 0"));
    EXPECT_DEATH(
        {
            serving.call.pFdSet = nullptr;
            finalize(MakeResponse(), buffer_.data());
        },
        assertion("pSvc->pFdSet != __null"));
}

// --- GenerateAcknowledge -------------------------------------------------------------------------------

using GenerateAcknowledgeTest = StagedTest;

TEST_F(GenerateAcknowledgeTest, QuotesTheTicket) {
    const struct {
        unsigned long ticket;
        const char* quoted;
        int length;
    } rows[] = {{42, "42", 379}, {0, "0", 378}, {4294967295UL, "4294967295", 387}};
    for (const auto& row : rows) {
        const GuardedBytes buffer(std::string(389, '#'));
        EXPECT_EQ(GenerateAcknowledge(buffer.begin(), 389, row.ticket), row.length);
        EXPECT_EQ(std::string(buffer.begin()), Acknowledge(row.quoted));
        EXPECT_EQ(std::strlen(buffer.begin()), static_cast<std::size_t>(row.length));
    }
}

TEST_F(GenerateAcknowledgeTest, KnowsBuffersOfEverySize) {
    const GuardedBytes buffer(std::string(389, '#'));
    for (const unsigned size : {390U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        EXPECT_EQ(GenerateAcknowledge(buffer.begin(), size, 42), 379) << size;
    }
}

TEST_F(GenerateAcknowledgeTest, NeverLeavesItsBuffer) {
    if (sizeof(unsigned long) == 4) GTEST_SKIP() << "every ticket fits";
    const GuardedBytes buffer(std::string(389, '#'));
    EXPECT_EQ(GenerateAcknowledge(buffer.begin(), 389, ~0UL), 388);
    EXPECT_EQ(std::string(buffer.begin()), Acknowledge("18446744073709551615").substr(0, 388));
}

TEST_F(GenerateAcknowledgeTest, IsAsserted) {
    char buffer[400];
    const auto assertion = [](const char* text) { return Assertion(kSource, "GenerateAcknowledge", text); };
    for (const unsigned size : {0U, 388U}) {
        EXPECT_DEATH(GenerateAcknowledge(buffer, size, 42), assertion("uiBufsize > (strlen( szWddx ) + 8)"));
    }
    EXPECT_DEATH(GenerateAcknowledge(nullptr, 388, 42), assertion("uiBufsize > (strlen( szWddx ) + 8)"));
    EXPECT_DEATH(GenerateAcknowledge(nullptr, 389, 42), assertion("pBuf != __null"));
}

} // namespace
