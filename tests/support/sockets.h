// Sockets, connections and windows for the tests of what is done with them.
#ifndef RDX_TESTS_SUPPORT_SOCKETS_H
#define RDX_TESTS_SUPPORT_SOCKETS_H

#include "common/config.h"
#include "common/log.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/handlers.h"
#include "tests/support/process.h"
#include "tests/support/reports.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace rdx::test {

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

inline sockaddr_in AddressOf(const char* dotted, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<unsigned short>(port));
    address.sin_addr.s_addr = inet_addr(dotted);
    return address;
}

inline bool Bind(const Socket& socket, const sockaddr_in& address) {
    return bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

inline bool Connect(const Socket& socket, const sockaddr_in& address) {
    return connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

inline Socket NewSocket() { return Socket(socket(AF_INET, SOCK_STREAM, 0)); }

inline std::string Text(const sockaddr_in& address) {
    return std::string(inet_ntoa(address.sin_addr)) + ":" + std::to_string(ntohs(address.sin_port));
}

using NameFunction = int (*)(int, sockaddr*, socklen_t*);

inline std::string NameOf(const Socket& socket, NameFunction name) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (name(socket.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) return "none";
    return Text(address);
}

inline std::string LocalName(const Socket& socket) {
    return NameOf(socket, [](int s, sockaddr* a, socklen_t* n) { return getsockname(s, a, n); });
}

inline std::string PeerName(const Socket& socket) {
    return NameOf(socket, [](int s, sockaddr* a, socklen_t* n) { return getpeername(s, a, n); });
}

inline int PortOf(const Socket& socket) {
    const std::string name = LocalName(socket);
    return std::stoi(name.substr(name.find(':') + 1));
}

// A listening socket on a free port of one loopback address, or on a given port if that is free.
inline Socket Listen(int port = 0, const char* address = "127.0.0.1") {
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
inline bool SendAtOnce(const Socket& socket, std::size_t size) {
    const std::vector<char> bytes(size, 'x');
    return send(socket.Get(), bytes.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL) > 0;
}

// Fills the connection so that not one byte more can be sent without waiting for the peer.
inline void Fill(const Socket& socket) {
    constexpr int kSettlingMs = 100; // the last bytes are still on their way into the peer's buffer
    pollfd state{socket.Get(), POLLOUT, 0};
    do {
        while (SendAtOnce(socket, 65536)) {
        }
    } while (poll(&state, 1, kSettlingMs) != 0 || SendAtOnce(socket, 1));
}

// Reads until the connection is over or failed; the number of bytes.
inline std::size_t Drain(const Socket& socket) {
    std::size_t total = 0;
    char bytes[65536];
    ssize_t count;
    while ((count = recv(socket.Get(), bytes, sizeof bytes, 0)) > 0) total += static_cast<std::size_t>(count);
    return total;
}

template <typename Option>
Option OptionOf(const Socket& socket, int level, int name) {
    Option option{};
    socklen_t size = sizeof option;
    EXPECT_EQ(getsockopt(socket.Get(), level, name, &option, &size), 0);
    return option;
}

inline void ExpectLingersForNoTime(const Socket& socket) {
    const auto setting = OptionOf<linger>(socket, SOL_SOCKET, SO_LINGER);
    EXPECT_EQ(setting.l_onoff, 1);
    EXPECT_EQ(setting.l_linger, 0);
}

// SIGPIPE is ignored, as the server ignores it.
class SocketTest : public testing::Test {
protected:
    SocketTest() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        std::signal(SIGPIPE, SIG_IGN);
    }

    static void SetMarker(const char* marker) {
        StoreShared<unsigned char>(ucEntityTerminator, 1);
        StoreSharedText(szEntityTerminator, marker);
    }
};

// Checks one call that must fail: its result, the descriptors it leaves, what it reports and that nothing is
// printed.
class Failure {
public:
    explicit Failure(int verbosity = VERBOSITY_NONE) {
        StoreShared(ucVerbosity, static_cast<unsigned char>(verbosity));
        TakeReports();
        descriptors_ = OpenDescriptors();
    }

    void Expect(int result, int expected, const std::vector<std::string>& reports) const {
        EXPECT_EQ(result, expected);
        EXPECT_EQ(TakeReports(), reports);
        EXPECT_EQ(OpenDescriptors(), descriptors_);
        EXPECT_EQ(capture_.Text(), "");
    }

private:
    CaptureStdout capture_;
    int descriptors_;
};

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

} // namespace rdx::test

#endif
