// The scenario file: every key, and changes at run time.
#include "rDxsd/rDxSvcs.h"
#include "sim/ini.h"
#include "tests/support/simulation.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <sstream>
#include <sys/stat.h>

namespace {

using namespace rdx::sim;
using namespace std::chrono_literals;
using namespace rdx::test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class SimulatedScenario : public rdx::test::SimulatedDevice {};

// --- What the functions answer, as a text ---------------------------------------------------------------

// What an output holds before a call.
constexpr char kBefore[] = "before";
constexpr int kBeforeNumber = 4321;

struct Text {
    std::array<char, RDX_SVCS_TEXT_SIZE> buffer;
    Text() { std::strcpy(buffer.data(), kBefore); }
    char* Out() { return buffer.data(); }
};

struct Word {
    unsigned long value = kBeforeNumber;
    unsigned long* Out() { return &value; }
};

class Answer {
public:
    explicit Answer(int result) { text_ << result; }
    Answer& Add(const char* name, const Text& text) { return Print(name, text.buffer.data()); }
    Answer& Add(const char* name, int number) { return Print(name, number); }
    Answer& Add(const char* name, Word word) {
        if (word.value == kAllBits) return Print(name, -1);
        return Print(name, word.value);
    }
    std::string Get() const { return text_.str() + " "; }

private:
    template <typename T>
    Answer& Print(const char* name, const T& value) {
        text_ << ' ' << name << '=' << value;
        return *this;
    }
    std::ostringstream text_;
};

std::string AskAllocate() {
    Text a, b;
    const int result = rDxAllocateDevice("1.2.3.4:5", "She", "1.2.3.4", "80", a.Out(), b.Out(), 1);
    return Answer(result).Add("output1", a).Add("output2", b).Get();
}
std::string AskRelease() {
    Text by;
    const int result = rDxReleaseDevice("1.2.3.4:5", kMe, by.Out(), 1);
    return Answer(result).Add("released_by", by).Get();
}
std::string AskOwner() {
    Text a, b;
    const int result = rDxGetOwner(a.Out(), b.Out());
    return Answer(result).Add("owner", a).Add("allocated_by", b).Get();
}
std::string AskType() {
    Text name;
    const int result = rDxGetDeviceType(name.Out(), RDX_SVCS_TEXT_SIZE);
    return Answer(result).Add("type", name).Get();
}
std::string AskAllocStatus() {
    Word controlled;
    Text a, b, c;
    const int result = rDxGetAllocStatus(controlled.Out(), a.Out(), b.Out(), c.Out(), nullptr);
    return Answer(result)
        .Add("controlled", controlled)
        .Add("allocation", a)
        .Add("owner", b)
        .Add("controlling_client", c)
        .Get();
}
std::string AskFirmware() {
    Word revision;
    const int result = rDxGetFirmwareRev(revision.Out());
    return Answer(result).Add("revision", revision).Get();
}
std::string AskActiveIp() {
    Text a, b, c;
    const int result = rDxGetActiveIpConf(a.Out(), b.Out(), c.Out(), 16);
    return Answer(result).Add("ip_address", a).Add("netmask", b).Add("gateway", c).Get();
}
std::string AskInterface() {
    Text name;
    const int result = rDxGetNetInterface(name.Out(), RDX_SVCS_TEXT_SIZE);
    return Answer(result).Add("interface", name).Get();
}
std::string AskIpConfiguration() {
    RDXConf configuration = {RDX_CONF_LENGTH, kBeforeNumber};
    const int result = rDxGetIpConfiguration(&configuration);
    return Answer(result).Add("mode", configuration.iMode).Get();
}
std::string AskSetIp() {
    Word reboot;
    const int result = rDxSetIpConfiguration(kMe, "10.0.0.2", "", "", 1, "", reboot.Out());
    return Answer(result).Add("reboot_required", reboot).Get();
}
std::string AskVehicle() {
    constexpr int n = kBeforeNumber;
    Measures m = {n, n, n, n, n, n, n, n, n};
    Word most;
    const int result = rDxGetVehicleStatus(kMe, &m, most.Out());
    return Answer(result)
        .Add("reserved0", m.iReserved0)
        .Add("terminal15", m.iTerminal15)
        .Add("terminal30", m.iTerminal30)
        .Add("reserved3", m.iReserved3)
        .Add("reserved4", m.iReserved4)
        .Add("kline", m.iKLine)
        .Add("lline", m.iLLine)
        .Add("td_period", m.iTdPeriod)
        .Add("td_valid", m.iTdValid)
        .Add("most", most)
        .Get();
}
std::string AskQuality() {
    Word quality;
    const int result = rDxGetTransmissionQuality(quality.Out());
    return Answer(result).Add("quality", quality).Get();
}
std::string AskSelfTest() { return Answer(rDxRunDeviceSelfTest(kMe, 0, 0)).Get(); }
std::string AskSelfTestStatus() {
    Word code, reason;
    const int result = rDxGetCurrentSelftestStatus(code.Out(), reason.Out());
    return Answer(result).Add("code", code).Add("reason", reason).Get();
}
std::string AskConfiguration() { return Answer(rDxInitiateCfgRequest(kMe, 1)).Get(); }
std::string AskSetAttributes() {
    char text[] = "new";
    char* texts[] = {text};
    int flags[] = {1};
    return Answer(rDxSetDeviceAttributes(kMe, texts, texts, flags, 1, 0)).Get();
}
std::string AskAttributes() {
    char** names = nullptr;
    char** values = nullptr;
    int* flags = nullptr;
    int count = kBeforeNumber;
    const int result = rdxGetDeviceAttributes(&names, &values, &flags, &count);
    std::string text = std::to_string(result) + " count=" + std::to_string(count) + " ";
    const auto print = [](const char* t) { return t != nullptr ? t : "(null)"; };
    for (int i = 0; result == 0 && i < count; ++i) {
        text += std::string(print(names[i])) + ":" + print(values[i]) + ":" + std::to_string(flags[i]) + " ";
    }
    if (result == 0) rdxFreeDeviceAttributes(names, values, flags, count);
    return text;
}
std::string AskFree() { return Answer(rdxFreeDeviceAttributes(nullptr, nullptr, nullptr, 0)).Get(); }
std::string AskUpdate() {
    return Answer(rDxUpdateDeviceFirmware(kMe, "http://10.0.0.7/kavo.bin", kAllBits, 0, "", "")).Get();
}

struct FunctionRow {
    Function function;
    std::string (*ask)();
    bool filled; // its outputs, when it succeeds
};
constexpr FunctionRow kAll[] = {
    {Function::kAllocateDevice, AskAllocate, false},
    {Function::kReleaseDevice, AskRelease, false},
    {Function::kGetOwner, AskOwner, true},
    {Function::kGetDeviceType, AskType, true},
    {Function::kGetAllocStatus, AskAllocStatus, true},
    {Function::kGetFirmwareRev, AskFirmware, true},
    {Function::kGetActiveIpConf, AskActiveIp, true},
    {Function::kGetNetInterface, AskInterface, true},
    {Function::kGetIpConfiguration, AskIpConfiguration, true},
    {Function::kSetIpConfiguration, AskSetIp, false},
    {Function::kGetVehicleStatus, AskVehicle, true},
    {Function::kGetTransmissionQuality, AskQuality, true},
    {Function::kRunDeviceSelfTest, AskSelfTest, false},
    {Function::kGetCurrentSelftestStatus, AskSelfTestStatus, true},
    {Function::kInitiateCfgRequest, AskConfiguration, false},
    {Function::kSetDeviceAttributes, AskSetAttributes, false},
    {Function::kGetDeviceAttributes, AskAttributes, true},
    {Function::kFreeDeviceAttributes, AskFree, false},
    {Function::kUpdateDeviceFirmware, AskUpdate, false},
};
static_assert(std::size(kAll) == kFunctions);

// --- Keys of every function -----------------------------------------------------------------------------

TEST_F(SimulatedScenario, SetsTheResultOfEveryFunction) {
    AskAllocate();
    const std::string before = ReadWhole(paths.state);
    const std::string attributes = AskAttributes();
    for (const FunctionRow& row : kAll) {
        SCOPED_TRACE(NameOf(row.function));
        for (const int result : {1, 2, 3, -1, 14, 9064, INT32_MAX, INT32_MIN}) {
            Play(Section(row.function) + "result = " + std::to_string(result) + "\n");
            const std::string answer = row.ask();
            EXPECT_TRUE(answer.starts_with(std::to_string(result) + " ")) << answer;
            EXPECT_EQ(ReadWhole(paths.state), before) << "nothing is done";
        }
        Play(Section(row.function) + "result = 0\n");
        const std::string answer = row.ask();
        EXPECT_TRUE(answer.starts_with("0 ")) << answer;
        if (row.filled) {
            EXPECT_FALSE(Holds(answer, "before") || Holds(answer, "4321")) << answer;
        }
        EXPECT_EQ(ReadWhole(paths.state), before) << "nothing is done";
    }
    Play("");
    EXPECT_EQ(AskAttributes(), attributes);
}

TEST_F(SimulatedScenario, LeavesTheOutputsOfAFailureAlone) {
    for (const FunctionRow& row : kAll) {
        SCOPED_TRACE(NameOf(row.function));
        Play(Section(row.function) + "result = 77\n");
        const std::string answer = row.ask();
        const std::size_t outputs = static_cast<std::size_t>(std::ranges::count(answer, '='));
        std::size_t before = 0;
        for (std::size_t at = 0; (at = answer.find('=', at)) != std::string::npos; ++at) {
            if (answer.compare(at + 1, 6, kBefore) == 0 || answer.compare(at + 1, 4, "4321") == 0) ++before;
        }
        const bool alwaysSaid = row.function == Function::kSetIpConfiguration; // that no reboot is needed
        EXPECT_EQ(before, alwaysSaid ? 0 : outputs) << answer;
    }
}

TEST_F(SimulatedScenario, DelaysEveryFunction) {
    for (const FunctionRow& row : kAll) {
        Play(Section(row.function) + "delay_ms = 250\n");
        slept = 0;
        row.ask();
        EXPECT_EQ(slept, 250) << NameOf(row.function);
    }
}

// --- Keys of one function -------------------------------------------------------------------------------

struct OutputCase {
    Function function;
    const char* key;
    const char* value;
    const char* printed;
};
using enum Function;
constexpr OutputCase kOutputs[] = {
    {kAllocateDevice, "output1", "a b", "a b"},
    {kAllocateDevice, "output2", "\" a\\tb \"", " a\tb "},
    {kReleaseDevice, "released_by", "10.0.0.7:1", "10.0.0.7:1"},
    {kGetOwner, "owner", "<Müller & \"Söhne\">", "<Müller & \"Söhne\">"},
    {kGetOwner, "allocated_by", "\"untouched\"", "untouched"},
    {kGetDeviceType, "type", "KAVO_ZR", "KAVO_ZR"},
    {kGetAllocStatus, "controlled", "0x10", "16"},
    {kGetAllocStatus, "allocation", "2", "2"},
    {kGetAllocStatus, "owner", "", ""},
    {kGetAllocStatus, "controlling_client", "10.0.0.7", "10.0.0.7"},
    {kGetFirmwareRev, "revision", "4294967295", sizeof(long) > 4 ? "4294967295" : "-1"},
    {kGetActiveIpConf, "ip_address", "10.0.0.2", "10.0.0.2"},
    {kGetActiveIpConf, "netmask", "a text that is too long", "a text that is "},
    {kGetActiveIpConf, "gateway", "\"\"", ""},
    {kGetNetInterface, "interface", "wlan7", "wlan7"},
    {kGetIpConfiguration, "mode", "-5", "-5"},
    {kSetIpConfiguration, "reboot_required", "1", "1"},
    {kGetVehicleStatus, "reserved0", "10", "10"},
    {kGetVehicleStatus, "terminal15", "2147483647", "2147483647"},
    {kGetVehicleStatus, "terminal30", "-2147483648", "-2147483648"},
    {kGetVehicleStatus, "reserved3", "13", "13"},
    {kGetVehicleStatus, "reserved4", "14", "14"},
    {kGetVehicleStatus, "kline", "5", "5"},
    {kGetVehicleStatus, "lline", "6", "6"},
    {kGetVehicleStatus, "td_period", "-7", "-7"},
    {kGetVehicleStatus, "td_valid", "0", "0"},
    {kGetVehicleStatus, "most", "-1", "-1"},
    {kGetTransmissionQuality, "quality", "42", "42"},
    {kGetCurrentSelftestStatus, "code", "42500", "42500"},
    {kGetCurrentSelftestStatus, "reason", "-1", "-1"},
};

// Keys that steer the device's work; each has a test of its own below.
const std::set<std::string> kSteering = {"short_ms", "detailed_ms", "await_limit_ms", "end_reason",
                                         "count",    "attribute",   "update_ms",      "new_revision"};

std::string (*AskOf(Function function))() {
    return std::ranges::find(kAll, function, &FunctionRow::function)->ask;
}

TEST_F(SimulatedScenario, SetsEveryOutputWhateverTheResult) {
    for (const OutputCase& row : kOutputs) {
        SCOPED_TRACE(std::string(NameOf(row.function)) + " " + row.key + " " + row.value);
        const std::string line = std::string(row.key) + " = " + row.value + "\n";
        const std::string expected = std::string(" ") + row.key + "=" + row.printed + " ";
        for (const char* const result : {"", "result = 0\n", "result = 99\n"}) {
            Play(Section(row.function) + result + line);
            const std::string answer = AskOf(row.function)();
            EXPECT_TRUE(Holds(answer, expected)) << answer;
        }
    }
}

TEST_F(SimulatedScenario, LeavesAnyOutputAlone) {
    for (const OutputCase& row : kOutputs) {
        SCOPED_TRACE(std::string(NameOf(row.function)) + " " + row.key);
        for (const char* const result : {"", "result = 0\n", "result = 1\n"}) {
            Play(Section(row.function) + result + row.key + " = untouched\n");
            const std::string answer = AskOf(row.function)();
            EXPECT_TRUE(Holds(answer, std::string(" ") + row.key + "=before ") ||
                        Holds(answer, std::string(" ") + row.key + "=4321 "))
                << answer;
        }
    }
}

TEST_F(SimulatedScenario, HasATestForEveryKey) {
    std::set<std::string> tested = {"/result", "/delay_ms"};
    for (const OutputCase& row : kOutputs) tested.insert(std::string(NameOf(row.function)) + "/" + row.key);
    for (const KeyRow& row : AllKeys()) {
        const std::string name(row.name);
        const std::string where(row.function ? NameOf(*row.function) : std::string_view{});
        EXPECT_TRUE(tested.contains(where + "/" + name) || kSteering.contains(name)) << where << ' ' << name;
    }
}

TEST_F(SimulatedScenario, SetsTheTimesOfASelfTest) {
    AskAllocate();
    ASSERT_EQ(rDxReleaseDevice("c", "She", nullptr, 1), 0);
    ASSERT_EQ(rDxAllocateDevice("c", kMe, "", "", nullptr, nullptr, 1), 0);
    Play("[rDxRunDeviceSelfTest]\nshort_ms = 100\ndetailed_ms = 300\nawait_limit_ms = 150\n");
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 1), 0);
    EXPECT_EQ(slept, 100);
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 1, 1), 5);
    EXPECT_EQ(slept, 250);
    Pass(149ms);
    EXPECT_EQ(AskSelfTestStatus(), "0 code=42500 reason=0 ");
    Pass(1ms);
    EXPECT_EQ(AskSelfTestStatus(), "0 code=0 reason=0 ");
    Play("[rDxRunDeviceSelfTest]\nshort_ms = 0\nawait_limit_ms = 0\n");
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 1), 0);
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 1, 1), 5);
    EXPECT_EQ(slept, 250);
}

