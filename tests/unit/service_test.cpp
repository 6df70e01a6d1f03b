#include "server/service.h"

#include "common/config.h"
#include "common/delivery.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "rDxsd/rDxsd.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/loopback.h"
#include "tests/support/reports.h"
#include "tests/support/request.h"
#include "tests/support/serving.h"
#include "tests/support/threads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <regex>
#include <semaphore>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace {

using namespace rdx;
using namespace rdx::test;
using testing::HasSubstr;
using testing::Not;

// --- what the service calls by these names is the test's own -------------------------------------------

// Set while no thread serves. Where nothing is set, the real function is called.
struct Replaced {
    std::function<int(HttpRequest*, char*, unsigned long*, unsigned char*)> handler;
    std::function<int()> granted;
    std::function<int(int, fd_set*, timeval*)> select;
    std::function<void(useconds_t)> pause;
    std::function<int(ThreadID*)> threadCreate;
};
Replaced replaced;

std::atomic<int> lastByte = -1; // of the last body that filled a whole output buffer

} // namespace

extern "C" {
int __real_rDxHandler(HttpRequest*, char*, unsigned long*, unsigned char*);
int __wrap_rDxHandler(HttpRequest*, char*, unsigned long*, unsigned char*);
int __real_IsClientGranted(void);
int __wrap_IsClientGranted(void);
int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
int __wrap_select(int, fd_set*, fd_set*, fd_set*, timeval*);
int __real_usleep(useconds_t);
int __wrap_usleep(useconds_t);
int __real_ThreadCreate(void* (*)(void*), void*, ThreadID*);
int __wrap_ThreadCreate(void* (*)(void*), void*, ThreadID*);
int __real_CreateHttpResponse(HttpResponse**, unsigned short, const char*, const char*, unsigned int);
int __wrap_CreateHttpResponse(HttpResponse**, unsigned short, const char*, const char*, unsigned int);

int __wrap_rDxHandler(HttpRequest* request, char* out, unsigned long* length, unsigned char* terminate) {
    return replaced.handler ? replaced.handler(request, out, length, terminate)
                            : __real_rDxHandler(request, out, length, terminate);
}

int __wrap_IsClientGranted() { return replaced.granted ? replaced.granted() : __real_IsClientGranted(); }

int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
    return replaced.select ? replaced.select(count, read, timeout)
                           : __real_select(count, read, write, except, timeout);
}

int __wrap_usleep(useconds_t microseconds) {
    if (replaced.pause) replaced.pause(microseconds);
    return __real_usleep(microseconds);
}

int __wrap_CreateHttpResponse(HttpResponse** response, unsigned short status, const char* type,
                              const char* body, unsigned int length) {
    if (length == SERVICE_BUFFER_SIZE) lastByte = static_cast<unsigned char>(body[length - 1]);
    return __real_CreateHttpResponse(response, status, type, body, length);
}

int __wrap_ThreadCreate(void* (*body)(void*), void* arguments, ThreadID* thread) {
    return replaced.threadCreate ? replaced.threadCreate(thread)
                                 : __real_ThreadCreate(body, arguments, thread);
}
}

namespace {

// --- layouts -------------------------------------------------------------------------------------------

static_assert(offsetof(ServiceCall, hSocket) == 0);
static_assert(offsetof(ServiceCall, iSvcStatus) == 4);
static_assert(offsetof(ServiceCall, ucKeepAlive) == 8);
static_assert(offsetof(ServiceCall, ucTerminate) == 9);
static_assert(offsetof(ServiceCall, ucReconfigure) == 10);
static_assert(offsetof(ServiceCall, hThreadId) == 12);
static_assert(offsetof(ServiceCall, pFdSet) == 16);
static_assert(sizeof(void*) != 8 || sizeof(ServiceCall) == 24);
static_assert(SERVICE_BUFFER_SIZE == 129 * 1024);

// --- texts ---------------------------------------------------------------------------------------------

constexpr const char* kVersionArguments =
    "<wddxPacket version='1.0'><header/><data><struct><var name='version'><number>1</number></var></struct>"
    "</data></wddxPacket>";

constexpr std::array kVerbosities = {VERBOSITY_NONE, VERBOSITY_WARN, VERBOSITY_LOG, VERBOSITY_ALL};

// The assertion's report: a compiler may write the signature "T* F(U*)" as "T *F(U *)".
auto Report(const std::string& signature, const std::string& text) {
    const std::string spaced = std::regex_replace(signature, std::regex(R"(\*( ?))"), " *");
    return testing::AllOf(HasSubstr("server/service.cpp:"),
                          testing::AnyOf(HasSubstr(": " + signature + ": "), HasSubstr(": " + spaced + ": ")),
                          HasSubstr("Assertion `" + text + "' failed."));
}

// --- the fixture ---------------------------------------------------------------------------------------

class ServiceTest : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        std::signal(SIGPIPE, SIG_IGN);
        Reset();
        aiMethodsAllowed[HTTP_GET] = 1;
        aiMethodsAllowed[HTTP_POST] = 1;
        mtPrimaryThread = CurrentThreadID();
        ForgetClosed();
    }

    void TearDown() override {
        EXPECT_TRUE(ServingThreadsEnd());
        EXPECT_EQ(NumOfThreads(), 0);
        Reset();
    }

private:
    static void Reset() {
        replaced = {};
        SetDefaultConfig();
        StoreShared<unsigned char>(ucVerbosity, VERBOSITY_WARN);
        StoreShared<unsigned char>(ucTerminated, 0);
        StoreShared<unsigned char>(ucReconfigured, 0);
        StoreShared(signalled, 0);
        StoreShared(nThreads, 0);
        StoreShared(mtPrimaryThread, kNone);
    }
};

// --- the handler table ---------------------------------------------------------------------------------

using HandlerTable = ServiceTest;

TEST_F(HandlerTable, HasOneEntry) {
    EXPECT_EQ(std::size(rDxFunctions), 1U);
    EXPECT_STREQ(rDxFunctions[0].szPrefix, "/rDx");
    EXPECT_EQ(rDxFunctions[0].pHandler, rDxHandler);
}

