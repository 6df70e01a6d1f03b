// Starting: the command line, the configuration file, the results, and every line that is written.

#include "tests/system/modes.h"

#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <netinet/in.h>
#include <regex>
#include <sys/socket.h>
#include <unistd.h>

namespace rdx::test {
namespace {

// What a server wrote, with all that changes from run to run replaced: times, threads, descriptors, ports
// of peers, the build's date and the state of the machine's semaphore.
std::string Normal(std::string text) {
    static const std::pair<std::regex, const char*> kChanges[] = {
        {std::regex(R"(\[\d\d:\d\d:\d\d\])"), "[TIME]"},
        {std::regex(R"(mtPrimaryThread=-?\d+)"), "mtPrimaryThread=N"},
        {std::regex(R"(\[tid=\d+\])"), "[tid=N]"},
        {std::regex(R"(Tavrin build date: [A-Z][a-z]{2} [ \d]\d \d{4}, \d\d:\d\d:\d\d\n)"),
         "Tavrin build date: D\n"},
        {std::regex(R"(SEMA_CIPLIB: -?\d+)"), "SEMA_CIPLIB: N"},
    };
    for (const auto& [pattern, replacement] : kChanges) {
        text = std::regex_replace(text, pattern, replacement);
    }
    return text;
}

// Traces of one call carry descriptors and the peer's port besides.
std::string NormalCall(const std::string& text) {
    std::string normal = Normal(text);
    static const std::pair<std::regex, const char*> kChanges[] = {
        {std::regex(R"(socket \(\d+\))"), "socket (D)"},
        {std::regex(R"(descriptor \(\d+\))"), "descriptor (D)"},
        {std::regex(R"(set \(\d+\))"), "set (D)"},
        {std::regex(R"(again \(\d+\))"), "again (D)"},
        {std::regex(R"(closed \(\d+\))"), "closed (D)"},
        {std::regex(R"(handle = \d+)"), "handle = D"},
        {std::regex(R"(thread ID = \(-?\d+\))"), "thread ID = (N)"},
        {std::regex(R"(szPeerName = 127\.0\.0\.1:\d+)"), "szPeerName = 127.0.0.1:P"},
    };
    for (const auto& [pattern, replacement] : kChanges) {
        normal = std::regex_replace(normal, pattern, replacement);
    }
    return normal;
}

// The same without threads in lines whose form is free.
std::string WithoutThreads(const std::string& text) {
    static const std::regex thread(R"( \[tid=N\])");
    return std::regex_replace(text, thread, "");
}

std::string Dump(const std::string& level, int port) {
    return "\n\nDumpConfiguration+\n Reconfiguration counter: 0"
           "\n  Tavrin build number: 418"
           "\n    Tavrin build date: D"
           "\n      Level of verbosity: " +
           level +
           "\n  Valid client addresses: 127.0.0.1"
           "\n    Local access allowed: no"
           "\n   HTTP protocol version: 1.1"
           "\n            Service port: " +
           std::to_string(port) +
           "\n         Service address: 127.0.0.1"
           "\n  Entity terminator used: no"
           "\n Authentication required: no"
           "\n    HTTP methods allowed: GET POST "
           "\n    Semaphore protection: no"
           "\n Allow Netscape JVM POST: no"
           "\n    Value of SEMA_CIPLIB: N\nDumpConfiguration-\n";
}

std::optional<int> ResultOf(const std::vector<std::string>& arguments, std::string* output = nullptr) {
    Server server;
    const auto ending = server.Run(arguments);
    if (output != nullptr) *output = Normal(server.Output());
    if (!ending || ending->signal != 0) return std::nullopt;
    return ending->result;
}

std::optional<int> ResultWithFile(const std::string& text) {
    TemporaryFolder folder;
    WriteFile(folder.Path() + "/file", text);
    return ResultOf({"-c", folder.Path() + "/file"});
}

TEST(CommandLine, IsRefusedBeforeAnyFileIsRead) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"-x"},
                                               {"help"},
                                               {""},
                                               {"-c", "/nowhere/at/all", "-unknown"},
                                               {"-P", "8080"},
                                               {"-p"},
                                               {"-c"},
                                               {"-mt"},
                                               {"-as"},
                                               {"-ba"},
                                               {"-as", "host:www"},
                                               {"-as", "host:"},
                                               {"-ba", std::string(27, 'x')}}) {
        std::string output;
        EXPECT_EQ(ResultOf(arguments, &output), -1) << arguments[0];
        EXPECT_EQ(output, "\n[TIME],main(): rdxhttp_main (0)") << arguments[0];
    }
}

