#include "common/portability_sockets.h"

#include "common/shared.h"
#include "common/signal_windows.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/free_port.h"
#include "tests/support/handlers.h"
#include "tests/support/sockets.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <initializer_list>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace rdx {
namespace {

using namespace std::chrono_literals;
using namespace test;

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

const std::vector<std::string> kNotConnected = {
    "CreateClntSocketExt(): failed establishing virtual circuit to destination"};

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
            failure.Expect(ConnectExt(PortOf(server), &handle), -6, kNotConnected);
            EXPECT_EQ(handle, -1);
            EXPECT_TRUE(fault.Struck());
        }
        const Failure failure;
        const FailCall underWay("connect", 1, EINPROGRESS);
        const FailCall unknown("getsockopt", 1, EPERM);
        int handle = 4711;
        failure.Expect(ConnectExt(PortOf(server), &handle), -6, kNotConnected);
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

} // namespace
} // namespace rdx
