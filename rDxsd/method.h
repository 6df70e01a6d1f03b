// The common shape of the method handlers: read the arguments, ask the device, say what came of it.
#ifndef RDX_RDXSD_METHOD_H
#define RDX_RDXSD_METHOD_H

#include "rDxsd/device_text.h"
#include "rDxsd/pdata.h"
#include "rDxsd/rDxSvcs.h"
#include "rDxsd/values.h"

#include <climits>
#include <cstddef>
#include <optional>
#include <span>

namespace rdx {

// Most characters of the texts that a method limits.
inline constexpr std::size_t kOwnerMax = 32;
inline constexpr std::size_t kAddressMax = 16;
inline constexpr std::size_t kNoLimit = SIZE_MAX;

// True when a structure has no such member, or one that says itself that it is nothing: a null value.
bool IsAbsent(WddxValue* structure, const char* name);

// The arguments of a call. Every reader gives nothing for an argument that is missing, of another type or too
// long, and for a call whose arguments could not be parsed at all.
class Arguments {
public:
    explicit Arguments(const TavrinRequest& call);

    // Texts belong to the arguments.
    const char* Text(const char* name, std::size_t longest = kNoLimit) const;
    const char* OptionalText(const char* name) const; // an empty text when it is absent

    std::optional<int> Integer(const char* name) const;         // an integer
    std::optional<int> OptionalInteger(const char* name) const; // 0 when it is absent
    std::optional<int> IntegerOrFlag(const char* name) const;   // or a boolean, as 0 or 1
    WddxValue* Array(const char* name) const;

private:
    OwnedValue values_;
};

// What "params" says about a device's answer.
enum class Detail {
    kNone,       // nothing: null
    kReason,     // a structure with the reason code again
    kOwner,      // who owns the device
    kReleasedBy, // who released it
};

// What one result of a device operation becomes in the answer.
struct Outcome {
    int result;
    int code;
    int reason;
    Detail detail;
};

// The result in a table's last row: any that has no row of its own.
inline constexpr int kAnyOther = INT_MIN;

inline constexpr Outcome kSuccess = {0, 0, 0, Detail::kNone};

// The row of a result: kSuccess for 0, the last one for a result without a row.
const Outcome& FindOutcome(std::span<const Outcome> outcomes, int result);

// The answer to a call: the status packet and what a method adds beside "Status". Memory that runs short
// while it is put together makes Assign fail.
class Answer {
public:
    // `releasedBy` is looked at for Detail::kReleasedBy alone.
    explicit Answer(const Outcome& outcome, const char* releasedBy = "");
    Answer(int code, int reason, OwnedValue params);

    void Add(const char* key, OwnedValue value);

    // Prints the packet into `result`, with `name` as its comment when there is one. The handler's code: 0,
    // or -6 when that failed.
    int Assign(TavrinResponse* result, const char* name) const;

private:
    OwnedValue packet_;
};

// A new value, or a structure or array that takes over its parts; null when memory is short.
OwnedValue MakeInteger(int number);
OwnedValue MakeText(const char* text);
OwnedValue MakeFlag(bool flag);
OwnedValue MakeNull();
OwnedValue MakeStruct();
OwnedValue MakeArray(int length);
OwnedValue MakeStatus(int code, int reason, OwnedValue params);

// "params" with its one element filled for an outcome.
OwnedValue MakeParams(const Outcome& outcome, const char* releasedBy);

// The state of the self test, with the code and the reason as clients see them.
struct SelfTestState {
    bool known; // false: it could not be asked for
    int code;
    int reason;
};
SelfTestState AskSelfTestState();

} // namespace rdx

#endif
