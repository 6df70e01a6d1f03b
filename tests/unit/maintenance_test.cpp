#include "rDxsd/rDxsd.h"

#include "tests/support/method_call.h"

#include <algorithm>
#include <climits>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace rdx::test {
namespace {

using enum ArgumentType;
using Calls = std::vector<std::string>;

// -------------------------------------------------------------------------------- rdxSetIpConfiguration

class SetIpConfiguration : public MethodTest {
protected:
    static Members Reboot(bool required) { return {{"RebootRequired", FlagValue(required)}}; }

    const Members good_ = {{"DeviceOwner", TextValue("anna")},    {"IpAddress", TextValue("10.0.0.2")},
                           {"Netmask", TextValue("255.255.0.0")}, {"DefaultGateway", TextValue("10.0.0.1")},
                           {"Hostname", TextValue("bench-7")},    {"DhcpMode", NumberValue(41203)}};
};

TEST_F(SetIpConfiguration, HandsTheArgumentsToTheDevice) {
    EXPECT_EQ(
        DeviceCalls(ProcessSetIpConfiguration, Arguments(good_)),
        Calls{R"(rDxSetIpConfiguration("anna", "10.0.0.2", "255.255.0.0", "10.0.0.1", 1, "bench-7", 0))"});
    const Members odd = {{"DhcpMode", FlagValue(true)},          {"Hostname", TextValue("<h> & 'i'")},
                         {"DefaultGateway", TextValue("\"g\"")}, {"Netmask", TextValue("")},
                         {"IpAddress", TextValue(" ")},          {"DeviceOwner", TextValue("\xC3\xA4\x01")}};
    EXPECT_EQ(DeviceCalls(ProcessSetIpConfiguration, Arguments(odd)),
              Calls{"rDxSetIpConfiguration(\"\xC3\xA4\x01\", \" \", \"\", \"\"g\"\", 4, \"<h> & 'i'\", 0)"});
}

TEST_F(SetIpConfiguration, NeedsNoHostName) {
    const std::string call = R"(rDxSetIpConfiguration("anna", "10.0.0.2", "255.255.0.0", "10.0.0.1", 1, )";
    EXPECT_EQ(DeviceCalls(ProcessSetIpConfiguration, Arguments(good_.Without("Hostname"))),
              Calls{call + "\"\", 0)"});
    const std::string longest(60000, 'h'); // without a limit
    EXPECT_EQ(DeviceCalls(ProcessSetIpConfiguration, Arguments(good_.With("Hostname", TextValue(longest)))),
              Calls{call + "\"" + longest + "\", 0)"});
}

TEST_F(SetIpConfiguration, RefusesAHostNameThatIsNoText) {
    ExpectOptional(ProcessSetIpConfiguration, good_.Without("Hostname"), {"Hostname", kText});
}

TEST_F(SetIpConfiguration, MapsTheAddressMode) {
    const std::pair<std::string, int> modes[] = {{NumberValue(41202), 2},
                                                 {NumberValue(41203), 1},
                                                 {NumberValue(41204), 3},
                                                 {NumberValue(41290), 4},
                                                 {NumberValue(12345), 4},
                                                 {NumberValue(41201), 4},
                                                 {NumberValue(41205), 4},
                                                 {NumberValue(0), 4},
                                                 {NumberValue(1), 4},
                                                 {NumberValue(2), 4},
                                                 {NumberValue(3), 4},
                                                 {NumberValue(-41203), 4},
                                                 {NumberValue(INT_MAX), 4},
                                                 {NumberValue(INT_MIN), 4},
                                                 {FlagValue(true), 4},
                                                 {FlagValue(false), 4},
                                                 {"<number>99999999999</number>", 4}};
    for (const auto& [value, mode] : modes) {
        EXPECT_EQ(DeviceCalls(ProcessSetIpConfiguration, Arguments(good_.With("DhcpMode", value))),
                  Calls{R"(rDxSetIpConfiguration("anna", "10.0.0.2", "255.255.0.0", "10.0.0.1", )" +
                        std::to_string(mode) + R"(, "bench-7", 0))"})
            << value;
    }
}

TEST_F(SetIpConfiguration, AnswersWithThisVeryPacket) {
    EXPECT_EQ(Answer(ProcessSetIpConfiguration, Arguments(good_)),
              "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>"
              "<wddxPacket version='1.0'><header><comment>rDxSetIpConfiguration</comment></header><data>"
              "<struct><var name='Status'><struct><var name='code'><number>0</number></var>"
              "<var name='msg'><number>0</number></var>"
              "<var name='params'><array length='1'><null/></array></var></struct></var>"
              "<var name='RebootRequired'><boolean value='false'/></var></struct></data></wddxPacket>");
}

TEST_F(SetIpConfiguration, AnswersEveryResultWithTheNeedOfARestart) {
    std::vector<Row> rows = {{0, 0, 0, kNoDetail},
                             {1, 42201, 9011, ReasonDetail(9011)},
                             {2, 42020, 9012, kOwner},
                             {3, 42201, 9041, ReasonDetail(9041)}};
    for (const int other : {4, 5, 9064, -1, -2, INT_MAX, INT_MIN}) {
        rows.push_back({other, 42201, 9040, ReasonDetail(9040)});
    }
    const std::optional<unsigned long> flags[] = {std::nullopt, 0UL, 1UL, 2UL, ULONG_MAX};
    for (const std::optional<unsigned long>& flag : flags) {
        SCOPED_TRACE(flag.value_or(12345));
        device_.outputs.reboot = flag;
        ExpectAnswers(ProcessSetIpConfiguration, good_, "rDxSetIpConfiguration", "rDxSetIpConfiguration",
                      rows, Reboot(flag.value_or(0) != 0));
    }
    ExpectOwnerAskedFor(ProcessSetIpConfiguration, good_, "rDxSetIpConfiguration", 2);
    device_.outputs.reboot = 0;
    device_.results["rDxGetOwner"] = 7;
    ExpectAnswers(ProcessSetIpConfiguration, good_, "rDxSetIpConfiguration", "rDxSetIpConfiguration",
                  {{2, 42020, 9012, kNoDetail}}, Reboot(false));
}

TEST_F(SetIpConfiguration, NeedsItsArguments) {
    ExpectRequired(ProcessSetIpConfiguration, good_,
                   {{"DeviceOwner", kText, 32},
                    {"IpAddress", kText, 16},
                    {"Netmask", kText, 16},
                    {"DefaultGateway", kText, 16},
                    {"DhcpMode", kIntegerOrFlag}});
    ExpectArgumentsNeeded(ProcessSetIpConfiguration);
}

// ------------------------------------------------------------------------------- rdxSetDeviceAttributes

class SetDeviceAttributes : public MethodTest {
protected:
    Calls CallsWith(const std::vector<std::string>& elements) {
        return DeviceCalls(ProcessSetDeviceAttributes, ArgumentsWith(elements));
    }

