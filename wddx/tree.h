// What the sources of this module share.
#ifndef RDX_WDDX_TREE_H
#define RDX_WDDX_TREE_H

#include "common/memory.h"
#include "wddx/wddx.h"

#include <array>
#include <cstddef>
#include <locale.h>
#include <string_view>
#include <type_traits>

namespace rdx::wddx {

// Resizes a block to `count` items. False when memory is short; the block is then as it was.
template <typename T>
bool Resize(Owned<T>& block, std::size_t count) {
    T* const before = block.release();
    T* const resized = static_cast<T*>(std::realloc(before, count * sizeof(T)));
    block.reset(resized == nullptr ? before : resized);
    return resized != nullptr;
}

// A stack in memory of its own: trees come from outside and may be deeper than a thread's stack.
template <typename T>
class Stack {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    bool Empty() const { return size_ == 0; }
    T& Top() { return items_.get()[size_ - 1]; }
    T Pop() { return items_.get()[--size_]; }

    // False when memory is short; the stack is then as it was.
    bool Push(const T& item) {
        if (size_ == capacity_ && !Grow()) return false;
        items_.get()[size_++] = item;
        return true;
    }

private:
    static constexpr std::size_t kFirstCapacity = 16; // deep enough for every packet of the service itself

    bool Grow() {
        const std::size_t capacity = capacity_ == 0 ? kFirstCapacity : capacity_ * 2;
        if (!Resize(items_, capacity)) return false;
        capacity_ = capacity;
        return true;
    }

    Owned<T> items_;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

// While it lives, numbers are read and written on this thread in the "C" locale's form.
class PlainNumbers {
public:
    // The "C" locale is part of the C library: naming it cannot fail.
    PlainNumbers() : plain_(newlocale(LC_ALL_MASK, "C", nullptr)), before_(uselocale(plain_)) {}
    ~PlainNumbers() {
        uselocale(before_);
        freelocale(plain_);
    }
    PlainNumbers(const PlainNumbers&) = delete;
    PlainNumbers& operator=(const PlainNumbers&) = delete;

private:
    locale_t plain_;
    locale_t before_;
};

// A character that text inside a tag cannot hold, and what stands for it.
struct Entity {
    char character;
    std::string_view name;
};

inline constexpr std::array<Entity, 5> kEntities = {{
    {'&', "&amp;"},
    {'<', "&lt;"},
    {'>', "&gt;"},
    {'"', "&quot;"},
    {'\'', "&apos;"},
}};

inline constexpr std::size_t kLongestEntity = 6; // bytes of "&quot;" and "&apos;"

// Makes `value`, an empty node, an array of `count` slots that hold nothing yet. False when memory is
// short; what was attached then goes with the value.
bool MakeArray(WddxValue& value, int count);

// A member with a copy of `name` and no value yet, or null when memory is short.
WddxMember* NewMember(std::string_view name);

} // namespace rdx::wddx

#endif
