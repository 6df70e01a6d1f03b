// The device library's nineteen functions, as the simulated device answers them by itself.
#include "rDxsd/rDxSvcs.h"
#include "tests/support/faults.h"
#include "tests/support/simulation.h"

#include <array>
#include <cstring>
#include <functional>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <net/if.h>
#include <sys/stat.h>

namespace {

using namespace rdx::sim;
using namespace std::chrono_literals;
using rdx::test::CallsOf;
using rdx::test::FailCall;
using rdx::test::ReadWhole;
using rdx::test::SimulatedDevice;
using rdx::test::WriteWhole;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr auto kAllBits = static_cast<unsigned long>(-1);
constexpr char kMe[] = "Workstation 7";
constexpr char kHer[] = "Workstation 8";

// An output text that starts with something in it.
struct Text {
    std::array<char, RDX_SVCS_TEXT_SIZE> buffer;
    Text() { std::strcpy(buffer.data(), "untouched"); }
    char* Out() { return buffer.data(); }
    std::string Get() const { return buffer.data(); }
};

int Allocate(const char* owner, const char* client = "10.0.0.7:40123", const char* address = "10.0.0.7") {
    Text first, second;
    return rDxAllocateDevice(client, owner, address, "3000,3001", first.Out(), second.Out(), 1);
}

int Release(const char* owner, const char* client = "10.0.0.7:40123") {
    Text by;
    return rDxReleaseDevice(client, owner, by.Out(), 1);
}

// "OWNER by CLIENT".
std::string Owner() {
    Text owner, client;
    EXPECT_EQ(rDxGetOwner(owner.Out(), client.Out()), 0);
    return owner.Get() + " by " + client.Get();
}

// "CODE/REASON".
std::string SelfTest() {
    unsigned long code = 7;
    unsigned long reason = 7;
    EXPECT_EQ(rDxGetCurrentSelftestStatus(&code, &reason), 0);
    return std::to_string(code) + "/" + (reason == kAllBits ? "-1" : std::to_string(reason));
}

unsigned long Revision() {
    unsigned long revision = 0;
    EXPECT_EQ(rDxGetFirmwareRev(&revision), 0);
    return revision;
}

int Update(const char* owner, const char* url = "http://10.0.0.7/kavo.bin") {
    return rDxUpdateDeviceFirmware(owner, url, kAllBits, 0, "", "");
}

int SetIp(const char* owner, const char* address, const char* netmask = "", const char* gateway = "",
          int mode = 2, const char* hostname = "", unsigned long* reboot = nullptr) {
    return rDxSetIpConfiguration(owner, address, netmask, gateway, mode, hostname, reboot);
}

// "ADDRESS NETMASK GATEWAY mode MODE".
std::string Ip() {
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

int SetAttributes(const char* owner, std::vector<Given> given) {
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
std::string Attributes() {
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

int MeasureFor(const char* owner, Measures* measures, unsigned long* most) {
    return rDxGetVehicleStatus(owner, measures, most);
}

int MeasureFor(const char* owner) {
    Measures measures = {};
    unsigned long most = 0;
    return MeasureFor(owner, &measures, &most);
}

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

// --- State ----------------------------------------------------------------------------------------------

TEST_F(SimulatedDevice, RemembersItsOwnerWhenItStartsAgain) {
    ASSERT_EQ(Allocate("<\"Müller\" & Söhne\\>\t"), 0);
    Start();
    EXPECT_EQ(Owner(), "<\"Müller\" & Söhne\\>\t by 10.0.0.7:40123");
    EXPECT_EQ(Allocate(kMe), 1);
    EXPECT_EQ(Release("<\"Müller\" & Söhne\\>\t", "10.0.0.9:9"), 0);
    Start();
    Text by;
    EXPECT_EQ(rDxReleaseDevice("c", kMe, by.Out(), 1), 1);
    EXPECT_EQ(by.Get(), "10.0.0.9:9");
}

TEST_F(SimulatedDevice, WritesItsStateForItsOwnerAloneAndLeavesNothingElse) {
    ASSERT_EQ(Allocate(kMe), 0);
    struct stat status {};
    ASSERT_EQ(stat(paths.state.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder / "")) {
        names.insert(entry.path().filename());
    }
    EXPECT_EQ(names, (std::set<std::string>{"state", "scenario", "calls"}));
}

TEST_F(SimulatedDevice, StartsAsANewOneFromADamagedFile) {
    ASSERT_EQ(Allocate(kMe), 0);
    WriteWhole(paths.state, ReadWhole(paths.state) + "colour = red\n");
    CaptureStderr();
    Start();
    EXPECT_EQ(GetCapturedStderr(),
              "libDxSvcs: " + paths.state + ":19: not a line of this file; the device starts as a new one\n");
    EXPECT_EQ(Owner(), " by ");
    EXPECT_EQ(Allocate(kHer), 0) << "and writes over it";
    Start();
    EXPECT_EQ(Owner(), "Workstation 8 by 10.0.0.7:40123");
}

TEST_F(SimulatedDevice, GoesOnWithoutAFileThatCannotBeWritten) {
    paths.state = folder / "missing" + "/state";
    Start();
    CaptureStderr();
    EXPECT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(SetAttributes(kMe, {{"a", "b", 1}}), 0);
    EXPECT_EQ(GetCapturedStderr(), "libDxSvcs: " + paths.state +
                                       ": No such file or directory; the device forgets its state when the "
                                       "process ends\n")
        << "said once";
    EXPECT_EQ(Owner(), "Workstation 7 by 10.0.0.7:40123");
    Start();
    EXPECT_EQ(Owner(), " by ");
}

TEST_F(SimulatedDevice, ReportsAStateFileThatIsNone) {
    paths.state = folder / "";
    CaptureStderr();
    Start();
    EXPECT_EQ(GetCapturedStderr(),
              "libDxSvcs: " + paths.state + ": not a regular file; the device starts as a new one\n");
    EXPECT_EQ(Owner(), " by ");
}

TEST_F(SimulatedDevice, KeepsTheOldStateWhenTheNewOneCannotBeWritten) {
    ASSERT_EQ(Allocate(kMe), 0);
    const std::string before = ReadWhole(paths.state);
    CaptureStderr();
    {
        FailCall full("write", 2, ENOSPC); // the first one adds to the record of calls
        EXPECT_EQ(Release(kMe), 0);
        EXPECT_TRUE(full.Struck());
    }
    EXPECT_NE(GetCapturedStderr().find("No space left on device"), std::string::npos);
    EXPECT_EQ(ReadWhole(paths.state), before);
    EXPECT_EQ(Owner(), " by ");
    EXPECT_EQ(Allocate(kHer), 0);
    Start();
    EXPECT_EQ(Owner(), "Workstation 8 by 10.0.0.7:40123") << "the next change was written";
}

TEST_F(SimulatedDevice, KeepsNoStateWithoutAPath) {
    paths.state.clear();
    CaptureStderr();
    Start();
    EXPECT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(GetCapturedStderr(), "");
    Start();
    EXPECT_EQ(Owner(), " by ");
}

// --- Record of calls ------------------------------------------------------------------------------------

void CallEveryFunction() {
    Text a, b, c;
    unsigned long word = 0;
    Measures measures = {};
    RDXConf configuration = {RDX_CONF_LENGTH, 0};
    char location[] = "Location";
    char bay[] = "Bay \"2\"";
    char empty[] = "";
    char* names[] = {location, nullptr};
    char* values[] = {bay, empty};
    int flags[] = {1, 0};
    rDxAllocateDevice("10.0.0.7:40123", kMe, "10.0.0.7", "3000,3001", a.Out(), b.Out(), 1);
    rDxReleaseDevice("c", "x\ny", a.Out(), 1);
    rDxGetOwner(a.Out(), b.Out());
    rDxGetDeviceType(a.Out(), 4096);
    rDxGetAllocStatus(&word, a.Out(), b.Out(), c.Out(), nullptr);
    rDxGetFirmwareRev(&word);
    rDxGetActiveIpConf(a.Out(), b.Out(), c.Out(), 16);
    rDxGetNetInterface(a.Out(), 4096);
    rDxGetIpConfiguration(&configuration);
    rDxSetIpConfiguration(kMe, "1.2.3.4", "255.0.0.0", "", 4, nullptr, &word);
    rDxGetVehicleStatus(kMe, &measures, &word);
    rDxGetTransmissionQuality(&word);
    rDxRunDeviceSelfTest(kMe, 1, 0);
    rDxGetCurrentSelftestStatus(&word, &word);
    rDxInitiateCfgRequest(kMe, 2);
    rDxSetDeviceAttributes(kMe, names, values, flags, 2, 3);
    Arrays arrays;
    arrays.Get();
    arrays.Free();
    rDxUpdateDeviceFirmware(kMe, "http://10.0.0.7/kavo.bin", kAllBits, 1, "", "");
}

constexpr const char* kRecordOfEveryFunction =
    R"(rDxAllocateDevice client="10.0.0.7:40123" owner="Workstation 7" address="10.0.0.7" ports="3000,3001" flag=1
rDxReleaseDevice client="c" owner="x\ny" flag=1
rDxGetOwner
rDxGetDeviceType size=4096
rDxGetAllocStatus
rDxGetFirmwareRev
rDxGetActiveIpConf size=16
rDxGetNetInterface size=4096
rDxGetIpConfiguration length=8
rDxSetIpConfiguration owner="Workstation 7" ip_address="1.2.3.4" netmask="255.0.0.0" gateway="" mode=4 hostname=null
rDxGetVehicleStatus owner="Workstation 7"
rDxGetTransmissionQuality
rDxRunDeviceSelfTest owner="Workstation 7" mode=1 await=0
rDxGetCurrentSelftestStatus
rDxInitiateCfgRequest owner="Workstation 7" mode=2
rDxSetDeviceAttributes owner="Workstation 7" names=["Location",null] values=["Bay \"2\"",""] persistence=[1,0] count=2 enforce=3
rdxGetDeviceAttributes
rdxFreeDeviceAttributes count=2
rDxUpdateDeviceFirmware owner="Workstation 7" url="http://10.0.0.7/kavo.bin" revision=-1 signed=1 method_of_trust="" ca_certificate=""
)";

TEST_F(SimulatedDevice, RecordsWhatReachesIt) {
    CallEveryFunction();
    EXPECT_EQ(TakeCalls(), kRecordOfEveryFunction);
}

TEST_F(SimulatedDevice, SaysOnceThatCallsCannotBeRecorded) {
    paths.calls = folder / "missing" + "/calls";
    Start();
    CaptureStderr();
    Owner();
    Owner();
    EXPECT_EQ(GetCapturedStderr(),
              "libDxSvcs: " + paths.calls + ": No such file or directory; calls are not recorded\n");
    paths.calls.clear();
    Start();
    CaptureStderr();
    EXPECT_EQ(Owner(), " by ");
    EXPECT_EQ(GetCapturedStderr(), "");
}

// --- Threads and memory ---------------------------------------------------------------------------------

TEST_F(SimulatedDevice, HoldsNothingUpDuringADelay) {
    Play("[rDxGetDeviceType]\ndelay_ms = 60000\n");
    bool served = false;
    clock.sleep = [&](milliseconds time) {
        EXPECT_EQ(time, 60000ms);
        std::thread([&] {
            served = Allocate(kMe) == 0 && Owner() == "Workstation 7 by 10.0.0.7:40123";
        }).join();
    };
    Start();
    Text type;
    EXPECT_EQ(rDxGetDeviceType(type.Out(), RDX_SVCS_TEXT_SIZE), 0);
    EXPECT_TRUE(served);
}

TEST_F(SimulatedDevice, ServesAWorkstationWhileAnotherAwaitsASelfTest) {
    ASSERT_EQ(Allocate(kMe), 0);
    std::string during;
    clock.sleep = [&](milliseconds time) {
        std::thread([&] { during = SelfTest(); }).join();
        now += time.count();
    };
    Start();
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 1), 0);
    EXPECT_EQ(during, "42500/0");
}

// A device that several workstations use at once, while its scenario changes.
class SharedDevice : public SimulatedDevice {
protected:
    static constexpr int kRounds = 60;

