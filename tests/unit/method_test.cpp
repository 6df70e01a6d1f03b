#include "rDxsd/method.h"

#include "rDxsd/rDxsd.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/method_call.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace rdx {
namespace {

using test::kNullValue;
using test::Members;
using test::NumberValue;
using test::TextValue;

// ---------------------------------------------------------------------------------------------- Arguments

// A call that brings the members.
class CallWith {
public:
    explicit CallWith(const Members& members) : CallWith(test::Arguments(members)) {}
    explicit CallWith(std::string args) : args_(std::move(args)) { call_.pszWddxArgs = args_.data(); }
    CallWith(const CallWith&) = delete;
    CallWith& operator=(const CallWith&) = delete;

    operator const TavrinRequest&() const { return call_; }

private:
    std::string args_;
    TavrinRequest call_{};
};

const Members kMembers = {{"text", TextValue("a<b")},
                          {"empty", TextValue("")},
                          {"number", NumberValue(-7)},
                          {"zero", NumberValue(0)},
                          {"float", "<number>1.5</number>"},
                          {"true", test::FlagValue(true)},
                          {"false", test::FlagValue(false)},
                          {"null", kNullValue},
                          {"array", test::ArrayValue({NumberValue(1)})},
                          {"struct", Members{{"text", TextValue("inside")}}.Struct()},
                          {"text", NumberValue(1)},
                          {"number", TextValue("x")}};

// A method of the rows given.
MethodRow MethodOf(std::span<const ArgumentRow> rows, std::span<const KeyRow> keys = {}) {
    return {"rdxTest", ProcessUnknown, Access::kPublic, "name", rows, {}, keys};
}

// Whether the members of a call fit the one row.
bool Fit(const Members& members, const ArgumentRow& row) {
    const CallWith call(members);
    return Arguments(call, MethodOf({&row, 1})).Fit();
}

TEST(Arguments, FitTheirTypes) {
    using enum ArgumentType;
    const std::pair<const char*, std::vector<ArgumentType>> types[] = {
        {"text", {kText}},
        {"empty", {kText}},
        {"number", {kInteger, kIntegerOrFlag}},
        {"zero", {kInteger, kIntegerOrFlag}},
        {"true", {kIntegerOrFlag}},
        {"false", {kIntegerOrFlag}},
        {"array", {kArray}},
        {"float", {}},
        {"struct", {}},
    };
    for (const auto& [name, expected] : types) {
        for (const ArgumentType type : {kText, kInteger, kIntegerOrFlag, kArray}) {
            const bool fits = std::ranges::find(expected, type) != expected.end();
            for (const Presence presence : {Presence::kRequired, Presence::kOptional}) {
                EXPECT_EQ(Fit(kMembers, {name, type, presence}), fits)
                    << name << ' ' << static_cast<int>(type);
            }
        }
    }
}

TEST(Arguments, MayBeAbsentWhenTheyAreOptional) {
    using enum ArgumentType;
    for (const char* const name : {"null", "missing", "Text", "tex", ""}) {
        for (const ArgumentType type : {kText, kInteger, kIntegerOrFlag, kArray}) {
            EXPECT_TRUE(Fit(kMembers, {name, type, Presence::kOptional})) << name;
            EXPECT_FALSE(Fit(kMembers, {name, type, Presence::kRequired})) << name;
        }
    }
}

TEST(Arguments, FitNoTextThatIsTooLong) {
    const Members members = {{"text", TextValue(std::string(32, '&'))}};
    const std::pair<std::size_t, bool> limits[] = {
        {32, true}, {33, true}, {kNoLimit, true}, {31, false}, {0, false}};
    for (const auto& [longest, fits] : limits) {
        for (const Presence presence : {Presence::kRequired, Presence::kOptional}) {
            EXPECT_EQ(Fit(members, {"text", ArgumentType::kText, presence, longest}), fits) << longest;
        }
    }
    EXPECT_EQ(kOwnerMax, 32U);
    EXPECT_EQ(kAddressMax, 16U);
}

TEST(Arguments, FitTogetherOrNotAtAll) {
    using enum ArgumentType;
    const ArgumentRow rows[] = {{"text", kText, Presence::kRequired},
                                {"number", kInteger, Presence::kRequired}};
    const Members good = {{"number", NumberValue(1)}, {"text", TextValue("x")}, {"else", kNullValue}};
    const auto fit = [&](const Members& members) {
        const CallWith call(members);
        return Arguments(call, MethodOf(rows)).Fit();
    };
    EXPECT_TRUE(fit(good));
    EXPECT_FALSE(fit(good.Without("text")));
    EXPECT_FALSE(fit(good.Without("number")));
    EXPECT_FALSE(fit(good.With("text", NumberValue(1))));
    EXPECT_FALSE(fit(good.With("number", TextValue("x"))));
}

constexpr ArgumentRow kArrayRows[] = {
    {"array", ArgumentType::kArray, Presence::kRequired},
    {"text", ArgumentType::kText, Presence::kOptional, 2, "array"},
    {"flag", ArgumentType::kIntegerOrFlag, Presence::kRequired, kNoLimit, "array"},
};

TEST(Arguments, FitWithEveryElementOfAnArray) {
    const Members element = {{"flag", test::FlagValue(true)}, {"text", TextValue("ab")}};
    const auto fit = [](const std::vector<std::string>& elements) {
        const CallWith call(Members{{"array", test::ArrayValue(elements)}});
        return Arguments(call, MethodOf(kArrayRows)).Fit();
    };
    EXPECT_TRUE(fit({}));
    EXPECT_TRUE(fit({element.Struct(), element.Without("text").Struct()}));
    for (const std::string& bad :
         {element.Without("flag").Struct(), element.With("flag", TextValue("x")).Struct(),
          element.With("text", TextValue("abc")).Struct(), kNullValue, NumberValue(1),
          test::ArrayValue({})}) {
        EXPECT_FALSE(fit({bad})) << bad;
        EXPECT_FALSE(fit({element.Struct(), bad})) << bad;
        EXPECT_FALSE(fit({bad, element.Struct()})) << bad;
    }
    // What the elements are made of is no argument of the call.
    EXPECT_TRUE(fit({element.And("array", kNullValue).Struct()}));
}

TEST(Arguments, AreReadByTheirRows) {
    using enum ArgumentType;
    const ArgumentRow rows[] = {
        {"text", kText, Presence::kRequired},           {"empty", kText, Presence::kRequired},
        {"number", kInteger, Presence::kRequired},      {"true", kIntegerOrFlag, Presence::kRequired},
        {"false", kIntegerOrFlag, Presence::kRequired}, {"array", kArray, Presence::kRequired},
        {"null", kText, Presence::kOptional},           {"missing", kInteger, Presence::kOptional}};
    const CallWith call(kMembers);
    const Arguments arguments(call, MethodOf(rows));
    ASSERT_TRUE(arguments.Fit());
    EXPECT_STREQ(arguments.Text("text"), "a<b");
    EXPECT_STREQ(arguments.OptionalText("text"), "a<b");
    EXPECT_STREQ(arguments.Text("empty"), "");
    EXPECT_EQ(arguments.Number("number"), -7);
    EXPECT_EQ(arguments.Number("true"), 1);
    EXPECT_EQ(arguments.Number("false"), 0);
    EXPECT_EQ(wddxGetArraySize(arguments.Array("array")), 1);
    for (const char* const absent : {"null", "missing"}) {
        EXPECT_EQ(arguments.Text(absent), nullptr);
        EXPECT_STREQ(arguments.OptionalText(absent), "");
        EXPECT_EQ(arguments.Number(absent), 0);
        EXPECT_EQ(arguments.Array(absent), nullptr);
    }
}

TEST(Arguments, AreNotThereWithoutARow) {
    const CallWith call(kMembers);
    const Arguments arguments(call, MethodOf({}));
    EXPECT_TRUE(arguments.Fit());
    EXPECT_EQ(arguments.Text("text"), nullptr);
    EXPECT_STREQ(arguments.OptionalText("text"), "");
    EXPECT_EQ(arguments.Number("number"), 0);
    EXPECT_EQ(arguments.Array("array"), nullptr);
    const CallWith callWithArray(Members{{"array", kNullValue}, {"text", TextValue("x")}});
    EXPECT_EQ(Arguments(callWithArray, MethodOf(kArrayRows)).Text("text"), nullptr) << "an element's row";
}

TEST(Arguments, FitNothingWhenTheyCannotBeRead) {
    const ArgumentRow row = {"text", ArgumentType::kText, Presence::kOptional};
    for (const std::string& args :
         {std::string("hello"), std::string("<wddxPacket"), test::Packet(kNullValue),
          test::Packet(test::ArrayValue({TextValue("text")}))}) {
        const CallWith call(args);
        const Arguments arguments(call, MethodOf({&row, 1}));
        EXPECT_FALSE(arguments.Fit()) << args;
        EXPECT_EQ(arguments.Text("text"), nullptr);
        EXPECT_STREQ(arguments.OptionalText("text"), "");
        EXPECT_EQ(arguments.Number("text"), 0);
        EXPECT_EQ(arguments.Array("text"), nullptr);
    }
    EXPECT_FALSE(Arguments(TavrinRequest{}, MethodOf({&row, 1})).Fit());
    EXPECT_FALSE(Arguments(TavrinRequest{}, MethodOf({})).Fit());
}

// ----------------------------------------------------------------------------------------- StatusPacket

constexpr StatusRow kStatuses[] = {{1, 11, 22, Detail::kReason},
                                   {2, 12, 22, Detail::kOwner},
                                   {3, 13, 22, Detail::kReleasedBy},
                                   {kAnyOther, 14, 22, Detail::kNone}};
constexpr KeyRow kKeys[] = {{"b"}, {"a"}, {"c"}, {"x", "c"}, {"d"}, {"e"}};
constexpr MethodRow kMethod = {"rdxTest", ProcessUnknown, Access::kPublic, "name", {}, kStatuses, kKeys};

class StatusPacketTest : public testing::Test {
protected:
    StatusPacketTest() {
        device_.outputs.owner = "anna <1>";
        device_.outputs.allocatedBy = "192.0.2.9:4711";
    }
    ~StatusPacketTest() override { FreeTnResponse(&result_); }

