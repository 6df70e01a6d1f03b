// The device library's nineteen functions, as the simulated device answers them by itself.
#include "rDxsd/rDxSvcs.h"
#include "tests/support/simulated_calls.h"
#include "tests/support/simulation.h"

#include <array>
#include <cstring>
#include <functional>
#include <net/if.h>
#include <set>
#include <vector>

namespace {

using namespace rdx::sim;
using namespace std::chrono_literals;
using namespace rdx::test;

// --- Identity -------------------------------------------------------------------------------------------

TEST_F(SimulatedDevice, NamesItselfAndItsRevision) {
    Text type;
    EXPECT_EQ(rDxGetDeviceType(type.Out(), RDX_SVCS_TEXT_SIZE), 0);
    EXPECT_EQ(type.Get(), "KAVO");
    EXPECT_EQ(Revision(), 4711UL);
}

TEST_F(SimulatedDevice, CutsATextToTheSizePassed) {
    std::array<char, 4> buffer = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(rDxGetDeviceType(buffer.data(), 3), 0);
    EXPECT_STREQ(buffer.data(), "KA");
    EXPECT_EQ(buffer[3], 'x');
    EXPECT_EQ(rDxGetDeviceType(buffer.data(), 0), 0);
    EXPECT_STREQ(buffer.data(), "KA");
    EXPECT_EQ(rDxGetDeviceType(nullptr, 3), 0);
}

TEST_F(SimulatedDevice, CutsATextToTheBufferOfTheContract) {
    const std::string longName(2 * RDX_SVCS_TEXT_SIZE, 'o');
    EXPECT_EQ(Allocate(longName.c_str()), 0);
    Text owner, client;
    EXPECT_EQ(rDxGetOwner(owner.Out(), client.Out()), 0);
    EXPECT_EQ(owner.Get(), longName.substr(0, RDX_SVCS_TEXT_SIZE - 1));
}

TEST_F(SimulatedDevice, NamesAnInterfaceThatExists) {
    Text name;
    EXPECT_EQ(rDxGetNetInterface(name.Out(), RDX_SVCS_TEXT_SIZE), 0);
    EXPECT_EQ(name.Get(), if_nametoindex("eth0") != 0 ? "eth0" : "lo");
}

TEST_F(SimulatedDevice, DoesWithoutOutputs) {
    EXPECT_EQ(rDxGetOwner(nullptr, nullptr), 0);
    EXPECT_EQ(rDxGetAllocStatus(nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(rDxGetFirmwareRev(nullptr), 0);
    EXPECT_EQ(rDxGetActiveIpConf(nullptr, nullptr, nullptr, 16), 0);
    EXPECT_EQ(rDxGetCurrentSelftestStatus(nullptr, nullptr), 0);
    EXPECT_EQ(rDxGetTransmissionQuality(nullptr), 0);
    EXPECT_EQ(rDxReleaseDevice("c", kMe, nullptr, 1), 1);
    EXPECT_EQ(rDxAllocateDevice("c", kMe, "", "", nullptr, nullptr, 1), 0);
    EXPECT_EQ(MeasureFor(kMe, nullptr, nullptr), 0);
    EXPECT_EQ(SetIp(kMe, "10.0.0.2"), 0);
    EXPECT_EQ(rDxGetIpConfiguration(nullptr), -1);
    Arrays a;
    EXPECT_EQ(rdxGetDeviceAttributes(nullptr, &a.values, &a.persistence, &a.count), -1);
    EXPECT_EQ(rdxGetDeviceAttributes(&a.names, nullptr, &a.persistence, &a.count), -1);
    EXPECT_EQ(rdxGetDeviceAttributes(&a.names, &a.values, nullptr, &a.count), -1);
    EXPECT_EQ(rdxGetDeviceAttributes(&a.names, &a.values, &a.persistence, nullptr), -1);
    EXPECT_EQ(rdxFreeDeviceAttributes(nullptr, nullptr, nullptr, 2), 0);
}

TEST_F(SimulatedDevice, TakesMissingTextsForEmptyOnes) {
    EXPECT_EQ(rDxAllocateDevice(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 1), 3);
    EXPECT_EQ(rDxAllocateDevice(nullptr, kMe, nullptr, nullptr, nullptr, nullptr, 1), 0);
    EXPECT_EQ(rDxSetIpConfiguration(kMe, nullptr, nullptr, nullptr, 1, nullptr, nullptr), 0);
    EXPECT_EQ(rDxUpdateDeviceFirmware(kMe, nullptr, 0, 0, nullptr, nullptr), 10);
    EXPECT_EQ(rDxReleaseDevice(nullptr, nullptr, nullptr, 1), 3);
    EXPECT_EQ(rDxRunDeviceSelfTest(nullptr, 0, 0), 2);
}

// --- Ownership ------------------------------------------------------------------------------------------

TEST_F(SimulatedDevice, IsNobodysAtFirst) {
    Text allocation, owner, client;
    unsigned long controlled = 7;
    EXPECT_EQ(rDxGetAllocStatus(&controlled, allocation.Out(), owner.Out(), client.Out(), nullptr), 0);
    EXPECT_EQ(controlled, 0UL);
    EXPECT_EQ(allocation.Get(), "0");
    EXPECT_EQ(owner.Get(), "");
    EXPECT_EQ(client.Get(), "");
    EXPECT_EQ(Owner(), " by ");
}

TEST_F(SimulatedDevice, BelongsToWhoAllocatesItFirst) {
    EXPECT_EQ(Allocate(kMe, "10.0.0.7:40123", "10.0.0.99"), 0);
    EXPECT_EQ(Owner(), "Workstation 7 by 10.0.0.7:40123");
    Text allocation, owner, client;
    unsigned long controlled = 0;
    EXPECT_EQ(rDxGetAllocStatus(&controlled, allocation.Out(), owner.Out(), client.Out(), nullptr), 0);
    EXPECT_EQ(controlled, 1UL);
    EXPECT_EQ(allocation.Get(), "1");
    EXPECT_EQ(owner.Get(), kMe);
    EXPECT_EQ(client.Get(), "10.0.0.99");

    Text first, second;
    EXPECT_EQ(rDxAllocateDevice("10.0.0.8:1", kHer, "10.0.0.8", "1", first.Out(), second.Out(), 1), 1);
    EXPECT_EQ(first.Get(), kMe);
    EXPECT_EQ(second.Get(), "10.0.0.7:40123");
    EXPECT_EQ(Allocate(kMe), 1) << "it is taken for its owner, too";
    EXPECT_EQ(Owner(), "Workstation 7 by 10.0.0.7:40123");
}

TEST_F(SimulatedDevice, RefusesAnOwnerWithoutAName) {
    EXPECT_EQ(Allocate(""), 3);
    EXPECT_EQ(Release(""), 3);
    EXPECT_EQ(Owner(), " by ");
}

TEST_F(SimulatedDevice, IsGivenBackByItsOwnerAlone) {
    Text by;
    EXPECT_EQ(rDxReleaseDevice("10.0.0.7:1", kMe, by.Out(), 1), 1);
    EXPECT_EQ(by.Get(), "") << "nobody ever did";
    EXPECT_EQ(Allocate(kMe), 0);
    by = {};
    EXPECT_EQ(rDxReleaseDevice("10.0.0.8:1", kHer, by.Out(), 1), 2);
    EXPECT_EQ(by.Get(), "untouched");
    EXPECT_EQ(rDxReleaseDevice("10.0.0.9:1", kMe, by.Out(), 1), 0) << "from whatever address";
    EXPECT_EQ(by.Get(), "untouched");
    EXPECT_EQ(Owner(), " by ");
    EXPECT_EQ(rDxReleaseDevice("10.0.0.7:1", kMe, by.Out(), 1), 1);
    EXPECT_EQ(by.Get(), "10.0.0.9:1");
    EXPECT_EQ(Allocate(kHer), 0) << "the next one can have it";
}

TEST_F(SimulatedDevice, WorksForItsOwnerAlone) {
    const std::vector<std::function<int(const char*)>> operations = {
        [](const char* owner) { return MeasureFor(owner); },
        [](const char* owner) { return SetIp(owner, "10.0.0.2"); },
        [](const char* owner) {
            return SetAttributes(owner, {{"Location", "Bay 2", 1}});
        },
        [](const char* owner) { return rDxInitiateCfgRequest(owner, 2); },
        [](const char* owner) { return rDxRunDeviceSelfTest(owner, 0, 1); },
        [](const char* owner) { return Update(owner); },
    };
    for (std::size_t i = 0; i < operations.size(); ++i) {
        SCOPED_TRACE(i);
        const std::string before = ReadWhole(paths.state);
        EXPECT_EQ(operations[i](kMe), 1);
        EXPECT_EQ(operations[i](""), 1);
        EXPECT_EQ(ReadWhole(paths.state), before);
        EXPECT_EQ(Allocate(kHer), 0);
        const std::string hers = ReadWhole(paths.state);
        EXPECT_EQ(operations[i](kMe), 2);
        EXPECT_EQ(ReadWhole(paths.state), hers) << "a refused operation changes nothing";
        EXPECT_EQ(operations[i](kHer), 0);
        EXPECT_EQ(Release(kHer), 0);
    }
}

TEST_F(SimulatedDevice, EntersTheConfigurationModesThatItHas) {
    ASSERT_EQ(Allocate(kMe), 0);
    for (const unsigned long mode : {0UL, 1UL, 2UL}) {
        EXPECT_EQ(rDxInitiateCfgRequest(kMe, mode), 0);
        EXPECT_NE(ReadWhole(paths.state).find("configuration_mode = " + std::to_string(mode)),
                  std::string::npos);
    }
    EXPECT_EQ(rDxInitiateCfgRequest(kMe, 3), 4);
    EXPECT_EQ(rDxInitiateCfgRequest(kMe, kAllBits), 4);
}

// --- IP configuration -----------------------------------------------------------------------------------

TEST_F(SimulatedDevice, UsesNewAddressesFromItsNextStartOn) {
    ASSERT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(Ip(), "192.168.0.10 255.255.255.0 192.168.0.1 mode 2");
    unsigned long reboot = 7;
    EXPECT_EQ(SetIp(kMe, "10.0.0.2", "255.0.0.0", "10.0.0.1", 1, "bay-1", &reboot), 0);
    EXPECT_EQ(reboot, 1UL);
    EXPECT_EQ(Ip(), "192.168.0.10 255.255.255.0 192.168.0.1 mode 1") << "the mode as configured";
    Start();
    EXPECT_EQ(Ip(), "10.0.0.2 255.0.0.0 10.0.0.1 mode 1");
    EXPECT_EQ(SetIp(kMe, "10.0.0.2", "255.0.0.0", "10.0.0.1", 1, "bay-1", &reboot), 0);
    EXPECT_EQ(reboot, 0UL) << "nothing new";
    EXPECT_EQ(SetIp(kMe, "10.0.0.2", "255.0.0.0", "10.0.0.1", 1, "bay-2", &reboot), 0);
    EXPECT_EQ(reboot, 1UL) << "the host name is part of it";
}

TEST_F(SimulatedDevice, NeedsNoRebootForSettingsThatWereTakenBack) {
    ASSERT_EQ(Allocate(kMe), 0);
    unsigned long reboot = 7;
    EXPECT_EQ(SetIp(kMe, "10.0.0.2", "", "", 2, "", &reboot), 0);
    EXPECT_EQ(reboot, 1UL);
    EXPECT_EQ(SetIp(kMe, "192.168.0.10", "", "", 2, "", &reboot), 0);
    EXPECT_EQ(reboot, 0UL);
    Start();
    EXPECT_EQ(Ip(), "192.168.0.10 255.255.255.0 192.168.0.1 mode 2");
}

TEST_F(SimulatedDevice, KnowsFourWaysOfAddressAssignment) {
    ASSERT_EQ(Allocate(kMe), 0);
    for (const int mode : {1, 2, 3}) {
        EXPECT_EQ(SetIp(kMe, "", "", "", mode), 0);
        EXPECT_EQ(Ip(), "192.168.0.10 255.255.255.0 192.168.0.1 mode " + std::to_string(mode));
    }
    EXPECT_EQ(SetIp(kMe, "", "", "", 4), 0);
    EXPECT_EQ(Ip(), "192.168.0.10 255.255.255.0 192.168.0.1 mode 2") << "as delivered";
    EXPECT_EQ(SetIp(kMe, "", "", "", 0), 4);
    EXPECT_EQ(SetIp(kMe, "", "", "", 5), 4);
}

TEST_F(SimulatedDevice, RefusesWhatIsNoAddress) {
    ASSERT_EQ(Allocate(kMe), 0);
    const std::string before = ReadWhole(paths.state);
    unsigned long reboot = 7;
    for (const char* const wrong : {"10.0.0", "10.0.0.256", "10.0.0.1 ", "bay", "::1"}) {
        EXPECT_EQ(SetIp(kMe, wrong, "", "", 1, "", &reboot), 3) << wrong;
        EXPECT_EQ(reboot, 0UL);
        EXPECT_EQ(SetIp(kMe, "10.0.0.2", wrong, "", 1), 3) << wrong;
        EXPECT_EQ(SetIp(kMe, "10.0.0.2", "", wrong, 1), 3) << wrong;
    }
    EXPECT_EQ(ReadWhole(paths.state), before);
}

TEST_F(SimulatedDevice, FillsNoRecordThatIsTooShort) {
    RDXConf configuration = {RDX_CONF_LENGTH - 1, 77};
    EXPECT_EQ(rDxGetIpConfiguration(&configuration), -1);
    EXPECT_EQ(configuration.iMode, 77);
    configuration.uiLength = RDX_CONF_LENGTH + 4;
    EXPECT_EQ(rDxGetIpConfiguration(&configuration), 0);
}

// --- Vehicle --------------------------------------------------------------------------------------------

TEST_F(SimulatedDevice, MeasuresAVehicleThatLives) {
    ASSERT_EQ(Allocate(kMe), 0);
    std::set<int> terminal15, terminal30, kLine, lLine, period, valid;
    std::set<unsigned long> ring, qualities;
    bool linesDiffer = false;
    for (int second = 0; second < 120; ++second) {
        Measures measures = {};
        unsigned long most = 7;
        unsigned long quality = 7;
        ASSERT_EQ(MeasureFor(kMe, &measures, &most), 0);
        ASSERT_EQ(rDxGetTransmissionQuality(&quality), 0);
        terminal15.insert(measures.iTerminal15);
        terminal30.insert(measures.iTerminal30);
        kLine.insert(measures.iKLine);
        lLine.insert(measures.iLLine);
        period.insert(measures.iTdPeriod);
        valid.insert(measures.iTdValid);
        ring.insert(most);
        qualities.insert(quality);
        linesDiffer = linesDiffer || measures.iKLine != measures.iLLine;
        EXPECT_EQ(measures.iReserved0, 0);
        Pass(1s);
    }
    const auto between = [](const auto& values, auto low, auto high) {
        return values.size() > 2 && *values.begin() >= low && *values.rbegin() <= high;
    };
    EXPECT_TRUE(between(terminal15, 12100, 12500));
    EXPECT_TRUE(between(terminal30, 12300, 12700));
    EXPECT_TRUE(between(period, 350, 400));
    EXPECT_TRUE(between(qualities, 90UL, 100UL));
    EXPECT_EQ(kLine, (std::set{2, 3, 5, 6}));
    EXPECT_EQ(lLine, (std::set{2, 3, 5, 6}));
    EXPECT_TRUE(linesDiffer);
    EXPECT_EQ(valid, (std::set{0, 1}));
    EXPECT_EQ(ring, (std::set{0UL, 1UL}));
}

TEST_F(SimulatedDevice, HasAMostRingOnlyWhereItsTypeHasOne) {
    ASSERT_EQ(Allocate(kMe), 0);
    const std::pair<const char*, bool> types[] = {{"QURT", true}, {"QRT", true},      {"KAVO", true},
                                                  {"kavo", true}, {"KAVO_ZR", false}, {"SOLAN", false},
                                                  {"MKT", false}, {"unknown", false}};
    for (const auto& [type, ring] : types) {
        Play(std::string("[rDxGetDeviceType]\ntype = ") + type);
        Measures measures = {};
        unsigned long most = 7;
        EXPECT_EQ(MeasureFor(kMe, &measures, &most), 0);
        EXPECT_EQ(most != kAllBits, ring) << type;
    }
}

// --- Self test ------------------------------------------------------------------------------------------

TEST_F(SimulatedDevice, TakesItsTimeForASelfTest) {
    EXPECT_EQ(SelfTest(), "0/0") << "none was run";
    ASSERT_EQ(Allocate(kMe), 0);
    const std::pair<int, milliseconds> tests[] = {{0, 2s}, {1, 20s}};
    for (const auto& [mode, duration] : tests) {
        EXPECT_EQ(rDxRunDeviceSelfTest(kMe, mode, 0), 0);
        EXPECT_EQ(SelfTest(), "42500/0");
        Pass(duration - 1ms);
        EXPECT_EQ(SelfTest(), "42500/0");
        Pass(1ms);
        EXPECT_EQ(SelfTest(), "0/0");
    }
    EXPECT_EQ(slept, 0);
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 2, 0), 4);
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, -1, 0), 4);
}

