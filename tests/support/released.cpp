#include "tests/support/released.h"

#include "tests/support/faults.h"

#include <algorithm>
#include <cstring>
#include <malloc.h>
#include <utility>

namespace {

constexpr std::size_t kShortestSecret = 25; // an allocator adds fewer bytes

thread_local int released = 0;
thread_local rdx::test::SecretWatch* watch = nullptr;

} // namespace

extern "C" {
void __real_free(void*);
void __wrap_free(void*);
void __real_explicit_bzero(void*, std::size_t);
void __wrap_explicit_bzero(void*, std::size_t);

void __wrap_free(void* block) {
    if (block != nullptr) {
        ++released;
        if (watch != nullptr) watch->BeforeFree(block, malloc_usable_size(block));
    }
    __real_free(block);
}

void __wrap_explicit_bzero(void* memory, std::size_t size) {
    if (watch != nullptr) watch->BeforeWipe(memory, size);
    __real_explicit_bzero(memory, size);
}
}

namespace rdx::test {

int LiveBlocks() { return CallsOf("malloc") + CallsOf("calloc") - released; }

SecretWatch::SecretWatch(std::vector<std::string> secrets) : secrets_(std::move(secrets)) {
    if (std::ranges::any_of(secrets_, [](const auto& s) { return s.size() < kShortestSecret; })) std::abort();
    watch = this;
}

SecretWatch::~SecretWatch() { watch = nullptr; }

void SecretWatch::BeforeWipe(const void* memory, std::size_t size) {
    if (HasSecret(memory, size)) wiped_.push_back(memory);
}

void SecretWatch::BeforeFree(const void* block, std::size_t size) {
    std::erase(wiped_, block);
    if (HasSecret(block, size)) ++left_;
}

bool SecretWatch::HasSecret(const void* memory, std::size_t size) const {
    return std::ranges::any_of(secrets_, [=](const std::string& secret) {
        return memmem(memory, size, secret.data(), secret.size()) != nullptr;
    });
}

} // namespace rdx::test