TEST(CommandLine, TakesWhatEachOptionAllows) {
    TemporaryFolder folder; // a folder cannot be read as a file: the next step fails
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"-ba", std::string(26, 'x')},
                                               {"-as", "host"},
                                               {"-as", "host:8080"},
                                               {"-p", "12345678901234567890"},
                                               {"-mt", "-3"}}) {
        std::vector<std::string> all = arguments;
        all.insert(all.end(), {"-c", folder.Path() + "/missing"});
        EXPECT_EQ(ResultOf(all), -2) << arguments[1];
    }
}

TEST(CommandLine, WithAnAdministrationServerChangesNothingForOrdinaryCalls) {
    Server server;
    ASSERT_TRUE(server.Start({"-as", "127.0.0.1:9", "-ba", "dXNlcjpwYXNz"}));
    EXPECT_EQ(Ask(server.Port(), VersionCall()).text, VersionAnswer());
    EXPECT_EQ(Ask(server.Port(), UnknownTarget()).text, NotFoundAnswer());
}

TEST(Configuration, ThatCannotBeReadEndsTheStart) {
    if (!std::filesystem::exists("/etc/tnd.ini")) {
        EXPECT_EQ(ResultOf({}), -2);
    }
    EXPECT_EQ(ResultOf({"-c", "/nowhere/at/all"}), -2);
    EXPECT_EQ(ResultOf({"-c", ""}), -2);
}

TEST(Configuration, WithABadLineEndsTheStart) {
    for (const char* line :
         {"Verbosity=LOG", "Verbosity=", "Verbosity", "MethodsAllowed=FOO", "MethodsAllowed=GET;POST",
          "ServicePort=1234567890123", "ServiceAddr=12345678901234567", "VoltageMaxAge=0",
          "VoltageMaxAge=never", "VoltageMaxAge=123456789",
          "AuthInfo=1234567890123456789012345678901234567890123456789",
          "AuthRealm=123456789012345678901234567890123",
          "EOTString=12345678901234567890123456789012345678901234567890123456789012345"}) {
        EXPECT_EQ(ResultWithFile(std::string("[HTTP]\n") + line + "\n"), -2) << line;
    }
}

TEST(Configuration, EndsItsSectionAtAnUnknownKey) {
    Server server;
    server.WriteSettings({"Unknown=1", "Verbosity=LOUD"});
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(Ask(server.Port(), VersionCall()).status, 200);
}

TEST(Configuration, IgnoresOtherSectionsCommentsAndEmptyLines) {
    Server server;
    WriteFile(server.ConfigurationPath(), "Verbosity=LOUD\n[TCP]\nVerbosity=LOUD\n\n; note\n# note\n"
                                          "  [MYHTTPSECTION]\n;Verbosity=LOUD\n servicePORT = " +
                                              std::to_string(server.Port()) +
                                              " \nmethodsallowed=\tpost,  get\n[TCP]\nVerbosity=LOUD\n");
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(Ask(server.Port(), VersionCall()).status, 200);
    EXPECT_EQ(Ask(server.Port(), UnknownTarget()).status, 404);
}

TEST(Configuration, DecidesWhichMethodsAreAllowed) {
    Server server;
    WriteFile(server.ConfigurationPath(),
              "[HTTP]\nServicePort=" + std::to_string(server.Port()) + "\nMethodsAllowed=POST,PUT\n");
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(Ask(server.Port(), VersionCall()).status, 200);
    EXPECT_EQ(Ask(server.Port(), UnknownTarget()).text, NotAllowedAnswer());
    EXPECT_EQ(Ask(server.Port(), Request("PUT /nowhere HTTP/1.1", {"Host: a"})).status, 404);
}

