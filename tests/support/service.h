// What the tests of the service share: the functions that stand for those it calls, its settings, a slot.
#ifndef RDX_TESTS_SUPPORT_SERVICE_H
#define RDX_TESTS_SUPPORT_SERVICE_H

#include "common/config.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "server/service.h"
#include "tests/support/request.h"
#include "tests/support/serving.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <csignal>
#include <functional>
#include <regex>

extern "C" {
int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
}

namespace rdx::test {

// --- what the service calls by these names is the test's own -------------------------------------------

// Set while no thread serves. Where nothing is set, the real function is called.
struct Replaced {
    std::function<int(HttpRequest*, char*, unsigned long*, unsigned char*)> handler;
    std::function<int()> granted;
    std::function<int(int, fd_set*, timeval*)> select;
    std::function<void(useconds_t)> pause;
    std::function<int(ThreadID*)> threadCreate;
};
extern Replaced replaced;

extern std::atomic<int> lastByte; // of the last body that filled a whole output buffer

// --- texts ---------------------------------------------------------------------------------------------

inline constexpr const char* kVersionArguments =
    "<wddxPacket version='1.0'><header/><data><struct><var name='version'><number>1</number></var></struct>"
    "</data></wddxPacket>";

inline constexpr int kVerbosities[] = {VERBOSITY_NONE, VERBOSITY_WARN, VERBOSITY_LOG, VERBOSITY_ALL};

// The assertion's report: a compiler may write the signature "T* F(U*)" as "T *F(U *)".
inline auto Report(const std::string& signature, const std::string& text) {
    const std::string spaced = std::regex_replace(signature, std::regex(R"(\*( ?))"), " *");
    return testing::AllOf(
        testing::HasSubstr("server/service.cpp:"),
        testing::AnyOf(testing::HasSubstr(": " + signature + ": "), testing::HasSubstr(": " + spaced + ": ")),
        testing::HasSubstr("Assertion `" + text + "' failed."));
}

// --- the fixture ---------------------------------------------------------------------------------------

class ServiceTest : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        std::signal(SIGPIPE, SIG_IGN);
        replaced = {};
        aiMethodsAllowed[HTTP_GET] = 1;
        aiMethodsAllowed[HTTP_POST] = 1;
        mtPrimaryThread = CurrentThreadID();
        ForgetClosed();
    }

    void TearDown() override {
        EXPECT_TRUE(ServingThreadsEnd());
        EXPECT_EQ(NumOfThreads(), 0);
        replaced = {};
    }
};

// --- a slot served on the test's own thread ------------------------------------------------------------

// Serves a request and gives the service's status.
inline long Serve(Serving& serving) { return reinterpret_cast<std::intptr_t>(ServeClient(&serving.call)); }

inline long Serve(Serving& serving, std::string_view request) {
    serving.Send(request);
    return Serve(serving);
}

} // namespace rdx::test

#endif
