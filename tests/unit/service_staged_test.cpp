#include "server/service.h"

#include "client/tnp.h"
#include "common/config.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "rDxsd/rDxsd.h"
#include "tests/support/admin_server.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/handlers.h"
#include "tests/support/loopback.h"
#include "tests/support/serving.h"
#include "tests/support/threads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <optional>
#include <pthread.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace rdx;
using namespace std::string_literals;
using namespace rdx::test;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kSource = "server/service_staged.cpp";

// --- what the service calls by these names is the test's own -------------------------------------------

// Set while nothing is served. Where nothing is set, the real function is called.
struct Replaced {
    std::function<int(HttpRequest*, char*, unsigned long*, unsigned char*)> handler;
    std::function<int(HttpRequest**)> consume;
    std::function<int(HttpRequest*)> build;
    std::function<int()> sendRequest;
    std::function<int()> send;
};
Replaced replaced;

// A connection asked for.
struct Connect {
    std::string localAddress;
    int localPort;
    std::string remoteAddress;
    int remotePort;
    int socket;
};
std::optional<Connect> lastConnect;
std::string lastFunction;  // of BuildTavrinRequestExt
int mallocsBeforeBuilding; // made when BuildTavrinRequestExt was last called

} // namespace

extern "C" {
int __real_rDxHandler(HttpRequest*, char*, unsigned long*, unsigned char*);
int __wrap_rDxHandler(HttpRequest*, char*, unsigned long*, unsigned char*);
int __real_ConsumeHttpRequest(int, HttpRequest**);
int __wrap_ConsumeHttpRequest(int, HttpRequest**);
int __real_SendSocket(int, const void*, int);
int __wrap_SendSocket(int, const void*, int);
int __real_CreateClntSocketExt(const char*, unsigned short, const char*, unsigned short, int*);
int __wrap_CreateClntSocketExt(const char*, unsigned short, const char*, unsigned short, int*);
int __real_BuildTavrinRequestExt(HttpRequest*, const char*, const char*, const char*, unsigned char);
int __wrap_BuildTavrinRequestExt(HttpRequest*, const char*, const char*, const char*, unsigned char);
int __real_SendHttpRequest(int, HttpRequest*, HttpResponse**);
int __wrap_SendHttpRequest(int, HttpRequest*, HttpResponse**);

int __wrap_rDxHandler(HttpRequest* request, char* out, unsigned long* length, unsigned char* terminate) {
    return replaced.handler ? replaced.handler(request, out, length, terminate)
                            : __real_rDxHandler(request, out, length, terminate);
}

int __wrap_ConsumeHttpRequest(int socket, HttpRequest** request) {
    return replaced.consume ? replaced.consume(request) : __real_ConsumeHttpRequest(socket, request);
}

int __wrap_SendSocket(int socket, const void* data, int length) {
    return replaced.send ? replaced.send() : __real_SendSocket(socket, data, length);
}

int __wrap_CreateClntSocketExt(const char* localAddress, unsigned short localPort, const char* remoteAddress,
                               unsigned short remotePort, int* socket) {
    const int result = __real_CreateClntSocketExt(localAddress, localPort, remoteAddress, remotePort, socket);
    lastConnect = Connect{localAddress, localPort, remoteAddress, remotePort, *socket};
    if (*socket >= 0) ForgetClosed(*socket); // of an earlier socket of that number
    return result;
}

int __wrap_BuildTavrinRequestExt(HttpRequest* request, const char* host, const char* function,
                                 const char* body, unsigned char close) {
    lastFunction = function;
    mallocsBeforeBuilding = CallsOf("malloc");
    return replaced.build ? replaced.build(request)
                          : __real_BuildTavrinRequestExt(request, host, function, body, close);
}

int __wrap_SendHttpRequest(int socket, HttpRequest* request, HttpResponse** response) {
    return replaced.sendRequest ? replaced.sendRequest() : __real_SendHttpRequest(socket, request, response);
}
}

