// Every method as a workstation sees it: each row of the status-code table and each case of its own, with a
// device that does what a scenario says, the whole answer compared byte for byte with its file in golden/.

#include "tests/support/client.h"
#include "tests/support/interfaces.h"
#include "tests/system/curl_client.h"
#include "tests/system/device_server.h"
#include "tests/system/messages.h"
#include "tests/system/modes.h"

#include <algorithm>
#include <climits>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace rdx::test {
namespace {

// --- The status-code table ------------------------------------------------------------------------------

enum class Detail { kNone, kReason, kOwner, kReleasedBy };

struct Code {
    const char* method;
    const char* function;      // the device's, which gives the result
    std::optional<int> result; // nothing: any other than 0 without a row of its own
    int code;
    int reason;
    Detail detail;
};

constexpr auto kOther = std::nullopt;

constexpr Code kCodes[] = {
    {"rdxAllocateDevice", "rDxAllocateDevice", 0, 0, 0, Detail::kNone},
    {"rdxAllocateDevice", "rDxAllocateDevice", 1, 42030, 9001, Detail::kOwner},
    {"rdxAllocateDevice", "rDxAllocateDevice", 3, 42101, 9002, Detail::kReason},
    {"rdxAllocateDevice", "rDxAllocateDevice", kOther, 42101, 9000, Detail::kReason},
    {"rdxReleaseDevice", "rDxReleaseDevice", 0, 0, 0, Detail::kNone},
    {"rdxReleaseDevice", "rDxReleaseDevice", 1, 42102, 9011, Detail::kReleasedBy},
    {"rdxReleaseDevice", "rDxReleaseDevice", 2, 42020, 9012, Detail::kOwner},
    {"rdxReleaseDevice", "rDxReleaseDevice", 3, 42102, 9013, Detail::kReason},
    {"rdxReleaseDevice", "rDxReleaseDevice", kOther, 42102, 9014, Detail::kReason},
    {"rdxInitiateCfgRequest", "rDxInitiateCfgRequest", 0, 0, 0, Detail::kNone},
    {"rdxInitiateCfgRequest", "rDxInitiateCfgRequest", 1, 42601, 9011, Detail::kReason},
    {"rdxInitiateCfgRequest", "rDxInitiateCfgRequest", 2, 42020, 9012, Detail::kOwner},
    {"rdxInitiateCfgRequest", "rDxInitiateCfgRequest", 3, 42601, 9034, Detail::kReason},
    {"rdxInitiateCfgRequest", "rDxInitiateCfgRequest", kOther, 42601, 9080, Detail::kReason},
    {"rdxSetIpConfiguration", "rDxSetIpConfiguration", 0, 0, 0, Detail::kNone},
    {"rdxSetIpConfiguration", "rDxSetIpConfiguration", 1, 42201, 9011, Detail::kReason},
    {"rdxSetIpConfiguration", "rDxSetIpConfiguration", 2, 42020, 9012, Detail::kOwner},
    {"rdxSetIpConfiguration", "rDxSetIpConfiguration", 3, 42201, 9041, Detail::kReason},
    {"rdxSetIpConfiguration", "rDxSetIpConfiguration", kOther, 42201, 9040, Detail::kReason},
    {"rdxSetDeviceAttributes", "rDxSetDeviceAttributes", 0, 0, 0, Detail::kNone},
    {"rdxSetDeviceAttributes", "rDxSetDeviceAttributes", 1, 42301, 9011, Detail::kReason},
    {"rdxSetDeviceAttributes", "rDxSetDeviceAttributes", 2, 42020, 9012, Detail::kOwner},
    {"rdxSetDeviceAttributes", "rDxSetDeviceAttributes", 3, 42301, 9002, Detail::kReason},
    {"rdxSetDeviceAttributes", "rDxSetDeviceAttributes", -1, 42301, 9052, Detail::kReason},
    {"rdxSetDeviceAttributes", "rDxSetDeviceAttributes", kOther, 42301, 9051, Detail::kReason},
    {"rdxRunDeviceSelfTest", "rDxRunDeviceSelfTest", 0, 0, 0, Detail::kNone},
    {"rdxRunDeviceSelfTest", "rDxRunDeviceSelfTest", 1, 42502, 9011, Detail::kReason},
    {"rdxRunDeviceSelfTest", "rDxRunDeviceSelfTest", 2, 42020, 9012, Detail::kOwner},
    {"rdxRunDeviceSelfTest", "rDxRunDeviceSelfTest", 3, 42502, 9062, Detail::kReason},
    {"rdxRunDeviceSelfTest", "rDxRunDeviceSelfTest", 5, 42501, 9065, Detail::kReason},
    {"rdxRunDeviceSelfTest", "rDxRunDeviceSelfTest", 9064, 42501, 9064, Detail::kReason},
    {"rdxRunDeviceSelfTest", "rDxRunDeviceSelfTest", kOther, 42501, 9063, Detail::kReason},
    {"rdxUpdateDeviceFirmware", "rDxUpdateDeviceFirmware", 0, 0, 0, Detail::kNone},
    {"rdxUpdateDeviceFirmware", "rDxUpdateDeviceFirmware", 1, 42030, 9011, Detail::kReason},
    {"rdxUpdateDeviceFirmware", "rDxUpdateDeviceFirmware", 2, 42020, 9012, Detail::kOwner},
    {"rdxUpdateDeviceFirmware", "rDxUpdateDeviceFirmware", 3, 42030, 9034, Detail::kReason},
    {"rdxUpdateDeviceFirmware", "rDxUpdateDeviceFirmware", 10, 42401, 9031, Detail::kReason},
    {"rdxUpdateDeviceFirmware", "rDxUpdateDeviceFirmware", 11, 42404, 9032, Detail::kReason},
    {"rdxUpdateDeviceFirmware", "rDxUpdateDeviceFirmware", 12, 42403, 9033, Detail::kReason},
    {"rdxUpdateDeviceFirmware", "rDxUpdateDeviceFirmware", 14, 42403, 9035, Detail::kReason},
    {"rdxUpdateDeviceFirmware", "rDxUpdateDeviceFirmware", kOther, 42403, 13, Detail::kReason},
    {"rdxGetVehicleStatus", "rDxGetVehicleStatus", 0, 0, 0, Detail::kNone},
    {"rdxGetVehicleStatus", "rDxGetVehicleStatus", 1, 42030, 9011, Detail::kReason},
    {"rdxGetVehicleStatus", "rDxGetVehicleStatus", 2, 42020, 9012, Detail::kOwner},
    {"rdxGetVehicleStatus", "rDxGetVehicleStatus", 3, -1, 9072, Detail::kReason},
    {"rdxGetVehicleStatus", "rDxGetVehicleStatus", kOther, -1, 9071, Detail::kReason},
};

std::string FileOf(const Code& code) { return code.result ? std::to_string(*code.result) : "other"; }

bool HasRow(const std::string& method, int result) {
    return std::ranges::any_of(
        kCodes, [&](const Code& code) { return code.method == method && code.result == result; });
}

// The results that a row stands for: its own, or some of those that no row names.
std::vector<int> ResultsOf(const Code& code) {
    if (code.result) return {*code.result};
    std::vector<int> results;
    for (const int result : {INT_MIN, -2, -1, 1, 2, 3, 4, 5, 10, 11, 13, 14, 9064, INT_MAX}) {
        if (!HasRow(code.method, result)) results.push_back(result);
    }
    return results;
}

// --- The rows -------------------------------------------------------------------------------------------

struct Row {
    std::string method;
    std::string golden;
    std::string scenario;    // in addition to the everyday one
    std::string packet = {}; // instead of the method's good one
};

constexpr const char* kTestRuns = "[rDxGetCurrentSelftestStatus]\ncode = 42500\n";

void AddCodes(std::vector<Row>& rows) {
    for (const Code& code : kCodes) {
        // A self test runs where one was started, could not be started for another one, or took too long.
        const bool testRuns = code.method == std::string("rdxRunDeviceSelfTest") &&
                              std::set<std::optional<int>>{0, 3, 5}.contains(code.result);
        for (const int result : ResultsOf(code)) {
            const std::string scenario = Result(code.function, result) + (testRuns ? kTestRuns : "");
            rows.push_back({code.method, FileOf(code), scenario});
            if (code.detail != Detail::kOwner) continue;
            rows.push_back({code.method, "owner_unknown", scenario + Result("rDxGetOwner", -1)});
        }
    }
}

void AddOwnership(std::vector<Row>& rows) {
    const std::string released = Result("rDxReleaseDevice", 1);
    rows.push_back({"rdxReleaseDevice", "released_by_unknown", released + "released_by = untouched\n"});
    rows.push_back({"rdxReleaseDevice", "released_by_unknown", released + "released_by = \"\"\n"});
    const std::string taken = Result("rDxAllocateDevice", 1) + "output1 = a\noutput2 = b\n";
    rows.push_back({"rdxAllocateDevice", "1", taken});
    // An owner's name and a client's address of just the length that is allowed.
    const auto longOwner = [](const char* method) {
        return ArgumentsWith(method, "DeviceOwner", StringValue(std::string(32, 'o')));
    };
    rows.push_back(
        {"rdxAllocateDevice", "0", Result("rDxAllocateDevice", 0), longOwner("rdxAllocateDevice")});
    rows.push_back({"rdxAllocateDevice", "0", Result("rDxAllocateDevice", 0),
                    ArgumentsWith("rdxAllocateDevice", "IfhClientIpAddr", StringValue("1234567890123456"))});
}

void AddMaintenance(std::vector<Row>& rows) {
    const std::string method = "rdxSetIpConfiguration";
    const std::string set = Result("rDxSetIpConfiguration", 0);
    const std::string refused = Result("rDxSetIpConfiguration", 3);
    rows.push_back({method, "reboot_required", set + "reboot_required = 1\n"});
    rows.push_back({method, "reboot_required", set + "reboot_required = -1\n"});
    rows.push_back({method, "0", set + "reboot_required = 0\n"});
    rows.push_back({method, "0", set + "reboot_required = untouched\n"});
    rows.push_back({method, "refused_reboot_required", refused + "reboot_required = 7\n"});
    rows.push_back({method, "3", refused + "reboot_required = untouched\n"});
    for (const char* length : {"1234567890123456", ""}) {
        for (const char* name : {"IpAddress", "Netmask", "DefaultGateway"}) {
            rows.push_back({method, "0", set, ArgumentsWith(method, name, StringValue(length))});
        }
    }
}

void AddSelfTests(std::vector<Row>& rows) {
    const std::string method = "rdxRunDeviceSelfTest";
    const std::string started = Result("rDxRunDeviceSelfTest", 0);
    const std::string refused = Result("rDxRunDeviceSelfTest", 3);
    const std::string anothers = Result("rDxRunDeviceSelfTest", 2);
    const std::string notAsked = Result("rDxGetCurrentSelftestStatus", -1);
    const std::string unknown = "[rDxGetCurrentSelftestStatus]\nreason = -1\n";
    const std::string failed = "[rDxGetCurrentSelftestStatus]\nreason = 9070\n";
    const std::string awaited = ArgumentsWith(method, "AwaitResults", "<boolean value='true'/>");
    const std::string plain = ArgumentsWith(method, "AwaitResults", "<number>0</number>");
    const auto detailed = [&](const std::string& packet) {
        const std::string from = "SelftestShort";
        const std::string to = "selftestdetailed";
        return std::string(packet).replace(packet.find(from), from.size(), to);
    };
    rows.insert(rows.end(), {{method, "passed", started},
                             {method, "passed", started, awaited},
                             {method, "selftest_unknown", started + unknown},
                             {method, "selftest_unknown", started + unknown, awaited},
                             {method, "reason_reported", started + failed},
                             {method, "reason_reported", started + failed + "code = 42500\n", awaited},
                             {method, "selftest_not_asked", started + notAsked},
                             {method, "selftest_not_asked", started + unknown + notAsked, plain},
                             {method, "selftest_not_asked", started + notAsked, detailed(plain)},
                             {method, "awaited_not_asked", started + notAsked, awaited},
                             {method, "awaited_not_asked_refused", refused + notAsked, awaited},
                             {method, "awaited_not_asked_owned", anothers + notAsked, awaited},
                             {method, "9064", started, detailed(awaited)},
                             {method, "9064_not_asked", started + notAsked, detailed(awaited)}});
}

void AddVehicle(std::vector<Row>& rows) {
    const std::string method = "rdxGetVehicleStatus";
    const std::string measured = Result("rDxGetVehicleStatus", 0);
    const auto add = [&](const std::string& golden, const std::string& keys) {
        rows.push_back({method, golden, measured + keys});
    };
    add("lines_2_3", "kline = 2\nlline = 3\n");
    add("lines_2_3", "kline = 3\nlline = 2\n");
    for (const char* lines : {"kline = 0\nlline = 1\n", "kline = 4\nlline = 7\n", "kline = -1\nlline = 8\n",
                              "kline = 2147483647\nlline = -2147483648\n"}) {
        add("lines_others", lines);
    }
    add("most_absent", "most = -1\n");
    add("most_0", "most = 0\n");
    add("most_0", "most = untouched\n");
    add("0", "most = 2\n");
    add("period_7", "td_period = 7\n");
    add("period_minus_7", "td_period = -7\n");
    add("td_invalid", "td_valid = 0\n");
    add("0", "td_valid = -1\n");
    add("voltages_below_zero", "terminal15 = -1\nterminal30 = -2147483648\n");
    add("0", "reserved0 = 1\nreserved3 = 2\nreserved4 = 3\n");
    add("quality_unknown", Result("rDxGetTransmissionQuality", -1));
    add("quality_unknown", "[rDxGetTransmissionQuality]\nquality = untouched\n");
    rows.push_back(
        {method, "0", measured, ArgumentsWith(method, "DeviceOwner", StringValue(std::string(32, 'o')))});
}

constexpr const char* kAllQueriesFail = R"(
[rDxGetDeviceType]
result = -1
[rDxGetCurrentSelftestStatus]
result = -1
[rDxGetIpConfiguration]
result = -1
[rDxGetActiveIpConf]
result = -1
ip_address = untouched
netmask = untouched
gateway = untouched
[rDxGetFirmwareRev]
result = -1
[rDxGetAllocStatus]
result = -1
[rdxGetDeviceAttributes]
result = -1
)";

