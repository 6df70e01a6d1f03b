#include "rDxsd/rDxSvcs.h"

#include "tests/support/faults.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

using rdx::test::CallsOf;
using rdx::test::FailCall;

struct Text {
    std::array<char, RDX_SVCS_TEXT_SIZE> buffer;
    Text() { buffer.fill('x'); }
    char* Out() { return buffer.data(); }
    std::string Get() const { return buffer.data(); }
};

struct Attributes {
    char** names = nullptr;
    char** values = nullptr;
    int* persistence = nullptr;
    int count = -7;
    int Get() { return rdxGetDeviceAttributes(&names, &values, &persistence, &count); }
    int Free() { return rdxFreeDeviceAttributes(names, values, persistence, count); }
};

TEST(SimulatedDevice, NamesItselfAndItsRevision) {
    Text type;
    unsigned long revision = 0;
    EXPECT_EQ(rDxGetDeviceType(type.Out(), RDX_SVCS_TEXT_SIZE), 0);
    EXPECT_EQ(type.Get(), "KAVO");
    EXPECT_EQ(rDxGetFirmwareRev(&revision), 0);
    EXPECT_NE(revision, 0UL);
}

TEST(SimulatedDevice, CutsATextToTheSizePassed) {
    std::array<char, 4> buffer = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(rDxGetDeviceType(buffer.data(), 3), 0);
    EXPECT_STREQ(buffer.data(), "KA");
    EXPECT_EQ(buffer[3], 'x');
    EXPECT_EQ(rDxGetDeviceType(buffer.data(), 0), 0);
    EXPECT_STREQ(buffer.data(), "KA");
    EXPECT_EQ(rDxGetDeviceType(nullptr, 3), 0);
}

TEST(SimulatedDevice, IsNobodys) {
    Text allocation, owner, client;
    unsigned long controlled = 7;
    EXPECT_EQ(rDxGetAllocStatus(&controlled, allocation.Out(), owner.Out(), client.Out(), nullptr), 0);
    EXPECT_EQ(controlled, 0UL);
    EXPECT_EQ(allocation.Get(), "0");
    EXPECT_EQ(owner.Get(), "");
    EXPECT_EQ(client.Get(), "");
    EXPECT_EQ(rDxGetOwner(owner.Out(), client.Out()), 0);
    EXPECT_EQ(owner.Get(), "");
    EXPECT_EQ(client.Get(), "");
}

TEST(SimulatedDevice, AcceptsEveryOrder) {
    Text first, second;
    unsigned long reboot = 0;
    EXPECT_EQ(rDxAllocateDevice("1.2.3.4:5", "me", "1.2.3.4", "80", first.Out(), second.Out(), 1), 0);
    EXPECT_EQ(first.Get(), "");
    EXPECT_EQ(rDxReleaseDevice("1.2.3.4:5", "me", first.Out(), 1), 0);
    EXPECT_EQ(rDxSetIpConfiguration("me", "1.2.3.4", "255.0.0.0", "1.2.3.1", 4, "host", &reboot), 0);
    EXPECT_EQ(reboot, 1UL);
    EXPECT_EQ(rDxRunDeviceSelfTest("me", 1, 0), 0);
    EXPECT_EQ(rDxInitiateCfgRequest("me", 2), 0);
    EXPECT_EQ(rDxSetDeviceAttributes("me", nullptr, nullptr, nullptr, 0, 0), 0);
    EXPECT_EQ(rDxUpdateDeviceFirmware("me", "http://host/image", ~0UL, 0, "", ""), 0);
}