namespace {

// --- texts ---------------------------------------------------------------------------------------------

const std::string kBadAnswer = Answer("400 Bad Request", kBadPage);
const std::string kNoResourcesAnswer = Answer("503 Not implemented", kNoResourcesPage);

// The packet that acknowledges a ticket.
std::string Acknowledge(const std::string& ticket) {
    return "<?xml version='1.0'?>\n"
           "<!DOCTYPE wddxPacket SYSTEM 'wddx_0100.dtd'>\n"
           "<wddxPacket version='1.0'>\n"
           "<header>\n"
           "    <comment>acknowledge from Tavrin</comment>\n"
           "</header>\n"
           "<data>\n"
           "    <struct>\n"
           "        <var name='Return'>\n"
           "            <number>0</number>\n"
           "        </var>\n"
           "        <var name='ServiceTicket'>\n"
           "            <string>TND-ST_" +
           ticket +
           "</string>\n"
           "        </var>\n"
           "    </struct>\n"
           "</data>\n"
           "</wddxPacket>\n";
}

const std::string kTicketUri = "/rDx?SvcTicket=42";
const std::string kTicketAnswer = Answer(kOk, Acknowledge("42"));

// What the administration server receives.
std::string FollowUp(const std::string& command, const std::string& body) {
    return "GET /VServer?FunctionName=" + command +
           " HTTP/1.1\r\n"
           "Connection: close\r\n"
           "Host: 127.0.0.1\r\n"
           "User-Agent: VXL tnp/0.1\r\n"
           "Accept: */*\r\n"
           "Authorization: Basic dXNlcjpwYXNz\r\n"
           "Content-type: text/xml\r\n"
           "Content-length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

// What it answers.
const std::string kTaken = "HTTP/1.1 200 OK\r\nServer: a\r\nContent-length: 5\r\n\r\ntaken";

std::string Consumed(int result) {
    return "\nServeClientInStages 2 ConsumeHttpRequest=" + std::to_string(result);
}

constexpr std::array kVerbosities = {VERBOSITY_NONE, VERBOSITY_FATAL, VERBOSITY_ERROR,
                                     VERBOSITY_WARN, VERBOSITY_LOG,   VERBOSITY_ALL};

std::string StringLine(const std::string& message, const std::string& value) {
    return "\n[TIME],ServeClientInStages(): " + message + " <" + value + ">";
}

// --- the fixture ---------------------------------------------------------------------------------------

// A local address of this process alone, so that nothing else holds a port of it.
std::string OwnAddress() {
    const auto pid = static_cast<unsigned>(getpid());
    return "127." + std::to_string(1 + pid / 65536 % 250) + "." + std::to_string(pid / 256 % 256) + "." +
           std::to_string(pid % 256);
}

int OpenDescriptors() {
    int count = 0;
    DIR* const directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr) ++count;
    closedir(directory);
    return count;
}

// The settings are those of a server in junior mode whose administration server is not there.
class StagedTest : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        std::signal(SIGPIPE, SIG_IGN);
        Reset();
        aiMethodsAllowed[HTTP_GET] = 1;
        aiMethodsAllowed[HTTP_POST] = 1;
        mtPrimaryThread = CurrentThreadID();
        ucRunAsJunior = 1;
        StoreSharedText(szAuthInfo, "Basic dXNlcjpwYXNz");
        StoreSharedText(szAdminServerHost, "127.0.0.1");
        uiAdminServerPort = static_cast<unsigned>(test::FreePort());
        StoreSharedText(szConfigSvcAddr, OwnAddress());
        localPort_ = test::FreePort();
        StoreSharedText(szConfigSvcPort, std::to_string(localPort_ - 1));
    }

    void TearDown() override {
        EXPECT_TRUE(ServingThreadsEnd());
        EXPECT_EQ(NumOfThreads(), 0);
        Reset();
    }

    static void Use(const AdminServer& admin) { uiAdminServerPort = static_cast<unsigned>(admin.Port()); }

    // Where follow-ups come from.
    std::string Here() const { return OwnAddress() + ":" + std::to_string(localPort_); }

private:
    static void Reset() {
        replaced = {};
        lastConnect.reset();
        SetDefaultConfig();
        StoreSharedText(szAuthInfo, "");
        StoreSharedText(szAdminServerHost, "");
        uiAdminServerPort = 0;
        ucVerbosity = VERBOSITY_WARN;
        ucTerminated = 0;
        signalled = 0;
        nThreads = 0;
        mtPrimaryThread = kNone;
    }

    int localPort_ = 0;
};