    std::string ArgumentsWith(const std::vector<std::string>& elements) const {
        return Arguments(good_.With("SlpAttributes", ArrayValue(elements)));
    }

    const Members first_ = {{"AttributeName", TextValue("Bay")},
                            {"AttributeValue", TextValue("3")},
                            {"IsPersistent", FlagValue(true)},
                            {"EnforceReg", FlagValue(false)}};
    const Members second_ = {{"EnforceReg", NumberValue(4)},
                             {"IsPersistent", NumberValue(0)},
                             {"AttributeValue", TextValue("")},
                             {"AttributeName", TextValue("Name")}};
    const Members good_ = {{"DeviceOwner", TextValue("anna")},
                           {"SlpAttributes", ArrayValue({first_.Struct(), second_.Struct()})}};
};

TEST_F(SetDeviceAttributes, HandsTheListsToTheDevice) {
    EXPECT_EQ(DeviceCalls(ProcessSetDeviceAttributes, Arguments(good_)),
              Calls{R"(rDxSetDeviceAttributes("anna", ("Bay", "Name"), ("3", ""), (1, 0), 2, 4))"});
    EXPECT_EQ(CallsWith({first_.Struct()}),
              Calls{R"(rDxSetDeviceAttributes("anna", ("Bay"), ("3"), (1), 1, 0))"});
}

TEST_F(SetDeviceAttributes, AcceptsAnEmptyList) {
    EXPECT_EQ(CallsWith({}), Calls{R"(rDxSetDeviceAttributes("anna", (), (), (), 0, 0))"});
    const std::string selfClosed = Arguments(good_.With("SlpAttributes", "<array length='0'/>"));
    EXPECT_EQ(DeviceCalls(ProcessSetDeviceAttributes, selfClosed),
              Calls{R"(rDxSetDeviceAttributes("anna", (), (), (), 0, 0))"});
}

TEST_F(SetDeviceAttributes, JoinsTheWishesForRegistration) {
    const struct {
        std::vector<std::string> wishes;
        int joined;
    } cases[] = {{{NumberValue(1), NumberValue(2)}, 3},
                 {{NumberValue(0), NumberValue(0)}, 0},
                 {{NumberValue(4), NumberValue(1), NumberValue(8)}, 13},
                 {{NumberValue(5), NumberValue(5)}, 5},
                 {{FlagValue(false), FlagValue(true), FlagValue(false)}, 1},
                 {{FlagValue(true), NumberValue(6)}, 7},
                 {{NumberValue(-1), NumberValue(2)}, -1},
                 {{NumberValue(INT_MIN), NumberValue(1)}, INT_MIN + 1},
                 {{NumberValue(INT_MAX), NumberValue(INT_MIN)}, -1}};
    for (const auto& [wishes, joined] : cases) {
        std::vector<std::string> elements;
        for (const std::string& wish : wishes) elements.push_back(first_.With("EnforceReg", wish).Struct());
        const std::string call = CallsWith(elements).at(0);
        EXPECT_TRUE(call.ends_with(", " + std::to_string(joined) + ")")) << call;
    }
}

TEST_F(SetDeviceAttributes, PassesThePersistenceAsItIs) {
    const std::pair<std::string, int> flags[] = {
        {FlagValue(true), 1}, {FlagValue(false), 0}, {NumberValue(5), 5}, {NumberValue(INT_MIN), INT_MIN}};
    for (const auto& [value, flag] : flags) {
        EXPECT_EQ(CallsWith({first_.With("IsPersistent", value).Struct()}),
                  Calls{"rDxSetDeviceAttributes(\"anna\", (\"Bay\"), (\"3\"), (" + std::to_string(flag) +
                        "), 1, 0)"});
    }
}

TEST_F(SetDeviceAttributes, PassesNullForATextThatIsNotThere) {
    EXPECT_EQ(
        CallsWith({first_.Without("AttributeName").Struct(), second_.Without("AttributeValue").Struct(),
                   first_.Without("AttributeName").Without("AttributeValue").Struct()}),
        Calls{R"(rDxSetDeviceAttributes("anna", (null, "Name", null), ("3", null, null), (1, 0, 1), 3, 4))"});
    const Members nothing = first_.With("AttributeName", kNullValue).With("AttributeValue", kNullValue);
    EXPECT_EQ(CallsWith({nothing.Struct()}),
              Calls{R"(rDxSetDeviceAttributes("anna", (null), (null), (1), 1, 0))"});
}

TEST_F(SetDeviceAttributes, RefusesNamesAndValuesThatAreNoTexts) {
    for (const std::string& value : ValuesBut(kText)) {
        if (value == kNullValue) continue;
        ExpectRefused(ProcessSetDeviceAttributes,
                      ArgumentsWith({first_.With("AttributeName", value).Struct()}));
        ExpectRefused(ProcessSetDeviceAttributes,
                      ArgumentsWith({second_.Struct(), first_.With("AttributeValue", value).Struct()}));
    }
}

TEST_F(SetDeviceAttributes, PassesTextsAsTheyAreMeant) {
    const std::string longest(20000, 'x');
    EXPECT_EQ(CallsWith({first_.With("AttributeName", TextValue(kAwkwardText)).Struct(),
                         first_.With("AttributeValue", TextValue(longest)).Struct()}),
              Calls{"rDxSetDeviceAttributes(\"anna\", (\"" + kAwkwardText + "\", \"Bay\"), (\"3\", \"" +
                    longest + "\"), (1, 1), 2, 0)"});
}

TEST_F(SetDeviceAttributes, PassesManyAttributesInTheirOrder) {
    std::vector<std::string> elements;
    std::string names;
    std::string values;
    std::string flags;
    for (int i = 0; i < 1000; ++i) {
        const std::string number = std::to_string(i);
        elements.push_back(first_.With("AttributeName", TextValue("n" + number))
                               .With("AttributeValue", TextValue(number))
                               .With("IsPersistent", NumberValue(i))
                               .Struct());
        const std::string comma = i > 0 ? ", " : "";
        names.append(comma).append("\"n").append(number).append("\"");
        values.append(comma).append("\"").append(number).append("\"");
        flags.append(comma).append(number);
    }
    EXPECT_EQ(CallsWith(elements), Calls{"rDxSetDeviceAttributes(\"anna\", (" + names + "), (" + values +
                                         "), (" + flags + "), 1000, 0)"});
}

TEST_F(SetDeviceAttributes, RefusesAListWithAnythingButAttributes) {
    for (const TypedValue& typed : ValuesOfEveryType()) {
        ExpectRefused(ProcessSetDeviceAttributes, ArgumentsWith({typed.value}));
        ExpectRefused(ProcessSetDeviceAttributes, ArgumentsWith({typed.value, first_.Struct()}));
        ExpectRefused(ProcessSetDeviceAttributes,
                      ArgumentsWith({first_.Struct(), second_.Struct(), typed.value}));
    }
}

TEST_F(SetDeviceAttributes, NeedsBothFlagsOfEveryAttribute) {
    for (const char* const flag : {"IsPersistent", "EnforceReg"}) {
        ExpectRefused(ProcessSetDeviceAttributes, ArgumentsWith({first_.Without(flag).Struct()}));
        ExpectRefused(ProcessSetDeviceAttributes,
                      ArgumentsWith({first_.Struct(), second_.Struct(), second_.Without(flag).Struct()}));
        for (const TypedValue& typed : ValuesOfEveryType()) {
            if (std::ranges::find(typed.types, kIntegerOrFlag) != typed.types.end()) continue;
            ExpectRefused(ProcessSetDeviceAttributes,
                          ArgumentsWith({first_.With(flag, typed.value).Struct()}));
            ExpectRefused(ProcessSetDeviceAttributes,
                          ArgumentsWith({first_.Struct(), first_.With(flag, typed.value).Struct()}));
        }
    }
}

TEST_F(SetDeviceAttributes, LetsTheFirstOfEqualNamesCount) {
    EXPECT_EQ(CallsWith({first_.And(second_).Struct()}),
              Calls{R"(rDxSetDeviceAttributes("anna", ("Bay"), ("3"), (1), 1, 0))"});
    EXPECT_EQ(CallsWith({first_.After("AttributeName", kNullValue).Struct()}),
              Calls{R"(rDxSetDeviceAttributes("anna", (null), ("3"), (1), 1, 0))"});
    ExpectRefused(ProcessSetDeviceAttributes,
                  ArgumentsWith({first_.After("EnforceReg", TextValue("1")).Struct()}));
}

TEST_F(SetDeviceAttributes, TakesAsManyElementsAsTheListSays) {
    const auto list = [&](const std::string& length) {
        return Arguments(good_.With("SlpAttributes", "<array length='" + length + "'>" + first_.Struct() +
                                                         second_.Struct() + "</array>"));
    };
    EXPECT_EQ(DeviceCalls(ProcessSetDeviceAttributes, list("1")),
              Calls{R"(rDxSetDeviceAttributes("anna", ("Bay"), ("3"), (1), 1, 0))"});
    EXPECT_EQ(DeviceCalls(ProcessSetDeviceAttributes, list("0")),
              Calls{R"(rDxSetDeviceAttributes("anna", (), (), (), 0, 0))"});
    for (const char* const length : {"3", "-1", "2000000000", "99999999999"}) {
        ExpectRefused(ProcessSetDeviceAttributes, list(length));
    }
}

TEST_F(SetDeviceAttributes, AnswersEveryResult) {
    std::vector<Row> rows = {{0, 0, 0, kNoDetail},
                             {1, 42301, 9011, ReasonDetail(9011)},
                             {2, 42020, 9012, kOwner},
                             {3, 42301, 9002, ReasonDetail(9002)},
                             {-1, 42301, 9052, ReasonDetail(9052)}};
    for (const int other : {4, 5, 9064, -2, -3, INT_MAX, INT_MIN}) {
        rows.push_back({other, 42301, 9051, ReasonDetail(9051)});
    }
    ExpectAnswers(ProcessSetDeviceAttributes, good_, "rDxSetDeviceAttributes", "rdxSetDeviceAttributes",
                  rows);
    ExpectOwnerAskedFor(ProcessSetDeviceAttributes, good_, "rDxSetDeviceAttributes", 2);
    device_.results["rDxGetOwner"] = -1;
    ExpectAnswers(ProcessSetDeviceAttributes, good_, "rDxSetDeviceAttributes", "rdxSetDeviceAttributes",
                  {{2, 42020, 9012, kNoDetail}});
}

TEST_F(SetDeviceAttributes, NeedsItsArguments) {
    ExpectRequired(ProcessSetDeviceAttributes, good_, {{"DeviceOwner", kText}, {"SlpAttributes", kArray}});
    ExpectArgumentsNeeded(ProcessSetDeviceAttributes);
}

// --------------------------------------------------------------------------------- rdxRunDeviceSelfTest

class RunDeviceSelfTest : public MethodTest {
protected:
    RunDeviceSelfTest() { device_.outputs.testCode = 42500; }