TEST_F(HandlerTable, KnowsTheUrisThatBeginWithItsPrefix) {
    for (const char* uri :
         {"/rDx", "/rdx", "/RDX", "/RDXanything", "/rDx?FunctionName=x", "/rDx/", "/rdxx"}) {
        EXPECT_EQ(GetServerHandler(uri), rDxHandler) << uri;
    }
}

TEST_F(HandlerTable, KnowsNoOtherUri) {
    for (const char* uri : {"", "/", "/r", "/rD", "/other", "rDx", "//rDx", " /rDx", "/rD ", "/rD\xd8"}) {
        EXPECT_EQ(GetServerHandler(uri), nullptr) << uri;
    }
    EXPECT_EQ(GetServerHandler(nullptr), nullptr);
}

TEST_F(HandlerTable, ReadsNothingBehindAShortUri) {
    for (const std::string uri : {"/rD", "/r", "/", ""}) {
        const test::GuardedBytes guarded(uri + std::string(1, '\0'));
        EXPECT_EQ(GetServerHandler(guarded.begin()), nullptr) << uri;
    }
}

// --- HandleRequest -------------------------------------------------------------------------------------

class HandleRequestTest : public ServiceTest {
protected:
    int Handle(test::Request& request, unsigned int size = 64) {
        buffer_.assign(size, 'x');
        length_ = size;
        return HandleRequest(request.get(), buffer_.data(), &length_, 0, &terminate_, &keepAlive_);
    }

    std::string buffer_;
    unsigned int length_ = 0;
    unsigned char terminate_ = 0;
    unsigned char keepAlive_ = 7;
};

TEST_F(HandleRequestTest, HasNoHandlerForAnotherUri) {
    test::Request request("/other");
    request->ucKeepAlive = 1;
    EXPECT_EQ(Handle(request), -404);
    EXPECT_EQ(keepAlive_, 7) << "not written";
    EXPECT_EQ(buffer_, std::string(64, '\0')) << "filled with zeros all the same";
    EXPECT_EQ(length_, 64U);
}

TEST_F(HandleRequestTest, HasNoHandlerForARequestWithoutAUri) {
    test::Request request;
    request->pszUri = nullptr;
    EXPECT_EQ(Handle(request), -404);
    EXPECT_EQ(keepAlive_, 7);
}

TEST_F(HandleRequestTest, GivesTheHandlerAnEmptyBufferAndItsSize) {
    test::Request request;
    replaced.handler = [&](HttpRequest* handled, char* out, unsigned long* length, unsigned char* terminate) {
        EXPECT_EQ(handled, request.get());
        EXPECT_EQ(std::string(out, *length), std::string(64, '\0'));
        EXPECT_EQ(terminate, &terminate_);
        std::memcpy(out, "body", 4);
        *length = 4;
        return 0;
    };
    EXPECT_EQ(Handle(request), 200);
    EXPECT_EQ(length_, 4U);
    EXPECT_EQ(buffer_, "body" + std::string(60, '\0'));
}

TEST_F(HandleRequestTest, TurnsTheHandlersResultIntoAStatus) {
    constexpr struct {
        int handled;
        int status;
    } kRows[] = {{0, 200},     {1, -400},    {400, -400},  {99, -400},        {-401, -401},
                 {-1, -500},   {-3, -500},   {-6, -500},   {-400, -500},      {-404, -500},
                 {-405, -500}, {-500, -500}, {-402, -500}, {2147483647, -400}};
    for (const auto& row : kRows) {
        test::Request request;
        for (const unsigned char keepAlive : kFlags) {
            request->ucKeepAlive = keepAlive;
            keepAlive_ = 7;
            replaced.handler = Failing(row.handled);
            EXPECT_EQ(Handle(request), row.status) << row.handled;
            EXPECT_EQ(keepAlive_, keepAlive) << row.handled;
        }
    }
}

TEST_F(HandleRequestTest, LogsARequestForTermination) {
    test::Request request;
    request->iSocket = 4711;
    replaced.handler = [](HttpRequest*, char*, unsigned long* length, unsigned char* terminate) {
        *length = 0;
        *terminate = 1;
        return 0;
    };
    for (const int verbosity : kVerbosities) {
        ucVerbosity = static_cast<unsigned char>(verbosity);
        const CaptureStdout capture;
        EXPECT_EQ(Handle(request), 200);
        EXPECT_EQ(terminate_, 1);
        EXPECT_EQ(WithoutTimes(capture.Text()),
                  TraceAt(verbosity,
                          {{kProgress, ThreadLine("ServeClient()", "termination request from handle =", 4711,
                                                  CurrentThreadID())}}));
    }
}

TEST_F(HandleRequestTest, LogsNoRequestForTerminationOfAHandlerThatFailed) {
    test::Request request;
    ucVerbosity = VERBOSITY_ALL;
    terminate_ = 1;
    for (const int result : {400, -1}) {
        replaced.handler = Failing(result);
        const CaptureStdout capture;
        Handle(request);
        EXPECT_EQ(capture.Text(), "");
    }
}

TEST_F(HandleRequestTest, ReachesTheDeviceService) {
    const CaptureStdout capture;
    test::Request version("rdxGetVersion", kVersionArguments);
    EXPECT_EQ(Handle(version, SERVICE_BUFFER_SIZE), 200);
    EXPECT_THAT(buffer_.substr(0, length_), HasSubstr("<number>100</number>"));
    EXPECT_EQ(buffer_[length_], '\0');

    test::Request nameless("/rDx");
    EXPECT_EQ(Handle(nameless, SERVICE_BUFFER_SIZE), -400) << "no method is named";

    test::Request protectedMethod("rdxAllocateDevice", "");
    EXPECT_EQ(Handle(protectedMethod, SERVICE_BUFFER_SIZE), -401);

    test::Request small("rdxGetVersion", kVersionArguments);
    EXPECT_EQ(Handle(small, 16), -500) << "the result does not fit";
}

