#include "common/text.h"

#include <algorithm>
#include <limits>

namespace rdx {
namespace {

constexpr std::uint64_t kDecimalCeiling = std::uint64_t{1} << 32; // above every 32-bit number

struct Decimal {
    bool negative;
    std::uint64_t magnitude; // at most kDecimalCeiling
};

// The number that the digits at the front make, at most kDecimalCeiling.
std::uint64_t ReadDigits(std::string_view text) {
    std::uint64_t magnitude = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') break;
        magnitude = std::min(magnitude * 10 + static_cast<std::uint64_t>(c - '0'), kDecimalCeiling);
    }
    return magnitude;
}

Decimal ReadDecimal(std::string_view text) {
    Reader reader(text);
    reader.Skip(kWhiteSpace);
    const bool negative = reader.Take("-");
    if (!negative) reader.Take("+");
    return {negative, ReadDigits(reader.Rest())};
}

} // namespace

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && StartsWithIgnoringCase(a, b);
}

bool StartsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(),
                      [](char x, char y) { return UpperByte(x) == UpperByte(y); });
}

std::int32_t ParseDecimal(std::string_view text) {
    const Decimal decimal = ReadDecimal(text);
    const auto magnitude = static_cast<std::int64_t>(decimal.magnitude);
    const std::int64_t number = decimal.negative ? -magnitude : magnitude;
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(
        number, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

std::int32_t ParseLeadingDigits(std::string_view text) {
    constexpr std::uint64_t kMost = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(std::min(ReadDigits(text), kMost));
}

std::uint32_t ParseUnsignedDecimal(std::string_view text) {
    constexpr auto kMost = std::numeric_limits<std::uint32_t>::max();
    const Decimal decimal = ReadDecimal(text);
    if (decimal.magnitude > kMost) return kMost;
    const auto magnitude = static_cast<std::uint32_t>(decimal.magnitude);
    return decimal.negative ? 0U - magnitude : magnitude;
}

bool CopyBounded(std::span<char> buffer, std::string_view text) {
    if (buffer.empty()) return false;
    const std::string_view kept = text.substr(0, buffer.size() - 1);
    *std::copy(kept.begin(), kept.end(), buffer.begin()) = '\0';
    return kept.size() == text.size();
}

Appender::Appender(std::span<char> buffer) : buffer_(buffer), fits_(!buffer.empty()) {
    if (fits_) buffer_[0] = '\0';
}

Appender& Appender::Add(std::string_view text) {
    fits_ = fits_ && text.size() < buffer_.size() - used_;
    if (fits_) {
        CopyBounded(buffer_.subspan(used_), text);
        used_ += text.size();
    }
    return *this;
}

Appender& Appender::AddDecimal(std::int64_t number) {
    char digits[std::numeric_limits<std::int64_t>::digits10 + 3];
    char* const end = digits + sizeof digits;
    char* begin = end;
    // Negative numbers reach further than positive ones, so that every number is turned into one.
    for (std::int64_t rest = number > 0 ? -number : number; rest != 0 || begin == end; rest /= 10) {
        *--begin = static_cast<char>('0' - rest % 10);
    }
    if (number < 0) *--begin = '-';
    return Add({begin, static_cast<std::size_t>(end - begin)});
}

} // namespace rdx
