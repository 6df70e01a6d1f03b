// The two processes of rdxhttpd: what they make of signals however these come, and of each other's end.

#include "tests/support/client.h"
#include "tests/support/sanitizers.h"
#include "tests/system/harness.h"
#include "tests/system/messages.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

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
    server.SignalGroup(SIGINT); // as a terminal sends it
    ExpectEnd(server, 0, kOrdinary);
}

TEST(RdxhttpdProcesses, EndOnAnInterruptThoughTheirStarterIgnoresSignals) {
    for (const char* ignored : {"INT", "CHLD"}) {
        ServerOptions options = Rdxhttpd();
        options.wrapper = {"env", std::string("--ignore-signal=") + ignored};
        Server server(options);
        ASSERT_TRUE(server.Start());
        server.Signal(SIGINT);
        ExpectEnd(server, 0, kOrdinary);
    }
}

TEST(RdxhttpdProcesses, TakeNoNoticeOfAQuit) {
    Server server(Rdxhttpd());
    ASSERT_TRUE(server.Start());
    server.SignalGroup(SIGQUIT);
    EXPECT_EQ(Ask(server.Port(), VersionCall()).text, VersionAnswer());
    server.Signal(SIGTERM);
    ExpectEnd(server, 0, kOrdinary);
}

TEST(RdxhttpdProcesses, SayWhichSignalEndedTheServer) {
    Server server(Rdxhttpd());
    ASSERT_TRUE(server.Start());
    server.SignalServing(SIGKILL);
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

// The soft and the hard limit on descriptors.
std::pair<int, int> DescriptorLimits(const Server& server) {
    constexpr std::string_view kLabel = "\nMax open files";
    const std::string limits = ReadFile("/proc/" + std::to_string(server.ServingPid()) + "/limits");
    std::istringstream numbers(limits.substr(limits.find(kLabel) + kLabel.size()));
    std::pair<int, int> found;
    numbers >> found.first >> found.second;
    return found;
}

TEST(RdxhttpdProcesses, HaveDescriptorsBeyondThoseThatAreWatched) {
    Server server(RdxhttpdBehind("ulimit -Sn 256"));
    ASSERT_TRUE(server.Start());
    EXPECT_GT(DescriptorLimits(server).first, 1024);
}

TEST(RdxhttpdProcesses, KeepDescriptorsThatTheyMayHave) {
    Server server(RdxhttpdBehind("ulimit -Sn $(ulimit -Hn)"));
    ASSERT_TRUE(server.Start());
    const auto [soft, hard] = DescriptorLimits(server);
    EXPECT_EQ(soft, hard);
}

// What the server prints must not go to a client whose connection has a standard stream's descriptor.
TEST(RdxhttpdProcesses, ServeWithoutStandardStreams) {
    for (const char* closed :
         {"0<&-", "1>&-", "2>&-", "0<&- 1>&-", "0<&- 2>&-", "1>&- 2>&-", "0<&- 1>&- 2>&-"}) {
        SCOPED_TRACE(closed);
        Server server(RdxhttpdBehind(std::string("exec ") + closed));
        server.WriteSettings({"Verbosity=VERBOSITY_ALL"});
        server.Spawn({"-c", server.ConfigurationPath(), "-mt", "4"});
        EXPECT_TRUE(Eventually([&] { return Client(server.Port()).Connected(); }));
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(AskUntilAnswered(server.Port(), VersionCallAndClose()).text, VersionAnswer());
        }
        for (const char* stream : {"0", "1", "2"}) {
            const std::string target = std::filesystem::read_symlink(
                "/proc/" + std::to_string(server.ServingPid()) + "/fd/" + stream);
            EXPECT_FALSE(target.starts_with("socket:")) << stream;
        }
        server.Signal(SIGTERM);
        const auto ending = server.WaitForEnd();
        EXPECT_TRUE(ending && ending->result == 0);
    }
}

TEST(RdxhttpdProcesses, KeepNoDescriptorBesideTheStandardStreams) {
    Server server(RdxhttpdBehind("exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-")); // whatever the test was given
    ASSERT_TRUE(server.Start());
    const std::string folder = "/proc/" + std::to_string(server.ServingPid()) + "/fd/";
    for (int descriptor = 3; descriptor < 10; ++descriptor) {
        std::error_code notOpen;
        const auto target = std::filesystem::read_symlink(folder + std::to_string(descriptor), notOpen);
        EXPECT_NE(target, "/dev/null") << descriptor;
    }
}

TEST(RdxhttpdProcesses, SayHowTheyEndedBehindAllElse) {
    Server server(RdxhttpdBehind("exec 2>&1"));
    ASSERT_TRUE(server.Start());
    server.Signal(SIGTERM);
    ASSERT_TRUE(server.WaitForEnd());
    EXPECT_TRUE(server.Output().ends_with(kOrdinary)) << server.Output();
}

TEST(RdxhttpdProcesses, SayThatNoProcessCanBeHad) {
    ServerOptions options = Rdxhttpd();
    options.environment = {{"LD_PRELOAD", RDX_TEST_NO_PROCESS}};
    Server server(options);
    EXPECT_EQ(server.Run({})->result, 1);
    EXPECT_EQ(server.Errors(), "rdxhttpd: no process for the server: Resource temporarily unavailable.\n"
                               "  Free memory or raise the process limit.\n");
}

// --- signals that come before the server has handlers for them -----------------------------------------

