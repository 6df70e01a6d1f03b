// Bounded reading and writing of bytes.
//
// Text from outside is bytes: it may hold NULs and is never trusted to end. Everything that walks over
// received bytes or fills a fixed buffer does it through the views and the two classes here.
#ifndef RDX_COMMON_TEXT_H
#define RDX_COMMON_TEXT_H

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace rdx {

// ASCII case mapping, whatever locale the process has set.
constexpr unsigned char UpperByte(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 'a' && byte <= 'z' ? static_cast<unsigned char>(byte - 'a' + 'A') : byte;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b);
bool StartsWithIgnoringCase(std::string_view text, std::string_view prefix);

// The white space of the "C" locale's isspace.
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

// The leading decimal number of `text`: white space, a sign, digits; anything else ends it, and no
// digits read as 0. Saturates at the 32-bit limits, as a 32-bit device's conversions do.
std::int32_t ParseDecimal(std::string_view text);

// The number that the digits at the front of `text` make, 0 without any: no white space and no sign.
// Saturates as well.
std::int32_t ParseLeadingDigits(std::string_view text);

// The same as ParseDecimal for an unsigned number. A minus sign negates modulo 2^32, as strtoul does.
std::uint32_t ParseUnsignedDecimal(std::string_view text);

// The part of `text` before its first NUL: what a C function would see of it.
constexpr std::string_view UpToNul(std::string_view text) { return text.substr(0, text.find('\0')); }

// A cursor over bytes that never leaves them.
class Reader {
public:
    explicit constexpr Reader(std::string_view text) : rest_(text) {}

    constexpr std::string_view Rest() const { return rest_; }
    constexpr bool AtEnd() const { return rest_.empty(); }

    // Skips every leading byte that is in `set`.
    constexpr void Skip(std::string_view set) {
        const std::size_t end = rest_.find_first_not_of(set);
        rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end);
    }

    // The bytes up to the first byte of `set`, which is left unread. No such byte: nothing, nothing read.
    constexpr std::optional<std::string_view> TakeUntil(std::string_view set) {
        return TakeTo(rest_.find_first_of(set));
    }

    // The bytes up to the first occurrence of `text`, which is left unread. None: nothing, nothing read.
    constexpr std::optional<std::string_view> TakeUntilText(std::string_view text) {
        return TakeTo(rest_.find(text));
    }

    // Reads `text` if it comes next.
    constexpr bool Take(std::string_view text) {
        if (!rest_.starts_with(text)) return false;
        rest_.remove_prefix(text.size());
        return true;
    }

    // Reads at most `count` bytes.
    constexpr std::string_view TakeBytes(std::size_t count) {
        const std::string_view taken = rest_.substr(0, count);
        rest_.remove_prefix(taken.size());
        return taken;
    }

private:
    constexpr std::optional<std::string_view> TakeTo(std::size_t end) {
        if (end == std::string_view::npos) return std::nullopt;
        return TakeBytes(end);
    }

    std::string_view rest_;
};

// Copies `text` into `buffer` as strncpy and a forced NUL would leave a C string: cut to the buffer's
// size minus 1 and terminated. True when the text fits whole. An empty buffer receives nothing.
bool CopyBounded(std::span<char> buffer, std::string_view text);

// Fills a fixed buffer piece by piece, always NUL-terminated; a piece that does not fit is refused whole
// and every later piece with it.
class Appender {
public:
    explicit Appender(std::span<char> buffer);

    Appender& Add(std::string_view text);
    Appender& AddDecimal(std::int64_t number);

    bool Fits() const { return fits_; }
    std::string_view Text() const { return {buffer_.data(), used_}; }

private:
    std::span<char> buffer_;
    std::size_t used_ = 0;
    bool fits_;
};

} // namespace rdx

#endif