// --- a slot served on the test's own thread ------------------------------------------------------------

// Serves a request and gives the service's status.
long Serve(Serving& serving) { return reinterpret_cast<std::intptr_t>(ServeClient(&serving.call)); }

long Serve(Serving& serving, std::string_view request) {
    serving.Send(request);
    return Serve(serving);
}

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
    const std::string invalid = Answer("400 Bad Request", kInvalidPage);
    const std::string notAllowed = Answer("405 Not implemented", kNotAllowedPage);
    const ServedRow rows[] = {
        {"no protocol", "GET /x\r\n\r\n", invalid, "\nParsing: method ok (1)" + bad},
        {"no header", "GET /x HTTP/1.0\r\n\r\n", invalid, kRead + bad},
        {"two CRs", "GET /x HTTP/1.1\r\r\n", invalid, bad},
        {"a line of 512 characters", "GET /" + std::string(507, 'x') + "\r\n", invalid, bad},
        {"length 0", "POST /rDx HTTP/1.1\r\nContent-length: 0\r\n\r\n", invalid, kRead + bad},
        {"unknown method", "FOO /x HTTP/1.1\r\n", notAllowed, "ServeClient: HTTP_METHOD_NOT_ALLOWED"},
        {"forbidden method", "PUT /x HTTP/1.1\r\n", notAllowed,
         "\nParsing: method ok (0)ServeClient: HTTP_METHOD_NOT_ALLOWED"},
        {"unknown header", "GET /x HTTP/1.1\r\nX-Custom: 1\r\n", kErrorAnswer, kRead + error},
        {"unknown protocol", "GET /x FTP/1.0\r\n", kErrorAnswer, "\nParsing: method ok (1)" + error},
        {"unknown version", "GET /x HTTP/2.0\r\n", kErrorAnswer, "\nParsing: method ok (1)" + error},
    };
    for (const ServedRow& row : rows) {
        SCOPED_TRACE(row.why);
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(Serve(serving, row.request), static_cast<long>(row.answer.size()));
        EXPECT_EQ(serving.Received(), row.answer);
        EXPECT_EQ(capture.Text(), row.trace + "\nServeClientDone: Socket closed");
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
    EXPECT_EQ(Serve(without, Get("/other")), static_cast<long>(kUnauthorizedAnswer.size()));
    EXPECT_EQ(without.Received(), kUnauthorizedAnswer);
    EXPECT_EQ(capture.Text(),
              kRead + std::string("\nConsumeHttpRequest: no authServeClient: HTTP_UNAUTHORIZED"
                                  "\nServeClientDone: Socket closed"));
    Serving with;
    Serve(with, "GET /other HTTP/1.1\r\nAuthorization: Basic dXNlcjpwYXNz\r\n\r\n");
    EXPECT_EQ(with.Received(), kNotFoundAnswer);
}

TEST_F(ServeClientTest, AnswersEveryOutcomeOfAHandler) {
    const std::string bad = "\nServeClient: HTTP_BAD_REQUEST\nServeClient-: HTTP_BAD_REQUEST 0";
    const struct {
        int handled;
        std::string answer;
        std::string trace;
    } rows[] = {
        {400, Answer("400 Bad Request", kInvalidPage), bad},
        {1, Answer("400 Bad Request", kInvalidPage), bad},
        {-401, kUnauthorizedAnswer, "ServeClient: HTTP_UNAUTHORIZED"},
        {-6, kErrorAnswer, "ServeClient: HTTP_INTERNAL_SERVER_ERROR"},
        {-404, kErrorAnswer, "ServeClient: HTTP_INTERNAL_SERVER_ERROR"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.handled);
        replaced.handler = Failing(row.handled);
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(Serve(serving, Get("/rDx", "close")), static_cast<long>(row.answer.size()));
        EXPECT_EQ(serving.Received(), row.answer);
        EXPECT_EQ(capture.Text(), kRead + row.trace + "\nServeClientDone: Socket closed");
        EXPECT_TRUE(serving.IsClosed());
    }
}

TEST_F(ServeClientTest, AnswersWithTheHandlersOutput) {
    for (const std::string uri : {"/rDx", "/rdx", "/RDXanything"}) {
        replaced.handler = Answering("<wddxPacket/>");
        const CaptureStdout capture;
        Serving serving;
        Serve(serving, Get(uri));
        EXPECT_EQ(serving.Received(), Answer(kOk, "<wddxPacket/>")) << uri;
        EXPECT_EQ(capture.Text(), std::string(kRead) + "ServeClient: HTTP_OK");
    }
    for (const std::string uri : {"/rD", "/other", "/"}) {
        const CaptureStdout capture;
        Serving serving;
        Serve(serving, Get(uri));
        EXPECT_EQ(serving.Received(), kNotFoundAnswer) << uri;
        EXPECT_EQ(capture.Text(),
                  std::string(kRead) + "ServeClient: HTTP_NOT_FOUND\nServeClientDone: Socket closed");
    }
}

TEST_F(ServeClientTest, SendsAnEmptyOutputWithoutALength) {
    replaced.handler = Answering("");
    const CaptureStdout quiet;
    Serving serving;
    Serve(serving, Get("/rDx"));
    EXPECT_EQ(serving.Received(), Answer(kOk, ""));
}

TEST_F(ServeClientTest, ServesARealMethod) {
    const CaptureStdout capture;
    Serving serving;
    Serve(serving, "POST /rDx?FunctionName=rdxGetVersion HTTP/1.1\r\nContent-length: " +
                       std::to_string(std::strlen(kVersionArguments)) + "\r\n\r\n" + kVersionArguments);
    const std::string answer = serving.Received();
    const std::size_t body = answer.find("\r\n\r\n") + 4;
    EXPECT_EQ(answer, Answer(kOk, answer.substr(body)));
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
    const std::size_t head = Answer(kOk, std::string(131000, 'x')).size() - 131000;
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
        EXPECT_EQ(received, size == most ? Answer(kOk, std::string(size, 'x')) : "");
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
    EXPECT_EQ(serving.Received(), kNotFoundAnswer + "END");
}

