#include "wddx/wddx.h"

#include "wddx/owned_value.h"
#include "wddx/tree.h"

#include <cstring>
#include <utility>

using namespace rdx;
using namespace rdx::wddx;

namespace {

OwnedValue NewValue(WddxType type) {
    WddxValue* const value = AllocateZeroed<WddxValue>().release();
    if (value != nullptr) value->type = type;
    return OwnedValue(value);
}

bool Is(const WddxValue* value, WddxType type) { return value != nullptr && value->type == type; }

// Puts `value`, or a new null value for null, in the place of what the slot holds.
void Replace(WddxValue*& slot, WddxValue* value) {
    if (value == nullptr) value = wddxCreateNull();
    if (value == nullptr || value == slot) return;
    wddxFree(&slot);
    slot = value;
}

// The link that holds the first member of the name, or the null link at the end of the list.
WddxMember** FindMember(WddxValue& structure, const char* name) {
    WddxMember** link = &structure.payload.members;
    while (*link != nullptr && ((*link)->name == nullptr || std::strcmp((*link)->name, name) != 0)) {
        link = &(*link)->next;
    }
    return link;
}

// Takes a member, whose value is owned elsewhere, out of its list.
void DropMember(WddxMember*& link) {
    const Owned<WddxMember> member(link);
    link = member->next;
    std::free(member->name);
}

// The slot of the element, or null.
WddxValue** FindElement(WddxValue* array, int i) {
    return i >= 0 && i < wddxGetArraySize(array) ? &array->payload.array->elements[i] : nullptr;
}

// The slot in which a value holds the child that is to be freed next, or null when it has no child left.
WddxValue** ChildSlot(const WddxValue& value) {
    if (value.type == WDDX_STRUCT && value.payload.members != nullptr) return &value.payload.members->value;
    if (value.type != WDDX_ARRAY || value.payload.array == nullptr) return nullptr;
    const WddxArray& array = *value.payload.array;
    return array.count > 0 ? &array.elements[array.count - 1] : nullptr;
}

// Takes the slot that ChildSlot found, which owns nothing any more, out of the value.
void DropChildSlot(WddxValue& value) {
    if (value.type == WDDX_ARRAY) {
        --value.payload.array->count;
    } else {
        DropMember(value.payload.members);
    }
}

// Frees what a value without children still owns.
void FreeBlocks(WddxValue& value) {
    if (value.type == WDDX_STRING) FreeAndNull(value.payload.string);
    if (value.type == WDDX_ARRAY && value.payload.array != nullptr) {
        std::free(value.payload.array->elements);
        FreeAndNull(value.payload.array);
    }
}

// Reads the payload of a value of the type asked for.
template <typename Out, typename Field>
int Read(Out* out, const WddxValue* value, WddxType type, Field WddxPayload::*field) {
    if (out == nullptr || !Is(value, type)) return 0;
    *out = value->payload.*field;
    return 1;
}

} // namespace

namespace rdx::wddx {

bool MakeArray(WddxValue& value, int count) {
    value.type = WDDX_ARRAY;
    value.payload.array = AllocateZeroed<WddxArray>().release();
    if (value.payload.array == nullptr) return false;
    if (count == 0) return true;
    void* const slots = std::calloc(static_cast<std::size_t>(count), sizeof(WddxValue*));
    if (slots == nullptr) return false;
    *value.payload.array = {count, static_cast<WddxValue**>(slots)};
    return true;
}

WddxMember* NewMember(std::string_view name) {
    OwnedText copy = CopyText(name);
    if (!copy) return nullptr;
    WddxMember* const member = AllocateZeroed<WddxMember>().release();
    if (member != nullptr) member->name = copy.release();
    return member;
}

} // namespace rdx::wddx

WddxValue* wddxCreateNull() { return NewValue(WDDX_NULL).release(); }

WddxValue* wddxCreateInteger(int v) {
    OwnedValue value = NewValue(WDDX_INTEGER);
    if (value) value->payload.integer = v;
    return value.release();
}

WddxValue* wddxCreateLongInteger(long v) { return wddxCreateInteger(static_cast<int>(v)); }

