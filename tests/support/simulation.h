// A simulated device for a test: files in a folder of its own, and a clock that only the test moves.
#ifndef RDX_TESTS_SUPPORT_SIMULATION_H
#define RDX_TESTS_SUPPORT_SIMULATION_H

#include "sim/simulation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

namespace rdx::test {

inline constexpr auto kAllBits = static_cast<unsigned long>(-1);
inline constexpr char kMe[] = "Workstation 7";
inline constexpr char kHer[] = "Workstation 8";

inline std::string ReadWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void WriteWhole(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// The line that opens the function's section of a scenario.
inline std::string Section(sim::Function function) {
    return "[" + std::string(sim::NameOf(function)) + "]\n";
}

inline bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class TemporaryFolder {
public:
    TemporaryFolder() {
        if (mkdtemp(path_.data()) == nullptr) std::abort();
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string operator/(const char* name) const { return path_ + "/" + name; }

private:
    std::string path_ = "/tmp/rdx-sim-test-XXXXXX";
};

// The device library's functions work on this device while the test runs.
class SimulatedDevice : public testing::Test {
protected:
    SimulatedDevice() {
        Play("");
        Start();
    }
    ~SimulatedDevice() override { sim::UseSimulation(nullptr); }

    // A process that comes up with what the one before it left in the files.
    void Start() {
        simulation_ = std::make_unique<sim::Simulation>(paths, clock);
        sim::UseSimulation(simulation_.get());
    }

    // `text` is the scenario from the next call on.
    void Play(const std::string& text) const {
        WriteWhole(paths.scenario + ".new", text);
        std::filesystem::rename(paths.scenario + ".new", paths.scenario);
    }

    void Pass(sim::milliseconds time) { now += time.count(); }

    // The record of the calls since the last time.
    std::string TakeCalls() const {
        std::string calls = ReadWhole(paths.calls);
        std::filesystem::remove(paths.calls);
        return calls;
    }

    TemporaryFolder folder;
    sim::Paths paths = {folder / "state", folder / "scenario", folder / "calls"};
    std::atomic<std::int64_t> now = 1'700'000'000'000;
    std::atomic<std::int64_t> slept = 0;
    sim::Clock clock = {.now = [this] { return sim::milliseconds(now.load()); },
                        .sleep =
                            [this](sim::milliseconds time) {
                                now += time.count();
                                slept += time.count();
                            }};

private:
    std::unique_ptr<sim::Simulation> simulation_;
};

} // namespace rdx::test

#endif