TEST_F(ServeClientTest, SendsNothingWhenThePeerClosedBeforeARequest) {
    const CaptureStdout capture;
    Serving serving;
    serving.call.ucKeepAlive = 1;
    serving.EndSending();
    EXPECT_EQ(Serve(serving), -1);
    EXPECT_EQ(serving.Received(), "");
    EXPECT_EQ(capture.Text(), "\nServeClientDone: Socket closed");
    EXPECT_TRUE(serving.IsClosed());
    EXPECT_FALSE(serving.IsWatched());
}

TEST_F(ServeClientTest, SendsNothingWhenReceivingFailed) {
    const CaptureStdout capture;
    Serving serving;
    serving.Send(Get("/other"));
    const FailCall reset("recv", 2, ECONNRESET); // the first one looks whether anybody is there
    EXPECT_EQ(Serve(serving), -1);
    EXPECT_TRUE(reset.Struck());
    EXPECT_EQ(serving.Received(), "");
    EXPECT_EQ(capture.Text(), "\nServeClientDone: Socket closed");
    EXPECT_TRUE(serving.IsClosed());
}

TEST_F(ServeClientTest, FindsNothingForAnEmptyFirstLine) {
    for (const char* line : {"\r\n", "\n"}) {
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(Serve(serving, line), static_cast<long>(kNotFoundAnswer.size()));
        EXPECT_EQ(serving.Received(), kNotFoundAnswer);
        EXPECT_EQ(capture.Text(), "ServeClient: HTTP_NOT_FOUND\nServeClientDone: Socket closed");
    }
}

// A client that has nothing more to say still wants to hear.
TEST_F(ServeClientTest, AnswersAnEmptyFirstLineWhenTheClientHasEndedItsSide) {
    for (const char* line : {"\r\n", "\n", "\r"}) {
        const CaptureStdout capture;
        Serving serving;
        serving.Send(line);
        serving.EndSending();
        EXPECT_EQ(Serve(serving), static_cast<long>(kNotFoundAnswer.size()));
        EXPECT_EQ(serving.Received(), kNotFoundAnswer);
    }
}

