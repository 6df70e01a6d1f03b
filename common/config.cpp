#include "common/config.h"

#include "common/check.h"
#include "common/entity_terminator.h"
#include "common/files.h"
#include "common/http_methods.h"
#include "common/log_lines.h"
#include "common/settings.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "common/text.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <optional>
#include <sched.h>
#include <span>
#include <string_view>

#define TEXT(global, size, standard, ...) char global[size] = standard;
#define BYTE(global, standard, ...) unsigned char global = standard;
#define NUMBER(global, standard, ...) unsigned int global = standard;
#define LIST(...)
#define ELSEWHERE(...)
#include "common/settings.def"
#undef TEXT
#undef BYTE
#undef NUMBER
#undef LIST
#undef ELSEWHERE

int aiMethodsAllowed[CONFIG_METHODS] = {};
char szMorbelRemoteHost[CONFIG_REMOTE_HOST_SIZE] = "";
unsigned char ucRunAsJunior = 0;
char szAuthInfo[CONFIG_CREDENTIALS_SIZE] = "";
char szAdminServerHost[CONFIG_ADMIN_HOST_SIZE] = "";
unsigned int uiAdminServerPort = 0;
int nMaxThreads = 1;
unsigned int g_dwPostMaxSizeToRead = 65536;
unsigned int g_dwPostMaxContLength = 65536;
unsigned int uiReconfigurations = 0;
unsigned char ucReconfigured = 0;
const unsigned int uiBuildNumber = 418;

namespace {

using rdx::Setting;

static_assert(rdx::kHttpMethods.size() == CONFIG_METHODS);

constexpr int kLineBufferSize = 256; // bytes, the NUL included: longer lines are read in pieces

constexpr std::array<const char*, VERBOSITY_ALL + 1> kVerbosityNames = {"VERBOSITY_NONE",  "VERBOSITY_FATAL",
                                                                        "VERBOSITY_ERROR", "VERBOSITY_WARN",
                                                                        "VERBOSITY_LOG",   "VERBOSITY_ALL"};

rdx::SharedChanges terminatorChanges;

// --- reading a value ------------------------------------------------------------------------------------

int ReadText(const Setting& setting, std::string_view value) {
    if (value.size() >= setting.text.size()) return setting.refused;
    rdx::StoreSharedText(setting.text, value);
    return CONFIG_OK;
}

int ReadFlag(const Setting& setting, std::string_view value) {
    rdx::StoreShared(*setting.byte, value == "1" || rdx::EqualsIgnoringCase(value, "true"));
    return CONFIG_OK;
}

// A flag that only a clear no lowers.
int ReadFlagUnlessNo(const Setting& setting, std::string_view value) {
    rdx::StoreShared(*setting.byte, value != "0" && !rdx::EqualsIgnoringCase(value, "false"));
    return CONFIG_OK;
}

int ReadProtocolVersion(const Setting& setting, std::string_view value) {
    rdx::StoreShared(*setting.byte, value == "1.0" ? 10 : 11);
    return CONFIG_OK;
}

int ReadVerbosity(const Setting& setting, std::string_view value) {
    const auto* const name = std::ranges::find_if(
        kVerbosityNames, [&](const char* level) { return rdx::EqualsIgnoringCase(level, value); });
    if (name == kVerbosityNames.end()) return setting.refused;
    rdx::StoreShared(*setting.byte, static_cast<unsigned char>(name - kVerbosityNames.begin()));
    return CONFIG_OK;
}

// Allows the methods of a list; those before an unknown word stay allowed.
int ReadMethods(const Setting& setting, std::string_view value) {
    constexpr std::string_view kSeparators = " \t,";
    for (rdx::Reader words(value);;) {
        words.Skip(kSeparators);
        if (words.AtEnd()) return CONFIG_OK;
        const auto idx = rdx::IndexOfHttpMethod(words.TakeBytes(words.Rest().find_first_of(kSeparators)));
        if (!idx) return setting.refused;
        RDX_CHECK_FOR("int ReadHttpKey(char*)", *idx < 8, "(idx >= 0) && (idx < 8)");
        rdx::StoreShared(aiMethodsAllowed[*idx], 1);
    }
}

// Reads an age in seconds; without one the default is set, and still it is a failure.
int ReadVoltageMaxAge(const Setting& setting, std::string_view value) {
    constexpr std::size_t kMostCharacters = 8;
    if (value.size() > kMostCharacters) return setting.refused;
    const unsigned age = rdx::ParseUnsignedDecimal(value);
    rdx::StoreShared(*setting.number, age != 0 ? age : setting.numberDefault);
    if (age == 0) return HTTPKEY_NO_VOLTAGE_AGE;
    return CONFIG_OK;
}

int Ignore(const Setting& /*setting*/, std::string_view /*value*/) { return CONFIG_OK; }

// --- showing a value ------------------------------------------------------------------------------------

// Settings as they are at this moment: a host may dump them from any thread.
bool IsSet(const unsigned char& flag) { return rdx::LoadShared(flag) != 0; }

const char* YesNo(bool flag) { return flag ? "yes" : "no"; }

void ShowLine(FILE* stream, const Setting& setting, const char* value) {
    fprintf(stream, "\n%s: %s", setting.label, value);
}

// A text setting as it is at this moment, whatever its size.
struct ShownText {
    explicit ShownText(const Setting& setting) {
        for (std::size_t i = 0; i < setting.text.size() && i < sizeof text - 1; ++i) {
            text[i] = rdx::LoadShared(setting.text[i]);
            if (text[i] == '\0') break;
        }
    }

