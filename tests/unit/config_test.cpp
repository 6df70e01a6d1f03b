#include "common/config.h"

#include "common/mt.h"
#include "tests/support/guarded.h"
#include "tests/support/settings.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <type_traits>

namespace rdx {
namespace {

using namespace std::string_literals;
using namespace test;

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

// Taken before any test runs.
const Settings atLoad = CurrentSettings();

class Defaults : public Config {};
class HttpKey : public Config {};
class RpcKey : public Config {};
class TcpKey : public Config {};

// --- defaults ---------------------------------------------------------------------------------------------

TEST_F(Defaults, HoldFromTheMomentTheLibraryIsLoaded) { EXPECT_EQ(atLoad, InitialSettings()); }

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

} // namespace
} // namespace rdx