TEST_F(SimulatedDevice, AwaitsASelfTest) {
    ASSERT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 1), 0);
    EXPECT_EQ(slept, 2000);
    EXPECT_EQ(SelfTest(), "0/0");
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 1, -1), 5) << "a detailed test takes longer than one waits";
    EXPECT_EQ(slept, 12000);
    EXPECT_EQ(SelfTest(), "42500/0") << "it goes on";
    Pass(10s);
    EXPECT_EQ(SelfTest(), "0/0");
}

TEST_F(SimulatedDevice, AwaitsASelfTestWithAClockThatIsSetBack) {
    ASSERT_EQ(Allocate(kMe), 0);
    clock.sleep = [this](milliseconds time) { slept += time.count(); }; // and the clock stands still
    Start();
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 1), 5);
    EXPECT_EQ(slept, 10000);
}

TEST_F(SimulatedDevice, DoesNothingElseDuringASelfTest) {
    ASSERT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 0), 0);
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 0), 3);
    EXPECT_EQ(Update(kMe), 3);
    EXPECT_EQ(rDxInitiateCfgRequest(kMe, 0), 3);
    EXPECT_EQ(MeasureFor(kMe), 3);
    EXPECT_EQ(SetIp(kMe, "10.0.0.2"), 0) << "settings are no work";
    EXPECT_EQ(SetAttributes(kMe, {{"a", "b", 0}}), 0);
    Pass(2s);
    EXPECT_EQ(MeasureFor(kMe), 0);
    EXPECT_EQ(rDxInitiateCfgRequest(kMe, 0), 0);
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 0), 0);
    EXPECT_EQ(Release(kMe), 0) << "the device can always be given back";
}

