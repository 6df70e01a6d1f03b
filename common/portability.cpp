#include "common/portability.h"

#include "common/check.h"
#include "common/log_lines.h"
#include "common/portability_internal.h"
#include "common/shared.h"
#include "common/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>
#include <sys/random.h>
#include <sys/stat.h>

namespace {

constexpr char kSeparator = '/';
constexpr std::string_view kTempDirectory = "/tmp";
constexpr std::string_view kTempTemplate = "tnXXXXXX";
constexpr std::size_t kUniqueCharacters = 6; // at the end of the template

constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr std::size_t kFebruary = 1;

// February's entry stays at 29 once a leap year was seen; every thread of the process shares it.
int daysOfMonths[kMonths.size()] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

constexpr std::int64_t kFirstYear = 1970;
constexpr std::int64_t kDaysBeforeFirstYear = kFirstYear * 365; // leap days counted from there on

// --- comparison -----------------------------------------------------------------------------------------

// The order of two texts of which at least one is null.
int CompareNulls(const char* a, const char* b) {
    if (a == b) return 0;
    return a == nullptr ? -1 : 1;
}

char* MapBytes(char* s, char from, char to, int change) {
    for (char* c = s; c != nullptr && *c != '\0'; ++c) {
        if (*c >= from && *c <= to) *c = static_cast<char>(*c + change);
    }
    return s;
}

// --- names and paths ------------------------------------------------------------------------------------

// Copies a text as far as it fits and tells its whole length.
void GiveText(std::string_view text, char* buffer, int* size) {
    if (*size > 0) rdx::CopyBounded({buffer, static_cast<std::size_t>(*size)}, text);
    *size = static_cast<int>(text.size());
}

// Fills `unique` with random letters and digits. False when the system has no random bytes.
bool MakeUnique(std::span<char> unique) {
    constexpr std::string_view kAlphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::uint64_t random = 0;
    if (getrandom(&random, sizeof random, 0) != sizeof random) return false;
    for (char& c : unique) {
        c = kAlphabet[static_cast<std::size_t>(random % kAlphabet.size())];
        random /= kAlphabet.size();
    }
    return true;
}

enum class Use { kFree, kTaken, kUnknown };

// Whether something has this name; a link that leads nowhere has it, too.
Use UseOf(const char* path) {
    struct stat status;
    if (lstat(path, &status) == 0) return Use::kTaken;
    return errno == ENOENT ? Use::kFree : Use::kUnknown;
}

// Makes one unique name and puts its path into `path`. TempFileName's result.
int MakeTempPath(std::span<char> path) {
    char name[kTempTemplate.size() + 1];
    rdx::CopyBounded(name, kTempTemplate);
    const std::span<char> text(name, kTempTemplate.size());
    return rdx::PlaceTempName(MakeUnique(text.last(kUniqueCharacters)) ? name : "", path);
}

// --- times ----------------------------------------------------------------------------------------------

struct Moment {
    std::string_view month; // a word of the text that was read
    int day, hour, minute, second, year;
};

// Reads a word; false at the end of the text.
bool ReadWord(rdx::Reader& text, std::string_view& word) {
    text.Skip(rdx::kWhiteSpace);
    word = text.TakeBytes(text.Rest().find_first_of(rdx::kWhiteSpace));
    return !word.empty();
}

// Reads a decimal number, saturating at the 32-bit limits; false when there is none.
bool ReadNumber(rdx::Reader& text, int& number) {
    constexpr std::string_view kDigits = "0123456789";
    text.Skip(rdx::kWhiteSpace);
    const std::size_t sign = text.Rest().starts_with('-') || text.Rest().starts_with('+') ? 1 : 0;
    const std::string_view fromDigits = text.Rest().substr(sign);
    const std::size_t digits = std::min(fromDigits.find_first_not_of(kDigits), fromDigits.size());
    number = rdx::ParseDecimal(text.TakeBytes(sign + digits));
    return digits > 0;
}

// Reads a time of the form that Now writes; what follows the year does not matter. Nothing when a field is
// missing.
std::optional<Moment> ReadMoment(std::string_view line) {
    rdx::Reader text(line);
    std::string_view weekday;
    Moment m{};
    if (ReadWord(text, weekday) && ReadWord(text, m.month) && ReadNumber(text, m.day) &&
        ReadNumber(text, m.hour) && text.Take(":") && ReadNumber(text, m.minute) && text.Take(":") &&
        ReadNumber(text, m.second) && ReadNumber(text, m.year)) {
        return m;
    }
    return std::nullopt;
}

// Leap years from `from` up to and without `year`; 0 when there are none.
std::int64_t LeapYears(std::int64_t from, std::int64_t year) {
    const auto before = [](std::int64_t y) { return (y - 1) / 4 - (y - 1) / 100 + (y - 1) / 400; };
    return year > from ? before(year) - before(from) : 0;
}

// Seconds since the first year for a number of days counted from 1 and a time of day; in 64 bits, which no
// field of 32 bits overflows.
std::int64_t SecondsOf(std::int64_t year, std::int64_t dayOfYear, const Moment& time) {
    const std::int64_t days = year * 365 + dayOfYear - kDaysBeforeFirstYear + LeapYears(kFirstYear, year) - 1;
    return ((days * 24 + time.hour) * 60 + time.minute) * 60 + time.second;
}

// The days of the months before `month`, of all twelve when it is not one, and `day`.
int DaysUpTo(int year, std::string_view month, int day) {
    constexpr int kLeapFebruary = 29;
    if (IsLeapYear(year) != 0) rdx::StoreShared(daysOfMonths[kFebruary], kLeapFebruary);
    auto days = static_cast<unsigned>(day); // wraps round where a senseless day overflows
    for (std::size_t i = 0; i < kMonths.size() && !rdx::EqualsIgnoringCase(kMonths[i], month); ++i) {
        days += static_cast<unsigned>(rdx::LoadShared(daysOfMonths[i]));
    }
    return static_cast<int>(days);
}

// A time in words to seconds; nothing when it is not one.
std::optional<std::int64_t> SecondsOf(std::string_view text) {
    const std::optional<Moment> moment = ReadMoment(text);
    if (!moment) return std::nullopt;
    return SecondsOf(moment->year, DaysUpTo(moment->year, moment->month, moment->day), *moment);
}

// The current local time to seconds; nothing when it is unknown.
std::optional<std::int64_t> SecondsOfNow() {
    constexpr std::int64_t kTmFirstYear = 1900;
    const time_t now = time(nullptr);
    tm local;
    if (localtime_r(&now, &local) == nullptr) return std::nullopt;
    const Moment moment{{}, 0, local.tm_hour, local.tm_min, local.tm_sec, 0};
    return SecondsOf(local.tm_year + kTmFirstYear, local.tm_yday + 1, moment);
}

} // namespace

