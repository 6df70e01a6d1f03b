// The methods of the device service: what each takes, does and answers, a row each.
//
// A row is what holds. The dispatcher finds a method and who may call it by its row, a handler reads only the
// arguments and gives only the keys that its row names, and what the documents say of methods is printed from
// the rows.
#ifndef RDX_RDXSD_METHOD_ROWS_H
#define RDX_RDXSD_METHOD_ROWS_H

#include "rDxsd/pdata.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace rdx {

enum class Access { kPublic, kAuthenticated };

enum class ArgumentType { kText, kInteger, kIntegerOrFlag, kArray };
enum class Presence { kRequired, kOptional };

// Most characters of the texts that a method limits.
inline constexpr std::size_t kOwnerMax = 32;
inline constexpr std::size_t kAddressMax = 16;
inline constexpr std::size_t kNoLimit = SIZE_MAX;

// An argument of a call, or a member of each structure in the array `of` among them. What is optional may be
// left out or null.
struct ArgumentRow {
    const char* name;
    ArgumentType type;
    Presence presence;
    std::size_t longest = kNoLimit; // of a text
    const char* of = "";
};

// What "params" says about a device's answer.
enum class Detail {
    kNone,       // nothing: null
    kReason,     // a structure with the reason code again
    kOwner,      // who owns the device
    kReleasedBy, // who released it
};

// What one result of a device operation becomes in the answer.
struct StatusRow {
    int result;
    int code;
    int reason;
    Detail detail;
};

// The result in a table's last row: any that has no row of its own.
inline constexpr int kAnyOther = INT_MIN;

inline constexpr StatusRow kSuccess = {0, 0, 0, Detail::kNone};

// The row of a result: kSuccess for 0, the last one for a result without a row.
const StatusRow& StatusOf(std::span<const StatusRow> statuses, int result);

// A key of the answer beside "Status", or one inside the structure or array `of` among them.
struct KeyRow {
    const char* name;
    const char* of = "";
};

using MethodHandler = int (*)(TavrinRequest*, TavrinResponse*);

struct MethodRow {
    const char* name;
    MethodHandler handler;
    Access access;
    const char* comment; // of its result packet; null for none
    std::span<const ArgumentRow> arguments;
    std::span<const StatusRow> statuses; // none: it does not ask the device for one thing
    std::span<const KeyRow> keys;
};

// All methods, in the order in which names are compared.
std::span<const MethodRow> Methods();

// The row of a name, letter case ignored; kUnknownMethod for every other name.
const MethodRow& FindMethod(std::string_view name);

// The row of a handler.
const MethodRow& RowOf(MethodHandler handler);

// What an unknown name is answered with; a caller without credentials does not learn that it is unknown.
extern const MethodRow kUnknownMethod;
inline constexpr int kCodeUnknownMethod = 42010;
inline constexpr int kReasonUnknownMethod = 9003;

// Not a result of the device's: a detailed test takes too long to be awaited, and is not even started.
inline constexpr int kDetailedTestAwaited = 9064;

// The device's result for a test that was awaited in vain. Also what the method says when it awaited a test
// and could not ask what came of it.
inline constexpr StatusRow kAwaitedInVain = {5, 42501, 9065, Detail::kReason};

// The state of the self test where the device's own code does not stand.
inline constexpr int kTestNotPassed = 42501;
inline constexpr int kTestFailed = 42502;
inline constexpr int kTestReasonUnknown = 9061;

} // namespace rdx

#endif
