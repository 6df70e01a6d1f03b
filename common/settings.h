// The settings of section HTTP as a table, for those that read, dump and document them.
#ifndef RDX_COMMON_SETTINGS_H
#define RDX_COMMON_SETTINGS_H

#include <cstdio>
#include <span>
#include <string_view>

namespace rdx {

struct Setting;

// Reads a value of the file into a setting: 0 or its failure.
using ValueReader = int (*)(const Setting& setting, std::string_view value);

// Prints a setting's lines of the dump.
using SettingPrinter = void (*)(FILE* stream, const Setting& setting);

struct Setting {
    std::string_view key; // empty: the file cannot set it
    ValueReader read = nullptr;
    int refused = 0; // the result for a value that is not taken
    // Where it is kept, one of these, or an array that its reader knows. A text's limit is its size.
    std::span<char> text = {};
    unsigned char* byte = nullptr;
    unsigned int* number = nullptr;
    // Its default.
    std::string_view textDefault = {};
    unsigned int numberDefault = 0;
    SettingPrinter show = nullptr;
    const char* label = "";   // what the dump calls it, aligned
    const char* meaning = ""; // one line for the documentation
};

// All of them in the order of the dump.
std::span<const Setting> HttpSettings();

} // namespace rdx

#endif