constexpr const char* kIncompleteAttributes = R"(
[rdxGetDeviceAttributes]
attribute = "Location" "Bay 1" persistent
attribute = null "nameless" persistent
attribute = "Note" null volatile
attribute = null null volatile
attribute = "" "" volatile
)";

// Adds a row of rdxGetDeviceStatus.
using Adder = std::function<void(const std::string& golden, const std::string& scenario)>;

void AddTypes(const Adder& add) {
    const auto addType = [&](const std::string& golden, const std::string& type) {
        add(golden, "[rDxGetDeviceType]\ntype = " + type + "\n");
    };
    addType("0", "Kavo");
    addType("qurt", "QURT");
    addType("qrt", "QRT");
    addType("solan", "SOLAN");
    addType("mkt", "mKt");
    addType("kavo_zr", "kavo_zr");
    for (const char* type : {"KAVO_", "KAV", "\"\"", "untouched", "\" KAVO\""}) addType("type_unknown", type);
    add("type_failed", Result("rDxGetDeviceType", 1));
}

void AddAddresses(const Adder& add) {
    const std::string mode = "[rDxGetIpConfiguration]\nmode = ";
    add("dhcp_1", mode + "1\n");
    add("dhcp_3", mode + "3\n");
    for (const char* other : {"0", "4", "-1", "untouched"}) add("dhcp_others", mode + other + "\n");
    add("ip_configuration_failed", Result("rDxGetIpConfiguration", 1));
    add("active_ip_untouched", "[rDxGetActiveIpConf]\nip_address = untouched\nnetmask = untouched\n"
                               "gateway = untouched\n");
    add("0", Result("rDxGetActiveIpConf", -1));
    add("interface_missing", "[rDxGetNetInterface]\ninterface = nosuchinterface\n");
}

