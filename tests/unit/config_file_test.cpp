#include "common/config.h"

#include "common/entity_terminator.h"
#include "common/mt.h"
#include "common/shared.h"
#include "tests/support/assertion.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/settings.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>

namespace rdx {
namespace {

using namespace std::string_literals;
using namespace test;

constexpr const char* kSource = "common/config.cpp";

class IniFile : public Config {
protected:
    // Reads a file over the settings as they are.
    int Overlay(std::string_view content) { return ReadIniFile(Write(content).c_str(), "HTTP"); }
};
class Reconfiguration : public Config {};

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

TEST_F(IniFile, TakesTheTerminatorsTextAtTheEndToo) {
    EXPECT_EQ(Overlay("[HTTP]\nSendEOT=1\nEOTString=END\n"), 0);
    EXPECT_EQ(Overlay("[HTTP]\nEOTString=STOP\nEOTString=" + std::string(65, 'x') + "\nSendEOT=0\n"), -3);
    EXPECT_EQ(ucEntityTerminator, 1) << "the line behind the bad one is not read";
    EXPECT_STREQ(szEntityTerminator, "STOP");
    EXPECT_EQ(Overlay("[HTTP]\nEOTString\n"), -1);
    EXPECT_EQ(Overlay("[HTTP]\nEOTString=\nSendEOT=0\n"), 0);
    EXPECT_EQ(ucEntityTerminator, 0);
    EXPECT_STREQ(szEntityTerminator, "");
}

// Of another section, for one: what was changed while it was read stays.
TEST_F(IniFile, LeavesTheTerminatorToOthersUnlessItNamesIt) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string path = "/proc/self/fd/" + std::to_string(ends[0]);
    const std::string text = "[RPC]\nVoltageFile=rpc\n";
    std::thread reader([&] { EXPECT_EQ(ReadIniFile(path.c_str(), "RPC"), 0); });
    ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    EXPECT_TRUE(Eventually([] { return LoadShared(szConfigVoltageFile[0]) == 'r'; }));
    StoreEntityTerminator(true, "END");
    close(ends[1]);
    reader.join();
    close(ends[0]);
    EXPECT_EQ(ucEntityTerminator, 1);
    EXPECT_STREQ(szEntityTerminator, "END");
}

// Threads take flag and text while files switch them on and off: never the one of one file and the other of
// another, whichever line stands first.
TEST_F(IniFile, ChangesTheTerminatorAsOne) {
    const char* const files[] = {"[HTTP]\nSendEOT=1\nEOTString=END\n", "[HTTP]\nEOTString=\nSendEOT=0\n",
                                 "[HTTP]\nEOTString=a longer text\nSendEOT=1\n",
                                 "[HTTP]\nSendEOT=0\nEOTString=\n"};
    std::atomic<bool> stop = false;
    std::atomic<int> taken = 0;
    std::atomic<int> torn = 0;
    const auto take = [&] {
        while (!stop) {
            const EntityTerminator terminator = LoadEntityTerminator();
            const std::string_view text = terminator.text.View();
            const bool whole = terminator.used ? text == "END" || text == "a longer text" : text.empty();
            if (!whole) ++torn;
            ++taken;
        }
    };
    std::thread readers[] = {std::thread(take), std::thread(take)};
    for (int i = 0; i < 2000 || taken < 1000; ++i) {
        EXPECT_EQ(Overlay(files[i % 4]), 0);
    }
    stop = true;
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(torn, 0);
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

} // namespace
} // namespace rdx
