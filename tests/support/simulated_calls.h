// Calls of the device library's functions, with what they answer as a text.
#ifndef RDX_TESTS_SUPPORT_SIMULATED_CALLS_H
#define RDX_TESTS_SUPPORT_SIMULATED_CALLS_H

#include "rDxsd/rDxSvcs.h"
#include "tests/support/simulation.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace rdx::test {

// An output text that starts with something in it.
struct Text {
    std::array<char, RDX_SVCS_TEXT_SIZE> buffer;
    Text() { std::strcpy(buffer.data(), "untouched"); }
    char* Out() { return buffer.data(); }
    std::string Get() const { return buffer.data(); }
};

inline int Allocate(const char* owner, const char* client = "10.0.0.7:40123",
                    const char* address = "10.0.0.7") {
    Text first, second;
    return rDxAllocateDevice(client, owner, address, "3000,3001", first.Out(), second.Out(), 1);
}

inline int Release(const char* owner, const char* client = "10.0.0.7:40123") {
    Text by;
    return rDxReleaseDevice(client, owner, by.Out(), 1);
}

// "OWNER by CLIENT".
inline std::string Owner() {
    Text owner, client;
    EXPECT_EQ(rDxGetOwner(owner.Out(), client.Out()), 0);
    return owner.Get() + " by " + client.Get();
}

// "CODE/REASON".
inline std::string SelfTest() {
    unsigned long code = 7;
    unsigned long reason = 7;
    EXPECT_EQ(rDxGetCurrentSelftestStatus(&code, &reason), 0);
    return std::to_string(code) + "/" + (reason == kAllBits ? "-1" : std::to_string(reason));
}

inline unsigned long Revision() {
    unsigned long revision = 0;
    EXPECT_EQ(rDxGetFirmwareRev(&revision), 0);
    return revision;
}

inline int Update(const char* owner, const char* url = "http://10.0.0.7/kavo.bin") {
    return rDxUpdateDeviceFirmware(owner, url, kAllBits, 0, "", "");
}

inline int SetIp(const char* owner, const char* address, const char* netmask = "", const char* gateway = "",
                 int mode = 2, const char* hostname = "", unsigned long* reboot = nullptr) {
    return rDxSetIpConfiguration(owner, address, netmask, gateway, mode, hostname, reboot);
}

// "ADDRESS NETMASK GATEWAY mode MODE".
inline std::string Ip() {
    std::array<char, 16> address, netmask, gateway;
    EXPECT_EQ(rDxGetActiveIpConf(address.data(), netmask.data(), gateway.data(), 16), 0);
    RDXConf configuration = {RDX_CONF_LENGTH, 0};
    EXPECT_EQ(rDxGetIpConfiguration(&configuration), 0);
    return std::string(address.data()) + " " + netmask.data() + " " + gateway.data() + " mode " +
           std::to_string(configuration.iMode);
}

struct Given {
    const char* name;
    const char* value;
    int persistent;
};

inline int SetAttributes(const char* owner, std::vector<Given> given) {
    std::vector<char*> names, values;
    std::vector<int> persistence;
    for (const Given& g : given) {
        names.push_back(const_cast<char*>(g.name));
        values.push_back(const_cast<char*>(g.value));
        persistence.push_back(g.persistent);
    }
    return rDxSetDeviceAttributes(owner, names.data(), values.data(), persistence.data(),
                                  static_cast<int>(given.size()), 0);
}

struct Arrays {
    char** names = nullptr;
    char** values = nullptr;
    int* persistence = nullptr;
    int count = -7;
    int Get() { return rdxGetDeviceAttributes(&names, &values, &persistence, &count); }
    int Free() { return rdxFreeDeviceAttributes(names, values, persistence, count); }
};

// "NAME=VALUE" for each, with "*" behind the persistent ones.
inline std::string Attributes() {
    Arrays arrays;
    EXPECT_EQ(arrays.Get(), 0);
    std::string text;
    for (int i = 0; i < arrays.count; ++i) {
        text += std::string(i > 0 ? ", " : "") + arrays.names[i] + "=" + arrays.values[i];
        if (arrays.persistence[i] != 0) text += "*";
    }
    EXPECT_EQ(arrays.Free(), 0);
    return text;
}

inline int MeasureFor(const char* owner, Measures* measures, unsigned long* most) {
    return rDxGetVehicleStatus(owner, measures, most);
}

inline int MeasureFor(const char* owner) {
    Measures measures = {};
    unsigned long most = 0;
    return MeasureFor(owner, &measures, &most);
}

} // namespace rdx::test

#endif
