#include "common/portability_sockets.h"

#include "common/config.h"
#include "common/delivery.h"
#include "common/log.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/free_port.h"
#include "tests/support/guarded.h"
#include "tests/support/handlers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <initializer_list>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace rdx {
namespace {

using namespace std::chrono_literals;
using test::Assertion;
using test::CallsOf;
using test::CaptureStdout;
using test::Eventually;
using test::FailCall;
using test::FreePort;
using test::GuardedBytes;
using test::handledSignals;
using test::Handlers;
using test::WithoutTimes;

static_assert(SOCKET_LINE_END_SIZE == 3);
static_assert(std::is_same_v<decltype(usPortOffset), unsigned short>);

const unsigned short offsetAtLoad = usPortOffset;

constexpr const char* kSource = "common/portability_sockets.cpp";

// A descriptor with an owner.
class Socket {
public:
    explicit Socket(int descriptor = -1) : descriptor_(descriptor) {}
    ~Socket() { Close(); }
    Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Socket& operator=(Socket&&) = delete;

    int Get() const { return descriptor_; }
    int* Out() { return &descriptor_; }
    void Close() {
        if (descriptor_ >= 0) close(std::exchange(descriptor_, -1));
    }
    // Closes with a reset in place of an orderly end.
    void Reset() {
        const linger atOnce{1, 0};
        EXPECT_EQ(setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce), 0);
        Close();
    }

private:
    int descriptor_;
};

sockaddr_in AddressOf(const char* dotted, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<unsigned short>(port));
    address.sin_addr.s_addr = inet_addr(dotted);
    return address;
}