TEST_F(SimulatedDevice, FailsASelfTestThatTheEndOfTheProcessCutShort) {
    ASSERT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 0), 0);
    Start();
    EXPECT_EQ(SelfTest(), "42502/9065");
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 0), 0) << "another one can be run";
    Pass(2s);
    Start();
    EXPECT_EQ(SelfTest(), "0/0") << "this one had ended";
}

TEST_F(SimulatedDevice, RemembersThatASelfTestWasCutShort) {
    ASSERT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 0), 0);
    Start();
    Pass(5s);
    Start();
    EXPECT_EQ(SelfTest(), "42502/9065");
}

// --- Firmware -------------------------------------------------------------------------------------------

TEST_F(SimulatedDevice, ShowsNewFirmwareLater) {
    ASSERT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(Update(kMe), 0);
    EXPECT_EQ(Revision(), 4711UL);
    EXPECT_EQ(Update(kMe), 3) << "one at a time";
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 0), 3);
    EXPECT_EQ(rDxInitiateCfgRequest(kMe, 0), 3);
    EXPECT_EQ(MeasureFor(kMe), 0);
    Pass(5s - 1ms);
    EXPECT_EQ(Revision(), 4711UL);
    Pass(1ms);
    EXPECT_EQ(Revision(), 4712UL);
    EXPECT_EQ(Update(kMe), 0);
    Start();
    EXPECT_EQ(Revision(), 4713UL) << "a restart ends an update";
}

