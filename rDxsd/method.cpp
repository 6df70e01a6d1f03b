#include "rDxsd/method.h"

#include "rDxsd/codes.h"
#include "rDxsd/rDxWddx.h"

#include <algorithm>
#include <cstring>

namespace rdx {
namespace {

OwnedValue MakeOwner() {
    DeviceText owner;
    DeviceText allocatedBy;
    if (rDxGetOwner(owner.text, allocatedBy.text) != 0) return MakeNull();
    return OwnedValue(CreateWddxOwner(owner.text, allocatedBy.text));
}

// A structure of one member.
OwnedValue MakeStructOf(const char* key, OwnedValue value) {
    OwnedValue structure = MakeStruct();
    return SetMember(structure, key, std::move(value)) ? std::move(structure) : nullptr;
}

OwnedValue MakeDetail(const Outcome& outcome, const char* releasedBy) {
    switch (outcome.detail) {
    case Detail::kReason:
        return MakeStructOf("Reason", MakeInteger(outcome.reason));
    case Detail::kOwner:
        return MakeOwner();
    case Detail::kReleasedBy:
        return MakeStructOf("ReleasedBy", MakeText(releasedBy));
    case Detail::kNone:
        break;
    }
    return MakeNull();
}

} // namespace

bool IsAbsent(WddxValue* structure, const char* name) {
    WddxValue* const value = wddxGetStructVar(structure, name);
    return value == nullptr || wddxGetType(value) == WDDX_NULL;
}

Arguments::Arguments(const TavrinRequest& call) {
    WddxValue* values = nullptr;
    if (ParseWddxPacketData(call.pszWddxArgs, &values) == 0) values_.reset(values);
}

const char* Arguments::Text(const char* name, std::size_t longest) const {
    const char* const text = GetDataStringParam(values_.get(), name);
    return text != nullptr && std::strlen(text) <= longest ? text : nullptr;
}

const char* Arguments::OptionalText(const char* name) const {
    return IsAbsent(values_.get(), name) ? "" : Text(name);
}

std::optional<int> Arguments::Integer(const char* name) const {
    int number = 0;
    if (wddxGetInteger(&number, wddxGetStructVar(values_.get(), name)) == 0) return std::nullopt;
    return number;
}

std::optional<int> Arguments::OptionalInteger(const char* name) const {
    return IsAbsent(values_.get(), name) ? 0 : Integer(name);
}

std::optional<int> Arguments::IntegerOrFlag(const char* name) const {
    int number = 0;
    if (GetDataIntParam(values_.get(), name, &number) != 0) return std::nullopt;
    return number;
}

WddxValue* Arguments::Array(const char* name) const { return GetDataArrayParam(values_.get(), name); }

const Outcome& FindOutcome(std::span<const Outcome> outcomes, int result) {
    if (result == kSuccess.result) return kSuccess;
    const auto row = std::ranges::find(outcomes, result, &Outcome::result);
    return row != outcomes.end() ? *row : outcomes.back();
}

Answer::Answer(const Outcome& outcome, const char* releasedBy)
    : Answer(outcome.code, outcome.reason, MakeParams(outcome, releasedBy)) {}

Answer::Answer(int code, int reason, OwnedValue params) {
    if (params) packet_.reset(CreateWddxStatusPacket(code, reason, params.release()));
}

void Answer::Add(const char* key, OwnedValue value) {
    if (!SetMember(packet_, key, std::move(value))) packet_.reset();
}

int Answer::Assign(TavrinResponse* result, const char* name) const {
    return AssignWddxResult(result, packet_.get(), name) == 0 ? kAnswered : kNotAssigned;
}

OwnedValue MakeInteger(int number) { return OwnedValue(wddxCreateInteger(number)); }
OwnedValue MakeText(const char* text) { return OwnedValue(wddxCreateString(text)); }
OwnedValue MakeFlag(bool flag) { return OwnedValue(wddxCreateBoolean(flag ? 1 : 0)); }
OwnedValue MakeNull() { return OwnedValue(wddxCreateNull()); }
OwnedValue MakeStruct() { return OwnedValue(wddxCreateStruct()); }
OwnedValue MakeArray(int length) { return OwnedValue(wddxCreateArray(length)); }

OwnedValue MakeStatus(int code, int reason, OwnedValue params) {
    if (!params) return nullptr;
    return OwnedValue(CreateWddxStatus(code, reason, params.release()));
}

OwnedValue MakeParams(const Outcome& outcome, const char* releasedBy) {
    OwnedValue params = MakeArray(1);
    OwnedValue detail = MakeDetail(outcome, releasedBy);
    if (!params || !detail) return nullptr;
    wddxSetArrayElem(params.get(), 0, detail.release());
    return params;
}

SelfTestState AskSelfTestState() {
    constexpr int kNotPassed = 42501;
    constexpr int kFailed = 42502;
    constexpr int kReasonUnknown = 9061;
    constexpr auto kUnknown = static_cast<unsigned long>(-1);
    unsigned long code = 0;
    unsigned long reason = 0;
    if (rDxGetCurrentSelftestStatus(&code, &reason) != 0) return {false, kNotPassed, kReasonUnknown};
    if (reason == kUnknown) return {true, kNotPassed, kReasonUnknown};
    return {true, reason != 0 ? kFailed : static_cast<int>(code), static_cast<int>(reason)};
}

} // namespace rdx
