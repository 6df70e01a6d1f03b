#include "common/delivery.h"

#include "common/signal_windows.h"

#include <cstdint>
#include <ctime>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace rdx {
namespace {

// The bytes that the peer has not acknowledged yet; 0 for a socket that is not TCP's.
int UnacknowledgedBytes(int socket) {
    int protocol = 0;
    socklen_t size = sizeof protocol;
    int bytes = 0;
    if (getsockopt(socket, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) != 0 || protocol != IPPROTO_TCP ||
        ioctl(socket, SIOCOUTQ, &bytes) != 0) {
        return 0;
    }
    return bytes;
}

// Wide on every machine: 32 bits of milliseconds are over after 25 days.
std::int64_t MonotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Which of `wanted`, POLLERR, POLLHUP and POLLNVAL hold now.
short EventsOf(int socket, short wanted) {
    pollfd state{socket, wanted, 0};
    return poll(&state, 1, 0) > 0 ? state.revents : short{0};
}

bool HasFailed(int socket) { return EventsOf(socket, 0) != 0; }

constexpr int kPauseMs = 1; // between two looks at what is unacknowledged

} // namespace

void AwaitDelivery(int socket) {
    int waiting = UnacknowledgedBytes(socket);
    std::int64_t lastProgress = MonotonicMs();
    while (waiting > 0 && !HasFailed(socket) && MonotonicMs() - lastProgress < kDeliveryPatienceMs) {
        if (!WaitForPeer(socket, 0, kPauseMs)) return;
        const int now = UnacknowledgedBytes(socket);
        if (now < waiting) lastProgress = MonotonicMs();
        waiting = now;
    }
}

void AwaitDeliveries(const fd_set& sockets) {
    const std::int64_t end = MonotonicMs() + kDeliveryPatienceMs;
    for (int socket = 0; socket < FD_SETSIZE; ++socket) {
        if (!FD_ISSET(socket, &sockets)) continue;
        while (UnacknowledgedBytes(socket) > 0 && !HasFailed(socket) && MonotonicMs() < end) {
            WaitForPeer(socket, 0, kPauseMs);
        }
    }
}

bool IsDelivered(int socket) { return HasFailed(socket) || UnacknowledgedBytes(socket) == 0; }

Peer LookAtPeer(int socket) {
    const short events = EventsOf(socket, POLLRDHUP);
    if (events == 0) return Peer::kThere;
    int unread = 0;
    if (ioctl(socket, FIONREAD, &unread) == 0 && unread > 0) return Peer::kThere;
    return (events & (POLLERR | POLLNVAL)) != 0 ? Peer::kFailed : Peer::kClosed;
}

bool HasPeerLeft(int socket) { return EventsOf(socket, POLLRDHUP) != 0; }

} // namespace rdx