TEST(Configuration, AllowsNoMethodByDefault) {
    Server server;
    WriteFile(server.ConfigurationPath(), "[HTTP]\nServicePort=" + std::to_string(server.Port()) + "\n");
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(Ask(server.Port(), VersionCall()).text, NotAllowedAnswer());
    EXPECT_NE(server.Output().find("\n    HTTP methods allowed: \n"), std::string::npos);
}

TEST(Port, ThatIsTakenEndsTheStart) {
    Server server;
    const int taken = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(server.Port()));
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    const auto ending = server.Run({"-c", server.ConfigurationPath()});
    close(taken);
    ASSERT_TRUE(ending);
    EXPECT_EQ(ending->signal, 0);
    EXPECT_EQ(ending->result, -9);
}

TEST(Port, ThatIsNeitherANumberNorAServiceEndsTheStart) {
    EXPECT_EQ(ResultWithFile("[HTTP]\nServicePort=nosuchsvc\n"), -9);
    EXPECT_EQ(ResultWithFile("[HTTP]\nServicePort=0\n"), -9);
}

TEST(Port, OfTheFileWinsOverTheCommandLine) {
    PortReservation other;
    Server server({.settings = {"Verbosity=VERBOSITY_LOG"}});
    ASSERT_TRUE(server.Start({"-p", std::to_string(other.Port())}));
    EXPECT_FALSE(Client(other.Port()).Connected());
    EXPECT_EQ(Ask(server.Port(), VersionCall()).status, 200);
    EXPECT_EQ(CountOf("main(): warning - svc port from config file overrides cmdline or default param <" +
                          std::to_string(server.Port()) + ">",
                      server.Output()),
              1);
}

TEST(Port, ThatIsTheSameInBothNeedsNoWarning) {
    Server server({.settings = {"Verbosity=VERBOSITY_LOG"}});
    ASSERT_TRUE(server.Start({"-p", std::to_string(server.Port())}));
    EXPECT_EQ(CountOf("overrides", server.Output()), 0);
    EXPECT_EQ(Ask(server.Port(), VersionCall()).status, 200);
}

TEST(Port, IsTheOneOfTheWebWhenTheFileNamesNone) {
    if (!CanHaveOwnNetwork()) GTEST_SKIP() << "this system gives no process a network of its own";
    Server server({.ownNetwork = true});
    WriteFile(server.ConfigurationPath(), "[HTTP]\nVerbosity=VERBOSITY_LOG\nMethodsAllowed=GET\n");
    ASSERT_TRUE(server.Start({"-p", "8080"}));
    const std::string listening = ReadFile("/proc/" + std::to_string(server.Pid()) + "/net/tcp");
    EXPECT_EQ(CountOf("00000000:0050 00000000:0000 0A", listening), 1) << listening;
    EXPECT_EQ(CountOf(":1F90 ", listening), 0) << listening;
    EXPECT_EQ(CountOf("overrides cmdline or default param <www>", server.Output()), 1);
}

TEST(Threads, BelowOneBecomeOne) {
    for (const char* number : {"0", "-3", "many", "1"}) {
        Server server;
        ASSERT_TRUE(server.Start({"-mt", number}));
        EXPECT_EQ(CountOf("main(): running single threaded server (1)", server.Output()), 1) << number;
        EXPECT_EQ(Ask(server.Port(), VersionCall()).status, 200);
        EXPECT_TRUE(server.WaitForServingThreads(0));
    }
}

// Everything that is written from the start to the end of a server that is never called.

std::string WholeRun(const std::string& level, const std::string& port, int threads = 1) {
    Server server({.settings = {"Verbosity=" + level}, .threads = threads});
    if (!server.Start()) return "did not start";
    if (!server.WaitForOutput("mtPrimaryThread=")) return "did not serve";
    server.Signal(SIGTERM);
    if (!server.WaitForEnd()) return "did not end";
    EXPECT_EQ(server.Errors(), "");
    std::string text = Normal(server.Output());
    const std::string number = std::to_string(server.Port());
    for (std::size_t at = text.find(number); at != std::string::npos; at = text.find(number)) {
        text.replace(at, number.size(), port);
    }
    return text;
}

constexpr const char* kStart = "\n[TIME],main(): rdxhttp_main (0)"
                               "\n[TIME],main(): running single threaded server (1)";
