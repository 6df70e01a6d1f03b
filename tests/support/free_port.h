// Ports for what a test starts.
#ifndef RDX_TESTS_SUPPORT_FREE_PORT_H
#define RDX_TESTS_SUPPORT_FREE_PORT_H

#include "tests/support/listener.h"

#include <algorithm>
#include <fstream>
#include <random>

namespace rdx::test {

// The lowest port that the system gives to outgoing connections: below it none comes in the way.
inline int FirstEphemeralPort() {
    std::ifstream range("/proc/sys/net/ipv4/ip_local_port_range");
    int first = 0;
    range >> first;
    return first;
}

// Ports below those of the system: real servers have the upper ones, other sockets the lower ones.
inline constexpr int kServerPorts = 10000;
inline constexpr int kOtherPorts = 2500;

inline int EndOfServerPorts() { return std::max(FirstEphemeralPort(), kServerPorts + kOtherPorts + 1024); }

// Whether nothing on this machine has the port, a connection that has just ended included.
inline bool IsFree(int port) {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = LoopbackAddress(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    const bool bound = bind(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return bound;
}

// A port for a test of one process that was free a moment ago.
inline int FreePort() {
    static std::mt19937 random{std::random_device{}()};
    const int end = EndOfServerPorts() - kServerPorts;
    std::uniform_int_distribution<int> ports(end - kOtherPorts, end - 1);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const int port = ports(random);
        if (IsFree(port)) return port;
    }
    std::abort();
}

} // namespace rdx::test

#endif
