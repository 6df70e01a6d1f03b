#include "tests/support/method_call.h"

#include "rDxsd/rDxsd.h"
#include "tests/support/wddx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace rdx::test {
namespace {

using enum ArgumentType;

// ------------------------------------------------------------------------------------- rdxGetVehicleStatus

std::string Voltage(int terminal15, int terminal30) {
    return Members{{"Terminal_15", NumberValue(terminal15)}, {"Terminal_30", NumberValue(terminal30)}}
        .Struct();
}

std::string TdSignal(int period, bool valid) {
    return Members{{"Period", NumberValue(period)}, {"IsValid", FlagValue(valid)}}.Struct();
}

class VehicleStatus : public MethodTest {
protected:
    VehicleStatus() {
        device_.outputs.measures = measures_;
        device_.outputs.most = 0;
        device_.outputs.quality = 98;
    }

    void Measure(int Measures::*field, int value) {
        Measures measures = measures_;
        measures.*field = value;
        device_.outputs.measures = measures;
    }

    std::string Status() { return Answer(ProcessGetVehicleStatus, Arguments(good_)); }

    static std::string Expected(const Members& members) {
        return ResultPacket("rdxGetVehicleStatus", members);
    }

    // What is expected with another value in one place.
    std::string ExpectedWith(const char* name, const std::string& value) const {
        return Expected(expected_.With(name, value));
    }