    std::string Packet(const Structure& answer) {
        EXPECT_EQ(answer.Assign(&result_), 0);
        return result_.pszWddxResult;
    }

    test::FakeDevice device_;
    TavrinResponse result_{0, 1, -99, nullptr};
};

TEST_F(StatusPacketTest, HasTheDetailOfItsResult) {
    const std::tuple<int, int, std::string> details[] = {
        {1, 11, test::ReasonDetail(22)},
        {2, 12, test::kOwner},
        {3, 13, test::ParamsOf(Members{{"ReleasedBy", TextValue("b&c")}}.Struct())},
        {7, 14, test::kNoDetail}};
    for (const auto& [result, code, params] : details) {
        EXPECT_EQ(Packet(StatusPacket(kMethod, result, "b&c")),
                  test::ResultPacket("name", {{"Status", test::StatusValue(code, 22, params)}}));
    }
    device_.results["rDxGetOwner"] = 1;
    EXPECT_EQ(Packet(StatusPacket(kMethod, 2)),
              test::ResultPacket("name", {{"Status", test::StatusValue(12, 22, test::kNoDetail)}}));
    MethodRow nameless = kMethod;
    nameless.comment = nullptr;
    EXPECT_EQ(Packet(StatusPacket(nameless, 0)),
              test::ResultPacket("", {{"Status", test::StatusValue(0, 0, test::kNoDetail)}}));
}

TEST_F(StatusPacketTest, TakesMembersInTheirOrder) {
    Structure answer = StatusPacket(kMethod, -1, 7, MakeNull());
    answer.Add("b", MakeText("<"));
    answer.Add("a", MakeFlag(true));
    Structure inside(kMethod, "c");
    inside.Add("x", MakeInteger(INT_MIN));
    answer.Add("c", inside.Release());
    answer.Add("d", MakeArray(2));
    answer.Add("e", MakeFlag(false));
    EXPECT_EQ(Packet(answer),
              test::ResultPacket("name", {{"Status", test::StatusValue(-1, 7, kNullValue)},
                                          {"b", TextValue("<")},
                                          {"a", test::FlagValue(true)},
                                          {"c", Members{{"x", NumberValue(INT_MIN)}}.Struct()},
                                          {"d", test::ArrayValue({kNullValue, kNullValue})},
                                          {"e", test::FlagValue(false)}}));
    EXPECT_EQ(result_.iStatus, 0);
    EXPECT_EQ(result_.ucFlag, 0);
}

TEST_F(StatusPacketTest, IsNotAssignedWithAPartMissing) {
    Structure answer = StatusPacket(kMethod, 0, 0, MakeNull());
    answer.Add("a", nullptr);
    answer.Add("b", MakeNull());
    EXPECT_EQ(answer.Assign(&result_), -6);
    EXPECT_EQ(StatusPacket(kMethod, 0, 0, nullptr).Assign(&result_), -6);
    EXPECT_EQ(result_.pszWddxResult, nullptr);
    EXPECT_EQ(result_.iStatus, -99);
    EXPECT_EQ(result_.ucFlag, 1);
}

TEST_F(StatusPacketTest, IsNotAssignedWithAKeyThatNoRowNames) {
    for (const char* const key : {"x", "y", "A", ""}) {
        Structure answer = StatusPacket(kMethod, 0, 0, MakeNull());
        answer.Add(key, MakeNull());
        EXPECT_EQ(answer.Assign(&result_), -6) << key;
    }
    Structure inside(kMethod, "c");
    inside.Add("a", MakeNull());
    EXPECT_EQ(inside.Release(), nullptr);
}

TEST(MakeStatus, IsNothingWithoutParams) { EXPECT_EQ(MakeStatus(1, 2, nullptr), nullptr); }

TEST(MakeArray, IsNothingWithoutElements) {
    EXPECT_EQ(MakeArray(0), nullptr);
    EXPECT_EQ(MakeArray(-1), nullptr);
}

// -------------------------------------------------------------------------------------- AskSelfTestState

TEST(AskSelfTestState, TellsCodeAndReason) {
    const struct {
        int result;
        unsigned long code;
        unsigned long reason;
        SelfTestState state;
    } cases[] = {{0, 0, 0, {true, 0, 0}},
                 {0, 42500, 0, {true, 42500, 0}},
                 {0, 42500, 1, {true, 42502, 1}},
                 {0, 0, 9060, {true, 42502, 9060}},
                 {0, 7, ULONG_MAX, {true, 42501, 9061}},
                 {1, 7, 9060, {false, 42501, 9061}},
                 {-1, 7, 0, {false, 42501, 9061}}};
    for (const auto& [result, code, reason, expected] : cases) {
        test::FakeDevice device;
        device.results["rDxGetCurrentSelftestStatus"] = result;
        device.outputs.testCode = code;
        device.outputs.testReason = reason;
        const SelfTestState state = AskSelfTestState();
        EXPECT_EQ(state.known, expected.known) << result << ' ' << reason;
        EXPECT_EQ(state.code, expected.code) << result << ' ' << reason;
        EXPECT_EQ(state.reason, expected.reason) << result << ' ' << reason;
    }
}

} // namespace

