#include "common/config.h"

#include "common/mt.h"
#include "common/shared.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <regex>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

// The semaphore as the test wants it.
namespace {
int semaphoreValue = -1;
std::vector<int> semaphoresRead;
} // namespace

extern "C" int __wrap_SemaGetValue(int key);
int __wrap_SemaGetValue(int key) {
    semaphoresRead.push_back(key);
    return semaphoreValue;
}

namespace rdx {
namespace {

using namespace std::string_literals;
using test::Assertion;
using test::FailCall;
using test::GuardedBytes;

constexpr const char* kSource = "common/config.cpp";

static_assert(sizeof szClientAddresses == 257);
static_assert(sizeof szEntityTerminator == 65);
static_assert(sizeof szConfigAuthInfo == 49);
static_assert(sizeof szConfigAuthRealm == 33);
static_assert(sizeof szConfigSvcPort == 13);
static_assert(sizeof szConfigSvcAddr == 17);
static_assert(sizeof szConfigLogfile == 257);
static_assert(sizeof szConfigVoltageFile == 257);
static_assert(sizeof szMorbelRemoteHost == 130);
static_assert(sizeof szAuthInfo == 6 + 48 + 1);
static_assert(sizeof szAdminServerHost == 129);
static_assert(std::is_same_v<decltype(aiMethodsAllowed), int[8]>);
static_assert(std::is_same_v<decltype(uiVoltageMaxAge), unsigned int>);
static_assert(std::is_same_v<decltype(nMaxThreads), int>);
static_assert(std::is_same_v<decltype(uiBuildNumber), const unsigned int>);
static_assert(SEMA_CIPLIB == 12345679);

// --- all settings at once ---------------------------------------------------------------------------------

using Settings = std::map<std::string, std::string>;

std::string MethodsAllowed() {
    std::string slots;
    for (const int allowed : aiMethodsAllowed) slots += std::to_string(allowed);
    return slots;
}

Settings CurrentSettings() {
    return {
        {"szClientAddresses", szClientAddresses},
        {"ucProtocolVersion", std::to_string(ucProtocolVersion)},
        {"ucEntityTerminator", std::to_string(ucEntityTerminator)},
        {"szEntityTerminator", szEntityTerminator},
        {"ucAuthRequired", std::to_string(ucAuthRequired)},
        {"szConfigAuthInfo", szConfigAuthInfo},
        {"szConfigAuthRealm", szConfigAuthRealm},
        {"szConfigSvcPort", szConfigSvcPort},
        {"szConfigSvcAddr", szConfigSvcAddr},
        {"aiMethodsAllowed", MethodsAllowed()},
        {"ucVerbosity", std::to_string(ucVerbosity)},
        {"szConfigLogfile", szConfigLogfile},
        {"ucSupportNetscapeVM", std::to_string(ucSupportNetscapeVM)},
        {"szConfigVoltageFile", szConfigVoltageFile},
        {"uiVoltageMaxAge", std::to_string(uiVoltageMaxAge)},
        {"ucVoltageFromCar", std::to_string(ucVoltageFromCar)},
        {"ucLocalAccessAllowed", std::to_string(ucLocalAccessAllowed)},
        {"szMorbelRemoteHost", szMorbelRemoteHost},
        {"ucSemaProtection", std::to_string(ucSemaProtection)},
        {"ucRunAsJunior", std::to_string(ucRunAsJunior)},
        {"szAuthInfo", szAuthInfo},
        {"szAdminServerHost", szAdminServerHost},
        {"uiAdminServerPort", std::to_string(uiAdminServerPort)},
        {"nMaxThreads", std::to_string(nMaxThreads)},
        {"g_dwPostMaxSizeToRead", std::to_string(g_dwPostMaxSizeToRead)},
        {"g_dwPostMaxContLength", std::to_string(g_dwPostMaxContLength)},
        {"uiReconfigurations", std::to_string(uiReconfigurations)},
        {"ucReconfigured", std::to_string(ucReconfigured)},
    };
}

// Taken before any test runs.
const Settings atLoad = CurrentSettings();

const Settings kInitial = {
    {"szClientAddresses", "127.0.0.1"},
    {"ucProtocolVersion", "11"},
    {"ucEntityTerminator", "0"},
    {"szEntityTerminator", ""},
    {"ucAuthRequired", "0"},
    {"szConfigAuthInfo", ""},
    {"szConfigAuthRealm", "Tavrin"},
    {"szConfigSvcPort", "www"},
    {"szConfigSvcAddr", "127.0.0.1"},
    {"aiMethodsAllowed", "00000000"},
    {"ucVerbosity", "3"},
    {"szConfigLogfile", ""},
    {"ucSupportNetscapeVM", "0"},
    {"szConfigVoltageFile", ""},
    {"uiVoltageMaxAge", "120"},
    {"ucVoltageFromCar", "0"},
    {"ucLocalAccessAllowed", "0"},
    {"szMorbelRemoteHost", ""},
    {"ucSemaProtection", "0"},
    {"ucRunAsJunior", "0"},
    {"szAuthInfo", ""},
    {"szAdminServerHost", ""},
    {"uiAdminServerPort", "0"},
    {"nMaxThreads", "1"},
    {"g_dwPostMaxSizeToRead", "65536"},
    {"g_dwPostMaxContLength", "65536"},
    {"uiReconfigurations", "0"},
    {"ucReconfigured", "0"},
};

// The settings that are not at their initial value.
Settings Changes() {
    Settings changes;
    for (const auto& [name, value] : CurrentSettings()) {
        if (value != kInitial.at(name)) changes[name] = value;
    }
    return changes;
}

void SetEverything() {
    for (char* const text : {szClientAddresses, szEntityTerminator, szConfigAuthInfo, szConfigAuthRealm,
                             szConfigSvcPort, szConfigSvcAddr, szConfigLogfile, szConfigVoltageFile,
                             szMorbelRemoteHost, szAuthInfo, szAdminServerHost}) {
        std::strcpy(text, "other");
    }
    for (unsigned char* const flag :
         {&ucProtocolVersion, &ucEntityTerminator, &ucAuthRequired, &ucVerbosity, &ucSupportNetscapeVM,
          &ucVoltageFromCar, &ucLocalAccessAllowed, &ucSemaProtection, &ucRunAsJunior, &ucReconfigured}) {
        *flag = 1;
    }
    for (int& allowed : aiMethodsAllowed) allowed = 1;
    for (unsigned* const number : {&uiVoltageMaxAge, &uiAdminServerPort, &g_dwPostMaxSizeToRead,
                                   &g_dwPostMaxContLength, &uiReconfigurations}) {
        *number = 7;
    }
    nMaxThreads = 7;
}

// Every test starts with the initial settings, and has a folder for its files.
class Config : public testing::Test {
protected:
    Config() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        Reset();
        semaphoreValue = -1;
        semaphoresRead.clear();
    }
    ~Config() override {
        Reset();
        if (!folder_.empty()) std::filesystem::remove_all(folder_);
    }

