// The server's loop, run on a thread of its own.
#ifndef RDX_TESTS_SUPPORT_SERVER_LOOP_H
#define RDX_TESTS_SUPPORT_SERVER_LOOP_H

#include "common/config.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "server/service.h"
#include "tests/support/capture.h"
#include "tests/support/client.h"
#include "tests/support/eventually.h"
#include "tests/support/listener.h"
#include "tests/support/service.h"
#include "tests/support/serving.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <thread>

namespace rdx::test {

// --- the loop ------------------------------------------------------------------------------------------

// One run of the server's loop on a thread of its own.
class LoopRun {
public:
    using Body = std::function<int(unsigned server)>;

    explicit LoopRun(unsigned threads)
        : LoopRun([threads](unsigned server) { return RunHttpServer(server, threads); }) {}

    // `body` calls RunHttpServer, and sets faults before.
    explicit LoopRun(Body body) : LoopRun(std::move(body), std::make_shared<test::Listener>()) {}

    LoopRun(Body body, std::shared_ptr<test::Listener> listener)
        : listener_(std::move(listener)), thread_([this, body = std::move(body)] {
              threadNumber_ = ThreadNumber();
              result_ = body(static_cast<unsigned>(listener_->Socket()));
          }) {}

    ~LoopRun() {
        if (thread_.joinable()) Stop();
    }
    LoopRun(const LoopRun&) = delete;
    LoopRun& operator=(const LoopRun&) = delete;

    Client Connect(int receiveBuffer = 0) const { return Client(listener_->Port(), receiveBuffer); }

    // Asks the loop to end, and gives its result.
    int Stop() {
        StoreShared<unsigned char>(ucTerminated, 1);
        return Join();
    }

    // The result of a loop that ends by itself.
    int Join() {
        thread_.join();
        return result_;
    }

    unsigned ThreadNumberOfLoop() const { return threadNumber_; }
    int Socket() const { return listener_->Socket(); }
    std::shared_ptr<test::Listener> SharedListener() const { return listener_; }

private:
    std::shared_ptr<test::Listener> listener_;
    std::atomic<unsigned> threadNumber_ = 0;
    int result_ = -99;
    std::thread thread_;
};

class RunHttpServerTest : public ServiceTest {
protected:
    // The loop looks at its flags more often than its own time-out would let it: tests end sooner.
    void SetUp() override {
        ServiceTest::SetUp();
        replaced.select = [](int count, fd_set* ready, timeval*) {
            timeval soon{0, 5000};
            return __real_select(count, ready, nullptr, nullptr, &soon);
        };
    }

    bool Printed(const std::string& text) const {
        return Eventually([&] { return capture_.Text().find(text) != std::string::npos; });
    }

    std::string Text() const { return WithoutTimes(capture_.Text()); }

    // The descriptor that the server handled last.
    int LastHandled() const {
        const std::string text = capture_.Text();
        const std::string mark = "HttpServer: Handling socket (";
        const std::size_t at = text.rfind(mark);
        return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + mark.size());
    }

    static bool Serving(int threads) {
        return Eventually([threads] { return NumOfThreads() == threads; });
    }

    CaptureStdout capture_;
};

inline std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

} // namespace rdx::test

#endif
