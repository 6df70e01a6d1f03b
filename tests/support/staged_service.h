// What the tests of the service in stages share: the functions that stand for those it calls, its settings.
#ifndef RDX_TESTS_SUPPORT_STAGED_SERVICE_H
#define RDX_TESTS_SUPPORT_STAGED_SERVICE_H

#include "client/tnp.h"
#include "common/config.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "server/service.h"
#include "tests/support/admin_server.h"
#include "tests/support/free_port.h"
#include "tests/support/junior.h"
#include "tests/support/process.h"
#include "tests/support/serving.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
int __real_CreateClntSocketExt(const char*, unsigned short, const char*, unsigned short, int*);
}

namespace rdx::test {

inline constexpr const char* kSource = "server/service_staged.cpp";

// --- what the service calls by these names is the test's own -------------------------------------------

// Set while nothing is served. Where nothing is set, the real function is called.
struct Replaced {
    std::function<int(HttpRequest*, char*, unsigned long*, unsigned char*)> handler;
    std::function<int(HttpRequest**)> consume;
    std::function<int(HttpRequest*)> build;
    std::function<int()> sendRequest;
    std::function<int()> send;
};
extern Replaced replaced;

// A connection asked for.
struct Connect {
    std::string localAddress;
    int localPort;
    std::string remoteAddress;
    int remotePort;
    int socket;
};
extern std::optional<Connect> lastConnect;
extern std::string lastFunction;  // of BuildTavrinRequestExt
extern int mallocsBeforeBuilding; // made when BuildTavrinRequestExt was last called

// --- texts ---------------------------------------------------------------------------------------------

// The packet that acknowledges a ticket.
inline std::string Acknowledge(const std::string& ticket) {
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

inline const std::string kTicketUri = "/rDx?SvcTicket=42";
inline const std::string kTicketAnswer = Answer(200, Acknowledge("42"));

inline std::string Consumed(int result) {
    return "\nServeClientInStages 2 ConsumeHttpRequest=" + std::to_string(result);
}

inline constexpr int kVerbosities[] = {VERBOSITY_NONE, VERBOSITY_FATAL, VERBOSITY_ERROR,
                                       VERBOSITY_WARN, VERBOSITY_LOG,   VERBOSITY_ALL};

inline std::string StringLine(const std::string& message, const std::string& value) {
    return "\n[TIME],ServeClientInStages(): " + message + " <" + value + ">";
}

// --- the fixture ---------------------------------------------------------------------------------------

// A local address of this process alone, so that nothing else holds a port of it.
inline std::string OwnAddress() {
    const auto pid = static_cast<unsigned>(getpid());
    return "127." + std::to_string(1 + pid / 65536 % 250) + "." + std::to_string(pid / 256 % 256) + "." +
           std::to_string(pid % 256);
}

// The settings are those of a server in junior mode whose administration server is not there.
class StagedTest : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        std::signal(SIGPIPE, SIG_IGN);
        Forget();
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
        Forget();
    }

    static void Use(const AdminServer& admin) { uiAdminServerPort = static_cast<unsigned>(admin.Port()); }

    // Where follow-ups come from.
    std::string Here() const { return OwnAddress() + ":" + std::to_string(localPort_); }

private:
    static void Forget() {
        replaced = {};
        lastConnect.reset();
    }

    int localPort_ = 0;
};

// Serves a request and gives the service's status.
inline long Serve(Serving& serving) {
    return reinterpret_cast<std::intptr_t>(ServeClientInStages(&serving.call));
}

inline long Serve(Serving& serving, std::string_view request) {
    serving.Send(request);
    return Serve(serving);
}

// A call of rdxGetVersion, with `more` behind the method's name.
inline std::string VersionCall(const std::string& more = "") {
    const std::string arguments =
        "<wddxPacket version='1.0'><header/><data><struct><var name='version'><number>1</number></var>"
        "</struct></data></wddxPacket>";
    return "POST /rDx?FunctionName=rdxGetVersion" + more +
           " HTTP/1.1\r\nContent-length: " + std::to_string(arguments.size()) + "\r\n\r\n" + arguments;
}

// The status of a ticketed service whose client is served as ever.
inline long StatusOfFollowUp() {
    replaced.handler = Answering("result");
    Serving serving;
    const long status = Serve(serving, Get(kTicketUri));
    EXPECT_EQ(serving.Received(), kTicketAnswer);
    EXPECT_TRUE(serving.IsClosed());
    EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
    return status;
}

} // namespace rdx::test

#endif