TEST_F(SimulatedScenario, SetsHowASelfTestEnds) {
    ASSERT_EQ(rDxAllocateDevice("c", kMe, "", "", nullptr, nullptr, 1), 0);
    Play("[rDxRunDeviceSelfTest]\nend_reason = 9070\n");
    EXPECT_EQ(AskSelfTest(), "0 ");
    Play("");
    EXPECT_EQ(AskSelfTestStatus(), "0 code=42500 reason=0 ") << "not before its end";
    Pass(2s);
    EXPECT_EQ(AskSelfTestStatus(), "0 code=42502 reason=9070 ");
    Start();
    EXPECT_EQ(AskSelfTestStatus(), "0 code=42502 reason=9070 ");
    Play("[rDxRunDeviceSelfTest]\nend_reason = -1\n");
    EXPECT_EQ(AskSelfTest(), "0 ");
    Pass(2s);
    EXPECT_EQ(AskSelfTestStatus(), "0 code=42502 reason=-1 ");
}

TEST_F(SimulatedScenario, SetsTimeAndRevisionOfAnUpdate) {
    ASSERT_EQ(rDxAllocateDevice("c", kMe, "", "", nullptr, nullptr, 1), 0);
    Play("[rDxUpdateDeviceFirmware]\nupdate_ms = 50\nnew_revision = 5000\n");
    EXPECT_EQ(AskUpdate(), "0 ");
    Play("");
    Pass(49ms);
    EXPECT_EQ(AskFirmware(), "0 revision=4711 ");
    Pass(1ms);
    EXPECT_EQ(AskFirmware(), "0 revision=5000 ");
    EXPECT_EQ(AskUpdate(), "0 ");
    Pass(5s);
    EXPECT_EQ(AskFirmware(), "0 revision=5001 ");
    Play("[rDxUpdateDeviceFirmware]\nupdate_ms = 0\nnew_revision = -1\n");
    EXPECT_EQ(AskUpdate(), "0 ");
    EXPECT_EQ(AskFirmware(), "0 revision=-1 ");
    Start();
    EXPECT_EQ(AskFirmware(), "0 revision=-1 ");
}