void AddAllocations(const Adder& add) {
    const std::string allocation = "[rDxGetAllocStatus]\n";
    const std::string open = allocation + "controlled = 0\nallocation = 0\nowner = \"\"\n";
    add("open", open);
    add("solan_open", open + "[rDxGetDeviceType]\ntype = SOLAN\n");
    add("mkt_open", open + "[rDxGetDeviceType]\ntype = MKT\n");
    add("allocation_untouched",
        allocation + "allocation = untouched\nowner = untouched\ncontrolling_client = untouched\n");
    add("0", allocation + "controlled = -1\n");
    add("allocation_failed", Result("rDxGetAllocStatus", 1));
}

void AddAttributes(const Adder& add) {
    add("attributes_failed", Result("rdxGetDeviceAttributes", 1));
    add("attributes_none", "[rdxGetDeviceAttributes]\ncount = 0\n");
    add("attributes_none", "[rdxGetDeviceAttributes]\ncount = -1\n");
    add("attributes_null", kIncompleteAttributes);
    add("0", Result("rdxFreeDeviceAttributes", 1));
}

void AddSelfTests(const Adder& add) {
    const std::string test = "[rDxGetCurrentSelftestStatus]\n";
    add("selftest_running", test + "code = 42500\n");
    add("selftest_unknown", test + "reason = -1\n");
    add("selftest_not_asked", Result("rDxGetCurrentSelftestStatus", 1));
    add("reason_reported", test + "reason = 9070\n");
}

