#include "rDxsd/method_rows.h"

#include "common/text.h"
#include "rDxsd/rDxsd.h"

#include <algorithm>
#include <array>

namespace rdx {
namespace {

using enum ArgumentType;
using enum Presence;

// --- rdxGetVersion --------------------------------------------------------------------------------------

constexpr ArgumentRow kVersionArguments[] = {{"version", kIntegerOrFlag, kRequired}};
constexpr KeyRow kVersionKeys[] = {{"status"}, {"code", "status"}, {"version"}};

// --- rdxGetDeviceStatus ---------------------------------------------------------------------------------

constexpr KeyRow kDeviceKeys[] = {
    {"DeviceType"},
    {"UpTime"},
    {"SelftestStatus"},
    {"Hostname"},
    {"MacAddress"},
    {"DhcpMode"},
    {"IpAddress"},
    {"Netmask"},
    {"DefaultGateway"},
    {"FirmwareRev"},
    {"IsAllocated"},
    {"DeviceOwner"},
    {"IfUsage"},
    {"Channel", "IfUsage"},
    {"Connection", "IfUsage"},
    {"ControlledBy", "IfUsage"},
    {"SlpAttributes"},
    {"AttributeName", "SlpAttributes"},
    {"AttributeValue", "SlpAttributes"},
    {"IsPersistent", "SlpAttributes"},
    {"Status"},
};

// --- rdxAllocateDevice ----------------------------------------------------------------------------------

constexpr ArgumentRow kAllocateArguments[] = {
    {"DeviceOwner", kText, kRequired, kOwnerMax},
    {"IfhClientIpAddr", kText, kRequired, kAddressMax},
    {"IfhClientTcpPorts", kText, kRequired},
};

constexpr StatusRow kAllocateStatuses[] = {
    {1, 42030, 9001, Detail::kOwner}, // already allocated
    {3, 42101, 9002, Detail::kReason},
    {kAnyOther, 42101, 9000, Detail::kReason},
};

// --- rdxReleaseDevice -----------------------------------------------------------------------------------

constexpr ArgumentRow kReleaseArguments[] = {{"DeviceOwner", kText, kRequired}};

constexpr StatusRow kReleaseStatuses[] = {
    {1, 42102, 9011, Detail::kReleasedBy},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42102, 9013, Detail::kReason},
    {kAnyOther, 42102, 9014, Detail::kReason},
};

// --- rdxSetIpConfiguration ------------------------------------------------------------------------------

constexpr ArgumentRow kSetIpArguments[] = {
    {"DeviceOwner", kText, kRequired, kOwnerMax},
    {"IpAddress", kText, kRequired, kAddressMax},
    {"Netmask", kText, kRequired, kAddressMax},
    {"DefaultGateway", kText, kRequired, kAddressMax},
    {"Hostname", kText, kOptional},
    {"DhcpMode", kIntegerOrFlag, kRequired},
};

constexpr StatusRow kSetIpStatuses[] = {
    {1, 42201, 9011, Detail::kReason},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42201, 9041, Detail::kReason},
    {kAnyOther, 42201, 9040, Detail::kReason},
};

constexpr KeyRow kSetIpKeys[] = {{"RebootRequired"}};

// --- rdxSetDeviceAttributes -----------------------------------------------------------------------------

constexpr ArgumentRow kSetAttributesArguments[] = {
    {"DeviceOwner", kText, kRequired},
    {"SlpAttributes", kArray, kRequired},
    {"AttributeName", kText, kOptional, kNoLimit, "SlpAttributes"},
    {"AttributeValue", kText, kOptional, kNoLimit, "SlpAttributes"},
    {"IsPersistent", kIntegerOrFlag, kRequired, kNoLimit, "SlpAttributes"},
    {"EnforceReg", kIntegerOrFlag, kRequired, kNoLimit, "SlpAttributes"},
};

constexpr StatusRow kSetAttributesStatuses[] = {
    {1, 42301, 9011, Detail::kReason},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42301, 9002, Detail::kReason},
    {-1, 42301, 9052, Detail::kReason}, // a failure of its own only here
    {kAnyOther, 42301, 9051, Detail::kReason},
};

