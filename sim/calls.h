// The record of calls: what reached the device, one line for each call.
#ifndef RDX_SIM_CALLS_H
#define RDX_SIM_CALLS_H

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace rdx::sim {

// One argument that a call brings along: a text or null, a number, or an array of them.
struct Input {
    const char* name;
    std::variant<const char*, std::int64_t, std::span<char* const>, std::span<const int>> value;
};
using Inputs = std::initializer_list<Input>;

// The line of a call, its line end included: the function and "name=value" for each argument. Texts are
// quoted, null is null, arrays stand in brackets.
std::string PrintCall(std::string_view function, Inputs inputs);

// The file of the record. An empty path keeps none.
class CallRecord {
public:
    explicit CallRecord(std::string path) : path_(std::move(path)) {}

    // The first failure is reported.
    void Add(std::string_view function, Inputs inputs);

private:
    const std::string path_;
    std::atomic<bool> reported_ = false;
};

} // namespace rdx::sim

#endif