TEST_F(SimulatedScenario, SetsTheAttributes) {
    Play("[rdxGetDeviceAttributes]\n"
         "attribute = \"Location\" \"<\\\"Bay\\\" & 1>\" persistent\n"
         "attribute = null \"value\" volatile\n"
         "attribute = \"null\"\tnull persistent\n"
         "attribute = bare word volatile\n");
    EXPECT_EQ(AskAttributes(),
              "0 count=4 Location:<\"Bay\" & 1>:1 (null):value:0 null:(null):1 bare:word:0 ");
}

TEST_F(SimulatedScenario, SetsTheNumberOfAttributes) {
    const std::string section =
        "[rdxGetDeviceAttributes]\nattribute = a b persistent\nattribute = c d volatile\n";
    Play(section + "count = 4\n");
    EXPECT_EQ(AskAttributes(), "0 count=4 a:b:1 c:d:0 (null):(null):0 (null):(null):0 ");
    Play(section + "count = 1\n");
    EXPECT_EQ(AskAttributes(), "0 count=1 a:b:1 ") << "and nothing is lost when they are handed back";
    Play(section + "count = 0\n");
    EXPECT_EQ(AskAttributes(), "0 count=0 ");
    Play("[rdxGetDeviceAttributes]\ncount = -1\n");
    EXPECT_EQ(AskAttributes(), "0 count=-1 ");
    Play("[rdxGetDeviceAttributes]\ncount = 3\n");
    EXPECT_EQ(AskAttributes(), "0 count=3 Location:Bay 1:1 DisplayName:Simulated device:0 (null):(null):0 ");
    Play(section + "result = 5\n");
    EXPECT_EQ(AskAttributes(), "5 count=4321 ");
}

