// From text to values in two passes: the text becomes a tree of elements, checked against the table of
// tags, and the tree becomes values. Both passes keep what is open in memory of their own.
#include "wddx/wddx.h"

#include "common/text.h"
#include "wddx/tree.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <optional>

using namespace rdx;
using namespace rdx::wddx;

namespace {

// Two kinds of value have a bit in the masks and no row: to clients their tags are unknown.
constexpr unsigned int kFirstUnknownValue = 512;
constexpr unsigned int kSecondUnknownValue = 16384;
constexpr unsigned int kUnknownValues = kFirstUnknownValue | kSecondUnknownValue;
constexpr unsigned int kFieldValues =
    WDDX_TAG_NULL | WDDX_TAG_BOOLEAN | WDDX_TAG_NUMBER | WDDX_TAG_STRING | kUnknownValues;
constexpr unsigned int kValues = kFieldValues | WDDX_TAG_ARRAY | WDDX_TAG_STRUCT | WDDX_TAG_RECORDSET;

constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::string_view kNameEnd = " >\t\n\r";
constexpr std::string_view kAttrNameEnd = " =\t\n\r";
constexpr std::string_view kBeforeAttrValue = " \"'=\t\n\r";
constexpr std::string_view kQuotes = "\"'";
constexpr std::string_view kTagEnd = "/>";

} // namespace

// clang-format off
constexpr TagDef g_astTagDef[WDDX_TAG_COUNT] = {
    // id                 name          attribute   children                              empty multi may-be needs
    {WDDX_TAG_ROOT,      "",           nullptr,    WDDX_TAG_PACKET,                      0,    0,    0,     1},
    {WDDX_TAG_PACKET,    "wddxPacket", "version",  WDDX_TAG_HEADER | WDDX_TAG_DATA,      0,    1,    0,     0},
    {WDDX_TAG_HEADER,    "header",     nullptr,    WDDX_TAG_COMMENT,                     0,    0,    1,     1},
    {WDDX_TAG_COMMENT,   "comment",    nullptr,    0,                                    0,    0,    0,     0},
    {WDDX_TAG_DATA,      "data",       nullptr,    kValues,                              0,    0,    0,     1},
    {WDDX_TAG_STRUCT,    "struct",     nullptr,    WDDX_TAG_VAR,                         0,    1,    1,     1},
    {WDDX_TAG_VAR,       "var",        "name",     kValues,                              0,    0,    0,     1},
    {WDDX_TAG_ARRAY,     "array",      "length",   kValues,                              0,    1,    1,     0},
    {WDDX_TAG_RECORDSET, "recordset",  "rowCount", WDDX_TAG_FIELD,                       0,    1,    0,     0},
    {WDDX_TAG_FIELD,     "field",      "name",     kFieldValues,                         0,    1,    0,     0},
    {WDDX_TAG_NULL,      "null",       nullptr,    0,                                    1,    0,    0,     0},
    {WDDX_TAG_NUMBER,    "number",     nullptr,    0,                                    0,    0,    0,     0},
    {WDDX_TAG_STRING,    "string",     nullptr,    0,                                    0,    0,    1,     0},
    {WDDX_TAG_BOOLEAN,   "boolean",    "value",    0,                                    1,    0,    0,     0},
};
// clang-format on