TEST_F(ServeClientTest, AnswersWithAnErrorWhenMemoryForTheBuffersIsShort) {
    for (int nth = 1; nth <= 2; ++nth) {
        const CaptureStdout capture;
        Serving serving;
        serving.Send("\r\n"); // needs no malloc to be read
        const FailCall noMemory("malloc", nth);
        EXPECT_EQ(Serve(serving), static_cast<long>(kErrorAnswer.size())) << nth;
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(serving.Received(), kErrorAnswer);
        EXPECT_EQ(capture.Text(), "\nServeClient: HTTP_INTERNAL_SERVER_ERROR"
                                  "ServeClient: HTTP_INTERNAL_SERVER_ERROR"
                                  "\nServeClientDone: Socket closed");
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
        EXPECT_EQ(Serve(serving), static_cast<long>(kErrorAnswer.size()));
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(serving.Received(), kErrorAnswer);
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
    EXPECT_EQ(capture.Text(), "ServeClient: HTTP_METHOD_NOT_ALLOWED\nServeClientDone: Socket closed");
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
    EXPECT_EQ(Serve(serving), static_cast<long>(kErrorAnswer.size()));
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(serving.Received(), kErrorAnswer);
    EXPECT_EQ(capture.Text(), "ServeClient: HTTP_INTERNAL_SERVER_ERROR\nServeClientDone: Socket closed");
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
                EXPECT_EQ(answer, Answer(kOk, "body"));
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
            EXPECT_EQ(capture.Text(), std::string(kRead) + "ServeClient: HTTP_OK" +
                                          (row.kept ? "" : "\nServeClientDone: Socket closed"));
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
            EXPECT_EQ(
                WithoutTimes(capture.Text()),
                TraceAt(
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
    EXPECT_EQ(capture.Text(),
              kRead + ("\nConsumeHttpRequest: szPeerName = 127.0.0.1:" + std::to_string(client.Port())) +
                  "ServeClient: HTTP_NOT_FOUND\nServeClientDone: Socket closed");
    EXPECT_EQ(client.ReceiveAll(), kNotFoundAnswer);
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
            while (!(piece = client.Receive(1000)).empty()) {
                received += piece;
                std::this_thread::yield();
            }
        });
        Serving serving;
        serving.Replace(accept(listener.Socket(), nullptr, nullptr));
        Serve(serving);
        reader.join();
        EXPECT_EQ(received, Answer(kOk, body));
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

// --- ServeClientDone -----------------------------------------------------------------------------------

using ServeClientDoneTest = ServiceTest;

TEST_F(ServeClientDoneTest, WatchesAKeptConnectionAgain) {
    for (const int keep : {1, 2, -1}) {
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(ServeClientDone(&serving.call, 17, keep), 17);
        EXPECT_TRUE(serving.IsWatched());
        EXPECT_FALSE(serving.IsClosed());
        EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
        EXPECT_EQ(capture.Text(), "");
    }
}

TEST_F(ServeClientDoneTest, ClosesEveryOtherConnection) {
    const struct {
        int status;
        int keep;
    } rows[] = {{17, 0}, {-1, 1}, {-1, 0}, {-2, 1}, {-3, 1}};
    for (const auto& row : rows) {
        const CaptureStdout capture;
        Serving serving;
        serving.Send("x");
        EXPECT_EQ(ServeClientDone(&serving.call, row.status, row.keep), row.status);
        EXPECT_FALSE(serving.IsWatched());
        EXPECT_TRUE(serving.IsClosed());
        EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
        EXPECT_EQ(capture.Text(), "\nServeClientDone: Socket closed");
    }
}

TEST_F(ServeClientDoneTest, ShutsTheConnectionDownForWhoeverElseHoldsIt) {
    const CaptureStdout quiet;
    Serving serving;
    const int duplicate = dup(serving.call.hSocket);
    ServeClientDone(&serving.call, -1, 0);
    char byte;
    EXPECT_EQ(recv(duplicate, &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(send(duplicate, "x", 1, MSG_NOSIGNAL), -1);
    close(duplicate);
}

TEST_F(ServeClientDoneTest, TracesAtEveryVerbosity) {
    for (const int verbosity : kVerbosities) {
        ucVerbosity = static_cast<unsigned char>(verbosity);
        const unsigned long thread = CurrentThreadID();
        const CaptureStdout capture;
        Serving kept;
        ServeClientDone(&kept.call, 1, 1);
        Serving dropped;
        ServeClientDone(&dropped.call, 1, 0);
        EXPECT_EQ(
            WithoutTimes(capture.Text()),
            TraceAt(verbosity, {{kDetail, ThreadLine("ServeClientDone()", "added handle to active set again",
                                                     kept.call.hSocket, thread)},
                                {kDetail, ThreadLine("ServeClientDone()", "client socket closed",
                                                     dropped.call.hSocket, thread)},
                                {kAlways, "\nServeClientDone: Socket closed"}}));
    }
}

TEST_F(ServeClientDoneTest, EndsAServingThreadWithItsStatus) {
    const CaptureStdout quiet;
    Serving serving;
    pthread_t thread{};
    nThreads = 1;
    const auto body = [](void* call) -> void* {
        auto* const slot = static_cast<ServiceCall*>(call);
        slot->hThreadId = CurrentThreadID();
        ServeClientDone(slot, 65537, 1);
        ADD_FAILURE() << "the thread goes on";
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &serving.call), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(*static_cast<unsigned long*>(result), 1UL) << "the low 16 bits";
    EXPECT_EQ(NumOfThreads(), 0);
    EXPECT_TRUE(serving.IsWatched());
    EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
}

TEST_F(ServeClientDoneTest, IsAsserted) {
    const char* const kSignature = "int ServeClientDone(ServiceCall*, int, int)";
    Serving serving;
    for (const int keep : {0, 1}) {
        EXPECT_DEATH(ServeClientDone(&serving.call, 0, keep), Report(kSignature, "svcStat != 0"));
    }
    EXPECT_DEATH(
        {
            serving.call.pFdSet = nullptr;
            ServeClientDone(&serving.call, 1, 1);
        },
        Report(kSignature, "pArgs->pFdSet != __null"));
    EXPECT_DEATH(
        {
            serving.call.hThreadId = 0;
            ServeClientDone(&serving.call, 1, 1);
        },
        Report(kSignature, "pArgs->hThreadId != 0L"));
    EXPECT_DEATH(
        {
            mtPrimaryThread = 0;
            ServeClientDone(&serving.call, 1, 1);
        },
        Report(kSignature, "PrimaryThreadID() != 0L"));
}

TEST_F(ServeClientDoneTest, NeedsNoSetForAConnectionThatIsNotKept) {
    const CaptureStdout quiet;
    Serving serving;
    serving.call.pFdSet = nullptr;
    EXPECT_EQ(ServeClientDone(&serving.call, 1, 0), 1);
    Serving failed;
    failed.call.pFdSet = nullptr;
    EXPECT_EQ(ServeClientDone(&failed.call, -1, 1), -1);
}

// --- slots ---------------------------------------------------------------------------------------------

constexpr ServiceCall MakeSlot(int status, ThreadID thread, unsigned char terminate = 0,
                               unsigned char reconfigure = 0) {
    return {42, status, 0, terminate, reconfigure, thread, nullptr};
}

using GetServiceCallPtrTest = ServiceTest;

TEST_F(GetServiceCallPtrTest, FindsTheFirstFreeSlot) {
    ServiceCall slots[] = {MakeSlot(SERVICE_RUNNING, 5), MakeSlot(SERVICE_FINISHED, 6),
                           MakeSlot(SERVICE_FREE, 7), MakeSlot(SERVICE_FREE, 8)};
    ASSERT_EQ(GetServiceCallPtr(slots, 4), &slots[2]);
    EXPECT_EQ(slots[2].hSocket, -1);
    EXPECT_EQ(slots[2].hThreadId, kNone);
    EXPECT_EQ(slots[2].iSvcStatus, SERVICE_FREE);
    EXPECT_EQ(slots[3].hSocket, 42) << "untouched";
    EXPECT_EQ(slots[3].hThreadId, 8U);
    EXPECT_EQ(slots[0].hSocket, 42);
}

TEST_F(GetServiceCallPtrTest, LeavesTheKeepAliveFlag) {
    ServiceCall slot = MakeSlot(SERVICE_FREE, 7);
    slot.ucKeepAlive = 1;
    ASSERT_EQ(GetServiceCallPtr(&slot, 1), &slot);
    EXPECT_EQ(slot.ucKeepAlive, 1);
}

TEST_F(GetServiceCallPtrTest, FindsNothingAmongBusySlots) {
    ServiceCall slots[] = {MakeSlot(SERVICE_RUNNING, 5), MakeSlot(SERVICE_FINISHED, 6),
                           MakeSlot(SERVICE_FREE, 7)};
    EXPECT_EQ(GetServiceCallPtr(slots, 2), nullptr);
    EXPECT_EQ(slots[2].hSocket, 42) << "beyond the slots";
}

TEST_F(GetServiceCallPtrTest, IsAsserted) {
    const char* const kSignature = "ServiceCall* GetServiceCallPtr(ServiceCall*, int)";
    ServiceCall slot = MakeSlot(SERVICE_FREE, kNone);
    EXPECT_DEATH(GetServiceCallPtr(nullptr, 1), Report(kSignature, "pBase != __null"));
    for (const int count : {0, -1}) {
        EXPECT_DEATH(GetServiceCallPtr(&slot, count), Report(kSignature, "nSlots > 0"));
    }
}

using UpdateServerStatusTest = ServiceTest;

TEST_F(UpdateServerStatusTest, FreesOneFinishedSlotAtATime) {
    ServiceCall slots[] = {MakeSlot(SERVICE_FREE, kNone), MakeSlot(SERVICE_RUNNING, 5),
                           MakeSlot(SERVICE_FINISHED, 6), MakeSlot(SERVICE_FINISHED, 7)};
    const CaptureStdout capture;
    UpdateServerStatus(slots, 4);
    EXPECT_EQ(slots[0].iSvcStatus, SERVICE_FREE);
    EXPECT_EQ(slots[1].iSvcStatus, SERVICE_RUNNING);
    EXPECT_EQ(slots[2].iSvcStatus, SERVICE_FREE);
    EXPECT_EQ(slots[3].iSvcStatus, SERVICE_FINISHED);
    UpdateServerStatus(slots, 4);
    EXPECT_EQ(slots[3].iSvcStatus, SERVICE_FREE);
    UpdateServerStatus(slots, 4);
    EXPECT_EQ(slots[1].iSvcStatus, SERVICE_RUNNING);
    EXPECT_EQ(ucTerminated, 0);
    EXPECT_EQ(ucReconfigured, 0);
    EXPECT_EQ(capture.Text(), "");
}

TEST_F(UpdateServerStatusTest, LooksAtNoMoreThanTheSlots) {
    ServiceCall slots[] = {MakeSlot(SERVICE_FREE, kNone), MakeSlot(SERVICE_FINISHED, 5)};
    UpdateServerStatus(slots, 1);
    EXPECT_EQ(slots[1].iSvcStatus, SERVICE_FINISHED);
    UpdateServerStatus(slots, 0);
    EXPECT_EQ(slots[1].iSvcStatus, SERVICE_FINISHED);
}

TEST_F(UpdateServerStatusTest, PassesRequestsOn) {
    const struct {
        unsigned char terminate, reconfigure, terminated, reconfigured;
        const char* message;
    } rows[] = {
        {0, 0, 0, 0, nullptr},
        {1, 0, 1, 0, "termination request from thread ID="},
        {0, 1, 0, 1, "reconfiguration request from thread ID="},
        {1, 1, 1, 0, "termination request from thread ID="}, // one of them
    };
    for (const auto& row : rows) {
        for (const int verbosity : kVerbosities) {
            ucTerminated = 0;
            ucReconfigured = 0;
            ucVerbosity = static_cast<unsigned char>(verbosity);
            ServiceCall slot = MakeSlot(SERVICE_FINISHED, 4711, row.terminate, row.reconfigure);
            const CaptureStdout capture;
            UpdateServerStatus(&slot, 1);
            EXPECT_EQ(ucTerminated, row.terminated);
            EXPECT_EQ(ucReconfigured, row.reconfigured);
            EXPECT_EQ(slot.iSvcStatus, SERVICE_FREE);
            const std::string line = row.message == nullptr ? ""
                                                            : ThreadLine("UpdateServerStatus()", row.message,
                                                                         4711, CurrentThreadID());
            EXPECT_EQ(WithoutTimes(capture.Text()), TraceAt(verbosity, {{kDetail, line}}));
        }
    }
}

TEST_F(UpdateServerStatusTest, IgnoresRequestsOfServicesThatHaveNotFinished) {
    ServiceCall slots[] = {MakeSlot(SERVICE_RUNNING, 5, 1, 1), MakeSlot(SERVICE_FREE, kNone, 1, 1)};
    UpdateServerStatus(slots, 2);
    EXPECT_EQ(ucTerminated, 0);
    EXPECT_EQ(ucReconfigured, 0);
}

TEST_F(UpdateServerStatusTest, IsAsserted) {
    ServiceCall slots[] = {MakeSlot(SERVICE_FREE, kNone), MakeSlot(SERVICE_RUNNING, kNone),
                           MakeSlot(SERVICE_FINISHED, 5)};
    EXPECT_DEATH(UpdateServerStatus(slots, 3),
                 Report("void UpdateServerStatus(ServiceCall*, int)", "pSvc->hThreadId != ((ThreadID)(-1))"));
    ServiceCall behind[] = {MakeSlot(SERVICE_FINISHED, 5), MakeSlot(SERVICE_RUNNING, kNone)};
    UpdateServerStatus(behind, 2); // the scan stops at a finished slot
    EXPECT_EQ(behind[0].iSvcStatus, SERVICE_FREE);
}

TEST_F(ServiceTest, InitializeThreadsStartsTheThreadLibrary) {
    nThreads = 5;
    const CaptureStdout capture;
    EXPECT_EQ(InitializeThreads(3), 0);
    EXPECT_EQ(NumOfThreads(), 0);
    EXPECT_EQ(PrimaryThreadID(), CurrentThreadID());
    EXPECT_EQ(WithoutTimes(capture.Text()),
              "\n[TIME],InitThreadLib(): running POSIX threads (0)\nmtPrimaryThread=" +
                  std::to_string(static_cast<int>(CurrentThreadID())));
    EXPECT_EQ(InitializeThreads(2), 0) << "the slots of before are given up";
    EXPECT_EQ(DeinitializeThreads(), 0);
    EXPECT_EQ(DeinitializeThreads(), 0) << "there are none";
}

TEST_F(ServiceTest, InitializeThreadsNeedsMemoryAndAtLeastOneSlot) {
    const CaptureStdout quiet;
    for (int nth = 1; nth <= 3; ++nth) {
        const FailCall noMemory("calloc", nth);
        EXPECT_EQ(InitializeThreads(3), -2);
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(DeinitializeThreads(), 0);
    }
    EXPECT_EQ(InitializeThreads(0), -2);
    EXPECT_EQ(InitializeThreads(-1), -2);
    EXPECT_EQ(InitializeThreads(2147483647), 0) << "no more slots are made than connections can be";
    EXPECT_EQ(DeinitializeThreads(), 0);
}

// --- CloseClientSockets --------------------------------------------------------------------------------

class CloseClientSocketsTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        for (int& descriptor : descriptors_) {
            descriptor = socket(AF_INET, SOCK_STREAM, 0);
            FD_SET(descriptor, &set_);
        }
    }

    void TearDown() override {
        for (const int descriptor : descriptors_) {
            if (TimesClosed(descriptor) == 0) close(descriptor);
        }
        ServiceTest::TearDown();
    }

    // Which of the descriptors have been closed, once.
    std::vector<bool> Closed() const {
        std::vector<bool> result;
        for (const int descriptor : descriptors_) {
            EXPECT_LE(TimesClosed(descriptor), 1);
            result.push_back(TimesClosed(descriptor) == 1);
        }
        return result;
    }

    unsigned At(int i) const { return static_cast<unsigned>(descriptors_[static_cast<std::size_t>(i)]); }

    std::array<int, 3> descriptors_{};
    fd_set set_{};
};

TEST_F(CloseClientSocketsTest, SparesTheExceptedDescriptor) {
    const fd_set before = set_;
    EXPECT_EQ(CloseClientSockets(&set_, 1024, At(1)), 0);
    EXPECT_EQ(Closed(), (std::vector{true, false, true}));
    EXPECT_EQ(std::memcmp(&set_, &before, sizeof set_), 0) << "the set is left as it is";
}

TEST_F(CloseClientSocketsTest, SparesWhatIsNotInTheSet) {
    FD_CLR(descriptors_[0], &set_);
    EXPECT_EQ(CloseClientSockets(&set_, 1023, 1023), 0);
    EXPECT_EQ(Closed(), (std::vector{false, true, true}));
}

TEST_F(CloseClientSocketsTest, StopsAtItsLimit) {
    EXPECT_EQ(CloseClientSockets(&set_, 0, 1023), 0);
    EXPECT_EQ(Closed(), (std::vector{false, false, false}));
    EXPECT_EQ(CloseClientSockets(&set_, At(1), 1023), 0);
    EXPECT_EQ(Closed(), (std::vector{true, false, false}));
}

TEST_F(CloseClientSocketsTest, TakesALimitOutsideTheSetForTheSetsSize) {
    for (const unsigned limit : {1024U, 1025U, 20000U, ~0U}) {
        const int last = FD_SETSIZE - 1;
        fd_set only{};
        FD_SET(last, &only);
        ASSERT_EQ(dup2(descriptors_[0], last), last);
        EXPECT_EQ(CloseClientSockets(&only, limit, 0), 0);
        EXPECT_EQ(fcntl(last, F_GETFD), -1) << limit;
    }
}

// --- the loop ------------------------------------------------------------------------------------------

// One run of the server's loop on a thread of its own.
class LoopRun {
public:
    using Body = std::function<int(unsigned server)>;

    explicit LoopRun(unsigned threads)
        : LoopRun([threads](unsigned server) { return RunHttpServer(server, threads); }) {}

    // `body` calls RunHttpServer, and sets faults before.
    explicit LoopRun(Body body) : LoopRun(std::move(body), std::make_shared<test::Listener>()) {}

    LoopRun(Body body, std::shared_ptr<test::Listener> listener)
        : listener_(std::move(listener)), thread_([this, body = std::move(body)] {
              threadNumber_ = ThreadNumber();
              result_ = body(static_cast<unsigned>(listener_->Socket()));
          }) {}

    ~LoopRun() {
        if (thread_.joinable()) Stop();
    }
    LoopRun(const LoopRun&) = delete;
    LoopRun& operator=(const LoopRun&) = delete;

    Client Connect(int receiveBuffer = 0) const { return Client(listener_->Port(), receiveBuffer); }

    // Asks the loop to end, and gives its result.
    int Stop() {
        StoreShared<unsigned char>(ucTerminated, 1);
        return Join();
    }

    // The result of a loop that ends by itself.
    int Join() {
        thread_.join();
        return result_;
    }

    unsigned ThreadNumberOfLoop() const { return threadNumber_; }
    int Socket() const { return listener_->Socket(); }
    std::shared_ptr<test::Listener> SharedListener() const { return listener_; }

private:
    std::shared_ptr<test::Listener> listener_;
    std::atomic<unsigned> threadNumber_ = 0;
    int result_ = -99;
    std::thread thread_;
};

class RunHttpServerTest : public ServiceTest {
protected:
    // The loop looks at its flags more often than its own time-out would let it: tests end sooner.
    void SetUp() override {
        ServiceTest::SetUp();
        replaced.select = [](int count, fd_set* ready, timeval*) {
            timeval soon{0, 5000};
            return __real_select(count, ready, nullptr, nullptr, &soon);
        };
    }

    bool Printed(const std::string& text) const {
        return Eventually([&] { return capture_.Text().find(text) != std::string::npos; });
    }

    std::string Text() const { return WithoutTimes(capture_.Text()); }

    // The descriptor that the server handled last.
    int LastHandled() const {
        const std::string text = capture_.Text();
        const std::string mark = "HttpServer: Handling socket (";
        const std::size_t at = text.rfind(mark);
        return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + mark.size());
    }

    static bool Serving(int threads) {
        return Eventually([threads] { return NumOfThreads() == threads; });
    }

    CaptureStdout capture_;
};

std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

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
    EXPECT_EQ(client.ReceiveAll(), Answer(kOk, ""));
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
        EXPECT_EQ(client.ReceiveAll(), kNotFoundAnswer);
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
        EXPECT_EQ(
            WithoutTimes(text),
            TraceAt(
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
                                  static_cast<long>(kNotFoundAnswer.size()))},
                 {kDetail, line("ServeClientDone()", "client socket closed", socket)},
                 {kAlways, "\nServeClientDone: Socket closed"},
                 {kAlways, "\nucTerminated=1"}}));
    }
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
            EXPECT_EQ(client.Receive(Answer(kOk, "").size()), Answer(kOk, ""));
        }
    }
    EXPECT_EQ(handledBy, loop.ThreadNumberOfLoop());
    EXPECT_EQ(loop.Stop(), 0);
    for (Client& client : clients) EXPECT_EQ(client.ReceiveAll(), "") << "kept ones are closed at the end";
}

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
            EXPECT_EQ(client.Receive(Answer(kOk, "").size()), Answer(kOk, ""));
        }
        ASSERT_TRUE(Serving(0));
        const int harvested = passes + kClients + 1; // a slot in each pass
        ASSERT_TRUE(Eventually([&] { return passes > harvested; }));
    }
    EXPECT_EQ(loop.Stop(), 0);
    for (Client& client : clients) EXPECT_EQ(client.ReceiveAll(), "");
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
    EXPECT_EQ(client.ReceiveAll(), Answer(kOk, ""));
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
    EXPECT_EQ(client.ReceiveAll(), kNotFoundAnswer);
    EXPECT_EQ(loop.Stop(), 0);
    for (const char* text : {"created thread ID", "remaining threads", "removed handle", "found activity"}) {
        EXPECT_THAT(Text(), Not(HasSubstr(text)));
    }
}

