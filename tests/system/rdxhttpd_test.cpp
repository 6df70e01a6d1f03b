// The host process: what its two processes make of signals, of each other's end and of a result.

#include "tests/system/client.h"
#include "tests/system/harness.h"
#include "tests/system/messages.h"

#include <csignal>
#include <filesystem>
#include <sstream>

namespace rdx::test {
namespace {

ServerOptions Rdxhttpd(int threads = 8) { return {.threads = threads, .host = Host::kRdxhttpd}; }

// The parent's process number, the fourth word of /proc/PID/stat counted behind the name.
pid_t ParentOf(const std::string& pid) {
    const std::string stat = ReadFile("/proc/" + pid + "/stat");
    const std::size_t name = stat.rfind(')');
    if (name == std::string::npos) return -1;
    std::istringstream words(stat.substr(name + 1));
    char state = 0;
    pid_t parent = -1;
    words >> state >> parent;
    return parent;
}

// The process that runs the server of an rdxhttpd, or -1.
pid_t ChildOf(pid_t host) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        if (ParentOf(name) == host) return std::stoi(name);
    }
    return -1;
}

void ExpectEnd(Server& server, int status, const std::string& words) {
    const auto ending = server.WaitForEnd();
    ASSERT_TRUE(ending) << "rdxhttpd did not end";
    EXPECT_EQ(ending->signal, 0);
    EXPECT_EQ(ending->result, status);
    EXPECT_EQ(CountOf(words, server.Errors()), 1) << server.Errors();
}

constexpr const char* kOrdinary = "\nrdxhttpd: ordinary shutdown.\n";

TEST(Rdxhttpd, ServesAndEndsOnASignalForTheServer) {
    for (const int number : {SIGTERM, SIGHUP, SIGBUS, SIGSYS}) {
        Server server(Rdxhttpd());
        ASSERT_TRUE(server.Start());
        EXPECT_EQ(Ask(server.Port(), VersionCall()).text, VersionAnswer());
        server.Signal(number);
        ExpectEnd(server, 0, kOrdinary);
    }
}

TEST(Rdxhttpd, EndsOnAnInterruptAlthoughTheServerIgnoresIt) {
    for (const int threads : {1, 8}) {
        Server server(Rdxhttpd(threads));
        ASSERT_TRUE(server.Start());
        server.Signal(SIGINT);
        ExpectEnd(server, 0, kOrdinary);
    }
}

TEST(Rdxhttpd, EndsOnAnInterruptThatReachesBothProcesses) {
    Server server(Rdxhttpd());
    ASSERT_TRUE(server.Start());
    kill(-server.Pid(), SIGINT); // as a terminal sends it
    ExpectEnd(server, 0, kOrdinary);
}

TEST(Rdxhttpd, EndsOnAnInterruptThatItsStarterHadIgnored) {
    ServerOptions options = Rdxhttpd();
    options.wrapper = {"/bin/sh", "-c", "trap '' INT; exec \"$@\"", "sh"};
    Server server(options);
    ASSERT_TRUE(server.Start());
    server.Signal(SIGINT);
    ExpectEnd(server, 0, kOrdinary);
}

TEST(Rdxhttpd, ReadsTheFileAgainOnSigusr1AndIgnoresSigquit) {
    Server server(Rdxhttpd());
    ASSERT_TRUE(server.Start());
    server.WriteSettings({"AuthRequired=1", "AuthInfo=abc"});
    server.Signal(SIGUSR1);
    ASSERT_TRUE(server.WaitForLoop(2));
    server.Signal(SIGQUIT);
    EXPECT_EQ(Ask(server.Port(), VersionCall()).status, 401);
    server.Signal(SIGTERM);
    ExpectEnd(server, 0, kOrdinary);
}

