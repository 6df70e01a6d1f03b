#include "common/portability.h"

#include "common/check.h"
#include "common/log_lines.h"
#include "common/portability_internal.h"
#include "common/shared.h"
#include "common/text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string_view>
#include <sys/random.h>
#include <unistd.h>

namespace {

constexpr char kSeparator = '/';
constexpr std::string_view kTempDirectory = "/tmp";
constexpr std::string_view kTempTemplate = "tnXXXXXX";
constexpr std::size_t kUniqueCharacters = 6; // at the end of the template

constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
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
        c = kAlphabet[random % kAlphabet.size()];
        random /= kAlphabet.size();
    }
    return true;
}

bool Exists(const char* path) { return access(path, F_OK) == 0; }

// --- times ----------------------------------------------------------------------------------------------

struct Moment {
    char month[16];
    int day, hour, minute, second, year;
};

// Reads a time of the form that Now writes. False when a field is missing.
bool ReadMoment(const char* text, Moment& moment) {
    constexpr int kFields = 7;
    char weekday[16];
    return sscanf(text, "%15s %15s %d %d:%d:%d %d", weekday, moment.month, &moment.day, &moment.hour,
                  &moment.minute, &moment.second, &moment.year) == kFields;
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

std::int64_t SecondsOf(const Moment& moment) {
    return SecondsOf(moment.year, DayOfYear(moment.year, moment.month, moment.day), moment);
}

std::int64_t SecondsOfNow() {
    constexpr int kTmFirstYear = 1900;
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    Moment moment{};
    moment.hour = local.tm_hour;
    moment.minute = local.tm_min;
    moment.second = local.tm_sec;
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
        return -1;
    }
    GiveText(text.substr(0, equalSign), name, nameSize);
    GiveText(text.substr(equalSign + 1), value, valueSize);
    return 0;
}

int MakeAbsolutePathName(const char* szAbsolutePrefix, const char* szRelativeSuffix, char* szBuf,
                         unsigned int uiBufSize) {
    RDX_CHECK(szAbsolutePrefix != nullptr, "szAbsolutePrefix != __null");
    RDX_CHECK(szRelativeSuffix != nullptr, "szRelativeSuffix != __null");
    RDX_CHECK(szBuf != nullptr, "szBuf != __null");
    RDX_CHECK(uiBufSize > 0, "uiBufSize > 0");
    const std::string_view prefix(szAbsolutePrefix);
    std::string_view suffix(szRelativeSuffix);
    if (prefix.size() + suffix.size() + 2 > uiBufSize) return -1;
    if (suffix.starts_with(kSeparator)) suffix.remove_prefix(1);
    rdx::Appender path({szBuf, uiBufSize});
    path.Add(prefix);
    if (!prefix.ends_with(kSeparator)) path.Add(DirSeparator());
    path.Add(suffix);
    return 0;
}

int IsAbsolutePathName(const char* szPathName) {
    RDX_CHECK(szPathName != nullptr, "szPathName != __null");
    return *szPathName == kSeparator ? 1 : 0;
}

int IsDirSeparator(int c) { return static_cast<unsigned char>(c) == kSeparator ? 1 : 0; }

const char* DirSeparator() { return "/"; }

char* Now(char* buf, unsigned int size) {
    constexpr std::size_t kAscTimeSize = 64; // asctime_r asks for 26; years beyond 9999 take more
    const time_t now = time(nullptr);
    tm local{};
    char text[kAscTimeSize] = "";
    if (localtime_r(&now, &local) != nullptr) asctime_r(&local, text);
    const std::string_view line(text);
    rdx::CopyBounded({buf, std::size_t{size} + 1}, line.substr(0, line.find('\n')));
    return buf;
}

unsigned int SecondsBetween(const char* szEvent, const char* szLater) {
    RDX_CHECK(szEvent != nullptr, "szEvent != __null");
    RDX_CHECK(*szEvent != '\0', "strlen( szEvent ) != 0");
    constexpr auto kNoEvent = static_cast<unsigned>(-1);
    constexpr auto kNoLater = static_cast<unsigned>(-2);
    Moment event{};
    if (!ReadMoment(szEvent, event)) return kNoEvent;
    const std::int64_t eventSeconds = SecondsOf(event);
    if (szLater == nullptr) return static_cast<unsigned>(SecondsOfNow() - eventSeconds);
    Moment later{};
    if (!ReadMoment(szLater, later)) return kNoLater;
    return static_cast<unsigned>(SecondsOf(later) - eventSeconds);
}

int DayOfYear(int year, const char* month, int day) {
    constexpr int kLeapFebruary = 29;
    if (IsLeapYear(year) != 0) rdx::StoreShared(daysOfMonths[kFebruary], kLeapFebruary);
    unsigned days = static_cast<unsigned>(day); // wraps round where a senseless day overflows
    for (std::size_t i = 0; i < kMonths.size() && stricmp(kMonths[i], month) != 0; ++i) {
        days += static_cast<unsigned>(rdx::LoadShared(daysOfMonths[i]));
    }
    return static_cast<int>(days);
}

int IsLeapYear(int year) {
    if (year % 4 != 0) return 0;
    return year % 100 != 0 || year % 400 == 0 ? 1 : 0;
}

int TempFileName(char* buf) {
    constexpr int kNoName = -1;
    constexpr int kMostTries = 100;
    for (int i = 0; i < kMostTries; ++i) {
        char name[kTempTemplate.size() + 1];
        rdx::CopyBounded(name, kTempTemplate);
        if (!MakeUnique(std::span(name).subspan(kTempTemplate.size() - kUniqueCharacters, kUniqueCharacters)))
            break;
        char path[TEMP_FILE_NAME_SIZE];
        const int placed = rdx::PlaceTempName(name, path);
        if (placed != 0) return placed;
        if (Exists(path)) continue;
        rdx::CopyBounded({buf, TEMP_FILE_NAME_SIZE}, path);
        return 0;
    }
    return kNoName;
}

namespace rdx {

int PlaceTempName(std::string_view name, std::span<char> path) {
    if (name.empty()) return -1;
    if (name[0] == kSeparator && name.find(kSeparator, 1) != std::string_view::npos) {
        return name.size() < path.size() && CopyBounded(path, name) ? 0 : -2;
    }
    Appender whole(path);
    whole.Add(kTempDirectory);
    if (name[0] != kSeparator) whole.Add(DirSeparator());
    whole.Add(name);
    return whole.Fits() ? 0 : -3;
}

} // namespace rdx
