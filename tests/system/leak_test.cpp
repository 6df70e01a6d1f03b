// A server that is called in all ways leaves no memory behind and touches none that is not its own, as
// valgrind sees it.

#include "tests/support/admin_server.h"
#include "tests/system/modes.h"

#include <array>
#include <csignal>
#include <cstdlib>

namespace rdx::test {
namespace {

constexpr int kErrorsFound = 99;

ServerOptions UnderValgrind(int threads) {
    return {.threads = threads,
            .wrapper = {"valgrind", "--quiet", "--leak-check=full",
                        "--show-leak-kinds=definite,indirect,possible",
                        "--errors-for-leak-kinds=definite,indirect,possible",
                        "--error-exitcode=" + std::to_string(kErrorsFound)},
            .shadow = "tester:*:19000:0:99999:7:::\n",
            .host = Host::kLinked, // the loader would keep memory of what is loaded later
            .ports = 2};
}

const std::string& CallNumber(int number) {
    static const std::string kCalls[] = {
        VersionCall(),
        VersionForm(),
        UnknownTarget(),
        Call("rdxGetVersion", "junk"),
        Call("rdxGetVersion",
             Packet("<struct><var name='version'><string>a &amp; b</string></var></struct>")),
        Call("rdxReleaseDevice", VersionPacket(), {BasicAuthorization("tester", "secret")}),
        Request("GET /rDx?FunctionName=rdxGetVersion HTTP/1.0", {"Host: device"}),
        FormCall("--AbC\r\nno form"),
        FormCall(FormPart("FunctionArgs", VersionPacket()) + FormPart("Other", "x") + "--AbC--\r\n"),
        Request("PUT /rDx HTTP/1.1", {"Host: device"}),
        Request("GET /rDx HTTP/1.1", {"Host: device", "X-Custom: 1"}),
        "hello\r\n",
        VersionCallAndClose(),
    };
    return kCalls[static_cast<std::size_t>(number) % std::size(kCalls)];
}

class Leaks : public OwnServer {
protected:
    void SetUp() override {
        if (std::system("valgrind --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no valgrind";
    }
};
RDX_IN_BOTH_MODES(Leaks);

// The server stops in order, and valgrind has nothing to say.
void ExpectACleanEnd(Server& server) {
    ASSERT_TRUE(server.WaitForServingThreads(0));
    server.Signal(SIGTERM);
    const auto ending = server.WaitForEnd();
    ASSERT_TRUE(ending);
    EXPECT_EQ(ending->result, 0) << server.Errors();
    EXPECT_EQ(server.Errors(), "");
}

TEST_P(Leaks, AreNotFoundAfterAHundredMixedCalls) {
    Server server(UnderValgrind(GetParam()));
    ASSERT_TRUE(server.Start());
    for (int number = 0; number < 100; ++number) {
        if (number % 25 == 0) { // a client that stops half way
            Client client(server.Port());
            client.Send(VersionCall().substr(0, 20));
        }
        ASSERT_NE(AskUntilAnswered(server.Port(), CallNumber(number)).status, 0) << number;
    }
    server.Signal(SIGUSR1);
    ASSERT_TRUE(server.WaitForLoop(2));
    EXPECT_EQ(AskUntilAnswered(server.Port(), VersionCallAndClose()).text, VersionAnswer());
    ExpectACleanEnd(server);
}

// A dozen calls with tickets, most of which come to a bad end behind their acknowledge.
TEST_P(Leaks, AreNotFoundAfterTicketedCalls) {
    using Then = AdminServer::Then;
    const std::string head = "HTTP/1.1 200 OK\r\nServer: a\r\nContent-length: 5\r\n\r\n";
    const std::array<std::pair<std::string, Then>, 6> answers = {{
        {head + "taken", Then::Close},
        {"HTTP/1.1 404 Not found\r\nServer: a\r\nContent-length: 5\r\n\r\nabcde", Then::StayOpen},
        {head + "ta", Then::Close},
        {"rubbish\r\n\r\n", Then::Close},
        {"HTTP/1.1 200 OK\r\nServer: a\r\nX-Custom: 1\r\n\r\n", Then::Close},
        {"", Then::Refuse},
    }};
    AdminServer admin("");
    Server server(UnderValgrind(GetParam()));
    ASSERT_TRUE(server.Start({"-as", "127.0.0.1:" + std::to_string(admin.Port())}));
    for (std::size_t call = 0; call < 2 * answers.size(); ++call) {
        const auto& [answer, then] = answers[call % answers.size()];
        admin.AnswerWith(answer, then);
        const std::string line =
            "POST /rDx?FunctionName=rdxGetVersion&SvcTicket=" + std::to_string(call) + " HTTP/1.1";
        const std::string packet = call < answers.size() ? VersionPacket() : "junk";
        const std::size_t before = admin.FollowUps().size();
        EXPECT_EQ(AskUntilAnswered(server.Port(), Request(line, {"Connection: close"}, packet)).status, 200);
        ASSERT_TRUE(Eventually([&] { return admin.FollowUps().size() > before; })) << call;
        ASSERT_TRUE(server.WaitForServingThreads(0));
        ASSERT_EQ(AskUntilAnswered(server.Port(), VersionCallAndClose()).text, VersionAnswer());
        ASSERT_TRUE(server.WaitForServingThreads(0));
    }
    ExpectACleanEnd(server);
}

// Without an administration server.
TEST_P(Leaks, AreNotFoundWithoutAnAdministrationServer) {
    const PortReservation nobody;
    Server server(UnderValgrind(GetParam()));
    ASSERT_TRUE(server.Start({"-as", "127.0.0.1:" + std::to_string(nobody.Port())}));
    const std::string call = Request("POST /rDx?FunctionName=rdxGetVersion&SvcTicket=1 HTTP/1.1",
                                     {"Connection: close"}, VersionPacket());
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_EQ(AskUntilAnswered(server.Port(), call).status, 200);
        EXPECT_EQ(AskUntilAnswered(server.Port(), VersionCallAndClose()).text, VersionAnswer());
    }
    ExpectACleanEnd(server);
}

} // namespace
} // namespace rdx::test
