#include "wddx/wddx.h"

#include "common/text.h"
#include "wddx/tree.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
#include <span>

using namespace rdx;
using namespace rdx::wddx;

namespace {

// The longest short piece is a number in "%G": 7 digits and signs, an exponent, the two tags.
constexpr std::size_t kShortPieceSize = 100;

constexpr std::size_t kFirstTextSize = 256; // bytes; holds a packet's frame and a small value

// Where a packet is printed to a stream: every part counts.
class StreamOutput {
public:
    static constexpr bool kRefusesEmptyStruct = false;
    static constexpr bool kForgivesMembers = false;

    explicit StreamOutput(FILE* stream) : stream_(stream) {}

    bool Write(std::string_view text) {
        return std::fwrite(text.data(), 1, text.size(), stream_) == text.size();
    }

    // What the stream has, it keeps; the result says that it is not all.
    void OutOfMemory() {}

private:
    FILE* stream_;
};

// Where a packet is printed into a text. The text has room to spare while it grows, so that printing takes
// time in proportion to the text. Memory that runs short loses the text: every later piece is refused.
class TextOutput {
public:
    static constexpr bool kRefusesEmptyStruct = true;
    static constexpr bool kForgivesMembers = true;

    TextOutput() : text_(AllocateBytes(kFirstTextSize)), capacity_(kFirstTextSize) {}
    explicit TextOutput(char* text) : text_(text), used_(std::strlen(text)), capacity_(used_ + 1) {}

    bool Write(std::string_view text) {
        if (!text_ || (text.size() >= capacity_ - used_ && !Grow(used_ + text.size() + 1))) return false;
        std::copy(text.begin(), text.end(), text_.get() + used_);
        used_ += text.size();
        return true;
    }

    // The text in a block that it fits exactly; null when it was lost.
    char* Release() {
        if (!text_) return nullptr;
        text_.get()[used_] = '\0';
        Resize(text_, used_ + 1); // making a block smaller may fail: the text is whole all the same
        return text_.release();
    }

    // Drops the text; every later piece is refused.
    void OutOfMemory() { text_.reset(); }

private:
    bool Grow(std::size_t needed) {
        const std::size_t capacity = std::max(needed, capacity_ * 2);
        if (!Resize(text_, capacity)) {
            OutOfMemory();
            return false;
        }
        capacity_ = capacity;
        return true;
    }

    OwnedText text_;
    std::size_t used_ = 0; // bytes of text, without a NUL, which only Release writes
    std::size_t capacity_;
};

template <typename Output, typename... Pieces>
bool WriteAll(Output& output, const Pieces&... pieces) {
    return (output.Write(pieces) && ...);
}

// A container whose children are being printed.
struct OpenValue {
    const WddxValue* container;
    const WddxMember* member; // of a structure: the one to print next
    int begun;                // children handed out so far
};

template <typename Output>
bool PrintNull(Output& output, const WddxValue&) {
    return output.Write("<null/>");
}

template <typename Output>
bool PrintString(Output& output, const WddxValue& value) {
    const char* const text = value.payload.string;
    const std::size_t length = text == nullptr ? 0 : std::strlen(text);
    if (length > INT_MAX) return false;
    const OwnedText escaped(convertUtf82Xml(text, static_cast<int>(length)));
    return escaped && WriteAll(output, "<string>", escaped.get(), "</string>");
}

template <typename Output>
bool PrintInteger(Output& output, const WddxValue& value) {
    char piece[kShortPieceSize];
    return output.Write(
        Appender(piece).Add("<number>").AddDecimal(value.payload.integer).Add("</number>").Text());
}

template <typename Output>
bool PrintFloat(Output& output, const WddxValue& value) {
    char piece[kShortPieceSize];
    const PlainNumbers plain;
    std::snprintf(piece, sizeof piece, "<number>%G</number>", value.payload.floating);
    return output.Write(piece);
}

template <typename Output>
bool PrintBoolean(Output& output, const WddxValue& value) {
    return output.Write(value.payload.boolean != 0 ? "<boolean value='true'/>" : "<boolean value='false'/>");
}

template <typename Output>
bool PrintArrayStart(Output& output, const WddxValue& value) {
    if (value.payload.array == nullptr) return false;
    char piece[kShortPieceSize];
    return output.Write(
        Appender(piece).Add("<array length='").AddDecimal(value.payload.array->count).Add("'>").Text());
}

template <typename Output>
bool PrintStructStart(Output& output, const WddxValue& value) {
    if (Output::kRefusesEmptyStruct && value.payload.members == nullptr) return false;
    return output.Write("<struct>");
}

// Prints a value that has no children, or the start tag of one that may have some; by type.
template <typename Output>
constexpr bool (*kStartPrinters[])(Output&, const WddxValue&) = {
    PrintNull, PrintString, PrintInteger, PrintFloat, PrintBoolean, PrintArrayStart, PrintStructStart,
};

template <typename Output>
bool PrintStart(Output& output, const WddxValue* value) {
    return value != nullptr && value->type >= 0 && value->type <= WDDX_STRUCT &&
           kStartPrinters<Output>[value->type](output, *value);
}

// How the printing of a container goes on.
enum class Next { kChild, kEnd, kFailure };

template <typename Output>
Next PrintArrayNext(Output& output, OpenValue& open, const WddxValue*& child) {
    const WddxArray& array = *open.container->payload.array;
    if (open.begun >= array.count) return output.Write("</array>") ? Next::kEnd : Next::kFailure;
    child = array.elements[open.begun++];
    return Next::kChild;
}

template <typename Output>
Next PrintStructNext(Output& output, OpenValue& open, const WddxValue*& child) {
    if (open.begun > 0 && !output.Write("</var>")) return Next::kFailure;
    const WddxMember* const member = open.member;
    if (member == nullptr) return output.Write("</struct>") ? Next::kEnd : Next::kFailure;
    if (member->name == nullptr || !WriteAll(output, "<var name='", member->name, "'>")) {
        return Next::kFailure;
    }
    open.member = member->next;
    open.begun = 1;
    child = member->value;
    return Next::kChild;
}

// Prints what stands between two children of the innermost open container, or behind its last one.
template <typename Output>
Next PrintNext(Output& output, OpenValue& open, const WddxValue*& child) {
    return open.container->type == WDDX_ARRAY ? PrintArrayNext(output, open, child)
                                              : PrintStructNext(output, open, child);
}

// Prints a value, or begins it when it has children to come.
template <typename Output>
bool Begin(Output& output, Stack<OpenValue>& open, const WddxValue* value) {
    if (!PrintStart(output, value)) return false;
    if (value->type != WDDX_ARRAY && value->type != WDDX_STRUCT) return true;
    const bool isStruct = value->type == WDDX_STRUCT;
    if (open.Push({value, isStruct ? value->payload.members : nullptr, 0})) return true;
    output.OutOfMemory(); // which is not to pass for a value that was left out
    return false;
}

// Whether a container goes on although the child it has handed out could not be printed.
template <typename Output>
bool Forgives(const OpenValue& open) {
    return Output::kForgivesMembers && open.container->type == WDDX_STRUCT;
}

template <typename Output>
bool PrintTree(Output& output, const WddxValue* root) {
    Stack<OpenValue> open;
    bool good = Begin(output, open, root);
    while (!open.Empty()) {
        const WddxValue* child = nullptr;
        const bool goesOn = good || Forgives<Output>(open.Top());
        const Next next = goesOn ? PrintNext(output, open.Top(), child) : Next::kFailure;
        if (next == Next::kChild) {
            good = Begin(output, open, child);
        } else {
            good = next == Next::kEnd;
            open.Pop();
        }
    }
    return good;
}

template <typename Output>
bool PrintPacketStart(Output& output, const char* comment) {
    return output.Write("<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>"
                        "<wddxPacket version='1.0'>") &&
           (comment == nullptr ? output.Write("<header/>")
                               : WriteAll(output, "<header><comment>", comment, "</comment></header>")) &&
           output.Write("<data>");
}

template <typename Output>
bool PrintPacketEnd(Output& output) {
    return output.Write("</data></wddxPacket>");
}

} // namespace