TEST(SimulatedDevice, HasAnAddress) {
    std::array<char, 16> ip, netmask, gateway;
    EXPECT_EQ(rDxGetActiveIpConf(ip.data(), netmask.data(), gateway.data(), 16), 0);
    EXPECT_STREQ(ip.data(), "192.168.0.10");
    EXPECT_STREQ(netmask.data(), "255.255.255.0");
    EXPECT_STREQ(gateway.data(), "192.168.0.1");
    RDXConf configuration = {RDX_CONF_LENGTH, 0};
    EXPECT_EQ(rDxGetIpConfiguration(&configuration), 0);
    EXPECT_EQ(configuration.iMode, 2);
    configuration = {RDX_CONF_LENGTH - 1, 0};
    EXPECT_EQ(rDxGetIpConfiguration(&configuration), -1);
    EXPECT_EQ(configuration.iMode, 0);
    EXPECT_EQ(rDxGetIpConfiguration(nullptr), -1);
}

TEST(SimulatedDevice, NamesAnInterfaceThatExists) {
    Text name;
    EXPECT_EQ(rDxGetNetInterface(name.Out(), RDX_SVCS_TEXT_SIZE), 0);
    EXPECT_TRUE(name.Get() == "eth0" || name.Get() == "lo");
}

TEST(SimulatedDevice, MeasuresAVehicle) {
    Measures measures = {};
    unsigned long most = ~0UL;
    unsigned long quality = 0;
    EXPECT_EQ(rDxGetVehicleStatus("me", &measures, &most), 0);
    EXPECT_GT(measures.iTerminal15, 11000);
    EXPECT_GT(measures.iTerminal30, 11000);
    EXPECT_NE(measures.iTdValid, 0);
    EXPECT_NE(most, ~0UL);
    EXPECT_EQ(rDxGetTransmissionQuality(&quality), 0);
    EXPECT_LE(quality, 100UL);
    EXPECT_GT(quality, 0UL);
}

TEST(SimulatedDevice, PassesItsSelfTest) {
    unsigned long code = 7;
    unsigned long reason = 7;
    EXPECT_EQ(rDxGetCurrentSelftestStatus(&code, &reason), 0);
    EXPECT_EQ(code, 0UL);
    EXPECT_EQ(reason, 0UL);
}

TEST(SimulatedDevice, HandsOutItsAttributesAndTakesThemBack) {
    Attributes attributes;
    ASSERT_EQ(attributes.Get(), 0);
    ASSERT_EQ(attributes.count, 2);
    EXPECT_STREQ(attributes.names[0], "Location");
    EXPECT_STREQ(attributes.values[0], "Bay 1");
    EXPECT_EQ(attributes.persistence[0], 1);
    EXPECT_STREQ(attributes.names[1], "DisplayName");
    EXPECT_STREQ(attributes.values[1], "Simulated device");
    EXPECT_EQ(attributes.persistence[1], 0);
    EXPECT_EQ(attributes.Free(), 0);
}

TEST(SimulatedDevice, RefusesAttributesWithoutRoomForThem) {
    Attributes attributes;
    EXPECT_EQ(rdxGetDeviceAttributes(nullptr, &attributes.values, &attributes.persistence, &attributes.count),
              -1);
    EXPECT_EQ(rdxGetDeviceAttributes(&attributes.names, &attributes.values, &attributes.persistence, nullptr),
              -1);
    EXPECT_EQ(rdxFreeDeviceAttributes(nullptr, nullptr, nullptr, 2), 0);
}

TEST(SimulatedDevice, GivesBackEverythingWhenMemoryIsShort) {
    for (const char* allocator : {"calloc", "malloc"}) {
        const int before = CallsOf(allocator);
        Attributes counted;
        ASSERT_EQ(counted.Get(), 0);
        counted.Free();
        const int calls = CallsOf(allocator) - before;
        ASSERT_GT(calls, 0);
        for (int nth = 1; nth <= calls; ++nth) {
            FailCall noMemory(allocator, nth);
            Attributes attributes;
            EXPECT_EQ(attributes.Get(), -1) << allocator << ' ' << nth;
            EXPECT_TRUE(noMemory.Struck());
            EXPECT_EQ(attributes.names, nullptr);
            EXPECT_EQ(attributes.values, nullptr);
            EXPECT_EQ(attributes.persistence, nullptr);
            EXPECT_EQ(attributes.count, 0);
        }
    }
}

} // namespace