    static void Reset() {
        SetDefaultConfig();
        ucLocalAccessAllowed = 0;
        szAuthInfo[0] = szAdminServerHost[0] = '\0';
        uiAdminServerPort = 0;
        nMaxThreads = 1;
        g_dwPostMaxSizeToRead = g_dwPostMaxContLength = 65536;
        uiReconfigurations = 0;
        ucReconfigured = 0;
    }

    // Made when it is asked for: the process of a death test never removes it.
    const std::string& Folder() {
        char folder[] = "/tmp/config_test.XXXXXX";
        if (folder_.empty()) folder_ = mkdtemp(folder);
        return folder_;
    }
    std::string Path() { return Folder() + "/tnd.ini"; }

    std::string Write(std::string_view content) {
        std::ofstream(Path(), std::ios::binary) << content;
        return Path();
    }

    // Reads a file of this content, each time over the initial settings.
    int Read(std::string_view content, const char* section = "HTTP") {
        Reset();
        return ReadIniFile(Write(content).c_str(), section);
    }

    // Reads one line of section HTTP over the initial settings.
    static int ReadHttp(const std::string& line) { return ReadLine(ReadHttpKey, line); }
    static int ReadRpc(const std::string& line) { return ReadLine(ReadRpcKey, line); }
    static int ReadTcp(const std::string& line) { return ReadLine(ReadTcpKey, line); }

private:
    static int ReadLine(int (*read)(char*), const std::string& line) {
        Reset();
        const GuardedBytes bytes({line.c_str(), line.size() + 1});
        const int result = read(bytes.begin());
        EXPECT_EQ(bytes.begin(), line) << "the line is left as it is";
        return result;
    }

