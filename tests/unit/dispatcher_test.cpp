#include "rDxsd/rDxsd.h"

#include "common/memory.h"
#include "rDxsd/auth.h"
#include "rDxsd/method_rows.h"
#include "tests/support/answers.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/request.h"
#include "tests/support/shadow.h"
#include "tests/support/wddx.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

// What every method handler does in these tests, and which were called; likewise the server's own check of
// credentials, whose answer must not matter.
std::function<int(TavrinRequest*, TavrinResponse*)> behaviour;
std::vector<std::string> called;
int serverChecks = 0;
int serverAnswer = 0;

int Handle(const char* name, TavrinRequest* call, TavrinResponse* result) {
    called.emplace_back(name);
    return behaviour(call, result);
}

} // namespace

#define HANDLER(name)                                                                                        \
    extern "C" int __wrap_##name(TavrinRequest* call, TavrinResponse* result);                               \
    int __wrap_##name(TavrinRequest* call, TavrinResponse* result) { return Handle(#name, call, result); }

HANDLER(ProcessGetDeviceStatus)
HANDLER(ProcessGetVehicleStatus)
HANDLER(ProcessAllocateDevice)
HANDLER(ProcessReleaseDevice)
HANDLER(ProcessInitiateCfgRequest)
HANDLER(ProcessSetIpConfiguration)
HANDLER(ProcessSetDeviceAttributes)
HANDLER(ProcessRunDeviceSelfTest)
HANDLER(ProcessUpdateDeviceFirmware)
#undef HANDLER

extern "C" {
int __wrap_ProcessGetVersion(TavrinRequest* call, TavrinResponse* result);
int __wrap_CheckAuth(int sock, HttpRequest* pReq);
}

// Not recorded: the one handler that is called by several threads.
int __wrap_ProcessGetVersion(TavrinRequest* call, TavrinResponse* result) { return behaviour(call, result); }

int __wrap_CheckAuth(int, HttpRequest*) {
    ++serverChecks;
    return serverAnswer;
}

namespace rdx {
namespace {

constexpr const char* kUser = "service";
constexpr const char* kPassword = "secret";

std::string Basic(const std::string& credentials) {
    std::vector<char> encoded(credentials.size() * 2 + 8);
    Base64Encode(reinterpret_cast<const unsigned char*>(credentials.c_str()), credentials.size(),
                 encoded.data());
    return "Basic " + std::string(encoded.data());
}

// A handler that assigns `text` and leaves `status` and `flag`.
std::function<int(TavrinRequest*, TavrinResponse*)> Answer(const std::string& text, int status = 0,
                                                           unsigned char flag = 0) {
    return [=](TavrinRequest*, TavrinResponse* result) {
        result->pszWddxResult = CopyText(text).release();
        result->iStatus = status;
        result->ucFlag = flag;
        return 0;
    };
}

class Dispatcher : public testing::Test {
protected:
    void SetUp() override {
        behaviour = Answer("answer");
        called.clear();
        serverChecks = 0;
        serverAnswer = 0;
    }

    // Outputs of rDxHandler; the body buffer ends right before an unreadable page.
    struct Output {
        int code;
        std::string buffer;
        unsigned long length;
        int flag;
    };

    Output Handle(test::Request& request, std::size_t capacity = 64) {
        const test::GuardedBytes buffer(std::string(capacity, '?'));
        unsigned long length = capacity;
        unsigned char flag = 77;
        const test::CaptureStdout capture;
        const int code = rDxHandler(request.get(), buffer.begin(), &length, &flag);
        printed_ = capture.Text();
        return {code, std::string(buffer.begin(), capacity), length, flag};
    }

    Output Handle(const std::string& method, std::size_t capacity = 64) {
        test::Request request(method, body_);
        return Handle(request, capacity);
    }

    void ExpectFailure(const Output& output, int code) {
        EXPECT_EQ(output.code, code);
        EXPECT_EQ(output.buffer, std::string(output.buffer.size(), '?'));
        EXPECT_EQ(output.length, output.buffer.size());
        EXPECT_EQ(output.flag, 77);
    }

