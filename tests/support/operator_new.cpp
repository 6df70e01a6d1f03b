// Takes the memory of `new` from malloc's wrapper, so that faults.h can make it run short as well.
#include <cstdlib>
#include <new>

void* operator new(std::size_t size) {
    if (void* const block = std::malloc(size > 0 ? size : 1)) return block;
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size > 0 ? size : 1);
}

void operator delete(void* block) noexcept { std::free(block); }

void operator delete(void* block, std::size_t) noexcept { std::free(block); }