    std::string folder_;
};
class Defaults : public Config {};
class HttpKey : public Config {};
class RpcKey : public Config {};
class TcpKey : public Config {};
class IniFile : public Config {};
class Reconfiguration : public Config {};
class Dump : public Config {};

// --- defaults ---------------------------------------------------------------------------------------------

TEST_F(Defaults, HoldFromTheMomentTheLibraryIsLoaded) { EXPECT_EQ(atLoad, kInitial); }

TEST_F(Defaults, AreSetForEverySettingOfTheFileButLocalAccess) {
    SetEverything();
    SetDefaultConfig();
    EXPECT_EQ(Changes(), (Settings{{"ucLocalAccessAllowed", "1"},
                                   {"szAuthInfo", "other"},
                                   {"szAdminServerHost", "other"},
                                   {"uiAdminServerPort", "7"},
                                   {"nMaxThreads", "7"},
                                   {"g_dwPostMaxSizeToRead", "7"},
                                   {"g_dwPostMaxContLength", "7"},
                                   {"uiReconfigurations", "7"},
                                   {"ucReconfigured", "1"}}));
}

TEST_F(Defaults, DoNotTouchTheBuildNumber) { EXPECT_EQ(uiBuildNumber, 418U); }

// --- keys of section HTTP ---------------------------------------------------------------------------------

struct TextKey {
    const char* key;
    const char* setting;
    std::size_t limit; // characters
    int tooLong;
};
constexpr TextKey kTextKeys[] = {
    {"ClientsAccepted", "szClientAddresses", 256, -2}, {"EOTString", "szEntityTerminator", 64, -3},
    {"AuthInfo", "szConfigAuthInfo", 48, -4},          {"AuthRealm", "szConfigAuthRealm", 32, -5},
    {"ServicePort", "szConfigSvcPort", 12, -6},        {"ServiceAddr", "szConfigSvcAddr", 16, -6},
    {"Logfile", "szConfigLogfile", 256, -8},           {"VoltageFile", "szConfigVoltageFile", 256, -9},
};

TEST_F(HttpKey, TakesATextUpToItsLimit) {
    for (const TextKey& row : kTextKeys) {
        for (const std::size_t length : {std::size_t{1}, row.limit - 1, row.limit}) {
            const std::string value(length, 'v');
            EXPECT_EQ(ReadHttp(row.key + "="s + value), 0) << row.key << " " << length;
            EXPECT_EQ(Changes(), (Settings{{row.setting, value}})) << row.key << " " << length;
        }
    }
}

TEST_F(HttpKey, RefusesALongerTextWithTheKeysOwnFailure) {
    for (const TextKey& row : kTextKeys) {
        for (const std::size_t length : {row.limit + 1, row.limit + 1000}) {
            EXPECT_EQ(ReadHttp(row.key + "="s + std::string(length, 'v')), row.tooLong) << row.key;
            EXPECT_EQ(Changes(), Settings()) << row.key;
        }
    }
}

TEST_F(HttpKey, TakesAnEmptyText) {
    for (const TextKey& row : kTextKeys) {
        SetEverything();
        std::string line = row.key + "="s;
        EXPECT_EQ(ReadHttpKey(line.data()), 0);
        EXPECT_EQ(CurrentSettings().at(row.setting), "") << row.key;
    }
}

TEST_F(HttpKey, ReplacesALongerText) {
    std::string longer = "EOTString=a longer text";
    std::string shorter = "EOTString=short";
    EXPECT_EQ(ReadHttpKey(longer.data()), 0);
    EXPECT_EQ(ReadHttpKey(shorter.data()), 0);
    EXPECT_STREQ(szEntityTerminator, "short");
}

TEST_F(HttpKey, RaisesAFlagForOneAndTrueAlone) {
    const std::pair<const char*, const char*> flags[] = {{"SendEOT", "ucEntityTerminator"},
                                                         {"AuthRequired", "ucAuthRequired"},
                                                         {"LocalAccessAllowed", "ucLocalAccessAllowed"},
                                                         {"SupportNetscapeVM", "ucSupportNetscapeVM"}};
    for (const auto& [key, setting] : flags) {
        for (const char* const value : {"1", "true", "TRUE", "True", "tRuE"}) {
            EXPECT_EQ(ReadHttp(key + "="s + value), 0);
            EXPECT_EQ(Changes(), (Settings{{setting, "1"}})) << key << " " << value;
        }
        for (const char* const value :
             {"0", "yes", "on", "2", "", "11", "01", "1 ", "true ", "true1", "tru", "false", "-1", "'1'"}) {
            SetEverything();
            std::string line = key + "="s + value;
            EXPECT_EQ(ReadHttpKey(line.data()), 0);
            EXPECT_EQ(CurrentSettings().at(setting), "0") << key << " " << value;
        }
    }
}

// The values that lower VoltageFromCar and those that raise it.
constexpr const char* kClearNo[] = {"0", "false", "FALSE", "False"};
constexpr const char* kNoClearNo[] = {"no", "", "1", "true", "00", "0 ", "off", "falsey", "fals"};

TEST_F(HttpKey, LowersVoltageFromCarForAClearNoAlone) {
    for (const char* const value : kClearNo) {
        SetEverything();
        std::string line = "VoltageFromCar="s + value;
        EXPECT_EQ(ReadHttpKey(line.data()), 0);
        EXPECT_EQ(ucVoltageFromCar, 0) << value;
    }
    for (const char* const value : kNoClearNo) {
        EXPECT_EQ(ReadHttp("VoltageFromCar="s + value), 0);
        EXPECT_EQ(Changes(), (Settings{{"ucVoltageFromCar", "1"}})) << value;
    }
}

TEST_F(HttpKey, KnowsOneOldProtocolVersion) {
    EXPECT_EQ(ReadHttp("ProtocolVersion=1.0"), 0);
    EXPECT_EQ(Changes(), (Settings{{"ucProtocolVersion", "10"}}));
    for (const char* const value : {"1.1", "", "1.00", "1", "1.0 ", "2.0", "HTTP/1.0"}) {
        ucProtocolVersion = 10;
        std::string line = "ProtocolVersion="s + value;
        EXPECT_EQ(ReadHttpKey(line.data()), 0);
        EXPECT_EQ(ucProtocolVersion, 11) << value;
    }
}

constexpr const char* kLevels[] = {"VERBOSITY_NONE", "VERBOSITY_FATAL", "VERBOSITY_ERROR",
                                   "VERBOSITY_WARN", "VERBOSITY_LOG",   "VERBOSITY_ALL"};

TEST_F(HttpKey, TakesTheSixLevelsOfVerbosityByName) {
    for (std::size_t level = 0; level < std::size(kLevels); ++level) {
        std::string lower = kLevels[level];
        for (char& c : lower) c = static_cast<char>(std::tolower(c));
        for (const std::string& name : {std::string(kLevels[level]), lower}) {
            EXPECT_EQ(ReadHttp("Verbosity=" + name), 0);
            EXPECT_EQ(ucVerbosity, level) << name;
        }
    }
}

TEST_F(HttpKey, RefusesAnUnknownVerbosity) {
    for (const char* const value :
         {"LOG", "", "3", "VERBOSITY_", "VERBOSITY_WARNING", "VERBOSITY_WARN ", "VERBOSITY-LOG"}) {
        EXPECT_EQ(ReadHttp("Verbosity="s + value), -1) << value;
        EXPECT_EQ(Changes(), Settings()) << value;
    }
}

TEST_F(HttpKey, TakesAVoltageAgeOfUpToEightCharacters) {
    const std::pair<const char*, const char*> ages[] = {
        {"1", "1"},      {"99999999", "99999999"}, {"00000060", "60"},
        {"+60", "60"},   {"60 s", "60"},           {"60.5", "60"},
        {"121x", "121"}, {"-1", "4294967295"},     {"-9999999", "4284967297"}};
    for (const auto& [value, age] : ages) {
        EXPECT_EQ(ReadHttp("VoltageMaxAge="s + value), 0) << value;
        EXPECT_EQ(Changes(), (Settings{{"uiVoltageMaxAge", age}})) << value;
    }
}

TEST_F(HttpKey, RefusesALongerVoltageAge) {
    for (const char* const value : {"123456789", "000000060", "0        "}) {
        uiVoltageMaxAge = 7;
        std::string line = "VoltageMaxAge="s + value;
        EXPECT_EQ(ReadHttpKey(line.data()), -10) << value;
        EXPECT_EQ(uiVoltageMaxAge, 7U) << value;
    }
}

TEST_F(HttpKey, SetsTheDefaultAgeForNoneAndFailsAllTheSame) {
    for (const char* const value : {"0", "", "00000000", "-0", "abc", "s60", "+", "- 1"}) {
        uiVoltageMaxAge = 7;
        std::string line = "VoltageMaxAge="s + value;
        EXPECT_EQ(ReadHttpKey(line.data()), -11) << value;
        EXPECT_EQ(uiVoltageMaxAge, 120U) << value;
    }
}

TEST_F(HttpKey, AllowsEachMethodInItsOwnSlot) {
    constexpr const char* kMethods[] = {"GET",    "PUT",   "POST",    "HEAD",
                                        "DELETE", "TRACE", "OPTIONS", "CONNECT"};
    for (std::size_t slot = 0; slot < std::size(kMethods); ++slot) {
        std::string slots(8, '0');
        slots[slot] = '1';
        std::string lower = kMethods[slot];
        for (char& c : lower) c = static_cast<char>(std::tolower(c));
        for (const std::string& method : {std::string(kMethods[slot]), lower}) {
            EXPECT_EQ(ReadHttp("MethodsAllowed=" + method), 0);
            EXPECT_EQ(Changes(), (Settings{{"aiMethodsAllowed", slots}})) << method;
        }
    }
}

TEST_F(HttpKey, SplitsTheMethodsAtBlanksTabsAndCommas) {
    for (const char* const value : {"GET, POST", "GET,POST", "GET POST", "GET\tPOST", ",, GET ,\t, POST ,",
                                    "POST GET", "GET POST GET", ",GET,POST,"}) {
        EXPECT_EQ(ReadHttp("MethodsAllowed="s + value), 0) << value;
        EXPECT_EQ(MethodsAllowed(), "10100000") << value;
    }
    EXPECT_EQ(ReadHttp("MethodsAllowed=GET PUT POST HEAD DELETE TRACE OPTIONS CONNECT"), 0);
    EXPECT_EQ(MethodsAllowed(), "11111111");
}

TEST_F(HttpKey, AllowsNothingForAnEmptyListOfMethods) {
    for (const char* const value : {"", ",", " \t, "}) {
        EXPECT_EQ(ReadHttp("MethodsAllowed="s + value), 0) << value;
        EXPECT_EQ(Changes(), Settings()) << value;
    }
}

TEST_F(HttpKey, StopsAtAnUnknownMethodAndKeepsThoseBefore) {
    const std::pair<const char*, const char*> lists[] = {
        {"GET,FOO", "10000000"}, {"GET,FOO,POST", "10000000"}, {"FOO,GET", "00000000"}, {"GETX", "00000000"},
        {"GE", "00000000"},      {"GET;POST", "00000000"},     {"PUT G", "01000000"}};
    for (const auto& [value, slots] : lists) {
        EXPECT_EQ(ReadHttp("MethodsAllowed="s + value), -7) << value;
        EXPECT_EQ(MethodsAllowed(), slots) << value;
    }
}

TEST_F(HttpKey, OnlyAddsMethods) {
    std::string first = "MethodsAllowed=GET";
    std::string second = "MethodsAllowed=POST";
    std::string third = "MethodsAllowed=";
    EXPECT_EQ(ReadHttpKey(first.data()), 0);
    EXPECT_EQ(ReadHttpKey(second.data()), 0);
    EXPECT_EQ(ReadHttpKey(third.data()), 0);
    EXPECT_EQ(MethodsAllowed(), "10100000");
}

TEST_F(HttpKey, IsKnownByItsBeginningInAnyCase) {
    for (const char* const line :
         {"AuthInfo=v", "authinfo=v", "AUTHINFO=v", "AuthInfoX=v", "AuthInfo text = v", "AuthInformation=v",
          "AuthInfo\t=\tv", "AuthInfo  =  v"}) {
        EXPECT_EQ(ReadHttp(line), 0) << line;
        EXPECT_EQ(Changes(), (Settings{{"szConfigAuthInfo", "v"}})) << line;
    }
}

TEST_F(HttpKey, TakesEverythingBehindTheFirstEqualSign) {
    EXPECT_EQ(ReadHttp("EOTString=a=b = c"), 0);
    EXPECT_STREQ(szEntityTerminator, "a=b = c");
    EXPECT_EQ(ReadHttp("EOTString=="), 0);
    EXPECT_STREQ(szEntityTerminator, "=");
    EXPECT_EQ(ReadHttp("EOTString= \t\v\f\r\nvalue \t"), 0);
    EXPECT_STREQ(szEntityTerminator, "value \t") << "the line came trimmed";
}

TEST_F(HttpKey, RefusesALineThatIsNoneOfItsKeys) {
    for (const char* const line : {"Verbosit=VERBOSITY_ALL", "=v", "Unknown=v", " AuthInfo=v", "RemoteHost=v",
                                   "Port=80", "Auth=Info", "Key AuthInfo=v"}) {
        EXPECT_EQ(ReadHttp(line), -1) << line;
        EXPECT_EQ(Changes(), Settings()) << line;
    }
}

TEST_F(HttpKey, RefusesALineWithoutAnEqualSign) {
    for (const char* const line : {"", "AuthInfo", "AuthInfo v", "Unknown", "[HTTP]"}) {
        EXPECT_EQ(ReadHttp(line), -1) << line;
    }
    EXPECT_EQ(ReadHttpKey(nullptr), -1);
    EXPECT_EQ(Changes(), Settings());
}

TEST_F(HttpKey, ReadsNothingBehindAnyBeginningOfItsLine) {
    for (const std::string& whole :
         {"MethodsAllowed=GET, POST"s, "VoltageMaxAge=12345678"s, "Verbosity=VERBOSITY_ALL"s}) {
        for (std::size_t length = 0; length <= whole.size(); ++length) ReadHttp(whole.substr(0, length));
    }
}

// --- keys of sections RPC and TCP -------------------------------------------------------------------------

TEST_F(RpcKey, ReadsTheVoltageFile) {
    EXPECT_EQ(ReadRpc("VoltageFile = /var/voltage"), 0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigVoltageFile", "/var/voltage"}}));
    EXPECT_EQ(ReadRpc("voltagefile=" + std::string(256, 'v')), 0);
    EXPECT_EQ(szConfigVoltageFile, std::string(256, 'v'));
    EXPECT_EQ(ReadRpc("VoltageFile=" + std::string(257, 'v')), -3);
    EXPECT_EQ(Changes(), Settings());
}

TEST_F(RpcKey, ReadsVoltageFromCar) {
    for (const char* const value : kClearNo) {
        SetEverything();
        std::string line = "VoltageFromCar="s + value;
        EXPECT_EQ(ReadRpcKey(line.data()), 0);
        EXPECT_EQ(ucVoltageFromCar, 0) << value;
    }
    for (const char* const value : kNoClearNo) {
        EXPECT_EQ(ReadRpc("VoltageFromCar="s + value), 0);
        EXPECT_EQ(Changes(), (Settings{{"ucVoltageFromCar", "1"}})) << value;
    }
}

TEST_F(RpcKey, RefusesOtherKeysAndLinesWithoutAnEqualSign) {
    for (const char* const line : {"VoltageMaxAge=60", "Verbosity=VERBOSITY_ALL", "RemoteHost=v", "=v"}) {
        EXPECT_EQ(ReadRpc(line), -1) << line;
    }
    for (const char* const line : {"", "VoltageFile", "Unknown"}) EXPECT_EQ(ReadRpc(line), -2) << line;
    EXPECT_EQ(ReadRpcKey(nullptr), -2);
    EXPECT_EQ(Changes(), Settings());
}

TEST_F(TcpKey, ReadsTheRemoteHost) {
    EXPECT_EQ(ReadTcp("RemoteHost = host.example"), 0);
    EXPECT_EQ(Changes(), (Settings{{"szMorbelRemoteHost", "host.example"}}));
    EXPECT_EQ(ReadTcp("remotehost=" + std::string(129, 'h')), 0);
    EXPECT_EQ(szMorbelRemoteHost, std::string(129, 'h'));
    EXPECT_EQ(ReadTcp("RemoteHost=" + std::string(130, 'h')), -3);
    EXPECT_EQ(Changes(), Settings());
}

TEST_F(TcpKey, TakesEveryOtherKeyAndIgnoresIt) {
    for (const char* const line : {"Port=80", "TimeoutConnect=1", "TimeoutReceive=2", "TimeoutFunction=",
                                   "Portal=x", "Unknown=v", "Verbosity=VERBOSITY_ALL", "=v"}) {
        EXPECT_EQ(ReadTcp(line), 0) << line;
        EXPECT_EQ(Changes(), Settings()) << line;
    }
}

TEST_F(TcpKey, RefusesALineWithoutAnEqualSign) {
    for (const char* const line : {"", "RemoteHost", "Port 80", "Unknown"})
        EXPECT_EQ(ReadTcp(line), -2) << line;
    EXPECT_EQ(ReadTcpKey(nullptr), -2);
}

// --- lines ------------------------------------------------------------------------------------------------

TEST(TrimLine, RemovesTheWhiteSpaceAroundALine) {
    const std::pair<const char*, const char*> lines[] = {{"line", "line"},
                                                         {" line", "line"},
                                                         {"line ", "line"},
                                                         {" \t\n\v\f\rline\r\f\v\n\t ", "line"},
                                                         {" two words ", "two words"},
                                                         {"a\tb\r\n", "a\tb"},
                                                         {"x", "x"},
                                                         {" x", "x"},
                                                         {"", ""},
                                                         {" ", ""},
                                                         {" \r\n", ""},
                                                         {"\xa0x\xa0", "\xa0x\xa0"}};
    for (const auto& [line, trimmed] : lines) {
        const GuardedBytes bytes({line, std::strlen(line) + 1});
        TrimLine(bytes.begin());
        EXPECT_STREQ(bytes.begin(), trimmed);
    }
}

TEST(TrimLine, LeavesNullAlone) { TrimLine(nullptr); }

// --- the file: sections -----------------------------------------------------------------------------------

TEST_F(IniFile, OverlaysOneSettingAndLeavesTheOthers) {
    EXPECT_EQ(Read("[HTTP]\nVerbosity=VERBOSITY_ALL\n"), 0);
    EXPECT_EQ(Changes(), (Settings{{"ucVerbosity", "5"}}));
    EXPECT_EQ(Read("[HTTP]\nVerbosity = verbosity_log\n"), 0);
    EXPECT_EQ(Changes(), (Settings{{"ucVerbosity", "4"}}));
    EXPECT_EQ(Read("[HTTP]\nVoltageFromCar=no\nSendEOT=yes\n"), 0);
    EXPECT_EQ(Changes(), (Settings{{"ucVoltageFromCar", "1"}}));
}

TEST_F(IniFile, ReadsEveryKeyOfSectionHttp) {
    EXPECT_EQ(Read("[HTTP]\n"
                   "ClientsAccepted=10.0.0.1 10.0.0.2\n"
                   "ProtocolVersion=1.0\n"
                   "SendEOT=1\n"
                   "EOTString=end\n"
                   "AuthRequired=true\n"
                   "AuthInfo=dXNlcjpwYXNz\n"
                   "AuthRealm=Workshop\n"
                   "MethodsAllowed=GET, POST\n"
                   "Verbosity=VERBOSITY_ERROR\n"
                   "Logfile=/var/log/tnd\n"
                   "ServicePort=8080\n"
                   "ServiceAddr=10.0.0.9\n"
                   "SupportNetscapeVM=1\n"
                   "VoltageFile=/var/voltage\n"
                   "VoltageMaxAge=60\n"
                   "VoltageFromCar=1\n"
                   "LocalAccessAllowed=1\n"),
              0);
    EXPECT_EQ(Changes(), (Settings{{"szClientAddresses", "10.0.0.1 10.0.0.2"},
                                   {"ucProtocolVersion", "10"},
                                   {"ucEntityTerminator", "1"},
                                   {"szEntityTerminator", "end"},
                                   {"ucAuthRequired", "1"},
                                   {"szConfigAuthInfo", "dXNlcjpwYXNz"},
                                   {"szConfigAuthRealm", "Workshop"},
                                   {"aiMethodsAllowed", "10100000"},
                                   {"ucVerbosity", "2"},
                                   {"szConfigLogfile", "/var/log/tnd"},
                                   {"szConfigSvcPort", "8080"},
                                   {"szConfigSvcAddr", "10.0.0.9"},
                                   {"ucSupportNetscapeVM", "1"},
                                   {"szConfigVoltageFile", "/var/voltage"},
                                   {"uiVoltageMaxAge", "60"},
                                   {"ucVoltageFromCar", "1"},
                                   {"ucLocalAccessAllowed", "1"}}));
}

constexpr const char* kThreeSections = "[HTTP]\nVoltageFile=http\nServicePort=8080\n"
                                       "[RPC]\nVoltageFile=rpc\nVoltageFromCar=1\n"
                                       "[TCP]\nPort=1\nTimeoutConnect=2\nTimeoutReceive=3\n"
                                       "TimeoutFunction=4\nRemoteHost=host\n";

TEST_F(IniFile, ReadsTheSectionThatIsAskedFor) {
    EXPECT_EQ(Read(kThreeSections, "HTTP"), 0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigVoltageFile", "http"}, {"szConfigSvcPort", "8080"}}));
    EXPECT_EQ(Read(kThreeSections, "RPC"), 0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigVoltageFile", "rpc"}, {"ucVoltageFromCar", "1"}}));
    EXPECT_EQ(Read(kThreeSections, "TCP"), 0);
    EXPECT_EQ(Changes(), (Settings{{"szMorbelRemoteHost", "host"}}));
}

TEST_F(IniFile, SelectsTheSectionsKeysInAnyCaseButItsHeaderExactly) {
    EXPECT_EQ(Read("[HTTP]\nServicePort=upper\n[http]\nServicePort=lower\n", "http"), 0);
    EXPECT_STREQ(szConfigSvcPort, "lower");
    EXPECT_EQ(Read("[HTTP]\nServicePort=upper\n[http]\nServicePort=lower\n", "HTTP"), 0);
    EXPECT_STREQ(szConfigSvcPort, "upper");
    EXPECT_EQ(Read("[HTTP]\nServicePort=upper\n", "Http"), 0);
    EXPECT_STREQ(szConfigSvcPort, "www");
    EXPECT_EQ(Read("[rPc]\nVoltageFile=v\n", "rPc"), 0);
    EXPECT_STREQ(szConfigVoltageFile, "v");
    EXPECT_EQ(Read("[tcp]\nRemoteHost=h\n", "tcp"), 0);
    EXPECT_STREQ(szMorbelRemoteHost, "h");
}

TEST_F(IniFile, OpensASectionAtAnyHeaderThatContainsItsName) {
    for (const char* const header : {"[HTTP]", "[MYHTTPSECTION]", "[ HTTP ]", "[HTTP", "[] HTTP",
                                     "[TCP] HTTP", "  \t[HTTP]  ", "[[HTTP]]", "[HHTTP"}) {
        EXPECT_EQ(Read(header + "\nServicePort=8080\n"s), 0);
        EXPECT_STREQ(szConfigSvcPort, "8080") << header;
    }
}

TEST_F(IniFile, OpensNoSectionElsewhere) {
    for (const char* const header : {"HTTP]", "HTTP", "x[HTTP]", "[http]", "[HTT P]", "[]", "[", ";[HTTP]",
                                     "#[HTTP]", "[HTT\n P]", ""}) {
        EXPECT_EQ(Read(header + "\nServicePort=8080\n"s), 0);
        EXPECT_EQ(Changes(), Settings()) << header;
    }
}

TEST_F(IniFile, EndsTheSectionAtALineWithoutAKnownKey) {
    for (const char* const line :
         {"Unknown=1", "[TCP]", "[RPC]", "RemoteHost=h", "text", "=", "Verbosit", "!"}) {
        EXPECT_EQ(Read("[HTTP]\nServicePort=8080\n"s + line + "\nVerbosity=VERBOSITY_ALL\n"), 0);
        EXPECT_EQ(Changes(), (Settings{{"szConfigSvcPort", "8080"}})) << line;
    }
}

TEST_F(IniFile, OpensTheSectionAgainAtItsNextHeader) {
    EXPECT_EQ(Read("[HTTP]\nServicePort=1\nUnknown=1\nAuthRealm=skipped\n[HTTP]\nAuthInfo=taken\n"
                   "[TCP]\nEOTString=skipped\n[HTTP2]\nServicePort=2\n"),
              0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigSvcPort", "2"}, {"szConfigAuthInfo", "taken"}}));
}

TEST_F(IniFile, SkipsEmptyLinesAndComments) {
    EXPECT_EQ(Read("\n; comment\n[HTTP]\n\n  \t\n;Verbosity=VERBOSITY_ALL\n#Unknown\n  ; indented\n\t# too\n"
                   "ServicePort=8080\n"),
              0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigSvcPort", "8080"}}));
}

TEST_F(IniFile, DoesNotTakeTheEndOfALineForAComment) {
    EXPECT_EQ(Read("[HTTP]\nServicePort=80 ; web\n"), 0);
    EXPECT_STREQ(szConfigSvcPort, "80 ; web");
}

TEST_F(IniFile, SkipsEverythingOutsideTheSection) {
    EXPECT_EQ(Read("Verbosity=nonsense\nServicePort=8080\n[TCP]\nMethodsAllowed=FOO\n[HTTP]\n"), 0);
    EXPECT_EQ(Changes(), Settings());
}

TEST_F(IniFile, TrimsALineBeforeItIsRead) {
    EXPECT_EQ(Read("[HTTP]\n\t  AuthRealm =  My Realm \t \n  VoltageFromCar=0 \n"), 0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigAuthRealm", "My Realm"}}));
}

TEST_F(IniFile, LetsTheLastOfTwoLinesWin) {
    EXPECT_EQ(Read("[HTTP]\nServicePort=1\nServicePort=2\n"), 0);
    EXPECT_STREQ(szConfigSvcPort, "2");
}

// --- the file: ends of lines ------------------------------------------------------------------------------

TEST_F(IniFile, ReadsALastLineWithoutALineFeed) {
    EXPECT_EQ(Read("[HTTP]\nServicePort=8080"), 0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigSvcPort", "8080"}}));
}

TEST_F(IniFile, ReadsLinesThatEndWithCrLf) {
    EXPECT_EQ(Read("[HTTP]\r\n\r\n; comment\r\nServicePort=8080\r\nMethodsAllowed=GET,POST\r\nSendEOT=1\r\n"),
              0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigSvcPort", "8080"},
                                   {"aiMethodsAllowed", "10100000"},
                                   {"ucEntityTerminator", "1"}}));
}

TEST_F(IniFile, TakesAnEmptyFile) {
    EXPECT_EQ(Read(""), 0);
    EXPECT_EQ(Read("\n"), 0);
    EXPECT_EQ(Changes(), Settings());
}

TEST_F(IniFile, EndsALineAtItsFirstNul) {
    EXPECT_EQ(Read("[HTTP]\0]\nServicePort=80\00080\n\0Unknown\nAuthRealm=\0x\nAuthInfo=taken\n"s), 0);
    EXPECT_EQ(
        Changes(),
        (Settings{{"szConfigSvcPort", "80"}, {"szConfigAuthRealm", ""}, {"szConfigAuthInfo", "taken"}}));
}

TEST_F(IniFile, ReadsBytesOfAnyValue) {
    EXPECT_EQ(Read("[HTTP]\nAuthRealm=\xff\x80\x01\xe4\n\xff\xfe=1\nServicePort=8080\n"), 0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigAuthRealm", "\xff\x80\x01\xe4"}}))
        << "the last but one ended it";
}

// A line of `length` characters that begins with `beginning`.
std::string LineOf(std::size_t length, const std::string& beginning) {
    return beginning + std::string(length - beginning.size(), 'x');
}

TEST_F(IniFile, ReadsALineOf255CharactersWhole) {
    for (const std::size_t length : {253U, 254U, 255U}) {
        const std::string line = LineOf(length, "Logfile=");
        EXPECT_EQ(Read("[HTTP]\n" + line + "\nServicePort=8080\n"), 0);
        EXPECT_EQ(Changes(), (Settings{{"szConfigLogfile", line.substr(8)}, {"szConfigSvcPort", "8080"}}))
            << length;
    }
}

TEST_F(IniFile, ReadsALongerLineInPieces) {
    const std::string line = LineOf(256, "Logfile=");
    EXPECT_EQ(Read("[HTTP]\n" + line + "\nServicePort=8080\n"), 0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigLogfile", line.substr(8, 247)}}))
        << "the second piece is no key and ends the section";
}

TEST_F(IniFile, TakesEachPieceForALine) {
    EXPECT_EQ(Read("[HTTP]\n" + LineOf(255, "; comment ") + "ServicePort=8080\nAuthInfo=taken\n"), 0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigSvcPort", "8080"}, {"szConfigAuthInfo", "taken"}}));
    EXPECT_EQ(Read(LineOf(255, "; comment ") + "[HTTP]\nServicePort=8080\n"), 0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigSvcPort", "8080"}}));
    EXPECT_EQ(Read("[HTTP]\n" + LineOf(510, "; comment ") + "MethodsAllowed=FOO\n"), 0)
        << "the second piece of the comment ended the section";
}

TEST_F(IniFile, TrimsEachPiece) {
    const std::string line = "Logfile=" + std::string(245, 'x') + "  " + "  ServicePort=8080";
    EXPECT_EQ(Read("[HTTP]\n" + line), 0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigLogfile", std::string(245, 'x')}, {"szConfigSvcPort", "8080"}}));
}

TEST_F(IniFile, ReadsALineWithoutAnEnd) {
    EXPECT_EQ(Read("[HTTP]\nServicePort=8080\n; " + std::string(100000, 'x')), 0);
    EXPECT_EQ(Changes(), (Settings{{"szConfigSvcPort", "8080"}}));
}

// --- the file: failures -----------------------------------------------------------------------------------

TEST_F(IniFile, RefusesAnEmptyPath) {
    EXPECT_EQ(ReadIniFile("", "HTTP"), -1);
    EXPECT_EQ(ReadIniFile("", ""), -1);
}

TEST_F(IniFile, RefusesAnEmptySectionName) {
    EXPECT_EQ(ReadIniFile(Write("").c_str(), ""), -2);
    EXPECT_EQ(ReadIniFile("/nonexistent", ""), -2);
}

TEST_F(IniFile, RefusesAnUnknownSection) {
    for (const char* const section : {"FTP", "HTT", "HTTPS", " HTTP", "[HTTP]", "RPC2", "TC"}) {
        EXPECT_EQ(ReadIniFile("/nonexistent", section), -3) << section;
    }
}

TEST_F(IniFile, ReportsAFileThatCannotBeOpened) {
    EXPECT_EQ(ReadIniFile(Path().c_str(), "HTTP"), -4);
    const FailCall fault("fopen", 1, EMFILE);
    EXPECT_EQ(Read("[HTTP]\nServicePort=8080\n"), -4);
    EXPECT_TRUE(fault.Struck());
    EXPECT_EQ(Changes(), Settings());
}

TEST_F(IniFile, ReportsAReadError) {
    EXPECT_EQ(ReadIniFile(Folder().c_str(), "HTTP"), -5) << "a directory";
    const FailCall fault("fgets", 3, EIO);
    EXPECT_EQ(Read("[HTTP]\nServicePort=8080\nAuthRealm=unread\n"), -5);
    EXPECT_TRUE(fault.Struck());
    EXPECT_EQ(Changes(), (Settings{{"szConfigSvcPort", "8080"}})) << "what was read stays";
}

TEST_F(IniFile, StopsAtTheFirstBadLineWithItsFailure) {
    const std::pair<std::string, int> lines[] = {
        {"AuthInfo", -1},
        {"Verbosity=LOG", -1},
        {"EOTString=" + std::string(65, 'x'), -3},
        {"AuthInfo=" + std::string(49, 'x'), -4},
        {"AuthRealm=" + std::string(33, 'x'), -5},
        {"ServicePort=" + std::string(13, 'x'), -6},
        {"ServiceAddr=" + std::string(17, 'x'), -6},
        {"MethodsAllowed=FOO", -7},
        {"VoltageMaxAge=123456789", -10},
        {"VoltageMaxAge=0", -11},
    };
    for (const auto& [line, result] : lines) {
        EXPECT_EQ(Read("[HTTP]\nLogfile=before\n" + line + "\nVoltageFile=behind\n"), result) << line;
        EXPECT_EQ(Changes(), (Settings{{"szConfigLogfile", "before"}})) << line;
    }
}

TEST_F(IniFile, StopsAtTheFirstBadLineOfTheOtherSections) {
    EXPECT_EQ(Read("[RPC]\nVoltageFromCar=1\nVoltageFile\n", "RPC"), -2);
    EXPECT_EQ(Changes(), (Settings{{"ucVoltageFromCar", "1"}}));
    EXPECT_EQ(Read("[TCP]\nRemoteHost=" + std::string(130, 'h') + "\n", "TCP"), -3);
    EXPECT_EQ(Read("[TCP]\nPort\n", "TCP"), -2);
}

TEST_F(IniFile, IsClosedOnEveryPath) {
    const std::string good = Write("[HTTP]\nServicePort=8080\n");
    const auto closed = [](const std::string& path) {
        const int before = test::CallsOf("fclose");
        ReadIniFile(path.c_str(), "HTTP");
        return test::CallsOf("fclose") - before;
    };
    EXPECT_EQ(closed(good), 1);
    EXPECT_EQ(closed(Folder()), 1) << "a read error";
    EXPECT_EQ(closed(Write("[HTTP]\nVerbosity=LOG\n")), 1) << "a bad line";
    EXPECT_EQ(closed("/nonexistent"), 0);
}

TEST_F(IniFile, AssertsItsArguments) {
    EXPECT_DEATH(ReadIniFile(nullptr, "HTTP"), Assertion(kSource, "ReadIniFile", "szPath != __null"));
    EXPECT_DEATH(ReadIniFile("/etc/tnd.ini", nullptr),
                 Assertion(kSource, "ReadIniFile", "szSection != __null"));
}

TEST_F(IniFile, MayBeReadAgainWhileThreadsReadTheSettings) {
    const std::string path = Write("[HTTP]\nAuthRealm=Workshop\nSendEOT=1\nVoltageMaxAge=60\n");
    std::atomic<bool> done = false;
    std::thread reader([&] {
        while (!done) {
            EXPECT_LT(SharedText(szConfigAuthRealm).View().size(), sizeof szConfigAuthRealm);
            EXPECT_LE(LoadShared(ucEntityTerminator), 1);
            EXPECT_NE(LoadShared(uiVoltageMaxAge), 0U);
        }
    });
    for (int i = 0; i < 200; ++i) {
        SetDefaultConfig();
        EXPECT_EQ(ReadIniFile(path.c_str(), "HTTP"), 0);
    }
    done = true;
    reader.join();
}

// Threads in service take the terminator's text for given once it is switched on.
TEST_F(IniFile, SwitchesTheTerminatorOnWhenAllHasBeenRead) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const auto say = [&](const std::string& text) {
        ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    };
    const std::string path = "/proc/self/fd/" + std::to_string(ends[0]);
    std::thread reader([&] { EXPECT_EQ(ReadIniFile(path.c_str(), "HTTP"), 0); });
    say("[HTTP]\nSendEOT=1\nVoltageMaxAge=7\n");
    EXPECT_TRUE(test::Eventually([] { return LoadShared(uiVoltageMaxAge) == 7; }));
    EXPECT_EQ(LoadShared(ucEntityTerminator), 0);
    say("EOTString=end\n");
    close(ends[1]);
    reader.join();
    close(ends[0]);
    EXPECT_EQ(ucEntityTerminator, 1);
    EXPECT_STREQ(szEntityTerminator, "end");
}

TEST_F(IniFile, RefusesATerminatorSwitchWithoutAnEqualSign) {
    EXPECT_EQ(Read("[HTTP]\nSendEOT\nAuthRealm=Workshop\n"), -1);
    EXPECT_STRNE(szConfigAuthRealm, "Workshop");
}

TEST_F(IniFile, SwitchesTheTerminatorThoughALaterLineIsBad) {
    EXPECT_EQ(Read("[HTTP]\nSendEOT=1\nVerbosity=LOG\n"), -1);
    EXPECT_EQ(ucEntityTerminator, 1);
}

// --- reconfiguration --------------------------------------------------------------------------------------

TEST_F(Reconfiguration, CountsAndRaisesItsFlag) {
    const std::string path = Write("[HTTP]\nServicePort=8080\n[RPC]\nVoltageFile=rpc\n");
    EXPECT_EQ(Reconfig(path.c_str()), 0);
    EXPECT_EQ(Changes(),
              (Settings{{"szConfigSvcPort", "8080"}, {"ucReconfigured", "1"}, {"uiReconfigurations", "1"}}));
    EXPECT_EQ(Reconfig(path.c_str()), 0);
    EXPECT_EQ(uiReconfigurations, 2U);
}

TEST_F(Reconfiguration, KeepsWhatTheFileNoLongerSays) {
    EXPECT_EQ(Read("[HTTP]\nServicePort=8080\nMethodsAllowed=GET\nAuthRealm=Old\n"), 0);
    EXPECT_EQ(Reconfig(Write("[HTTP]\nMethodsAllowed=POST\nAuthRealm=New\n").c_str()), 0);
    EXPECT_STREQ(szConfigSvcPort, "8080");
    EXPECT_STREQ(szConfigAuthRealm, "New");
    EXPECT_EQ(MethodsAllowed(), "10100000");
}

TEST_F(Reconfiguration, FailsWithWhatWasReadInForce) {
    EXPECT_EQ(Reconfig(Write("[HTTP]\nServicePort=8080\nVerbosity=LOG\nAuthRealm=behind\n").c_str()), -1);
    EXPECT_EQ(Changes(), (Settings{{"szConfigSvcPort", "8080"}}));
}

TEST_F(Reconfiguration, FailsWithoutAFile) {
    EXPECT_EQ(Reconfig(Path().c_str()), -1);
    EXPECT_EQ(Reconfig(""), -1);
    EXPECT_EQ(Reconfig(Folder().c_str()), -1);
    EXPECT_EQ(Changes(), Settings());
}

TEST_F(Reconfiguration, AssertsAPath) {
    EXPECT_DEATH(Reconfig(nullptr), Assertion(kSource, "ReadIniFile", "szPath != __null"));
}

// --- the dump ---------------------------------------------------------------------------------------------

// What is dumped to a stream of its own, the build's date replaced by "DATE". It must be there without
// closing the stream.
std::string Dumped(int expectedResult = 0) {
    char* text = nullptr;
    std::size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    EXPECT_EQ(DumpConfiguration(stream), expectedResult);
    std::string dump(text != nullptr ? text : "", size);
    std::fclose(stream);
    std::free(text);
    static const std::regex date(
        "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123]\\d \\d{4}, \\d\\d:\\d\\d:\\d\\d");
    return std::regex_replace(dump, date, "DATE");
}

constexpr const char* kDefaultDump = "\n"
                                     "\n Reconfiguration counter: 0"
                                     "\n  Tavrin build number: 418"
                                     "\n    Tavrin build date: DATE"
                                     "\n      Level of verbosity: VERBOSITY_WARN"
                                     "\n  Valid client addresses: 127.0.0.1"
                                     "\n    Local access allowed: no"
                                     "\n   HTTP protocol version: 1.1"
                                     "\n            Service port: www"
                                     "\n         Service address: 127.0.0.1"
                                     "\n  Entity terminator used: no"
                                     "\n Authentication required: no"
                                     "\n    HTTP methods allowed: "
                                     "\n    Semaphore protection: no"
                                     "\n Allow Netscape JVM POST: no"
                                     "\n    Value of SEMA_CIPLIB: -1"
                                     "\n";

TEST_F(Dump, PrintsTheDefaults) {
    const test::CaptureStdout capture;
    EXPECT_EQ(Dumped(), kDefaultDump);
    EXPECT_EQ(capture.Text(), "\nDumpConfiguration+DumpConfiguration-\n");
    EXPECT_EQ(semaphoresRead, std::vector<int>{12345679});
}

TEST_F(Dump, PrintsEverySetting) {
    EXPECT_EQ(Read("[HTTP]\n"
                   "ClientsAccepted=10.0.0.1 10.0.0.2\nProtocolVersion=1.0\nSendEOT=1\nEOTString=the end\n"
                   "AuthRequired=1\nAuthInfo=dXNlcjpwYXNz\nAuthRealm=Workshop\n"
                   "MethodsAllowed=CONNECT GET PUT POST HEAD DELETE TRACE OPTIONS\n"
                   "Verbosity=VERBOSITY_ALL\nLogfile=/var/log/tnd\nServicePort=8080\nServiceAddr=10.0.0.9\n"
                   "SupportNetscapeVM=1\nVoltageFile=/var/voltage\nVoltageMaxAge=60\nVoltageFromCar=1\n"
                   "LocalAccessAllowed=1\n"),
              0);
    ucSemaProtection = 1;
    uiReconfigurations = 12;
    semaphoreValue = 3;
    const test::CaptureStdout capture;
    EXPECT_EQ(Dumped(), "\n"
                        "\n Reconfiguration counter: 12"
                        "\n  Tavrin build number: 418"
                        "\n    Tavrin build date: DATE"
                        "\n      Level of verbosity: VERBOSITY_ALL"
                        "\n  Valid client addresses: 10.0.0.1 10.0.0.2"
                        "\n    Local access allowed: yes"
                        "\n   HTTP protocol version: 1.0"
                        "\n            Service port: 8080"
                        "\n         Service address: 10.0.0.9"
                        "\n  Entity terminator used: yes"
                        "\nEntity terminator string: the end"
                        "\n Authentication required: yes"
                        "\n     Authentication info: dXNlcjpwYXNz"
                        "\n    Authentication realm: Workshop"
                        "\n    HTTP methods allowed: GET PUT POST HEAD DELETE TRACE OPTIONS CONNECT "
                        "\n    Semaphore protection: yes"
                        "\n                Log file: /var/log/tnd"
                        "\n            Voltage file: /var/voltage"
                        "\n  Voltage max. age (sec): 60"
                        "\n    Try voltage from Car: yes"
                        "\n Allow Netscape JVM POST: yes"
                        "\n    Value of SEMA_CIPLIB: 3"
                        "\n");
}

// The dump of the defaults with one line in place of another, or behind it.
std::string DefaultDumpWith(const std::string& line, const std::string& replacement) {
    std::string dump = kDefaultDump;
    const std::size_t at = dump.find(line);
    EXPECT_NE(at, std::string::npos) << line;
    return dump.replace(at, line.size(), replacement);
}

TEST_F(Dump, ShowsWhatBelongsToAFlagOnlyWithTheFlag) {
    const test::CaptureStdout capture;
    StoreSharedText(szEntityTerminator, "unused");
    StoreSharedText(szConfigAuthInfo, "secret");
    uiVoltageMaxAge = 60;
    EXPECT_EQ(Dumped(), kDefaultDump);
}

TEST_F(Dump, ShowsEmptyTextsOfARaisedFlag) {
    const test::CaptureStdout capture;
    ucEntityTerminator = 1;
    EXPECT_EQ(Dumped(), DefaultDumpWith("used: no", "used: yes\nEntity terminator string: "));
    ucEntityTerminator = 0;
    ucAuthRequired = 1;
    EXPECT_EQ(Dumped(), DefaultDumpWith("required: no", "required: yes\n     Authentication info: "
                                                        "\n    Authentication realm: Tavrin"));
}

TEST_F(Dump, ShowsTheAgeOnlyWithAVoltageFile) {
    const test::CaptureStdout capture;
    const std::string protection = "\n    Semaphore protection: no";
    StoreSharedText(szConfigVoltageFile, "/v");
    EXPECT_EQ(Dumped(), DefaultDumpWith(protection, protection + "\n            Voltage file: /v"
                                                                 "\n  Voltage max. age (sec): 120"));
    uiVoltageMaxAge = 4294967295;
    EXPECT_EQ(Dumped(), DefaultDumpWith(protection, protection + "\n            Voltage file: /v"
                                                                 "\n  Voltage max. age (sec): -1"));
    StoreSharedText(szConfigVoltageFile, "");
    ucVoltageFromCar = 1;
    EXPECT_EQ(Dumped(), DefaultDumpWith(protection, protection + "\n    Try voltage from Car: yes"));
}

TEST_F(Dump, NamesEveryLevel) {
    const test::CaptureStdout capture;
    for (unsigned char level = 1; level < std::size(kLevels); ++level) {
        ucVerbosity = level;
        EXPECT_EQ(Dumped(), DefaultDumpWith("VERBOSITY_WARN", kLevels[level]));
    }
    ucVerbosity = 255;
    EXPECT_EQ(Dumped(), DefaultDumpWith("VERBOSITY_WARN", "VERBOSITY_ALL")) << "above the table";
}

TEST_F(Dump, ListsTheMethodsInTheOrderOfTheirSlots) {
    const test::CaptureStdout capture;
    aiMethodsAllowed[7] = aiMethodsAllowed[2] = aiMethodsAllowed[0] = 1;
    EXPECT_EQ(Dumped(), DefaultDumpWith("allowed: \n", "allowed: GET POST CONNECT \n"));
}

TEST_F(Dump, PrintsWhyTheSemaphoreCouldNotBeRead) {
    const test::CaptureStdout capture;
    for (const int value : {-2, -1, 0, 1, 32767}) {
        semaphoreValue = value;
        EXPECT_EQ(Dumped(), DefaultDumpWith("CIPLIB: -1", "CIPLIB: " + std::to_string(value)));
    }
}

TEST_F(Dump, PrintsNothingAtVerbosityNoneButReadsTheSemaphore) {
    const test::CaptureStdout capture;
    ucVerbosity = VERBOSITY_NONE;
    EXPECT_EQ(Dumped(), "");
    EXPECT_EQ(capture.Text(), "");
    EXPECT_EQ(semaphoresRead, std::vector<int>{12345679});
}

TEST_F(Dump, MixesWithItsTracesInOrderOnOneStream) {
    for (FILE* const stream : {stdout, static_cast<FILE*>(nullptr)}) {
        const test::CaptureStdout capture;
        EXPECT_EQ(DumpConfiguration(stream), 0);
        const std::string text = capture.Text();
        EXPECT_TRUE(text.starts_with("\n\nDumpConfiguration+\n Reconfiguration counter: 0\n")) << text;
        EXPECT_TRUE(text.ends_with("\n    Value of SEMA_CIPLIB: -1\nDumpConfiguration-\n")) << text;
    }
}

} // namespace
} // namespace rdx