TEST_F(SimulatedDevice, LoadsFirmwareFromAUrlAlone) {
    ASSERT_EQ(Allocate(kMe), 0);
    for (const char* const wrong : {"", "kavo.bin", "://host/kavo.bin", "http://", "http:/host"}) {
        EXPECT_EQ(Update(kMe, wrong), 10) << wrong;
    }
    EXPECT_EQ(Update(kMe, "ftp://h"), 0);
}

// --- Attributes -----------------------------------------------------------------------------------------

TEST_F(SimulatedDevice, KeepsAttributesAsTheyAreSet) {
    EXPECT_EQ(Attributes(), "Location=Bay 1*, DisplayName=Simulated device");
    ASSERT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(SetAttributes(kMe, {{"Location", "<\"Büro\" & 'Hof'>\n", 0}, {"Hall", "", 1}, {"a", "b", 7}}),
              0);
    EXPECT_EQ(Attributes(), "Location=<\"Büro\" & 'Hof'>\n, DisplayName=Simulated device, Hall=*, a=b*");
    EXPECT_EQ(SetAttributes(kMe, {{"DisplayName", nullptr, 0}, {"none", nullptr, 1}, {"a", "c", 0}}), 0);
    EXPECT_EQ(Attributes(), "Location=<\"Büro\" & 'Hof'>\n, Hall=*, a=c") << "removed without a value";
    EXPECT_EQ(SetAttributes(kMe, {}), 0);
}