// Serves a request and gives the service's status.
long Serve(Serving& serving) { return reinterpret_cast<std::intptr_t>(ServeClientInStages(&serving.call)); }

long Serve(Serving& serving, std::string_view request) {
    serving.Send(request);
    return Serve(serving);
}

// --- one stage -----------------------------------------------------------------------------------------

using OneStageTest = StagedTest;

TEST_F(OneStageTest, AnswersEveryResultOfReading) {
    const struct {
        int result;
        std::string answer;
    } rows[] = {
        {-1, kErrorAnswer},   {-98, kErrorAnswer},       {-99, Answer("400 Bad Request", kInvalidPage)},
        {-100, kErrorAnswer}, {-400, kErrorAnswer},      {-401, kUnauthorizedAnswer},
        {-404, kErrorAnswer}, {-405, kNotAllowedAnswer}, {-500, kErrorAnswer},
        {-501, kErrorAnswer}, {-505, kErrorAnswer},      {1, kErrorAnswer},
        {201, kErrorAnswer},
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
            EXPECT_EQ(capture.Text(), Consumed(row.result));
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
        EXPECT_EQ(Serve(serving), static_cast<long>(kNotFoundAnswer.size()));
        EXPECT_EQ(serving.Received(), kNotFoundAnswer);
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
        {"no protocol", "GET /x\r\n\r\n", kErrorAnswer, -400, "\nParsing: method ok (1)"},
        {"no header", "GET /x HTTP/1.0\r\n\r\n", kErrorAnswer, -400, kRead},
        {"unknown method", "FOO /x HTTP/1.1\r\n", kNotAllowedAnswer, -405, ""},
        {"forbidden method", "PUT /x HTTP/1.1\r\n", kNotAllowedAnswer, -405, "\nParsing: method ok (0)"},
        {"unknown header", "GET /x HTTP/1.1\r\nX-Custom: 1\r\n", kErrorAnswer, -500, kRead},
        {"unknown protocol", "GET /x FTP/1.0\r\n", kErrorAnswer, -501, "\nParsing: method ok (1)"},
        {"unknown version", "GET /x HTTP/2.0\r\n", kErrorAnswer, -505, "\nParsing: method ok (1)"},
    };
    for (const auto& row : rows) {
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(Serve(serving, row.request), static_cast<long>(row.answer.size())) << row.why;
        EXPECT_EQ(serving.Received(), row.answer) << row.why;
        EXPECT_EQ(capture.Text(), row.trace + Consumed(row.result));
        EXPECT_TRUE(serving.IsClosed());
    }
}

TEST_F(OneStageTest, AsksForCredentials) {
    ucAuthRequired = 1;
    std::strcpy(szConfigAuthInfo, "dXNlcjpwYXNz");
    const CaptureStdout capture;
    Serving without;
    Serve(without, Get("/other"));
    EXPECT_EQ(without.Received(), kUnauthorizedAnswer);
    EXPECT_EQ(capture.Text(), kRead + "\nConsumeHttpRequest: no auth"s + Consumed(-401));
    Serving with;
    Serve(with, "GET /other HTTP/1.1\r\nAuthorization: Basic dXNlcjpwYXNz\r\n\r\n");
    EXPECT_EQ(with.Received(), kNotFoundAnswer);
}

TEST_F(OneStageTest, AnswersAFailedReceiveAsAnError) {
    const CaptureStdout capture;
    Serving serving;
    serving.Send(Get("/other"));
    const FailCall reset("recv", 2, ECONNRESET); // the first one looks whether anybody is there
    EXPECT_EQ(Serve(serving), static_cast<long>(kErrorAnswer.size()));
    EXPECT_TRUE(reset.Struck());
    EXPECT_EQ(serving.Received(), kErrorAnswer);
    EXPECT_EQ(capture.Text(), Consumed(-1));
}

