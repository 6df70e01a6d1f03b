#include "host/results.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string Report(int result) {
    testing::internal::CaptureStderr();
    rdx::ReportResult(result, "/etc/x.ini", "8080");
    return testing::internal::GetCapturedStderr();
}

std::string PathOf(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    return rdx::ConfigurationPath(static_cast<int>(argv.size()), argv.data());
}

TEST(ConfigurationPath, IsTheSystemsUnlessGiven) {
    EXPECT_EQ(PathOf({"rdxhttpd"}), "/etc/tnd.ini");
    EXPECT_EQ(PathOf({"rdxhttpd", "-mt", "8", "-c", "a.ini"}), "a.ini");
    EXPECT_EQ(PathOf({"rdxhttpd", "-c", "a.ini", "-c", "b.ini"}), "b.ini");
}

TEST(ConfigurationPath, IsNoOtherOptionsValue) {
    EXPECT_EQ(PathOf({"rdxhttpd", "-p", "-c", "-mt", "2"}), "/etc/tnd.ini");
    EXPECT_EQ(PathOf({"rdxhttpd", "-c"}), "/etc/tnd.ini");
}

TEST(ReportResult, PutsEveryResultIntoWords) {
    const struct {
        int result;
        const char* words;
    } rows[] = {
        {0, "\nrdxhttpd: ordinary shutdown.\n"},
        {-1, "\nrdxhttpd: the command line was rejected.\n"},
        {-2, "\nrdxhttpd: the configuration was not accepted; check the file /etc/x.ini.\n"},
        {-6, "\nrdxhttpd: the signal handler could not be installed.\n"},
        {-7, "\nrdxhttpd: the socket library could not be started.\n"},
        {-9, "\nrdxhttpd: the port cannot be opened: 8080.\n"},
        {-10, "\nrdxhttpd: the service loop could not be started.\n"},
        {-11, "\nrdxhttpd: the server stopped, but its port could not be closed.\n"},
        {-4, "\nrdxhttpd: the server ended with the unknown result -4.\n"}, // no log file is ever opened
        {1, "\nrdxhttpd: the server ended with the unknown result 1.\n"},
    };
    for (const auto& row : rows) EXPECT_TRUE(Report(row.result).starts_with(row.words)) << Report(row.result);
}

TEST(ReportResult, SaysWhatToDoNext) {
    for (const int result : {-1, -2, -6, -7, -9, -10, -11}) {
        const std::string text = Report(result);
        const std::size_t advice = text.find(".\n  ");
        EXPECT_LT(advice + 30, text.size()) << text;
        EXPECT_TRUE(text.ends_with(".\n")) << text;
    }
    EXPECT_NE(Report(-1).find("\n  Every option takes a value; 'rdxhttpd --help' lists them.\n"),
              std::string::npos);
    EXPECT_NE(Report(-9).find("in use"), std::string::npos);
    EXPECT_NE(Report(-9).find("privileges"), std::string::npos);
    EXPECT_EQ(Report(0), "\nrdxhttpd: ordinary shutdown.\n");
}

} // namespace