void AddDeviceStatus(std::vector<Row>& rows) {
    const Adder add = [&](const std::string& golden, const std::string& scenario) {
        rows.push_back({"rdxGetDeviceStatus", golden, scenario});
    };
    add("0", "");
    AddTypes(add);
    AddAddresses(add);
    add("firmware_failed", Result("rDxGetFirmwareRev", 1));
    add("firmware_all_bits_set", "[rDxGetFirmwareRev]\nrevision = -1\n");
    AddAllocations(add);
    AddAttributes(add);
    AddSelfTests(add);
    add("queries_failed", kAllQueriesFail);
}

const std::vector<Row>& AllRows() {
    static const std::vector<Row> kRows = [] {
        std::vector<Row> rows = {
            {"rdxGetVersion", "0", ""},
            {"rdxGetVersion", "0", "", ArgumentsWith("rdxGetVersion", "version", NumberValue(7))},
            {"rdxGetVersion", "0", "", ArgumentsWith("rdxGetVersion", "version", "<boolean value='false'/>")},
            {"rdxUnknown", "0", "", Arguments("rdxGetVersion")},
            {"rdxUnknown", "0", "", Arguments("rdxAllocateDevice")}};
        AddCodes(rows);
        AddOwnership(rows);
        AddMaintenance(rows);
        AddSelfTests(rows);
        AddVehicle(rows);
        AddDeviceStatus(rows);
        return rows;
    }();
    return kRows;
}