TEST_F(OneStageTest, AnswersEveryOutcomeOfAHandler) {
    const struct {
        int handled;
        std::string answer;
    } rows[] = {{1, kBadAnswer},      {400, kBadAnswer},    {2147483647, kBadAnswer},
                {-1, kErrorAnswer},   {-6, kErrorAnswer},   {-400, kErrorAnswer},
                {-401, kErrorAnswer}, {-404, kErrorAnswer}, {-500, kErrorAnswer}};
    for (const auto& row : rows) {
        replaced.handler = Failing(row.handled);
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(Serve(serving, Get("/rDx")), static_cast<long>(row.answer.size())) << row.handled;
        EXPECT_EQ(serving.Received(), row.answer) << row.handled;
        EXPECT_EQ(capture.Text(), kRead + Consumed(200));
    }
}

TEST_F(OneStageTest, FindsTheHandlerByTheUrisBeginning) {
    replaced.handler = Answering("<wddxPacket/>");
    const CaptureStdout capture;
    for (const std::string uri : {"/rDx", "/rdx", "/RDXanything", "/rDx?svcticket=42", "/rDx?SvcTicket="}) {
        Serving serving;
        Serve(serving, Get(uri));
        EXPECT_EQ(serving.Received(), Answer(kOk, "<wddxPacket/>")) << uri;
    }
    for (const std::string uri : {"/rD", "/other", "/", "/other?SvcTicket=42"}) {
        Serving serving;
        Serve(serving, Get(uri));
        EXPECT_EQ(serving.Received(), kNotFoundAnswer) << uri;
    }
    for (const char* line : {"\r\n", "\n"}) {
        Serving serving;
        Serve(serving, line);
        EXPECT_EQ(serving.Received(), kNotFoundAnswer) << "no URI";
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
        EXPECT_EQ(serving.Received(), Answer(kOk, output.c_str()));
    }
}

