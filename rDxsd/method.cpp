#include "rDxsd/method.h"

#include "rDxsd/rDxWddx.h"
#include "rDxsd/rDxsd.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

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

OwnedValue MakeDetail(const StatusRow& status, const char* releasedBy) {
    switch (status.detail) {
    case Detail::kReason:
        return MakeStructOf("Reason", MakeInteger(status.reason));
    case Detail::kOwner:
        return MakeOwner();
    case Detail::kReleasedBy:
        return MakeStructOf("ReleasedBy", MakeText(releasedBy));
    case Detail::kNone:
        break;
    }
    return MakeNull();
}

// The row of the name among those inside `of`; null when there is none.
template <typename Row>
const Row* FindRow(std::span<const Row> rows, const char* of, std::string_view name) {
    const auto row = std::ranges::find_if(
        rows, [=](const Row& known) { return known.name == name && std::string_view(known.of) == of; });
    return row != rows.end() ? &*row : nullptr;
}

bool IsNothing(WddxValue* value) { return value == nullptr || wddxGetType(value) == WDDX_NULL; }

OwnedValue Parse(char* text) {
    WddxValue* values = nullptr;
    return OwnedValue(ParseWddxPacketData(text, &values) == WDDX_ARGS_PARSED ? values : nullptr);
}

} // namespace

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

OwnedValue MakeParams(const StatusRow& status, const char* releasedBy) {
    OwnedValue params = MakeArray(1);
    OwnedValue detail = MakeDetail(status, releasedBy);
    if (!params || !detail) return nullptr;
    wddxSetArrayElem(params.get(), 0, detail.release());
    return params;
}

Values::Values(WddxValue* structure, std::span<const ArgumentRow> rows, const char* of)
    : structure_(structure), rows_(rows), of_(of) {}

bool Values::Fit() const {
    return wddxGetType(structure_) == WDDX_STRUCT &&
           std::ranges::all_of(rows_, [this](const ArgumentRow& row) {
               return std::string_view(row.of) != of_ || Fits(row);
           });
}

bool Values::Fits(const ArgumentRow& row) const {
    WddxValue* const value = wddxGetStructVar(structure_, row.name);
    if (row.presence == Presence::kOptional && IsNothing(value)) return true;
    int number = 0;
    switch (row.type) {
    case ArgumentType::kText: {
        const char* const text = GetDataStringParam(structure_, row.name);
        return text != nullptr && std::strlen(text) <= row.longest;
    }
    case ArgumentType::kInteger:
        return wddxGetInteger(&number, value) != 0;
    case ArgumentType::kIntegerOrFlag:
        return GetDataIntParam(structure_, row.name, &number) == WDDX_PARAM_READ;
    case ArgumentType::kArray:
        break;
    }
    return GetDataArrayParam(structure_, row.name) != nullptr && ElementsFit(row);
}

// Elements without rows may be anything.
bool Values::ElementsFit(const ArgumentRow& array) const {
    const bool have = std::ranges::find(rows_, std::string_view(array.name), &ArgumentRow::of) != rows_.end();
    WddxValue* const elements = GetDataArrayParam(structure_, array.name);
    for (int i = 0; have && i < wddxGetArraySize(elements); ++i) {
        if (!Values(wddxGetArrayElem(elements, i), rows_, array.name).Fit()) return false;
    }
    return true;
}

const ArgumentRow* Values::Row(const char* name) const { return FindRow(rows_, of_, name); }

char* Values::Text(const char* name) const {
    return Row(name) != nullptr ? GetDataStringParam(structure_, name) : nullptr;
}

const char* Values::OptionalText(const char* name) const {
    const char* const text = Text(name);
    return text != nullptr ? text : "";
}

int Values::Number(const char* name) const {
    int number = 0;
    if (Row(name) != nullptr) static_cast<void>(GetDataIntParam(structure_, name, &number));
    return number;
}

WddxValue* Values::Array(const char* name) const {
    return Row(name) != nullptr ? GetDataArrayParam(structure_, name) : nullptr;
}

Arguments::Arguments(const TavrinRequest& call, const MethodRow& method)
    : Arguments(Parse(call.pszWddxArgs), method) {}

Arguments::Arguments(OwnedValue owner, const MethodRow& method)
    : Values(owner.get(), method.arguments), owner_(std::move(owner)) {}

Structure::Structure(const MethodRow& method, const char* of, OwnedValue begun)
    : method_(method), of_(of), value_(std::move(begun)) {}

void Structure::Add(const char* key, OwnedValue value) {
    const bool named = FindRow(method_.keys, of_, key) != nullptr;
    if (!named || !SetMember(value_, key, std::move(value))) value_.reset();
}

int Structure::Assign(TavrinResponse* result) const {
    const int assigned = AssignWddxResult(result, value_.get(), method_.comment);
    return assigned == PDATA_ASSIGNED ? RDX_ANSWERED : RDX_NOT_ASSIGNED;
}

Structure StatusPacket(const MethodRow& method, int result, const char* releasedBy) {
    const StatusRow& status = StatusOf(method.statuses, result);
    return StatusPacket(method, status.code, status.reason, MakeParams(status, releasedBy));
}

Structure StatusPacket(const MethodRow& method, int code, int reason, OwnedValue params) {
    OwnedValue packet;
    if (params) packet.reset(CreateWddxStatusPacket(code, reason, params.release()));
    return Structure(method, "", std::move(packet));
}

SelfTestState AskSelfTestState() {
    constexpr auto kUnknown = static_cast<unsigned long>(-1);
    unsigned long code = 0;
    unsigned long reason = 0;
    if (rDxGetCurrentSelftestStatus(&code, &reason) != 0) return {false, kTestNotPassed, kTestReasonUnknown};
    if (reason == kUnknown) return {true, kTestNotPassed, kTestReasonUnknown};
    return {true, reason != 0 ? kTestFailed : static_cast<int>(code), static_cast<int>(reason)};
}

} // namespace rdx
