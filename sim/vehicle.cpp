#include "sim/vehicle.h"

#include "sim/ini.h"

#include <algorithm>
#include <span>

namespace rdx::sim {

namespace {

using namespace std::chrono_literals;

// Goes evenly from `low` to `high` and back within `period`.
int Swing(milliseconds time, milliseconds period, int low, int high) {
    const auto phase = (time % period).count();
    const auto half = period.count() / 2;
    const auto risen = phase <= half ? phase : period.count() - phase;
    return low + static_cast<int>((high - low) * risen / half);
}

// Steps through `states`, one for each `step`.
int Walk(milliseconds time, milliseconds step, std::span<const int> states) {
    return states[static_cast<std::size_t>(time / step) % states.size()];
}

constexpr int kLineStates[] = {2, 5, 2, 6, 3};
constexpr int kMostStates[] = {0, 1};
constexpr std::string_view kTypesWithMost[] = {"QURT", "QRT", "KAVO"};

} // namespace

Measures MeasureAt(milliseconds time) {
    constexpr milliseconds kUnequalLines = 3s; // the L line follows the K line
    constexpr int kTdValid[] = {1, 1, 1, 1, 0};
    return {.iReserved0 = 0,
            .iTerminal15 = Swing(time, 30s, 12100, 12500), // millivolts of a battery in use
            .iTerminal30 = Swing(time, 30s, 12300, 12700),
            .iReserved3 = 0,
            .iReserved4 = 0,
            .iKLine = Walk(time, 5s, kLineStates),
            .iLLine = Walk(time + kUnequalLines, 5s, kLineStates),
            .iTdPeriod = Swing(time, 20s, 350, 400),
            .iTdValid = Walk(time, 4s, kTdValid)};
}

unsigned long MostStateAt(milliseconds time, std::string_view deviceType) {
    constexpr auto kNoRing = static_cast<unsigned long>(-1);
    const bool ring = std::ranges::any_of(
        kTypesWithMost, [=](std::string_view type) { return SameIgnoringCase(type, deviceType); });
    return ring ? static_cast<unsigned long>(Walk(time, 10s, kMostStates)) : kNoRing;
}

unsigned long TransmissionQualityAt(milliseconds time) {
    return static_cast<unsigned long>(Swing(time, 40s, 90, 100));
}

} // namespace rdx::sim
