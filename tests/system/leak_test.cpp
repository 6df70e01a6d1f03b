// A server that is called a hundred times in all ways leaves no memory behind and touches none that is not
// its own, as valgrind sees it.

#include "tests/system/modes.h"

#include <csignal>
#include <cstdlib>

namespace rdx::test {
namespace {

bool HasValgrind() { return std::system("valgrind --version >/dev/null 2>&1") == 0; }

constexpr int kErrorsFound = 99;

ServerOptions UnderValgrind(int threads) {
    return {.threads = threads,
            .wrapper = {"valgrind", "--quiet", "--leak-check=full",
                        "--show-leak-kinds=definite,indirect,possible",
                        "--errors-for-leak-kinds=definite,indirect,possible",
                        "--error-exitcode=" + std::to_string(kErrorsFound)},
            .shadow = CanReplaceShadow() ? "tester:*:19000:0:99999:7:::\n" : "",
            .host = Host::kLinked}; // the loader would keep memory of what is loaded later
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

class Leaks : public OwnServer {};
RDX_IN_BOTH_MODES(Leaks);

TEST_P(Leaks, AreNotFoundAfterAHundredMixedCalls) {
#ifdef RDX_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizer looks itself";
#endif
    if (!HasValgrind()) GTEST_SKIP() << "no valgrind";
    Server server(UnderValgrind(GetParam()));
    ASSERT_TRUE(server.Start());
    for (int number = 0; number < 100; ++number) {
        if (number % 25 == 0) { // a client that stops half way
            Connection client(server.Port());
            client.Send(VersionCall().substr(0, 20));
        }
        ASSERT_NE(AskUntilAnswered(server.Port(), CallNumber(number)).status, 0) << number;
    }
    server.Signal(SIGUSR1);
    ASSERT_TRUE(server.WaitForLoop(2));
    EXPECT_EQ(AskUntilAnswered(server.Port(), VersionCallAndClose()).text, VersionAnswer());
    ASSERT_TRUE(server.WaitForServingThreads(0));
    server.Signal(SIGTERM);
    const auto ending = server.WaitForEnd();
    ASSERT_TRUE(ending);
    EXPECT_EQ(ending->result, 0) << server.Errors();
    EXPECT_EQ(server.Errors(), "");
}

} // namespace
} // namespace rdx::test
