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

namespace rdx::test {

using Settings = std::map<std::string, std::string>;

inline std::string MethodsAllowed() {
    std::string slots;
    for (const int allowed : aiMethodsAllowed) slots += std::to_string(allowed);
    return slots;
}

inline Settings CurrentSettings() {
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

inline const Settings kInitial = {
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
inline Settings Changes() {
    Settings changes;
    for (const auto& [name, value] : CurrentSettings()) {
        if (value != kInitial.at(name)) changes[name] = value;
    }
    return changes;
}

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