    const Measures measures_ = {101, 12400, 12600, 102, 103, 5, 6, 7, 1};
    const Members good_ = {{"DeviceOwner", TextValue("anna")}};
    const Members lines_ = {{"KLine", NumberValue(41150)}, {"LLine", NumberValue(41151)}};
    const Members linesAndRing_ = lines_.And("MOST", NumberValue(41153));
    const Members expected_ = {{"Status", StatusValue(0, 0, kNoDetail)},
                               {"Voltage", Voltage(12400, 12600)},
                               {"TdSignal", TdSignal(22, true)},
                               {"LineStatus", linesAndRing_.Struct()},
                               {"TransmissionQuality", NumberValue(98)}};
};

TEST_F(VehicleStatus, AnswersWithThisVeryPacket) {
    EXPECT_EQ(
        Status(),
        "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>"
        "<wddxPacket version='1.0'><header><comment>rdxGetVehicleStatus</comment></header><data><struct>"
        "<var name='Status'><struct><var name='code'><number>0</number></var>"
        "<var name='msg'><number>0</number></var>"
        "<var name='params'><array length='1'><null/></array></var></struct></var>"
        "<var name='Voltage'><struct><var name='Terminal_15'><number>12400</number></var>"
        "<var name='Terminal_30'><number>12600</number></var></struct></var>"
        "<var name='TdSignal'><struct><var name='Period'><number>22</number></var>"
        "<var name='IsValid'><boolean value='true'/></var></struct></var>"
        "<var name='LineStatus'><struct><var name='KLine'><number>41150</number></var>"
        "<var name='LLine'><number>41151</number></var>"
        "<var name='MOST'><number>41153</number></var></struct></var>"
        "<var name='TransmissionQuality'><number>98</number></var></struct></data></wddxPacket>");
}

TEST_F(VehicleStatus, AsksTheDeviceOnBehalfOfTheOwner) {
    EXPECT_EQ(DeviceCalls(ProcessGetVehicleStatus, Arguments({{"DeviceOwner", TextValue(" <a> ")}})),
              (std::vector<std::string>{R"(rDxGetVehicleStatus(" <a> "))", "rDxGetTransmissionQuality(0)"}));
}

TEST_F(VehicleStatus, NeedsItsArguments) {
    ExpectRequired(ProcessGetVehicleStatus, good_, {{"DeviceOwner", kText, 32}});
    ExpectArgumentsNeeded(ProcessGetVehicleStatus);
}

TEST_F(VehicleStatus, TellsNothingMeasuredOfAFailure) {
    std::vector<Row> rows = {
        {1, 42030, 9011, ReasonDetail(9011)}, {2, 42020, 9012, kOwner}, {3, -1, 9072, ReasonDetail(9072)}};
    for (const int other : {4, 5, 10, 9071, -1, -2, INT_MAX, INT_MIN}) {
        rows.push_back({other, -1, 9071, ReasonDetail(9071)});
    }
    ExpectAnswers(ProcessGetVehicleStatus, good_, "rDxGetVehicleStatus", "rdxGetVehicleStatus", rows);
    EXPECT_EQ(std::ranges::count(device_.Names(), "rDxGetTransmissionQuality"), 0);
    ExpectOwnerAskedFor(ProcessGetVehicleStatus, good_, "rDxGetVehicleStatus", 2);
    device_.results["rDxGetOwner"] = 1;
    ExpectAnswers(ProcessGetVehicleStatus, good_, "rDxGetVehicleStatus", "rdxGetVehicleStatus",
                  {{2, 42020, 9012, kNoDetail}});
}

TEST_F(VehicleStatus, TellsTheVoltagesAsTheyAre) {
    for (const int value : {0, -1, INT_MAX, INT_MIN}) {
        Measure(&Measures::iTerminal15, value);
        EXPECT_EQ(Status(), ExpectedWith("Voltage", Voltage(value, 12600)));
        Measure(&Measures::iTerminal30, value);
        EXPECT_EQ(Status(), ExpectedWith("Voltage", Voltage(12400, value)));
    }
}

TEST_F(VehicleStatus, ReckonsThePeriod) {
    const std::pair<int, int> periods[] = {
        {0, 0},
        {1, 3},
        {-1, -3},
        {2, 6},
        {3, 9},
        {-3, -9},
        {5, 16},
        {-5, -16},
        {7, 22},
        {-7, -22},
        {10, 32},
        {375, 1200},
        {67108863, 214748361}, // 32 times as much still has 32 bits
        {67108864, 214748364},
        {-67108865, -214748368},
        {671088639, 2147483644},
        {671088640, INT_MAX}, // out of range: the nearest number
        {INT_MAX, INT_MAX},
        {-671088640, INT_MIN},
        {-671088641, INT_MIN},
        {INT_MIN, INT_MIN},
    };
    for (const auto& [raw, period] : periods) {
        Measure(&Measures::iTdPeriod, raw);
        EXPECT_EQ(Status(), ExpectedWith("TdSignal", TdSignal(period, true))) << raw;
    }
}

TEST_F(VehicleStatus, TellsWhetherThePeriodIsValid) {
    for (const int flag : {0, 1, 2, -1, 256, INT_MIN}) {
        Measure(&Measures::iTdValid, flag);
        EXPECT_EQ(Status(), ExpectedWith("TdSignal", TdSignal(22, flag != 0))) << flag;
    }
}

TEST_F(VehicleStatus, MapsTheStatesOfTheLines) {
    const std::pair<int, int> states[] = {{INT_MIN, 41153}, {-1, 41153}, {0, 41153},     {1, 41153},
                                          {2, 41152},       {3, 41152},  {4, 41153},     {5, 41150},
                                          {6, 41151},       {7, 41153},  {41150, 41153}, {INT_MAX, 41153}};
    for (const auto& [state, told] : states) {
        Measure(&Measures::iKLine, state);
        EXPECT_EQ(Status(),
                  ExpectedWith("LineStatus", linesAndRing_.With("KLine", NumberValue(told)).Struct()))
            << state;
        Measure(&Measures::iLLine, state);
        EXPECT_EQ(Status(),
                  ExpectedWith("LineStatus", linesAndRing_.With("LLine", NumberValue(told)).Struct()))
            << state;
    }
}

TEST_F(VehicleStatus, TellsTheStateOfTheRingWhereThereIsOne) {
    device_.outputs.most = ULONG_MAX;
    EXPECT_EQ(Status(), ExpectedWith("LineStatus", lines_.Struct()));
    for (const unsigned long state : {0UL, 1UL, 2UL, 41153UL, 0x7FFFFFFFUL, ULONG_MAX - 1}) {
        device_.outputs.most = state;
        const std::string told = NumberValue(state == 0 ? 41153 : 41154);
        EXPECT_EQ(Status(), ExpectedWith("LineStatus", lines_.And("MOST", told).Struct())) << state;
    }
}

TEST_F(VehicleStatus, TellsTheQualityOfTheTransmission) {
    const std::pair<unsigned long, int> qualities[] = {
        {0, 0}, {100, 100}, {0x7FFFFFFF, INT_MAX}, {0xFFFFFFFF, -1}};
    for (const auto& [quality, told] : qualities) {
        device_.outputs.quality = quality;
        EXPECT_EQ(Status(), ExpectedWith("TransmissionQuality", NumberValue(told))) << quality;
    }
    for (const int failure : {1, 2, -1}) {
        device_.results["rDxGetTransmissionQuality"] = failure;
        EXPECT_EQ(Status(), ExpectedWith("TransmissionQuality", NumberValue(0))) << failure;
    }
    device_.results.clear();
    device_.outputs.quality.reset();
    EXPECT_EQ(Status(), ExpectedWith("TransmissionQuality", NumberValue(0)));
}

TEST_F(VehicleStatus, AnswersThoughTheDeviceFillsNothing) {
    device_.outputs = {};
    const Members lines = {
        {"KLine", NumberValue(41153)}, {"LLine", NumberValue(41153)}, {"MOST", NumberValue(41153)}};
    EXPECT_EQ(Status(), Expected({{"Status", StatusValue(0, 0, kNoDetail)},
                                  {"Voltage", Voltage(0, 0)},
                                  {"TdSignal", TdSignal(0, false)},
                                  {"LineStatus", lines.Struct()},
                                  {"TransmissionQuality", NumberValue(0)}}));
}

} // namespace
} // namespace rdx::test