    test::ShadowEntry service_{kUser, test::Encrypt(kPassword)};
    std::string body_ = test::Packet("<struct><var name='a'><null/></var></struct>");
    std::string printed_;
};

// ------------------------------------------------------------------------------------------ public names

TEST(Commands, AreNine) {
    const std::vector<std::string> expected = {
        "rdxGetVersion",           "rdxGetDeviceStatus",    "rdxAllocateDevice",
        "rdxReleaseDevice",        "rdxSetIpConfiguration", "rdxSetDeviceAttributes",
        "rdxUpdateDeviceFirmware", "rdxRunDeviceSelfTest",  "rdxInitiateCfgRequest"};
    EXPECT_EQ(std::vector<std::string>(std::begin(rdxCommands), std::end(rdxCommands)), expected);
}

// ------------------------------------------------------------------------------------------- dispatching

struct MethodCase {
    const char* method;
    const char* handler;
};

constexpr MethodCase kAuthenticated[] = {
    {"rdxAllocateDevice", "ProcessAllocateDevice"},
    {"rdxReleaseDevice", "ProcessReleaseDevice"},
    {"rdxSetIpConfiguration", "ProcessSetIpConfiguration"},
    {"rdxSetDeviceAttributes", "ProcessSetDeviceAttributes"},
    {"rdxUpdateDeviceFirmware", "ProcessUpdateDeviceFirmware"},
    {"rdxRunDeviceSelfTest", "ProcessRunDeviceSelfTest"},
    {"rdxInitiateCfgRequest", "ProcessInitiateCfgRequest"},
    {"rdxGetVehicleStatus", "ProcessGetVehicleStatus"},
};

std::string Changed(std::string text, int (*change)(int)) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [change](char c) { return static_cast<char>(change(c)); });
    return text;
}

// A name as it stands, in capitals and in small letters.
std::vector<std::string> InEveryCase(const char* name) {
    return {name, Changed(name, std::toupper), Changed(name, std::tolower)};
}

TEST_F(Dispatcher, FindsEveryMethodInAnyLetterCase) {
    for (const MethodCase& method : kAuthenticated) {
        for (const std::string& name : InEveryCase(method.method)) {
            test::Request request(name, "");
            request.Authorization(Basic("service:secret"));
            called.clear();
            EXPECT_EQ(Handle(request).code, 0) << name;
            EXPECT_EQ(called, std::vector<std::string>{method.handler}) << name;
        }
    }
}

TEST_F(Dispatcher, RefusesAMethodWithoutCredentials) {
    for (const MethodRow& method : Methods()) {
        if (method.access == Access::kPublic) continue;
        for (const std::string& name : InEveryCase(method.name)) {
            serverChecks = 0;
            ExpectFailure(Handle(name), -401);
            EXPECT_TRUE(called.empty()) << name;
            EXPECT_EQ(serverChecks, 1) << name;
        }
    }
}

TEST_F(Dispatcher, RefusesWrongCredentials) {
    for (const char* value : {"", "Digest username=\"service\"", "Basic c2VydmljZTp3cm9uZw=="}) {
        test::Request request("rdxAllocateDevice", "");
        request.Authorization(value);
        ExpectFailure(Handle(request), -401);
        EXPECT_TRUE(called.empty()) << value;
    }
}

TEST_F(Dispatcher, RefusesWhateverTheServersOwnCheckSays) {
    for (const int answer : {0, -1}) {
        serverAnswer = answer;
        ExpectFailure(Handle("rdxAllocateDevice"), -401);
    }
}

TEST_F(Dispatcher, AcceptsTheSchemeInSmallLetters) {
    test::Request request("rdxAllocateDevice", "");
    request.Authorization("basic " + Basic("service:secret").substr(6));
    EXPECT_EQ(Handle(request).code, 0);
}