// The largest output that the response's own buffer has room for, and one byte more.
TEST_F(OneStageTest, SendsAnOutputUpToTheSizeOfTheResponsesBuffer) {
    const std::size_t head = Answer(kOk, std::string(131000, 'x')).size() - 131000;
    const std::size_t most = SERVICE_BUFFER_SIZE - 2 - head;
    const CaptureStdout quiet;
    for (const std::size_t size : {most, most + 1, std::size_t{SERVICE_BUFFER_SIZE}}) {
        replaced.handler = Answering(std::string(size, 'x'));
        Serving serving;
        serving.call.ucKeepAlive = 1;
        EXPECT_EQ(Serve(serving, Get("/rDx")), size == most ? static_cast<long>(head + most) : -3) << size;
        EXPECT_EQ(serving.Received(), size == most ? Answer(kOk, std::string(size, 'x')) : "");
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
    EXPECT_EQ(serving.Received(), kNotFoundAnswer + "END");
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
                EXPECT_EQ(answer, Answer(kOk, "body"));
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
            EXPECT_EQ(
                WithoutTimes(capture.Text()),
                TraceAt(
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

// A call of rdxGetVersion, with `more` behind the method's name.
std::string VersionCall(const std::string& more = "") {
    const std::string arguments =
        "<wddxPacket version='1.0'><header/><data><struct><var name='version'><number>1</number></var>"
        "</struct></data></wddxPacket>";
    return "POST /rDx?FunctionName=rdxGetVersion" + more +
           " HTTP/1.1\r\nContent-length: " + std::to_string(arguments.size()) + "\r\n\r\n" + arguments;
}

TEST_F(OneStageTest, ServesARealMethod) {
    const CaptureStdout quiet;
    Serving serving;
    Serve(serving, VersionCall());
    EXPECT_THAT(serving.Received(), HasSubstr("<number>100</number>"));
}

// --- two stages ----------------------------------------------------------------------------------------

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
        EXPECT_EQ(serving.Received(), Answer(kOk, row.ticket.empty() ? "x" : Acknowledge(row.ticket)));
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
        EXPECT_EQ(Serve(serving), static_cast<long>(kNoResourcesAnswer.size()));
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(serving.Received(), kNoResourcesAnswer);
        EXPECT_EQ(serving.IsWatched(), keep == 1);
    }
    EXPECT_FALSE(lastConnect);
}

// The status of a ticketed service whose client is served as ever.
long StatusOfFollowUp() {
    replaced.handler = Answering("result");
    Serving serving;
    const long status = Serve(serving, Get(kTicketUri));
    EXPECT_EQ(serving.Received(), kTicketAnswer);
    EXPECT_TRUE(serving.IsClosed());
    EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
    return status;
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
        {"8080", 8081},    {"80", 81},         {"www", 1},          {"", 1},      {"0", 1},
        {" 80x", 81},      {"-1", 0},          {"65534", 65535},    {"65535", 0}, {"65536", 1},
        {"2147483647", 0}, {"99999999999", 0}, {"-99999999999", 1},
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
    if (!CanBindPortOne()) GTEST_SKIP() << "port 1 cannot be bound";
    const AdminServer admin(kTaken);
    Use(admin);
    StoreSharedText(szConfigSvcPort, "www");
    const CaptureStdout quiet;
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
            EXPECT_EQ(
                WithoutTimes(capture.Text()),
                TraceAt(
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
        EXPECT_EQ(WithoutTimes(capture.Text()),
                  kRead + Consumed(200) +
                      StringLine("rewritten URI", "/VServer?FunctionName=vsFollowUpFailure&SvcTicket=42"));
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

// --- threads and assertions ----------------------------------------------------------------------------

// Serves on a thread of its own; the thread's result.
unsigned long ServeOnThread(Serving& serving) {
    nThreads = 1;
    pthread_t thread{};
    const auto body = [](void* call) -> void* {
        auto* const slot = static_cast<ServiceCall*>(call);
        slot->hThreadId = CurrentThreadID();
        ServeClientInStages(slot);
        ADD_FAILURE() << "the thread goes on";
        return nullptr;
    };
    if (pthread_create(&thread, nullptr, body, &serving.call) != 0) std::abort();
    void* result = nullptr;
    if (pthread_join(thread, &result) != 0) std::abort();
    EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
    return *static_cast<unsigned long*>(result);
}

using ServingThreadTest = StagedTest;

TEST_F(ServingThreadTest, EndsWithTheStatusOfTheService) {
    const AdminServer admin(kTaken);
    replaced.handler = Answering("result");
    const CaptureStdout quiet;
    Serving unticketed;
    unticketed.Send(Get("/rDx"));
    EXPECT_EQ(ServeOnThread(unticketed), Answer(kOk, "result").size());
    Serving unheard;
    unheard.Send(Get(kTicketUri));
    EXPECT_EQ(ServeOnThread(unheard), 0xfffdUL) << "-3, its low 16 bits";
    EXPECT_EQ(unheard.Received(), kTicketAnswer);
    Use(admin);
    Serving posted;
    posted.Send(Get(kTicketUri));
    EXPECT_EQ(ServeOnThread(posted), 0UL);
    EXPECT_EQ(admin.Request(), FollowUp("vsFollowUpSuccess&SvcTicket=42", "result"));
    Serving gone;
    gone.EndSending();
    EXPECT_EQ(ServeOnThread(gone), 0xffffUL);
}

// A whole server: the acknowledge leaves a free slot's flag as it was, the follow-ups come one by one.
TEST_F(ServingThreadTest, ServesAllOfAServersTickets) {
    const AdminServer admin(kTaken);
    Use(admin);
    replaced.handler = Answering("result");
    const CaptureStdout quiet;
    for (const unsigned threads : {1U, 4U}) {
        const test::Listener listener;
        StoreShared<unsigned char>(ucTerminated, 0);
        std::thread server([&] { RunHttpServer(static_cast<unsigned>(listener.Socket()), threads); });
        const std::size_t before = admin.FollowUps().size();
        for (std::size_t turn = 1; turn <= 3; ++turn) {
            Client client(listener.Port());
            client.Send(Get(kTicketUri, "close"));
            EXPECT_EQ(client.ReceiveAll(), kTicketAnswer);
            EXPECT_TRUE(Eventually([&] { return admin.FollowUps().size() == before + turn; }));
            EXPECT_TRUE(Eventually([&] { return threads == 1 || NumOfThreads() == 0; }));
        }
        StoreShared<unsigned char>(ucTerminated, 1);
        server.join();
    }
    for (const AdminServer::FollowUp& followUp : admin.FollowUps()) {
        EXPECT_EQ(followUp.request, FollowUp("vsFollowUpSuccess&SvcTicket=42", "result"));
        EXPECT_EQ(followUp.peer, Here());
    }
}

// The slot lives until the follow-up is over, the loop that it belongs to or not.
TEST_F(ServingThreadTest, GoesOnAfterTheEndOfTheLoop) {
    AdminServer admin("", AdminServer::Then::StayOpen);
    Use(admin);
    replaced.handler = Answering("result");
    const CaptureStdout quiet;
    const test::Listener listener;
    std::thread server([&] { RunHttpServer(static_cast<unsigned>(listener.Socket()), 2); });
    Client client(listener.Port());
    client.Send(Get(kTicketUri));
    EXPECT_TRUE(Eventually([&] { return admin.FollowUps().size() == 1; }));
    StoreShared<unsigned char>(ucTerminated, 1);
    server.join();
    EXPECT_EQ(client.ReceiveAll(), kTicketAnswer);
    EXPECT_EQ(NumOfThreads(), 0) << "it does not count any more";
    admin.HangUp(); // ends the thread, which the end of the test waits for
}

// A wish to keep, left in the slot by a ticketed request, holds for the next one, but not beyond the loop.
TEST_F(ServingThreadTest, ClosesAConnectionToBeKeptAfterTheEndOfTheLoop) {
    const AdminServer admin(kTaken);
    Use(admin);
    std::atomic<int> handled = 0;
    std::atomic<bool> goOn = false;
    replaced.handler = [&](HttpRequest*, char* out, unsigned long* length, unsigned char*) {
        if (++handled == 3) {
            EXPECT_TRUE(Eventually([&] { return goOn.load(); }));
        }
        *length = "result"s.copy(out, *length);
        return 0;
    };
    const CaptureStdout quiet;
    const test::Listener listener;
    std::thread server([&] { RunHttpServer(static_cast<unsigned>(listener.Socket()), 2); });
    Client first(listener.Port());
    first.Send(Get(kTicketUri));
    EXPECT_EQ(first.ReceiveAll(), kTicketAnswer);
    EXPECT_TRUE(Eventually([] { return NumOfThreads() == 0; }));
    Client client(listener.Port());
    client.Send(Get("/rDx"));
    EXPECT_EQ(client.Receive(Answer(kOk, "result").size()), Answer(kOk, "result"));
    EXPECT_TRUE(Eventually([] { return NumOfThreads() == 0; }));
    client.Send(Get("/rDx"));
    EXPECT_TRUE(Eventually([&] { return handled == 3; }));
    StoreShared<unsigned char>(ucTerminated, 1);
    server.join();
    EXPECT_TRUE(client.IsSilent());
    goOn = true;
    EXPECT_EQ(client.ReceiveAll(), Answer(kOk, "result"));
}

auto StagedAssertion(const char* text) { return Assertion(kSource, "ServeClientInStages", text); }

TEST_F(ServingThreadTest, AssertsItsSlot) {
    EXPECT_DEATH(ServeClientInStages(nullptr), StagedAssertion("pArgs != __null"));
    Serving unwatched;
    unwatched.call.pFdSet = nullptr;
    EXPECT_DEATH(ServeClientInStages(&unwatched.call), StagedAssertion("pArgs->pFdSet != __null"));
    for (const int status : {-1, 0, 2}) {
        Serving idle;
        idle.call.iSvcStatus = status;
        EXPECT_DEATH(ServeClientInStages(&idle.call), StagedAssertion("pArgs->iSvcStatus == 1"));
    }
}

TEST_F(ServingThreadTest, NamesItselfInAnAssertion) {
    EXPECT_DEATH(ServeClientInStages(nullptr),
                 testing::AnyOf(HasSubstr(": void* ServeClientInStages(ServiceCall*): "),
                                HasSubstr(": void *ServeClientInStages(ServiceCall *): ")));
}

TEST_F(ServingThreadTest, AssertsThreadsAtItsEnd) {
    Serving serving;
    serving.EndSending();
    EXPECT_DEATH(
        {
            serving.call.hThreadId = 0;
            Serve(serving);
        },
        StagedAssertion("stSvc.hThreadId != 0L"));
    EXPECT_DEATH(
        {
            mtPrimaryThread = 0;
            Serve(serving);
        },
        StagedAssertion("PrimaryThreadID() != 0L"));
}

// What a step asserts is reported as the whole function's, in the same words by every compiler.
auto StepsAssertion(const std::string& text) {
    return testing::AllOf(
        HasSubstr(kSource + ":"s),
        HasSubstr(": void* ServeClientInStages(ServiceCall*): Assertion `" + text + "' failed."));
}

TEST_F(ServingThreadTest, AssertsTheFollowUpsUri) {
    const auto build = [](const std::string& uri) {
        replaced.build = [uri](HttpRequest* request) {
            request->pszUri = strdup(uri.c_str());
            return 0;
        };
        StatusOfFollowUp();
    };
    EXPECT_DEATH(build("/" + std::string(511, 'x')),
                 StepsAssertion("sizeof( szUri ) > strlen( stFollowUpRqst.pszUri )"));
    EXPECT_DEATH(build("Tavrin"), StepsAssertion("*p == '/'"));
    const CaptureStdout quiet;
    build("/" + std::string(510, 'x')); // fits
}

TEST_F(ServingThreadTest, RewritesTheFirstSegmentOfTheUri) {
    const struct {
        const char* built;
        const char* rewritten;
    } rows[] = {{"/Tavrin?FunctionName=f&a=/b?c", "/VServer?FunctionName=f&a=/b?c"},
                {"/Tavrin", "/VServer"},
                {"/Tavrin/more?x", "/VServer/more?x"},
                {"/", "/VServer"}};
    for (const auto& row : rows) {
        replaced.build = [&](HttpRequest* request) {
            *request = {};
            request->pszUri = strdup(row.built);
            return 0;
        };
        const CaptureStdout capture;
        StatusOfFollowUp();
        EXPECT_THAT(WithoutTimes(capture.Text()), HasSubstr(StringLine("rewritten URI", row.rewritten)));
    }
}

TEST_F(ServingThreadTest, AssertsAnAnswerThatWasAnnounced) {
    const test::Listener listener;
    uiAdminServerPort = static_cast<unsigned>(listener.Port());
    replaced.sendRequest = [] { return 0; };
    EXPECT_DEATH(StatusOfFollowUp(), StepsAssertion("pRsp != __null"));
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

    // Finalizes with all that can be given; what was given is released in any case.
    int Finalize(Serving& serving, HttpResponse* response, int responseStatus, int status,
                 unsigned char keep) {
        return FinalizeRequest(MakeRequest(), response, responseStatus, buffer_.data(), status, &serving.call,
                               &serving.call, keep);
    }

    std::vector<char> buffer_ = std::vector<char>(SERVICE_BUFFER_SIZE);
};

const std::string kBodyAnswer = Answer(kOk, "body");

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
        EXPECT_EQ(WithoutTimes(capture.Text()),
                  ThreadLine("FinalizeRequest()", "sent bytes successfully", result) +
                      ThreadLine("FinalizeRequest()", "client socket closed", serving.call.hSocket));
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
        EXPECT_EQ(WithoutTimes(capture.Text()),
                  TraceAt(verbosity,
                          {{kProgress, ThreadLine("FinalizeRequest()", "sent bytes successfully", sent)},
                           {kDetail, ThreadLine("FinalizeRequest()", "added handle to active set again",
                                                kept.call.hSocket)},
                           {kDetail,
                            ThreadLine("FinalizeRequest()", "client socket closed", dropped.call.hSocket)}}));
    }
}

TEST_F(FinalizeRequestTest, LosesNothingOfALongResponse) {
    const test::Listener listener;
    const std::string body(130000, 'x');
    for (int run = 0; run < 3; ++run) {
        Client client(listener.Port());
        std::string received;
        std::thread reader([&] { received = client.ReceiveAll(); });
        ServiceCall call{};
        call.hSocket = accept(listener.Socket(), nullptr, nullptr);
        ForgetClosed(call.hSocket);
        EXPECT_GT(FinalizeRequest(nullptr, MakeResponse(body), 0, buffer_.data(), 0, &call, nullptr, 0), 0);
        EXPECT_EQ(TimesClosed(call.hSocket), 1);
        reader.join();
        EXPECT_EQ(received, Answer(kOk, body));
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
