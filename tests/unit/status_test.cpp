#include "common/memory.h"
#include "rDxsd/rDxsd.h"
#include "tests/support/answers.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/method_call.h"
#include "tests/support/process.h"
#include "tests/support/wddx.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <malloc.h>
#include <optional>
#include <string>
#include <sys/sysinfo.h>
#include <vector>

namespace {

// What the system says of itself; nothing: what it says otherwise. A host name that is null cannot be read.
std::optional<const char*> hostname;
std::optional<long> uptime; // -1: cannot be read

} // namespace

static_assert(sizeof(RDXConf) == RDX_CONF_LENGTH && offsetof(RDXConf, iMode) == 4);
static_assert(sizeof(Measures) == 36 && offsetof(Measures, iTerminal15) == 4 &&
              offsetof(Measures, iTerminal30) == 8 && offsetof(Measures, iKLine) == 20 &&
              offsetof(Measures, iLLine) == 24 && offsetof(Measures, iTdPeriod) == 28 &&
              offsetof(Measures, iTdValid) == 32);

extern "C" {
int __real_gethostname(char* name, std::size_t size);
int __wrap_gethostname(char* name, std::size_t size);
int __real_sysinfo(struct sysinfo* info);
int __wrap_sysinfo(struct sysinfo* info);
}

int __wrap_gethostname(char* name, std::size_t size) {
    EXPECT_EQ(size, 4096U);
    if (!hostname) return __real_gethostname(name, size);
    std::memset(name, 'x', size); // some write before they fail
    if (*hostname == nullptr) return -1;
    std::strcpy(name, *hostname);
    return 0;
}

int __wrap_sysinfo(struct sysinfo* info) {
    if (!uptime) return __real_sysinfo(info);
    info->uptime = *uptime;
    return *uptime < 0 ? -1 : 0;
}

namespace rdx {
namespace {

TEST(ServerStartTime, IsNotKnownWhenTheLibraryIsLoaded) { EXPECT_EQ(server_start_time, 0U); }

// A call with its records; the handler's trace is captured.
class VersionCall : public testing::Test {
protected:
    ~VersionCall() override { FreeTnResponse(&result_); }

    int ProcessText(char* args) {
        TavrinRequest call{};
        call.pszWddxArgs = args;
        FreeTnResponse(&result_);
        result_ = {0, 1, -99, nullptr};
        const test::CaptureStdout capture;
        const int code = ProcessGetVersion(&call, &result_);
        printed_ = capture.Text();
        return code;
    }

    int Process(const std::string& args) { return ProcessText(CopyText(args).get()); }

    // A call with one argument.
    int ProcessVersion(const std::string& value) {
        return Process(test::Packet("<struct><var name='version'>" + value + "</var></struct>"));
    }

    void ExpectRefused() {
        EXPECT_EQ(result_.iStatus, -99);
        EXPECT_EQ(result_.ucFlag, 1);
        EXPECT_EQ(result_.pszWddxResult, nullptr);
    }

