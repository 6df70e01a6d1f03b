#include "common/config.h"

#include "common/check.h"
#include "common/shared.h"
#include "common/text.h"

#include <algorithm>
#include <array>
#include <cstring>
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

constexpr unsigned kDefaultVoltageMaxAge = 120; // seconds
constexpr int kLineBufferSize = 256;            // bytes, the NUL included: longer lines are read in pieces

constexpr std::array<std::string_view, CONFIG_METHODS> kMethodNames = {
    "GET", "PUT", "POST", "HEAD", "DELETE", "TRACE", "OPTIONS", "CONNECT"};
constexpr std::array<const char*, VERBOSITY_ALL + 1> kVerbosityNames = {"VERBOSITY_NONE",  "VERBOSITY_FATAL",
                                                                        "VERBOSITY_ERROR", "VERBOSITY_WARN",
                                                                        "VERBOSITY_LOG",   "VERBOSITY_ALL"};

// --- values ---------------------------------------------------------------------------------------------

// Where a key's value goes and what it means when it does not fit: each reader uses what it needs.
struct Target {
    std::span<char> text = {};
    unsigned char* flag = nullptr;
    int tooLong = 0;
};

// Reads a value into its target: 0 or the key's failure.
using ValueReader = int (*)(const Target& target, std::string_view value);

int ReadText(const Target& target, std::string_view value) {
    if (value.size() >= target.text.size()) return target.tooLong;
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
    constexpr int kUnknown = -1;
    const auto* const name = std::ranges::find_if(
        kVerbosityNames, [&](const char* level) { return rdx::EqualsIgnoringCase(level, value); });
    if (name == kVerbosityNames.end()) return kUnknown;
    rdx::StoreShared(*target.flag, static_cast<unsigned char>(name - kVerbosityNames.begin()));
    return 0;
}

int ReadMethods(const Target& /*target*/, std::string_view value) {
    constexpr std::string_view kSeparators = " \t,";
    constexpr int kUnknownMethod = -7;
    for (rdx::Reader words(value);;) {
        words.Skip(kSeparators);
        if (words.AtEnd()) return 0;
        const std::string_view word = words.TakeUntil(kSeparators).value_or(words.Rest());
        const auto* const name = std::ranges::find_if(
            kMethodNames, [&](std::string_view method) { return rdx::EqualsIgnoringCase(method, word); });
        if (name == kMethodNames.end()) return kUnknownMethod;
        const auto idx = name - kMethodNames.begin();
        RDX_CHECK((idx >= 0) && (idx < 8), "(idx >= 0) && (idx < 8)");
        rdx::StoreShared(aiMethodsAllowed[idx], 1);
        if (words.Rest().data() == word.data()) return 0; // the last word
    }
}

int ReadVoltageMaxAge(const Target& /*target*/, std::string_view value) {
    constexpr std::size_t kMostDigits = 8;
    constexpr int kTooLong = -10;
    constexpr int kZero = -11;
    if (value.size() > kMostDigits) return kTooLong;
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
};

// The order matters: a line belongs to the first key that it begins with.
const Key kHttpKeys[] = {
    {"ClientsAccepted", ReadText, {.text = szClientAddresses, .tooLong = -2}},
    {"ProtocolVersion", ReadProtocolVersion, {.flag = &ucProtocolVersion}},
    {"SendEOT", ReadFlag, {.flag = &ucEntityTerminator}},
    {"EOTString", ReadText, {.text = szEntityTerminator, .tooLong = -3}},
    {"AuthRequired", ReadFlag, {.flag = &ucAuthRequired}},
    {"AuthInfo", ReadText, {.text = szConfigAuthInfo, .tooLong = -4}},
    {"AuthRealm", ReadText, {.text = szConfigAuthRealm, .tooLong = -5}},
    {"ServicePort", ReadText, {.text = szConfigSvcPort, .tooLong = -6}},
    {"ServiceAddr", ReadText, {.text = szConfigSvcAddr, .tooLong = -6}},
    {"MethodsAllowed", ReadMethods, {}},
    {"Verbosity", ReadVerbosity, {.flag = &ucVerbosity}},
    {"SupportNetscapeVM", ReadFlag, {.flag = &ucSupportNetscapeVM}},
    {"Logfile", ReadText, {.text = szConfigLogfile, .tooLong = -8}},
    {"VoltageFile", ReadText, {.text = szConfigVoltageFile, .tooLong = -9}},
    {"VoltageMaxAge", ReadVoltageMaxAge, {}},
    {"VoltageFromCar", ReadFlagUnlessNo, {.flag = &ucVoltageFromCar}},
    {"LocalAccessAllowed", ReadFlag, {.flag = &ucLocalAccessAllowed}},
};
static_assert(std::size(kHttpKeys) == 17);

