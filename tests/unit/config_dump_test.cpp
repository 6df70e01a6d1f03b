#include "common/config.h"

#include "common/mt.h"
#include "common/shared.h"
#include "tests/support/capture.h"
#include "tests/support/settings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <regex>
#include <string>
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

using namespace test;

class Dump : public Config {
protected:
    Dump() {
        semaphoreValue = -1;
        semaphoresRead.clear();
    }
};

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
    EXPECT_THAT(capture.Text(), test::HasLines({"DumpConfiguration+DumpConfiguration-"}));
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

// Those that requests may use: an entry of 1 or more.
TEST_F(Dump, ListsTheMethodsThatAreServed) {
    const test::CaptureStdout capture;
    aiMethodsAllowed[0] = -1;
    aiMethodsAllowed[1] = 0;
    aiMethodsAllowed[3] = 7;
    EXPECT_EQ(Dumped(), DefaultDumpWith("allowed: \n", "allowed: HEAD \n"));
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