    static Members ArgumentsOf(const std::string& mode, const std::string& await) {
        return {{"DeviceOwner", TextValue("anna")}, {"TestMode", TextValue(mode)}, {"AwaitResults", await}};
    }

    // What stands beside "Status" while the state of the test is known.
    static Members State(int code, int reason) {
        return {{"SelftestStatus", StatusValue(code, reason, kNoDetail)}};
    }

    Calls CallsWith(const std::string& mode, const std::string& await) {
        return DeviceCalls(ProcessRunDeviceSelfTest, Arguments(ArgumentsOf(mode, await)));
    }

    void ExpectAnswer(const Members& arguments, int code, int reason, const std::string& params,
                      const Members& state) {
        const Members status = {{"Status", StatusValue(code, reason, params)}};
        EXPECT_EQ(Answer(ProcessRunDeviceSelfTest, Arguments(arguments)),
                  ResultPacket("rdxRunDeviceSelftest", status.And(state)));
    }

    const Members short_ = ArgumentsOf("SelftestShort", NumberValue(0));
    const Members awaited_ = ArgumentsOf("SelftestShort", NumberValue(1));
    const Members detailed_ = ArgumentsOf("SelftestDetailed", NumberValue(0));
    const Members detailedAwaited_ = ArgumentsOf("SelftestDetailed", NumberValue(1));
    // The state that could not be asked for.
    const Members unknown_ = {{"SelftestStatus", StatusValue(42501, 9061, ReasonDetail(9061))}};
    const std::string query_ = "rDxGetCurrentSelftestStatus(0, 0)";
    const std::vector<Row> rows_ = {{0, 0, 0, kNoDetail},
                                    {1, 42502, 9011, ReasonDetail(9011)},
                                    {2, 42020, 9012, kOwner},
                                    {3, 42502, 9062, ReasonDetail(9062)},
                                    {5, 42501, 9065, ReasonDetail(9065)},
                                    {9064, 42501, 9064, ReasonDetail(9064)},
                                    {4, 42501, 9063, ReasonDetail(9063)},
                                    {6, 42501, 9063, ReasonDetail(9063)},
                                    {9063, 42501, 9063, ReasonDetail(9063)},
                                    {9065, 42501, 9063, ReasonDetail(9063)},
                                    {-1, 42501, 9063, ReasonDetail(9063)},
                                    {-5, 42501, 9063, ReasonDetail(9063)},
                                    {INT_MAX, 42501, 9063, ReasonDetail(9063)},
                                    {INT_MIN, 42501, 9063, ReasonDetail(9063)}};
};

TEST_F(RunDeviceSelfTest, StartsTheTestAskedFor) {
    for (const char* const mode : {"", "SelftestShort", "selftestshort", "SELFTESTSHORT", "sELFTESTsHORT"}) {
        for (const auto& [await, flag] : {std::pair<std::string, std::string>{NumberValue(0), "0"},
                                          {NumberValue(1), "1"},
                                          {NumberValue(7), "7"},
                                          {NumberValue(-1), "-1"},
                                          {FlagValue(true), "1"},
                                          {FlagValue(false), "0"}}) {
            const Calls expected = {"rDxRunDeviceSelfTest(\"anna\", 0, " + flag + ")", query_};
            EXPECT_EQ(CallsWith(mode, await), expected) << mode;
        }
    }
    for (const char* const mode : {"SelftestDetailed", "selftestdetailed", "SELFTESTDETAILED"}) {
        for (const std::string& await : {NumberValue(0), FlagValue(false)}) {
            const Calls expected = {R"(rDxRunDeviceSelfTest("anna", 1, 0))", query_};
            EXPECT_EQ(CallsWith(mode, await), expected) << mode;
        }
    }
}

TEST_F(RunDeviceSelfTest, StartsNoDetailedTestThatIsToBeAwaited) {
    for (const char* const mode : {"SelftestDetailed", "selftestdetailed", "SELFTESTDETAILED"}) {
        for (const std::string& await :
             {NumberValue(1), NumberValue(-1), NumberValue(256), FlagValue(true)}) {
            EXPECT_EQ(CallsWith(mode, await), Calls{query_}) << mode;
            ExpectAnswer(ArgumentsOf(mode, await), 42501, 9064, ReasonDetail(9064), State(42500, 0));
        }
    }
    // It is not awaited any more: a state that is not known is no failure of the call.
    device_.results["rDxGetCurrentSelftestStatus"] = 1;
    ExpectAnswer(detailedAwaited_, 42501, 9064, ReasonDetail(9064), unknown_);
}

TEST_F(RunDeviceSelfTest, KnowsNoOtherTest) {
    for (const char* const mode :
         {"Selftest", "SelftestShort ", " SelftestShort", "SelftestShor", "SelftestShortX", "SelftestDetaile",
          "SelftestDetailedX", " ", "0", "1", "short", "detailed"}) {
        ExpectRefused(ProcessRunDeviceSelfTest, ArgumentsOf(mode, NumberValue(0)));
    }
    ExpectRefused(ProcessRunDeviceSelfTest, ArgumentsOf(std::string(60000, 'S'), NumberValue(0)));
}

TEST_F(RunDeviceSelfTest, AnswersWithThisVeryPacket) {
    EXPECT_EQ(Answer(ProcessRunDeviceSelfTest, Arguments(short_)),
              "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>"
              "<wddxPacket version='1.0'><header><comment>rdxRunDeviceSelftest</comment></header><data>"
              "<struct><var name='Status'><struct><var name='code'><number>0</number></var>"
              "<var name='msg'><number>0</number></var>"
              "<var name='params'><array length='1'><null/></array></var></struct></var>"
              "<var name='SelftestStatus'><struct><var name='code'><number>42500</number></var>"
              "<var name='msg'><number>0</number></var>"
              "<var name='params'><array length='1'><null/></array></var></struct></var>"
              "</struct></data></wddxPacket>");
    device_.results["rDxGetCurrentSelftestStatus"] = -1;
    EXPECT_EQ(Answer(ProcessRunDeviceSelfTest, Arguments(awaited_)),
              "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>"
              "<wddxPacket version='1.0'><header><comment>rdxRunDeviceSelftest</comment></header><data>"
              "<struct><var name='Status'><struct><var name='code'><number>42501</number></var>"
              "<var name='msg'><number>9065</number></var>"
              "<var name='params'><array length='1'><null/></array></var></struct></var>"
              "<var name='SelftestStatus'><struct><var name='code'><number>42501</number></var>"
              "<var name='msg'><number>9061</number></var>"
              "<var name='params'><array length='1'><struct>"
              "<var name='Reason'><number>9061</number></var></struct></array></var></struct></var>"
              "</struct></data></wddxPacket>");
}

TEST_F(RunDeviceSelfTest, AnswersEveryResult) {
    for (const Members& arguments : {short_, awaited_, detailed_, ArgumentsOf("", FlagValue(true))}) {
        ExpectAnswers(ProcessRunDeviceSelfTest, arguments, "rDxRunDeviceSelfTest", "rdxRunDeviceSelftest",
                      rows_, State(42500, 0));
        ExpectOwnerAskedFor(ProcessRunDeviceSelfTest, arguments, "rDxRunDeviceSelfTest", 2);
    }
    device_.results["rDxGetOwner"] = -1;
    ExpectAnswers(ProcessRunDeviceSelfTest, short_, "rDxRunDeviceSelfTest", "rdxRunDeviceSelftest",
                  {{2, 42020, 9012, kNoDetail}}, State(42500, 0));
}

TEST_F(RunDeviceSelfTest, AsksForTheOwnerAndThenForTheState) {
    device_.results["rDxRunDeviceSelfTest"] = 2;
    EXPECT_EQ(CallsWith("", NumberValue(0)),
              (Calls{R"(rDxRunDeviceSelfTest("anna", 0, 0))", R"(rDxGetOwner("", ""))", query_}));
}

TEST_F(RunDeviceSelfTest, TellsTheStateOfTheTest) {
    const struct {
        unsigned long code;
        unsigned long reason;
        int toldCode;
        int toldReason;
    } states[] = {{0, 0, 0, 0},
                  {42502, 0, 42502, 0},
                  {ULONG_MAX, 0, -1, 0},
                  {17, 9060, 42502, 9060},
                  {17, 1, 42502, 1},
                  {17, ULONG_MAX, 42501, 9061},
                  {17, ULONG_MAX - 1, 42502, -2}};
    for (const auto& state : states) {
        device_.outputs.testCode = state.code;
        device_.outputs.testReason = state.reason;
        const Members told = State(state.toldCode, state.toldReason);
        for (const Members& arguments : {short_, awaited_, detailed_}) {
            ExpectAnswer(arguments, 0, 0, kNoDetail, told);
        }
        ExpectAnswer(detailedAwaited_, 42501, 9064, ReasonDetail(9064), told);
    }
    device_.outputs.testCode.reset();
    device_.outputs.testReason.reset();
    ExpectAnswer(short_, 0, 0, kNoDetail, State(0, 0));
}

TEST_F(RunDeviceSelfTest, FailsWhenTheStateOfAnAwaitedTestIsNotKnown) {
    device_.outputs.testReason = 9060; // not looked at
    for (const int failure : {1, 2, -1, INT_MIN}) {
        device_.results["rDxGetCurrentSelftestStatus"] = failure;
        // Code and reason are those of a test awaited in vain, the detail that of the start.
        std::vector<Row> awaited = rows_;
        for (Row& row : awaited) row = {row.result, 42501, 9065, row.params};
        ExpectAnswers(ProcessRunDeviceSelfTest, awaited_, "rDxRunDeviceSelfTest", "rdxRunDeviceSelftest",
                      awaited, unknown_);
        // A test that nobody waits for is as good as its start.
        for (const Members& arguments : {short_, detailed_}) {
            ExpectAnswers(ProcessRunDeviceSelfTest, arguments, "rDxRunDeviceSelfTest", "rdxRunDeviceSelftest",
                          rows_, unknown_);
        }
    }
}

TEST_F(RunDeviceSelfTest, NeedsItsArguments) {
    ExpectRequired(
        ProcessRunDeviceSelfTest, short_,
        {{"DeviceOwner", kText}, {"TestMode", kText, kCertainWords}, {"AwaitResults", kIntegerOrFlag}});
    ExpectRequired(ProcessRunDeviceSelfTest, detailed_, {{"AwaitResults", kIntegerOrFlag}});
    ExpectArgumentsNeeded(ProcessRunDeviceSelfTest);
}

// ------------------------------------------------------------------------------ rdxUpdateDeviceFirmware

class UpdateDeviceFirmware : public MethodTest {
protected:
    Calls CallsWith(const Members& arguments) {
        return DeviceCalls(ProcessUpdateDeviceFirmware, Arguments(arguments));
    }