const Key kRpcKeys[] = {
    {"VoltageFile", ReadText, {.text = szConfigVoltageFile, .tooLong = -3}},
    {"VoltageFromCar", ReadFlagUnlessNo, {.flag = &ucVoltageFromCar}},
};

const Key kTcpKeys[] = {
    {"RemoteHost", ReadText, {.text = szMorbelRemoteHost, .tooLong = -3}},
    {"Port", Ignore, {}},
    {"TimeoutConnect", Ignore, {}},
    {"TimeoutReceive", Ignore, {}},
    {"TimeoutFunction", Ignore, {}},
};

struct Section {
    std::string_view name;
    std::span<const Key> keys;
    int (*readKey)(char* line);
};
const Section kSections[] = {
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
int ReadKey(std::span<const Key> keys, std::string_view line, int noEqualSign, int unknownKey) {
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
        if (FindKey(section_.keys, text) != nullptr) return section_.readKey(line);
        inSection_ = false; // kept: an unknown key ends the section just as another header does
        return 0;
    }

private:
    const Section& section_;
    std::string_view name_;
    bool inSection_ = false;
};

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};

// --- the dump -------------------------------------------------------------------------------------------

const char* YesNo(bool flag) { return flag ? "yes" : "no"; }

void DumpHttpSettings(FILE* stream) {
    fprintf(stream, "\n  Valid client addresses: %s", szClientAddresses);
    fprintf(stream, "\n    Local access allowed: %s", YesNo(ucLocalAccessAllowed != 0));
    fprintf(stream, "\n   HTTP protocol version: %s", ucProtocolVersion == 10 ? "1.0" : "1.1");
    fprintf(stream, "\n            Service port: %s", szConfigSvcPort);
    fprintf(stream, "\n         Service address: %s", szConfigSvcAddr);
    fprintf(stream, "\n  Entity terminator used: %s", YesNo(ucEntityTerminator != 0));
    if (ucEntityTerminator != 0) fprintf(stream, "\nEntity terminator string: %s", szEntityTerminator);
    fprintf(stream, "\n Authentication required: %s", YesNo(ucAuthRequired != 0));
    if (ucAuthRequired != 0) {
        fprintf(stream, "\n     Authentication info: %s", szConfigAuthInfo);
        fprintf(stream, "\n    Authentication realm: %s", szConfigAuthRealm);
    }
    fprintf(stream, "\n    HTTP methods allowed: ");
    for (std::size_t i = 0; i < kMethodNames.size(); ++i) {
        if (aiMethodsAllowed[i] != 0) fprintf(stream, "%s ", kMethodNames[i].data());
    }
}

void DumpOtherSettings(FILE* stream) {
    fprintf(stream, "\n    Semaphore protection: %s", YesNo(ucSemaProtection != 0));
    if (szConfigLogfile[0] != '\0') fprintf(stream, "\n                Log file: %s", szConfigLogfile);
    if (szConfigVoltageFile[0] != '\0') {
        fprintf(stream, "\n            Voltage file: %s", szConfigVoltageFile);
        fprintf(stream, "\n  Voltage max. age (sec): %d", static_cast<int>(uiVoltageMaxAge));
    }
    if (ucVoltageFromCar != 0) fprintf(stream, "\n    Try voltage from Car: %s", YesNo(true));
    fprintf(stream, "\n Allow Netscape JVM POST: %s", YesNo(ucSupportNetscapeVM != 0));
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
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        if (const int result = reader.Read(line); result != 0) return result;
    }
    return ferror(file.get()) != 0 ? -5 : 0;
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
    rdx::StoreShared<unsigned char>(ucReconfigured, 1);
    rdx::StoreShared(uiReconfigurations, uiReconfigurations + 1);
    return 0;
}

int DumpConfiguration(FILE* stream) {
    const int semaphore = SemaGetValue(SEMA_CIPLIB);
    if (ucVerbosity == VERBOSITY_NONE) return 0;
    fprintf(stream, "\n");
    printf("\nDumpConfiguration+");
    fprintf(stream, "\n Reconfiguration counter: %d", static_cast<int>(uiReconfigurations));
    fprintf(stream, "\n  Tavrin build number: %d", static_cast<int>(uiBuildNumber));
    fprintf(stream, "\n    Tavrin build date: %s, %s", __DATE__, __TIME__);
    fprintf(stream, "\n      Level of verbosity: %s",
            kVerbosityNames[std::min<std::size_t>(ucVerbosity, VERBOSITY_ALL)]);
    DumpHttpSettings(stream);
    DumpOtherSettings(stream);
    fprintf(stream, "\n    Value of SEMA_CIPLIB: %d", semaphore);
    fprintf(stream, "\n");
    fflush(stream);
    printf("DumpConfiguration-\n");
    return 0;
}
