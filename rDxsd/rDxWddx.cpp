#include "rDxsd/rDxWddx.h"

#include "common/check.h"
#include "common/text.h"
#include "rDxsd/values.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

namespace {

using rdx::OwnedValue;
using rdx::SetMember;

constexpr std::string_view kDeletedBlanks = "\r\n\t ";

// What a packet consists of: tags, from "<" to ">", and the characters between them.
std::string_view TakeCharacters(rdx::Reader& packet) {
    const std::string_view rest = packet.Rest();
    return packet.TakeBytes(std::min(rest.find('<'), rest.size()));
}

std::optional<std::string_view> TakeTag(rdx::Reader& packet) {
    const std::size_t end = packet.Rest().find('>');
    if (end == std::string_view::npos) return std::nullopt;
    return packet.TakeBytes(end + 1);
}

// The front of a text, put together anew from pieces of the same text. What stays is never longer than what
// was read, so that a piece only moves towards the front, over bytes that have been read.
class Front {
public:
    explicit Front(std::span<char> text) : text_(text) {}

    void Keep(std::string_view piece) {
        for (const char c : piece) Keep(c);
    }
    void KeepButBlanks(std::string_view piece) {
        for (const char c : piece) {
            if (kDeletedBlanks.find(c) == std::string_view::npos) Keep(c);
        }
    }
    void Keep(char c) { text_[used_++] = c; }

private:
    std::span<char> text_;
    std::size_t used_ = 0;
};

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
    if (text == nullptr) return WDDX_ARGS_NO_TEXT;
    if (TrimWddxArgs(text) != WDDX_TRIMMED) return WDDX_ARGS_TAG_UNTERMINATED;
    OwnedValue value(wddxParseStream(text));
    if (!value) return WDDX_ARGS_NOT_A_PACKET;
    if (wddxGetType(value.get()) != WDDX_STRUCT) return WDDX_ARGS_NOT_A_STRUCTURE;
    *out = value.release();
    return WDDX_ARGS_PARSED;
}

char* GetDataStringParam(WddxValue* s, const char* name) {
    char* text = nullptr;
    return wddxGetString(&text, wddxGetStructVar(s, name)) != 0 ? text : nullptr;
}

int GetDataIntParam(WddxValue* s, const char* name, int* out) {
    WddxValue* const member = wddxGetStructVar(s, name);
    if (wddxGetInteger(out, member) != 0) return WDDX_PARAM_READ;
    unsigned char truth = 0;
    if (out == nullptr || wddxGetBoolean(&truth, member) == 0) return WDDX_PARAM_UNREADABLE;
    *out = truth != 0 ? 1 : 0;
    return WDDX_PARAM_READ;
}

WddxValue* GetDataArrayParam(WddxValue* s, const char* name) {
    WddxValue* const member = wddxGetStructVar(s, name);
    return wddxGetType(member) == WDDX_ARRAY ? member : nullptr;
}

int TrimWddxArgs(char* p) {
    RDX_CHECK(p != nullptr, "p != __null");
    const std::size_t alen = std::strlen(p);
    RDX_CHECK(alen > 0, "alen > 0");

    Front front({p, alen + 1}); // with the NUL
    rdx::Reader packet({p, alen});
    front.KeepButBlanks(TakeCharacters(packet));
    while (const std::optional<std::string_view> tag = TakeTag(packet)) {
        const bool opensString = *tag == "<string>";
        front.Keep(*tag);
        const std::string_view characters = TakeCharacters(packet);
        opensString ? front.Keep(characters) : front.KeepButBlanks(characters);
    }
    const bool whole = packet.AtEnd();
    front.Keep(packet.Rest());
    front.Keep('\0');
    return whole ? WDDX_TRIMMED : WDDX_TRIMMED_IN_PART;
}