TEST(Rdxhttpd, LetsARequestInServiceFinish) {
    ServerOptions options = Rdxhttpd();
    options.settings = {"Verbosity=VERBOSITY_ALL"};
    Server server(options);
    ASSERT_TRUE(server.Start());
    const std::string call = VersionCallAndClose();
    Connection client(server.Port());
    client.Send(call.substr(0, call.size() - 1));
    ASSERT_TRUE(server.WaitForOutput("created thread ID ="));
    server.Signal(SIGTERM);
    ASSERT_TRUE(server.WaitForOutput("ordinary HTTP server shutdown"));
    client.Send(call.substr(call.size() - 1));
    EXPECT_EQ(client.ReadAnswer().status, 200);
    ExpectEnd(server, 0, kOrdinary);
}

TEST(Rdxhttpd, SaysWhichSignalEndedTheServer) {
    Server server(Rdxhttpd());
    ASSERT_TRUE(server.Start());
    const pid_t child = ChildOf(server.Pid());
    ASSERT_GT(child, 0);
    kill(child, SIGKILL);
    ExpectEnd(server, 1, "\nrdxhttpd: the server was ended by signal 9 (Killed).\n");
}

TEST(Rdxhttpd, TakesTheServerAlongWhenItIsKilled) {
    Server server(Rdxhttpd());
    ASSERT_TRUE(server.Start());
    server.Signal(SIGKILL);
    ASSERT_TRUE(server.WaitForEnd());
    EXPECT_TRUE(Eventually([&] { return !Connection(server.Port()).Connected(); }));
    EXPECT_TRUE(server.WaitForOutput("handling signal <SIGTERM>"));
}

TEST(Rdxhttpd, HasDescriptorsBeyondThoseThatAreWatched) {
    ServerOptions options = Rdxhttpd();
    options.wrapper = {"/bin/sh", "-c", "ulimit -Sn 256; exec \"$@\"", "sh"};
    Server server(options);
    ASSERT_TRUE(server.Start());
    std::istringstream limits(ReadFile("/proc/" + std::to_string(ChildOf(server.Pid())) + "/limits"));
    int soft = 0;
    for (std::string line; std::getline(limits, line);) {
        if (line.starts_with("Max open files")) soft = std::stoi(line.substr(26));
    }
    EXPECT_GT(soft, 1024);
}

TEST(Rdxhttpd, PutsABadStartIntoWords) {
    Server server(Rdxhttpd());
    EXPECT_EQ(server.Run({"--unknown", "1"})->result, 1);
    EXPECT_EQ(CountOf("\nrdxhttpd: the command line was rejected.\n", server.Errors()), 1);
    EXPECT_EQ(server.Run({"-c", "/nowhere/x.ini"})->result, 1);
    EXPECT_EQ(CountOf("check the file /nowhere/x.ini.\n", server.Errors()), 1);
    server.WriteSettings({"VoltageMaxAge=0"});
    EXPECT_EQ(server.Run({"-c", server.ConfigurationPath()})->result, 1);
    EXPECT_EQ(CountOf("check the file " + server.ConfigurationPath() + ".\n", server.Errors()), 1);
}

TEST(Rdxhttpd, NamesAPortThatIsInUse) {
    Server first(Rdxhttpd());
    ASSERT_TRUE(first.Start());
    Server second(Rdxhttpd());
    second.WriteSettings({}, first.Port());
    EXPECT_EQ(second.Run({"-c", second.ConfigurationPath()})->result, 1);
    EXPECT_EQ(CountOf("the port cannot be opened: " + std::to_string(first.Port()) + ".\n", second.Errors()),
              1);
    EXPECT_EQ(Ask(first.Port(), VersionCall()).status, 200);
}

TEST(Rdxhttpd, TellsItsOptionsAndItsVersion) {
    Server server(Rdxhttpd());
    EXPECT_EQ(server.Run({"--help"})->result, 0);
    EXPECT_EQ(CountOf("Usage: rdxhttpd", server.Output()), 1);
    for (const char* option : {"  -c ", "  -mt ", "  -p ", "  -as ", "  -ba ", "  --help, --version "}) {
        EXPECT_EQ(CountOf(option, server.Output()), 1) << option;
    }
    EXPECT_EQ(server.Run({"--version"})->result, 0);
    EXPECT_EQ(CountOf("\nrdxhttpd 0.", server.Output()), 1);
}

} // namespace
} // namespace rdx::test
