// A simulated device with the files that it works with.
#ifndef RDX_SIM_SIMULATION_H
#define RDX_SIM_SIMULATION_H

#include "sim/calls.h"
#include "sim/clock.h"
#include "sim/device.h"
#include "sim/scenario.h"

#include <string>

namespace rdx::sim {

// The paths of its files; an empty one stands for no such file.
struct Paths {
    std::string state;
    std::string scenario;
    std::string calls;
};

// What the environment says: RDX_SIM_STATE, RDX_SIM_SCENARIO, RDX_SIM_CALLS. Without the first, the state
// lies in $XDG_STATE_HOME, or else in /tmp in a file of the user's own.
Paths PathsFromEnvironment();

class Simulation {
public:
    Simulation(const Paths& paths, const Clock& time)
        : device(paths.state, time), scenario(paths.scenario), calls(paths.calls), clock(time) {}

    Device device;
    ScenarioFile scenario;
    CallRecord calls;
    const Clock clock;
};

// The one that the device library's functions work on: made from the environment at first use, and never
// destroyed, as threads may call until the process is gone.
Simulation& CurrentSimulation();

// Puts another one in its place; null brings the own one back. No call may be under way.
void UseSimulation(Simulation* simulation);

} // namespace rdx::sim

#endif