TEST_F(RunHttpServerTest, ServesSuccessiveRequestsOfOneConnection) {
    replaced.handler = Answering("body");
    for (const unsigned threads : {1U, 3U}) {
        ucTerminated = 0;
        LoopRun loop(threads);
        Client client = loop.Connect();
        for (int i = 0; i < 20; ++i) {
            client.Send(Get("/rDx", i < 19 ? "keep-alive" : "close"));
            EXPECT_EQ(client.Receive(Answer(kOk, "body").size()), Answer(kOk, "body")) << i;
        }
        EXPECT_EQ(client.ReceiveAll(), "");
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
        EXPECT_EQ(client.ReceiveAll(), kNotFoundAnswer);
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
    EXPECT_EQ(client.ReceiveAll(), kNotFoundAnswer);
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
    EXPECT_EQ(client.ReceiveAll(), kNotFoundAnswer);
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
    EXPECT_EQ(client.ReceiveAll(), "");
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
        EXPECT_EQ(refused.ReceiveAll(), "");
        for (const int descriptor : taken) close(descriptor);
        Client served = loop.Connect();
        served.Send(Get("/other", "close"));
        EXPECT_EQ(served.ReceiveAll(), kNotFoundAnswer);
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
            EXPECT_EQ(client.ReceiveAll(), Answer(kOk, "")) << "the answer is sent before";
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
            EXPECT_EQ(client.ReceiveAll(), Answer(kOk, ""));
            ASSERT_TRUE(Eventually([&] { return soiled.load(); }));
        }
        EXPECT_EQ(LoadShared(ucTerminated), 0) << "nobody asked for it";
        EXPECT_EQ(LoadShared(ucReconfigured), 0);
        EXPECT_EQ(loop.Stop(), 0);
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
        EXPECT_EQ(client.ReceiveAll(), "") << "closed without an answer";
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
    EXPECT_EQ(client.ReceiveAll(), Answer(kOk, ""));
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
    for (Client& client : clients) EXPECT_EQ(client.ReceiveAll(), "");
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
        EXPECT_EQ(client.Receive(kNotFoundAnswer.size()), kNotFoundAnswer);
    }
    ASSERT_TRUE(Serving(0));
    // Threads are free again and serve, but the late connection is not watched.
    Client next = loop.Connect();
    next.Send(Get("/other", "close"));
    EXPECT_EQ(next.ReceiveAll(), kNotFoundAnswer);
    EXPECT_TRUE(late.IsSilent());
    EXPECT_EQ(loop.Stop(), 0);
    EXPECT_EQ(late.ReceiveAll(), "");
}

