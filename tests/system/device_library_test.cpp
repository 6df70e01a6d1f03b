// Another device library takes the place of the simulated one by being found first; nothing is rebuilt.

#include "tests/system/modes.h"

#include <csignal>

namespace rdx::test {
namespace {

constexpr const char* kForeign = RDX_TEST_FOREIGN_FOLDER "/libDxSvcs.so";
constexpr const char* kSimulated = RDX_TEST_SIMULATED_LIBRARY;

std::string LoadedFiles(const Server& server) {
    return ReadFile("/proc/" + std::to_string(server.Pid()) + "/maps");
}

void ExpectForeign(Server& server) {
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(CountOf("foreign device library loaded", server.Errors()), 1);
    const std::string files = LoadedFiles(server);
    EXPECT_GT(CountOf(kForeign, files), 0) << files;
    EXPECT_EQ(CountOf(kSimulated, files), 0) << files;
    const std::string status = Ask(server.Port(), Call("rdxGetDeviceStatus", VersionPacket())).text;
    EXPECT_EQ(CountOf("<var name='DeviceType'><number>40015</number>", status), 1) << status;
    EXPECT_EQ(CountOf("<var name='FirmwareRev'><number>815</number>", status), 1) << status;
    server.Signal(SIGTERM);
    const auto ending = server.WaitForEnd();
    ASSERT_TRUE(ending);
    EXPECT_EQ(ending->result, 0);
}

TEST(DeviceLibrary, IsTheSimulatedOneByItself) {
    Server server;
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(CountOf("foreign device library loaded", server.Errors()), 0);
    EXPECT_GT(CountOf(kSimulated, LoadedFiles(server)), 0);
}

TEST(DeviceLibrary, IsReplacedThroughTheSearchPath) {
    Server server({.environment = {{"LD_LIBRARY_PATH", RDX_TEST_FOREIGN_FOLDER}}});
    ExpectForeign(server);
}

TEST(DeviceLibrary, IsReplacedThroughAPreload) {
    const char* options = std::getenv("ASAN_OPTIONS");
    Server server(
        {.environment = {{"LD_PRELOAD", kForeign},
                         // A preloaded library comes before the sanitizer's, which is no harm here.
                         {"ASAN_OPTIONS", std::string(options == nullptr ? "" : std::string(options) + ":") +
                                              "verify_asan_link_order=0"}}});
    ExpectForeign(server);
}

TEST(DeviceLibrary, ThatIsNoneIsAnErrorOfTheLoader) {
    TemporaryFolder folder;
    WriteFile(folder.Path() + "/libDxSvcs.so", "not a library");
    Server server({.environment = {{"LD_LIBRARY_PATH", folder.Path()}}});
    EXPECT_FALSE(server.Start());
    EXPECT_EQ(server.Output(), "");
    EXPECT_GT(CountOf("libDxSvcs.so", server.Errors()), 0) << server.Errors();
}

} // namespace
} // namespace rdx::test