bool Bind(const Socket& socket, const sockaddr_in& address) {
    return bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool Connect(const Socket& socket, const sockaddr_in& address) {
    return connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

Socket NewSocket() { return Socket(socket(AF_INET, SOCK_STREAM, 0)); }

std::string Text(const sockaddr_in& address) {
    return std::string(inet_ntoa(address.sin_addr)) + ":" + std::to_string(ntohs(address.sin_port));
}

using NameFunction = int (*)(int, sockaddr*, socklen_t*);

std::string NameOf(const Socket& socket, NameFunction name) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (name(socket.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) return "none";
    return Text(address);
}

std::string LocalName(const Socket& socket) {
    return NameOf(socket, [](int s, sockaddr* a, socklen_t* n) { return getsockname(s, a, n); });
}

std::string PeerName(const Socket& socket) {
    return NameOf(socket, [](int s, sockaddr* a, socklen_t* n) { return getpeername(s, a, n); });
}

int PortOf(const Socket& socket) {
    const std::string name = LocalName(socket);
    return std::stoi(name.substr(name.find(':') + 1));
}

// A listening socket on a free port of one loopback address, or on a given port if that is free.
Socket Listen(int port = 0, const char* address = "127.0.0.1") {
    Socket server = NewSocket();
    const int on = 1;
    setsockopt(server.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (!Bind(server, AddressOf(address, port)) || listen(server.Get(), 8) != 0) server.Close();
    return server;
}

// A connection; the code under test works on the near end.
struct Connection {
    // TCP over loopback. `window` limits what the far end takes in before it is read; 0 leaves it to the
    // system.
    explicit Connection(int window = 0) : near(NewSocket()) {
        const Socket server = NewSocket();
        if (window > 0) setsockopt(server.Get(), SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
        if (!Bind(server, AddressOf("127.0.0.1", 0)) || listen(server.Get(), 1) != 0) std::abort();
        if (!Connect(near, AddressOf("127.0.0.1", PortOf(server)))) std::abort();
        *far.Out() = accept(server.Get(), nullptr, nullptr);
        if (far.Get() < 0) std::abort();
    }

    Connection(Socket nearEnd, Socket farEnd) : near(std::move(nearEnd)), far(std::move(farEnd)) {}

    // One within the machine: what was sent has arrived at once.
    static Connection Local() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
        return {Socket(ends[0]), Socket(ends[1])};
    }

    void Say(std::string_view text) const {
        ASSERT_EQ(send(far.Get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
        EXPECT_TRUE(Eventually([&] { return Waiting() > 0; }));
    }

    // The bytes that wait to be read at the near end.
    int Waiting() const {
        int count = 0;
        EXPECT_EQ(ioctl(near.Get(), FIONREAD, &count), 0);
        return count;
    }

    // Sends `text` when everything sent before it has been received.
    void SayNext(std::string_view text) const {
        EXPECT_TRUE(Eventually([&] { return Waiting() == 0; }));
        EXPECT_EQ(send(far.Get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }

    void Say(std::string_view text, bool thenClose) {
        Say(text);
        if (thenClose) CloseFar();
    }

    // Closes the far end; returns when the near end knows.
    void CloseFar() {
        far.Close();
        EXPECT_TRUE(Eventually([&] {
            pollfd state{near.Get(), POLLRDHUP, 0};
            return poll(&state, 1, 0) == 1;
        }));
    }

    void ResetFar() {
        far.Reset();
        EXPECT_TRUE(Eventually([&] {
            pollfd state{near.Get(), 0, 0};
            return poll(&state, 1, 0) == 1;
        }));
    }

    // What waits at the near end, taken out.
    std::string Rest() const {
        char rest[4096];
        const ssize_t count = recv(near.Get(), rest, sizeof rest, MSG_DONTWAIT);
        return count > 0 ? std::string(rest, static_cast<std::size_t>(count)) : "";
    }

    Socket near;
    Socket far;
};

// True when `size` bytes, or a part of them, could be sent at once.
bool SendAtOnce(const Socket& socket, std::size_t size) {
    const std::vector<char> bytes(size, 'x');
    return send(socket.Get(), bytes.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL) > 0;
}

// Fills the connection so that not one byte more can be sent without waiting for the peer.
void Fill(const Socket& socket) {
    constexpr int kSettlingMs = 100; // the last bytes are still on their way into the peer's buffer
    pollfd state{socket.Get(), POLLOUT, 0};
    do {
        while (SendAtOnce(socket, 65536)) {
        }
    } while (poll(&state, 1, kSettlingMs) != 0 || SendAtOnce(socket, 1));
}

// Reads until the connection is over or failed; the number of bytes.
std::size_t Drain(const Socket& socket) {
    std::size_t total = 0;
    char bytes[65536];
    ssize_t count;
    while ((count = recv(socket.Get(), bytes, sizeof bytes, 0)) > 0) total += static_cast<std::size_t>(count);
    return total;
}

int OpenDescriptors() {
    int count = 0;
    DIR* const directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr) ++count;
    closedir(directory);
    return count;
}

template <typename Option>
Option OptionOf(const Socket& socket, int level, int name) {
    Option option{};
    socklen_t size = sizeof option;
    EXPECT_EQ(getsockopt(socket.Get(), level, name, &option, &size), 0);
    return option;
}

void ExpectLingersForNoTime(const Socket& socket) {
    const auto setting = OptionOf<linger>(socket, SOL_SOCKET, SO_LINGER);
    EXPECT_EQ(setting.l_onoff, 1);
    EXPECT_EQ(setting.l_linger, 0);
}

// The settings that this module reads are the defaults again after every test; SIGPIPE is ignored, as the
// server ignores it.
class SocketTest : public testing::Test {
protected:
    SocketTest() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        std::signal(SIGPIPE, SIG_IGN);
    }
    ~SocketTest() override {
        usPortOffset = 0;
        StoreShared<unsigned char>(ucVerbosity, VERBOSITY_WARN);
        StoreShared<unsigned char>(ucEntityTerminator, 0);
        StoreSharedText(szEntityTerminator, "");
    }

    static void SetMarker(const char* marker) {
        StoreShared<unsigned char>(ucEntityTerminator, 1);
        StoreSharedText(szEntityTerminator, marker);
    }
};

// Checks one call that must fail: its result, the descriptors it leaves, how often it reports and that
// nothing is printed.
class Failure {
public:
    explicit Failure(int verbosity = VERBOSITY_NONE) {
        StoreShared(ucVerbosity, static_cast<unsigned char>(verbosity));
        reports_ = CallsOf("strerror_r"); // the hook looks the system's text up
        descriptors_ = OpenDescriptors();
    }

    void Expect(int result, int expected, int reports) const {
        EXPECT_EQ(result, expected);
        EXPECT_EQ(CallsOf("strerror_r") - reports_, reports);
        EXPECT_EQ(OpenDescriptors(), descriptors_);
        EXPECT_EQ(capture_.Text(), "");
    }

private:
    CaptureStdout capture_;
    int reports_;
    int descriptors_;
};

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
    const FailCall noText("strerror_r", 1, EINVAL);
    errno = ECONNRESET;
    EXPECT_EQ(ReportSocketError("Test()", "failed"), ECONNRESET);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_TRUE(noText.Struck());
    EXPECT_EQ(capture.Text(), "");
}

TEST_F(SmallOperations, CloseSocketReturnsTheResultOfClosing) {
    Socket socket = NewSocket();
    const int descriptor = std::exchange(*socket.Out(), -1);
    EXPECT_EQ(CloseSocket(descriptor), 0);
    EXPECT_EQ(CloseSocket(descriptor), -1);
    EXPECT_EQ(errno, EBADF);
    const Failure failure;
    failure.Expect(CloseSocket(-1), -1, 1);
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
    for (const char* service : {"abc", "0", "-1", "", "-4294967216", "no-such-service", "x80"}) {
        SCOPED_TRACE(service);
        const int sockets = CallsOf("socket");
        const Failure failure(VERBOSITY_ALL);
        int handle = 4711;
        failure.Expect(CreateSrvSocket(service, 5, &handle), -1, 0);
        EXPECT_EQ(handle, 4711);
        EXPECT_EQ(CallsOf("socket"), sockets);
    }
}

TEST_F(CreateSrvSocketTest, NeverWrapsANumber) {
    // 2^16, 2^32 + 80 and more: all of them are the highest port.
    for (const char* service : {"65536", "65616", "4294967376", "99999999999999999999"}) {
        SCOPED_TRACE(service);
        Socket highest = Listen(65535, "0.0.0.0");
        int handle = 4711;
        EXPECT_EQ(CreateSrvSocket(service, 5, &handle), -5) << "port 65535 is in use";
        EXPECT_EQ(handle, 4711);
        if (highest.Get() < 0) continue; // by another program
        highest.Close();
        Socket server;
        EXPECT_EQ(CreateSrvSocket(service, 5, server.Out()), 0);
        EXPECT_EQ(PortOf(server), 65535);
    }
}

TEST_F(CreateSrvSocketTest, TakesThePortInUseForAFailure) {
    const Socket other = Listen(0, "0.0.0.0");
    const Failure failure;
    int handle = 4711;
    failure.Expect(CreateSrvSocket(std::to_string(PortOf(other)).c_str(), 5, &handle), -5, 0);
    EXPECT_EQ(handle, 4711);
}

struct Step {
    const char* call;
    int nth;
    int result;
    bool reportedWhenSilent;
};

// Fails each step in turn, at verbosity 0 and 1. Whether a handle is stored differs by function.
template <typename Create>
void ExpectStepsFail(const std::vector<Step>& steps, int handleOnFailure, Create create) {
    for (const Step& step : steps) {
        for (const int verbosity : {VERBOSITY_NONE, VERBOSITY_FATAL}) {
            SCOPED_TRACE(std::string(step.call) + " at verbosity " + std::to_string(verbosity));
            const Failure failure(verbosity);
            const FailCall fault(step.call, step.nth, EPERM);
            int handle = 4711;
            const bool reported = step.reportedWhenSilent || verbosity > VERBOSITY_NONE;
            failure.Expect(create(&handle), step.result, reported ? 1 : 0);
            EXPECT_EQ(handle, handleOnFailure);
            EXPECT_TRUE(fault.Struck());
        }
    }
}

TEST_F(CreateSrvSocketTest, NamesTheStepThatFailedAndReportsUnlessItIsSilent) {
    const std::string port = std::to_string(FreePort());
    ExpectStepsFail({{"getprotobyname_r", 1, -2, false},
                     {"socket", 1, -3, false},
                     {"setsockopt", 2, -4, false},
                     {"bind", 1, -5, false},
                     {"listen", 1, -6, false}},
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
        failure.Expect(CreateClntSocket(host, "80", &handle), -2, 0);
        EXPECT_EQ(handle, 4711);
        EXPECT_TRUE(unknown.Struck());
    }
}

TEST_F(CreateClntSocketTest, NamesTheStepThatFailedAndReportsAlways) {
    const Socket server = Listen();
    const std::string port = std::to_string(PortOf(server));
    ExpectStepsFail({{"getprotobyname_r", 1, -3, true}, {"socket", 1, -4, true}, {"connect", 1, -5, true}},
                    4711, [&](int* handle) { return CreateClntSocket("127.0.0.1", port.c_str(), handle); });
}

TEST_F(CreateClntSocketTest, FailsWhereNobodyListens) {
    const std::string port = std::to_string(FreePort());
    const Failure failure;
    int handle = 4711;
    failure.Expect(CreateClntSocket("127.0.0.1", port.c_str(), &handle), -5, 1);
    EXPECT_EQ(handle, 4711);
}

TEST_F(CreateClntSocketTest, AssertsAPortAndAnAddress) {
    int handle = -1;
    for (const char* service : {"0", "abc", "", "-1"}) {
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
    ExpectStepsFail({{"socket", 1, -1, true},
                     {"setsockopt", 2, -2, true},
                     {"bind", 1, -4, true},
                     {"listen", 1, -5, true}},
                    -1, [&](int* handle) { return CreateSrvSocketExt("127.0.0.1", port, 5, handle); });
}

TEST_F(CreateSrvSocketExtTest, RefusesWhatIsNotAnAddress) {
    for (const char* address : {"127.0.0.256", "localhost", "", "1.2.3.4.5"}) {
        const Failure failure(VERBOSITY_ALL);
        int handle = 4711;
        failure.Expect(CreateSrvSocketExt(address, 80, 5, &handle), -3, 0);
        EXPECT_EQ(handle, -1) << address;
    }
}

TEST_F(CreateSrvSocketExtTest, FailsOnAnAddressThatIsNotItsOwnAndOnAPortInUse) {
    const Failure failure;
    int handle = 4711;
    failure.Expect(CreateSrvSocketExt("192.0.2.1", 0, 5, &handle), -4, 1);
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
        {{"socket", 1, -1, true},
         {"setsockopt", 1, -2, false},
         {"setsockopt", 2, -2, false},
         {"bind", 1, -4, true},
         {"connect", 1, -6, true}},
        -1, [&](int* handle) { return CreateClntSocketExt("127.0.0.1", 0, "127.0.0.1", port, handle); });
}

TEST_F(CreateClntSocketExtTest, RefusesWhatIsNotAnAddress) {
    for (const char* address : {"127.0.0.256", "localhost", ""}) {
        const Failure failure(VERBOSITY_ALL);
        int handle = 4711;
        failure.Expect(CreateClntSocketExt(address, 0, "127.0.0.1", 80, &handle), -3, 0);
        EXPECT_EQ(handle, -1);
        handle = 4711;
        failure.Expect(CreateClntSocketExt("127.0.0.1", 0, address, 80, &handle), -5, 0);
        EXPECT_EQ(handle, -1);
    }
}

TEST_F(CreateClntSocketExtTest, BindsBeforeItLooksAtTheRemoteAddress) {
    const Failure failure;
    int handle = 4711;
    failure.Expect(CreateClntSocketExt("192.0.2.1", 0, "not an address", 80, &handle), -4, 1);
    EXPECT_EQ(handle, -1);
}

TEST_F(CreateClntSocketExtTest, FailsWhereNobodyListens) {
    const auto port = static_cast<unsigned short>(FreePort());
    const Failure failure;
    int handle = 4711;
    failure.Expect(CreateClntSocketExt("127.0.0.1", 0, "127.0.0.1", port, &handle), -6, 1);
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

using RecvSocketTest = SocketTest;

// One call of RecvSocket into a buffer of exactly `size` bytes.
struct Received {
    Received(const Connection& connection, int size, char nonBlocking = 0) {
        std::vector<char> buffer(static_cast<std::size_t>(size));
        const int before = CallsOf("recv");
        result = RecvSocket(connection.near.Get(), buffer.data(), size, nonBlocking);
        calls = CallsOf("recv") - before;
        if (result > 0) text.assign(buffer.data(), static_cast<std::size_t>(result));
    }

    int result;
    int calls;
    std::string text;
};

TEST_F(RecvSocketTest, FillsTheBufferAndTakesNoMore) {
    const Connection connection;
    connection.Say("abcdefgh");
    const Received received(connection, 5);
    EXPECT_EQ(received.result, 5);
    EXPECT_EQ(received.text, "abcde");
    EXPECT_EQ(received.calls, 1);
    EXPECT_EQ(connection.Rest(), "fgh");
}

TEST_F(RecvSocketTest, ReceivesNothingIntoNoBuffer) {
    const Connection connection;
    connection.Say("a");
    const Received received(connection, 0);
    EXPECT_EQ(received.result, 0);
    EXPECT_EQ(received.calls, 0);
    EXPECT_EQ(RecvSocket(connection.near.Get(), nullptr, -1, 0), 0);
}

TEST_F(RecvSocketTest, WaitsForTheRest) {
    const Connection connection;
    std::thread peer([&] {
        for (const char c : std::string_view("abc\0\xff", 5)) connection.SayNext({&c, 1});
    });
    const Received received(connection, 5);
    peer.join();
    EXPECT_EQ(received.text, std::string("abc\0\xff", 5));
}

TEST_F(RecvSocketTest, ReturnsWhatCameBeforeThePeerClosed) {
    Connection connection;
    connection.Say("abc", true);
    EXPECT_EQ(Received(connection, 10).text, "abc");
    EXPECT_EQ(Received(connection, 10).result, 0);
    EXPECT_EQ(Received(connection, 10, 1).result, 0);
}

TEST_F(RecvSocketTest, FailsWhenNothingWasReceived) {
    char c;
    EXPECT_EQ(RecvSocket(-1, &c, 1, 0), -1);
    Connection connection;
    connection.ResetFar();
    EXPECT_EQ(Received(connection, 10).result, -1);
}

TEST_F(RecvSocketTest, ReturnsWhatCameBeforeAFailure) {
    const Connection connection;
    connection.Say("abc");
    const FailCall fault("recv", 2, ECONNRESET);
    EXPECT_EQ(Received(connection, 10).text, "abc");
    EXPECT_TRUE(fault.Struck());
}

TEST_F(RecvSocketTest, TriesNothingAgainInBlockingMode) {
    const Connection connection;
    connection.Say("abc");
    for (const int error : {EAGAIN, EINTR}) {
        const FailCall fault("recv", 1, error);
        const Received received(connection, 3);
        EXPECT_EQ(received.result, -1);
        EXPECT_EQ(received.calls, 1);
    }
}

// Sends the pieces, each when the one before has been received, then closes. The result of receiving up to
// 100 bytes, as the text received and the number of receives it took: one more than pieces when the end of
// the entity was not seen in them.
std::string ReceivePieces(const std::vector<std::string_view>& pieces) {
    const Connection connection = Connection::Local();
    std::atomic<bool> done = false;
    std::thread peer([&] {
        for (const std::string_view piece : pieces) {
            EXPECT_TRUE(Eventually([&] { return connection.Waiting() == 0 || done; }));
            if (done) return;
            send(connection.far.Get(), piece.data(), piece.size(), MSG_NOSIGNAL);
        }
        EXPECT_TRUE(Eventually([&] { return connection.Waiting() == 0 || done; }));
        shutdown(connection.far.Get(), SHUT_WR);
    });
    const Received received(connection, 100);
    done = true;
    peer.join();
    return received.text + "/" + std::to_string(received.calls);
}

TEST_F(RecvSocketTest, ReturnsAtTheEndOfTheEntity) {
    SetMarker("END");
    EXPECT_EQ(ReceivePieces({"bodyEND"}), "bodyEND/1");
    EXPECT_EQ(ReceivePieces({"bodyEND\r\n"}), "bodyEND\r\n/1");
    EXPECT_EQ(ReceivePieces({"END"}), "END/1");
    EXPECT_EQ(ReceivePieces({"END\r\n"}), "END\r\n/1");
    EXPECT_EQ(ReceivePieces({"ENDEND"}), "ENDEND/1");
}

TEST_F(RecvSocketTest, SeesTheEndOfTheEntityAcrossPieces) {
    SetMarker("END");
    EXPECT_EQ(ReceivePieces({"body", "END"}), "bodyEND/2");
    EXPECT_EQ(ReceivePieces({"bodyEN", "D"}), "bodyEND/2");
    EXPECT_EQ(ReceivePieces({"E", "N", "D"}), "END/3");
    EXPECT_EQ(ReceivePieces({"bodyEN", "D\r\n"}), "bodyEND\r\n/2");
    EXPECT_EQ(ReceivePieces({"bodyEND\r", "\n"}), "bodyEND\r\n/2");
}

TEST_F(RecvSocketTest, LeavesWhatComesBehindTheEndOfTheEntity) {
    SetMarker("END");
    const Connection connection;
    connection.Say("bodyEND");
    EXPECT_EQ(Received(connection, 100).text, "bodyEND");
    connection.Say("\r\nnext");
    EXPECT_EQ(connection.Rest(), "\r\nnext");
}

TEST_F(RecvSocketTest, TakesNothingElseForTheEndOfTheEntity) {
    SetMarker("END");
    for (const std::string_view bytes : {"E", "EN", "ND", "bodyENDx", "END ", "bodyEND\n", "bodyEND\r",
                                         "END\r\n\r\n", "end", "\r\n", "\n", "EN\r\n", "xEN\r\nD"}) {
        EXPECT_EQ(ReceivePieces({bytes}), std::string(bytes) + "/2");
    }
}

TEST_F(RecvSocketTest, KnowsTheLongestMarker) {
    const std::string marker(CONFIG_TERMINATOR_SIZE - 1, 'm');
    SetMarker(marker.c_str());
    EXPECT_EQ(ReceivePieces({marker}), marker + "/1");
    EXPECT_EQ(ReceivePieces({std::string_view(marker).substr(1), "m"}), marker + "/2");
}

TEST_F(RecvSocketTest, LooksForNoMarkerUnlessItIsSwitchedOn) {
    StoreSharedText(szEntityTerminator, "END");
    EXPECT_EQ(ReceivePieces({"bodyEND"}), "bodyEND/2");
}

TEST_F(RecvSocketTest, StopsAtAFullBufferWithAMarkerToo) {
    SetMarker("END");
    const Connection connection;
    connection.Say("bodyEND");
    EXPECT_EQ(Received(connection, 6).text, "bodyEN");
}

TEST_F(RecvSocketTest, AssertsAMarkerWhenOneIsSwitchedOn) {
    const auto receive = [] {
        const Connection connection;
        connection.Say("body");
        SetMarker("");
        Received(connection, 100);
    };
    EXPECT_DEATH(receive(), Assertion(kSource, "RecvSocket", "slen > 0"));
}

TEST_F(RecvSocketTest, NeedsNoMarkerWhenNothingIsReceived) {
    Connection connection;
    connection.CloseFar();
    SetMarker("");
    EXPECT_EQ(Received(connection, 100).result, 0);
}

TEST_F(RecvSocketTest, MakesTheSocketNonBlockingForGood) {
    const Connection connection;
    connection.Say("a");
    const int before = fcntl(connection.near.Get(), F_GETFL);
    EXPECT_EQ(Received(connection, 1, 1).text, "a");
    EXPECT_EQ(fcntl(connection.near.Get(), F_GETFL), before | 0xc00);
    static_assert((O_NONBLOCK | O_APPEND) == 0xc00);
    const Received later(connection, 1);
    EXPECT_EQ(later.result, -1) << "it does not wait any more";
    EXPECT_EQ(later.calls, 1);
}

TEST_F(RecvSocketTest, LeavesTheFlagsInBlockingMode) {
    const Connection connection;
    connection.Say("a");
    const int before = fcntl(connection.near.Get(), F_GETFL);
    Received(connection, 1);
    EXPECT_EQ(fcntl(connection.near.Get(), F_GETFL), before);
}

TEST_F(RecvSocketTest, FailsWhenTheSocketCannotBeMadeNonBlocking) {
    char c;
    EXPECT_EQ(RecvSocket(-1, &c, 1, 1), -1);
    for (const int nth : {1, 2}) {
        const Connection connection;
        connection.Say("a");
        const FailCall fault("fcntl", nth, EPERM);
        const Received received(connection, 1, 1);
        EXPECT_TRUE(fault.Struck());
        EXPECT_EQ(received.result, -1);
        EXPECT_EQ(received.calls, 0);
    }
}

TEST_F(RecvSocketTest, TriesAQuietConnectionThreeTimesAgain) {
    const Connection connection;
    const auto start = std::chrono::steady_clock::now();
    const Received received(connection, 10, 1);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(received.result, -1);
    EXPECT_EQ(received.calls, 4);
    EXPECT_GE(elapsed, 6ms);
    EXPECT_LT(elapsed, 6s) << "pauses of seconds";
}

TEST_F(RecvSocketTest, ReturnsWhatCameWhenTheTriesAreUsedUp) {
    const Connection connection;
    connection.Say("ab");
    const Received received(connection, 10, 1);
    EXPECT_EQ(received.text, "ab");
    EXPECT_EQ(received.calls, 5);
}

TEST_F(RecvSocketTest, ReceivesWhatArrivesWhileItTriesAgain) {
    const Connection connection;
    connection.Say("abc");
    const FailCall notYet("recv", 1, EAGAIN);
    const Received received(connection, 3, 1);
    EXPECT_TRUE(notYet.Struck());
    EXPECT_EQ(received.text, "abc");
    EXPECT_EQ(received.calls, 2);
}

TEST_F(RecvSocketTest, CountsTheTriesOfTheWholeCall) {
    const Connection connection;
    connection.Say("abc");
    const FailCall notYet("recv", 1, EAGAIN);
    const Received received(connection, 10, 1);
    EXPECT_EQ(received.text, "abc");
    EXPECT_EQ(received.calls, 5) << "the first try and the three at the end are four";
}

TEST_F(RecvSocketTest, LooksForNoMarkerInNonBlockingMode) {
    SetMarker("END");
    const Connection connection;
    connection.Say("bodyEND");
    const Received received(connection, 100, 1);
    EXPECT_EQ(received.text, "bodyEND");
    EXPECT_EQ(received.calls, 5);
}

TEST_F(RecvSocketTest, TriesNoOtherFailureAgain) {
    const Connection connection;
    connection.Say("abc");
    const FailCall fault("recv", 1, ECONNRESET);
    const Received received(connection, 3, 1);
    EXPECT_EQ(received.result, -1);
    EXPECT_EQ(received.calls, 1);
}

using ReadLineTest = SocketTest;

// One call of ReadLineFromSocket with buffers of exactly their sizes.
struct Line {
    explicit Line(const Connection& connection, unsigned int size = 100) {
        std::vector<char> buffer(size, '?');
        std::vector<char> lineEnd(SOCKET_LINE_END_SIZE, '\r');
        const int before = CallsOf("recv");
        result = ReadLineFromSocket(connection.near.Get(), buffer.data(), size, lineEnd.data());
        calls = CallsOf("recv") - before;
        if (result >= 0) {
            text.assign(buffer.data(), static_cast<std::size_t>(result));
            terminated = buffer[static_cast<std::size_t>(result)] == '\0';
            end = lineEnd.data();
        }
    }

    int result;
    int calls;
    bool terminated = false;
    std::string text;
    std::string end;
};

TEST_F(ReadLineTest, ReadsALineAndItsEnd) {
    const Connection connection;
    connection.Say("abc\r\n");
    const Line line(connection);
    EXPECT_EQ(line.result, 3);
    EXPECT_EQ(line.text, "abc");
    EXPECT_EQ(line.end, "\r\n");
    EXPECT_TRUE(line.terminated);
}

TEST_F(ReadLineTest, AcceptsABareLineFeed) {
    const Connection connection;
    connection.Say("abc\n");
    const Line line(connection);
    EXPECT_EQ(line.text, "abc");
    EXPECT_EQ(line.end, "\n");
}

TEST_F(ReadLineTest, ReadsAnEmptyLine) {
    const Connection connection;
    connection.Say("\r\n\n");
    const Line first(connection), second(connection);
    EXPECT_EQ(first.result, 0);
    EXPECT_EQ(first.end, "\r\n");
    EXPECT_EQ(second.result, 0);
    EXPECT_EQ(second.end, "\n");
    EXPECT_TRUE(second.terminated);
}

TEST_F(ReadLineTest, LeavesEverythingBehindTheLineInTheSocket) {
    const Connection connection;
    connection.Say("first\r\nsecond\nthird");
    EXPECT_EQ(Line(connection).text, "first");
    EXPECT_EQ(Line(connection).text, "second");
    EXPECT_EQ(connection.Rest(), "third");
}

TEST_F(ReadLineTest, TakesFewCallsForALine) {
    const Connection connection;
    connection.Say("GET /rDx HTTP/1.1\r\nHost: device\r\n");
    EXPECT_LE(Line(connection).calls, 2);
    EXPECT_LE(Line(connection).calls, 2);
    const std::string text(1000, 'x');
    connection.Say(text + "\r\n");
    const Line line(connection, 1024);
    EXPECT_EQ(line.text, text);
    EXPECT_LE(line.calls, 6);
}

TEST_F(ReadLineTest, BeginsTheLineEndAfreshInEachCall) {
    const Connection connection;
    connection.Say("a\r\nb\r\nc\n");
    char text[10], end[SOCKET_LINE_END_SIZE] = "";
    for (const char* expected : {"a", "b"}) {
        EXPECT_EQ(ReadLineFromSocket(connection.near.Get(), text, sizeof text, end), 1);
        EXPECT_STREQ(text, expected);
        EXPECT_STREQ(end, "\r\n");
    }
    EXPECT_EQ(ReadLineFromSocket(connection.near.Get(), text, sizeof text, end), 1);
    EXPECT_STREQ(end, "\n");
}

TEST_F(ReadLineTest, FitsALineOfOneByteLessThanTheBuffer) {
    const Connection connection;
    connection.Say("abc\r\nabc\n\n");
    EXPECT_EQ(Line(connection, 4).text, "abc");
    EXPECT_EQ(Line(connection, 4).text, "abc");
    EXPECT_EQ(Line(connection, 1).result, 0);
}

TEST_F(ReadLineTest, RefusesALineThatDoesNotFit) {
    const Connection connection;
    connection.Say("abcd\r\nx");
    EXPECT_EQ(Line(connection, 4).result, -3);
    EXPECT_EQ(connection.Rest(), "\r\nx") << "read up to the byte that did not fit";
    connection.Say("x\n");
    EXPECT_EQ(Line(connection, 1).result, -3);
}

TEST_F(ReadLineTest, RefusesASecondCr) {
    const Connection connection;
    connection.Say("a\r\r\nb");
    EXPECT_EQ(Line(connection).result, -2);
    EXPECT_EQ(connection.Rest(), "\nb");
    connection.Say("a\rb\r\n");
    EXPECT_EQ(Line(connection).result, -2);
    EXPECT_EQ(connection.Rest(), "\n");
}

TEST_F(ReadLineTest, LeavesACrInsideOutOfTheLine) {
    const Connection connection;
    connection.Say("a\rb\n");
    const Line line(connection);
    EXPECT_EQ(line.text, "ab");
    EXPECT_EQ(line.end, "\r\n");
}

TEST_F(ReadLineTest, KeepsNulAndHighBytes) {
    const Connection connection;
    connection.Say(std::string_view("a\0b\xff\x80\0\r\n", 8));
    const Line line(connection);
    EXPECT_EQ(line.text, std::string("a\0b\xff\x80\0", 6));
}

TEST_F(ReadLineTest, IsTheSameWhenTheBytesComeOneAtATime) {
    const Connection connection;
    const std::string_view bytes("ab\0c\r\n", 6);
    std::thread peer([&] {
        for (const char& c : bytes) connection.SayNext({&c, 1});
    });
    const Line line(connection);
    peer.join();
    EXPECT_EQ(line.text, std::string("ab\0c", 4));
    EXPECT_EQ(line.end, "\r\n");
}

TEST_F(ReadLineTest, EndsTheLineWhereThePeerCloses) {
    Connection connection;
    connection.Say("abc\r", true);
    const Line line(connection);
    EXPECT_EQ(line.text, "abc");
    EXPECT_TRUE(line.terminated);
    EXPECT_EQ(line.end, "\r");
    const Line nothing(connection);
    EXPECT_EQ(nothing.result, 0);
    EXPECT_TRUE(nothing.terminated);
    EXPECT_EQ(nothing.end, "");
}

TEST_F(ReadLineTest, FailsWhenReceivingDoesAndReportsIt) {
    const Failure failure;
    char text[10], end[SOCKET_LINE_END_SIZE];
    failure.Expect(ReadLineFromSocket(-1, text, sizeof text, end), -1, 1);

    Connection reset;
    reset.ResetFar();
    EXPECT_EQ(Line(reset).result, -1);
}

TEST_F(ReadLineTest, FailsWhenAnyReceiveDoes) {
    for (const int nth : {1, 2, 3}) {
        const Connection connection;
        connection.Say("abc");
        const FailCall fault("recv", nth, ECONNRESET);
        EXPECT_EQ(Line(connection).result, -1) << nth;
        EXPECT_TRUE(fault.Struck()) << nth;
    }
}

TEST_F(ReadLineTest, AssertsItsBuffers) {
    char text[4], end[SOCKET_LINE_END_SIZE];
    EXPECT_DEATH(ReadLineFromSocket(-1, text, 0, end),
                 Assertion(kSource, "ReadLineFromSocket", "uiBufsize > 0"));
    EXPECT_DEATH(ReadLineFromSocket(-1, nullptr, 4, end),
                 Assertion(kSource, "ReadLineFromSocket", "szBuf != __null"));
    EXPECT_DEATH(ReadLineFromSocket(-1, text, 4, nullptr),
                 Assertion(kSource, "ReadLineFromSocket", "szCrLf != __null"));
}

using SendSocketTest = SocketTest;

TEST_F(SendSocketTest, SendsEverything) {
    const Connection connection;
    EXPECT_EQ(SendSocket(connection.near.Get(), "a\0b", 3), 3);
    char received[4];
    ASSERT_EQ(recv(connection.far.Get(), received, sizeof received, 0), 3);
    EXPECT_EQ(std::memcmp(received, "a\0b", 3), 0);
    EXPECT_EQ(SendSocket(connection.near.Get(), "", 0), 0);
}

TEST_F(SendSocketTest, WaitsForAPeerThatReadsSlowly) {
    Connection connection(4096);
    const std::vector<char> bytes(1'000'000, 'x');
    std::size_t received = 0;
    std::thread peer([&] { received = Drain(connection.far); });
    EXPECT_EQ(SendSocket(connection.near.Get(), bytes.data(), 1'000'000), 1'000'000);
    shutdown(connection.near.Get(), SHUT_WR);
    peer.join();
    EXPECT_EQ(received, bytes.size());
}

TEST_F(SendSocketTest, FailsWhenThePeerHasClosed) {
    Connection connection;
    connection.ResetFar();
    EXPECT_EQ(SendSocket(connection.near.Get(), "abc", 3), -2);
    EXPECT_EQ(SendSocket(connection.near.Get(), "abc", 3), -2);
    EXPECT_EQ(SendSocket(-1, "abc", 3), -2);
}

TEST_F(SendSocketTest, TellsAShortSendApartAndTriesTheRestNotAgain) {
    const Connection connection;
    ASSERT_EQ(fcntl(connection.near.Get(), F_SETFL, O_NONBLOCK), 0);
    const std::vector<char> bytes(64 << 20, 'x'); // more than any buffer holds
    const int sends = CallsOf("send");
    const Failure failure(VERBOSITY_ERROR);
    failure.Expect(SendSocket(connection.near.Get(), bytes.data(), static_cast<int>(bytes.size())), -3, 1);
    EXPECT_EQ(CallsOf("send"), sends + 1);
}

TEST_F(SendSocketTest, FailsWhenNothingCanBeSent) {
    const Connection connection(4096);
    Fill(connection.near);
    ASSERT_EQ(fcntl(connection.near.Get(), F_SETFL, O_NONBLOCK), 0);
    EXPECT_EQ(SendSocket(connection.near.Get(), "abc", 3), -2);
}

TEST_F(SendSocketTest, ReportsAboveVerbosity1) {
    for (const int verbosity : {VERBOSITY_NONE, VERBOSITY_FATAL}) {
        const Failure failure(verbosity);
        const FailCall noMemory("malloc");
        failure.Expect(SendSocket(-1, "abc", 3), -2, 0);
        EXPECT_FALSE(noMemory.Struck()) << "without a report there is no preview";
    }
    for (const int verbosity : {VERBOSITY_ERROR, VERBOSITY_ALL}) {
        const Failure failure(verbosity);
        failure.Expect(SendSocket(-1, "abc", 3), -2, 1);
    }
}

TEST_F(SendSocketTest, FailsWithoutMemoryForThePreview) {
    StoreShared<unsigned char>(ucVerbosity, VERBOSITY_ERROR);
    const FailCall noMemory("malloc");
    EXPECT_EQ(SendSocket(-1, "abc", 3), -1);
    EXPECT_TRUE(noMemory.Struck());
}

TEST_F(SendSocketTest, PreviewsNoMoreThanItWasGiven) {
    StoreShared<unsigned char>(ucVerbosity, VERBOSITY_ALL);
    for (int length = 1; length < 40; ++length) {
        const GuardedBytes bytes(std::string(static_cast<std::size_t>(length), 'x'));
        EXPECT_EQ(SendSocket(-1, bytes.begin(), length), -2);
    }
    const FailCall fault("send", 1, EPIPE);
    const GuardedBytes nothing("");
    EXPECT_EQ(SendSocket(-1, nothing.begin(), 0), -2);
}

using WriteSocketTest = SocketTest;

TEST_F(WriteSocketTest, WritesOnce) {
    const Connection connection;
    EXPECT_EQ(WriteSocket(connection.near.Get(), "a\0b", 3), 3);
    char received[4];
    ASSERT_EQ(recv(connection.far.Get(), received, sizeof received, 0), 3);
    EXPECT_EQ(std::memcmp(received, "a\0b", 3), 0);
}

TEST_F(WriteSocketTest, ReturnsAShortCountWithoutAReport) {
    const Connection connection;
    ASSERT_EQ(fcntl(connection.near.Get(), F_SETFL, O_NONBLOCK), 0);
    const std::vector<char> bytes(64 << 20, 'x');
    const int reports = CallsOf("strerror_r");
    const int written =
        WriteSocket(connection.near.Get(), bytes.data(), static_cast<unsigned int>(bytes.size()));
    EXPECT_GT(written, 0);
    EXPECT_LT(written, 64 << 20);
    EXPECT_EQ(CallsOf("strerror_r"), reports);
}

TEST_F(WriteSocketTest, ReportsAFailureAndNothingWritten) {
    Connection connection;
    const Failure failure;
    failure.Expect(WriteSocket(-1, "abc", 3), -1, 1);
    failure.Expect(WriteSocket(connection.near.Get(), "", 0), 0, 2);
    connection.ResetFar();
    EXPECT_EQ(WriteSocket(connection.near.Get(), "abc", 3), -1);
}

// Runs a test's body on a thread that handles the caught signals in windows.
class Windows : public SocketTest {
protected:
    static void OnThread(const std::function<void()>& body) {
        std::thread([&] {
            const Handlers handlers;
            const SignalsInWindowsOnly signals;
            body();
        }).join();
    }

    // Pending until the thread waits.
    static void SignalMyself(int number) { ASSERT_EQ(pthread_kill(pthread_self(), number), 0); }
};

TEST_F(Windows, ReceiveAsWithoutThem) {
    OnThread([] {
        Connection connection;
        connection.Say("abcdef\r\nrest");
        EXPECT_EQ(Received(connection, 3).text, "abc");
        EXPECT_EQ(Line(connection).text, "def");
        EXPECT_EQ(connection.Rest(), "rest");
        std::thread peer([&] {
            connection.SayNext("xy");
            connection.SayNext("z");
            connection.SayNext("line");
            connection.SayNext("\r\n");
        });
        EXPECT_EQ(Received(connection, 3).text, "xyz");
        EXPECT_EQ(Line(connection).text, "line");
        peer.join();
        connection.CloseFar();
        EXPECT_EQ(Received(connection, 3).result, 0);
        EXPECT_EQ(Line(connection).result, 0);
        char c;
        EXPECT_EQ(RecvSocket(-1, &c, 1, 0), -1);
        EXPECT_EQ(errno, EBADF);
    });
}

TEST_F(Windows, ReceiveInNonBlockingModeWithoutWaiting) {
    OnThread([] {
        const Connection connection;
        EXPECT_EQ(Received(connection, 3, 1).calls, 4);
    });
}

TEST_F(Windows, EndAWaitingReceiveByATerminatingSignal) {
    OnThread([] {
        const Connection connection;
        SignalMyself(SIGTERM);
        EXPECT_EQ(Received(connection, 10).result, -1);
        EXPECT_EQ(LoadShared(sigerr), SIGTERM);
    });
    OnThread([] {
        const Connection connection;
        connection.Say("abc");
        SignalMyself(SIGHUP);
        EXPECT_EQ(Received(connection, 10).text, "abc") << "what came before";
        EXPECT_EQ(Received(connection, 10).result, -1) << "nor does a later wait begin";
    });
}

TEST_F(Windows, ReceiveWhatHasArrivedAfterATerminatingSignalToo) {
    OnThread([] {
        const Connection connection;
        connection.Say("abc\r\ndef");
        SignalMyself(SIGTERM);
        { const SignalWindow window; }
        ASSERT_EQ(LoadShared(signalled), 1);
        EXPECT_EQ(Line(connection).text, "abc");
        EXPECT_EQ(Received(connection, 3).text, "def");
    });
}

TEST_F(Windows, EndAWaitingLineByATerminatingSignal) {
    OnThread([] {
        const Connection connection;
        connection.Say("abc");
        SignalMyself(SIGTERM);
        EXPECT_EQ(Line(connection).result, -1);
        EXPECT_EQ(handledSignals, 1);
    });
}

TEST_F(Windows, EndAWaitingSendByATerminatingSignal) {
    OnThread([] {
        const Connection connection(4096);
        const std::vector<char> bytes(64 << 20, 'x');
        SignalMyself(SIGTERM);
        EXPECT_EQ(SendSocket(connection.near.Get(), bytes.data(), 64 << 20), -3) << "a part was taken";
    });
    OnThread([] {
        const Connection connection(4096);
        Fill(connection.near);
        SignalMyself(SIGTERM);
        EXPECT_EQ(SendSocket(connection.near.Get(), "abc", 3), -2);
    });
}

TEST_F(Windows, GoOnWaitingAfterSigusr1) {
    OnThread([] {
        const Connection connection;
        SignalMyself(SIGUSR1);
        std::thread peer([&] {
            EXPECT_TRUE(Eventually([] { return handledSignals == 1; }));
            connection.SayNext("abc");
        });
        EXPECT_EQ(Received(connection, 3).text, "abc");
        peer.join();
    });
    OnThread([] {
        const Connection connection;
        SignalMyself(SIGUSR1);
        std::thread peer([&] {
            EXPECT_TRUE(Eventually([] { return handledSignals == 1; }));
            connection.SayNext("abc\n");
        });
        EXPECT_EQ(Line(connection).text, "abc");
        peer.join();
    });
    OnThread([] {
        const Connection connection(4096);
        const std::vector<char> bytes(8 << 20, 'x');
        SignalMyself(SIGUSR1);
        std::size_t received = 0;
        std::thread peer([&] {
            EXPECT_TRUE(Eventually([] { return handledSignals == 1; }));
            received = Drain(connection.far);
        });
        EXPECT_EQ(SendSocket(connection.near.Get(), bytes.data(), 8 << 20), 8 << 20);
        shutdown(connection.near.Get(), SHUT_WR);
        peer.join();
        EXPECT_EQ(received, bytes.size());
    });
}

TEST_F(Windows, SendFailuresAsWithoutThem) {
    OnThread([] {
        Connection connection;
        EXPECT_EQ(SendSocket(connection.near.Get(), "", 0), 0);
        connection.ResetFar();
        EXPECT_EQ(SendSocket(connection.near.Get(), "abc", 3), -2);
        EXPECT_EQ(SendSocket(-1, "abc", 3), -2);
    });
}

// A peer that neither accepts nor refuses: the queue of its listening socket is full.
class SilentPeer {
public:
    SilentPeer() : server_(NewSocket()) {
        if (!Bind(server_, AddressOf("127.0.0.1", 0)) || listen(server_.Get(), 0) != 0) std::abort();
        while (Queues()) {
        }
    }

    int Port() const { return PortOf(server_); }

    // Accepts everybody from now on.
    void Accept() {
        for (std::size_t i = 0; i < queued_.size(); ++i) Socket(accept(server_.Get(), nullptr, nullptr));
    }

    // Refuses everybody from now on.
    void Refuse() { server_.Close(); }

private:
    // Queues a connection; false when there is no room for it.
    bool Queues() {
        constexpr int kSettlingMs = 100;
        Socket client(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        Connect(client, AddressOf("127.0.0.1", Port()));
        pollfd state{client.Get(), POLLOUT, 0};
        if (poll(&state, 1, kSettlingMs) == 0) return false;
        queued_.push_back(std::move(client));
        return true;
    }

    Socket server_;
    std::vector<Socket> queued_;
};

int ConnectExt(int port, int* handle) {
    return CreateClntSocketExt("127.0.0.1", 0, "127.0.0.1", static_cast<unsigned short>(port), handle);
}

int Connect(int port, int* handle) {
    return CreateClntSocket("127.0.0.1", std::to_string(port).c_str(), handle);
}

TEST_F(Windows, ConnectAsWithoutThem) {
    OnThread([] {
        const Socket server = Listen();
        for (const auto connect : {ConnectExt, Connect}) {
            Socket client;
            ASSERT_EQ(connect(PortOf(server), client.Out()), 0);
            EXPECT_EQ(PeerName(client), LocalName(server));
            EXPECT_EQ(fcntl(client.Get(), F_GETFL) & O_NONBLOCK, 0) << "later receives wait";
            EXPECT_EQ(OptionOf<int>(client, SOL_SOCKET, SO_ERROR), 0);
        }
        const int nobody = FreePort();
        int handle = 4711;
        EXPECT_EQ(ConnectExt(nobody, &handle), -6);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(handle, -1);
        handle = 4711;
        EXPECT_EQ(Connect(nobody, &handle), -5);
        EXPECT_EQ(handle, 4711);
    });
}

TEST_F(Windows, EndAWaitingConnectByATerminatingSignal) {
    OnThread([] {
        const SilentPeer peer;
        const int descriptors = OpenDescriptors();
        SignalMyself(SIGTERM);
        int handle = 4711;
        EXPECT_EQ(ConnectExt(peer.Port(), &handle), -6);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(handle, -1);
        EXPECT_EQ(handledSignals, 1);
        EXPECT_EQ(ConnectExt(peer.Port(), &handle), -6) << "nor does a later wait begin";
        EXPECT_EQ(OpenDescriptors(), descriptors);
    });
    OnThread([] {
        const SilentPeer peer;
        const int descriptors = OpenDescriptors();
        SignalMyself(SIGHUP);
        int handle = 4711;
        EXPECT_EQ(Connect(peer.Port(), &handle), -5);
        EXPECT_EQ(handle, 4711);
        EXPECT_EQ(handledSignals, 1);
        EXPECT_EQ(OpenDescriptors(), descriptors);
    });
}

TEST_F(Windows, GoOnConnectingAfterSigusr1) {
    OnThread([] {
        SilentPeer peer;
        SignalMyself(SIGUSR1);
        std::thread accepting([&] {
            EXPECT_TRUE(Eventually([] { return handledSignals == 1; }));
            peer.Accept();
        });
        Socket client;
        EXPECT_EQ(ConnectExt(peer.Port(), client.Out()), 0);
        accepting.join();
        EXPECT_EQ(PeerName(client), "127.0.0.1:" + std::to_string(peer.Port()));
        EXPECT_EQ(fcntl(client.Get(), F_GETFL) & O_NONBLOCK, 0);
    });
}

TEST_F(Windows, TellARefusalThatComesLate) {
    OnThread([] {
        SilentPeer peer;
        const int port = peer.Port();
        SignalMyself(SIGUSR1);
        std::thread refusing([&] {
            EXPECT_TRUE(Eventually([] { return handledSignals == 1; }));
            peer.Refuse();
        });
        int handle = 4711;
        EXPECT_EQ(ConnectExt(port, &handle), -6);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(handle, -1);
        refusing.join();
    });
}

TEST_F(Windows, FailAConnectOfWhichAStepFails) {
    OnThread([] {
        const Socket server = Listen();
        for (int nth = 1; nth <= 3; ++nth) { // what the socket is, not to wait, to wait again
            const Failure failure;
            const FailCall fault("fcntl", nth, EPERM);
            int handle = 4711;
            failure.Expect(ConnectExt(PortOf(server), &handle), -6, 1);
            EXPECT_EQ(handle, -1);
            EXPECT_TRUE(fault.Struck());
        }
        const Failure failure;
        const FailCall underWay("connect", 1, EINPROGRESS);
        const FailCall unknown("getsockopt", 1, EPERM);
        int handle = 4711;
        failure.Expect(ConnectExt(PortOf(server), &handle), -6, 1);
        EXPECT_EQ(handle, -1);
        EXPECT_TRUE(unknown.Struck());
    });
}

TEST_F(Windows, AreNoMatterToOtherThreads) {
    const Handlers handlers;
    StoreShared(signalled, 1);
    const Connection connection;
    std::thread peer([&] {
        connection.SayNext("abc");
        connection.SayNext("def\n");
        char sent[3];
        EXPECT_EQ(recv(connection.far.Get(), sent, sizeof sent, MSG_WAITALL), 3);
    });
    EXPECT_EQ(Received(connection, 3).text, "abc");
    EXPECT_EQ(Line(connection).text, "def");
    EXPECT_EQ(SendSocket(connection.near.Get(), "xyz", 3), 3);
    peer.join();
    const int before = CallsOf("fcntl");
    const Socket server = Listen();
    Socket client;
    EXPECT_EQ(ConnectExt(PortOf(server), client.Out()), 0);
    EXPECT_EQ(CallsOf("fcntl"), before) << "the connect itself waits";
}

using AwaitDeliveryTest = Windows;

constexpr auto kPatience = std::chrono::milliseconds(kDeliveryPatienceMs);
static_assert(kPatience == 2s);
constexpr auto kRounding = 10ms;

// How long the wait for delivery took, and in how many pauses.
struct Delivery {
    explicit Delivery(const Socket& socket) : Delivery(socket.Get()) {}
    explicit Delivery(int socket) {
        const auto start = std::chrono::steady_clock::now();
        const int before = CallsOf("ppoll");
        AwaitDelivery(socket);
        pauses = CallsOf("ppoll") - before;
        elapsed = std::chrono::steady_clock::now() - start;
    }

    int pauses;
    std::chrono::nanoseconds elapsed;
};

int Unacknowledged(const Socket& socket) {
    int bytes = 0;
    EXPECT_EQ(ioctl(socket.Get(), TIOCOUTQ, &bytes), 0);
    return bytes;
}

TEST_F(AwaitDeliveryTest, ReturnsAtOnceWhenEverythingIsAcknowledged) {
    Connection connection;
    EXPECT_EQ(Delivery(connection.near).pauses, 0);
    ASSERT_EQ(SendSocket(connection.near.Get(), "abc", 3), 3);
    EXPECT_TRUE(Eventually([&] { return Unacknowledged(connection.near) == 0; }));
    EXPECT_EQ(Delivery(connection.near).pauses, 0) << "the peer need not have read it";
    connection.CloseFar();
    EXPECT_EQ(Delivery(connection.near).pauses, 0);
}

TEST_F(AwaitDeliveryTest, ReturnsWhenEverythingIsAcknowledged) {
    const Connection connection;
    const std::vector<char> bytes(30'000, 'x');
    ASSERT_EQ(SendSocket(connection.near.Get(), bytes.data(), 30'000), 30'000);
    AwaitDelivery(connection.near.Get());
    EXPECT_EQ(Unacknowledged(connection.near), 0);
}

TEST_F(AwaitDeliveryTest, ReturnsAtOnceOnWhatIsNotTcp) {
    const Connection local = Connection::Local();
    ASSERT_EQ(send(local.near.Get(), "abc", 3, 0), 3);
    EXPECT_GT(Unacknowledged(local.near), 0);
    EXPECT_EQ(Delivery(local.near).pauses, 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const Socket reading(ends[0]), writing(ends[1]);
    EXPECT_EQ(Delivery(writing).pauses, 0);
    EXPECT_EQ(Delivery(Listen()).pauses, 0);
    EXPECT_EQ(Delivery(NewSocket()).pauses, 0);
    EXPECT_EQ(Delivery(-1).pauses, 0);
}

TEST_F(AwaitDeliveryTest, ReturnsAtOnceWhenTheConnectionHasFailed) {
    Connection connection(4096);
    Fill(connection.near);
    ASSERT_GT(Unacknowledged(connection.near), 0);
    connection.ResetFar();
    EXPECT_EQ(Delivery(connection.near).pauses, 0);
}

using Moment = std::chrono::steady_clock::time_point;

// A wait of few pauses, however long they took; or one that returned soon behind its cause, which came late.
bool EndedSoon(int pauses, Moment returned, Moment cause) {
    return pauses < kDeliveryPatienceMs / 2 || returned - cause < kPatience / 2;
}

TEST_F(AwaitDeliveryTest, ReturnsWhenTheConnectionFailsMeanwhile) {
    Connection connection(4096);
    Fill(connection.near);
    Moment failed;
    std::thread peer([&] {
        usleep(20'000); // most likely the wait has begun; the test holds in any case
        connection.far.Reset();
        failed = std::chrono::steady_clock::now();
    });
    const int pauses = Delivery(connection.near).pauses;
    const Moment returned = std::chrono::steady_clock::now();
    peer.join();
    EXPECT_TRUE(EndedSoon(pauses, returned, failed)) << pauses;
}

TEST_F(AwaitDeliveryTest, GivesUpOnAPeerThatReadsNothing) {
    const Connection connection(4096);
    Fill(connection.near);
    const Delivery delivery(connection.near);
    EXPECT_GE(delivery.elapsed, kPatience - kRounding);
    EXPECT_LT(delivery.elapsed, 8 * kPatience);
    EXPECT_GT(Unacknowledged(connection.near), 0);
}

// Reads everything, but the last part, of `heldBack` bytes, only from `awaiting` on and in slices that take
// longer in all than the sender's patience. The number of bytes read.
std::size_t ReadSlowly(const Socket& far, std::size_t size, std::size_t heldBack,
                       const std::atomic<bool>& awaiting) {
    constexpr int kSlices = 16;
    std::vector<char> slice(heldBack / kSlices);
    std::size_t received = 0;
    ssize_t count = 1;
    while (count > 0) {
        const bool slowly = received >= size - heldBack;
        if (slowly) {
            EXPECT_TRUE(Eventually([&] { return awaiting.load(); }));
            std::this_thread::sleep_for((kPatience + 1s) / kSlices);
        }
        count = recv(far.Get(), slice.data(), slice.size(), slowly ? MSG_WAITALL : 0);
        if (count > 0) received += static_cast<std::size_t>(count);
    }
    return received;
}

TEST_F(AwaitDeliveryTest, LosesNothingToAPeerThatReadsSlowly) {
    constexpr int kSize = 1 << 20;
    constexpr int kHeldBack = 128 << 10;
    constexpr int kSendBuffer = 2 * kHeldBack;
    Connection connection(4096);
    setsockopt(connection.near.Get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
    std::atomic<bool> awaiting = false;
    std::size_t received = 0;
    std::thread peer([&] { received = ReadSlowly(connection.far, kSize, kHeldBack, awaiting); });

    const std::vector<char> answer(kSize, 'x');
    EXPECT_EQ(SendSocket(connection.near.Get(), answer.data(), kSize), kSize);
    EXPECT_GT(Unacknowledged(connection.near), 0);
    const auto start = std::chrono::steady_clock::now();
    awaiting = true;
    AwaitDelivery(connection.near.Get());
    EXPECT_GE(std::chrono::steady_clock::now() - start, kPatience - kRounding)
        << "it goes on while there is progress";
    EXPECT_EQ(Unacknowledged(connection.near), 0);
    connection.near.Reset();
    peer.join();
    EXPECT_EQ(received, answer.size());
}

TEST_F(AwaitDeliveryTest, IsEndedByATerminatingSignalOnTheThreadWithWindows) {
    OnThread([] {
        const Connection connection(4096);
        Fill(connection.near);
        SignalMyself(SIGTERM);
        EXPECT_EQ(Delivery(connection.near).pauses, 1);
        EXPECT_EQ(handledSignals, 1);
        EXPECT_EQ(Delivery(connection.near).pauses, 1) << "a later wait";
    });
}

TEST_F(AwaitDeliveryTest, IsNotEndedBySigusr1) {
    OnThread([] {
        const Connection connection(4096);
        Fill(connection.near);
        SignalMyself(SIGUSR1);
        EXPECT_GE(Delivery(connection.near).elapsed, kPatience - kRounding);
        EXPECT_EQ(handledSignals, 1);
    });
}

using AwaitDeliveriesTest = Windows;

fd_set SetOf(std::initializer_list<int> sockets) {
    fd_set set;
    FD_ZERO(&set);
    for (const int socket : sockets) FD_SET(socket, &set);
    return set;
}

// The pauses that waiting for the delivery on all of `sockets` took. Each is a millisecond or more.
int PausesToDeliver(std::initializer_list<int> sockets) {
    const fd_set set = SetOf(sockets);
    const int before = CallsOf("ppoll");
    AwaitDeliveries(set);
    return CallsOf("ppoll") - before;
}

TEST_F(AwaitDeliveriesTest, ReturnsAtOnceWhenThereIsNothingToWaitFor) {
    EXPECT_EQ(PausesToDeliver({}), 0);
    const Connection local = Connection::Local();
    ASSERT_EQ(send(local.near.Get(), "abc", 3, 0), 3);
    const Connection idle;
    Connection failed(4096);
    Fill(failed.near);
    failed.ResetFar();
    const Socket server = Listen();
    EXPECT_EQ(PausesToDeliver({local.near.Get(), idle.near.Get(), failed.near.Get(), server.Get()}), 0);
}

TEST_F(AwaitDeliveriesTest, WaitsForEveryPeer) {
    const Connection first(131072), second(131072);
    Fill(first.near);
    Fill(second.near);
    Moment drained;
    std::thread peers([&] {
        usleep(20'000); // most likely the wait has begun; the test holds in any case
        for (const Connection* connection : {&second, &first}) {
            shutdown(connection->near.Get(), SHUT_WR);
            Drain(connection->far);
        }
        drained = std::chrono::steady_clock::now();
    });
    const auto delivered = [&] {
        return Unacknowledged(first.near) == 0 && Unacknowledged(second.near) == 0;
    };
    int pauses = 0;
    int waits = 0;
    Moment start, returned;
    do { // again where the peers were held back for all of the patience
        start = std::chrono::steady_clock::now();
        pauses = PausesToDeliver({first.near.Get(), second.near.Get()});
        returned = std::chrono::steady_clock::now();
    } while (returned - start >= kPatience - kRounding && !delivered() && ++waits < 5);
    EXPECT_TRUE(delivered());
    peers.join();
    EXPECT_TRUE(EndedSoon(pauses, returned, drained)) << pauses;
}

TEST_F(AwaitDeliveriesTest, HasOnePatienceForAllPeersWhateverSignalEndedTheLoop) {
    OnThread([] {
        const Connection first(4096), second(4096);
        Fill(first.near);
        Fill(second.near);
        SignalMyself(SIGTERM);
        { const SignalWindow window; }
        ASSERT_EQ(LoadShared(signalled), 1);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_LE(PausesToDeliver({first.near.Get(), second.near.Get()}), kDeliveryPatienceMs + 1);
        EXPECT_GE(std::chrono::steady_clock::now() - start, kPatience - kRounding);
    });
}

using PeerHasClosedTest = SocketTest;

TEST_F(PeerHasClosedTest, IsTrueWhenNothingIsLeftToBeRead) {
    Connection connection;
    EXPECT_FALSE(PeerHasClosed(connection.near.Get()));
    connection.Say("a");
    EXPECT_FALSE(PeerHasClosed(connection.near.Get()));
    connection.CloseFar();
    EXPECT_FALSE(PeerHasClosed(connection.near.Get())) << "there is something left";
    EXPECT_EQ(connection.Rest(), "a");
    EXPECT_TRUE(PeerHasClosed(connection.near.Get()));
}

TEST_F(PeerHasClosedTest, IsFalseOnAFailedConnection) {
    Connection connection;
    connection.ResetFar();
    EXPECT_FALSE(PeerHasClosed(connection.near.Get()));
    EXPECT_FALSE(PeerHasClosed(-1));
}

} // namespace
} // namespace rdx
