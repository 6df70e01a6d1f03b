// The scenario file: what the person who plays with the simulated device, or a test, wants it to say.
//
// A section for each function of the device library; its keys set the function's result, its outputs, how
// long it takes, and how the work that it starts goes. docs/simulator.md describes every key.
#ifndef RDX_SIM_SCENARIO_H
#define RDX_SIM_SCENARIO_H

#include "sim/files.h"
#include "sim/state.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace rdx::sim {

enum class Function {
    kAllocateDevice,
    kReleaseDevice,
    kGetOwner,
    kGetDeviceType,
    kGetAllocStatus,
    kGetFirmwareRev,
    kGetActiveIpConf,
    kGetNetInterface,
    kGetIpConfiguration,
    kSetIpConfiguration,
    kGetVehicleStatus,
    kGetTransmissionQuality,
    kRunDeviceSelfTest,
    kGetCurrentSelftestStatus,
    kInitiateCfgRequest,
    kSetDeviceAttributes,
    kGetDeviceAttributes,
    kFreeDeviceAttributes,
    kUpdateDeviceFirmware
};
inline constexpr std::size_t kFunctions = 19;

// The function's name in the device library.
std::string_view NameOf(Function function);

enum class Key {
    kResult,
    kDelay,
    kOutput1,
    kOutput2,
    kReleasedBy,
    kOwner,
    kAllocatedBy,
    kType,
    kControlled,
    kAllocation,
    kControllingClient,
    kRevision,
    kIpAddress,
    kNetmask,
    kGateway,
    kInterface,
    kMode,
    kRebootRequired,
    kReserved0,
    kTerminal15,
    kTerminal30,
    kReserved3,
    kReserved4,
    kKLine,
    kLLine,
    kTdPeriod,
    kTdValid,
    kMost,
    kQuality,
    kShortTest,
    kDetailedTest,
    kAwaitLimit,
    kEndReason,
    kCode,
    kReason,
    kCount,
    kAttribute,
    kUpdateTime,
    kNewRevision
};

// What a key's value can be.
enum class Kind {
    kNumber,       // what fits an int
    kWord,         // what fits 32 bits without a sign, or -1 for all bits set
    kTime,         // milliseconds
    kCount,        // of attributes
    kOutputNumber, // outputs can also be left alone
    kOutputWord,
    kOutputText,
    kOutputAttribute
};

// A key of a function's section. Keys without a function are every section's.
struct KeyRow {
    std::optional<Function> function;
    Key key;
    std::string_view name;
    Kind kind;
};
std::span<const KeyRow> AllKeys();

// What the scenario says of one key.
struct Setting {
    Key key;
    bool untouched; // the output is left alone
    std::int64_t number;
    std::string text;
};

// What the scenario says of one function.
class Rule {
public:
    const Setting* Find(Key key) const;
    std::int64_t Number(Key key, std::int64_t otherwise) const;
    std::chrono::milliseconds Time(Key key, std::chrono::milliseconds otherwise) const;

    // A later setting of the same key takes the place of the earlier one.
    void Set(Setting setting);

    std::vector<Attribute> attributes;

private:
    std::vector<Setting> settings_;
};

class Scenario {
public:
    const Rule& For(Function function) const { return rules_[static_cast<std::size_t>(function)]; }
    Rule& For(Function function) { return rules_[static_cast<std::size_t>(function)]; }

private:
    std::array<Rule, kFunctions> rules_;
};

// The scenario in `text`. What cannot be used is left out, and `messages` says where it stands and what would
// be accepted, one line for each.
Scenario ReadScenario(std::string_view text, const std::string& path, std::vector<std::string>& messages);

// The scenario file of a running device, read again when it changes. An empty path is no scenario.
class ScenarioFile {
public:
    explicit ScenarioFile(std::string path) : path_(std::move(path)) {}

    // The scenario as the file has it now. Safe to call from several threads.
    std::shared_ptr<const Scenario> Current();

private:
    // What shows that a file has changed.
    struct Stamp {
        int error = 0;
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        std::int64_t modified = 0; // nanoseconds
        bool operator==(const Stamp&) const = default;
    };
    Stamp Look() const;
    void Refresh();

    const std::string path_;
    std::mutex mutex_; // for all below
    std::optional<Stamp> seen_;
    std::optional<FileContent> read_; // what the scenario was made of
    std::shared_ptr<const Scenario> scenario_ = std::make_shared<Scenario>();
};

} // namespace rdx::sim

#endif
