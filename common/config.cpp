#include "common/config.h"

#include "common/check.h"
#include "common/http_methods.h"
#include "common/shared.h"
#include "common/text.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <memory>
#include <span>
#include <string_view>

char szClientAddresses[CONFIG_ADDRESSES_SIZE] = "127.0.0.1";
unsigned char ucProtocolVersion = 11;
unsigned char ucEntityTerminator = 0;
char szEntityTerminator[CONFIG_TERMINATOR_SIZE] = "";
unsigned char ucAuthRequired = 0;
char szConfigAuthInfo[CONFIG_AUTH_INFO_SIZE] = "";
char szConfigAuthRealm[CONFIG_AUTH_REALM_SIZE] = "Tavrin";
char szConfigSvcPort[CONFIG_PORT_SIZE] = "www";
char szConfigSvcAddr[CONFIG_ADDRESS_SIZE] = "127.0.0.1";
int aiMethodsAllowed[CONFIG_METHODS] = {};
char szConfigLogfile[CONFIG_PATH_SIZE] = "";
unsigned char ucSupportNetscapeVM = 0;
char szConfigVoltageFile[CONFIG_PATH_SIZE] = "";
unsigned int uiVoltageMaxAge = 120;
unsigned char ucVoltageFromCar = 0;
unsigned char ucLocalAccessAllowed = 0;
char szMorbelRemoteHost[CONFIG_REMOTE_HOST_SIZE] = "";
unsigned char ucSemaProtection = 0;
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

static_assert(rdx::kMethodNames.size() == CONFIG_METHODS);

constexpr unsigned kDefaultVoltageMaxAge = 120; // seconds
constexpr int kLineBufferSize = 256;            // bytes, the NUL included: longer lines are read in pieces

constexpr std::array<const char*, VERBOSITY_ALL + 1> kVerbosityNames = {"VERBOSITY_NONE",  "VERBOSITY_FATAL",
                                                                        "VERBOSITY_ERROR", "VERBOSITY_WARN",
                                                                        "VERBOSITY_LOG",   "VERBOSITY_ALL"};

// --- values ---------------------------------------------------------------------------------------------

// Where a key's value goes and the failure when it is refused: each reader uses what it needs. The limit of a
// text is its setting's size.
struct Target {
    std::span<char> text = {};
    unsigned char* flag = nullptr;
    int refused = 0;
};

// Reads a value into its target: 0 or the failure.
using ValueReader = int (*)(const Target& target, std::string_view value);

int ReadText(const Target& target, std::string_view value) {
    if (value.size() >= target.text.size()) return target.refused;
    rdx::StoreSharedText(target.text, value);
    return 0;
}

int ReadFlag(const Target& target, std::string_view value) {
    rdx::StoreShared<unsigned char>(*target.flag, value == "1" || rdx::EqualsIgnoringCase(value, "true"));
    return 0;
}

// A flag that only a clear no lowers.
int ReadFlagUnlessNo(const Target& target, std::string_view value) {
    rdx::StoreShared<unsigned char>(*target.flag, value != "0" && !rdx::EqualsIgnoringCase(value, "false"));
    return 0;
}

int ReadProtocolVersion(const Target& target, std::string_view value) {
    rdx::StoreShared<unsigned char>(*target.flag, value == "1.0" ? 10 : 11);
    return 0;
}

int ReadVerbosity(const Target& target, std::string_view value) {
    const auto* const name = std::ranges::find_if(
        kVerbosityNames, [&](const char* level) { return rdx::EqualsIgnoringCase(level, value); });
    if (name == kVerbosityNames.end()) return target.refused;
    rdx::StoreShared(*target.flag, static_cast<unsigned char>(name - kVerbosityNames.begin()));
    return 0;
}

// Allows the methods of a list; those before an unknown word stay allowed.
int ReadMethods(const Target& target, std::string_view value) {
    constexpr std::string_view kSeparators = " \t,";
    for (rdx::Reader words(value);;) {
        words.Skip(kSeparators);
        if (words.AtEnd()) return 0;
        const std::string_view word = words.TakeBytes(words.Rest().find_first_of(kSeparators));
        const auto* const name = std::ranges::find_if(
            rdx::kMethodNames, [&](const char* method) { return rdx::EqualsIgnoringCase(method, word); });
        if (name == rdx::kMethodNames.end()) return target.refused;
        const auto idx = name - rdx::kMethodNames.begin();
        RDX_CHECK((idx >= 0) && (idx < 8), "(idx >= 0) && (idx < 8)");
        rdx::StoreShared(aiMethodsAllowed[idx], 1);
    }
}