    const Members required_ = {{"DeviceOwner", TextValue("anna")},
                               {"DownloadUrl", TextValue("http://10.0.0.1/fw?a=1&b=2")},
                               {"FirmwareRev", NumberValue(5)}};
    const Members good_ = required_.And({{"IsSigned", NumberValue(1)},
                                         {"MethodOfTrust", TextValue("X.509")},
                                         {"CaCert", TextValue("-----BEGIN\nMIIB+/=\n-----END\n")}});
    // The revision is always the same.
    const std::string call_ = R"(rDxUpdateDeviceFirmware("anna", "http://10.0.0.1/fw?a=1&b=2", -1, )";
};

TEST_F(UpdateDeviceFirmware, HandsTheArgumentsToTheDevice) {
    EXPECT_EQ(CallsWith(good_), Calls{call_ + "1, \"X.509\", \"-----BEGIN\nMIIB+/=\n-----END\n\")"});
}

TEST_F(UpdateDeviceFirmware, NeedsNoSignature) {
    EXPECT_EQ(CallsWith(required_), Calls{call_ + R"(0, "", ""))"});
    EXPECT_EQ(CallsWith(good_.Without("IsSigned").Without("CaCert")), Calls{call_ + R"(0, "X.509", ""))"});
    EXPECT_EQ(CallsWith(required_.And("IsSigned", NumberValue(0))), Calls{call_ + R"(0, "", ""))"});
    EXPECT_EQ(CallsWith(required_.And("IsSigned", NumberValue(-3))), Calls{call_ + R"(-3, "", ""))"});
    const std::string longest(60000, 'c');
    EXPECT_EQ(CallsWith(required_.And("CaCert", TextValue(longest))),
              Calls{call_ + "0, \"\", \"" + longest + "\")"});
}

// A boolean is no integer here.
TEST_F(UpdateDeviceFirmware, RefusesAnOptionalArgumentOfAnotherType) {
    ExpectOptional(ProcessUpdateDeviceFirmware, required_, {"IsSigned", kInteger});
    ExpectOptional(ProcessUpdateDeviceFirmware, required_, {"MethodOfTrust", kText});
    ExpectOptional(ProcessUpdateDeviceFirmware, required_, {"CaCert", kText});
}

TEST_F(UpdateDeviceFirmware, NeedsARevisionAndPassesAnother) {
    for (const char* const number : {"5", "-1", "1", "2147483647", "-2147483648", "4294967296", "99999999999",
                                     "-99999999999", " 5", "5x"}) {
        const std::string value = std::string("<number>").append(number).append("</number>");
        EXPECT_EQ(CallsWith(required_.With("FirmwareRev", value)), Calls{call_ + R"(0, "", ""))"}) << number;
    }
    for (const char* const number : {"0", "-0", "000", "x", "+", "-", "0x5", "0.0", "5.0", "5e0"}) {
        const std::string value = std::string("<number>").append(number).append("</number>");
        ExpectRefused(ProcessUpdateDeviceFirmware, required_.With("FirmwareRev", value));
    }
}

TEST_F(UpdateDeviceFirmware, AnswersEveryResult) {
    std::vector<Row> rows = {{0, 0, 0, kNoDetail},
                             {1, 42030, 9011, ReasonDetail(9011)},
                             {2, 42020, 9012, kOwner},
                             {3, 42030, 9034, ReasonDetail(9034)},
                             {10, 42401, 9031, ReasonDetail(9031)},
                             {11, 42404, 9032, ReasonDetail(9032)},
                             {12, 42403, 9033, ReasonDetail(9033)},
                             {14, 42403, 9035, ReasonDetail(9035)}};
    for (const int other : {4, 5, 9, 13, 15, 100, 9064, -1, -2, -13, INT_MAX, INT_MIN}) {
        rows.push_back({other, 42403, 13, ReasonDetail(13)});
    }
    ExpectAnswers(ProcessUpdateDeviceFirmware, good_, "rDxUpdateDeviceFirmware", "rdxUpdateDeviceFirmware",
                  rows);
    ExpectOwnerAskedFor(ProcessUpdateDeviceFirmware, good_, "rDxUpdateDeviceFirmware", 2);
    device_.results["rDxGetOwner"] = -1;
    ExpectAnswers(ProcessUpdateDeviceFirmware, good_, "rDxUpdateDeviceFirmware", "rdxUpdateDeviceFirmware",
                  {{2, 42020, 9012, kNoDetail}});
}

TEST_F(UpdateDeviceFirmware, NeedsItsArguments) {
    for (const Members& arguments : {required_, good_}) {
        ExpectRequired(ProcessUpdateDeviceFirmware, arguments,
                       {{"DeviceOwner", kText}, {"DownloadUrl", kText}, {"FirmwareRev", kInteger}});
    }
    ExpectArgumentsNeeded(ProcessUpdateDeviceFirmware);
}

} // namespace
} // namespace rdx::test