    void Watch() {
        SelfTest();
        Revision();
        Ip();
        Attributes();
    }

    void UseAsOwner(const char* me, int round) {
        EXPECT_EQ(++held, 1) << "the device has one owner at a time";
        EXPECT_EQ(Owner(), std::string(me) + " by 10.0.0.7:40123");
        EXPECT_NE(MeasureFor(me), 2);
        EXPECT_EQ(SetAttributes(me, {{"Owner", me, round % 2}}), 0);
        EXPECT_EQ(SetIp(me, "10.0.0.2"), 0);
        EXPECT_NE(rDxRunDeviceSelfTest(me, 0, 1), 2);
        EXPECT_NE(Update(me), 2);
        EXPECT_NE(rDxInitiateCfgRequest(me, 1), 2);
        --held;
        EXPECT_EQ(Release(me), 0);
    }

    void TakeTurns(const std::string& me) {
        for (int round = 0; round < kRounds; ++round) {
            Watch();
            if (Allocate(me.c_str()) != 0) continue;
            ++wins;
            UseAsOwner(me.c_str(), round);
        }
    }

    void ChangeTheScenario() {
        for (int round = 0; round < kRounds; ++round) {
            Play(round % 2 == 0 ? "[rDxGetDeviceType]\ntype = QRT\n" : "");
            Text type;
            EXPECT_EQ(rDxGetDeviceType(type.Out(), RDX_SVCS_TEXT_SIZE), 0);
            Pass(1s);
        }
    }

