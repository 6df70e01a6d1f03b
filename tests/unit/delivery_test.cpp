#include "common/delivery.h"

#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/handlers.h"
#include "tests/support/sockets.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <initializer_list>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace rdx {
namespace {

using namespace std::chrono_literals;
using namespace test;

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

using PeerTest = SocketTest;

// What was not acknowledged before a reset never will be.
TEST_F(PeerTest, HasNothingToWaitForOnceTheConnectionHasFailed) {
    Connection connection(4096);
    Fill(connection.near);
    EXPECT_FALSE(IsDelivered(connection.near.Get()));
    connection.ResetFar();
    EXPECT_TRUE(IsDelivered(connection.near.Get()));
    EXPECT_TRUE(IsDelivered(-1));
}

TEST_F(PeerTest, IsThereUntilItHasClosedAndEverythingWasRead) {
    Connection connection;
    const int near = connection.near.Get();
    EXPECT_EQ(LookAtPeer(near), Peer::kThere);
    connection.Say("a");
    EXPECT_EQ(LookAtPeer(near), Peer::kThere);
    EXPECT_FALSE(HasPeerLeft(near));
    connection.CloseFar();
    EXPECT_EQ(LookAtPeer(near), Peer::kThere) << "there is something left";
    EXPECT_TRUE(HasPeerLeft(near));
    EXPECT_EQ(connection.Rest(), "a");
    EXPECT_EQ(LookAtPeer(near), Peer::kClosed);
    EXPECT_EQ(LookAtPeer(near), Peer::kClosed) << "a second time";
}

TEST_F(PeerTest, HasClosedWhenItOnlySendsNoMore) {
    const Connection connection;
    shutdown(connection.far.Get(), SHUT_WR);
    EXPECT_TRUE(Eventually([&] { return LookAtPeer(connection.near.Get()) == Peer::kClosed; }));
    EXPECT_TRUE(HasPeerLeft(connection.near.Get()));
}

TEST_F(PeerTest, HasFailedAfterAResetAndTheErrorStays) {
    Connection connection;
    connection.ResetFar();
    EXPECT_EQ(LookAtPeer(connection.near.Get()), Peer::kFailed);
    EXPECT_TRUE(HasPeerLeft(connection.near.Get()));
    char byte;
    EXPECT_EQ(recv(connection.near.Get(), &byte, 1, 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(PeerTest, IsThereWhileWhatItSentBeforeAResetIsUnread) {
    Connection connection;
    connection.Say("a");
    connection.ResetFar();
    if (connection.Waiting() == 0) GTEST_SKIP() << "this system drops what came before a reset";
    EXPECT_EQ(LookAtPeer(connection.near.Get()), Peer::kThere);
    EXPECT_EQ(connection.Rest(), "a");
    EXPECT_EQ(LookAtPeer(connection.near.Get()), Peer::kFailed);
}

TEST_F(PeerTest, HasFailedWhereThereIsNoSocket) {
    Connection connection;
    const int number = connection.near.Get();
    connection.near.Close();
    EXPECT_EQ(LookAtPeer(number), Peer::kFailed);
    EXPECT_EQ(LookAtPeer(-1), Peer::kThere) << "nothing to look at";
}

} // namespace
} // namespace rdx