    char text[CONFIG_ADDRESSES_SIZE] = "";
};

void ShowText(FILE* stream, const Setting& setting) { ShowLine(stream, setting, ShownText(setting).text); }

void ShowTextIfAny(FILE* stream, const Setting& setting) {
    const ShownText shown(setting);
    if (shown.text[0] != '\0') ShowLine(stream, setting, shown.text);
}

void ShowFlag(FILE* stream, const Setting& setting) {
    ShowLine(stream, setting, YesNo(IsSet(*setting.byte)));
}

void ShowFlagIfSet(FILE* stream, const Setting& setting) {
    if (IsSet(*setting.byte)) ShowLine(stream, setting, YesNo(true));
}

void ShowLevel(FILE* stream, const Setting& setting) {
    const std::size_t level = rdx::LoadShared(*setting.byte);
    ShowLine(stream, setting, kVerbosityNames[std::min<std::size_t>(level, VERBOSITY_ALL)]);
}

void ShowVersion(FILE* stream, const Setting& setting) {
    ShowLine(stream, setting, rdx::LoadShared(*setting.byte) == 10 ? "1.0" : "1.1");
}

void ShowIfAuthRequired(FILE* stream, const Setting& setting) {
    if (IsSet(ucAuthRequired)) ShowText(stream, setting);
}

void ShowMethods(FILE* stream, const Setting& setting) {
    ShowLine(stream, setting, "");
    for (std::size_t i = 0; i < rdx::kHttpMethods.size(); ++i) {
        if (!rdx::AllowsHttpMethod(rdx::LoadShared(aiMethodsAllowed[i]))) continue;
        fprintf(stream, "%s ", rdx::kHttpMethods[i]);
    }
}

void ShowVoltageMaxAge(FILE* stream, const Setting& setting) {
    if (rdx::LoadShared(szConfigVoltageFile[0]) == '\0') return;
    fprintf(stream, "\n%s: %d", setting.label, static_cast<int>(rdx::LoadShared(*setting.number)));
}

// Both settings of the terminator, so that they belong together.
void ShowTerminator(FILE* stream, const Setting& setting);

void ShowNothing(FILE* /*stream*/, const Setting& /*setting*/) {}

// --- the keys -------------------------------------------------------------------------------------------

constexpr Setting kHttpSettings[] = {
#define TEXT(global, size, standard, name, code, printer, title, explanation)                                \
    {.key = name,                                                                                            \
     .read = ReadText,                                                                                       \
     .refused = code,                                                                                        \
     .text = global,                                                                                         \
     .textDefault = standard,                                                                                \
     .show = printer,                                                                                        \
     .label = title,                                                                                         \
     .meaning = explanation},
#define BYTE(global, standard, name, reader, code, printer, title, explanation)                              \
    {.key = name,                                                                                            \
     .read = reader,                                                                                         \
     .refused = code,                                                                                        \
     .byte = &global,                                                                                        \
     .numberDefault = standard,                                                                              \
     .show = printer,                                                                                        \
     .label = title,                                                                                         \
     .meaning = explanation},
#define NUMBER(global, standard, name, reader, code, printer, title, explanation)                            \
    {.key = name,                                                                                            \
     .read = reader,                                                                                         \
     .refused = code,                                                                                        \
     .number = &global,                                                                                      \
     .numberDefault = standard,                                                                              \
     .show = printer,                                                                                        \
     .label = title,                                                                                         \
     .meaning = explanation},
#define LIST(name, reader, code, printer, title, explanation)                                                \
    {.key = name, .read = reader, .refused = code, .show = printer, .label = title, .meaning = explanation},
#define ELSEWHERE BYTE
#include "common/settings.def"
#undef TEXT
#undef BYTE
#undef NUMBER
#undef LIST
#undef ELSEWHERE
};

constexpr Setting kRpcSettings[] = {
    {.key = "VoltageFile",
     .read = ReadText,
     .refused = RPCKEY_VOLTAGE_FILE_TOO_LONG,
     .text = szConfigVoltageFile},
    {.key = "VoltageFromCar", .read = ReadFlagUnlessNo, .byte = &ucVoltageFromCar},
};

constexpr Setting kTcpSettings[] = {
    {.key = "RemoteHost",
     .read = ReadText,
     .refused = TCPKEY_REMOTE_HOST_TOO_LONG,
     .text = szMorbelRemoteHost},
    {.key = "Port", .read = Ignore},
    {.key = "TimeoutConnect", .read = Ignore},
    {.key = "TimeoutReceive", .read = Ignore},
    {.key = "TimeoutFunction", .read = Ignore},
};

// A line belongs to the first key that it begins with, so that each must stand before those it begins with
// itself; otherwise the order has no effect.
constexpr bool EachKeyIsReached(std::span<const Setting> settings) {
    for (auto setting = settings.begin(); setting != settings.end(); ++setting) {
        for (auto earlier = settings.begin(); earlier != setting; ++earlier) {
            const std::string_view beginning = setting->key.substr(0, earlier->key.size());
            if (!earlier->key.empty() &&
                std::ranges::equal(beginning, earlier->key, {}, rdx::UpperByte, rdx::UpperByte))
                return false;
        }
    }
    return true;
}
static_assert(EachKeyIsReached(kHttpSettings) && EachKeyIsReached(kRpcSettings) &&
              EachKeyIsReached(kTcpSettings));

constexpr bool FitsShownText(std::span<const Setting> settings) {
    return std::ranges::all_of(settings, [](const Setting& s) { return s.text.size() <= sizeof(ShownText); });
}
static_assert(FitsShownText(kHttpSettings));

struct Section {
    std::string_view name;
    std::span<const Setting> settings;
    int (*readKey)(char* line);
};
constexpr Section kSections[] = {
    {"HTTP", kHttpSettings, ReadHttpKey},
    {"RPC", kRpcSettings, ReadRpcKey},
    {"TCP", kTcpSettings, ReadTcpKey},
};

const Setting* FindKey(std::span<const Setting> settings, std::string_view line) {
    const auto found = std::ranges::find_if(settings, [&](const Setting& setting) {
        return !setting.key.empty() && rdx::StartsWithIgnoringCase(line, setting.key);
    });
    return found != settings.end() ? &*found : nullptr;
}

// What stands behind the first '=' of a line and the white space there; nothing without one.
std::optional<std::string_view> ValueOf(std::string_view line) {
    const std::size_t equalSign = line.find('=');
    if (equalSign == std::string_view::npos) return std::nullopt;
    rdx::Reader value(line.substr(equalSign + 1));
    value.Skip(rdx::kWhiteSpace);
    return value.Rest();
}

// The common frame of the key readers; the two results are theirs for a bad line.
int ReadKey(std::span<const Setting> settings, const char* text, int noEqualSign, int unknownKey) {
    const std::string_view line(text != nullptr ? text : "");
    const auto value = ValueOf(line);
    if (!value) return noEqualSign;
    const Setting* const setting = FindKey(settings, line);
    return setting != nullptr ? setting->read(*setting, *value) : unknownKey;
}

// --- the file -------------------------------------------------------------------------------------------

// The settings of the terminator as a file gives them. They take effect together, when all of it was read:
// threads in service use them at once.
class TerminatorLines {
public:
    // As they are, for a file that names but one of them.
    TerminatorLines() {
        const rdx::EntityTerminator now = rdx::LoadEntityTerminator();
        used_ = now.used;
        rdx::CopyBounded(text_, now.text.View());
    }