constexpr const char* kStartedThreads = "\n[TIME],InitThreadLib(): running POSIX threads (0)"
                                        "\nmtPrimaryThread=N";
constexpr const char* kTerminated = "\nSignal handling 15"
                                    "\n[TIME],SignalHandler(): handling signal <SIGTERM>"
                                    "\nucTerminated=0";

TEST(Log, AtVerbosityNoneHoldsTheBannerAndTheSignal) {
    EXPECT_EQ(WholeRun("VERBOSITY_NONE", "7777"), std::string(kStart) + kStartedThreads + kTerminated);
}

TEST(Log, BelowVerbosityLogAddsTheDump) {
    for (const char* level : {"VERBOSITY_FATAL", "VERBOSITY_ERROR", "VERBOSITY_WARN"}) {
        EXPECT_EQ(WholeRun(level, "7777"), kStart + Dump(level, 7777) + kStartedThreads + kTerminated);
    }
}

TEST(Log, FromVerbosityLogAddsTheProgress) {
    for (const char* level : {"VERBOSITY_LOG", "VERBOSITY_ALL"}) {
        EXPECT_EQ(WholeRun(level, "7777"),
                  std::string(kStart) +
                      "\n[TIME],InitSignalHandling(): signal handler installed (10)"
                      "\n[TIME],main(): socket library initialized (0)" +
                      Dump(level, 7777) +
                      "\n[TIME],main(): warning - svc port from config file overrides cmdline or default "
                      "param <7777>"
                      "\n[TIME],main(): server socket created (0)" +
                      kStartedThreads + kTerminated + "\n[TIME],main(): ordinary HTTP server shutdown (0)");
    }
}

TEST(Log, NamesTheNumberOfThreads) {
    EXPECT_EQ(WholeRun("VERBOSITY_NONE", "7777", 5),
              std::string("\n[TIME],main(): rdxhttp_main (0)"
                          "\n[TIME],main(): MT server - maximum concurrency level = (5) [tid=N]") +
                  kStartedThreads + kTerminated);
}

TEST(Log, DumpsEverySetting) {
    const std::vector<std::string> settings = {"ClientsAccepted=10.0.0.1 10.0.0.2",
                                               "ProtocolVersion=1.0",
                                               "SendEOT=TRUE",
                                               "EOTString=<<END>>",
                                               "AuthRequired=true",
                                               "AuthInfo=dXNlcjpwYXNz",
                                               "AuthRealm=Somewhere",
                                               "ServiceAddr=10.0.0.9",
                                               "MethodsAllowed=connect options trace delete head put",
                                               "Logfile=/var/log/some.log",
                                               "SupportNetscapeVM=1",
                                               "VoltageFile=/tmp/voltage",
                                               "VoltageMaxAge=30",
                                               "VoltageFromCar=yes",
                                               "LocalAccessAllowed=1"};
    Server server({.settings = settings});
    ASSERT_TRUE(server.Start());
    const std::string text = Normal(server.Output());
    const std::string expected = "\n\nDumpConfiguration+\n Reconfiguration counter: 0"
                                 "\n  Tavrin build number: 418"
                                 "\n    Tavrin build date: D"
                                 "\n      Level of verbosity: VERBOSITY_WARN"
                                 "\n  Valid client addresses: 10.0.0.1 10.0.0.2"
                                 "\n    Local access allowed: yes"
                                 "\n   HTTP protocol version: 1.0"
                                 "\n            Service port: " +
                                 std::to_string(server.Port()) +
                                 "\n         Service address: 10.0.0.9"
                                 "\n  Entity terminator used: yes"
                                 "\nEntity terminator string: <<END>>"
                                 "\n Authentication required: yes"
                                 "\n     Authentication info: dXNlcjpwYXNz"
                                 "\n    Authentication realm: Somewhere"
                                 "\n    HTTP methods allowed: GET PUT POST HEAD DELETE TRACE OPTIONS CONNECT "
                                 "\n    Semaphore protection: no"
                                 "\n                Log file: /var/log/some.log"
                                 "\n            Voltage file: /tmp/voltage"
                                 "\n  Voltage max. age (sec): 30"
                                 "\n    Try voltage from Car: yes"
                                 "\n Allow Netscape JVM POST: yes"
                                 "\n    Value of SEMA_CIPLIB: N\nDumpConfiguration-\n";
    EXPECT_NE(text.find(expected), std::string::npos) << text;
}

