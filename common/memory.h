// Owned memory of the system allocator.
//
// Records handed across the library's boundary are freed with `free`, so everything they own comes from
// `malloc`. These helpers give that memory an owner while a function works on it; they never throw.
#ifndef RDX_COMMON_MEMORY_H
#define RDX_COMMON_MEMORY_H

#include <cstdlib>
#include <memory>
#include <string_view>
#include <type_traits>

namespace rdx {

struct FreeDelete {
    void operator()(void* block) const { std::free(block); }
};

// A block of the system allocator with one owner; `release()` hands it to a record.
template <typename T>
using Owned = std::unique_ptr<T, FreeDelete>;
using OwnedText = Owned<char>;

// A zero-filled record, or null when memory is short.
template <typename T>
Owned<T> AllocateZeroed() {
    static_assert(std::is_trivial_v<T>);
    return Owned<T>(static_cast<T*>(std::calloc(1, sizeof(T))));
}

// `count` zero-filled records in a row, or null when memory is short.
template <typename T>
Owned<T> AllocateZeroedArray(std::size_t count) {
    static_assert(std::is_trivial_v<T>);
    return Owned<T>(static_cast<T*>(std::calloc(count, sizeof(T))));
}

// `size` bytes whose contents are unspecified, or null when memory is short. A size of 0 gives one byte.
OwnedText AllocateBytes(std::size_t size);

// A NUL-terminated copy of `text`, or null when memory is short.
OwnedText CopyText(std::string_view text);

// A NUL-terminated copy of `head` followed by `tail`, or null when memory is short.
OwnedText JoinText(std::string_view head, std::string_view tail);

// Frees what `*pointer` names and nulls it, so that a second call is harmless.
template <typename T>
void FreeAndNull(T*& pointer) {
    std::free(pointer);
    pointer = nullptr;
}

} // namespace rdx

#endif