    static bool Has(const Setting& setting) {
        return setting.byte == &ucEntityTerminator || setting.text.data() == szEntityTerminator;
    }

    // Reads a line of one of them; the key reader's result.
    int Read(const Setting& setting, std::string_view line) {
        const auto value = ValueOf(line);
        if (!value) return HTTPKEY_BAD_LINE;
        any_ = true;
        Setting own = setting;
        own.byte = &used_;
        own.text = text_;
        return own.read(own, *value);
    }

    // A file that names neither leaves both to whoever has changed them meanwhile.
    void TakeEffect() const {
        if (any_) rdx::StoreEntityTerminator(used_ != 0, text_);
    }

private:
    bool any_ = false;
    unsigned char used_;
    char text_[CONFIG_TERMINATOR_SIZE];
};

// One section of a file as its lines come.
class SectionReader {
public:
    SectionReader(const Section& section, std::string_view name) : section_(section), name_(name) {}

    // 0, or the key reader's result for a bad line.
    int Read(char* line) {
        TrimLine(line);
        const std::string_view text(line);
        if (text.empty() || text[0] == ';' || text[0] == '#') return CONFIG_OK;
        if (text[0] == '[' && text.find(name_, 1) != std::string_view::npos) {
            inSection_ = true;
            return CONFIG_OK;
        }
        if (!inSection_) return CONFIG_OK;
        const Setting* const setting = FindKey(section_.settings, text);
        // An unknown key ends the section as another section's header does: files are divided by both.
        inSection_ = setting != nullptr;
        if (setting == nullptr) return CONFIG_OK;
        return TerminatorLines::Has(*setting) ? terminator_.Read(*setting, text) : section_.readKey(line);
    }