// --- rdxUpdateDeviceFirmware ----------------------------------------------------------------------------

constexpr ArgumentRow kUpdateArguments[] = {
    {"DeviceOwner", kText, kRequired},    {"DownloadUrl", kText, kRequired},
    {"FirmwareRev", kInteger, kRequired}, {"IsSigned", kInteger, kOptional},
    {"MethodOfTrust", kText, kOptional},  {"CaCert", kText, kOptional},
};

constexpr StatusRow kUpdateStatuses[] = {
    {1, 42030, 9011, Detail::kReason},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42030, 9034, Detail::kReason},
    {10, 42401, 9031, Detail::kReason},
    {11, 42404, 9032, Detail::kReason},
    {12, 42403, 9033, Detail::kReason},
    {14, 42403, 9035, Detail::kReason},
    {kAnyOther, 42403, 13, Detail::kReason}, // a reason like no other: clients know it as it is
};

// --- rdxRunDeviceSelfTest -------------------------------------------------------------------------------

constexpr ArgumentRow kSelfTestArguments[] = {
    {"DeviceOwner", kText, kRequired},
    {"TestMode", kText, kRequired},
    {"AwaitResults", kIntegerOrFlag, kRequired},
};

constexpr StatusRow kSelfTestStatuses[] = {
    {1, 42502, 9011, Detail::kReason},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42502, 9062, Detail::kReason},
    kAwaitedInVain,
    {kDetailedTestAwaited, 42501, 9064, Detail::kReason},
    {kAnyOther, 42501, 9063, Detail::kReason},
};

constexpr KeyRow kSelfTestKeys[] = {{"SelftestStatus"}};

// --- rdxInitiateCfgRequest ------------------------------------------------------------------------------

constexpr ArgumentRow kInitiateArguments[] = {
    {"DeviceOwner", kText, kRequired},
    {"CfgMode", kIntegerOrFlag, kRequired},
};

constexpr StatusRow kInitiateStatuses[] = {
    {1, 42601, 9011, Detail::kReason},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42601, 9034, Detail::kReason},
    {kAnyOther, 42601, 9080, Detail::kReason},
};

// --- rdxGetVehicleStatus --------------------------------------------------------------------------------

constexpr ArgumentRow kVehicleArguments[] = {{"DeviceOwner", kText, kRequired, kOwnerMax}};

constexpr StatusRow kVehicleStatuses[] = {
    {1, 42030, 9011, Detail::kReason},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, -1, 9072, Detail::kReason},
    {kAnyOther, -1, 9071, Detail::kReason},
};

constexpr KeyRow kVehicleKeys[] = {
    {"Voltage"},
    {"Terminal_15", "Voltage"},
    {"Terminal_30", "Voltage"},
    {"TdSignal"},
    {"Period", "TdSignal"},
    {"IsValid", "TdSignal"},
    {"LineStatus"},
    {"KLine", "LineStatus"},
    {"LLine", "LineStatus"},
    {"MOST", "LineStatus"},
    {"TransmissionQuality"},
};

// --- the methods ----------------------------------------------------------------------------------------

using enum Access;