TEST_F(SimulatedScenario, IsReadAgainWhenTheFileChanges) {
    // Same file, same length, same instant as far as the file system's clock can tell.
    for (const char digit : std::string("123456789")) {
        WriteWhole(paths.scenario, std::string("[rDxGetFirmwareRev]\nrevision = ") + digit + "\n");
        EXPECT_EQ(AskFirmware(), std::string("0 revision=") + digit + " ");
    }
    Play("[rDxGetFirmwareRev]\nrevision = 1\n");
    EXPECT_EQ(AskFirmware(), "0 revision=1 ") << "another file in its place";
}

TEST_F(SimulatedScenario, IsReadAgainWhenAnOldFileChanges) {
    const auto age = [this] {
        const timespec longAgo[2] = {{1000, 0}, {1000, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, paths.scenario.c_str(), longAgo, 0), 0);
    };
    WriteWhole(paths.scenario, "[rDxGetFirmwareRev]\nrevision = 1\n");
    age();
    EXPECT_EQ(AskFirmware(), "0 revision=1 ");
    EXPECT_EQ(AskFirmware(), "0 revision=1 ");
    WriteWhole(paths.scenario, "[rDxGetFirmwareRev]\nrevision = 22\n");
    age();
    EXPECT_EQ(AskFirmware(), "0 revision=22 ") << "the size has changed";
    WriteWhole(paths.scenario, "[rDxGetFirmwareRev]\nrevision = 33\n");
    EXPECT_EQ(AskFirmware(), "0 revision=33 ") << "the time has changed";
}

