// What the tests of WDDX values, parser and printer share.
#ifndef RDX_TESTS_SUPPORT_WDDX_H
#define RDX_TESTS_SUPPORT_WDDX_H

#include "tests/support/faults.h"
#include "wddx/wddx.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <string>
#include <string_view>

namespace rdx::test {

struct FreeTree {
    void operator()(WddxValue* value) const { wddxFree(&value); }
};
using Tree = std::unique_ptr<WddxValue, FreeTree>;

struct FreeMemory {
    void operator()(void* block) const { std::free(block); }
};
using Text = std::unique_ptr<char, FreeMemory>;

// The packet that holds the one value given as text.
inline std::string Packet(std::string_view value) {
    return "<wddxPacket version='1.0'><header/><data>" + std::string(value) + "</data></wddxPacket>";
}

inline Tree Parse(const std::string& packet) { return Tree(wddxParseStream(packet.c_str())); }

// The value as printed; "-" and what was printed so far when printing fails.
inline std::string Printed(WddxValue* value) {
    char* text = nullptr;
    std::size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    const int result = printWddxTag(stream, value);
    std::fclose(stream);
    const Text owner(text);
    std::string printed = result == 1 ? "" : "-";
    return printed.append(text, size);
}

inline std::string Repeated(int count, std::string_view text) {
    std::string all;
    for (int i = 0; i < count; ++i) all += text;
    return all;
}

// Runs `body` on a thread with a stack of `bytes`.
template <typename Body>
void OnStackOf(std::size_t bytes, Body body) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, bytes), 0);
    const auto run = [](void* argument) -> void* {
        (*static_cast<Body*>(argument))();
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &body), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

// Runs `body` with the first allocation failing, then with the second, until none is left to fail; for
// each kind of allocation. `body` returns whether all went well: true when nothing failed, else whatever
// `expected` says of the result. Fails the test when nothing was injected.
template <typename Body, typename Expected>
void FailEveryAllocation(Body body, Expected expected) {
    constexpr int kMost = 10000;
    int injected = 0;
    for (const char* const allocator : {"malloc", "calloc", "realloc"}) {
        for (int nth = 1; nth < kMost; ++nth) {
            SCOPED_TRACE(std::string(allocator) + " " + std::to_string(nth));
            const FailCall fault(allocator, nth);
            const bool good = body();
            if (!fault.Struck()) {
                EXPECT_TRUE(good) << "nothing failed";
                break;
            }
            expected(good);
            ++injected;
        }
    }
    EXPECT_GT(injected, 0);
}

// For a body that looks at the result itself.
inline void AnyResult(bool) {}

// The same for a `body` that no failure must leave well.
template <typename Body>
void FailEveryAllocation(Body body) {
    FailEveryAllocation(body, [](bool good) { EXPECT_FALSE(good) << "a failure does not show"; });
}

} // namespace rdx::test

#endif