TEST_F(Dispatcher, ServesVersionAndStatusToEverybody) {
    for (const std::string& name : InEveryCase("rdxGetDeviceStatus")) {
        called.clear();
        EXPECT_EQ(Handle(name).code, 0) << name;
        EXPECT_EQ(called, std::vector<std::string>{"ProcessGetDeviceStatus"}) << name;
    }
    called.clear();
    for (const std::string& name : InEveryCase("rdxGetVersion")) EXPECT_EQ(Handle(name).code, 0) << name;
    EXPECT_TRUE(called.empty()) << "the version's own handler is not noted";
    EXPECT_EQ(serverChecks, 0);
    EXPECT_EQ(printed_.find("rDxCheckAuth"), printed_.npos);
}

TEST_F(Dispatcher, PrintsTheNameOfTheMethod) {
    Handle("rdxGETdeviceStatus");
    EXPECT_EQ(printed_, "\nrDxProcessCall: Req=rdxGETdeviceStatus\n");
}

TEST_F(Dispatcher, ClearsStatusAndFlagOfARefusedCall) {
    test::Request request;
    TavrinRequest call{};
    TavrinResponse result{0, 1, -99, nullptr};
    const test::CaptureStdout capture;
    EXPECT_EQ(rDxProcessCall(request.get(), &call, &result), -401);
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.ucFlag, 0);
    EXPECT_EQ(result.pszWddxResult, nullptr);
}

// ------------------------------------------------------------------------------------------------ handling

TEST_F(Dispatcher, PreparesTheRecordsOfACall) {
    test::Request request("rdxGetDeviceStatus", "<packet/>");
    const int before = g_nRefCount;
    behaviour = [&](TavrinRequest* call, TavrinResponse* result) {
        EXPECT_EQ(call->iCallNumber, before + 1);
        EXPECT_STREQ(call->szFunctionName, "rdxGetDeviceStatus");
        EXPECT_STREQ(call->pszWddxArgs, "<packet/>");
        EXPECT_EQ(call->pHttpRequest, request.get());
        EXPECT_EQ(result->iCallNumber, before + 1);
        EXPECT_EQ(result->ucFlag, 0);
        EXPECT_EQ(result->iStatus, -99);
        EXPECT_EQ(result->pszWddxResult, nullptr);
        return 0;
    };
    Handle(request);
    EXPECT_EQ(called.size(), 1U);
    EXPECT_EQ(g_nRefCount, before + 1);
}

TEST_F(Dispatcher, TakesMultipartCalls) {
    test::Request request;
    request.Multipart("B").Body(
        "--B\r\nContent-Disposition: form-data; name=\"FunctionArgs\"\r\n\r\n<packet/>\r\n"
        "--B\r\nContent-Disposition: form-data; "
        "name=\"FunctionName\"\r\n\r\nrdxGetDeviceStatus\r\n--B--\r\n");
    behaviour = [](TavrinRequest* call, TavrinResponse*) {
        EXPECT_STREQ(call->pszWddxArgs, "<packet/>");
        return 0;
    };
    Handle(request);
    EXPECT_EQ(called, std::vector<std::string>{"ProcessGetDeviceStatus"});
}

TEST_F(Dispatcher, CopiesTheResultAndClearsTheRest) {
    behaviour = Answer("answer", 0, 9);
    const Output output = Handle("rdxGetVersion", 64);
    EXPECT_EQ(output.code, 0);
    EXPECT_EQ(output.buffer, "answer" + std::string(58, '\0'));
    EXPECT_EQ(output.length, 6U);
    EXPECT_EQ(output.flag, 9);
}

TEST_F(Dispatcher, NeedsRoomForTheResultAndOneByteMore) {
    EXPECT_EQ(Handle("rdxGetVersion", 7).code, 0);
    ExpectFailure(Handle("rdxGetVersion", 6), -3);
    ExpectFailure(Handle("rdxGetVersion", 5), -3);
    ExpectFailure(Handle("rdxGetVersion", 0), -3);
    behaviour = Answer("");
    const Output empty = Handle("rdxGetVersion", 1);
    EXPECT_EQ(empty.code, 0);
    EXPECT_EQ(empty.length, 0U);
    ExpectFailure(Handle("rdxGetVersion", 0), -3);
}