namespace test {
namespace {

// ------------------------------------------------------------------------------------------- all methods

struct Method {
    const char* name;
    Handler handler;
    Members good;
    const char* function; // the device's, whose result decides
    const char* comment;
};

const std::string kElement = Members{
    {"AttributeName", TextValue(kAwkwardText)},
    {"AttributeValue", TextValue("3")},
    {"IsPersistent", FlagValue(true)},
    {"EnforceReg",
     NumberValue(1)}}.Struct();

const std::vector<Method> kMethods = {
    {"rdxGetDeviceStatus",
     ProcessGetDeviceStatus,
     {{"x", kNullValue}},
     "rDxGetDeviceType",
     "rDxGetDeviceStatus"},
    {"rdxGetVehicleStatus",
     ProcessGetVehicleStatus,
     {{"DeviceOwner", TextValue("anna")}},
     "rDxGetVehicleStatus",
     "rdxGetVehicleStatus"},
    {"rdxAllocateDevice",
     ProcessAllocateDevice,
     {{"DeviceOwner", TextValue("anna")},
      {"IfhClientIpAddr", TextValue("10.0.0.5")},
      {"IfhClientTcpPorts", TextValue("4000")}},
     "rDxAllocateDevice",
     "rDxAllocateDevice"},
    {"rdxReleaseDevice",
     ProcessReleaseDevice,
     {{"DeviceOwner", TextValue("anna")}},
     "rDxReleaseDevice",
     "rdxReleaseDevice"},
    {"rdxInitiateCfgRequest",
     ProcessInitiateCfgRequest,
     {{"DeviceOwner", TextValue("anna")}, {"CfgMode", NumberValue(41602)}},
     "rDxInitiateCfgRequest",
     ""},
    {"rdxSetIpConfiguration",
     ProcessSetIpConfiguration,
     {{"DeviceOwner", TextValue("anna")},
      {"IpAddress", TextValue("10.0.0.2")},
      {"Netmask", TextValue("255.0.0.0")},
      {"DefaultGateway", TextValue("10.0.0.1")},
      {"DhcpMode", NumberValue(41203)}},
     "rDxSetIpConfiguration",
     "rDxSetIpConfiguration"},
    {"rdxSetDeviceAttributes",
     ProcessSetDeviceAttributes,
     {{"DeviceOwner", TextValue("anna")}, {"SlpAttributes", ArrayValue({kElement, kElement})}},
     "rDxSetDeviceAttributes",
     "rdxSetDeviceAttributes"},
    {"rdxRunDeviceSelfTest",
     ProcessRunDeviceSelfTest,
     {{"DeviceOwner", TextValue("anna")}, {"TestMode", TextValue("")}, {"AwaitResults", FlagValue(true)}},
     "rDxRunDeviceSelfTest",
     "rdxRunDeviceSelftest"},
    {"rdxUpdateDeviceFirmware",
     ProcessUpdateDeviceFirmware,
     {{"DeviceOwner", TextValue("anna")},
      {"DownloadUrl", TextValue("http://x")},
      {"FirmwareRev", NumberValue(5)}},
     "rDxUpdateDeviceFirmware",
     "rdxUpdateDeviceFirmware"},
};

// A packet but for the one figure that goes on by itself.
std::string WithoutUpTime(const std::string& packet) {
    static const std::regex upTime("<var name='UpTime'><number>[0-9]+</number></var>");
    return std::regex_replace(packet, upTime, "");
}

class EveryMethod : public MethodTest {
protected:
    EveryMethod() {
        device_.outputs.owner = device_.outputs.allocatedBy = device_.outputs.releasedBy = kAwkwardText;
        device_.outputs.deviceType = "KAVO";
        device_.outputs.netInterface = "lo";
        device_.outputs.controlled = 1;
        device_.outputs.attributes = {{"a", "1", 1}, {std::nullopt, "2", 0}, {"c", kAwkwardText, 1}};
        device_.outputs.measures = Measures{0, 12400, 12600, 0, 0, 2, 2, 375, 1};
        device_.outputs.testReason = 9060;
    }