// Reads an age in seconds; without one the default is set, and still it is a failure.
int ReadVoltageMaxAge(const Target& target, std::string_view value) {
    constexpr std::size_t kMostCharacters = 8;
    constexpr int kZero = -11;
    if (value.size() > kMostCharacters) return target.refused;
    const unsigned age = rdx::ParseUnsignedDecimal(value);
    rdx::StoreShared(uiVoltageMaxAge, age != 0 ? age : kDefaultVoltageMaxAge);
    return age != 0 ? 0 : kZero;
}

int Ignore(const Target& /*target*/, std::string_view /*value*/) { return 0; }

// --- keys -----------------------------------------------------------------------------------------------

struct Key {
    std::string_view name;
    ValueReader read;
    Target target;
    bool relies = false; // on another key: in a file it is switched on when all of it has been read
};

// A line belongs to the first key that it begins with, so that each must stand before those it begins with
// itself; otherwise the order has no effect.
constexpr bool EachKeyIsReached(std::span<const Key> keys) {
    for (auto key = keys.begin(); key != keys.end(); ++key) {
        for (auto earlier = keys.begin(); earlier != key; ++earlier) {
            const std::string_view beginning = key->name.substr(0, earlier->name.size());
            if (std::ranges::equal(beginning, earlier->name, {}, rdx::UpperByte, rdx::UpperByte))
                return false;
        }
    }
    return true;
}

constexpr Key kHttpKeys[] = {
    {"ClientsAccepted", ReadText, {.text = szClientAddresses, .refused = -2}},
    {"ProtocolVersion", ReadProtocolVersion, {.flag = &ucProtocolVersion}},
    {"SendEOT", ReadFlag, {.flag = &ucEntityTerminator}, true}, // on EOTString
    {"EOTString", ReadText, {.text = szEntityTerminator, .refused = -3}},
    {"AuthRequired", ReadFlag, {.flag = &ucAuthRequired}},
    {"AuthInfo", ReadText, {.text = szConfigAuthInfo, .refused = -4}},
    {"AuthRealm", ReadText, {.text = szConfigAuthRealm, .refused = -5}},
    {"ServicePort", ReadText, {.text = szConfigSvcPort, .refused = -6}},
    {"ServiceAddr", ReadText, {.text = szConfigSvcAddr, .refused = -6}},
    {"MethodsAllowed", ReadMethods, {.refused = -7}},
    {"Verbosity", ReadVerbosity, {.flag = &ucVerbosity, .refused = -1}},
    {"SupportNetscapeVM", ReadFlag, {.flag = &ucSupportNetscapeVM}},
    {"Logfile", ReadText, {.text = szConfigLogfile, .refused = -8}},
    {"VoltageFile", ReadText, {.text = szConfigVoltageFile, .refused = -9}},
    {"VoltageMaxAge", ReadVoltageMaxAge, {.refused = -10}},
    {"VoltageFromCar", ReadFlagUnlessNo, {.flag = &ucVoltageFromCar}},
    {"LocalAccessAllowed", ReadFlag, {.flag = &ucLocalAccessAllowed}},
};
static_assert(std::size(kHttpKeys) == 17 && EachKeyIsReached(kHttpKeys));

constexpr Key kRpcKeys[] = {
    {"VoltageFile", ReadText, {.text = szConfigVoltageFile, .refused = -3}},
    {"VoltageFromCar", ReadFlagUnlessNo, {.flag = &ucVoltageFromCar}},
};
static_assert(EachKeyIsReached(kRpcKeys));

constexpr Key kTcpKeys[] = {
    {"RemoteHost", ReadText, {.text = szMorbelRemoteHost, .refused = -3}},
    {"Port", Ignore, {}},
    {"TimeoutConnect", Ignore, {}},
    {"TimeoutReceive", Ignore, {}},
    {"TimeoutFunction", Ignore, {}},
};
static_assert(EachKeyIsReached(kTcpKeys));

struct Section {
    std::string_view name;
    std::span<const Key> keys;
    int (*readKey)(char* line);
};
constexpr Section kSections[] = {
    {"HTTP", kHttpKeys, ReadHttpKey},
    {"RPC", kRpcKeys, ReadRpcKey},
    {"TCP", kTcpKeys, ReadTcpKey},
};

const Key* FindKey(std::span<const Key> keys, std::string_view line) {
    const auto key =
        std::ranges::find_if(keys, [&](const Key& k) { return rdx::StartsWithIgnoringCase(line, k.name); });
    return key != keys.end() ? &*key : nullptr;
}

