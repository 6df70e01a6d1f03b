// rdxhttpd, the ready-made host process, as its users run it.

#include "tests/system/modes.h"

#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace rdx::test {
namespace {

class Rdxhttpd : public OwnServer {
protected:
    Server server_{{.threads = GetParam(), .host = Host::kRdxhttpd}};

    void ExpectEnding(int result) {
        const auto ending = server_.WaitForEnd();
        ASSERT_TRUE(ending) << "rdxhttpd did not end";
        EXPECT_EQ(ending->signal, 0);
        EXPECT_EQ(ending->result, result);
    }

    // The process that runs the server.
    pid_t Child() const {
        const std::string pid = std::to_string(server_.Pid());
        std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
        pid_t child = 0;
        children >> child;
        return child;
    }
};
RDX_IN_BOTH_MODES(Rdxhttpd);

TEST_P(Rdxhttpd, ServesUntilItIsStopped) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        ASSERT_TRUE(server_.Start());
        EXPECT_EQ(Ask(server_.Port(), VersionCall()).text, VersionAnswer());
        EXPECT_EQ(Ask(server_.Port(), VersionForm()).text, VersionAnswer());
        server_.Signal(number);
        ExpectEnding(0);
    }
}

TEST_P(Rdxhttpd, StopsTheServerThatIsSignalledItself) {
    ASSERT_TRUE(server_.Start());
    server_.SignalServing(SIGINT); // the server ignores it
    EXPECT_EQ(Ask(server_.Port(), VersionCall()).text, VersionAnswer());
    server_.SignalServing(SIGTERM);
    ExpectEnding(0);
}

TEST_P(Rdxhttpd, ReconfiguresOnASignal) {
    ASSERT_TRUE(server_.Start());
    PortReservation other;
    server_.WriteSettings({}, other.Port());
    server_.Signal(SIGUSR1);
    ASSERT_TRUE(server_.WaitForLoop(2));
    EXPECT_EQ(AskUntilAnswered(other.Port(), VersionCall()).text, VersionAnswer());
    server_.Signal(SIGTERM);
    ExpectEnding(0);
}

TEST_P(Rdxhttpd, ReportsAnAssertionThatEndedTheServer) {
    ASSERT_TRUE(server_.Start());
    Client client(server_.Port());
    client.Send("GET /x HTTP/1.1\r\nno colon\r\n\r\n");
    client.ReadUntilClosed();
    ExpectEnding(1);
    EXPECT_NE(server_.Errors().find("Assertion `pcolon != __null' failed."), std::string::npos);
    EXPECT_NE(server_.Errors().find("rdxhttpd: "), std::string::npos);
}

TEST_P(Rdxhttpd, LeavesNoServerBehindWhenItIsKilled) {
    ASSERT_TRUE(server_.Start());
    const pid_t child = Child();
    ASSERT_GT(child, 0);
    server_.Signal(SIGKILL);
    ASSERT_TRUE(server_.WaitForEnd());
    EXPECT_TRUE(Eventually([&] { return !Client(server_.Port()).Connected(); }));
    // One that ended but that nobody has waited for yet has no program any more.
    const std::string program = "/proc/" + std::to_string(child) + "/exe";
    EXPECT_TRUE(Eventually([&] {
        std::error_code error;
        return std::filesystem::read_symlink(program, error).empty();
    }));
}

TEST(RdxhttpdInWords, SaysWhyItDidNotStart) {
    const auto errorsOf = [](Server& server, const std::vector<std::string>& arguments) {
        const auto ending = server.Run(arguments);
        EXPECT_TRUE(ending);
        EXPECT_EQ(ending.value_or(Ending{}).result, 1);
        return server.Errors();
    };
    Server unreadable({.host = Host::kRdxhttpd});
    EXPECT_NE(errorsOf(unreadable, {"-c", "/nowhere/at/all"}).find("/nowhere/at/all"), std::string::npos);

    Server unknown({.host = Host::kRdxhttpd});
    EXPECT_NE(errorsOf(unknown, {"-x"}).find("rdxhttpd: "), std::string::npos);

    Server busy({.host = Host::kRdxhttpd});
    const int taken = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(busy.Port()));
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    const std::string errors = errorsOf(busy, {"-c", busy.ConfigurationPath()});
    close(taken);
    EXPECT_NE(errors.find(std::to_string(busy.Port())), std::string::npos) << errors;
}

} // namespace
} // namespace rdx::test
