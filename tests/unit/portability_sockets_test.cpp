#include "common/portability_sockets.h"

#include "common/config.h"
#include "common/log.h"
#include "common/shared.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/free_port.h"
#include "tests/support/sockets.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace rdx {
namespace {

using namespace std::chrono_literals;
using namespace test;

static_assert(SOCKET_LINE_END_SIZE == 3);
static_assert(std::is_same_v<decltype(usPortOffset), unsigned short>);

const unsigned short offsetAtLoad = usPortOffset;

constexpr const char* kSource = "common/portability_sockets.cpp";

using SmallOperations = SocketTest;

TEST_F(SmallOperations, HaveFixedResults) {
    EXPECT_EQ(InitSockLib(), 0);
    EXPECT_EQ(IsClientGranted(), 1);
    EXPECT_EQ(GetLocalHostAddr(), -1);
    EXPECT_EQ(offsetAtLoad, 0);
}

TEST_F(SmallOperations, ReportReturnsTheErrorLeavesItAndPrintsNothing) {
    const CaptureStdout capture;
    for (const int error : {0, ECONNRESET, 99999, -1}) {
        errno = error;
        EXPECT_EQ(ReportSocketError("Test()", "failed"), error);
        EXPECT_EQ(errno, error);
    }
    EXPECT_EQ(capture.Text(), "");
}

TEST_F(SmallOperations, CloseSocketReturnsTheResultOfClosing) {
    Socket socket = NewSocket();
    const int descriptor = std::exchange(*socket.Out(), -1);
    EXPECT_EQ(CloseSocket(descriptor), 0);
    EXPECT_EQ(CloseSocket(descriptor), -1);
    EXPECT_EQ(errno, EBADF);
    const Failure failure;
    failure.Expect(CloseSocket(-1), -1, {"CloseSocket(): failed closing socket by handle"});
}

TEST_F(SmallOperations, ReuseSockAddrSetsLingerAndReuse) {
    const Socket socket = NewSocket();
    EXPECT_EQ(ReuseSockAddr(socket.Get()), 0);
    ExpectLingersForNoTime(socket);
    EXPECT_EQ(OptionOf<int>(socket, SOL_SOCKET, SO_REUSEADDR), 1);
}

TEST_F(SmallOperations, ReuseSockAddrIgnoresARefusedLinger) {
    const Socket socket = NewSocket();
    const FailCall linger("setsockopt", 1, EINVAL);
    EXPECT_EQ(ReuseSockAddr(socket.Get()), 0);
    EXPECT_TRUE(linger.Struck());
    EXPECT_EQ(OptionOf<int>(socket, SOL_SOCKET, SO_REUSEADDR), 1);
}

TEST_F(SmallOperations, ReuseSockAddrFailsWithARefusedReuse) {
    const Socket socket = NewSocket();
    const FailCall reuse("setsockopt", 2, EINVAL);
    EXPECT_EQ(ReuseSockAddr(socket.Get()), -1);
    EXPECT_TRUE(reuse.Struck());
    EXPECT_EQ(ReuseSockAddr(-1), -1);
}

// What DumpClientSocket has written to the stream when it returns.
std::string DumpOf(const char* function, int handle, const char* address) {
    char* text = nullptr;
    std::size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    const sockaddr_in client = AddressOf(address, 4711);
    EXPECT_EQ(DumpClientSocket(stream, function, handle, &client), 0);
    const std::string written = size > 0 ? std::string(text, size) : ""; // only what was flushed
    std::fclose(stream);
    std::free(text);
    return written;
}

TEST_F(SmallOperations, DumpClientSocketWritesOneFlushedLine) {
    EXPECT_EQ(WithoutTimes(DumpOf("RunHttpServer()", 9, "192.0.2.7")),
              "\n[TIME],RunHttpServer(): accepted connection from 192.0.2.7 (clnt socket handle = 9)");
    EXPECT_EQ(WithoutTimes(DumpOf("F()", -1, "255.254.128.0")),
              "\n[TIME],F(): accepted connection from 255.254.128.0 (clnt socket handle = -1)");
}

TEST_F(SmallOperations, DumpClientSocketLeavesTheTimeEmptyWhenItIsUnknown) {
    const FailCall fault("localtime_r", 1, EOVERFLOW);
    EXPECT_EQ(DumpOf("F()", 3, "127.0.0.1"),
              "\n[],F(): accepted connection from 127.0.0.1 (clnt socket handle = 3)");
    EXPECT_TRUE(fault.Struck());
}

// A process may have closed its standard input.
TEST_F(SmallOperations, EverySocketMayHaveDescriptorZero) {
    const auto makesZero = [](auto create, auto... arguments) {
        const Socket input(dup(STDIN_FILENO));
        close(STDIN_FILENO);
        Socket made;
        EXPECT_EQ(create(arguments..., made.Out()), 0);
        EXPECT_EQ(made.Get(), STDIN_FILENO);
        made.Close();
        if (input.Get() >= 0) dup2(input.Get(), STDIN_FILENO);
    };
    const Socket server = Listen();
    const auto port = static_cast<unsigned short>(PortOf(server));
    constexpr unsigned short kAnyPort = 0;
    makesZero(CreateClntSocket, "127.0.0.1", std::to_string(port).c_str());
    makesZero(CreateClntSocketExt, "127.0.0.2", kAnyPort, "127.0.0.1", port);
    makesZero(CreateSrvSocket, std::to_string(FreePort()).c_str(), 5);
    makesZero(CreateSrvSocketExt, "127.0.0.1", kAnyPort, 5);
}

using CreateSrvSocketTest = SocketTest;

TEST_F(CreateSrvSocketTest, ListensOnEveryLocalAddress) {
    const std::string port = std::to_string(FreePort());
    Socket server;
    ASSERT_EQ(CreateSrvSocket(port.c_str(), 5, server.Out()), 0);
    EXPECT_EQ(LocalName(server), "0.0.0.0:" + port);
    EXPECT_EQ(OptionOf<int>(server, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(OptionOf<int>(server, SOL_SOCKET, SO_PROTOCOL), IPPROTO_TCP);
    EXPECT_EQ(OptionOf<int>(server, SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_EQ(OptionOf<int>(server, SOL_SOCKET, SO_REUSEADDR), 1);
    ExpectLingersForNoTime(server);
    for (const char* address : {"127.0.0.1", "127.0.0.2"}) {
        const Socket client = NewSocket();
        EXPECT_TRUE(Connect(client, AddressOf(address, PortOf(server)))) << address;
    }
}

TEST_F(CreateSrvSocketTest, PassesTheBacklogOn) {
    const std::string port = std::to_string(FreePort());
    Socket server;
    ASSERT_EQ(CreateSrvSocket(port.c_str(), 5, server.Out()), 0);
    // Of a listening socket this counts the connections that may be pending.
    EXPECT_EQ(OptionOf<tcp_info>(server, IPPROTO_TCP, TCP_INFO).tcpi_sacked, 5U);
}

TEST_F(CreateSrvSocketTest, AddsTheOffsetToThePortOfAService) {
    if (getservbyname("http", "tcp") == nullptr) GTEST_SKIP() << "no service database";
    const int port = FreePort();
    usPortOffset = static_cast<unsigned short>(port - 80);
    Socket server;
    ASSERT_EQ(CreateSrvSocket("http", 5, server.Out()), 0);
    EXPECT_EQ(PortOf(server), port);
}

TEST_F(CreateSrvSocketTest, AddsNoOffsetToANumber) {
    const int port = FreePort();
    usPortOffset = 1;
    Socket server;
    ASSERT_EQ(CreateSrvSocket(std::to_string(port).c_str(), 5, server.Out()), 0);
    EXPECT_EQ(PortOf(server), port);
}

TEST_F(CreateSrvSocketTest, ReadsANumberUpToWhatIsNotOne) {
    const int port = FreePort();
    Socket server;
    ASSERT_EQ(CreateSrvSocket((" +" + std::to_string(port) + "/tcp").c_str(), 5, server.Out()), 0);
    EXPECT_EQ(PortOf(server), port);
}

TEST_F(CreateSrvSocketTest, RefusesWhatIsNeitherAServiceNorAPortAndMakesNoSocket) {
    for (const char* service : {"abc", "0", "-1", "", "-4294967216", "no-such-service", "x80", "65536",
                                "65616", "4294967376", "99999999999999999999"}) {
        SCOPED_TRACE(service);
        const int sockets = CallsOf("socket");
        const Failure failure(VERBOSITY_ALL);
        int handle = 4711;
        failure.Expect(CreateSrvSocket(service, 5, &handle), -1, {});
        EXPECT_EQ(handle, 4711);
        EXPECT_EQ(CallsOf("socket"), sockets);
    }
}

TEST_F(CreateSrvSocketTest, KnowsTheHighestPort) {
    Socket server;
    const int result = CreateSrvSocket("65535", 5, server.Out());
    EXPECT_TRUE(result == 0 || result == -5) << "another program may have it";
    if (result == 0) {
        EXPECT_EQ(PortOf(server), 65535);
    }
}

TEST_F(CreateSrvSocketTest, TakesAServiceThatItsOffsetMovesBeyondThePortsForNoPort) {
    if (getservbyname("http", "tcp") == nullptr) GTEST_SKIP() << "no service database";
    usPortOffset = 65535;
    int handle = 4711;
    EXPECT_EQ(CreateSrvSocket("http", 5, &handle), -1);
    EXPECT_EQ(handle, 4711);
}

TEST_F(CreateSrvSocketTest, TakesThePortInUseForAFailure) {
    const Socket other = Listen(0, "0.0.0.0");
    const Failure failure;
    int handle = 4711;
    failure.Expect(CreateSrvSocket(std::to_string(PortOf(other)).c_str(), 5, &handle), -5, {});
    EXPECT_EQ(handle, 4711);
}

struct Step {
    const char* call;
    int nth;
    int result;
    const char* report; // beside the function's name
    bool reportedWhenSilent = true;
};

// Fails each step of a function in turn, at verbosity 0 and 1. Whether a handle is stored differs by
// function.
template <typename Create>
void ExpectStepsFail(const std::string& function, const std::vector<Step>& steps, int handleOnFailure,
                     Create create) {
    for (const Step& step : steps) {
        for (const int verbosity : {VERBOSITY_NONE, VERBOSITY_FATAL}) {
            SCOPED_TRACE(std::string(step.call) + " at verbosity " + std::to_string(verbosity));
            const Failure failure(verbosity);
            const FailCall fault(step.call, step.nth, EPERM);
            int handle = 4711;
            const bool reported = step.reportedWhenSilent || verbosity > VERBOSITY_NONE;
            std::vector<std::string> reports;
            if (reported) reports.push_back(function + ": " + step.report);
            failure.Expect(create(&handle), step.result, reports);
            EXPECT_EQ(handle, handleOnFailure);
            EXPECT_TRUE(fault.Struck());
        }
    }
}

TEST_F(CreateSrvSocketTest, NamesTheStepThatFailedAndReportsUnlessItIsSilent) {
    const std::string port = std::to_string(FreePort());
    ExpectStepsFail("CreateSrvSocket()",
                    {{"getprotobyname_r", 1, -2, "failed mapping protocol name", false},
                     {"socket", 1, -3, "failed creating socket", false},
                     {"setsockopt", 2, -4, "failed declaring socket address reusable", false},
                     {"bind", 1, -5, "failed binding allocated socket", false},
                     {"listen", 1, -6, "listening on bound socket failed", false}},
                    4711, [&](int* handle) { return CreateSrvSocket(port.c_str(), 5, handle); });
}

TEST_F(CreateSrvSocketTest, FailsWhereTheDatabaseDoesNotNameTheProtocol) {
    const FailCall notFound("getprotobyname_r", 1, 0); // succeeds, and finds nothing
    int handle = 4711;
    EXPECT_EQ(CreateSrvSocket("8080", 5, &handle), -2);
    EXPECT_EQ(handle, 4711);
}

TEST_F(CreateSrvSocketTest, IgnoresARefusedLinger) {
    const std::string port = std::to_string(FreePort());
    const FailCall linger("setsockopt", 1, EPERM);
    Socket server;
    EXPECT_EQ(CreateSrvSocket(port.c_str(), 5, server.Out()), 0);
    EXPECT_TRUE(linger.Struck());
}

TEST_F(CreateSrvSocketTest, TakesAServiceThatCannotBeLookedUpForANumber) {
    const FailCall fault("getservbyname_r", 1, ENOMEM);
    int handle = 4711;
    EXPECT_EQ(CreateSrvSocket("http", 5, &handle), -1);
    EXPECT_TRUE(fault.Struck());
}

using CreateClntSocketTest = SocketTest;

TEST_F(CreateClntSocketTest, ConnectsToAnAddressOrName) {
    for (const char* host : {"127.0.0.1", "localhost"}) {
        const Socket server = Listen();
        const std::string port = std::to_string(PortOf(server));
        Socket client;
        ASSERT_EQ(CreateClntSocket(host, port.c_str(), client.Out()), 0) << host;
        EXPECT_EQ(PeerName(client), "127.0.0.1:" + port);
    }
}

TEST_F(CreateClntSocketTest, ConnectsToAServiceWithoutTheOffset) {
    setservent(0);
    for (const servent* entry = getservent(); entry != nullptr; entry = getservent()) {
        const int port = ntohs(static_cast<std::uint16_t>(entry->s_port));
        if (std::string_view(entry->s_proto) != "tcp" || port < 1024) continue;
        const Socket server = Listen(port);
        if (server.Get() < 0) continue; // in use
        const std::string service = entry->s_name;
        usPortOffset = 1;
        Socket client;
        ASSERT_EQ(CreateClntSocket("127.0.0.1", service.c_str(), client.Out()), 0) << service;
        EXPECT_EQ(PeerName(client), "127.0.0.1:" + std::to_string(port));
        endservent();
        return;
    }
    endservent();
    GTEST_SKIP() << "no service of which the port is free";
}

TEST_F(CreateClntSocketTest, TakesAHostThatCannotBeLookedUpForAnAddress) {
    const Socket server = Listen();
    const FailCall unknown("getaddrinfo", 1, EAI_FAIL);
    Socket client;
    EXPECT_EQ(CreateClntSocket("127.0.0.1", std::to_string(PortOf(server)).c_str(), client.Out()), 0);
    EXPECT_TRUE(unknown.Struck());
    EXPECT_EQ(PeerName(client), LocalName(server));
}

TEST_F(CreateClntSocketTest, RefusesWhatIsNeitherAHostNorAnAddress) {
    for (const char* host : {"no.such.host", "127.0.0.256", ""}) {
        const FailCall unknown("getaddrinfo", 1, EAI_NONAME);
        const Failure failure(VERBOSITY_ALL);
        int handle = 4711;
        failure.Expect(CreateClntSocket(host, "80", &handle), -2, {});
        EXPECT_EQ(handle, 4711);
        EXPECT_TRUE(unknown.Struck());
    }
}

TEST_F(CreateClntSocketTest, NamesTheStepThatFailedAndReportsAlways) {
    const Socket server = Listen();
    const std::string port = std::to_string(PortOf(server));
    ExpectStepsFail("CreateClntSocket()",
                    {{"getprotobyname_r", 1, -3, "failed mapping protocol name"},
                     {"socket", 1, -4, "failed creating socket"},
                     {"connect", 1, -5, "failed connecting socket"}},
                    4711, [&](int* handle) { return CreateClntSocket("127.0.0.1", port.c_str(), handle); });
}

TEST_F(CreateClntSocketTest, FailsWhereNobodyListens) {
    const std::string port = std::to_string(FreePort());
    const Failure failure;
    int handle = 4711;
    failure.Expect(CreateClntSocket("127.0.0.1", port.c_str(), &handle), -5,
                   {"CreateClntSocket(): failed connecting socket"});
    EXPECT_EQ(handle, 4711);
}

TEST_F(CreateClntSocketTest, DoesNotConnectToWhatIsNoPort) {
    for (const char* service : {"-1", "-65535", "65536", "65616", "4294967376", "99999999999999999999"}) {
        SCOPED_TRACE(service);
        const int connects = CallsOf("connect");
        const Failure failure;
        int handle = 4711;
        failure.Expect(CreateClntSocket("127.0.0.1", service, &handle), -5,
                       {"CreateClntSocket(): failed connecting socket"});
        EXPECT_EQ(handle, 4711);
        EXPECT_EQ(CallsOf("connect"), connects);
    }
}

TEST_F(CreateClntSocketTest, AssertsAPortAndAnAddress) {
    int handle = -1;
    for (const char* service : {"0", "abc", ""}) {
        EXPECT_DEATH(CreateClntSocket("127.0.0.1", service, &handle),
                     Assertion(kSource, "CreateClntSocket", "port != 0"));
    }
    EXPECT_DEATH(CreateClntSocket("0.0.0.0", "80", &handle),
                 Assertion(kSource, "CreateClntSocket", "ulAddr != 0L"));
}

using CreateSrvSocketExtTest = SocketTest;

TEST_F(CreateSrvSocketExtTest, ListensOnOneAddress) {
    const int port = FreePort();
    Socket server;
    ASSERT_EQ(CreateSrvSocketExt("127.0.0.1", static_cast<unsigned short>(port), 3, server.Out()), 0);
    EXPECT_EQ(LocalName(server), "127.0.0.1:" + std::to_string(port));
    EXPECT_EQ(OptionOf<int>(server, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(OptionOf<int>(server, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(OptionOf<tcp_info>(server, IPPROTO_TCP, TCP_INFO).tcpi_sacked, 3U);
    ExpectLingersForNoTime(server);
    EXPECT_TRUE(Connect(NewSocket(), AddressOf("127.0.0.1", port)));
    EXPECT_FALSE(Connect(NewSocket(), AddressOf("127.0.0.2", port)));
}

TEST_F(CreateSrvSocketExtTest, NamesTheStepThatFailedAndStoresNoSocket) {
    const auto port = static_cast<unsigned short>(FreePort());
    ExpectStepsFail("CreateSrvSocketExt()",
                    {{"socket", 1, -1, "failed creating datagram socket"},
                     {"setsockopt", 2, -2, "failed declaring socket address reusable"},
                     {"bind", 1, -4, "failed binding datagram socket to local addr/port"},
                     {"listen", 1, -5, "listening on bound socket failed"}},
                    -1, [&](int* handle) { return CreateSrvSocketExt("127.0.0.1", port, 5, handle); });
}

TEST_F(CreateSrvSocketExtTest, RefusesWhatIsNotAnAddress) {
    for (const char* address : {"127.0.0.256", "localhost", "", "1.2.3.4.5"}) {
        const Failure failure(VERBOSITY_ALL);
        int handle = 4711;
        failure.Expect(CreateSrvSocketExt(address, 80, 5, &handle), -3, {});
        EXPECT_EQ(handle, -1) << address;
    }
}

TEST_F(CreateSrvSocketExtTest, FailsOnAnAddressThatIsNotItsOwnAndOnAPortInUse) {
    const Failure failure;
    int handle = 4711;
    failure.Expect(CreateSrvSocketExt("192.0.2.1", 0, 5, &handle), -4,
                   {"CreateSrvSocketExt(): failed binding datagram socket to local addr/port"});
    EXPECT_EQ(handle, -1);
    const Socket other = Listen();
    handle = 4711;
    EXPECT_EQ(CreateSrvSocketExt("127.0.0.1", static_cast<unsigned short>(PortOf(other)), 5, &handle), -4);
    EXPECT_EQ(handle, -1);
}

TEST_F(CreateSrvSocketExtTest, LogsASocketThatCannotBeClosedAfterAFailure) {
    const CaptureStdout capture;
    const FailCall closing("close", 1, EIO);
    int handle = 4711;
    EXPECT_EQ(CreateSrvSocketExt("127.0.0.256", 80, 5, &handle), -3);
    EXPECT_TRUE(closing.Struck());
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(WithoutTimes(capture.Text()),
              "\n[TIME],CreateSrvSocketExt(): failed closing socket on error exit (-1)");
}

TEST_F(CreateSrvSocketExtTest, ClosesNothingWhenThereWasNoSocket) {
    const FailCall noSocket("socket", 1, EMFILE);
    const int closed = CallsOf("close");
    int handle = 4711;
    EXPECT_EQ(CreateSrvSocketExt("127.0.0.1", 80, 5, &handle), -1);
    EXPECT_EQ(CallsOf("close"), closed);
}

TEST_F(CreateSrvSocketExtTest, AssertsOneAddress) {
    int handle = -1;
    EXPECT_DEATH(CreateSrvSocketExt("0.0.0.0", 80, 5, &handle),
                 Assertion(kSource, "CreateSrvSocketExt", "ulAddr != 0L"));
}

using CreateClntSocketExtTest = SocketTest;

TEST_F(CreateClntSocketExtTest, ConnectsFromALocalAddressAndPort) {
    const Socket server = Listen();
    const int port = FreePort();
    Socket client;
    ASSERT_EQ(CreateClntSocketExt("127.0.0.2", static_cast<unsigned short>(port), "127.0.0.1",
                                  static_cast<unsigned short>(PortOf(server)), client.Out()),
              0);
    EXPECT_EQ(LocalName(client), "127.0.0.2:" + std::to_string(port));
    EXPECT_EQ(PeerName(client), LocalName(server));
    EXPECT_EQ(OptionOf<int>(client, SOL_SOCKET, SO_REUSEADDR), 1);
    ExpectLingersForNoTime(client);
}

TEST_F(CreateClntSocketExtTest, NamesTheStepThatFailedAndStoresNoSocket) {
    const Socket server = Listen();
    const auto port = static_cast<unsigned short>(PortOf(server));
    ExpectStepsFail(
        "CreateClntSocketExt()",
        {{"socket", 1, -1, "failed creating stream socket"},
         {"setsockopt", 1, -2, "setting socket option SO_LINGER failed", false},
         {"setsockopt", 2, -2, "setting socket option SO_REUSEADDR failed", false},
         {"bind", 1, -4, "failed binding stream socket to local addr/port"},
         {"connect", 1, -6, "failed establishing virtual circuit to destination"}},
        -1, [&](int* handle) { return CreateClntSocketExt("127.0.0.1", 0, "127.0.0.1", port, handle); });
}

TEST_F(CreateClntSocketExtTest, RefusesWhatIsNotAnAddress) {
    for (const char* address : {"127.0.0.256", "localhost", ""}) {
        const Failure failure(VERBOSITY_ALL);
        int handle = 4711;
        failure.Expect(CreateClntSocketExt(address, 0, "127.0.0.1", 80, &handle), -3, {});
        EXPECT_EQ(handle, -1);
        handle = 4711;
        failure.Expect(CreateClntSocketExt("127.0.0.1", 0, address, 80, &handle), -5, {});
        EXPECT_EQ(handle, -1);
    }
}

TEST_F(CreateClntSocketExtTest, BindsBeforeItLooksAtTheRemoteAddress) {
    const Failure failure;
    int handle = 4711;
    failure.Expect(CreateClntSocketExt("192.0.2.1", 0, "not an address", 80, &handle), -4,
                   {"CreateClntSocketExt(): failed binding stream socket to local addr/port"});
    EXPECT_EQ(handle, -1);
}

TEST_F(CreateClntSocketExtTest, FailsWhereNobodyListens) {
    const auto port = static_cast<unsigned short>(FreePort());
    const Failure failure;
    int handle = 4711;
    failure.Expect(CreateClntSocketExt("127.0.0.1", 0, "127.0.0.1", port, &handle), -6,
                   {"CreateClntSocketExt(): failed establishing virtual circuit to destination"});
    EXPECT_EQ(handle, -1);
}

TEST_F(CreateClntSocketExtTest, LogsASocketThatCannotBeClosedAfterAFailure) {
    const CaptureStdout capture;
    const FailCall closing("close", 1, EIO);
    int handle = 4711;
    EXPECT_EQ(CreateClntSocketExt("127.0.0.1", 0, "127.0.0.256", 80, &handle), -5);
    EXPECT_TRUE(closing.Struck());
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(WithoutTimes(capture.Text()),
              "\n[TIME],CreateClntSocketExt(): failed closing socket on error exit (-1)");
}

TEST_F(CreateClntSocketExtTest, AssertsBothAddresses) {
    int handle = -1;
    EXPECT_DEATH(CreateClntSocketExt("0.0.0.0", 0, "127.0.0.1", 80, &handle),
                 Assertion(kSource, "CreateClntSocketExt", "ulAddr != 0L"));
    EXPECT_DEATH(CreateClntSocketExt("127.0.0.1", 0, "0.0.0.0", 80, &handle),
                 Assertion(kSource, "CreateClntSocketExt", "ulAddr != 0L"));
}

} // namespace
} // namespace rdx