TEST_F(SimulatedDevice, ForgetsVolatileAttributesAtItsEnd) {
    ASSERT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(SetAttributes(kMe, {{"stays", "\"1\"\\\x01", 1}, {"goes", "2", 0}, {"DisplayName", "mine", 0}}),
              0);
    EXPECT_EQ(Attributes(), "Location=Bay 1*, DisplayName=mine, stays=\"1\"\\\x01*, goes=2");
    Start();
    EXPECT_EQ(Attributes(), "Location=Bay 1*, stays=\"1\"\\\x01*, DisplayName=Simulated device");
    EXPECT_EQ(SetAttributes(kMe, {{"DisplayName", "mine", 1}, {"Location", nullptr, 0}}), 0);
    Start();
    EXPECT_EQ(Attributes(), "stays=\"1\"\\\x01*, DisplayName=mine*");
}

TEST_F(SimulatedDevice, RefusesAttributesThatItCannotKeep) {
    ASSERT_EQ(Allocate(kMe), 0);
    const std::string before = Attributes();
    EXPECT_EQ(SetAttributes(kMe, {{"a", "b", 1}, {nullptr, "c", 1}}), -1);
    EXPECT_EQ(SetAttributes(kMe, {{"a", "b", 1}, {"", "c", 1}}), 3);
    EXPECT_EQ(SetAttributes(kMe, {{"a", std::string(kAttributeBytesMax, 'x').c_str(), 1}}), 4);
    std::vector<std::string> names;
    for (std::size_t i = 0; i <= kAttributesMax; ++i) names.push_back(std::to_string(i));
    std::vector<Given> many;
    for (const std::string& name : names) many.push_back({name.c_str(), "", 0});
    EXPECT_EQ(SetAttributes(kMe, many), 4);
    EXPECT_EQ(Attributes(), before) << "not even in part";
    many.resize(kAttributesMax - 2);
    EXPECT_EQ(SetAttributes(kMe, many), 0);
    EXPECT_EQ(SetAttributes(kMe, {{"one more", "", 0}}), 4);
    EXPECT_EQ(SetAttributes(kMe, {{"0", nullptr, 0}, {"one more", "", 0}}), 0);
}