int wddxPrintStream(FILE* stream, WddxValue* value, const char* comment) {
    if (stream == nullptr || value == nullptr) return 0;
    StreamOutput output(stream);
    return PrintPacketStart(output, comment) && PrintTree(output, value) && PrintPacketEnd(output);
}

int wddxPrintStreamToVar(WddxValue* value, const char* comment, char** out) {
    if (out == nullptr) return 0;
    TextOutput output;
    // The frame's own results do not count: a text that is lost before the value makes the value fail.
    static_cast<void>(PrintPacketStart(output, comment));
    const bool printed = PrintTree(output, value);
    if (printed) static_cast<void>(PrintPacketEnd(output));
    *out = output.Release();
    return printed;
}

int printWddxTag(FILE* stream, WddxValue* value) {
    if (stream == nullptr) return 0;
    StreamOutput output(stream);
    return PrintTree(output, value);
}

int printWddxTagToVar(char** var, WddxValue* value) {
    if (var == nullptr || *var == nullptr) return 0;
    TextOutput output(*var);
    const bool printed = PrintTree(output, value);
    *var = output.Release();
    return printed;
}

int addTextToVar(char** var, const char* format, const char* arg) {
    if (var == nullptr || *var == nullptr || arg == nullptr) return WDDX_TEXT_NOT_ADDED;
    const std::string_view pattern = format == nullptr ? "%s" : format;
    const std::size_t place = pattern.find("%s");
    const std::string_view head = pattern.substr(0, place);
    const std::string_view text = place == std::string_view::npos ? "" : arg;
    const std::string_view tail = pattern.substr(std::min(pattern.size(), head.size() + 2));
    const std::size_t used = std::strlen(*var);
    const std::size_t size = used + head.size() + text.size() + tail.size() + 1;
    OwnedText whole(*var);
    *var = nullptr;
    if (!Resize(whole, size)) return WDDX_TEXT_NOT_ADDED;
    Appender(std::span(whole.get() + used, size - used)).Add(head).Add(text).Add(tail);
    *var = whole.release();
    return WDDX_TEXT_ADDED;
}

char* convertUtf82Xml(const char* text, int len) {
    if (text == nullptr || len < 0) return nullptr;
    const std::string_view plain(text, static_cast<std::size_t>(len));
    if (plain.find('\0') != std::string_view::npos) return nullptr;
    // One place too many for the NUL, so that calloc checks the product.
    char* const encoded = static_cast<char*>(std::calloc(plain.size() + 1, kLongestEntity));
    if (encoded == nullptr) return nullptr;
    char* end = encoded;
    for (const char c : plain) {
        const auto* const entity = std::find_if(kEntities.begin(), kEntities.end(),
                                                [=](const Entity& e) { return e.character == c; });
        if (entity == kEntities.end()) {
            *end++ = c;
        } else {
            end = std::copy(entity->name.begin(), entity->name.end(), end);
        }
    }
    return encoded;
}