WddxValue* wddxCreateFloat(double v) {
    OwnedValue value = NewValue(WDDX_FLOAT);
    if (value) value->payload.floating = v;
    return value.release();
}

WddxValue* wddxCreateBoolean(unsigned char v) {
    OwnedValue value = NewValue(WDDX_BOOLEAN);
    if (value) value->payload.boolean = v;
    return value.release();
}

WddxValue* wddxCreateString(const char* s) {
    OwnedValue value = NewValue(WDDX_STRING);
    if (!value) return nullptr;
    value->payload.string = CopyText(s == nullptr ? "" : s).release();
    return value->payload.string == nullptr ? nullptr : value.release();
}

WddxValue* wddxCreateStruct() { return NewValue(WDDX_STRUCT).release(); }

WddxValue* wddxCreateArray(int n) {
    if (n < 1) return nullptr;
    OwnedValue array = NewValue(WDDX_ARRAY);
    if (!array || !MakeArray(*array, n)) return nullptr;
    for (int i = 0; i < n; ++i) {
        WddxValue* const element = wddxCreateNull();
        if (element == nullptr) return nullptr;
        array->payload.array->elements[i] = element;
    }
    return array.release();
}

void wddxSetStructVar(WddxValue* s, const char* name, WddxValue* v) {
    if (!Is(s, WDDX_STRUCT) || name == nullptr) return;
    WddxMember*& link = *FindMember(*s, name);
    if (link == nullptr) link = NewMember(name);
    if (link == nullptr) return;
    Replace(link->value, v);
    if (link->value == nullptr) DropMember(link); // no memory for the null value
}

WddxValue* wddxGetStructVar(WddxValue* s, const char* name) {
    if (!Is(s, WDDX_STRUCT) || name == nullptr) return nullptr;
    const WddxMember* const member = *FindMember(*s, name);
    return member == nullptr ? nullptr : member->value;
}

void wddxSetArrayElem(WddxValue* a, int i, WddxValue* v) {
    if (WddxValue** const slot = FindElement(a, i)) Replace(*slot, v);
}

WddxValue* wddxGetArrayElem(WddxValue* a, int i) {
    WddxValue** const slot = FindElement(a, i);
    return slot == nullptr ? nullptr : *slot;
}

int wddxGetArraySize(WddxValue* a) {
    return Is(a, WDDX_ARRAY) && a->payload.array != nullptr ? a->payload.array->count : WDDX_NONE;
}

int wddxGetInteger(int* out, WddxValue* v) { return Read(out, v, WDDX_INTEGER, &WddxPayload::integer); }

int wddxGetLongInteger(long* out, WddxValue* v) { return Read(out, v, WDDX_INTEGER, &WddxPayload::integer); }

int wddxGetFloat(double* out, WddxValue* v) { return Read(out, v, WDDX_FLOAT, &WddxPayload::floating); }

int wddxGetBoolean(unsigned char* out, WddxValue* v) {
    return Read(out, v, WDDX_BOOLEAN, &WddxPayload::boolean);
}

int wddxGetString(char** out, WddxValue* v) { return Read(out, v, WDDX_STRING, &WddxPayload::string); }

int wddxGetType(WddxValue* v) { return v == nullptr ? WDDX_NONE : v->type; }

void wddxFree(WddxValue** pv) {
    if (pv == nullptr) return;
    freeValueStruct(*pv);
    FreeAndNull(*pv);
}

// Goes down into the children and up again without a stack: while a child is being freed, the slot that
// held it holds the parent of the value the slot is in.
void freeValueStruct(WddxValue* v) {
    WddxValue* value = v;
    WddxValue* parent = nullptr;
    while (value != nullptr) {
        WddxValue** const slot = ChildSlot(*value);
        if (slot != nullptr && *slot != nullptr) {
            WddxValue* const child = std::exchange(*slot, parent);
            parent = std::exchange(value, child);
        } else if (slot != nullptr) {
            DropChildSlot(*value);
        } else {
            FreeBlocks(*value);
            if (value == v) return;
            std::free(std::exchange(value, parent));
            parent = *ChildSlot(*value);
            DropChildSlot(*value);
        }
    }
}