TEST_F(SimulatedDevice, RefusesAttributesOfWhichAnArrayIsMissing) {
    ASSERT_EQ(Allocate(kMe), 0);
    char text[] = "a";
    char* texts[] = {text};
    int flags[] = {1};
    EXPECT_EQ(rDxSetDeviceAttributes(kMe, nullptr, texts, flags, 1, 0), -1);
    EXPECT_EQ(rDxSetDeviceAttributes(kMe, texts, nullptr, flags, 1, 0), -1);
    EXPECT_EQ(rDxSetDeviceAttributes(kMe, texts, texts, nullptr, 1, 0), -1);
    EXPECT_EQ(rDxSetDeviceAttributes(kMe, nullptr, nullptr, nullptr, 3, 0), -1);
    EXPECT_EQ(rDxSetDeviceAttributes(kMe, nullptr, nullptr, nullptr, 0, 0), 0);
    EXPECT_EQ(rDxSetDeviceAttributes(kMe, texts, texts, flags, -1, 0), 0);
    EXPECT_EQ(Attributes(), "Location=Bay 1*, DisplayName=Simulated device");
}

TEST_F(SimulatedDevice, HandsOutAttributesThatLaterChangesDoNotReach) {
    ASSERT_EQ(Allocate(kMe), 0);
    Arrays arrays;
    ASSERT_EQ(arrays.Get(), 0);
    EXPECT_EQ(SetAttributes(kMe, {{"Location", nullptr, 0}}), 0);
    ASSERT_EQ(arrays.count, 2);
    EXPECT_STREQ(arrays.names[0], "Location");
    EXPECT_STREQ(arrays.values[0], "Bay 1");
    arrays.names[0] = nullptr; // the caller's carelessness loses nothing
    arrays.count = 0;
    EXPECT_EQ(arrays.Free(), 0);
}

} // namespace
