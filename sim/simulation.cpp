#include "sim/simulation.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>

#include <unistd.h>

namespace rdx::sim {

namespace {

constinit std::atomic<Simulation*> replacement = nullptr;

std::string Environment(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string DefaultStatePath() {
    const std::filesystem::path home = Environment("XDG_STATE_HOME");
    if (!home.is_absolute()) return "/tmp/rdx-sim-" + std::to_string(geteuid()) + ".state";
    std::error_code error; // shows when the file cannot be written
    std::filesystem::create_directories(home, error);
    return home / "rdx-sim.state";
}

} // namespace

Paths PathsFromEnvironment() {
    const char* const state = std::getenv("RDX_SIM_STATE"); // empty: no file
    return {.state = state != nullptr ? state : DefaultStatePath(),
            .scenario = Environment("RDX_SIM_SCENARIO"),
            .calls = Environment("RDX_SIM_CALLS")};
}

Simulation& CurrentSimulation() {
    if (Simulation* const other = replacement.load(std::memory_order_acquire)) return *other;
    static auto* const own = new Simulation(PathsFromEnvironment(), SystemClock());
    return *own;
}

void UseSimulation(Simulation* simulation) { replacement.store(simulation, std::memory_order_release); }

} // namespace rdx::sim
