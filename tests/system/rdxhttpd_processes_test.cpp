// The two processes of rdxhttpd: what they make of signals however these come, and of each other's end.

#include "tests/support/client.h"
#include "tests/system/harness.h"
#include "tests/system/messages.h"

#include <csignal>
#include <sstream>
#include <string>
#include <thread>

namespace rdx::test {
namespace {

ServerOptions Rdxhttpd() { return {.threads = 8, .host = Host::kRdxhttpd}; }

// rdxhttpd behind a line of the shell's that sets the process up.
ServerOptions RdxhttpdBehind(const std::string& setUp) {
    ServerOptions options = Rdxhttpd();
    options.wrapper = {"/bin/sh", "-c", setUp + "; exec \"$@\"", "sh"};
    return options;
}

void ExpectEnd(Server& server, int status, const std::string& words) {
    const auto ending = server.WaitForEnd();
    ASSERT_TRUE(ending) << "rdxhttpd did not end";
    EXPECT_EQ(ending->signal, 0);
    EXPECT_EQ(ending->result, status);
    EXPECT_EQ(CountOf(words, server.Errors()), 1) << server.Errors();
}

constexpr const char* kOrdinary = "\nrdxhttpd: ordinary shutdown.\n";

TEST(RdxhttpdProcesses, PassOnWhatEndsTheServer) {
    for (const int number : {SIGTERM, SIGHUP, SIGBUS, SIGSYS}) {
        Server server(Rdxhttpd());
        ASSERT_TRUE(server.Start());
        server.Signal(number);
        ExpectEnd(server, 0, kOrdinary);
        EXPECT_EQ(CountOf("\nSignal handling " + std::to_string(number), server.Output()), 1);
    }
}

TEST(RdxhttpdProcesses, EndOnAnInterruptThatReachesBoth) {
    Server server(Rdxhttpd());
    ASSERT_TRUE(server.Start());
    kill(-server.Pid(), SIGINT); // as a terminal sends it
    ExpectEnd(server, 0, kOrdinary);
}

TEST(RdxhttpdProcesses, EndOnAnInterruptThatTheirStarterHadIgnored) {
    Server server(RdxhttpdBehind("trap '' INT"));
    ASSERT_TRUE(server.Start());
    server.Signal(SIGINT);
    ExpectEnd(server, 0, kOrdinary);
}

TEST(RdxhttpdProcesses, TakeNoNoticeOfAQuit) {
    Server server(Rdxhttpd());
    ASSERT_TRUE(server.Start());
    kill(-server.Pid(), SIGQUIT);
    EXPECT_EQ(Ask(server.Port(), VersionCall()).text, VersionAnswer());
    server.Signal(SIGTERM);
    ExpectEnd(server, 0, kOrdinary);
}

TEST(RdxhttpdProcesses, SayWhichSignalEndedTheServer) {
    Server server(Rdxhttpd());
    ASSERT_TRUE(server.Start());
    const pid_t child = server.ServingPid();
    ASSERT_GT(child, 0);
    kill(child, SIGKILL);
    ExpectEnd(server, 1, "\nrdxhttpd: the server was ended by signal 9 (Killed).\n");
}

TEST(RdxhttpdProcesses, EndTheServerInOrderWhenTheParentIsKilled) {
    Server server(Rdxhttpd());
    ASSERT_TRUE(server.Start());
    server.Signal(SIGKILL);
    ASSERT_TRUE(server.WaitForEnd());
    EXPECT_TRUE(server.WaitForOutput("handling signal <SIGTERM>"));
    EXPECT_TRUE(Eventually([&] { return CountOf(kOrdinary, server.Errors()) == 1; }));
}

TEST(RdxhttpdProcesses, HaveDescriptorsBeyondThoseThatAreWatched) {
    Server server(RdxhttpdBehind("ulimit -Sn 256"));
    ASSERT_TRUE(server.Start());
    std::istringstream limits(ReadFile("/proc/" + std::to_string(server.ServingPid()) + "/limits"));
    int soft = 0;
    for (std::string line; std::getline(limits, line);) {
        if (line.starts_with("Max open files")) soft = std::stoi(line.substr(sizeof "Max open files"));
    }
    EXPECT_GT(soft, 1024);
}

// What the server prints must not go to a client whose connection has a standard stream's descriptor.
TEST(RdxhttpdProcesses, ServeWithoutStandardStreams) {
    const TemporaryFolder folder;
    const std::string pidFile = folder.Path() + "/pid";
    Server server(RdxhttpdBehind("echo $$ >" + pidFile + "; exec 0<&- 1>&- 2>&-"));
    server.WriteSettings({"Verbosity=VERBOSITY_ALL"});
    std::thread running([&] {
        const auto ending = server.Run({"-c", server.ConfigurationPath(), "-mt", "4"});
        EXPECT_TRUE(ending && ending->result == 0);
    });
    EXPECT_TRUE(Eventually([&] { return Client(server.Port()).Connected(); }));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(AskUntilAnswered(server.Port(), VersionCallAndClose()).text, VersionAnswer());
    }
    kill(std::stoi(ReadFile(pidFile)), SIGTERM);
    running.join();
}

TEST(RdxhttpdOptions, AreToldOnRequest) {
    Server server(Rdxhttpd());
    EXPECT_EQ(server.Run({"--help"})->result, 0);
    EXPECT_EQ(CountOf("Usage: rdxhttpd", server.Output()), 1);
    for (const char* option : {"  -c ", "  -mt ", "  -p ", "  -as ", "  -ba ", "  --help, --version "}) {
        EXPECT_EQ(CountOf(option, server.Output()), 1) << option;
    }
    EXPECT_EQ(server.Run({"--version"})->result, 0);
    EXPECT_EQ(CountOf("rdxhttpd 0.", server.Output()), 1);
}

TEST(RdxhttpdOptions, ThatAreRefusedAreExplained) {
    Server server(Rdxhttpd());
    EXPECT_EQ(server.Run({"--unknown", "1"})->result, 1);
    EXPECT_EQ(CountOf("\nrdxhttpd: the command line was rejected.\n", server.Errors()), 1);
    server.WriteSettings({"VoltageMaxAge=0"});
    EXPECT_EQ(server.Run({"-c", server.ConfigurationPath()})->result, 1);
    EXPECT_EQ(CountOf("check the file " + server.ConfigurationPath() + ".\n", server.Errors()), 1);
}

} // namespace
} // namespace rdx::test
