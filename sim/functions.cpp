// The nineteen functions of libDxSvcs.so, answered by the simulated device for machines without the hardware.
//
// Each call is recorded, takes the time that the scenario gives it, and then answers what the scenario says
// or else what the device does.

#include "rDxsd/rDxSvcs.h"
#include "sim/simulation.h"
#include "sim/vehicle.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include <net/if.h>

namespace {

using namespace rdx::sim;
using namespace std::chrono_literals;

constexpr std::string_view kDeviceType = "KAVO";

// How long work takes unless the scenario says otherwise.
constexpr milliseconds kShortTest = 2s;
constexpr milliseconds kDetailedTest = 20s;
constexpr milliseconds kAwaitLimit = 10s;
constexpr milliseconds kUpdate = 5s;

// What one call works with.
struct Call {
    Device& device;
    const Scenario& scenario;
    const Rule& rule;
    milliseconds now;

    // The scenario's result, or that of the device's `work`, which is not done when there is a scenario's.
    template <typename Work>
    int Result(Work work) const {
        const Setting* const setting = rule.Find(Key::kResult);
        return setting != nullptr ? static_cast<int>(setting->number) : work();
    }
    int Result() const {
        return Result([] { return kDone; });
    }
};

// Memory that runs short must not reach the caller, who may be a C program, as an exception.
template <typename Body>
int Serve(Function function, Inputs inputs, Body body) {
    try {
        Simulation& simulation = CurrentSimulation();
        simulation.calls.Add(NameOf(function), inputs);
        const std::shared_ptr<const Scenario> scenario = simulation.scenario.Current();
        const Rule& rule = scenario->For(function);
        const milliseconds delay = rule.Time(Key::kDelay, 0ms);
        if (delay > 0ms) simulation.clock.sleep(delay);
        return body(Call{simulation.device, *scenario, rule, simulation.clock.now()});
    } catch (const std::exception&) {
        return kFailed;
    }
}

// An argument as the device takes it: a text that is missing counts as empty.
std::string_view Text(const char* text) { return text != nullptr ? text : std::string_view{}; }

std::int64_t Number(unsigned long number) { return static_cast<long>(number); } // all bits set as -1

// Copies `text` into a buffer of `size` bytes, cut to fit and terminated.
void CopyText(char* buffer, int size, std::string_view text) {
    if (buffer == nullptr || size <= 0) return;
    const std::size_t length = std::min(text.size(), static_cast<std::size_t>(size) - 1);
    std::copy_n(text.data(), length, buffer);
    buffer[length] = '\0';
}

// Writes outputs: what the scenario says of them, whatever the result is, or else what the device does, if it
// has something to say.
class Outputs {
public:
    Outputs(const Call& call, bool answered) : rule_(call.rule), answered_(answered) {}

    void Text(Key key, char* buffer, int size, std::string_view text) const {
        const Setting* const setting = rule_.Find(key);
        if (setting == nullptr) {
            if (answered_) CopyText(buffer, size, text);
        } else if (!setting->untouched) {
            CopyText(buffer, size, setting->text);
        }
    }