char* strupr(char* s) { return MapBytes(s, 'a', 'z', 'A' - 'a'); }

char* strlwr(char* s) { return MapBytes(s, 'A', 'Z', 'a' - 'A'); }

int stricmp(const char* a, const char* b) {
    if (a == nullptr || b == nullptr) return CompareNulls(a, b);
    while (rdx::UpperByte(*a) == rdx::UpperByte(*b) && *a != '\0') {
        ++a;
        ++b;
    }
    return rdx::UpperByte(*a) - rdx::UpperByte(*b);
}

int strnicmp(const char* a, const char* b, int n) {
    if (a == nullptr || b == nullptr) return CompareNulls(a, b);
    for (int i = 0; i < n; ++i) {
        const int difference = rdx::UpperByte(a[i]) - rdx::UpperByte(b[i]);
        if (difference != 0) return difference;
    }
    return 0;
}

int SplitEnvStr(const char* szEnvStr, char* name, int* nameSize, char* value, int* valueSize) {
    RDX_CHECK(szEnvStr != nullptr, "szEnvStr != __null");
    const std::string_view text(szEnvStr);
    RDX_CHECK(!text.empty(), "len != 0");
    const std::size_t equalSign = text.find('=');
    if (equalSign == std::string_view::npos) {
        rdx::LogPlain("SplitEnvStr()", "missing equal sign in environment string", -1);
        return ENVSTR_NO_EQUAL_SIGN;
    }
    GiveText(text.substr(0, equalSign), name, nameSize);
    GiveText(text.substr(equalSign + 1), value, valueSize);
    return ENVSTR_SPLIT;
}