// The common frame of the key readers; the two results are theirs for a bad line.
int ReadKey(std::span<const Key> keys, const char* text, int noEqualSign, int unknownKey) {
    const std::string_view line(text != nullptr ? text : "");
    const std::size_t equalSign = line.find('=');
    if (equalSign == std::string_view::npos) return noEqualSign;
    rdx::Reader value(line.substr(equalSign + 1));
    value.Skip(rdx::kWhiteSpace);
    const Key* const key = FindKey(keys, line);
    return key != nullptr ? key->read(key->target, value.Rest()) : unknownKey;
}

// --- the file -------------------------------------------------------------------------------------------

// One section of a file as its lines come.
class SectionReader {
public:
    SectionReader(const Section& section, std::string_view name) : section_(section), name_(name) {}

    // 0, or the key reader's result for a bad line.
    int Read(char* line) {
        TrimLine(line);
        const std::string_view text(line);
        if (text.empty() || text[0] == ';' || text[0] == '#') return 0;
        if (text[0] == '[' && text.find(name_, 1) != std::string_view::npos) {
            inSection_ = true;
            return 0;
        }
        if (!inSection_) return 0;
        const Key* const key = FindKey(section_.keys, text);
        if (key != nullptr) return key->relies ? Defer(line) : section_.readKey(line);
        inSection_ = false; // kept: an unknown key ends the section just as another header does
        return 0;
    }

    // Reads what relies on other keys, which threads in service may use at once.
    void Finish() {
        if (*deferred_ != '\0') section_.readKey(deferred_);
    }

private:
    // A line that fails does so in its place.
    int Defer(char* line) {
        if (std::strchr(line, '=') == nullptr) return section_.readKey(line);
        rdx::CopyBounded(deferred_, line);
        return 0;
    }

    const Section& section_;
    std::string_view name_;
    bool inSection_ = false;
    char deferred_[kLineBufferSize] = ""; // the last line of a key that relies on others
};

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};

// --- the dump -------------------------------------------------------------------------------------------

// Settings as they are at this moment: a host may dump them from any thread.
template <typename T>
bool IsSet(const T& flag) {
    return rdx::LoadShared(flag) != 0;
}

const char* YesNo(bool flag) { return flag ? "yes" : "no"; }

void DumpAuthentication(FILE* stream) {
    const bool required = IsSet(ucAuthRequired);
    fprintf(stream, "\n Authentication required: %s", YesNo(required));
    if (!required) return;
    fprintf(stream, "\n     Authentication info: %s", rdx::SharedText(szConfigAuthInfo).c_str());
    fprintf(stream, "\n    Authentication realm: %s", rdx::SharedText(szConfigAuthRealm).c_str());
}

void DumpHttp(FILE* stream) {
    fprintf(stream, "\n  Valid client addresses: %s", rdx::SharedText(szClientAddresses).c_str());
    fprintf(stream, "\n    Local access allowed: %s", YesNo(IsSet(ucLocalAccessAllowed)));
    fprintf(stream, "\n   HTTP protocol version: %s",
            rdx::LoadShared(ucProtocolVersion) == 10 ? "1.0" : "1.1");
    fprintf(stream, "\n            Service port: %s", rdx::SharedText(szConfigSvcPort).c_str());
    fprintf(stream, "\n         Service address: %s", rdx::SharedText(szConfigSvcAddr).c_str());
    const bool terminated = IsSet(ucEntityTerminator);
    fprintf(stream, "\n  Entity terminator used: %s", YesNo(terminated));
    if (terminated) {
        fprintf(stream, "\nEntity terminator string: %s", rdx::SharedText(szEntityTerminator).c_str());
    }
    DumpAuthentication(stream);
    fprintf(stream, "\n    HTTP methods allowed: ");
    for (std::size_t i = 0; i < rdx::kMethodNames.size(); ++i) {
        if (IsSet(aiMethodsAllowed[i])) fprintf(stream, "%s ", rdx::kMethodNames[i]);
    }
}

void DumpFilesAndFlags(FILE* stream) {
    fprintf(stream, "\n    Semaphore protection: %s", YesNo(IsSet(ucSemaProtection)));
    const rdx::SharedText logfile(szConfigLogfile);
    if (!logfile.View().empty()) fprintf(stream, "\n                Log file: %s", logfile.c_str());
    const rdx::SharedText voltageFile(szConfigVoltageFile);
    if (!voltageFile.View().empty()) {
        fprintf(stream, "\n            Voltage file: %s", voltageFile.c_str());
        fprintf(stream, "\n  Voltage max. age (sec): %d", static_cast<int>(rdx::LoadShared(uiVoltageMaxAge)));
    }
    if (IsSet(ucVoltageFromCar)) fprintf(stream, "\n    Try voltage from Car: %s", YesNo(true));
    fprintf(stream, "\n Allow Netscape JVM POST: %s", YesNo(IsSet(ucSupportNetscapeVM)));
}

} // namespace

