// The settings in tests, and files to read them from.
#ifndef RDX_TESTS_SUPPORT_SETTINGS_H
#define RDX_TESTS_SUPPORT_SETTINGS_H

#include "common/config.h"
#include "common/mt.h"
#include "tests/support/globals.h"
#include "tests/support/guarded.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace rdx::test {

using Settings = std::map<std::string, std::string>;

inline std::string MethodsAllowed() {
    std::string slots;
    for (const int allowed : aiMethodsAllowed) slots += std::to_string(allowed);
    return slots;
}

// A setting, what it holds now and what it holds first.
struct KnownSetting {
    std::string name;
    std::string current;
    std::string initial;
};

inline std::vector<KnownSetting> KnownSettings() {
    return {
        {"szClientAddresses", szClientAddresses, "127.0.0.1"},
        {"ucProtocolVersion", std::to_string(ucProtocolVersion), "11"},
        {"ucEntityTerminator", std::to_string(ucEntityTerminator), "0"},
        {"szEntityTerminator", szEntityTerminator, ""},
        {"ucAuthRequired", std::to_string(ucAuthRequired), "0"},
        {"szConfigAuthInfo", szConfigAuthInfo, ""},
        {"szConfigAuthRealm", szConfigAuthRealm, "Tavrin"},
        {"szConfigSvcPort", szConfigSvcPort, "www"},
        {"szConfigSvcAddr", szConfigSvcAddr, "127.0.0.1"},
        {"aiMethodsAllowed", MethodsAllowed(), "00000000"},
        {"ucVerbosity", std::to_string(ucVerbosity), "3"},
        {"szConfigLogfile", szConfigLogfile, ""},
        {"ucSupportNetscapeVM", std::to_string(ucSupportNetscapeVM), "0"},
        {"szConfigVoltageFile", szConfigVoltageFile, ""},
        {"uiVoltageMaxAge", std::to_string(uiVoltageMaxAge), "120"},
        {"ucVoltageFromCar", std::to_string(ucVoltageFromCar), "0"},
        {"ucLocalAccessAllowed", std::to_string(ucLocalAccessAllowed), "0"},
        {"szMorbelRemoteHost", szMorbelRemoteHost, ""},
        {"ucSemaProtection", std::to_string(ucSemaProtection), "0"},
        {"ucRunAsJunior", std::to_string(ucRunAsJunior), "0"},
        {"szAuthInfo", szAuthInfo, ""},
        {"szAdminServerHost", szAdminServerHost, ""},
        {"uiAdminServerPort", std::to_string(uiAdminServerPort), "0"},
        {"nMaxThreads", std::to_string(nMaxThreads), "1"},
        {"g_dwPostMaxSizeToRead", std::to_string(g_dwPostMaxSizeToRead), "65536"},
        {"g_dwPostMaxContLength", std::to_string(g_dwPostMaxContLength), "65536"},
        {"uiReconfigurations", std::to_string(uiReconfigurations), "0"},
        {"ucReconfigured", std::to_string(ucReconfigured), "0"},
    };
}

inline Settings CurrentSettings() {
    Settings settings;
    for (const KnownSetting& setting : KnownSettings()) settings[setting.name] = setting.current;
    return settings;
}

inline Settings InitialSettings() {
    Settings settings;
    for (const KnownSetting& setting : KnownSettings()) settings[setting.name] = setting.initial;
    return settings;
}

// The settings that are not at their initial value.
inline Settings Changes() {
    Settings changes;
    for (const KnownSetting& setting : KnownSettings()) {
        if (setting.current != setting.initial) changes[setting.name] = setting.current;
    }
    return changes;
}

// Gives every setting another value.
inline void SetEverything() {
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

// The levels of verbosity by their names in the file, lowest first.
inline constexpr const char* kLevels[] = {"VERBOSITY_NONE", "VERBOSITY_FATAL", "VERBOSITY_ERROR",
                                          "VERBOSITY_WARN", "VERBOSITY_LOG",   "VERBOSITY_ALL"};

// A folder for a test's files.
class Config : public testing::Test {
protected:
    Config() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        ResetGlobals();
    }
    ~Config() override {
        if (!folder_.empty()) std::filesystem::remove_all(folder_);
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
        ResetGlobals();
        return ReadIniFile(Write(content).c_str(), section);
    }

    // Reads one line of section HTTP over the initial settings.
    static int ReadHttp(const std::string& line) { return ReadLine(ReadHttpKey, line); }
    static int ReadRpc(const std::string& line) { return ReadLine(ReadRpcKey, line); }
    static int ReadTcp(const std::string& line) { return ReadLine(ReadTcpKey, line); }

private:
    static int ReadLine(int (*read)(char*), const std::string& line) {
        ResetGlobals();
        const GuardedBytes bytes({line.c_str(), line.size() + 1});
        const int result = read(bytes.begin());
        EXPECT_EQ(bytes.begin(), line) << "the line is left as it is";
        return result;
    }

    std::string folder_;
};

} // namespace rdx::test

#endif