    void Finish() const { terminator_.TakeEffect(); }

private:
    const Section& section_;
    std::string_view name_;
    bool inSection_ = false;
    TerminatorLines terminator_;
};

void SetDefault(const Setting& setting) {
    if (!setting.text.empty()) rdx::StoreSharedText(setting.text, setting.textDefault);
    if (setting.byte != nullptr) {
        rdx::StoreShared(*setting.byte, static_cast<unsigned char>(setting.numberDefault));
    }
    if (setting.number != nullptr) rdx::StoreShared(*setting.number, setting.numberDefault);
}

void ShowTerminator(FILE* stream, const Setting& setting) {
    const rdx::EntityTerminator terminator = rdx::LoadEntityTerminator();
    ShowLine(stream, setting, YesNo(terminator.used));
    const auto* const text = std::ranges::find(kHttpSettings, std::string_view("EOTString"), &Setting::key);
    if (terminator.used) ShowLine(stream, *text, terminator.text.c_str());
}

} // namespace

namespace rdx {

std::span<const Setting> HttpSettings() { return kHttpSettings; }

EntityTerminator LoadEntityTerminator() {
    for (;;) {
        const unsigned begun = terminatorChanges.Begin();
        const EntityTerminator terminator = {IsSet(ucEntityTerminator), SharedText(szEntityTerminator)};
        if (terminatorChanges.Unchanged(begun)) return terminator;
        sched_yield();
    }
}

void StoreEntityTerminator(bool used, std::string_view text) {
    // A handler that read a file on this very thread would wait for the change to be finished.
    const CaughtSignalsBlocked whileChanging;
    terminatorChanges.Start();
    if (!used) StoreShared(ucEntityTerminator, 0);
    StoreSharedText(szEntityTerminator, text);
    if (used) StoreShared(ucEntityTerminator, 1);
    terminatorChanges.Finish();
}

} // namespace rdx