TEST_F(Dispatcher, AnswersUnauthorizedWithItsTerminator) {
    const std::string& body = test::kUnauthorizedPage;
    behaviour = Answer("not sent", 401, 9);
    const Output output = Handle("rdxGetVersion", 64);
    EXPECT_EQ(output.code, 0);
    EXPECT_EQ(output.buffer, body + '\0' + std::string(64 - body.size() - 1, '?'));
    EXPECT_EQ(output.length, body.size() + 1);
    EXPECT_EQ(output.flag, 77);
    EXPECT_EQ(Handle("rdxGetVersion", body.size() + 1).code, 0);
    ExpectFailure(Handle("rdxGetVersion", body.size()), -3);
}

TEST_F(Dispatcher, TellsStatusesApart) {
    const int cases[][2] = {{400, 400}, {-99, -4}, {1, -5}, {-1, -5}, {402, -5}, {200, -5}};
    for (const auto& [status, code] : cases) {
        behaviour = Answer("not sent", status);
        ExpectFailure(Handle("rdxGetVersion"), code);
    }
}

TEST_F(Dispatcher, FindsNoResultWithoutAText) {
    behaviour = [](TavrinRequest*, TavrinResponse* result) { return result->iStatus = 0; };
    ExpectFailure(Handle("rdxGetVersion"), -4);
}

TEST_F(Dispatcher, ReturnsTheHandlersCodeButForMissingArguments) {
    const int cases[][2] = {{-1, 400}, {400, 400}, {-2, -2}, {-3, -3}, {-6, -6}, {-401, -401}, {17, 17}};
    for (const auto& [handlers, code] : cases) {
        behaviour = [result = handlers](TavrinRequest* call, TavrinResponse* response) {
            Answer("not sent")(call, response);
            return result;
        };
        ExpectFailure(Handle("rdxGetVersion"), code);
    }
}

TEST_F(Dispatcher, ReturnsTheCodeOfUnusableCallData) {
    const int before = g_nRefCount;
    test::Request nameless("/rDx");
    ExpectFailure(Handle(nameless), 400);
    test::Request multipart;
    multipart.Multipart("B").Body("--C");
    ExpectFailure(Handle(multipart), -1);
    multipart.Body("--B\r\nContent-Disposition: form-data; name=\"FunctionArgs\"\r\n\r\nx\r\n--B\r\n");
    ExpectFailure(Handle(multipart), -2);
    EXPECT_EQ(printed_, "") << "nothing is dispatched";
    EXPECT_EQ(g_nRefCount, before + 3) << "counted all the same";
    const test::FailCall fault("malloc");
    ExpectFailure(Handle("rdxGetVersion"), -2);
    EXPECT_TRUE(fault.Struck());
}