    TavrinResponse result_{};
    std::string printed_;
};

TEST_F(VersionCall, AnswersWithTheFixedPacket) {
    EXPECT_EQ(ProcessVersion("<number>7</number>"), 0);
    EXPECT_EQ(result_.pszWddxResult, test::kVersionBody);
    EXPECT_EQ(result_.iStatus, 0);
    EXPECT_EQ(result_.ucFlag, 0);
    EXPECT_THAT(printed_, testing::HasSubstr("\nProcessGetVersion"));
}

TEST_F(VersionCall, AnswersInABufferOfItsFixedSize) {
    EXPECT_EQ(ProcessVersion("<number>7</number>"), 0);
    EXPECT_GE(malloc_usable_size(result_.pszWddxResult), 4477U);
}

TEST_F(VersionCall, AnswersEveryVersionAlike) {
    ASSERT_EQ(ProcessVersion("<number>7</number>"), 0);
    const std::string expected = result_.pszWddxResult;
    for (const char* value : {"<number>0</number>", "<number>-1</number>", "<boolean value='true'/>",
                              "<boolean value='false'/>"}) {
        EXPECT_EQ(ProcessVersion(value), 0) << value;
        EXPECT_EQ(result_.pszWddxResult, expected) << value;
    }
}

TEST_F(VersionCall, NeedsAVersion) {
    for (const char* value : {"<string>7</string>", "<number>1.5</number>", "<null/>",
                              "<array length='1'><number>7</number></array>"}) {
        EXPECT_EQ(ProcessVersion(value), 400) << value;
        ExpectRefused();
    }
    EXPECT_EQ(Process(test::Packet("<struct><var name='Version'><number>7</number></var></struct>")), 400);
    ExpectRefused();
    EXPECT_THAT(printed_, testing::HasSubstr("\nProcessGetVersion"));
}

TEST_F(VersionCall, NeedsArguments) {
    for (const std::string& args : {std::string("<wddxPacket"), std::string("hello"), test::Packet("<null/>"),
                                    test::Packet("<array length='1'><null/></array>")}) {
        EXPECT_EQ(Process(args), 400) << args;
        ExpectRefused();
    }
    EXPECT_EQ(ProcessText(nullptr), 400);
    ExpectRefused();
}

TEST_F(VersionCall, FailsWhenMemoryIsShort) {
    OwnedText args = CopyText(test::Packet("<struct><var name='version'><number>7</number></var></struct>"));
    bool unassigned = false;
    test::FailEveryAllocation(
        [&] {
            const int code = ProcessText(args.get());
            EXPECT_TRUE(code == 0 || code == 400 || code == -6) << code;
            EXPECT_EQ(result_.pszWddxResult != nullptr, code == 0);
            unassigned = unassigned || code == -6;
            return code == 0;
        },
        test::AnyResult);
    EXPECT_TRUE(unassigned);
}

} // namespace

namespace test {
namespace {

using enum ArgumentType;

// ------------------------------------------------------------------------------------- rdxGetDeviceStatus

std::string Channel(const char* name, const std::optional<std::string>& controlledBy) {
    return Members{{"Channel", TextValue(name)},
                   {"Connection", TextValue(controlledBy ? "controlled" : "open")},
                   {"ControlledBy", controlledBy ? TextValue(*controlledBy) : kNullValue}}
        .Struct();
}

std::string Attribute(const std::string& name, const std::string& value, bool persistent) {
    return Members{{"AttributeName", TextValue(name)},
                   {"AttributeValue", TextValue(value)},
                   {"IsPersistent", FlagValue(persistent)}}
        .Struct();
}

class DeviceStatus : public MethodTest {
protected:
    DeviceStatus() {
        hostname = "bench-7";
        uptime = 86461;
        device_.outputs.deviceType = "QURT";
        device_.outputs.testCode = 17;
        device_.outputs.netInterface = "lo";
        device_.outputs.addressMode = 1;
        device_.outputs.ipAddress = "192.168.100.200";
        device_.outputs.netmask = "255.255.255.128";
        device_.outputs.gateway = "10.0.0.1";
        device_.outputs.firmwareRev = 4711;
        device_.outputs.controlled = 1;
        device_.outputs.allocation = "1";
        device_.outputs.statusOwner = "anna";
        device_.outputs.controlledBy = "10.0.0.5";
        device_.outputs.attributes = {{"Bay", "3", 1}, {"Name", "", 0}};
    }
    ~DeviceStatus() override {
        hostname.reset();
        uptime.reset();
    }

    std::string Status() { return Answer(ProcessGetDeviceStatus, ""); }

    static std::string Expected(const Members& members) {
        return ResultPacket("rDxGetDeviceStatus", members);
    }