    std::atomic<int> held = 0;
    std::atomic<int> wins = 0;
};

// No line has been mixed with another.
void ExpectWholeLines(const std::string& calls) {
    std::istringstream lines(calls);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.starts_with("rDx") || line.starts_with("rdx")) << line;
    }
}

TEST_F(SharedDevice, IsSafeToCallFromManyThreads) {
    constexpr int kThreads = 6;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] { TakeTurns("Workstation " + std::to_string(t)); });
    }
    threads.emplace_back([this] { ChangeTheScenario(); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_GT(wins, 0);
    ExpectWholeLines(ReadWhole(paths.calls));
}

// A device whose functions can each be called again and again, with the same result: 0, or -1 for a failure.
class ShortOfMemory : public SimulatedDevice {
protected:
    // Fails each allocation that the call makes in turn; returns how many there are.
    int FailEach(const std::function<int()>& call, const char* allocator) {
        const int before = CallsOf(allocator);
        EXPECT_EQ(call(), 0);
        const int count = CallsOf(allocator) - before;
        for (int nth = 1; nth <= count; ++nth) {
            FailCall noMemory(allocator, nth);
            EXPECT_EQ(call(), -1) << nth;
            EXPECT_TRUE(noMemory.Struck());
        }
        EXPECT_EQ(call(), 0) << "the device is as it was";
        return count;
    }

    Text a, b, c;
    unsigned long word = 0;
    Measures measures = {};
    RDXConf configuration = {RDX_CONF_LENGTH, 0};
    Arrays arrays;
    std::string nameText = "Location";
    std::string valueText = "a bay with a rather long name";
    char* name = nameText.data();
    char* value = valueText.data();
    int flag = 1;
    const std::vector<std::function<int()>> calls = {
        [&] { return rDxAllocateDevice("c", kHer, "d", "e", a.Out(), b.Out(), 1) == 1 ? 0 : -1; },
        [&] { return rDxReleaseDevice("a client with a longer name", kHer, a.Out(), 1) == 2 ? 0 : -1; },
        [&] { return rDxGetOwner(a.Out(), b.Out()); },
        [&] { return rDxGetDeviceType(a.Out(), RDX_SVCS_TEXT_SIZE); },
        [&] { return rDxGetAllocStatus(&word, a.Out(), b.Out(), c.Out(), nullptr); },
        [&] { return rDxGetFirmwareRev(&word); },
        [&] { return rDxGetActiveIpConf(a.Out(), b.Out(), c.Out(), 16); },
        [&] { return rDxGetNetInterface(a.Out(), RDX_SVCS_TEXT_SIZE); },
        [&] { return rDxGetIpConfiguration(&configuration); },
        [&] { return SetIp(kMe, "", "", "", 2, "a host with a rather long name"); },
        [&] { return MeasureFor(kMe, &measures, &word); },
        [&] { return rDxGetTransmissionQuality(&word); },
        [&] { return rDxInitiateCfgRequest(kMe, 1); },
        [&] { return rDxGetCurrentSelftestStatus(&word, &word); },
        [&] { return rDxSetDeviceAttributes(kMe, &name, &value, &flag, 1, 0); },
        [&] { return arrays.Get() == 0 ? arrays.Free() : -1; },
        [&] { return rdxFreeDeviceAttributes(nullptr, nullptr, nullptr, 0); },
        [&] {
            const int result = rDxRunDeviceSelfTest(kMe, 0, 0);
            Pass(2s);
            return result;
        },
        [&] {
            const int result = Update(kMe);
            Pass(5s);
            return result;
        },
    };
};

// The function says so, and the device is as it was.
TEST_F(ShortOfMemory, RefusesEveryCall) {
    ASSERT_EQ(Allocate(kMe), 0);
    int failed = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        for (const char* const allocator : {"malloc", "calloc"}) {
            SCOPED_TRACE(std::to_string(i) + " " + allocator);
            Play("# " + std::to_string(i) + allocator + "\n"); // so that each round reads it alike
            ASSERT_EQ(calls[i](), 0);
            failed += FailEach(calls[i], allocator);
        }
    }
    EXPECT_GT(failed, 100);
    EXPECT_EQ(Owner(), "Workstation 7 by 10.0.0.7:40123");
}

TEST_F(SimulatedDevice, GivesBackEverythingWhenMemoryForTheArraysIsShort) {
    for (int nth = 1; nth <= 3; ++nth) {
        FailCall noMemory("calloc", nth);
        Arrays arrays;
        EXPECT_EQ(arrays.Get(), -1) << nth;
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(arrays.names, nullptr);
        EXPECT_EQ(arrays.values, nullptr);
        EXPECT_EQ(arrays.persistence, nullptr);
        EXPECT_EQ(arrays.count, -7);
    }
}

} // namespace