// --- What the machine says ------------------------------------------------------------------------------

long UpTimeOfTheMachine() {
    struct sysinfo info {};
    return sysinfo(&info) == 0 ? info.uptime : 0;
}

std::string NameOfTheMachine() {
    char name[256] = "";
    return gethostname(name, sizeof name) == 0 ? name : "QurtPc";
}

// The hardware address of an interface, or an empty text.
std::string AddressOfTheMachine(const std::string& interface) { return HardwareAddresses()[interface]; }

// The digits that stand for {UpTime} in an answer, if nothing but digits does.
std::string UpTimeIn(const std::string& answer) {
    const std::string open = "<var name='UpTime'><number>";
    const std::size_t begin = answer.find(open);
    if (begin == std::string::npos) return {};
    const std::size_t digits = begin + open.size();
    return answer.substr(digits, answer.find_first_not_of("0123456789", digits) - digits);
}

// An expected answer with the machine's own figures in the places that vary. `earliest` is when the machine
// was asked before the answer came.
std::string Filled(std::string golden, const std::string& answer, long earliest,
                   const std::string& interface = "lo") {
    if (golden.find("{UpTime}") != std::string::npos) {
        const std::string upTime = UpTimeIn(answer);
        const long value = upTime.empty() ? -1 : std::stol(upTime);
        EXPECT_GE(value, earliest);
        EXPECT_LE(value, UpTimeOfTheMachine());
        Replace(golden, "{UpTime}", upTime);
    }
    const std::string name = StringValue(NameOfTheMachine());
    Replace(golden, "<string>{Hostname}</string>", name);
    Replace(golden, "{MacAddress}", AddressOfTheMachine(interface));
    return golden;
}