    template <typename T>
    void Number(Key key, T* output, T number) const {
        if (output == nullptr) return;
        const Setting* const setting = rule_.Find(key);
        if (setting == nullptr) {
            if (answered_) *output = number;
        } else if (!setting->untouched) {
            *output = static_cast<T>(setting->number);
        }
    }

private:
    const Rule& rule_;
    bool answered_;
};

std::string_view DeviceType(const Scenario& scenario) {
    const Setting* const type = scenario.For(Function::kGetDeviceType).Find(Key::kType);
    return type != nullptr && !type->untouched ? std::string_view(type->text) : kDeviceType;
}

struct MeasureRow {
    Key key;
    int Measures::*field;
};
constexpr MeasureRow kMeasures[] = {
    {Key::kReserved0, &Measures::iReserved0},   {Key::kTerminal15, &Measures::iTerminal15},
    {Key::kTerminal30, &Measures::iTerminal30}, {Key::kReserved3, &Measures::iReserved3},
    {Key::kReserved4, &Measures::iReserved4},   {Key::kKLine, &Measures::iKLine},
    {Key::kLLine, &Measures::iLLine},           {Key::kTdPeriod, &Measures::iTdPeriod},
    {Key::kTdValid, &Measures::iTdValid}};

// --- Arrays of attributes -------------------------------------------------------------------------------

struct Free {
    void operator()(void* block) const { std::free(block); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

// `count` zeroed entries with `more` bytes behind them.
template <typename T>
Owned<T> Allocate(std::size_t count, std::size_t more = 0) {
    return Owned<T>(static_cast<T*>(std::calloc(1, count * sizeof(T) + more + 1)));
}

// The texts of the attributes in one block, the pointers first, so that it can be freed whatever the pointers
// are by then. Entries beyond the attributes are null, and memory that is short gives no block.
Owned<char*> MakeTexts(std::span<const Attribute> attributes, std::optional<std::string> Attribute::*text,
                       std::size_t count) {
    std::size_t bytes = 0;
    for (const Attribute& attribute : attributes) bytes += (attribute.*text).value_or("").size() + 1;
    Owned<char*> block = Allocate<char*>(count, bytes);
    if (!block) return nullptr;
    char** entry = block.get();
    char* end = static_cast<char*>(static_cast<void*>(entry + count));
    for (const Attribute& attribute : attributes) {
        if (const std::optional<std::string>& from = attribute.*text) {
            *entry = end;
            std::memcpy(end, from->c_str(), from->size() + 1);
            end += from->size() + 1;
        }
        ++entry;
    }
    return block;
}

Owned<int> MakeFlags(std::span<const Attribute> attributes, std::size_t count) {
    Owned<int> block = Allocate<int>(count);
    if (!block) return nullptr;
    std::ranges::transform(attributes, block.get(), [](const Attribute& a) { return a.persistent ? 1 : 0; });
    return block;
}

// The attributes that a caller gives as parallel arrays.
std::vector<Attribute> TakeAttributes(std::span<char* const> names, std::span<char* const> values,
                                      std::span<const int> persistence) {
    const auto text = [](const char* t) {
        return t != nullptr ? std::optional<std::string>(t) : std::nullopt;
    };
    std::vector<Attribute> attributes;
    for (std::size_t i = 0; i < names.size(); ++i) {
        attributes.push_back({text(names[i]), text(values[i]), persistence[i] != 0});
    }
    return attributes;
}

// An array argument of `count` entries; none when it is missing.
template <typename T>
std::span<T const> Entries(T const* array, int count) {
    return array != nullptr && count > 0 ? std::span(array, static_cast<std::size_t>(count))
                                         : std::span<T const>();
}

} // namespace

// --- Ownership ------------------------------------------------------------------------------------------

int rDxAllocateDevice(const char* client, const char* owner, const char* clientIpAddress,
                      const char* clientTcpPorts, char* output1, char* output2, int flag) {
    const Inputs inputs = {{"client", client},
                           {"owner", owner},
                           {"address", clientIpAddress},
                           {"ports", clientTcpPorts},
                           {"flag", flag}};
    return Serve(Function::kAllocateDevice, inputs, [=](const Call& call) {
        const Claim claim = {std::string(Text(owner)), std::string(Text(client)),
                             std::string(Text(clientIpAddress)), std::string(Text(clientTcpPorts))};
        const int result = call.Result([&] { return call.device.Allocate(claim); });
        const Claim present = call.device.CurrentClaim();
        const Outputs outputs(call, result == kDone || result == kTaken);
        outputs.Text(Key::kOutput1, output1, RDX_SVCS_TEXT_SIZE, present.owner);
        outputs.Text(Key::kOutput2, output2, RDX_SVCS_TEXT_SIZE, present.client);
        return result;
    });
}

int rDxReleaseDevice(const char* client, const char* owner, char* releasedBy, int flag) {
    const Inputs inputs = {{"client", client}, {"owner", owner}, {"flag", flag}};
    return Serve(Function::kReleaseDevice, inputs, [=](const Call& call) {
        const int result = call.Result([&] { return call.device.Release(Text(client), Text(owner)); });
        Outputs(call, result == kNobodys)
            .Text(Key::kReleasedBy, releasedBy, RDX_SVCS_TEXT_SIZE, call.device.ReleasedBy());
        return result;
    });
}

int rDxGetOwner(char* owner, char* allocatedBy) {
    return Serve(Function::kGetOwner, {}, [=](const Call& call) {
        const int result = call.Result();
        const Claim claim = call.device.CurrentClaim();
        const Outputs outputs(call, result == kDone);
        outputs.Text(Key::kOwner, owner, RDX_SVCS_TEXT_SIZE, claim.owner);
        outputs.Text(Key::kAllocatedBy, allocatedBy, RDX_SVCS_TEXT_SIZE, claim.client);
        return result;
    });
}

int rDxInitiateCfgRequest(const char* owner, unsigned long mode) {
    const Inputs inputs = {{"owner", owner}, {"mode", Number(mode)}};
    return Serve(Function::kInitiateCfgRequest, inputs, [=](const Call& call) {
        return call.Result([&] { return call.device.SetConfigurationMode(Text(owner), mode); });
    });
}

// --- Device status --------------------------------------------------------------------------------------

int rDxGetDeviceType(char* name, int size) {
    return Serve(Function::kGetDeviceType, {{"size", size}}, [=](const Call& call) {
        const int result = call.Result();
        Outputs(call, result == kDone).Text(Key::kType, name, size, kDeviceType);
        return result;
    });
}

int rDxGetAllocStatus(unsigned long* controlled, char* allocation, char* owner, char* controllingClient,
                      void*) {
    return Serve(Function::kGetAllocStatus, {}, [=](const Call& call) {
        const int result = call.Result();
        const Claim claim = call.device.CurrentClaim();
        const bool allocated = !claim.owner.empty();
        const Outputs outputs(call, result == kDone);
        outputs.Number(Key::kControlled, controlled, allocated ? 1UL : 0UL);
        outputs.Text(Key::kAllocation, allocation, RDX_SVCS_TEXT_SIZE, allocated ? "1" : "0");
        outputs.Text(Key::kOwner, owner, RDX_SVCS_TEXT_SIZE, claim.owner);
        outputs.Text(Key::kControllingClient, controllingClient, RDX_SVCS_TEXT_SIZE, claim.address);
        return result;
    });
}

int rDxGetFirmwareRev(unsigned long* revision) {
    return Serve(Function::kGetFirmwareRev, {}, [=](const Call& call) {
        const int result = call.Result();
        Outputs(call, result == kDone)
            .Number(Key::kRevision, revision, static_cast<unsigned long>(call.device.FirmwareRevision()));
        return result;
    });
}

int rDxGetActiveIpConf(char* ipAddress, char* netmask, char* gateway, int size) {
    return Serve(Function::kGetActiveIpConf, {{"size", size}}, [=](const Call& call) {
        const int result = call.Result();
        const IpConfiguration ip = call.device.ActiveIp();
        const Outputs outputs(call, result == kDone);
        outputs.Text(Key::kIpAddress, ipAddress, size, ip.address);
        outputs.Text(Key::kNetmask, netmask, size, ip.netmask);
        outputs.Text(Key::kGateway, gateway, size, ip.gateway);
        return result;
    });
}

// The server asks the system for this interface's hardware address, so the name must exist here.
int rDxGetNetInterface(char* name, int size) {
    return Serve(Function::kGetNetInterface, {{"size", size}}, [=](const Call& call) {
        const int result = call.Result();
        const char* const present = if_nametoindex("eth0") != 0 ? "eth0" : "lo";
        Outputs(call, result == kDone).Text(Key::kInterface, name, size, present);
        return result;
    });
}

int rDxGetIpConfiguration(RDXConf* configuration) {
    const std::int64_t length = configuration != nullptr ? std::int64_t{configuration->uiLength} : -1;
    return Serve(Function::kGetIpConfiguration, {{"length", length}}, [=](const Call& call) {
        if (length < RDX_CONF_LENGTH) return int{kFailed};
        const int result = call.Result();
        Outputs(call, result == kDone)
            .Number(Key::kMode, &configuration->iMode, static_cast<int>(call.device.ConfiguredMode()));
        return result;
    });
}

// --- Vehicle --------------------------------------------------------------------------------------------

int rDxGetVehicleStatus(const char* owner, Measures* measures, unsigned long* mostState) {
    return Serve(Function::kGetVehicleStatus, {{"owner", owner}}, [=](const Call& call) {
        const int result = call.Result([&] { return call.device.MayMeasure(Text(owner)); });
        const Outputs outputs(call, result == kDone);
        const Measures now = MeasureAt(call.now);
        for (const MeasureRow& row : kMeasures) {
            if (measures != nullptr) outputs.Number(row.key, &(measures->*row.field), now.*row.field);
        }
        outputs.Number(Key::kMost, mostState, MostStateAt(call.now, DeviceType(call.scenario)));
        return result;
    });
}

int rDxGetTransmissionQuality(unsigned long* quality) {
    return Serve(Function::kGetTransmissionQuality, {}, [=](const Call& call) {
        const int result = call.Result();
        Outputs(call, result == kDone).Number(Key::kQuality, quality, TransmissionQualityAt(call.now));
        return result;
    });
}

// --- Configuration and maintenance ----------------------------------------------------------------------

int rDxSetIpConfiguration(const char* owner, const char* ipAddress, const char* netmask, const char* gateway,
                          int mode, const char* hostname, unsigned long* rebootRequired) {
    const Inputs inputs = {{"owner", owner},     {"ip_address", ipAddress},
                           {"netmask", netmask}, {"gateway", gateway},
                           {"mode", mode},       {"hostname", hostname}};
    return Serve(Function::kSetIpConfiguration, inputs, [=](const Call& call) {
        const IpConfiguration wanted = {mode, std::string(Text(ipAddress)), std::string(Text(netmask)),
                                        std::string(Text(gateway)), std::string(Text(hostname))};
        bool reboot = false;
        const int result = call.Result([&] { return call.device.SetIp(Text(owner), wanted, reboot); });
        Outputs(call, true).Number(Key::kRebootRequired, rebootRequired, reboot ? 1UL : 0UL);
        return result;
    });
}

int rDxRunDeviceSelfTest(const char* owner, int mode, int await) {
    const Inputs inputs = {{"owner", owner}, {"mode", mode}, {"await", await}};
    return Serve(Function::kRunDeviceSelfTest, inputs, [=](const Call& call) {
        const milliseconds duration = mode == static_cast<int>(TestMode::kDetailed)
                                          ? call.rule.Time(Key::kDetailedTest, kDetailedTest)
                                          : call.rule.Time(Key::kShortTest, kShortTest);
        return call.Result([&] {
            const int started =
                call.device.StartSelfTest(Text(owner), mode, duration, call.rule.Number(Key::kEndReason, 0));
            if (started != kDone || await == 0) return started;
            return call.device.AwaitSelfTest(call.rule.Time(Key::kAwaitLimit, kAwaitLimit));
        });
    });
}

int rDxGetCurrentSelftestStatus(unsigned long* code, unsigned long* reason) {
    return Serve(Function::kGetCurrentSelftestStatus, {}, [=](const Call& call) {
        const int result = call.Result();
        const SelfTestStatus status = call.device.SelfTest();
        const Outputs outputs(call, result == kDone);
        outputs.Number(Key::kCode, code, status.code);
        outputs.Number(Key::kReason, reason, status.reason);
        return result;
    });
}

int rDxSetDeviceAttributes(const char* owner, char** names, char** values, int* persistence, int count,
                           int enforceRegistration) {
    const std::span<char* const> nameSpan = Entries<char*>(names, count);
    const std::span<char* const> valueSpan = Entries<char*>(values, count);
    const std::span<const int> flagSpan = Entries<int>(persistence, count);
    const Inputs inputs = {{"owner", owner},          {"names", nameSpan}, {"values", valueSpan},
                           {"persistence", flagSpan}, {"count", count},    {"enforce", enforceRegistration}};
    return Serve(Function::kSetDeviceAttributes, inputs, [=](const Call& call) {
        return call.Result([&] {
            const auto size = static_cast<std::size_t>(std::max(count, 0));
            if (nameSpan.size() != size || valueSpan.size() != size || flagSpan.size() != size)
                return int{kFailed};
            return call.device.SetAttributes(Text(owner), TakeAttributes(nameSpan, valueSpan, flagSpan));
        });
    });
}

int rdxGetDeviceAttributes(char*** names, char*** values, int** persistence, int* count) {
    return Serve(Function::kGetDeviceAttributes, {}, [=](const Call& call) {
        if (names == nullptr || values == nullptr || persistence == nullptr || count == nullptr) {
            return int{kFailed};
        }
        const int result = call.Result();
        if (result != kDone) return result;
        const std::vector<Attribute> attributes =
            call.rule.attributes.empty() ? call.device.Attributes() : call.rule.attributes;
        const auto own = static_cast<std::int64_t>(attributes.size());
        const std::int64_t said = call.rule.Number(Key::kCount, own);
        const auto entries = static_cast<std::size_t>(std::max(said, own));
        Owned<char*> nameBlock = MakeTexts(attributes, &Attribute::name, entries);
        Owned<char*> valueBlock = MakeTexts(attributes, &Attribute::value, entries);
        Owned<int> flagBlock = MakeFlags(attributes, entries);
        if (!nameBlock || !valueBlock || !flagBlock) return int{kFailed};
        *names = nameBlock.release();
        *values = valueBlock.release();
        *persistence = flagBlock.release();
        *count = static_cast<int>(said);
        return result;
    });
}

int rdxFreeDeviceAttributes(char** names, char** values, int* persistence, int count) {
    std::free(names);
    std::free(values);
    std::free(persistence);
    return Serve(Function::kFreeDeviceAttributes, {{"count", count}},
                 [](const Call& call) { return call.Result(); });
}

int rDxUpdateDeviceFirmware(const char* owner, const char* downloadUrl, unsigned long revision, int isSigned,
                            const char* methodOfTrust, const char* caCertificate) {
    const Inputs inputs = {{"owner", owner},
                           {"url", downloadUrl},
                           {"revision", Number(revision)},
                           {"signed", isSigned},
                           {"method_of_trust", methodOfTrust},
                           {"ca_certificate", caCertificate}};
    return Serve(Function::kUpdateDeviceFirmware, inputs, [=](const Call& call) {
        const Setting* const setting = call.rule.Find(Key::kNewRevision);
        const auto shown = setting != nullptr ? std::optional(setting->number) : std::nullopt;
        return call.Result([&] {
            return call.device.StartUpdate(Text(owner), Text(downloadUrl),
                                           call.rule.Time(Key::kUpdateTime, kUpdate), shown);
        });
    });
}