// What one call adds, from the moment at which its connection is accepted.
std::string TracesOfACall(const std::string& level, const std::string& request, const std::string& last) {
    Server server({.settings = {"Verbosity=" + level}});
    if (!server.Start() || !server.WaitForOutput("mtPrimaryThread=")) return "did not start";
    const std::string before = NormalCall(server.Output());
    Client client(server.Port());
    client.Send(request);
    client.ReadAnswer();
    if (!server.WaitForOutput(last)) return "did not finish";
    return NormalCall(server.Output()).substr(before.size());
}

std::string Lengths(const std::string& body, const std::string& answer, std::string text) {
    const std::pair<std::string, std::string> changes[] = {{"BODY", std::to_string(body.size())},
                                                           {"SENT", std::to_string(answer.size())}};
    for (const auto& [word, number] : changes) {
        for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word)) {
            text.replace(at, word.size(), number);
        }
    }
    return text;
}

TEST(Traces, OfACallAreWrittenAtEveryVerbosity) {
    for (const char* level : {"VERBOSITY_NONE", "VERBOSITY_WARN"}) {
        EXPECT_EQ(TracesOfACall(level, VersionCallAndClose(), "Socket closed"),
                  Lengths(VersionPacket(), VersionAnswer(),
                          "\nHttpServer: Handling socket (D)"
                          "\nParsing: method ok (1)"
                          "\nParseHttpMethodLine ok"
                          "\nHttpHeaders: uiBodyLength=BODY"
                          "\nReadPostData: received BODY bytes"
                          "\nConsumeHttpRequest: szPeerName = 127.0.0.1:P"
                          "\nrDxProcessCall: Req=rdxGetVersion\n"
                          "\nProcessGetVersion"
                          "ServeClient: HTTP_OK"
                          "\nServeClientDone: Socket closed"))
            << level;
    }
}

TEST(Traces, OfACallAtVerbosityLogNameThePeerAndTheBytes) {
    EXPECT_EQ(WithoutThreads(TracesOfACall("VERBOSITY_LOG", VersionCallAndClose(), "Socket closed")),
              Lengths(VersionPacket(), VersionAnswer(),
                      "\n[TIME],RunHttpServer(): accepted connection from 127.0.0.1 (clnt socket handle = D)"
                      "\nHttpServer: Handling socket (D)"
                      "\nParsing: method ok (1)"
                      "\nParseHttpMethodLine ok"
                      "\nHttpHeaders: uiBodyLength=BODY"
                      "\nReadPostData: received BODY bytes"
                      "\nConsumeHttpRequest: szPeerName = 127.0.0.1:P"
                      "\nrDxProcessCall: Req=rdxGetVersion\n"
                      "\nProcessGetVersion"
                      "ServeClient: HTTP_OK"
                      "\n[TIME],ServeClient(): sent bytes successfully (SENT)"
                      "\nServeClientDone: Socket closed"));
}