// --- Answers --------------------------------------------------------------------------------------------

class Answers : public testing::TestWithParam<std::tuple<std::string, int>> {
protected:
    void SetUp() override {
        ASSERT_TRUE(server_.Start());
        curl_ = std::make_unique<CurlClient>(server_.Port());
        curl_->UseCredentials(std::string(kUser) + ":" + kPassword);
    }

    void ExpectGolden(const CurlAnswer& answer, const std::string& golden, long earliest) {
        EXPECT_EQ(answer.error, "");
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.head + answer.body, Answer(200, Filled(golden, answer.body, earliest)));
    }

    DeviceServer server_{{.threads = std::get<1>(GetParam())}};
    std::unique_ptr<CurlClient> curl_;
};

std::vector<std::string> AnsweredNames() {
    std::vector<std::string> names = Methods();
    names.emplace_back("rdxUnknown");
    return names;
}

INSTANTIATE_TEST_SUITE_P(
    Of, Answers, testing::Combine(testing::ValuesIn(AnsweredNames()), testing::Values(1, kSeveralThreads)),
    [](const auto& row) { return std::get<0>(row.param) + ModeName(std::get<1>(row.param)); });

TEST_P(Answers, AreByteForByteWhatTheirFilesHold) {
    int asked = 0;
    for (const Row& row : AllRows()) {
        if (row.method != std::get<0>(GetParam())) continue;
        SCOPED_TRACE(row.golden + "\n" + row.scenario + row.packet);
        server_.Play(kEveryday + row.scenario);
        const std::string packet = row.packet.empty() ? Arguments(row.method) : row.packet;
        const std::string golden = Golden(row.method, row.golden);
        const long earliest = UpTimeOfTheMachine();
        ExpectGolden(curl_->Post("/rDx?FunctionName=" + row.method, packet), golden, earliest);
        ExpectGolden(curl_->PostForm("/rDx", {{"FunctionName", row.method}, {"FunctionArgs", packet}}),
                     golden, earliest);
        ++asked;
    }
    EXPECT_GT(asked, 0);
    // The device says so when a scenario makes no sense to it.
    EXPECT_EQ(CountOf("libDxSvcs:", server_.Process().Errors()), 0) << server_.Process().Errors();
}

// The files, the rows that use them, and the table of codes are about the same things.
TEST(GoldenFiles, AreAllUsed) {
    std::set<std::string> used;
    for (const Row& row : AllRows()) used.insert(GoldenPath(row.method, row.golden));
    for (const std::string& method : Methods()) used.insert(GoldenPath(method, "arguments"));
    std::set<std::string> present;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(RDX_TEST_GOLDEN)) {
        if (entry.path().extension() == ".xml") present.insert(entry.path());
    }
    EXPECT_EQ(present, used);
}

std::string DetailText(const Code& code) {
    switch (code.detail) {
    case Detail::kReason:
        return "<struct><var name='Reason'><number>" + std::to_string(code.reason) +
               "</number></var></struct>";
    case Detail::kOwner:
        return "<struct><var name='AllocatedBy'><string>10.0.0.7:40123</string></var>"
               "<var name='DeviceOwner'><string>Workstation 7</string></var></struct>";
    case Detail::kReleasedBy:
        return "<struct><var name='ReleasedBy'><string>10.0.0.7:40123</string></var></struct>";
    case Detail::kNone:
        break;
    }
    return "<null/>";
}

TEST(GoldenFiles, HoldTheCodesOfTheTable) {
    for (const Code& code : kCodes) {
        const std::string status = "<data><struct><var name='Status'><struct><var name='code'><number>" +
                                   std::to_string(code.code) + "</number></var><var name='msg'><number>" +
                                   std::to_string(code.reason) +
                                   "</number></var><var name='params'><array length='1'>" + DetailText(code) +
                                   "</array></var></struct></var>";
        EXPECT_EQ(CountOf(status, Golden(code.method, FileOf(code))), 1) << code.method << FileOf(code);
    }
}

