// Fixtures that run a test against a server with one thread and again against one with several.
#ifndef RDX_TESTS_SYSTEM_MODES_H
#define RDX_TESTS_SYSTEM_MODES_H

#include "tests/support/client.h"
#include "tests/system/harness.h"
#include "tests/system/messages.h"

#include <memory>

namespace rdx::test {

inline constexpr int kSeveralThreads = 8;

inline std::string ModeName(int threads) { return threads == 1 ? "OneThread" : "SeveralThreads"; }

inline std::string ModeNameOf(const testing::TestParamInfo<int>& info) { return ModeName(info.param); }

// A server that allows GET and POST and has no settings of its own, or the one that runs already.
class PlainServer : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        port_ = RunningServerPort();
        if (port_ != 0) {
            if (GetParam() == 1) GTEST_SKIP() << "the running server serves with several threads";
            return;
        }
        server_ = std::make_unique<Server>(ServerOptions{.threads = GetParam()});
        ASSERT_TRUE(server_->Start());
        port_ = server_->Port();
    }

    int Port() const { return port_; }

private:
    std::unique_ptr<Server> server_;
    int port_ = 0;
};

// Only the number of threads: the test starts its own server.
class OwnServer : public testing::TestWithParam<int> {};

} // namespace rdx::test

// Runs the tests of a fixture in both modes.
#define RDX_IN_BOTH_MODES(Fixture)                                                                           \
    INSTANTIATE_TEST_SUITE_P(With, Fixture, testing::Values(1, ::rdx::test::kSeveralThreads),                \
                             ::rdx::test::ModeNameOf)

#endif
