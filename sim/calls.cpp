#include "sim/calls.h"

#include "sim/files.h"
#include "sim/ini.h"

namespace rdx::sim {

namespace {

std::string Print(const char* text) { return text != nullptr ? Quote(text) : "null"; }
std::string Print(std::int64_t number) { return std::to_string(number); }

template <typename T>
std::string Print(std::span<T> elements) {
    std::string text = "[";
    for (const auto& element : elements) text.append(text.size() > 1 ? "," : "").append(Print(element));
    return text += ']';
}

} // namespace

std::string PrintCall(std::string_view function, Inputs inputs) {
    std::string line(function);
    for (const Input& input : inputs) {
        line.append(" ").append(input.name).append("=");
        line += std::visit([](const auto& value) { return Print(value); }, input.value);
    }
    return line += '\n';
}

void CallRecord::Add(std::string_view function, Inputs inputs) {
    if (path_.empty()) return;
    const int error = AppendToFile(path_, PrintCall(function, inputs));
    if (error == 0 || reported_.exchange(true)) return;
    Report(Join({Explain(path_, error), "; calls are not recorded"}));
}

} // namespace rdx::sim