void SetDefaultConfig() {
    rdx::StoreSharedText(szClientAddresses, "127.0.0.1");
    rdx::StoreShared<unsigned char>(ucProtocolVersion, 11);
    rdx::StoreShared<unsigned char>(ucEntityTerminator, 0);
    rdx::StoreSharedText(szEntityTerminator, "");
    rdx::StoreShared<unsigned char>(ucAuthRequired, 0);
    rdx::StoreSharedText(szConfigAuthInfo, "");
    rdx::StoreSharedText(szConfigAuthRealm, "Tavrin");
    rdx::StoreSharedText(szConfigSvcPort, "www");
    rdx::StoreSharedText(szConfigSvcAddr, "127.0.0.1");
    for (int& allowed : aiMethodsAllowed) rdx::StoreShared(allowed, 0);
    rdx::StoreShared<unsigned char>(ucVerbosity, VERBOSITY_WARN);
    rdx::StoreSharedText(szConfigLogfile, "");
    rdx::StoreShared<unsigned char>(ucSupportNetscapeVM, 0);
    rdx::StoreSharedText(szConfigVoltageFile, "");
    rdx::StoreShared(uiVoltageMaxAge, kDefaultVoltageMaxAge);
    rdx::StoreShared<unsigned char>(ucVoltageFromCar, 0);
    rdx::StoreSharedText(szMorbelRemoteHost, "");
    rdx::StoreShared<unsigned char>(ucSemaProtection, 0);
    rdx::StoreShared<unsigned char>(ucRunAsJunior, 0);
}

int ReadIniFile(const char* szPath, const char* szSection) {
    RDX_CHECK(szPath != nullptr, "szPath != __null");
    RDX_CHECK(szSection != nullptr, "szSection != __null");
    if (*szPath == '\0') return -1;
    if (*szSection == '\0') return -2;
    const auto* const section = std::ranges::find_if(
        kSections, [&](const Section& s) { return rdx::EqualsIgnoringCase(s.name, szSection); });
    if (section == std::end(kSections)) return -3;
    RDX_CHECK(section->readKey != nullptr, "pfiReadKey != __null");
    RDX_CHECK(!section->keys.empty(), "nKeys > 0");
    const std::unique_ptr<FILE, CloseFile> file(fopen(szPath, "r"));
    if (!file) return -4;
    SectionReader reader(*section, szSection);
    char line[kLineBufferSize];
    int result = 0;
    while (result == 0 && fgets(line, sizeof line, file.get()) != nullptr) result = reader.Read(line);
    reader.Finish();
    if (result != 0) return result;
    return feof(file.get()) != 0 ? 0 : -5;
}

int ReadHttpKey(char* line) { return ReadKey(kHttpKeys, line, -1, -1); }

int ReadRpcKey(char* line) { return ReadKey(kRpcKeys, line, -2, -1); }

int ReadTcpKey(char* line) { return ReadKey(kTcpKeys, line, -2, 0); }

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
    if (ReadIniFile(szPath, "HTTP") != 0) return -1;
    rdx::StoreShared(uiReconfigurations, rdx::LoadShared(uiReconfigurations) + 1);
    rdx::StoreShared<unsigned char>(ucReconfigured, 1);
    return 0;
}

int DumpConfiguration(FILE* stream) {
    const int semaphore = SemaGetValue(SEMA_CIPLIB);
    const std::size_t level = rdx::LoadShared(ucVerbosity);
    if (level == VERBOSITY_NONE) return 0;
    FILE* const out = stream != nullptr ? stream : StdOut;
    fprintf(out, "\n");
    printf("\nDumpConfiguration+");
    fprintf(out, "\n Reconfiguration counter: %d", static_cast<int>(rdx::LoadShared(uiReconfigurations)));
    fprintf(out, "\n  Tavrin build number: %d", static_cast<int>(uiBuildNumber));
    fprintf(out, "\n    Tavrin build date: %s, %s", __DATE__, __TIME__);
    fprintf(out, "\n      Level of verbosity: %s",
            kVerbosityNames[std::min<std::size_t>(level, VERBOSITY_ALL)]);
    DumpHttp(out);
    DumpFilesAndFlags(out);
    fprintf(out, "\n    Value of SEMA_CIPLIB: %d", semaphore);
    fprintf(out, "\n");
    fflush(out);
    printf("DumpConfiguration-\n");
    return 0;
}