    // Fails every allocation of a call in turn: the answer is whole or there is none.
    void FailEveryAllocationOf(const Method& method) {
        std::string args = Arguments(method.good);
        const std::string expected = WithoutUpTime(Answer(method.handler, args));
        int refused = 0;
        int unassigned = 0;
        FailEveryAllocation(
            [&] {
                device_.ForgetCalls();
                const int code = ProcessText(method.handler, args.data());
                EXPECT_TRUE(code == 0 || code == 400 || code == -6) << code;
                EXPECT_TRUE(code != 400 || device_.Calls().empty());
                EXPECT_TRUE(code != 0 || !device_.Calls().empty());
                EXPECT_EQ(device_.Lent(), 0);
                EXPECT_EQ(code == 0 ? WithoutUpTime(result_.pszWddxResult) : expected, expected);
                refused += code == 400 ? 1 : 0;
                unassigned += code == -6 ? 1 : 0;
                return code == 0;
            },
            AnyResult);
        EXPECT_GT(unassigned, 0);
        EXPECT_EQ(refused > 0, method.handler != ProcessGetDeviceStatus);
    }

    const CaptureStdout capture_;
};

TEST_F(EveryMethod, FailsWhenMemoryIsShort) {
    for (const Method& method : kMethods) {
        for (const int result : {0, 1, 2, 3}) {
            for (const int ownerResult : {0, 1}) {
                SCOPED_TRACE(std::string(method.name) + " " + std::to_string(result));
                device_.results = {{method.function, result}, {"rDxGetOwner", ownerResult}};
                FailEveryAllocationOf(method);
            }
        }
    }
}

TEST_F(EveryMethod, FailsWhenMemoryIsShortWithQueriesFailing) {
    const std::vector<std::string> queries = {"rDxGetCurrentSelftestStatus", "rDxGetTransmissionQuality",
                                              "rDxGetIpConfiguration",       "rDxGetFirmwareRev",
                                              "rDxGetAllocStatus",           "rdxGetDeviceAttributes"};
    for (const Method& method : kMethods) {
        SCOPED_TRACE(method.name);
        device_.results.clear();
        for (const std::string& query : queries) device_.results[query] = 1;
        FailEveryAllocationOf(method);
    }
}

TEST_F(EveryMethod, FailsWhenTheResultCannotBeAssigned) {
    for (const Method& method : kMethods) {
        SCOPED_TRACE(method.name);
        const FailCall fault("open", 1, EMFILE);
        EXPECT_EQ(Process(method.handler, Arguments(method.good)), -6);
        EXPECT_TRUE(fault.Struck());
        EXPECT_EQ(device_.Lent(), 0);
    }
}

TEST_F(EveryMethod, AnswersUnderItsName) {
    for (const Method& method : kMethods) {
        const std::string comment = "<comment>" + std::string(method.comment) + "</comment>";
        EXPECT_NE(Answer(method.handler, Arguments(method.good)).find(comment), std::string::npos)
            << method.name;
    }
}

// What a row names is there when all goes well.
TEST_F(EveryMethod, AnswersWithTheKeysOfItsRow) {
    for (const Method& method : kMethods) {
        const MethodRow& row = FindMethod(method.name);
        ASSERT_EQ(row.handler, method.handler) << method.name;
        const std::string answer = Answer(method.handler, Arguments(method.good));
        for (const KeyRow& key : row.keys) {
            EXPECT_NE(answer.find("<var name='" + std::string(key.name) + "'>"), std::string::npos)
                << method.name << ' ' << key.name;
        }
    }
    // This one's answer is a text, which the row does not make.
    const std::string version = Answer(ProcessGetVersion, Arguments({{"version", NumberValue(1)}}));
    std::vector<std::string> keys;
    const std::regex key("<var name='([^']*)'>");
    for (std::sregex_iterator i(version.begin(), version.end(), key), end; i != end; ++i) {
        keys.push_back((*i)[1]);
    }
    std::vector<std::string> named;
    for (const KeyRow& row : FindMethod("rdxGetVersion").keys) named.push_back(row.name);
    EXPECT_EQ(keys, named);
}

TEST_F(EveryMethod, IsUntouchedByBlanksBetweenTheTags) {
    for (const Method& method : kMethods) {
        const std::string expected = WithoutUpTime(Answer(method.handler, Arguments(method.good)));
        const std::vector<std::string> calls = DeviceCalls(method.handler, Arguments(method.good));
        // Blanks inside a text would be part of it.
        std::string spaced;
        const std::string packet = Arguments(method.good);
        for (std::size_t i = 0; i < packet.size(); ++i) {
            spaced += packet[i];
            const bool endsTag = packet[i] == '>' && !spaced.ends_with("<string>");
            if (endsTag && i + 1 < packet.size() && packet[i + 1] == '<') spaced += " \r\n\t";
        }
        EXPECT_EQ(DeviceCalls(method.handler, spaced), calls) << method.name;
        EXPECT_EQ(WithoutUpTime(result_.pszWddxResult), expected) << method.name;
    }
}

TEST_F(EveryMethod, ReplacesAnEarlierResult) {
    for (const Method& method : kMethods) {
        std::string args = Arguments(method.good);
        TavrinRequest call{1, "", args.data(), request_.get()};
        FreeTnResponse(&result_);
        ASSERT_EQ(method.handler(&call, &result_), 0);
        const std::string first = WithoutUpTime(result_.pszWddxResult);
        ASSERT_EQ(method.handler(&call, &result_), 0) << "the arguments were used up";
        EXPECT_EQ(WithoutUpTime(result_.pszWddxResult), first);
    }
}

TEST_F(EveryMethod, RunsOnSeveralThreadsAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 15;
    for (const int result : {0, 2}) {
        std::vector<std::string> expected;
        for (const Method& method : kMethods) {
            device_.results[method.function] = method.handler == ProcessGetDeviceStatus ? 0 : result;
            expected.push_back(WithoutUpTime(Answer(method.handler, Arguments(method.good))));
        }
        device_.ForgetCalls();
        std::atomic<int> different = 0;
        const auto work = [&](std::size_t first) {
            for (std::size_t i = 0; i < kRounds * kMethods.size(); ++i) {
                const std::size_t index = (first + i) % kMethods.size();
                std::string args = Arguments(kMethods[index].good);
                Request request;
                TavrinRequest call{1, "", args.data(), request.get()};
                TavrinResponse response{1, 1, -99, nullptr};
                const int code = kMethods[index].handler(&call, &response);
                if (code != 0 || WithoutUpTime(response.pszWddxResult) != expected[index]) ++different;
                FreeTnResponse(&response);
            }
        };
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < kThreads; ++i) threads.emplace_back(work, i * 2);
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(different, 0);
        EXPECT_EQ(device_.Lent(), 0);
        const std::vector<std::string> names = device_.Names();
        for (const Method& method : kMethods) {
            EXPECT_EQ(std::ranges::count(names, method.function), kThreads * kRounds) << method.name;
        }
    }
}

} // namespace
} // namespace test
} // namespace rdx
