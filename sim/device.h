// The simulated device: whose it is, how it is set up, and the work that it is doing.
//
// Operations on behalf of an owner give kDone, kNobodys when the device is nobody's, kAnothers when it is
// somebody else's, and then their own reasons. A refused operation changes nothing.
#ifndef RDX_SIM_DEVICE_H
#define RDX_SIM_DEVICE_H

#include "sim/clock.h"
#include "sim/state.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace rdx::sim {

// Results of the device library's functions.
enum Result : int {
    kFailed = -1, // memory is short, or an argument that must be there is missing
    kDone = 0,
    kNobodys = 1,
    kTaken = 1, // of an allocation: somebody has the device already
    kAnothers = 2,
    kNoOwnerNamed = 3, // of an allocation or release
    kBusy = 3,         // a self test or an update is under way
    kBadAddress = 3,   // of an IP configuration
    kBadName = 3,      // of an attribute
    kBadMode = 4,
    kNoRoom = 4, // for so many attributes
    kAwaitedInVain = 5,
    kNoUrl = 10
};

// Room for attributes. Together they stay small enough for a device status to be answered.
inline constexpr std::size_t kAttributesMax = 64;
inline constexpr std::size_t kAttributeBytesMax = 8192; // names and values together

// State of the self test as clients see it.
struct SelfTestStatus {
    unsigned long code;
    unsigned long reason;
};
inline constexpr unsigned long kTestPassed = 0; // or none was run
inline constexpr unsigned long kTestRuns = 42500;
inline constexpr unsigned long kTestFailed = 42502;
inline constexpr std::int64_t kInterrupted = 9065; // reason of a test that the end of the process cut short

enum class TestMode { kShort = 0, kDetailed = 1 };

// Safe to call from several threads; only AwaitSelfTest takes time.
class Device {
public:
    // The device as it comes up with the state in a file.
    Device(std::string statePath, Clock clock);

    int Allocate(const Claim& claim);
    int Release(std::string_view client, std::string_view owner);
    Claim CurrentClaim();
    std::string ReleasedBy();

    // Whether the vehicle can be measured for `owner` now.
    int MayMeasure(std::string_view owner);

    // Addresses left empty stay as they are. `reboot` tells whether the settings wait for a restart.
    int SetIp(std::string_view owner, const IpConfiguration& wanted, bool& reboot);
    IpConfiguration ActiveIp();
    std::int64_t ConfiguredMode();

    // A test that takes `duration` and ends with `reason`, 0 for no fault.
    int StartSelfTest(std::string_view owner, int mode, milliseconds duration, std::int64_t reason);
    // Until the test has ended, but no longer than `limit`.
    int AwaitSelfTest(milliseconds limit);
    SelfTestStatus SelfTest();

    // Firmware that takes `duration` to load and then shows as `revision`, or as the next number.
    int StartUpdate(std::string_view owner, std::string_view url, milliseconds duration,
                    std::optional<std::int64_t> revision);
    std::int64_t FirmwareRevision();

    int SetConfigurationMode(std::string_view owner, unsigned long mode);

    // An attribute of the same name is replaced, and removed when there is no value.
    int SetAttributes(std::string_view owner, std::span<const Attribute> wanted);
    std::vector<Attribute> Attributes();

private:
    int CheckOwner(std::string_view owner) const;
    bool TestRuns() const { return state_.selfTestEnds > Now(); }
    bool UpdateRuns() const { return updateEnds_ > Now(); }
    std::int64_t Now() const { return clock_.now().count(); }
    milliseconds SelfTestTimeLeft();
    void Commit(State changed);

    const Clock clock_;
    std::mutex mutex_; // for all below
    StateFile file_;
    State state_;
    IpConfiguration activeIp_;
    std::int64_t previousRevision_; // of the firmware, while an update runs
    std::int64_t updateEnds_ = 0;
    std::vector<Attribute> attributes_; // the volatile ones as well
};

} // namespace rdx::sim

#endif