// The comments are what clients find in the packets: three begin like the device library's functions, one has
// a small letter more, and one method gives none.
// clang-format off
constexpr std::array kMethods{
    MethodRow{"rdxGetVersion", ProcessGetVersion, kPublic, "rDxGetVersion",
              kVersionArguments, {}, kVersionKeys},
    MethodRow{"rdxGetDeviceStatus", ProcessGetDeviceStatus, kPublic, "rDxGetDeviceStatus",
              {}, {}, kDeviceKeys},
    MethodRow{"rdxAllocateDevice", ProcessAllocateDevice, kAuthenticated, "rDxAllocateDevice",
              kAllocateArguments, kAllocateStatuses, {}},
    MethodRow{"rdxReleaseDevice", ProcessReleaseDevice, kAuthenticated, "rdxReleaseDevice",
              kReleaseArguments, kReleaseStatuses, {}},
    MethodRow{"rdxSetIpConfiguration", ProcessSetIpConfiguration, kAuthenticated, "rDxSetIpConfiguration",
              kSetIpArguments, kSetIpStatuses, kSetIpKeys},
    MethodRow{"rdxSetDeviceAttributes", ProcessSetDeviceAttributes, kAuthenticated, "rdxSetDeviceAttributes",
              kSetAttributesArguments, kSetAttributesStatuses, {}},
    MethodRow{"rdxUpdateDeviceFirmware", ProcessUpdateDeviceFirmware, kAuthenticated, "rdxUpdateDeviceFirmware",
              kUpdateArguments, kUpdateStatuses, {}},
    MethodRow{"rdxRunDeviceSelfTest", ProcessRunDeviceSelfTest, kAuthenticated, "rdxRunDeviceSelftest",
              kSelfTestArguments, kSelfTestStatuses, kSelfTestKeys},
    MethodRow{"rdxInitiateCfgRequest", ProcessInitiateCfgRequest, kAuthenticated, nullptr,
              kInitiateArguments, kInitiateStatuses, {}},
    MethodRow{"rdxGetVehicleStatus", ProcessGetVehicleStatus, kAuthenticated, "rdxGetVehicleStatus",
              kVehicleArguments, kVehicleStatuses, kVehicleKeys},
};
// clang-format on

// --- what holds of all rows -----------------------------------------------------------------------------

// A name stands once in its table, letter case ignored as by whoever looks for a method.
constexpr bool SameName(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b, {}, UpperByte, UpperByte);
}

template <typename Row>
constexpr bool HasTwins(std::span<const Row> rows, bool (*same)(const Row&, const Row&)) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
        for (std::size_t k = i + 1; k < rows.size(); ++k) {
            if (same(rows[i], rows[k])) return true;
        }
    }
    return false;
}

// What stands inside another row's value stands behind that row.
template <typename Row>
constexpr bool HasOrphans(std::span<const Row> rows) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const std::string_view of = rows[i].of;
        const std::span<const Row> before = rows.first(i);
        if (!of.empty() && std::ranges::find(before, of, &Row::name) == before.end()) return true;
    }
    return false;
}

template <typename Row>
constexpr bool AreNamed(std::span<const Row> rows) {
    return !HasOrphans(rows) && !HasTwins<Row>(rows, [](const Row& a, const Row& b) {
        return std::string_view(a.of) == b.of && SameName(a.name, b.name);
    });
}

// A result has one row, success none, and the last row takes the others.
constexpr bool AreWhole(std::span<const StatusRow> rows) {
    if (rows.empty()) return true;
    return rows.back().result == kAnyOther && std::ranges::find(rows, 0, &StatusRow::result) == rows.end() &&
           !HasTwins<StatusRow>(rows,
                                [](const StatusRow& a, const StatusRow& b) { return a.result == b.result; });
}

static_assert(!HasTwins<MethodRow>(kMethods, [](const MethodRow& a, const MethodRow& b) {
    return SameName(a.name, b.name);
}));
static_assert(std::ranges::all_of(kMethods, [](const MethodRow& row) {
    return AreNamed(row.arguments) && AreNamed(row.keys) && AreWhole(row.statuses);
}));

} // namespace

constexpr MethodRow kUnknownMethod = {"", ProcessUnknown, kAuthenticated, nullptr, {}, {}, {}};

const StatusRow& StatusOf(std::span<const StatusRow> statuses, int result) {
    if (result == kSuccess.result) return kSuccess;
    const auto row = std::ranges::find(statuses, result, &StatusRow::result);
    return row != statuses.end() ? *row : statuses.back();
}

std::span<const MethodRow> Methods() { return kMethods; }

const MethodRow& FindMethod(std::string_view name) {
    const auto* const row = std::ranges::find_if(
        kMethods, [name](const MethodRow& known) { return EqualsIgnoringCase(known.name, name); });
    return row != kMethods.end() ? *row : kUnknownMethod;
}

const MethodRow& RowOf(MethodHandler handler) {
    const auto* const row = std::ranges::find(kMethods, handler, &MethodRow::handler);
    return row != kMethods.end() ? *row : kUnknownMethod;
}

} // namespace rdx