    const Members expected_ = {
        {"DeviceType", NumberValue(40011)},
        {"UpTime", NumberValue(86461)},
        {"SelftestStatus", StatusValue(17, 0, kNullValue)},
        {"Hostname", TextValue("bench-7")},
        {"MacAddress", TextValue("00:00:00:00:00:00")}, // that of the loopback interface
        {"DhcpMode", NumberValue(41203)},
        {"IpAddress", TextValue("192.168.100.200")},
        {"Netmask", TextValue("255.255.255.128")},
        {"DefaultGateway", TextValue("10.0.0.1")},
        {"FirmwareRev", NumberValue(4711)},
        {"IsAllocated", TextValue("1")},
        {"DeviceOwner", TextValue("anna")},
        {"IfUsage", ArrayValue({Channel("MOST", "10.0.0.5"), Channel("DIAGBUS", "10.0.0.5")})},
        {"SlpAttributes", ArrayValue({Attribute("Bay", "3", true), Attribute("Name", "", false)})},
        {"Status", StatusValue(0, 0, kNullValue)},
    };
    const std::string failed_ = StatusValue(-1, 0, kNullValue);
    const CaptureStdout capture_;
};

TEST_F(DeviceStatus, AnswersWithThisVeryPacket) {
    EXPECT_EQ(Status(),
              "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>"
              "<wddxPacket version='1.0'><header><comment>rDxGetDeviceStatus</comment></header><data><struct>"
              "<var name='DeviceType'><number>40011</number></var>"
              "<var name='UpTime'><number>86461</number></var>"
              "<var name='SelftestStatus'><struct><var name='code'><number>17</number></var>"
              "<var name='msg'><number>0</number></var><var name='params'><null/></var></struct></var>"
              "<var name='Hostname'><string>bench-7</string></var>"
              "<var name='MacAddress'><string>00:00:00:00:00:00</string></var>"
              "<var name='DhcpMode'><number>41203</number></var>"
              "<var name='IpAddress'><string>192.168.100.200</string></var>"
              "<var name='Netmask'><string>255.255.255.128</string></var>"
              "<var name='DefaultGateway'><string>10.0.0.1</string></var>"
              "<var name='FirmwareRev'><number>4711</number></var>"
              "<var name='IsAllocated'><string>1</string></var>"
              "<var name='DeviceOwner'><string>anna</string></var>"
              "<var name='IfUsage'><array length='2'>"
              "<struct><var name='Channel'><string>MOST</string></var>"
              "<var name='Connection'><string>controlled</string></var>"
              "<var name='ControlledBy'><string>10.0.0.5</string></var></struct>"
              "<struct><var name='Channel'><string>DIAGBUS</string></var>"
              "<var name='Connection'><string>controlled</string></var>"
              "<var name='ControlledBy'><string>10.0.0.5</string></var></struct></array></var>"
              "<var name='SlpAttributes'><array length='2'>"
              "<struct><var name='AttributeName'><string>Bay</string></var>"
              "<var name='AttributeValue'><string>3</string></var>"
              "<var name='IsPersistent'><boolean value='true'/></var></struct>"
              "<struct><var name='AttributeName'><string>Name</string></var>"
              "<var name='AttributeValue'><string></string></var>"
              "<var name='IsPersistent'><boolean value='false'/></var></struct></array></var>"
              "<var name='Status'><struct><var name='code'><number>0</number></var>"
              "<var name='msg'><number>0</number></var><var name='params'><null/></var></struct></var>"
              "</struct></data></wddxPacket>");
}

TEST_F(DeviceStatus, AsksTheDeviceInThisOrder) {
    const std::vector<std::string> expected = {
        R"(rDxGetDeviceType("", 4096))",
        R"(rDxGetCurrentSelftestStatus(0, 0))",
        R"(rDxGetNetInterface("", 4096))",
        R"(rDxGetIpConfiguration(8))",
        R"(rDxGetActiveIpConf("", "", "", 16))",
        R"(rDxGetFirmwareRev(0))",
        R"(rDxGetAllocStatus(0, "0", "", "", null))",
        R"(rdxGetDeviceAttributes())",
        R"(rdxFreeDeviceAttributes(2))",
    };
    EXPECT_EQ(DeviceCalls(ProcessGetDeviceStatus, ""), expected);
}

TEST_F(DeviceStatus, LooksAtNoArguments) {
    for (const std::string& args : {std::string(), std::string("hello"), std::string("<wddxPacket"),
                                    Packet(kNullValue), Arguments({{"DeviceType", NumberValue(1)}})}) {
        EXPECT_EQ(Answer(ProcessGetDeviceStatus, args), Expected(expected_)) << args;
    }
    EXPECT_EQ(ProcessText(ProcessGetDeviceStatus, nullptr), 0);
    EXPECT_EQ(result_.pszWddxResult, Expected(expected_));
}

struct TypeCase {
    const char* name;
    int number;
    std::vector<const char*> channels; // "" for an element that is null
};

const TypeCase kUnknownType = {"", 0, {"DIAGBUS", ""}};
const std::vector<TypeCase> kTypes = {
    {"QURT", 40011, {"MOST", "DIAGBUS"}},
    {"QRT", 40010, {"MOST", "DIAGBUS"}},
    {"SOLAN", 40015, {"DIAGBUS", ""}},
    {"MKT", 40016, {"DIAGBUS"}},
    {"KAVO", 40018, {"MOST", "DIAGBUS"}},
    {"KAVO_ZR", 40019, {"DIAGBUS"}},
    kUnknownType,
    {"QUR", 0, {"DIAGBUS", ""}},
    {"QURTX", 0, {"DIAGBUS", ""}},
    {"QURT ", 0, {"DIAGBUS", ""}},
    {" QURT", 0, {"DIAGBUS", ""}},
    {"KAVO_", 0, {"DIAGBUS", ""}},
    {"KAVO-ZR", 0, {"DIAGBUS", ""}},
    {"KAVO_ZR2", 0, {"DIAGBUS", ""}},
    {"40018", 0, {"DIAGBUS", ""}},
};

std::string UsageOf(const TypeCase& type, const std::optional<std::string>& controlledBy) {
    std::vector<std::string> elements;
    for (const char* const channel : type.channels) {
        elements.push_back(*channel == '\0' ? kNullValue : Channel(channel, controlledBy));
    }
    return ArrayValue(elements);
}

// A name as it stands, in small letters, and with one small letter at each place in turn.
std::vector<std::string> InManyCases(const std::string& name) {
    const auto lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
    std::vector<std::string> names = {name, name};
    std::ranges::transform(names[1], names[1].begin(), lower);
    for (std::size_t i = 0; i < name.size(); ++i) names.emplace_back(name)[i] = lower(name[i]);
    return names;
}

TEST_F(DeviceStatus, KnowsTheDevicesTypeAndItsChannels) {
    for (const TypeCase& type : kTypes) {
        const Members typed = expected_.With("DeviceType", NumberValue(type.number));
        for (const std::string& name : InManyCases(type.name)) {
            device_.outputs.deviceType = name;
            device_.outputs.controlled = 1;
            EXPECT_EQ(Status(), Expected(typed.With("IfUsage", UsageOf(type, "10.0.0.5")))) << name;
            device_.outputs.controlled = 0;
            EXPECT_EQ(Status(), Expected(typed.With("IfUsage", UsageOf(type, std::nullopt)))) << name;
        }
    }
}

TEST_F(DeviceStatus, TakesEveryFlagButZeroForControl) {
    for (const unsigned long flag : {2UL, 0x80000000UL, ULONG_MAX}) {
        device_.outputs.controlled = flag;
        EXPECT_EQ(Status(), Expected(expected_)) << flag;
    }
    device_.outputs.controlled.reset();
    EXPECT_EQ(Status(), Expected(expected_.With("IfUsage", UsageOf(kTypes[0], std::nullopt))));
    device_.outputs.controlled = 1;
    device_.outputs.controlledBy.reset();
    EXPECT_EQ(Status(), Expected(expected_.With("IfUsage", UsageOf(kTypes[0], ""))));
}

TEST_F(DeviceStatus, MapsTheAddressMode) {
    const std::pair<int, int> modes[] = {{1, 41203}, {2, 41202}, {3, 41204},   {0, 0},      {4, 0},
                                         {-1, 0},    {41203, 0}, {INT_MAX, 0}, {INT_MIN, 0}};
    for (const auto& [number, mode] : modes) {
        device_.outputs.addressMode = number;
        EXPECT_EQ(Status(), Expected(expected_.With("DhcpMode", NumberValue(mode)))) << number;
    }
    device_.outputs.addressMode.reset();
    EXPECT_EQ(Status(), Expected(expected_.With("DhcpMode", NumberValue(0))));
}

TEST_F(DeviceStatus, TellsTheStateOfTheSelfTest) {
    const struct {
        int result;
        unsigned long code;
        unsigned long reason;
        int toldCode;
        int toldReason;
    } states[] = {{0, 0, 0, 0, 0},
                  {0, 42500, 0, 42500, 0},
                  {0, ULONG_MAX, 0, -1, 0},
                  {0, 17, 9060, 42502, 9060},
                  {0, 17, 1, 42502, 1},
                  {0, 17, ULONG_MAX, 42501, 9061},
                  {0, 17, ULONG_MAX - 1, 42502, -2},
                  {1, 17, 9060, 42501, 9061},
                  {-1, 17, 0, 42501, 9061},
                  {INT_MIN, 17, ULONG_MAX, 42501, 9061}};
    for (const auto& state : states) {
        device_.results["rDxGetCurrentSelftestStatus"] = state.result;
        device_.outputs.testCode = state.code;
        device_.outputs.testReason = state.reason;
        const std::string told = StatusValue(state.toldCode, state.toldReason, kNullValue);
        EXPECT_EQ(Status(), Expected(expected_.With("SelftestStatus", told))) << state.reason;
    }
}

// A query, what its failure leaves out, and what its failure changes.
struct FailingQuery {
    const char* function;
    std::vector<const char*> missing;
    std::vector<Member> changed;
};

const FailingQuery kFailingQueries[] = {
    {"rDxGetDeviceType", {"DeviceType"}, {{"IfUsage", UsageOf(kUnknownType, "10.0.0.5")}}},
    {"rDxGetIpConfiguration", {"DhcpMode"}, {}},
    {"rDxGetFirmwareRev", {"FirmwareRev"}, {}},
    {"rDxGetAllocStatus", {"IsAllocated", "DeviceOwner", "IfUsage"}, {}},
    {"rdxGetDeviceAttributes", {}, {{"SlpAttributes", kNullValue}}},
};

TEST_F(DeviceStatus, LeavesOutWhatTheDeviceDoesNotTell) {
    for (unsigned int set = 1; set < 1U << std::size(kFailingQueries); ++set) {
        Members expected = expected_.With("Status", failed_);
        std::vector<const char*> failing;
        for (std::size_t i = 0; i < std::size(kFailingQueries); ++i) {
            if ((set >> i & 1) == 0) continue;
            const FailingQuery& query = kFailingQueries[i];
            for (const auto& [name, value] : query.changed) expected = expected.With(name, value);
            for (const char* const name : query.missing) expected = expected.Without(name);
            failing.push_back(query.function);
        }
        for (const int result : {1, 2, -1, INT_MIN}) {
            SCOPED_TRACE(std::to_string(set) + ": " + std::to_string(result));
            device_.results.clear();
            for (const char* const function : failing) device_.results[function] = result;
            device_.ForgetCalls();
            EXPECT_EQ(Status(), Expected(expected));
            const bool lent = device_.results.count("rdxGetDeviceAttributes") == 0;
            EXPECT_EQ(std::ranges::count(device_.Names(), "rdxFreeDeviceAttributes"), lent ? 1 : 0);
        }
    }
}

TEST_F(DeviceStatus, TakesOtherFailuresLightly) {
    device_.results["rDxGetActiveIpConf"] = -1;
    EXPECT_EQ(Status(), Expected(expected_)) << "what was filled counts";
    device_.results["rDxGetCurrentSelftestStatus"] = 1;
    EXPECT_EQ(Status(), Expected(expected_.With("SelftestStatus", StatusValue(42501, 9061, kNullValue))));
    device_.results["rdxFreeDeviceAttributes"] = -1;
    EXPECT_EQ(Status(), Expected(expected_.With("SelftestStatus", StatusValue(42501, 9061, kNullValue))));
    device_.results["rDxGetNetInterface"] = -1; // whatever the default interface's address is
    EXPECT_TRUE(Status().ends_with("<var name='Status'>" + StatusValue(0, 0, kNullValue) +
                                   "</var></struct></data></wddxPacket>"));
}

TEST_F(DeviceStatus, ReadsAddressesThatFillTheirBuffers) {
    const std::string brim(16, '1');
    device_.outputs.ipAddress = device_.outputs.netmask = device_.outputs.gateway = brim;
    EXPECT_EQ(Status(), Expected(expected_.With("IpAddress", TextValue(brim))
                                     .With("Netmask", TextValue(brim))
                                     .With("DefaultGateway", TextValue(brim))));
}

TEST_F(DeviceStatus, AnswersThoughTheDeviceFillsNothing) {
    device_.outputs = {};
    device_.outputs.netInterface = "lo";
    EXPECT_EQ(Status(), Expected({{"DeviceType", NumberValue(0)},
                                  {"UpTime", NumberValue(86461)},
                                  {"SelftestStatus", StatusValue(0, 0, kNullValue)},
                                  {"Hostname", TextValue("bench-7")},
                                  {"MacAddress", TextValue("00:00:00:00:00:00")},
                                  {"DhcpMode", NumberValue(0)},
                                  {"IpAddress", TextValue("")},
                                  {"Netmask", TextValue("")},
                                  {"DefaultGateway", TextValue("")},
                                  {"FirmwareRev", NumberValue(0)},
                                  {"IsAllocated", TextValue("0")},
                                  {"DeviceOwner", TextValue("")},
                                  {"IfUsage", UsageOf(kUnknownType, std::nullopt)},
                                  {"SlpAttributes", kNullValue},
                                  {"Status", StatusValue(0, 0, kNullValue)}}));
}

TEST_F(DeviceStatus, CarriesTextsThatFillTheirBuffers) {
    const std::string longest(4095, 'x');
    device_.outputs.allocation = device_.outputs.statusOwner = device_.outputs.controlledBy = longest;
    EXPECT_EQ(Status(), Expected(expected_.With("IsAllocated", TextValue(longest))
                                     .With("DeviceOwner", TextValue(longest))
                                     .With("IfUsage", UsageOf(kTypes[0], longest))));
    device_.outputs.deviceType = longest;
    EXPECT_NE(Status().find("<var name='DeviceType'><number>0</number></var>"), std::string::npos);
}

TEST_F(DeviceStatus, EscapesItsTexts) {
    const std::string quotes(15, '\'');
    const std::string mixed = "<&>'\"\x01\xC3\xA4";
    hostname = "<&>'\"";
    device_.outputs.ipAddress = mixed;
    device_.outputs.netmask = quotes;
    device_.outputs.gateway = "";
    device_.outputs.allocation = device_.outputs.statusOwner = device_.outputs.controlledBy = kAwkwardText;
    device_.outputs.attributes = {{kAwkwardText, kAwkwardText, 1}};
    EXPECT_EQ(Status(), Expected(expected_.With("Hostname", TextValue("<&>'\""))
                                     .With("IpAddress", TextValue(mixed))
                                     .With("Netmask", TextValue(quotes))
                                     .With("DefaultGateway", TextValue(""))
                                     .With("IsAllocated", TextValue(kAwkwardText))
                                     .With("DeviceOwner", TextValue(kAwkwardText))
                                     .With("IfUsage", UsageOf(kTypes[0], kAwkwardText))
                                     .With("SlpAttributes",
                                           ArrayValue({Attribute(kAwkwardText, kAwkwardText, true)}))));
}

TEST_F(DeviceStatus, TellsTheRevisionIn32Bits) {
    const std::pair<unsigned long, int> revisions[] = {
        {0, 0}, {0x7FFFFFFF, INT_MAX}, {0x80000000, INT_MIN}, {0xFFFFFFFF, -1}};
    for (const auto& [revision, told] : revisions) {
        device_.outputs.firmwareRev = revision;
        EXPECT_EQ(Status(), Expected(expected_.With("FirmwareRev", NumberValue(told)))) << revision;
    }
}

// ---------------------------------------------------------------------------------------------- attributes

TEST_F(DeviceStatus, LeavesIncompleteAttributesNull) {
    device_.outputs.attributes = {{std::nullopt, "1", 1},
                                  {"b", std::nullopt, 1},
                                  {std::nullopt, std::nullopt, 0},
                                  {"d", "4", -1},
                                  {"", "", 0}};
    const std::string attributes =
        ArrayValue({kNullValue, kNullValue, kNullValue, Attribute("d", "4", true), Attribute("", "", false)});
    EXPECT_EQ(Status(), Expected(expected_.With("SlpAttributes", attributes)));
    EXPECT_EQ(device_.Calls().back(), "rdxFreeDeviceAttributes(5)");
    EXPECT_EQ(device_.Lent(), 0);
}

TEST_F(DeviceStatus, LeavesAttributesWithoutArraysNull) {
    device_.outputs.attributeCount = 2;
    device_.outputs.nullArrays = true;
    EXPECT_EQ(Status(), Expected(expected_.With("SlpAttributes", ArrayValue({kNullValue, kNullValue}))));
    EXPECT_EQ(device_.Lent(), 0);
}

TEST_F(DeviceStatus, HasANullValueForNoAttributes) {
    for (const int count : {0, -1, INT_MIN}) {
        for (const bool null : {false, true}) {
            device_.outputs.attributeCount = count;
            device_.outputs.nullArrays = null;
            device_.ForgetCalls();
            EXPECT_EQ(Status(), Expected(expected_.With("SlpAttributes", kNullValue))) << count;
            EXPECT_EQ(std::ranges::count(device_.Names(), "rdxFreeDeviceAttributes"), 1);
            EXPECT_EQ(device_.Calls().back(), "rdxFreeDeviceAttributes(" + std::to_string(count) + ")");
            EXPECT_EQ(device_.Lent(), 0);
        }
    }
}

TEST_F(DeviceStatus, CarriesManyAttributes) {
    std::vector<std::string> expected;
    device_.outputs.attributes.clear();
    for (int i = 0; i < 500; ++i) {
        device_.outputs.attributes.push_back({"name" + std::to_string(i), std::to_string(i), i % 2});
        expected.push_back(Attribute("name" + std::to_string(i), std::to_string(i), i % 2 != 0));
    }
    EXPECT_EQ(Status(), Expected(expected_.With("SlpAttributes", ArrayValue(expected))));
}

TEST_F(DeviceStatus, FailsWhenTheAnswerIsTooLong) {
    device_.outputs.attributes.assign(40, {std::string(4095, 'n'), "v", 0});
    EXPECT_EQ(Process(ProcessGetDeviceStatus, ""), -6);
    EXPECT_EQ(device_.Calls().back(), "rdxFreeDeviceAttributes(40)");
}

// --------------------------------------------------------------------------------------------- the machine

TEST_F(DeviceStatus, NamesTheHost) {
    hostname = nullptr;
    EXPECT_EQ(Status(), Expected(expected_.With("Hostname", TextValue("QurtPc"))));
    hostname = "";
    EXPECT_EQ(Status(), Expected(expected_.With("Hostname", TextValue(""))));
    const std::string longest(4095, 'h');
    hostname = longest.c_str();
    EXPECT_EQ(Status(), Expected(expected_.With("Hostname", TextValue(longest))));
    hostname.reset();
    char name[256] = "";
    ASSERT_EQ(__real_gethostname(name, sizeof name), 0);
    EXPECT_EQ(Status(), Expected(expected_.With("Hostname", TextValue(name))));
}

TEST_F(DeviceStatus, TellsTheTimeSinceTheMachineWasStarted) {
    const std::pair<long, int> times[] = {{0, 0}, {1, 1}, {INT_MAX, INT_MAX}, {-1, 0}};
    for (const auto& [seconds, told] : times) {
        uptime = seconds;
        EXPECT_EQ(Status(), Expected(expected_.With("UpTime", NumberValue(told)))) << seconds;
    }
    uptime.reset();
    const auto now = [] {
        double seconds = 0;
        std::ifstream("/proc/uptime") >> seconds;
        return static_cast<int>(seconds);
    };
    const int before = now();
    const std::string status = Status();
    const std::string front = "<var name='UpTime'><number>";
    const int told = std::atoi(status.c_str() + status.find(front) + front.size());
    EXPECT_GE(told, before);
    EXPECT_LE(told, now() + 1); // the system may round up
}

TEST_F(DeviceStatus, HasNoHardwareAddressOfAMissingInterface) {
    for (const std::string& name : {std::string("no-such-if"), std::string(4095, 'l')}) {
        device_.outputs.netInterface = name;
        testing::internal::CaptureStderr();
        EXPECT_EQ(Status(), Expected(expected_.With("MacAddress", TextValue(""))));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "SIOCGHWADDR: No such device\n");
    }
    EXPECT_EQ(capture_.Text(), "\nGetMacAddressByName error\nGetMacAddressByName error");
}

TEST_F(DeviceStatus, HoldsOneDescriptorAtMost) {
    const int before = test::OpenDescriptors();
    for (int i = 0; i < 1000; ++i) Process(ProcessGetDeviceStatus, "");
    EXPECT_LE(test::OpenDescriptors(), before + 1);
}

} // namespace
} // namespace test
} // namespace rdx