namespace {

struct FreeElement {
    void operator()(WddxElement* element) const { freeElements(element); }
};
using OwnedElement = std::unique_ptr<WddxElement, FreeElement>;

void MarkSelfClosed(WddxTag& tag) { tag.bEnd = tag.bSelfClosed = 1; }

// Moves past the next "/" or ">". False when there is none.
bool SkipPastTagEnd(Reader& text) { return text.TakeUntil(kTagEnd) && !text.TakeBytes(1).empty(); }

// Reads the one attribute that is looked at and skips the rest of the tag.
bool ReadAttribute(Reader& text, WddxTag& tag) {
    const std::optional<std::string_view> name = text.TakeUntil(kAttrNameEnd);
    if (!name || !CopyBounded(tag.szAttrName, *name)) return false;
    text.Skip(kBeforeAttrValue);
    const std::optional<std::string_view> value = text.TakeUntil(kQuotes);
    if (!value || !CopyBounded(tag.szAttrValue, *value)) return false;
    if (!text.TakeUntil(kTagEnd)) return false;
    if (text.Take("/>")) {
        MarkSelfClosed(tag);
        return true;
    }
    return SkipPastTagEnd(text);
}

// What is left of a start tag behind its name.
bool ReadStartTag(Reader& text, WddxTag& tag) {
    text.Skip(kBlanks);
    if (text.Take("/>")) {
        MarkSelfClosed(tag);
        return true;
    }
    return text.Take(">") || ReadAttribute(text, tag);
}

// The next tag of the text. False when there is none, it is broken off or does not fit its record.
bool NextTag(Reader& text, WddxTag& tag) {
    tag = {};
    if (!text.TakeUntilText("<")) return false;
    text.Take("<");
    tag.bEnd = text.Take("/");
    std::optional<std::string_view> name = text.TakeUntil(kNameEnd);
    if (!name) return false;
    if (name->ends_with('/')) {
        name->remove_suffix(1);
        MarkSelfClosed(tag);
        text.TakeBytes(1);
        return CopyBounded(tag.szName, *name);
    }
    if (!CopyBounded(tag.szName, *name)) return false;
    return tag.bEnd ? SkipPastTagEnd(text) : ReadStartTag(text, tag);
}

// Runs a step over the text at `*cursor` and moves the cursor along when it succeeds.
template <typename Step>
bool MoveCursor(const char** cursor, Step step) {
    if (cursor == nullptr || *cursor == nullptr) return false;
    const std::string_view whole = *cursor;
    Reader text(whole);
    if (!step(text)) return false;
    *cursor += whole.size() - text.Rest().size();
    return true;
}

// The element of a tag of the row; null when the row forbids the tag or memory is short.
WddxElement* CreateElement(const TagDef& row, const WddxTag& tag) {
    if (row.ucEmptyTag && !tag.bSelfClosed && !tag.bEnd) return nullptr;
    if (row.szAttr != nullptr && std::strcmp(row.szAttr, tag.szAttrName) != 0) return nullptr;
    OwnedElement element(AllocateZeroed<WddxElement>().release());
    if (!element) return nullptr;
    element->dwId = row.dwId;
    if (row.szAttr == nullptr) return element.release();
    element->pszText = CopyText(tag.szAttrValue).release();
    return element->pszText == nullptr ? nullptr : element.release();
}

// An element whose content is being read.
struct OpenElement {
    WddxElement* element;
    const TagDef* row;
    WddxElement* lastChild;
    bool hasText; // characters stood before the first tag
};

// Takes the characters before the next tag as the element's text and opens the element.
bool Open(Stack<OpenElement>& open, WddxElement& element, Reader& text) {
    const int row = lookupTagById(element.dwId);
    const std::optional<std::string_view> characters = text.TakeUntilText("<");
    if (row < 0 || !characters) return false;
    if (!characters->empty()) {
        if (element.pszText != nullptr || characters->size() > INT_MAX) return false;
        element.pszText = convertXml2Utf8(characters->data(), static_cast<int>(characters->size()));
        if (element.pszText == nullptr) return false;
    }
    return open.Push({&element, &g_astTagDef[row], nullptr, !characters->empty()});
}

void Link(OpenElement& parent, WddxElement& child) {
    if (parent.lastChild == nullptr) {
        parent.element->pFirstChild = &child;
        child.pParent = parent.element;
    } else {
        parent.lastChild->pNext = &child;
        child.pPrev = parent.lastChild;
    }
    parent.lastChild = &child;
}

// Checks a tag as the next child of the element and makes it that. Null when a rule forbids it: without
// ucMultiChild there is no second child, so that no kind of child comes twice either.
WddxElement* AddChild(OpenElement& parent, const TagDef& row, const WddxTag& tag) {
    const bool allowed = (parent.row->dwChildren & row.dwId) != 0;
    const bool mayBeSelfClosed = row.ucEmptyTag || row.ucMayBeEmpty;
    const bool roomForOne = parent.lastChild == nullptr || parent.row->ucMultiChild;
    if (!allowed || (tag.bSelfClosed && !mayBeSelfClosed) || !roomForOne) return nullptr;
    WddxElement* const child = CreateElement(row, tag);
    if (child != nullptr) Link(parent, *child);
    return child;
}

// Whether the element may end here with the content it has. An attribute's value is no content. An element
// that holds tags only has its one child then: AddChild lets in no second one.
bool MayClose(const OpenElement& open, const TagDef& endTag) {
    if (endTag.dwId != open.element->dwId) return false;
    const bool hasChildren = open.lastChild != nullptr;
    if (open.hasText && (hasChildren || open.row->ucMultiChild || open.row->ucNeedsChild)) return false;
    return open.hasText || hasChildren || open.row->ucMayBeEmpty;
}

// Reads the next tag into the innermost open element. False when a rule is broken.
bool ReadContentTag(Stack<OpenElement>& open, Reader& text) {
    WddxTag tag;
    const int row = NextTag(text, tag) ? lookupTagByName(tag.szName) : WDDX_NONE;
    if (row < 0) return false;
    if (tag.bEnd && !tag.bSelfClosed) return MayClose(open.Pop(), g_astTagDef[row]);
    WddxElement* const child = AddChild(open.Top(), g_astTagDef[row], tag);
    return child != nullptr && (tag.bSelfClosed || Open(open, *child, text));
}

bool ReadContent(Reader& text, WddxElement& element) {
    Stack<OpenElement> open;
    bool good = Open(open, element, text);
    while (good && !open.Empty()) good = ReadContentTag(open, text);
    return good;
}

// Reads the packet, which the first known tag must be, into the document's element.
bool ReadPacket(Reader& text, WddxElement& root) {
    WddxTag tag;
    int row;
    do {
        if (!NextTag(text, tag)) return false;
        row = lookupTagByName(tag.szName);
    } while (row < 0);
    if ((g_astTagDef[0].dwChildren & g_astTagDef[row].dwId) == 0) return false;
    OpenElement document = {&root, &g_astTagDef[0], nullptr, false};
    WddxElement* const packet = CreateElement(g_astTagDef[row], tag);
    if (packet == nullptr) return false;
    Link(document, *packet);
    return ReadContent(text, *packet);
}

// The number that starts the text. Only decimal ones count: what else strtod knows reads as 0.
double ParseFloat(const char* text) {
    Reader reader(text);
    reader.Skip(kWhiteSpace);
    if (!reader.Take("-")) reader.Take("+");
    const std::string_view digits = reader.Rest();
    const bool decimal = digits.find_first_of(".0123456789") == 0;
    if (!decimal || digits.starts_with("0x") || digits.starts_with("0X")) return 0;
    const PlainNumbers plain;
    return std::strtod(text, nullptr);
}

// A value still to be built: the element it comes from and the place it goes to.
struct Job {
    const WddxElement* element;
    WddxValue** slot;
};
using Jobs = Stack<Job>;

// Each fills a zeroed value from its element, leaving the children as jobs. False fails the whole tree.
bool BuildNull(const WddxElement&, WddxValue&, Jobs&) { return true; }

bool BuildNumber(const WddxElement& element, WddxValue& value, Jobs&) {
    if (element.pszText == nullptr) return false;
    if (std::strpbrk(element.pszText, ".Ee") != nullptr) {
        value.type = WDDX_FLOAT;
        value.payload.floating = ParseFloat(element.pszText);
    } else {
        value.type = WDDX_INTEGER;
        value.payload.integer = ParseDecimal(element.pszText);
    }
    return true;
}

bool BuildBoolean(const WddxElement& element, WddxValue& value, Jobs&) {
    if (element.pszText == nullptr) return false;
    value.type = WDDX_BOOLEAN;
    value.payload.boolean = std::strcmp(element.pszText, "true") == 0;
    return true;
}

bool BuildString(const WddxElement& element, WddxValue& value, Jobs&) {
    value.type = WDDX_STRING;
    value.payload.string = CopyText(element.pszText == nullptr ? "" : element.pszText).release();
    return value.payload.string != nullptr;
}

// Whether the element has `count` children at least.
bool HasChildren(const WddxElement& element, int count) {
    const WddxElement* child = element.pFirstChild;
    for (; count > 0 && child != nullptr; --count) child = child->pNext;
    return count == 0;
}

// The length is only what the sender says: nothing of its size is allocated before the children are there.
bool BuildArray(const WddxElement& element, WddxValue& value, Jobs& jobs) {
    const int length = element.pszText == nullptr ? -1 : ParseDecimal(element.pszText);
    if (length < 0 || !HasChildren(element, length) || !MakeArray(value, length)) return false;
    const WddxElement* child = element.pFirstChild;
    for (int i = 0; i < length; ++i, child = child->pNext) {
        if (!jobs.Push({child, &value.payload.array->elements[i]})) return false;
    }
    return true;
}

bool BuildStruct(const WddxElement& element, WddxValue& value, Jobs& jobs) {
    value.type = WDDX_STRUCT;
    WddxMember** end = &value.payload.members;
    for (const WddxElement* var = element.pFirstChild; var != nullptr; var = var->pNext) {
        if (var->dwId != WDDX_TAG_VAR || var->pszText == nullptr) return false;
        *end = NewMember(var->pszText);
        if (*end == nullptr || !jobs.Push({var->pFirstChild, &(*end)->value})) return false;
        end = &(*end)->next;
    }
    return element.pFirstChild != nullptr;
}

struct Builder {
    unsigned int id;
    bool (*build)(const WddxElement&, WddxValue&, Jobs&);
};

constexpr Builder kBuilders[] = {
    {WDDX_TAG_NULL, BuildNull},     {WDDX_TAG_BOOLEAN, BuildBoolean}, {WDDX_TAG_NUMBER, BuildNumber},
    {WDDX_TAG_STRING, BuildString}, {WDDX_TAG_ARRAY, BuildArray},     {WDDX_TAG_STRUCT, BuildStruct},
};

bool Build(const Job& job, Jobs& jobs) {
    if (job.element == nullptr) return false;
    const auto* const builder = std::find_if(std::begin(kBuilders), std::end(kBuilders),
                                             [&](const Builder& b) { return b.id == job.element->dwId; });
    if (builder == std::end(kBuilders)) return false;
    *job.slot = AllocateZeroed<WddxValue>().release();
    return *job.slot != nullptr && builder->build(*job.element, **job.slot, jobs);
}

// The next character. An "&" that starts no entity is a NUL: clients see the text cut off there.
char DecodeNext(Reader& text) {
    const char next = text.Rest().front();
    if (next == '&') {
        for (const Entity& entity : kEntities) {
            if (text.Take(entity.name)) return entity.character;
        }
    }
    text.TakeBytes(1);
    return next == '&' ? '\0' : next;
}

WddxElement* LastSibling(WddxElement* element) {
    while (element->pNext != nullptr) element = element->pNext;
    return element;
}

} // namespace

