#include "rDxsd/rDxWddx.h"

#include "common/check.h"
#include "rDxsd/values.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

using rdx::OwnedValue;
using rdx::SetMember;

enum ParseCode : int {
    kParsed = 0,
    kNoText = -1,
    kTagUnterminated = -2,
    kNotAStructure = -3,
    kNotAPacket = 400 // a bad request, as HTTP counts it
};

constexpr std::string_view kDeletedBlanks = "\r\n\t ";

// The end of the tag that begins at `tag`, one past its ">"; null when the text ends first.
const char* EndOfTag(const char* tag, const char* end) {
    const char* const closing = std::find(tag, end, '>');
    return closing == end ? nullptr : closing + 1;
}

// Moves the bytes from `from` up to `end` to `to`; returns the place behind them.
char* MoveDown(const char* from, const char* end, char* to) {
    const auto length = static_cast<std::size_t>(end - from);
    std::memmove(to, from, length);
    return to + length;
}

} // namespace

WddxValue* CreateWddxStatus(int code, int msg, WddxValue* params) {
    OwnedValue detail(params != nullptr ? params : wddxCreateNull());
    OwnedValue status(wddxCreateStruct());
    const bool complete = SetMember(status, "code", OwnedValue(wddxCreateInteger(code))) &&
                          SetMember(status, "msg", OwnedValue(wddxCreateInteger(msg))) &&
                          SetMember(status, "params", std::move(detail));
    return complete ? status.release() : nullptr;
}

WddxValue* CreateWddxStatusPacket(int code, int msg, WddxValue* params) {
    OwnedValue status(CreateWddxStatus(code, msg, params));
    OwnedValue packet(wddxCreateStruct());
    return SetMember(packet, "Status", std::move(status)) ? packet.release() : nullptr;
}

WddxValue* GetStatusParams(WddxValue* packet) {
    return wddxGetStructVar(wddxGetStructVar(packet, "status"), "params");
}

WddxValue* CreateWddxOwner(const char* owner, const char* allocatedBy) {
    OwnedValue both(wddxCreateStruct());
    const bool complete = SetMember(both, "AllocatedBy", OwnedValue(wddxCreateString(allocatedBy))) &&
                          SetMember(both, "DeviceOwner", OwnedValue(wddxCreateString(owner)));
    return complete ? both.release() : nullptr;
}

int ParseWddxPacketData(char* text, WddxValue** out) {
    *out = nullptr;
    if (text == nullptr) return kNoText;
    if (TrimWddxArgs(text) != 0) return kTagUnterminated;
    OwnedValue value(wddxParseStream(text));
    if (!value) return kNotAPacket;
    if (wddxGetType(value.get()) != WDDX_STRUCT) return kNotAStructure;
    *out = value.release();
    return kParsed;
}

char* GetDataStringParam(WddxValue* s, const char* name) {
    char* text = nullptr;
    return wddxGetString(&text, wddxGetStructVar(s, name)) != 0 ? text : nullptr;
}

int GetDataIntParam(WddxValue* s, const char* name, int* out) {
    WddxValue* const member = wddxGetStructVar(s, name);
    if (wddxGetInteger(out, member) != 0) return 0;
    unsigned char truth = 0;
    if (out == nullptr || wddxGetBoolean(&truth, member) == 0) return -1;
    *out = truth != 0 ? 1 : 0;
    return 0;
}

WddxValue* GetDataArrayParam(WddxValue* s, const char* name) {
    WddxValue* const member = wddxGetStructVar(s, name);
    return wddxGetType(member) == WDDX_ARRAY ? member : nullptr;
}

int TrimWddxArgs(char* p) {
    RDX_CHECK(p != nullptr, "p != __null");
    const std::size_t alen = std::strlen(p);
    RDX_CHECK(alen > 0, "alen > 0");

    const char* const end = p + alen;
    const char* from = p;
    char* to = p;
    bool inString = false;
    int result = 0;
    while (from != end) {
        if (*from == '<') {
            const char* const behind = EndOfTag(from, end);
            inString = behind != nullptr && std::string_view(from, behind) == "<string>";
            result = behind != nullptr ? 0 : -1;
            to = MoveDown(from, behind != nullptr ? behind : end, to);
            from = behind != nullptr ? behind : end;
        } else if (inString || kDeletedBlanks.find(*from) == std::string_view::npos) {
            *to++ = *from++;
        } else {
            ++from;
        }
    }
    *to = '\0';
    return result;
}
