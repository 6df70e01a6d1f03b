#include "sim/scenario.h"

#include "sim/files.h"
#include "sim/ini.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include <sys/stat.h>

namespace rdx::sim {

namespace {

constexpr std::string_view kUntouched = "untouched";

constexpr std::array<std::string_view, kFunctions> kNames = {"rDxAllocateDevice",
                                                             "rDxReleaseDevice",
                                                             "rDxGetOwner",
                                                             "rDxGetDeviceType",
                                                             "rDxGetAllocStatus",
                                                             "rDxGetFirmwareRev",
                                                             "rDxGetActiveIpConf",
                                                             "rDxGetNetInterface",
                                                             "rDxGetIpConfiguration",
                                                             "rDxSetIpConfiguration",
                                                             "rDxGetVehicleStatus",
                                                             "rDxGetTransmissionQuality",
                                                             "rDxRunDeviceSelfTest",
                                                             "rDxGetCurrentSelftestStatus",
                                                             "rDxInitiateCfgRequest",
                                                             "rDxSetDeviceAttributes",
                                                             "rdxGetDeviceAttributes",
                                                             "rdxFreeDeviceAttributes",
                                                             "rDxUpdateDeviceFirmware"};
static_assert(!kNames.back().empty());

using enum Function;

constexpr KeyRow kKeys[] = {
    {std::nullopt, Key::kResult, "result", Kind::kNumber},
    {std::nullopt, Key::kDelay, "delay_ms", Kind::kTime},
    {kAllocateDevice, Key::kOutput1, "output1", Kind::kOutputText},
    {kAllocateDevice, Key::kOutput2, "output2", Kind::kOutputText},
    {kReleaseDevice, Key::kReleasedBy, "released_by", Kind::kOutputText},
    {kGetOwner, Key::kOwner, "owner", Kind::kOutputText},
    {kGetOwner, Key::kAllocatedBy, "allocated_by", Kind::kOutputText},
    {kGetDeviceType, Key::kType, "type", Kind::kOutputText},
    {kGetAllocStatus, Key::kControlled, "controlled", Kind::kOutputWord},
    {kGetAllocStatus, Key::kAllocation, "allocation", Kind::kOutputText},
    {kGetAllocStatus, Key::kOwner, "owner", Kind::kOutputText},
    {kGetAllocStatus, Key::kControllingClient, "controlling_client", Kind::kOutputText},
    {kGetFirmwareRev, Key::kRevision, "revision", Kind::kOutputWord},
    {kGetActiveIpConf, Key::kIpAddress, "ip_address", Kind::kOutputText},
    {kGetActiveIpConf, Key::kNetmask, "netmask", Kind::kOutputText},
    {kGetActiveIpConf, Key::kGateway, "gateway", Kind::kOutputText},
    {kGetNetInterface, Key::kInterface, "interface", Kind::kOutputText},
    {kGetIpConfiguration, Key::kMode, "mode", Kind::kOutputNumber},
    {kSetIpConfiguration, Key::kRebootRequired, "reboot_required", Kind::kOutputWord},
    {kGetVehicleStatus, Key::kReserved0, "reserved0", Kind::kOutputNumber},
    {kGetVehicleStatus, Key::kTerminal15, "terminal15", Kind::kOutputNumber},
    {kGetVehicleStatus, Key::kTerminal30, "terminal30", Kind::kOutputNumber},
    {kGetVehicleStatus, Key::kReserved3, "reserved3", Kind::kOutputNumber},
    {kGetVehicleStatus, Key::kReserved4, "reserved4", Kind::kOutputNumber},
    {kGetVehicleStatus, Key::kKLine, "kline", Kind::kOutputNumber},
    {kGetVehicleStatus, Key::kLLine, "lline", Kind::kOutputNumber},
    {kGetVehicleStatus, Key::kTdPeriod, "td_period", Kind::kOutputNumber},
    {kGetVehicleStatus, Key::kTdValid, "td_valid", Kind::kOutputNumber},
    {kGetVehicleStatus, Key::kMost, "most", Kind::kOutputWord},
    {kGetTransmissionQuality, Key::kQuality, "quality", Kind::kOutputWord},
    {kRunDeviceSelfTest, Key::kShortTest, "short_ms", Kind::kTime},
    {kRunDeviceSelfTest, Key::kDetailedTest, "detailed_ms", Kind::kTime},
    {kRunDeviceSelfTest, Key::kAwaitLimit, "await_limit_ms", Kind::kTime},
    {kRunDeviceSelfTest, Key::kEndReason, "end_reason", Kind::kWord},
    {kGetCurrentSelftestStatus, Key::kCode, "code", Kind::kOutputWord},
    {kGetCurrentSelftestStatus, Key::kReason, "reason", Kind::kOutputWord},
    {kGetDeviceAttributes, Key::kCount, "count", Kind::kCount},
    {kGetDeviceAttributes, Key::kAttribute, "attribute", Kind::kOutputAttribute},
    {kUpdateDeviceFirmware, Key::kUpdateTime, "update_ms", Kind::kTime},
    {kUpdateDeviceFirmware, Key::kNewRevision, "new_revision", Kind::kWord},
};

constexpr std::int64_t kLongestTime = 600'000; // ten minutes
constexpr std::int64_t kMostAttributes = 1000;

// What a kind of value accepts. Texts and attributes have no limits.
struct KindRow {
    std::int64_t lowest;
    std::int64_t highest;
    std::string_view accepted;
    bool output;
};

const KindRow& Describe(Kind kind) {
    static constexpr std::string_view kAnInt = "a number from -2147483648 to 2147483647";
    static constexpr std::string_view kAWord = "a number from 0 to 4294967295, or -1 for all bits set";
    static constexpr KindRow kRows[] = {
        {INT32_MIN, INT32_MAX, kAnInt, false},
        {-1, UINT32_MAX, kAWord, false},
        {0, kLongestTime, "milliseconds from 0 to 600000", false},
        {-1, kMostAttributes, "a number from -1 to 1000", false},
        {INT32_MIN, INT32_MAX, kAnInt, true},
        {-1, UINT32_MAX, kAWord, true},
        {0, 0, R"(a text, if it is quoted with every quote closed and \\ \" \n \r \t \xHH alone)", true},
        {0, 0, "a name, a value (both quoted texts or null) and persistent or volatile", false},
    };
    static_assert(std::size(kRows) == static_cast<std::size_t>(Kind::kOutputAttribute) + 1);
    return kRows[static_cast<std::size_t>(kind)];
}

bool IsText(Kind kind) { return kind == Kind::kOutputText; }

const KeyRow* FindKey(Function function, std::string_view name) {
    const auto* const row = std::ranges::find_if(kKeys, [&](const KeyRow& r) {
        return r.function.value_or(function) == function && SameIgnoringCase(r.name, name);
    });
    return row != std::end(kKeys) ? row : nullptr;
}

std::optional<Function> FindFunction(std::string_view name) {
    for (std::size_t i = 0; i < kFunctions; ++i) {
        if (SameIgnoringCase(kNames[i], name)) return static_cast<Function>(i);
    }
    return std::nullopt;
}

std::string AcceptedKeys(Function function) {
    std::string names;
    for (const KeyRow& row : kKeys) {
        if (row.function.value_or(function) != function) continue;
        names.append(names.empty() ? "" : ", ").append(row.name);
    }
    return names;
}

std::string AcceptedSections() {
    std::string names;
    for (const std::string_view name : kNames) names.append(names.empty() ? "" : ", ").append(name);
    return names;
}

std::string Accepted(Kind kind) {
    const KindRow& row = Describe(kind);
    return Join({row.accepted, row.output ? ", or untouched" : ""});
}

// The setting that a value makes; nothing when the value is not of the key's kind.
std::optional<Setting> ReadSetting(const KeyRow& row, std::string_view value) {
    const KindRow& kind = Describe(row.kind);
    if (kind.output && value == kUntouched) return Setting{row.key, true, 0, {}};
    if (IsText(row.kind)) {
        std::optional<Word> word = ReadText(value);
        return word ? std::optional(Setting{row.key, false, 0, std::move(word->text)}) : std::nullopt;
    }
    const std::optional<std::int64_t> number = ReadNumber(value, kind.lowest, kind.highest);
    return number ? std::optional(Setting{row.key, false, *number, {}}) : std::nullopt;
}

// False when the value is not of the key's kind.
bool Apply(Rule& rule, const KeyRow& row, std::string_view value) {
    if (row.kind == Kind::kOutputAttribute) {
        std::optional<Attribute> attribute = ReadAttribute(value);
        if (attribute) rule.attributes.push_back(std::move(*attribute));
        return attribute.has_value();
    }
    std::optional<Setting> setting = ReadSetting(row, value);
    if (setting) rule.Set(std::move(*setting));
    return setting.has_value();
}

// Nothing, or why the entry is of no use.
std::string ReadEntry(Scenario& scenario, const IniEntry& entry) {
    const std::optional<Function> function = FindFunction(entry.section);
    if (!function) {
        if (!entry.key.empty()) return {}; // said at the section's own line
        return Join({"unknown section [", entry.section, "]; accepted: ", AcceptedSections()});
    }
    if (entry.key.empty()) return {};
    const KeyRow* const row = FindKey(*function, entry.key);
    if (row == nullptr) {
        return Join({"unknown key '", entry.key, "' in [", NameOf(*function),
                     "]; accepted: ", AcceptedKeys(*function)});
    }
    if (Apply(scenario.For(*function), *row, entry.value)) return {};
    return Join({"bad value '", entry.value, "' for '", row->name, "'; accepted: ", Accepted(row->kind)});
}

std::int64_t Nanoseconds(const timespec& time) {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

} // namespace

std::string_view NameOf(Function function) { return kNames[static_cast<std::size_t>(function)]; }

std::span<const KeyRow> AllKeys() { return kKeys; }

const Setting* Rule::Find(Key key) const {
    const auto setting = std::ranges::find(settings_, key, &Setting::key);
    return setting != settings_.end() ? &*setting : nullptr;
}

std::int64_t Rule::Number(Key key, std::int64_t otherwise) const {
    const Setting* const setting = Find(key);
    return setting != nullptr ? setting->number : otherwise;
}

std::chrono::milliseconds Rule::Time(Key key, std::chrono::milliseconds otherwise) const {
    return std::chrono::milliseconds(Number(key, otherwise.count()));
}

void Rule::Set(Setting setting) {
    std::erase_if(settings_, [&](const Setting& s) { return s.key == setting.key; });
    settings_.push_back(std::move(setting));
}

Scenario ReadScenario(std::string_view text, const std::string& path, std::vector<std::string>& messages) {
    Scenario scenario;
    const Ini ini = ParseIni(text);
    std::vector<IniError> errors = ini.errors;
    for (const IniEntry& entry : ini.entries) {
        std::string why = ReadEntry(scenario, entry);
        if (!why.empty()) errors.push_back({entry.line, std::move(why)});
    }
    std::ranges::sort(errors, {}, &IniError::line);
    for (const IniError& error : errors) {
        messages.push_back(Join({path, ":", std::to_string(error.line), ": ", error.message}));
    }
    return scenario;
}

std::shared_ptr<const Scenario> ScenarioFile::Current() {
    const std::lock_guard lock(mutex_);
    if (path_.empty()) return scenario_;
    // Two changes within one tick of the file system's clock leave the same stamp. A file that was changed
    // just now is therefore read again until its stamp is older than any such tick.
    constexpr std::int64_t kTickNs = 2'000'000'000;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const Stamp stamp = Look();
    const bool settled = stamp.error != 0 || Nanoseconds(now) - stamp.modified > kTickNs;
    if (seen_ != stamp) Refresh();
    seen_.reset();
    if (settled) seen_ = stamp;
    return scenario_;
}

ScenarioFile::Stamp ScenarioFile::Look() const {
    struct stat status {};
    if (stat(path_.c_str(), &status) != 0) return {.error = errno};
    return {.error = 0,
            .device = status.st_dev,
            .inode = status.st_ino,
            .size = status.st_size,
            .modified = Nanoseconds(status.st_mtim)};
}

void ScenarioFile::Refresh() {
    FileContent file = ReadFile(path_);
    if (read_ == file) return;
    std::vector<std::string> messages;
    if (file.error != 0) messages.push_back(Join({Explain(path_, file.error), "; there is no scenario"}));
    scenario_ = std::make_shared<Scenario>(ReadScenario(file.text, path_, messages));
    read_ = std::move(file);
    for (const std::string& message : messages) Report(message);
}

} // namespace rdx::sim
