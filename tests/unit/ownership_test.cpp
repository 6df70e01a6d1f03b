#include "rDxsd/rDxsd.h"

#include "tests/support/capture.h"
#include "tests/support/method_call.h"

#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace rdx::test {
namespace {

using enum ArgumentType;
using Calls = std::vector<std::string>;

class Ownership : public MethodTest {
protected:
    Ownership() { device_.outputs.releasedBy = "bert & \"co\""; }

    // Hides the traces.
    const CaptureStdout capture_;
};

// --------------------------------------------------------------------------------------- rdxAllocateDevice

class AllocateDevice : public Ownership {
protected:
    const Members good_ = {{"DeviceOwner", TextValue("anna")},
                           {"IfhClientIpAddr", TextValue("10.0.0.5")},
                           {"IfhClientTcpPorts", TextValue("4000,4001")}};
};

TEST_F(AllocateDevice, HandsTheArgumentsToTheDevice) {
    EXPECT_EQ(DeviceCalls(ProcessAllocateDevice, Arguments(good_)),
              Calls{R"(rDxAllocateDevice("192.0.2.7:51234", "anna", "10.0.0.5", "4000,4001", "", "", 1))"});
    std::strcpy(request_->szPeerName, "");
    EXPECT_EQ(DeviceCalls(ProcessAllocateDevice, Arguments({{"IfhClientTcpPorts", TextValue("")},
                                                            {"Else", NumberValue(1)},
                                                            {"IfhClientIpAddr", TextValue(" ")},
                                                            {"DeviceOwner", TextValue("<&> '\"")}})),
              Calls{R"(rDxAllocateDevice("", "<&> '"", " ", "", "", "", 1))"});
}

TEST_F(AllocateDevice, AnswersWithThisVeryPacket) {
    EXPECT_EQ(Answer(ProcessAllocateDevice, Arguments(good_)),
              "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>"
              "<wddxPacket version='1.0'><header><comment>rDxAllocateDevice</comment></header><data>"
              "<struct><var name='Status'><struct><var name='code'><number>0</number></var>"
              "<var name='msg'><number>0</number></var>"
              "<var name='params'><array length='1'><null/></array></var></struct></var></struct>"
              "</data></wddxPacket>");
    device_.results["rDxAllocateDevice"] = 1;
    EXPECT_EQ(Answer(ProcessAllocateDevice, Arguments(good_)),
              "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>"
              "<wddxPacket version='1.0'><header><comment>rDxAllocateDevice</comment></header><data>"
              "<struct><var name='Status'><struct><var name='code'><number>42030</number></var>"
              "<var name='msg'><number>9001</number></var><var name='params'><array length='1'><struct>"
              "<var name='AllocatedBy'><string>192.0.2.9:4711</string></var>"
              "<var name='DeviceOwner'><string>anna &lt;1&gt;</string></var></struct></array></var>"
              "</struct></var></struct></data></wddxPacket>");
    device_.results["rDxAllocateDevice"] = 3;
    EXPECT_EQ(Answer(ProcessAllocateDevice, Arguments(good_)),
              "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>"
              "<wddxPacket version='1.0'><header><comment>rDxAllocateDevice</comment></header><data>"
              "<struct><var name='Status'><struct><var name='code'><number>42101</number></var>"
              "<var name='msg'><number>9002</number></var><var name='params'><array length='1'><struct>"
              "<var name='Reason'><number>9002</number></var></struct></array></var>"
              "</struct></var></struct></data></wddxPacket>");
}

TEST_F(AllocateDevice, AnswersEveryResult) {
    std::vector<Row> rows = {
        {0, 0, 0, kNoDetail}, {1, 42030, 9001, kOwner}, {3, 42101, 9002, ReasonDetail(9002)}};
    for (const int other : {2, 4, 5, 10, 9000, 9064, -1, -2, -3, INT_MAX, INT_MIN}) {
        rows.push_back({other, 42101, 9000, ReasonDetail(9000)});
    }
    device_.outputs.allocated[0] = device_.outputs.allocated[1] = std::string(4095, 'x'); // goes nowhere
    ExpectAnswers(ProcessAllocateDevice, good_, "rDxAllocateDevice", "rDxAllocateDevice", rows);
    ExpectOwnerAskedFor(ProcessAllocateDevice, good_, "rDxAllocateDevice", 1);
}

TEST_F(AllocateDevice, LeavesAnUnknownOwnerOut) {
    device_.results["rDxGetOwner"] = 1;
    ExpectAnswers(ProcessAllocateDevice, good_, "rDxAllocateDevice", "rDxAllocateDevice",
                  {{1, 42030, 9001, kNoDetail}});
}

TEST_F(AllocateDevice, PrintsTheResult) {
    for (const int result : {0, 1, -7}) {
        device_.results["rDxAllocateDevice"] = result;
        const CaptureStdout capture;
        Process(ProcessAllocateDevice, Arguments(good_));
        EXPECT_EQ(capture.Text(),
                  "ProcessAllocateDevice: rDxAllocateDevice=" + std::to_string(result) + " \n");
    }
    const CaptureStdout capture;
    ExpectRefused(ProcessAllocateDevice, good_.Without("DeviceOwner"));
    EXPECT_EQ(capture.Text(), "");
}

TEST_F(AllocateDevice, NeedsItsArguments) {
    ExpectRequired(
        ProcessAllocateDevice, good_,
        {{"DeviceOwner", kText, 32}, {"IfhClientIpAddr", kText, 16}, {"IfhClientTcpPorts", kText}});
    ExpectArgumentsNeeded(ProcessAllocateDevice);
}

// ---------------------------------------------------------------------------------------- rdxReleaseDevice

class ReleaseDevice : public Ownership {
protected:
    const Members good_ = {{"DeviceOwner", TextValue("anna")}};
};

TEST_F(ReleaseDevice, HandsTheArgumentsToTheDevice) {
    EXPECT_EQ(DeviceCalls(ProcessReleaseDevice, Arguments(good_)),
              Calls{R"(rDxReleaseDevice("192.0.2.7:51234", "anna", "", 1))"});
    const std::string owner(60000, 'o');
    EXPECT_EQ(DeviceCalls(ProcessReleaseDevice, Arguments({{"DeviceOwner", TextValue(owner)}})),
              Calls{"rDxReleaseDevice(\"192.0.2.7:51234\", \"" + owner + "\", \"\", 1)"});
}

TEST_F(ReleaseDevice, AnswersEveryResult) {
    const std::string releasedBy =
        ParamsOf("<struct><var name='ReleasedBy'><string>bert &amp; &quot;co&quot;</string></var></struct>");
    std::vector<Row> rows = {{0, 0, 0, kNoDetail},
                             {1, 42102, 9011, releasedBy},
                             {2, 42020, 9012, kOwner},
                             {3, 42102, 9013, ReasonDetail(9013)}};
    for (const int other : {4, 5, 9011, 9064, -1, -2, INT_MAX, INT_MIN}) {
        rows.push_back({other, 42102, 9014, ReasonDetail(9014)});
    }
    ExpectAnswers(ProcessReleaseDevice, good_, "rDxReleaseDevice", "rdxReleaseDevice", rows);
    ExpectOwnerAskedFor(ProcessReleaseDevice, good_, "rDxReleaseDevice", 2);
}

TEST_F(ReleaseDevice, SaysWhoReleasedIt) {
    for (const std::string& text : {std::string(), std::string(4095, 'x'), kAwkwardText}) {
        device_.outputs.releasedBy = text;
        const std::string params = ParamsOf(Members{{"ReleasedBy", TextValue(text)}}.Struct());
        ExpectAnswers(ProcessReleaseDevice, good_, "rDxReleaseDevice", "rdxReleaseDevice",
                      {{1, 42102, 9011, params}});
    }
    device_.outputs.releasedBy.reset();
    ExpectAnswers(ProcessReleaseDevice, good_, "rDxReleaseDevice", "rdxReleaseDevice",
                  {{1, 42102, 9011, ParamsOf(Members{{"ReleasedBy", "<string></string>"}}.Struct())}});
}

TEST_F(ReleaseDevice, NamesTheOwner) {
    const std::string longest(4095, '\'');
    for (const auto& [owner, allocatedBy] : {std::pair{kAwkwardText, longest}, {longest, kAwkwardText}}) {
        device_.outputs.owner = owner;
        device_.outputs.allocatedBy = allocatedBy;
        ExpectAnswers(ProcessReleaseDevice, good_, "rDxReleaseDevice", "rdxReleaseDevice",
                      {{2, 42020, 9012, OwnerDetail(allocatedBy, owner)}});
    }
    EXPECT_EQ(device_.Calls().back(), R"(rDxGetOwner("", ""))");
    device_.outputs.owner.reset();
    device_.outputs.allocatedBy.reset();
    ExpectAnswers(ProcessReleaseDevice, good_, "rDxReleaseDevice", "rdxReleaseDevice",
                  {{2, 42020, 9012, OwnerDetail("", "")}});
}

TEST_F(ReleaseDevice, LeavesAnUnknownOwnerOut) {
    for (const int failure : {1, -1, 2, INT_MIN}) {
        device_.results["rDxGetOwner"] = failure;
        ExpectAnswers(ProcessReleaseDevice, good_, "rDxReleaseDevice", "rdxReleaseDevice",
                      {{2, 42020, 9012, kNoDetail}});
    }
}

TEST_F(ReleaseDevice, NeedsItsArguments) {
    ExpectRequired(ProcessReleaseDevice, good_, {{"DeviceOwner", kText}});
    ExpectArgumentsNeeded(ProcessReleaseDevice);
}

// ----------------------------------------------------------------------------------- rdxInitiateCfgRequest

class InitiateCfgRequest : public Ownership {
protected:
    const Members good_ = {{"DeviceOwner", TextValue("anna")}, {"CfgMode", NumberValue(41602)}};
};

TEST_F(InitiateCfgRequest, MapsTheMode) {
    const std::pair<std::string, int> modes[] = {
        {NumberValue(41603), 1},  {NumberValue(41602), 2},   {NumberValue(41601), 0},
        {NumberValue(41604), 0},  {NumberValue(5), 0},       {NumberValue(1), 0},
        {NumberValue(2), 0},      {NumberValue(0), 0},       {NumberValue(-1), 0},
        {NumberValue(-41603), 0}, {NumberValue(INT_MAX), 0}, {NumberValue(INT_MIN), 0},
        {FlagValue(true), 0},     {FlagValue(false), 0}};
    for (const auto& [value, mode] : modes) {
        EXPECT_EQ(DeviceCalls(ProcessInitiateCfgRequest, Arguments(good_.With("CfgMode", value))),
                  Calls{"rDxInitiateCfgRequest(\"anna\", " + std::to_string(mode) + ")"})
            << value;
    }
}

TEST_F(InitiateCfgRequest, AnswersEveryResultWithoutAName) {
    std::vector<Row> rows = {{0, 0, 0, kNoDetail},
                             {1, 42601, 9011, ReasonDetail(9011)},
                             {2, 42020, 9012, kOwner},
                             {3, 42601, 9034, ReasonDetail(9034)}};
    for (const int other : {4, 5, 9064, -1, -2, INT_MAX, INT_MIN}) {
        rows.push_back({other, 42601, 9080, ReasonDetail(9080)});
    }
    ExpectAnswers(ProcessInitiateCfgRequest, good_, "rDxInitiateCfgRequest", "", rows);
    ExpectOwnerAskedFor(ProcessInitiateCfgRequest, good_, "rDxInitiateCfgRequest", 2);
}

TEST_F(InitiateCfgRequest, LeavesAnUnknownOwnerOut) {
    device_.results["rDxGetOwner"] = -1;
    ExpectAnswers(ProcessInitiateCfgRequest, good_, "rDxInitiateCfgRequest", "",
                  {{2, 42020, 9012, kNoDetail}});
}

TEST_F(InitiateCfgRequest, NeedsItsArguments) {
    ExpectRequired(ProcessInitiateCfgRequest, good_, {{"DeviceOwner", kText}, {"CfgMode", kIntegerOrFlag}});
    ExpectArgumentsNeeded(ProcessInitiateCfgRequest);
}

} // namespace
} // namespace rdx::test
