#include "sim/ini.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <utility>

namespace rdx::sim {

namespace {

constexpr std::string_view kBlanks = " \t\r\v\f";

std::string_view Trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

// What a character behind a backslash stands for.
constexpr std::pair<char, char> kEscapes[] = {
    {'\\', '\\'}, {'"', '"'}, {'n', '\n'}, {'r', '\r'}, {'t', '\t'}};

// Takes one escape, its backslash already taken, off the front of `rest`.
std::optional<char> TakeEscape(std::string_view& rest) {
    if (rest.empty()) return std::nullopt;
    const char letter = rest.front();
    rest.remove_prefix(1);
    if (letter != 'x') {
        const auto* const escape = std::ranges::find(kEscapes, letter, &std::pair<char, char>::first);
        return escape != std::end(kEscapes) ? std::optional(escape->second) : std::nullopt;
    }
    constexpr std::size_t kDigits = 2;
    unsigned char byte = 0;
    const std::string_view digits = rest.substr(0, kDigits);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (error != std::errc{} || digits.size() != kDigits || end != digits.data() + kDigits || byte == 0) {
        return std::nullopt;
    }
    rest.remove_prefix(kDigits);
    return static_cast<char>(byte);
}

// Takes a quoted word, its first quote already taken, off the front of `rest`.
std::optional<Word> TakeQuoted(std::string_view& rest) {
    Word word = {{}, true};
    while (!rest.empty()) {
        const char c = rest.front();
        rest.remove_prefix(1);
        if (c == '"') return word;
        const std::optional<char> meant = c == '\\' ? TakeEscape(rest) : c;
        if (!meant) return std::nullopt;
        word.text += *meant;
    }
    return std::nullopt;
}

Word TakeBare(std::string_view& rest) {
    const std::size_t end = std::min(rest.find_first_of(kBlanks), rest.size());
    Word word = {std::string(rest.substr(0, end)), false};
    rest.remove_prefix(end);
    return word;
}

class Parser {
public:
    void Line(int number, std::string_view line) {
        line = Trimmed(line);
        if (line.empty() || line.front() == '#' || line.front() == ';') return;
        if (line.front() == '[') return Section(number, line);
        const std::size_t equals = line.find('=');
        const std::string_view key = Trimmed(line.substr(0, std::min(equals, line.size())));
        if (equals == std::string_view::npos || key.empty()) {
            Refuse(number, "neither '[section]' nor 'key = value'");
        } else if (!section_) {
            Refuse(number, Join({"'", key, "' stands before the first [section]"}));
        } else if (usable_) {
            ini.entries.push_back({number, *section_, key, Trimmed(line.substr(equals + 1))});
        }
    }

    Ini ini;

private:
    void Section(int number, std::string_view line) {
        section_ = Trimmed(line.substr(1, line.size() - 2));
        usable_ = line.back() == ']';
        if (!usable_) return Refuse(number, "a section's line ends with ']'; its keys are left out");
        ini.entries.push_back({number, *section_, {}, {}});
    }

    void Refuse(int number, std::string message) { ini.errors.push_back({number, std::move(message)}); }

    std::optional<std::string_view> section_;
    bool usable_ = false;
};

} // namespace

Ini ParseIni(std::string_view text) {
    Parser parser;
    for (int number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        parser.Line(number, line);
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return std::move(parser.ini);
}

std::optional<std::vector<Word>> SplitWords(std::string_view value) {
    if (value.find('\0') != std::string_view::npos) return std::nullopt;
    std::vector<Word> words;
    for (value = Trimmed(value); !value.empty(); value = Trimmed(value)) {
        if (value.front() != '"') {
            words.push_back(TakeBare(value));
            continue;
        }
        value.remove_prefix(1);
        std::optional<Word> word = TakeQuoted(value);
        if (!word) return std::nullopt;
        words.push_back(std::move(*word));
    }
    return words;
}

std::optional<Word> ReadText(std::string_view value) {
    if (value.find('\0') != std::string_view::npos) return std::nullopt;
    if (!value.starts_with('"')) return Word{std::string(value), false};
    std::optional<std::vector<Word>> words = SplitWords(value);
    if (!words || words->size() != 1) return std::nullopt;
    return std::move(words->front());
}

std::optional<std::int64_t> ReadNumber(std::string_view value, std::int64_t lowest, std::int64_t highest) {
    const int base = value.starts_with("0x") ? 16 : 10;
    if (base == 16) value.remove_prefix(2);
    if (base == 16 && value.starts_with('-')) return std::nullopt;
    std::int64_t number = 0;
    const char* const last = value.data() + value.size();
    const auto [end, error] = std::from_chars(value.data(), last, number, base);
    if (error != std::errc{} || end != last || number < lowest || number > highest) return std::nullopt;
    return number;
}

std::string Quote(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        const auto* const escape = std::ranges::find(kEscapes, c, &std::pair<char, char>::second);
        const auto byte = static_cast<unsigned char>(c);
        if (escape != std::end(kEscapes)) {
            quoted += '\\';
            quoted += escape->first;
        } else if (byte < ' ' || byte == 0x7f) {
            char hexadecimal[sizeof "\\x7f"];
            std::snprintf(hexadecimal, sizeof hexadecimal, "\\x%02x", byte);
            quoted += hexadecimal;
        } else {
            quoted += c;
        }
    }
    return quoted += '"';
}

std::string Join(std::initializer_list<std::string_view> pieces) {
    std::string whole;
    for (const std::string_view piece : pieces) whole += piece;
    return whole;
}

bool SameIgnoringCase(std::string_view a, std::string_view b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return std::ranges::equal(a, b, {}, lower, lower);
}

} // namespace rdx::sim