TEST_F(SimulatedScenario, SaysAMistakeOnceAndPlaysTheRest) {
    CaptureStderr();
    Play("[rDxGetOwner]\nvolts = 1\nowner = me\nallocated_by = you\n");
    EXPECT_EQ(AskOwner(), "0 owner=me allocated_by=you ");
    AskOwner();
    EXPECT_EQ(
        GetCapturedStderr(),
        "libDxSvcs: " + paths.scenario +
            ":2: unknown key 'volts' in [rDxGetOwner]; accepted: result, delay_ms, owner, allocated_by\n");
}

TEST_F(SimulatedScenario, DoesWithoutAFileUntilThereIsOne) {
    std::filesystem::remove(paths.scenario);
    const std::string none =
        "libDxSvcs: " + paths.scenario + ": No such file or directory; there is no scenario\n";
    CaptureStderr();
    EXPECT_EQ(AskFirmware(), "0 revision=4711 ");
    AskFirmware();
    EXPECT_EQ(GetCapturedStderr(), none);
    Play("[rDxGetFirmwareRev]\nrevision = 1\n");
    CaptureStderr();
    EXPECT_EQ(AskFirmware(), "0 revision=1 ");
    std::filesystem::remove(paths.scenario);
    EXPECT_EQ(AskFirmware(), "0 revision=4711 ");
    EXPECT_EQ(GetCapturedStderr(), none);

    std::filesystem::create_directory(paths.scenario);
    CaptureStderr();
    EXPECT_EQ(AskFirmware(), "0 revision=4711 ");
    AskFirmware();
    EXPECT_EQ(GetCapturedStderr(),
              "libDxSvcs: " + paths.scenario + ": not a regular file; there is no scenario\n");
    std::filesystem::remove(paths.scenario);
    ASSERT_EQ(mkfifo(paths.scenario.c_str(), 0600), 0);
    EXPECT_EQ(AskFirmware(), "0 revision=4711 ") << "nobody waits for a writer";
}

TEST_F(SimulatedScenario, RefusesAFileThatIsFarTooLarge) {
    Play("[rDxGetFirmwareRev]\nrevision = 1\n" + std::string(kFileMax, '#'));
    CaptureStderr();
    EXPECT_EQ(AskFirmware(), "0 revision=4711 ");
    EXPECT_EQ(GetCapturedStderr(),
              "libDxSvcs: " + paths.scenario + ": File too large; there is no scenario\n");
}

TEST_F(SimulatedScenario, IsNotLookedForWithoutAPath) {
    paths.scenario.clear();
    CaptureStderr();
    Start();
    EXPECT_EQ(AskFirmware(), "0 revision=4711 ");
    EXPECT_EQ(GetCapturedStderr(), "");
}

} // namespace