int MakeAbsolutePathName(const char* szAbsolutePrefix, const char* szRelativeSuffix, char* szBuf,
                         unsigned int uiBufSize) {
    RDX_CHECK(szAbsolutePrefix != nullptr, "szAbsolutePrefix != __null");
    RDX_CHECK(szRelativeSuffix != nullptr, "szRelativeSuffix != __null");
    RDX_CHECK(szBuf != nullptr, "szBuf != __null");
    RDX_CHECK(uiBufSize > 0, "uiBufSize > 0");
    const std::string_view prefix(szAbsolutePrefix);
    std::string_view suffix(szRelativeSuffix);
    if (prefix.size() + suffix.size() + 2 > uiBufSize) return PATHNAME_TOO_LONG;
    if (suffix.starts_with(kSeparator)) suffix.remove_prefix(1);
    rdx::Appender path({szBuf, uiBufSize});
    path.Add(prefix);
    if (!prefix.ends_with(kSeparator)) path.Add(DirSeparator());
    path.Add(suffix);
    std::fill(szBuf + path.Text().size(), szBuf + uiBufSize, '\0'); // the whole buffer is the caller's result
    return PATHNAME_MADE;
}

int IsAbsolutePathName(const char* szPathName) {
    RDX_CHECK(szPathName != nullptr, "szPathName != __null");
    return *szPathName == kSeparator ? 1 : 0;
}

int IsDirSeparator(int c) { return static_cast<unsigned char>(c) == kSeparator ? 1 : 0; }

const char* DirSeparator() { return "/"; }

char* Now(char* buf, unsigned int size) {
    constexpr std::size_t kAscTimeSize = 26; // what asctime_r fills at most
    const time_t now = time(nullptr);
    tm local;
    char text[kAscTimeSize];
    const bool known = localtime_r(&now, &local) != nullptr && asctime_r(&local, text) != nullptr;
    const std::string_view line(known ? text : "");
    const std::size_t most = std::min<std::size_t>(size, kAscTimeSize);
    rdx::CopyBounded({buf, most + 1}, line.substr(0, line.find('\n')));
    return buf;
}

unsigned int SecondsBetween(const char* szEvent, const char* szLater) {
    RDX_CHECK(szEvent != nullptr, "szEvent != __null");
    RDX_CHECK(*szEvent != '\0', "strlen( szEvent ) != 0");
    constexpr auto kNoEvent = static_cast<unsigned>(-1);
    constexpr auto kNoLater = static_cast<unsigned>(-2);
    const std::optional<std::int64_t> event = SecondsOf(szEvent);
    if (!event) return kNoEvent;
    const std::optional<std::int64_t> later = szLater != nullptr ? SecondsOf(szLater) : SecondsOfNow();
    return later ? static_cast<unsigned>(*later - *event) : kNoLater;
}

int DayOfYear(int year, const char* month, int day) {
    return DaysUpTo(year, month != nullptr ? month : "", day);
}

int IsLeapYear(int year) {
    if (year % 4 != 0) return 0;
    return year % 100 != 0 || year % 400 == 0 ? 1 : 0;
}

int TempFileName(char* buf) {
    constexpr int kMostTries = 100; // of the 57 billion names; so many in a row are never taken by chance
    for (int i = 0; i < kMostTries; ++i) {
        char path[TEMP_FILE_NAME_SIZE];
        if (const int result = MakeTempPath(path); result != TEMPNAME_MADE) return result;
        const Use use = UseOf(path);
        if (use == Use::kUnknown) return TEMPNAME_NONE;
        if (use == Use::kTaken) continue;
        rdx::CopyBounded({buf, TEMP_FILE_NAME_SIZE}, path);
        return TEMPNAME_MADE;
    }
    return TEMPNAME_NONE;
}

namespace rdx {

int PlaceTempName(std::string_view name, std::span<char> path) {
    if (name.empty()) return TEMPNAME_NONE;
    if (name[0] == kSeparator && name.find(kSeparator, 1) != std::string_view::npos) {
        return name.size() < path.size() && CopyBounded(path, name) ? TEMPNAME_MADE : TEMPNAME_TOO_LONG;
    }
    Appender whole(path);
    whole.Add(kTempDirectory);
    if (name[0] != kSeparator) whole.Add(DirSeparator());
    whole.Add(name);
    return whole.Fits() ? TEMPNAME_MADE : TEMPNAME_TMP_TOO_LONG;
}

} // namespace rdx
