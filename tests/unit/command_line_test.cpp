#include "server/rdxhttp.h"

#include "common/config.h"
#include "tests/support/capture.h"
#include "tests/support/entry.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>

namespace {

using namespace rdx;
using namespace rdx::test;

// --- the command line ----------------------------------------------------------------------------------

class CommandLineTest : public RdxHttpTest {
protected:
    int Parse(std::initializer_list<std::string> words) {
        Arguments arguments(words);
        return ParseCommandLine(arguments.argc(), arguments.argv(), port_);
    }

    char port_[RDXHTTP_PORT_SIZE] = "before";
};

TEST_F(CommandLineTest, MayBeEmpty) {
    nMaxThreads = 7;
    EXPECT_EQ(Parse({}), 0);
    EXPECT_STREQ(port_, "before");
    EXPECT_EQ(nMaxThreads, 7);
    EXPECT_EQ(uiAdminServerPort, 0U);
    EXPECT_EQ(ParseCommandLine(0, nullptr, port_), 0);
}

TEST_F(CommandLineTest, KeepsFifteenCharactersOfAPort) {
    EXPECT_EQ(Parse({"-p", "8080"}), 0);
    EXPECT_STREQ(port_, "8080");
    EXPECT_EQ(Parse({"-p", "123456789012345"}), 0);
    EXPECT_STREQ(port_, "123456789012345");
    EXPECT_EQ(Parse({"-p", "1234567890123456"}), 0);
    EXPECT_STREQ(port_, "123456789012345");
    EXPECT_EQ(Parse({"-p", std::string(100, 'x')}), 0);
    EXPECT_STREQ(port_, std::string(15, 'x').c_str());
    EXPECT_EQ(Parse({"-p", ""}), 0);
    EXPECT_STREQ(port_, "");
}

TEST_F(CommandLineTest, KeepsThePathOfTheConfiguration) {
    const IniFile file;
    std::string longer = file.PathOf(4095);
    longer += "x"; // cut off
    const std::string fits = file.PathOf(4095);
    const std::string shorter = file.Path();
    const std::string cut = file.PathOf(4096); // its last character is missing then
    const struct {
        const std::string& path;
        int found;
    } rows[] = {{shorter, 1}, {fits, 1}, {longer, 1}, {cut, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path.size());
        EXPECT_EQ(Parse({"-c", row.path}), 0);
        ucReconfigured = 0;
        const CaptureStdout quiet;
        SignalHandler(SIGUSR1);
        EXPECT_EQ(ucReconfigured, row.found);
    }
}

TEST_F(CommandLineTest, LimitsThreadsToAtLeastOne) {
    const struct {
        const char* value;
        int threads;
    } rows[] = {{"0", 1},
                {"-3", 1},
                {"1", 1},
                {"8", 8},
                {"99999999999", 2147483647},
                {"x", 1},
                {"", 1},
                {"8x", 8},
                {" 12", 12},
                {"-99999999999", 1},
                {"+5", 5},
                {"2147483648", 2147483647}};
    for (const auto& row : rows) {
        nMaxThreads = 77;
        EXPECT_EQ(Parse({"-mt", row.value}), 0);
        EXPECT_EQ(nMaxThreads, row.threads) << row.value;
    }
}

TEST_F(CommandLineTest, TakesAnAdministrationServer) {
    const struct {
        const char* value;
        int result;
        const char* host;
        unsigned port;
    } rows[] = {
        {"admin", 0, "admin", 80},
        {"192.0.2.1", 0, "192.0.2.1", 80},
        {"admin:8080", 0, "admin", 8080},
        {"admin:0", 0, "admin", 0},
        {"admin:80x", 0, "admin", 80},
        {"admin:1:2", 0, "admin", 1},
        {"admin:123456789012345", 0, "admin", 2147483647},
        {"admin:0000000000000801", 0, "admin", 80}, // 15 of 16 digits
        {":8080", 0, "", 8080},
        {"", 0, "", 80},
        {"admin:", -1, "admin", 7},
        {"admin:http", -1, "admin", 7},
        {"admin:-1", -1, "admin", 7},
        {"admin: 1", -1, "admin", 7},
        {"admin:+1", -1, "admin", 7},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        std::strcpy(szAdminServerHost, "before");
        uiAdminServerPort = 7;
        EXPECT_EQ(Parse({"-as", row.value}), row.result);
        EXPECT_STREQ(szAdminServerHost, row.host);
        EXPECT_EQ(uiAdminServerPort, row.port);
    }
}

TEST_F(CommandLineTest, CutsTheAdministrationServerAtItsColonInPlace) {
    Arguments arguments{"-as", "admin:8080"};
    EXPECT_EQ(ParseCommandLine(arguments.argc(), arguments.argv(), port_), 0);
    EXPECT_STREQ(arguments.argv()[2], "admin");
    EXPECT_STREQ(arguments.argv()[2] + 6, "8080");
}

TEST_F(CommandLineTest, CutsALongAdministrationServer) {
    EXPECT_EQ(Parse({"-as", std::string(128, 'h')}), 0);
    EXPECT_EQ(szAdminServerHost, std::string(128, 'h'));
    EXPECT_EQ(Parse({"-as", std::string(129, 'h') + ":90"}), 0);
    EXPECT_EQ(szAdminServerHost, std::string(128, 'h'));
    EXPECT_EQ(uiAdminServerPort, 90U);
}

TEST_F(CommandLineTest, KeepsNineteenCharactersOfTheCredentials) {
    const std::string letters = "abcdefghijklmnopqrstuvwxyz";
    for (const std::size_t length : {0U, 1U, 18U, 19U, 20U, 25U, 26U}) {
        std::strcpy(szAuthInfo, "before");
        EXPECT_EQ(Parse({"-ba", letters.substr(0, length)}), 0) << length;
        EXPECT_EQ(szAuthInfo, "Basic " + letters.substr(0, std::min<std::size_t>(length, 19))) << length;
    }
    std::strcpy(szAuthInfo, "before");
    EXPECT_EQ(Parse({"-ba", letters + "0"}), -1);
    EXPECT_EQ(Parse({"-ba", std::string(1000, 'x')}), -1);
    EXPECT_STREQ(szAuthInfo, "before");
}

TEST_F(CommandLineTest, RefusesAnOptionWithoutItsValue) {
    for (const char* option : {"-p", "-c", "-mt", "-as", "-ba"}) {
        EXPECT_EQ(Parse({option}), -1) << option;
        EXPECT_EQ(Parse({"-mt", "3", option}), -1) << option;
    }
}

TEST_F(CommandLineTest, RefusesUnknownWords) {
    for (const char* word : {"-x", "", "p", "-P", "-pp", "--p", "-m", "-mtx", "8080", "-"}) {
        EXPECT_EQ(Parse({word, "1"}), -1) << word;
        EXPECT_EQ(Parse({word}), -1) << word;
    }
}

TEST_F(CommandLineTest, KeepsWhatCameBeforeTheFirstError) {
    EXPECT_EQ(Parse({"-mt", "5", "-p", "81", "-x", "-mt", "6"}), -1);
    EXPECT_EQ(nMaxThreads, 5);
    EXPECT_STREQ(port_, "81");
    EXPECT_EQ(Parse({"-mt", "4", "-as", "h:x", "-mt", "6"}), -1);
    EXPECT_EQ(nMaxThreads, 4);
}

TEST_F(CommandLineTest, TakesOptionsInAnyOrderAndTheLastOfEach) {
    EXPECT_EQ(Parse({"-ba", "abc", "-as", "a:1", "-mt", "2", "-p", "80", "-mt", "3", "-as", "b"}), 0);
    EXPECT_STREQ(szAuthInfo, "Basic abc");
    EXPECT_STREQ(szAdminServerHost, "b");
    EXPECT_EQ(uiAdminServerPort, 80U);
    EXPECT_EQ(nMaxThreads, 3);
    EXPECT_STREQ(port_, "80");
}

TEST_F(CommandLineTest, TakesAnOptionsWordForAValue) {
    EXPECT_EQ(Parse({"-p", "-c"}), 0);
    EXPECT_STREQ(port_, "-c");
}

} // namespace