TEST(Traces, OfACallAtVerbosityAllNameEachStep) {
    const std::string line(kVersionLine);
    const std::string text = TracesOfACall("VERBOSITY_ALL", VersionCallAndClose(), "Socket closed");
    EXPECT_NE(text.find("\n[TIME],RunHttpServer(): found activity on server socket (D) [tid=N]"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\n[TIME],ReadHttpReqHeaders(): got request line from socket, len = (" +
                        std::to_string(line.size()) + ") [tid=N]"),
              std::string::npos)
        << text;
    EXPECT_EQ(WithoutThreads(text),
              Lengths(VersionPacket(), VersionAnswer(),
                      "\n[TIME],RunHttpServer(): found activity on server socket (D)"
                      "\n[TIME],RunHttpServer(): accepted connection from 127.0.0.1 (clnt socket handle = D)"
                      "\nHttpServer: Handling socket (D)"
                      "\n[TIME],RunHttpServer(): handling service on descriptor (D)"
                      "\n[TIME],RunHttpServer(): removed handle from active set (D)"
                      "\n[TIME],ReadHttpReqHeaders(): got request line from socket, len = (" +
                          std::to_string(line.size()) +
                          ")"
                          "\nParsing: method ok (1)"
                          "\nParseHttpMethodLine ok"
                          "\nHttpHeaders: uiBodyLength=BODY"
                          "\nReadPostData: received BODY bytes"
                          "\nConsumeHttpRequest: szPeerName = 127.0.0.1:P"
                          "\nrDxProcessCall: Req=rdxGetVersion\n"
                          "\nProcessGetVersion"
                          "ServeClient: HTTP_OK"
                          "\n[TIME],ServeClient(): sent bytes successfully (SENT)"
                          "\n[TIME],ServeClientDone(): client socket closed (D)"
                          "\nServeClientDone: Socket closed"));
}

TEST(Traces, TellThatAConnectionIsKept) {
    const std::string text = TracesOfACall("VERBOSITY_ALL", VersionCall(), "active set again");
    const std::string end = "\n[TIME],ServeClientDone(): added handle to active set again (D)";
    const std::string plain = WithoutThreads(text);
    ASSERT_GT(plain.size(), end.size());
    EXPECT_EQ(plain.substr(plain.size() - end.size()), end);
    EXPECT_EQ(CountOf("Socket closed", text), 0);
}

TEST(Traces, NameTheThreadsThatServe) {
    Server server({.settings = {"Verbosity=VERBOSITY_ALL"}, .threads = 3});
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(Ask(server.Port(), VersionCallAndClose()).status, 200);
    // The two are written by different threads, in either order.
    EXPECT_TRUE(server.WaitForOutput("ThreadTerminate(): remaining threads = (0) [tid="));
    EXPECT_TRUE(server.WaitForOutput("RunHttpServer(): created thread ID = ("));
    const std::string text = WithoutThreads(NormalCall(server.Output()));
    EXPECT_EQ(CountOf("\n[TIME],RunHttpServer(): created thread ID = (N)", text), 1) << text;
}

struct Refusal {
    const char* name;
    std::string request;
    std::string trace;
};

TEST(Traces, NameEachStatus) {
    const Refusal refusals[] = {
        {"bad request", Call("rdxGetVersion", "junk"),
         "\nServeClient: HTTP_BAD_REQUEST\nServeClient-: HTTP_BAD_REQUEST 0"},
        {"unauthorized", Call("rdxReleaseDevice", "junk"), "ServeClient: HTTP_UNAUTHORIZED"},
        {"not found", UnknownTarget(), "ServeClient: HTTP_NOT_FOUND"},
        {"not allowed", Request("PUT /rDx HTTP/1.1", {"Host: a"}), "ServeClient: HTTP_METHOD_NOT_ALLOWED"},
        {"error", Request("GET /rDx HTTP/9.9", {"Host: a"}), "ServeClient: HTTP_INTERNAL_SERVER_ERROR"},
    };
    for (const Refusal& refusal : refusals) {
        Server server;
        ASSERT_TRUE(server.Start());
        EXPECT_NE(Ask(server.Port(), refusal.request).status, 0) << refusal.name;
        const std::string output = server.Output();
        EXPECT_EQ(CountOf(refusal.trace, output), 1) << refusal.name << output;
        EXPECT_EQ(CountOf("ServeClient: HTTP_", output), 1) << refusal.name;
    }
}

TEST(Traces, TellTheAllowedMethodTheShortBodyAndTheMissingCredentials) {
    Server server({.settings = {"AuthRequired=1", "AuthInfo=abc"}});
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(Ask(server.Port(), Request("DELETE / HTTP/1.1", {"Host: a"})).status, 405);
    EXPECT_TRUE(server.WaitForOutput("\nParsing: method ok (0)"));
    Client shortBody(server.Port());
    shortBody.Send("POST / HTTP/1.1\r\nContent-length: 10\r\n\r\n1234");
    shortBody.FinishSending();
    EXPECT_EQ(shortBody.ReadAnswer().text, BadRequestAnswer());
    EXPECT_TRUE(server.WaitForOutput("\nReadPostData: received just 4 bytes"));
    EXPECT_EQ(Ask(server.Port(), UnknownTarget()).status, 401);
    EXPECT_TRUE(server.WaitForOutput("\nConsumeHttpRequest: no auth"));
}

} // namespace
} // namespace rdx::test
