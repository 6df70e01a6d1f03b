// The line format of the scenario and of the state file.
//
//     # a comment, as is a line with ';'
//     [section]
//     key = a bare value, up to the end of the line
//     key = "a quoted one; \" \\ \n \r \t and \x1b as in C"
#ifndef RDX_SIM_INI_H
#define RDX_SIM_INI_H

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rdx::sim {

// A "key = value" line, or a section's own line, which has no key. The texts are those of the file, without
// the white space around them.
struct IniEntry {
    int line;
    std::string_view section;
    std::string_view key;
    std::string_view value;
};

struct IniError {
    int line;
    std::string message;
};

struct Ini {
    std::vector<IniEntry> entries;
    std::vector<IniError> errors; // lines that are neither
};

// Everything in `text`, which the entries go on pointing into.
Ini ParseIni(std::string_view text);

struct Word {
    std::string text;
    bool quoted;

    bool Is(std::string_view bare) const { return !quoted && text == bare; }
};

// The value as words, quoted or separated by white space. Nothing when a quoted word is malformed or a NUL is
// in it.
std::optional<std::vector<Word>> SplitWords(std::string_view value);

// The value as one text: quoted, or bare and then all of it.
std::optional<Word> ReadText(std::string_view value);

// The value as a number, decimal or hexadecimal with "0x", that lies between the limits.
std::optional<std::int64_t> ReadNumber(std::string_view value, std::int64_t lowest, std::int64_t highest);

// The text as a quoted word that reads back as the same bytes.
std::string Quote(std::string_view text);

// The pieces one behind the other.
std::string Join(std::initializer_list<std::string_view> pieces);

bool SameIgnoringCase(std::string_view a, std::string_view b);

} // namespace rdx::sim

#endif