// A thread may still be on its way out when its slot is free again.
TEST_F(RunHttpServerTest, GoesByTheNumberOfThreadsToo) {
    std::atomic<int> passes = 0;
    replaced.pause = [&](useconds_t) { ++passes; };
    LoopRun loop(2);
    Client served = loop.Connect();
    served.Send(Get("/other", "close"));
    EXPECT_EQ(served.ReceiveAll(), kNotFoundAnswer);
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
    EXPECT_EQ(next.ReceiveAll(), kNotFoundAnswer);
    EXPECT_TRUE(late.IsSilent());
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
                while (client.IsSilent() && std::chrono::steady_clock::now() < patience) {
                    std::this_thread::yield();
                }
                if (!client.IsSilent() && client.ReceiveAll() == Answer(kOk, "")) ++answered;
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
        EXPECT_EQ(idle.ReceiveAll(), "") << "watched connections are closed";
        EXPECT_TRUE(old.IsSilent()) << "the one in service is not";

        StoreShared<unsigned char>(ucTerminated, 0);
        std::optional<LoopRun> second(std::in_place, body, listener);
        std::vector<Client> busy; // the old thread takes none of the new loop's
        for (int i = 0; i < 2; ++i) {
            busy.push_back(second->Connect());
            busy.back().Send("GET /oth");
        }
        ASSERT_TRUE(Serving(2));
        old.Send("st: a\r\n\r\n");
        EXPECT_EQ(old.ReceiveAll(), kNotFoundAnswer) << "whole, and closed although it was to be kept";
        EXPECT_EQ(NumOfThreads(), 2) << "the old thread does not count";
        for (Client& client : busy) {
            client.Send("er HTTP/1.1\r\nHost: a\r\n\r\n");
            EXPECT_EQ(client.Receive(kNotFoundAnswer.size()), kNotFoundAnswer);
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
        EXPECT_EQ(client.ReceiveAll(), Answer(kOk, std::string(100000, 'x')));
        EXPECT_TRUE(ServingThreadsEnd());
        EXPECT_EQ(NumOfThreads(), 0);
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
        EXPECT_EQ(client.ReceiveAll(), Answer(kOk, body));
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
    EXPECT_EQ(old.ReceiveAll(), Answer(kOk, ""));
    Client client = second.Connect();
    client.Send(Get("/other", "close"));
    EXPECT_EQ(client.ReceiveAll(), kNotFoundAnswer) << "the new loop goes on";
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
        for (Client& client : clients) EXPECT_EQ(client.ReceiveAll(), Answer(kOk, ""));
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
