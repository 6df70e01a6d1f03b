#include "common/log.h"

#include "common/log_lines.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"

#include <gtest/gtest.h>

namespace rdx {
namespace {

TEST(StandardStreams, AreSetWhenTheLibraryIsLoaded) {
    EXPECT_EQ(StdErr, stderr);
    EXPECT_EQ(StdOut, stdout);
}

TEST(Now2, IsTheTimeOfDay) {
    char stamp[128];
    ASSERT_EQ(Now2(stamp, 127), stamp);
    int hour, minute, second;
    EXPECT_EQ(std::sscanf(stamp, "%2d:%2d:%2d", &hour, &minute, &second), 3) << stamp;
}

std::string LocalTimeOfDay() {
    const time_t now = time(nullptr);
    tm local;
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", localtime_r(&now, &local));
    return text;
}

TEST(Now2, IsTheLocalTimeWhateverItsSize) {
    setenv("TZ", "UTC-5:30", 1);
    tzset();
    std::string before, after;
    char stamp[128];
    do { // until no second ends meanwhile
        before = LocalTimeOfDay();
        Now2(stamp, 0);
        after = LocalTimeOfDay();
    } while (before != after);
    EXPECT_EQ(stamp, before);
    unsetenv("TZ");
    tzset();
}

TEST(Now2, IsEmptyWhenTheTimeIsUnknown) {
    char stamp[128] = "before";
    const test::FailCall fault("localtime_r", 1, EOVERFLOW);
    EXPECT_STREQ(Now2(stamp, 127), "");
    EXPECT_TRUE(fault.Struck());
}

TEST(LogLines, HaveThreeForms) {
    const test::CaptureStdout capture;
    LogPlain("main()", "rdxhttp_main", 0);
    LogThread("RunHttpServer()", "found activity on server socket", 3);
    LogString("SignalHandler()", "handling signal", "SIGHUP");
    const std::string thread = std::to_string(ThreadNumber());
    EXPECT_EQ(test::WithoutTimes(capture.Text()),
              "\n[TIME],main(): rdxhttp_main (0)"
              "\n[TIME],RunHttpServer(): found activity on server socket (3) [tid=" +
                  thread +
                  "]"
                  "\n[TIME],SignalHandler(): handling signal <SIGHUP>");
}

TEST(LogLines, GoToTheLogStreamAndAreFlushed) {
    char* text = nullptr;
    std::size_t size = 0;
    outlog = open_memstream(&text, &size);
    LogPlain("main()", "to the stream", -1);
    EXPECT_EQ(test::WithoutTimes({text, size}), "\n[TIME],main(): to the stream (-1)");
    std::fclose(outlog);
    outlog = nullptr;
    std::free(text);
}

TEST(LogLines, AreEachFlushed) {
    const std::function<void()> forms[] = {[] { LogPlain("f()", "m", 1); }, [] { LogThread("f()", "m", 1); },
                                           [] { LogString("f()", "m", "v"); }};
    for (const auto& form : forms) {
        char* text = nullptr;
        std::size_t size = 0;
        outlog = open_memstream(&text, &size);
        form();
        EXPECT_GT(size, 0U) << "a stream to memory tells its size when it is flushed";
        std::fclose(outlog);
        outlog = nullptr;
        std::free(text);
    }
}

TEST(Verbosity, IsComparedStrictly) {
    ucVerbosity = VERBOSITY_LOG;
    EXPECT_TRUE(VerbosityAbove(VERBOSITY_WARN));
    EXPECT_FALSE(VerbosityAbove(VERBOSITY_LOG));
    ucVerbosity = VERBOSITY_WARN;
}

} // namespace
} // namespace rdx
