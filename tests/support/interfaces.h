// The hardware addresses of the machine's network interfaces, asked for in another way than the server does.
#ifndef RDX_TESTS_SUPPORT_INTERFACES_H
#define RDX_TESTS_SUPPORT_INTERFACES_H

#include <cstddef>
#include <cstdio>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <map>
#include <string>
#include <sys/socket.h>

namespace rdx::test {

// Each name with its address in the form "00:1b:2c:3d:4e:5f"; interfaces with longer or shorter ones are left
// out.
inline std::map<std::string, std::string> HardwareAddresses() {
    constexpr std::size_t kSize = 6;
    std::map<std::string, std::string> addresses;
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) return addresses;
    for (const ifaddrs* one = all; one != nullptr; one = one->ifa_next) {
        if (one->ifa_addr == nullptr || one->ifa_addr->sa_family != AF_PACKET) continue;
        const auto& link = *reinterpret_cast<const sockaddr_ll*>(one->ifa_addr);
        if (link.sll_halen != kSize) continue;
        std::string& address = addresses[one->ifa_name];
        for (std::size_t i = 0; i < kSize; ++i) {
            char pair[4];
            std::snprintf(pair, sizeof pair, "%s%02x", i > 0 ? ":" : "", unsigned{link.sll_addr[i]});
            address += pair;
        }
    }
    freeifaddrs(all);
    return addresses;
}

} // namespace rdx::test

#endif
