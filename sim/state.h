// What the simulated device remembers when its process ends: the settings it comes up with the next time.
#ifndef RDX_SIM_STATE_H
#define RDX_SIM_STATE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rdx::sim {

struct Attribute {
    std::optional<std::string> name; // the device's own always have both; a scenario may leave them out
    std::optional<std::string> value;
    bool persistent;

    bool operator==(const Attribute&) const = default;
};

// An attribute as the files write it: name, value, "persistent" or "volatile"; null for what is not there.
std::optional<Attribute> ReadAttribute(std::string_view value);
std::string PrintAttribute(const Attribute& attribute);

// Who has the device.
struct Claim {
    std::string owner;   // empty: nobody
    std::string client;  // the caller that allocated it, as "address:port"
    std::string address; // where the client that works with the device is
    std::string ports;

    bool operator==(const Claim&) const = default;
};

struct IpConfiguration {
    std::int64_t mode; // 1 fixed address, 2 DHCP, 3 link-local
    std::string address;
    std::string netmask;
    std::string gateway;
    std::string hostname;

    bool operator==(const IpConfiguration&) const = default;
};

struct State {
    Claim claim;
    std::string releasedBy; // the client that gave the device back last
    IpConfiguration ip;
    std::int64_t firmwareRevision;
    std::int64_t selfTestEnds;   // milliseconds since 1970, 0 when no test has been started
    std::int64_t selfTestReason; // 0: the last test ends, or ended, without a fault
    std::int64_t configurationMode;
    std::vector<Attribute> attributes;

    bool operator==(const State&) const = default;
};

// The state of a device that was never used.
State FactoryState();

std::string PrintState(const State& state);

// The state that PrintState wrote; nothing for any other text, with the reason and its line in `error`.
std::optional<State> ReadState(std::string_view text, std::string& error);

// The file that keeps the state. An empty path keeps none.
class StateFile {
public:
    explicit StateFile(std::string path) : path_(std::move(path)) {}

    // The state in the file, or the factory's when there is none or it cannot be used, which is reported.
    State Load() const;

    // The first failure is reported; the device goes on without its file.
    void Save(const State& state);

private:
    std::string path_;
    bool reported_ = false;
};

} // namespace rdx::sim

#endif