TEST_F(Dispatcher, CountsConcurrentCalls) {
    constexpr int kThreads = 4;
    constexpr int kCalls = 500;
    behaviour = [](TavrinRequest*, TavrinResponse*) { return -6; };
    const int before = g_nRefCount;
    const test::CaptureStdout capture;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            test::Request request("rdxGetVersion", "");
            char out[8];
            for (int k = 0; k < kCalls; ++k) {
                unsigned long length = sizeof out;
                unsigned char flag = 0;
                EXPECT_EQ(rDxHandler(request.get(), out, &length, &flag), -6);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(g_nRefCount, before + kThreads * kCalls);
}

// -------------------------------------------------------------------------------------- unknown methods

constexpr const char* kUnknownResult =
    "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'><wddxPacket version='1.0'>"
    "<header><comment></comment></header><data><struct><var name='Status'><struct>"
    "<var name='code'><number>42010</number></var><var name='msg'><number>9003</number></var>"
    "<var name='params'><null/></var></struct></var></struct></data></wddxPacket>";

TEST_F(Dispatcher, AnswersAnUnknownMethodWithARefusalPacket) {
    for (const char* name : {"rdxUnknown", "rdxGetVersio", "rdxGetVersion2", "x"}) {
        test::Request request(name, body_);
        request.Authorization(Basic("service:secret"));
        const Output output = Handle(request, 4096);
        EXPECT_EQ(output.code, 0) << name;
        EXPECT_STREQ(output.buffer.c_str(), kUnknownResult) << name;
        EXPECT_EQ(output.length, std::string(kUnknownResult).size()) << name;
        EXPECT_EQ(output.flag, 0) << name;
    }
    EXPECT_TRUE(called.empty());
}

TEST_F(Dispatcher, RefusesAnUnknownMethodWithoutCredentials) {
    ExpectFailure(Handle("rdxUnknown"), -401);
    EXPECT_EQ(serverChecks, 1);
}

TEST_F(Dispatcher, AnswersACallOfNoName) {
    test::Request request;
    request.Multipart("B")
        .Body("--B\r\nContent-Disposition: form-data; name=\"FunctionArgs\"\r\n\r\n" + body_ +
              "\r\n--B--\r\n")
        .Authorization(Basic("service:secret"));
    EXPECT_STREQ(Handle(request, 4096).buffer.c_str(), kUnknownResult);
}

TEST_F(Dispatcher, MapsNothingButMissingArgumentsToABadRequest) {
    // Of an unknown method the code of the parser goes out as it is.
    const std::pair<const char*, int> cases[] = {
        {"<wddxPacket", -2}, {"hello", 400}, {"<data/>", 400}, {"", 400}};
    for (const auto& [body, code] : cases) {
        test::Request request("rdxUnknown", body);
        request.Authorization(Basic("service:secret"));
        ExpectFailure(Handle(request), code);
    }
    test::Request noArguments;
    noArguments.Multipart("B")
        .Body("--B\r\nContent-Disposition: form-data; name=\"FunctionName\"\r\n\r\nx\r\n--B--\r\n")
        .Authorization(Basic("service:secret"));
    ExpectFailure(Handle(noArguments), 400);
}

class ProcessUnknownCall : public testing::Test {
protected:
    int Process(const std::string& args) {
        OwnedText text = CopyText(args);
        TavrinRequest call{};
        call.pszWddxArgs = text.get();
        FreeTnResponse(&result_);
        result_ = {0, 1, -99, nullptr};
        return ProcessUnknown(&call, &result_);
    }
    ~ProcessUnknownCall() override { FreeTnResponse(&result_); }

    const std::string good_ = test::Packet("<struct><var name='a'><null/></var></struct>");
    TavrinResponse result_{};
};

TEST_F(ProcessUnknownCall, AssignsTheRefusal) {
    EXPECT_EQ(Process(good_), 0);
    EXPECT_STREQ(result_.pszWddxResult, kUnknownResult);
    EXPECT_EQ(result_.iStatus, 0);
    EXPECT_EQ(result_.ucFlag, 0);
}

TEST_F(ProcessUnknownCall, ReturnsTheCodeOfItsArguments) {
    EXPECT_EQ(Process("<wddxPacket"), -2);
    EXPECT_EQ(Process("hello"), 400);
    EXPECT_EQ(Process(test::Packet("<null/>")), -3);
    TavrinRequest call{};
    EXPECT_EQ(ProcessUnknown(&call, &result_), -1);
    EXPECT_EQ(result_.iStatus, -99);
    EXPECT_EQ(result_.pszWddxResult, nullptr);
}

TEST_F(ProcessUnknownCall, FailsWhenTheResultCannotBeAssigned) {
    const test::FailCall fault("open", 1, EMFILE);
    EXPECT_EQ(Process(good_), -6);
    EXPECT_TRUE(fault.Struck());
    EXPECT_EQ(result_.iStatus, -99);
}

TEST_F(ProcessUnknownCall, FailsWhenMemoryIsShort) {
    OwnedText args = CopyText(good_);
    TavrinRequest call{};
    call.pszWddxArgs = args.get();
    test::FailEveryAllocation(
        [&] {
            TavrinResponse result{0, 0, -99, nullptr};
            const int code = ProcessUnknown(&call, &result);
            EXPECT_TRUE(code == 0 || code == 400 || code == -6) << code;
            EXPECT_EQ(result.pszWddxResult != nullptr, code == 0);
            FreeTnResponse(&result);
            return code == 0;
        },
        test::AnyResult);
}

} // namespace
} // namespace rdx