// The table's rows that no result of the method's own function leads to.
TEST(GoldenFiles, HoldTheCodesThatAreNoResults) {
    struct Other {
        const char* method;
        const char* golden;
        const char* text;
    };
    constexpr Other kOthers[] = {
        {"rdxUnknown", "0",
         "<var name='Status'><struct><var name='code'><number>42010</number></var><var name='msg'>"
         "<number>9003</number></var><var name='params'><null/></var></struct></var>"},
        {"rdxRunDeviceSelfTest", "selftest_not_asked",
         "<var name='SelftestStatus'><struct><var name='code'><number>42501</number></var><var name='msg'>"
         "<number>9061</number></var><var name='params'><array length='1'><struct><var name='Reason'>"
         "<number>9061</number></var></struct></array></var></struct></var>"},
        {"rdxRunDeviceSelfTest", "selftest_unknown",
         "<var name='SelftestStatus'><struct><var name='code'><number>42501</number></var><var name='msg'>"
         "<number>9061</number></var><var name='params'><array length='1'><null/></array></var></struct>"},
        {"rdxRunDeviceSelfTest", "reason_reported",
         "<var name='SelftestStatus'><struct><var name='code'><number>42502</number></var><var name='msg'>"
         "<number>9070</number></var><var name='params'><array length='1'><null/></array></var></struct>"},
        {"rdxGetDeviceStatus", "selftest_not_asked",
         "<var name='SelftestStatus'><struct><var name='code'><number>42501</number></var><var name='msg'>"
         "<number>9061</number></var><var name='params'><null/></var></struct></var>"},
        {"rdxGetDeviceStatus", "reason_reported",
         "<var name='SelftestStatus'><struct><var name='code'><number>42502</number></var><var name='msg'>"
         "<number>9070</number></var><var name='params'><null/></var></struct></var>"},
    };
    for (const Other& other : kOthers) {
        EXPECT_EQ(CountOf(other.text, Golden(other.method, other.golden)), 1) << other.method << other.golden;
    }
}

TEST(GoldenFiles, AreThereForTheRowsOfEveryMethod) {
    std::set<std::string> methods;
    for (const Code& code : kCodes) methods.insert(code.method);
    EXPECT_EQ(methods.size() + 2, Methods().size()); // the two others do not report a result
}

// --- The machine's own figures --------------------------------------------------------------------------

class OwnFigures : public testing::Test {
protected:
    // The answer to rdxGetDeviceStatus compared with one that shows this interface's address.
    void ExpectAddressOf(DeviceServer& server, const std::string& scenario, const std::string& interface) {
        SCOPED_TRACE(scenario);
        server.Play(kEveryday + scenario);
        const long earliest = UpTimeOfTheMachine();
        const Reply answer = Ask(server.Port(), Call("rdxGetDeviceStatus", Arguments("rdxGetDeviceStatus")));
        EXPECT_EQ(answer.body, Filled(Golden("rdxGetDeviceStatus", "0"), answer.body, earliest, interface));
    }
};

TEST_F(OwnFigures, HoldTheAddressOfTheInterfaceThatTheDeviceNames) {
    DeviceServer server;
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(AddressOfTheMachine("lo"), "00:00:00:00:00:00");
    for (const auto& [name, address] : HardwareAddresses()) {
        ExpectAddressOf(server, "[rDxGetNetInterface]\ninterface = " + name + "\n", name);
    }
}

TEST_F(OwnFigures, HoldTheAddressOfEth0WhereTheDeviceNamesNoInterface) {
    DeviceServer server;
    ASSERT_TRUE(server.Start());
    const std::string section = "[rDxGetNetInterface]\n";
    ExpectAddressOf(server, section + "result = -1\n", "eth0"); // although it filled in a name
    ExpectAddressOf(server, section + "interface = \"\"\n", "eth0");
    ExpectAddressOf(server, section + "interface = untouched\n", "eth0");
}

} // namespace
} // namespace rdx::test