WddxValue* wddxParseStream(const char* text) {
    if (text == nullptr) return nullptr;
    const OwnedElement root(AllocateZeroed<WddxElement>().release());
    if (!root) return nullptr;
    root->dwId = WDDX_TAG_ROOT;
    Reader reader(text);
    const WddxElement* const data = ReadPacket(reader, *root) ? parseElements(root.get()) : nullptr;
    return data == nullptr ? nullptr : createWddxValue(data->pFirstChild);
}

WddxTag* getNextTag(const char** cursor) {
    Owned<WddxTag> tag = AllocateZeroed<WddxTag>();
    if (!tag || !MoveCursor(cursor, [&](Reader& text) { return NextTag(text, *tag); })) return nullptr;
    return tag.release();
}

int lookupTagByName(const char* name) {
    if (name == nullptr) return WDDX_NONE;
    for (int row = 0; row < WDDX_TAG_COUNT; ++row) {
        if (std::strcmp(g_astTagDef[row].szName, name) == 0) return row;
    }
    return WDDX_NONE;
}

int lookupTagById(unsigned int id) {
    for (int row = 0; row < WDDX_TAG_COUNT; ++row) {
        if (g_astTagDef[row].dwId == id) return row;
    }
    return WDDX_NONE;
}

WddxElement* checkTagAndCreateElement(WddxTag* tag) {
    const int index = tag == nullptr ? WDDX_NONE : lookupTagByName(tag->szName);
    return index < 0 ? nullptr : CreateElement(g_astTagDef[index], *tag);
}