// The server waits for its settings, which a pipe holds back.
class RdxhttpdBeforeTheServer : public testing::Test {
protected:
    void SetUp() override {
        std::signal(SIGPIPE, SIG_IGN); // the server may have ended when it is given its settings
        settings_ = ReadFile(Path());
        std::filesystem::remove(Path());
        ASSERT_EQ(mkfifo(Path().c_str(), 0600), 0);
        server_.Spawn({"-c", Path(), "-mt", "8"});
        ASSERT_TRUE(Eventually([&] { return (pipe_ = open(Path().c_str(), O_WRONLY | O_NONBLOCK)) >= 0; }));
    }
    ~RdxhttpdBeforeTheServer() override {
        if (pipe_ >= 0) close(pipe_);
    }

    // Hands the settings out, as a file to whoever reads them again.
    void LetStart() {
        server_.WriteSettings({});
        ASSERT_EQ(write(pipe_, settings_.data(), settings_.size()), static_cast<ssize_t>(settings_.size()));
        close(std::exchange(pipe_, -1));
    }

    std::string Path() const { return server_.ConfigurationPath(); }

    Server server_{Rdxhttpd()};

private:
    std::string settings_;
    int pipe_ = -1;
};

TEST_F(RdxhttpdBeforeTheServer, SignalsThatStopNothingAreHarmless) {
    for (const int number : {SIGINT, SIGQUIT, SIGUSR1})
        ASSERT_NO_FATAL_FAILURE(server_.SignalServing(number));
    server_.Signal(SIGQUIT);
    LetStart();
    ASSERT_TRUE(server_.WaitForLoop(2)) << "the settings are read again";
    EXPECT_EQ(AskUntilAnswered(server_.Port(), VersionCallAndClose()).text, VersionAnswer());
    server_.Signal(SIGTERM);
    ExpectEnd(server_, 0, kOrdinary);
}

TEST_F(RdxhttpdBeforeTheServer, ATerminationIsAnOrdinaryEnd) {
    server_.Signal(SIGTERM);
    const auto ending = server_.WaitForEnd();
    ASSERT_TRUE(ending);
    EXPECT_EQ(ending->signal, 0);
    EXPECT_EQ(ending->result, 0);
    EXPECT_EQ(server_.Errors(), "");
}

TEST_F(RdxhttpdBeforeTheServer, AnInterruptIsAnOrdinaryEnd) {
    server_.SignalGroup(SIGINT); // as a terminal sends it
    const auto ending = server_.WaitForEnd();
    ASSERT_TRUE(ending);
    EXPECT_EQ(ending->signal, 0);
    EXPECT_EQ(ending->result, 0);
    EXPECT_EQ(server_.Errors(), "");
}

// --- the end while requests are in service -------------------------------------------------------------

constexpr std::chrono::seconds kGrace{2};

// A server of which one thread has half a request when rdxhttp_main has returned: its port is closed.
class RdxhttpdAfterTheServer : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server_.Start());
        client_.emplace(server_.Port());
        client_->Send(call_.substr(0, 40));
        EXPECT_EQ(Ask(server_.Port(), VersionCallAndClose()).status, 200); // the other is in service by now
        signalled_ = std::chrono::steady_clock::now();
        server_.Signal(SIGTERM);
        ASSERT_TRUE(Eventually([&] { return !Client(server_.Port()).Connected(); }));
    }

    Server server_{Rdxhttpd()};
    const std::string call_ = VersionCall();
    std::optional<Client> client_;
    std::chrono::steady_clock::time_point signalled_;
};

TEST_F(RdxhttpdAfterTheServer, RequestsInServiceAreAnswered) {
    EXPECT_FALSE(server_.WaitForEnd(milliseconds(100)));
    client_->Send(call_.substr(40));
    EXPECT_EQ(client_->ReadAnswer().text, VersionAnswer());
    ExpectEnd(server_, 0, kOrdinary);
}

TEST_F(RdxhttpdAfterTheServer, ARequestThatNeverComesIsNotWaitedForLong) {
    ASSERT_TRUE(server_.WaitForEnd(milliseconds(10'000)));
    EXPECT_GE(std::chrono::steady_clock::now() - signalled_, kGrace);
    ExpectEnd(server_, 0, kOrdinary);
}

TEST(RdxhttpdProcesses, EndAtOnceWhenNobodyIsServed) {
    const auto endsAtOnce = [] { // but a busy machine can take its time
        Server server(Rdxhttpd());
        EXPECT_TRUE(server.Start());
        EXPECT_EQ(Ask(server.Port(), VersionCallAndClose()).text, VersionAnswer());
        const auto signalled = std::chrono::steady_clock::now();
        server.Signal(SIGTERM);
        ExpectEnd(server, 0, kOrdinary);
        return std::chrono::steady_clock::now() - signalled < kGrace;
    };
    // The sanitizer has a thread of its own, which is waited for like one that serves.
    EXPECT_TRUE(kThreadSanitizer || endsAtOnce() || endsAtOnce() || endsAtOnce());
}

// --- the command line ----------------------------------------------------------------------------------

TEST(RdxhttpdOptions, AreToldOnRequest) {
    Server server(Rdxhttpd());
    EXPECT_EQ(server.Run({"--help"})->result, 0);
    EXPECT_EQ(CountOf("Usage: rdxhttpd", server.Output()), 1);
    for (const char* option : {"  -c ", "  -mt ", "  -p ", "  -as ", "  -ba ", "  --help, --version "}) {
        EXPECT_EQ(CountOf(option, server.Output()), 1) << option;
    }
    EXPECT_EQ(server.Run({"--version"})->result, 0);
    EXPECT_EQ(server.Output(), "rdxhttpd " RDX_TEST_VERSION "\n");
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