void SetDefaultConfig() {
    for (const Setting& setting : kHttpSettings) {
        if (setting.byte != &ucLocalAccessAllowed && !TerminatorLines::Has(setting)) SetDefault(setting);
    }
    rdx::StoreEntityTerminator(false, "");
    for (int& allowed : aiMethodsAllowed) rdx::StoreShared(allowed, 0);
    rdx::StoreSharedText(szMorbelRemoteHost, "");
    rdx::StoreShared(ucRunAsJunior, 0);
}

int ReadIniFile(const char* szPath, const char* szSection) {
    RDX_CHECK(szPath != nullptr, "szPath != __null");
    RDX_CHECK(szSection != nullptr, "szSection != __null");
    if (*szPath == '\0') return CONFIG_NO_PATH;
    if (*szSection == '\0') return CONFIG_NO_SECTION;
    const auto* const section = std::ranges::find_if(
        kSections, [&](const Section& s) { return rdx::EqualsIgnoringCase(s.name, szSection); });
    if (section == std::end(kSections)) return CONFIG_UNKNOWN_SECTION;
    RDX_CHECK(section->readKey != nullptr, "pfiReadKey != __null");
    RDX_CHECK(!section->settings.empty(), "nKeys > 0");
    const rdx::OwnedFile file(fopen(szPath, "r"));
    if (!file) return CONFIG_NOT_OPENED;
    SectionReader reader(*section, szSection);
    char line[kLineBufferSize];
    int result = CONFIG_OK;
    while (result == CONFIG_OK && fgets(line, sizeof line, file.get()) != nullptr) result = reader.Read(line);
    reader.Finish();
    if (result != CONFIG_OK) return result;
    return feof(file.get()) != 0 ? CONFIG_OK : CONFIG_NOT_READ;
}

int ReadHttpKey(char* line) { return ReadKey(kHttpSettings, line, HTTPKEY_BAD_LINE, HTTPKEY_BAD_LINE); }

int ReadRpcKey(char* line) { return ReadKey(kRpcSettings, line, RPCKEY_NO_VALUE, RPCKEY_UNKNOWN); }

int ReadTcpKey(char* line) { return ReadKey(kTcpSettings, line, TCPKEY_NO_VALUE, CONFIG_OK); }

void TrimLine(char* line) {
    if (line == nullptr) return;
    const std::string_view text(line);
    const std::size_t begin = text.find_first_not_of(rdx::kWhiteSpace);
    if (begin == std::string_view::npos) {
        *line = '\0';
        return;
    }
    const std::size_t length = text.find_last_not_of(rdx::kWhiteSpace) + 1 - begin;
    std::memmove(line, line + begin, length);
    line[length] = '\0';
}

int Reconfig(const char* szPath) {
    if (ReadIniFile(szPath, "HTTP") != CONFIG_OK) return RECONFIG_FAILED;
    rdx::AddShared(uiReconfigurations, 1);
    rdx::StoreShared(ucReconfigured, 1);
    return 0;
}

int DumpConfiguration(FILE* stream) {
    const int semaphore = SemaGetValue(SEMA_CIPLIB);
    if (!rdx::VerbosityAbove(VERBOSITY_NONE)) return 0;
    FILE* const out = stream != nullptr ? stream : StdOut;
    fprintf(out, "\n");
    printf("\nDumpConfiguration+");
    fprintf(out, "\n Reconfiguration counter: %d", static_cast<int>(rdx::LoadShared(uiReconfigurations)));
    fprintf(out, "\n  Tavrin build number: %d", static_cast<int>(uiBuildNumber));
    fprintf(out, "\n    Tavrin build date: %s, %s", __DATE__, __TIME__);
    for (const Setting& setting : kHttpSettings) setting.show(out, setting);
    fprintf(out, "\n    Value of SEMA_CIPLIB: %d", semaphore);
    fprintf(out, "\n");
    fflush(out);
    printf("DumpConfiguration-\n");
    return 0;
}