int parseTagContent(const char** cursor, WddxElement* element) {
    return element != nullptr &&
           MoveCursor(cursor, [&](Reader& text) { return ReadContent(text, *element); });
}

WddxElement* parseElements(WddxElement* root) {
    const WddxElement* const packet = root == nullptr ? nullptr : root->pFirstChild;
    if (packet == nullptr || packet->dwId != WDDX_TAG_PACKET || packet->pNext != nullptr) return nullptr;
    WddxElement* data = packet->pFirstChild;
    if (data != nullptr && data->dwId != WDDX_TAG_DATA) data = data->pNext;
    return data != nullptr && data->dwId == WDDX_TAG_DATA ? data : nullptr;
}

WddxValue* createWddxValue(WddxElement* element) {
    WddxValue* value = nullptr;
    Jobs jobs;
    bool good = jobs.Push({element, &value});
    while (good && !jobs.Empty()) good = Build(jobs.Pop(), jobs);
    if (!good) wddxFree(&value);
    return value;
}

// Puts the children of each element in its place in the row, so that the tree becomes a list.
void freeElements(WddxElement* element) {
    if (element == nullptr) return;
    element->pNext = nullptr; // the siblings stay
    while (element != nullptr) {
        const Owned<WddxElement> done(element);
        std::free(done->pszText);
        element = done->pNext;
        if (done->pFirstChild == nullptr) continue;
        LastSibling(done->pFirstChild)->pNext = element;
        element = done->pFirstChild;
    }
}

char* convertXml2Utf8(const char* text, int len) {
    if (text == nullptr || len < 0) return nullptr;
    const std::string_view encoded(text, static_cast<std::size_t>(len));
    if (encoded.find('\0') != std::string_view::npos) return nullptr;
    char* const decoded = static_cast<char*>(std::calloc(encoded.size() + 1, 1));
    if (decoded == nullptr) return nullptr;
    char* end = decoded;
    for (Reader reader(encoded); !reader.AtEnd(); ++end) *end = DecodeNext(reader);
    return decoded;
}
