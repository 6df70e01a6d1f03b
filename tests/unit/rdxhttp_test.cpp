#include "server/rdxhttp.h"

#include "common/config.h"
#include "common/log.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "rDxsd/rDxsd.h"
#include "server/service.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/loopback.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace rdx;
using test::CaptureStdout;
using test::Client;
using test::Eventually;
using test::FailCall;
using test::WithoutTimes;
using testing::HasSubstr;
using testing::Not;

// --- what the entry calls by these names is the test's own ---------------------------------------------

// Where nothing is set, the real function is called.
struct Replaced {
    std::function<int(const char* path, const char* section)> readIniFile;
    std::function<int(FILE*)> dumpConfiguration;
    std::function<int()> initSockLib;
    std::function<int(const char* service, int backlog, int* socket)> createSrvSocket;
    std::function<int(unsigned server, unsigned threads)> runHttpServer;
};
Replaced replaced;

} // namespace

extern "C" {
int __real_ReadIniFile(const char*, const char*);
int __wrap_ReadIniFile(const char*, const char*);
int __real_DumpConfiguration(FILE*);
int __wrap_DumpConfiguration(FILE*);
int __real_InitSockLib(void);
int __wrap_InitSockLib(void);
int __real_CreateSrvSocket(const char*, int, int*);
int __wrap_CreateSrvSocket(const char*, int, int*);
int __real_RunHttpServer(unsigned, unsigned);
int __wrap_RunHttpServer(unsigned, unsigned);
RDX_API const char* __tsan_default_options();

// The server's handler reads a file and logs on purpose: it only runs where the interrupted thread waits.
const char* __tsan_default_options() { return "report_signal_unsafe=0"; }

int __wrap_ReadIniFile(const char* path, const char* section) {
    return replaced.readIniFile ? replaced.readIniFile(path, section) : __real_ReadIniFile(path, section);
}

int __wrap_DumpConfiguration(FILE* stream) {
    return replaced.dumpConfiguration ? replaced.dumpConfiguration(stream) : __real_DumpConfiguration(stream);
}

int __wrap_InitSockLib() { return replaced.initSockLib ? replaced.initSockLib() : __real_InitSockLib(); }

int __wrap_CreateSrvSocket(const char* service, int backlog, int* socket) {
    return replaced.createSrvSocket ? replaced.createSrvSocket(service, backlog, socket)
                                    : __real_CreateSrvSocket(service, backlog, socket);
}

int __wrap_RunHttpServer(unsigned server, unsigned threads) {
    return replaced.runHttpServer ? replaced.runHttpServer(server, threads)
                                  : __real_RunHttpServer(server, threads);
}
}

namespace {

constexpr std::array kVerbosities = {VERBOSITY_NONE, VERBOSITY_WARN, VERBOSITY_LOG, VERBOSITY_ALL};

// Arguments as a host passes them, which may be changed.
class Arguments {
public:
    Arguments(std::initializer_list<std::string> words) : words_(words) {
        words_.insert(words_.begin(), "host");
        for (std::string& word : words_) argv_.push_back(word.data());
        argv_.push_back(nullptr);
    }

    int argc() const { return static_cast<int>(words_.size()); }
    char** argv() { return argv_.data(); }

private:
    std::vector<std::string> words_;
    std::vector<char*> argv_;
};

// A file of its own for a test.
class IniFile {
public:
    explicit IniFile(const std::string& text = "[HTTP]\n") {
        char name[] = "/tmp/rdxhttp_testXXXXXX";
        if (mkdtemp(name) == nullptr) std::abort();
        folder_ = name;
        Write(text);
    }
    ~IniFile() { std::filesystem::remove_all(folder_); }
    IniFile(const IniFile&) = delete;
    IniFile& operator=(const IniFile&) = delete;

    void Write(const std::string& text) const { std::ofstream(Path()) << text; }

    std::string Path() const { return folder_ + "/tnd.ini"; }

    // The same file by a path of that many characters.
    std::string PathOf(std::size_t length) const {
        const std::string name = "tnd.ini";
        return folder_ + std::string(length - folder_.size() - name.size(), '/') + name;
    }

private:
    std::string folder_;
};

// A child process that runs a part of the server, with what it prints. Its parent has one thread.
class Child {
public:
    static constexpr int kTestFailed = 99;
    static constexpr int kDied = -99;

    explicit Child(const std::function<int()>& body) : output_(memfd_create("output", 0)) {
        std::fflush(nullptr);
        process_ = fork();
        if (process_ < 0) std::abort();
        if (process_ == 0) {
            dup2(output_, STDOUT_FILENO);
            std::setvbuf(stdout, nullptr, _IONBF, 0);
            const bool failedBefore = testing::Test::HasFailure(); // in the parent
            const int result = body();
            std::exit(testing::Test::HasFailure() && !failedBefore ? kTestFailed : result);
        }
    }

    ~Child() {
        if (process_ > 0) {
            kill(process_, SIGKILL);
            waitpid(process_, nullptr, 0);
        }
        if (testing::Test::HasFailure()) std::printf("The child printed: %s\n---\n", Output().c_str());
        close(output_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    std::string Output() const {
        struct stat state {};
        if (fstat(output_, &state) != 0) std::abort();
        std::string text(static_cast<std::size_t>(state.st_size), '\0');
        const ssize_t count = pread(output_, text.data(), text.size(), 0);
        text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return WithoutTimes(text);
    }

    bool Prints(const std::string& text, int times = 1) const {
        return Eventually([&] { return CountOf(text) >= times; });
    }

    int CountOf(const std::string& text) const {
        const std::string output = Output();
        int count = 0;
        for (std::size_t at = 0; (at = output.find(text, at)) != std::string::npos; ++at) ++count;
        return count;
    }

    void Signal(int number) const { kill(process_, number); }

    // What the body returned.
    int Result() {
        int status = 0;
        if (!Eventually([&] { return waitpid(process_, &status, WNOHANG) == process_; })) return kDied;
        process_ = -1;
        return WIFEXITED(status) ? static_cast<signed char>(WEXITSTATUS(status)) : kDied;
    }

private:
    int output_;
    pid_t process_ = -1;
};

int RunMain(std::initializer_list<std::string> words) {
    Arguments arguments(words);
    return rdxhttp_main(arguments.argc(), arguments.argv());
}

class RdxHttpTest : public testing::Test {
protected:
    void SetUp() override { Reset(); }
    void TearDown() override { Reset(); }

    // Stands for everything between the file and the end of the loop, and prints what it is given.
    static void ReplaceAll(int verbosity) {
        replaced.readIniFile = [verbosity](const char*, const char*) {
            ucVerbosity = static_cast<unsigned char>(verbosity);
            return 0;
        };
        replaced.dumpConfiguration = [](FILE* stream) {
            EXPECT_EQ(stream, stdout);
            std::printf("\n<dump>");
            return 0;
        };
        replaced.createSrvSocket = [](const char* service, int backlog, int* socket) {
            std::printf("\n<listen %s %d>", service, backlog);
            *socket = dup(0);
            return 0;
        };
        replaced.runHttpServer = [](unsigned, unsigned threads) {
            std::printf("\n<serve %u>", threads);
            return 0;
        };
    }

private:
    static void Reset() {
        replaced = {};
        SetDefaultConfig();
        ucVerbosity = VERBOSITY_WARN;
        szAuthInfo[0] = '\0';
        szAdminServerHost[0] = '\0';
        uiAdminServerPort = 0;
        nMaxThreads = 1;
        uiReconfigurations = 0;
        ucReconfigured = 0;
        ucTerminated = 0;
        signalled = 0;
        sigerr = 0;
        errlog = nullptr;
        outlog = nullptr;
    }
};

// --- the command line ----------------------------------------------------------------------------------

class CommandLineTest : public RdxHttpTest {
protected:
    int Parse(std::initializer_list<std::string> words) {
        Arguments arguments(words);
        return ParseCommandLine(arguments.argc(), arguments.argv(), port_);
    }

    char port_[RDXHTTP_PORT_SIZE] = "before";
};

TEST_F(CommandLineTest, MayBeEmpty) {
    nMaxThreads = 7;
    EXPECT_EQ(Parse({}), 0);
    EXPECT_STREQ(port_, "before");
    EXPECT_EQ(nMaxThreads, 7);
    EXPECT_EQ(uiAdminServerPort, 0U);
    EXPECT_EQ(ParseCommandLine(0, nullptr, port_), 0);
}

TEST_F(CommandLineTest, KeepsFifteenCharactersOfAPort) {
    EXPECT_EQ(Parse({"-p", "8080"}), 0);
    EXPECT_STREQ(port_, "8080");
    EXPECT_EQ(Parse({"-p", "123456789012345"}), 0);
    EXPECT_STREQ(port_, "123456789012345");
    EXPECT_EQ(Parse({"-p", "1234567890123456"}), 0);
    EXPECT_STREQ(port_, "123456789012345");
    EXPECT_EQ(Parse({"-p", std::string(100, 'x')}), 0);
    EXPECT_STREQ(port_, std::string(15, 'x').c_str());
    EXPECT_EQ(Parse({"-p", ""}), 0);
    EXPECT_STREQ(port_, "");
}

TEST_F(CommandLineTest, KeepsThePathOfTheConfiguration) {
    const IniFile file;
    std::string longer = file.PathOf(4095);
    longer += "x"; // cut off
    const std::string fits = file.PathOf(4095);
    const std::string shorter = file.Path();
    const std::string cut = file.PathOf(4096); // its last character is missing then
    const struct {
        const std::string& path;
        int found;
    } rows[] = {{shorter, 1}, {fits, 1}, {longer, 1}, {cut, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path.size());
        EXPECT_EQ(Parse({"-c", row.path}), 0);
        ucReconfigured = 0;
        const CaptureStdout quiet;
        SignalHandler(SIGUSR1);
        EXPECT_EQ(ucReconfigured, row.found);
    }
}

TEST_F(CommandLineTest, LimitsThreadsToAtLeastOne) {
    const struct {
        const char* value;
        int threads;
    } rows[] = {{"0", 1},
                {"-3", 1},
                {"1", 1},
                {"8", 8},
                {"99999999999", 2147483647},
                {"x", 1},
                {"", 1},
                {"8x", 8},
                {" 12", 12},
                {"-99999999999", 1},
                {"+5", 5},
                {"2147483648", 2147483647}};
    for (const auto& row : rows) {
        nMaxThreads = 77;
        EXPECT_EQ(Parse({"-mt", row.value}), 0);
        EXPECT_EQ(nMaxThreads, row.threads) << row.value;
    }
}

TEST_F(CommandLineTest, TakesAnAdministrationServer) {
    const struct {
        const char* value;
        int result;
        const char* host;
        unsigned port;
    } rows[] = {
        {"admin", 0, "admin", 80},
        {"192.0.2.1", 0, "192.0.2.1", 80},
        {"admin:8080", 0, "admin", 8080},
        {"admin:0", 0, "admin", 0},
        {"admin:80x", 0, "admin", 80},
        {"admin:1:2", 0, "admin", 1},
        {"admin:123456789012345", 0, "admin", 2147483647},
        {"admin:0000000000000801", 0, "admin", 80}, // 15 of 16 digits
        {":8080", 0, "", 8080},
        {"", 0, "", 80},
        {"admin:", -1, "admin", 7},
        {"admin:http", -1, "admin", 7},
        {"admin:-1", -1, "admin", 7},
        {"admin: 1", -1, "admin", 7},
        {"admin:+1", -1, "admin", 7},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        std::strcpy(szAdminServerHost, "before");
        uiAdminServerPort = 7;
        EXPECT_EQ(Parse({"-as", row.value}), row.result);
        EXPECT_STREQ(szAdminServerHost, row.host);
        EXPECT_EQ(uiAdminServerPort, row.port);
    }
}

TEST_F(CommandLineTest, CutsTheAdministrationServerAtItsColonInPlace) {
    Arguments arguments{"-as", "admin:8080"};
    EXPECT_EQ(ParseCommandLine(arguments.argc(), arguments.argv(), port_), 0);
    EXPECT_STREQ(arguments.argv()[2], "admin");
    EXPECT_STREQ(arguments.argv()[2] + 6, "8080");
}

TEST_F(CommandLineTest, CutsALongAdministrationServer) {
    EXPECT_EQ(Parse({"-as", std::string(128, 'h')}), 0);
    EXPECT_EQ(szAdminServerHost, std::string(128, 'h'));
    EXPECT_EQ(Parse({"-as", std::string(129, 'h') + ":90"}), 0);
    EXPECT_EQ(szAdminServerHost, std::string(128, 'h'));
    EXPECT_EQ(uiAdminServerPort, 90U);
}

TEST_F(CommandLineTest, KeepsNineteenCharactersOfTheCredentials) {
    const std::string letters = "abcdefghijklmnopqrstuvwxyz";
    for (const std::size_t length : {0U, 1U, 18U, 19U, 20U, 25U, 26U}) {
        std::strcpy(szAuthInfo, "before");
        EXPECT_EQ(Parse({"-ba", letters.substr(0, length)}), 0) << length;
        EXPECT_EQ(szAuthInfo, "Basic " + letters.substr(0, std::min<std::size_t>(length, 19))) << length;
    }
    std::strcpy(szAuthInfo, "before");
    EXPECT_EQ(Parse({"-ba", letters + "0"}), -1);
    EXPECT_EQ(Parse({"-ba", std::string(1000, 'x')}), -1);
    EXPECT_STREQ(szAuthInfo, "before");
}

TEST_F(CommandLineTest, RefusesAnOptionWithoutItsValue) {
    for (const char* option : {"-p", "-c", "-mt", "-as", "-ba"}) {
        EXPECT_EQ(Parse({option}), -1) << option;
        EXPECT_EQ(Parse({"-mt", "3", option}), -1) << option;
    }
}

TEST_F(CommandLineTest, RefusesUnknownWords) {
    for (const char* word : {"-x", "", "p", "-P", "-pp", "--p", "-m", "-mtx", "8080", "-"}) {
        EXPECT_EQ(Parse({word, "1"}), -1) << word;
        EXPECT_EQ(Parse({word}), -1) << word;
    }
}

TEST_F(CommandLineTest, KeepsWhatCameBeforeTheFirstError) {
    EXPECT_EQ(Parse({"-mt", "5", "-p", "81", "-x", "-mt", "6"}), -1);
    EXPECT_EQ(nMaxThreads, 5);
    EXPECT_STREQ(port_, "81");
    EXPECT_EQ(Parse({"-mt", "4", "-as", "h:x", "-mt", "6"}), -1);
    EXPECT_EQ(nMaxThreads, 4);
}

TEST_F(CommandLineTest, TakesOptionsInAnyOrderAndTheLastOfEach) {
    EXPECT_EQ(Parse({"-ba", "abc", "-as", "a:1", "-mt", "2", "-p", "80", "-mt", "3", "-as", "b"}), 0);
    EXPECT_STREQ(szAuthInfo, "Basic abc");
    EXPECT_STREQ(szAdminServerHost, "b");
    EXPECT_EQ(uiAdminServerPort, 80U);
    EXPECT_EQ(nMaxThreads, 3);
    EXPECT_STREQ(port_, "80");
}

TEST_F(CommandLineTest, TakesAnOptionsWordForAValue) {
    EXPECT_EQ(Parse({"-p", "-c"}), 0);
    EXPECT_STREQ(port_, "-c");
}

// --- signals -------------------------------------------------------------------------------------------

TEST_F(RdxHttpTest, SignalsHaveTheNamesOfSystemV) {
    const char* const kNames[] = {"NIL",     "SIGHUP",  "SIGINT",   "SIGQUIT",   "SIGILL",  "SIGTRAP",
                                  "SIGABRT", "SIGEMT",  "SIGFPE",   "SIGKILL",   "SIGBUS",  "SIGSEGV",
                                  "SIGSYS",  "SIGPIPE", "SIGALRM",  "SIGTERM",   "SIGUSR1", "SIGUSR2",
                                  "SIGCHLD", "SIGPWR",  "SIGWINCH", "SIGPOLL",   "SIGSTOP", "SIGTSTP",
                                  "SIGCONT", "SIGTTIN", "SIGTTOU",  "SIGVTALRM", "SIGPROF"};
    ASSERT_EQ(std::size(kNames), 29U);
    ASSERT_EQ(std::size(aszSigNames), 30U);
    for (std::size_t i = 0; i < std::size(kNames); ++i) EXPECT_STREQ(aszSigNames[i], kNames[i]) << i;
    ASSERT_NE(aszSigNames[29], nullptr);
    EXPECT_STRNE(aszSigNames[29], "");
}

TEST_F(RdxHttpTest, SignalHandlerStopsTheServer) {
    const struct {
        int number;
        std::string line;
    } rows[] = {
        {SIGTERM, "handling signal <SIGTERM>"},
        {SIGHUP, "handling signal <SIGHUP>"},
        {7, "handling signal <SIGEMT>"},
        {1, "handling signal <SIGHUP>"},
        {28, "handling signal <SIGPROF>"},
        {29, std::string("handling signal <") + aszSigNames[29] + ">"},
        {0, "handling signal (0)"},
        {30, "handling signal (30)"},
        {31, "handling signal (31)"},
        {-1, "handling signal (-1)"},
        {64, "handling signal (64)"},
    };
    for (const auto& row : rows) {
        for (const int verbosity : kVerbosities) {
            ucVerbosity = static_cast<unsigned char>(verbosity);
            sigerr = 0;
            signalled = 0;
            const CaptureStdout capture;
            SignalHandler(row.number);
            EXPECT_EQ(sigerr, row.number);
            EXPECT_EQ(signalled, 1);
            EXPECT_EQ(ucReconfigured, 0);
            EXPECT_EQ(WithoutTimes(capture.Text()), "\nSignal handling " + std::to_string(row.number) +
                                                        "\n[TIME],SignalHandler(): " + row.line);
        }
    }
}

TEST_F(RdxHttpTest, SignalHandlerReadsTheConfigurationAgain) {
    const IniFile file("[HTTP]\nVerbosity=VERBOSITY_ALL\nAuthRealm=again\n");
    Arguments arguments{"-c", file.Path()};
    char port[RDXHTTP_PORT_SIZE];
    ASSERT_EQ(ParseCommandLine(arguments.argc(), arguments.argv(), port), 0);
    const CaptureStdout capture;
    SignalHandler(SIGUSR1);
    EXPECT_EQ(ucReconfigured, 1);
    EXPECT_EQ(uiReconfigurations, 1U);
    EXPECT_STREQ(szConfigAuthRealm, "again");
    EXPECT_EQ(ucVerbosity, VERBOSITY_ALL);
    EXPECT_EQ(sigerr, 0);
    EXPECT_EQ(signalled, 0);
    EXPECT_EQ(WithoutTimes(capture.Text()),
              "\nSignal handling 10\n[TIME],SignalHandler(): handling signal <SIGBUS>");
}

TEST_F(RdxHttpTest, SignalHandlerGoesOnWithABadConfiguration) {
    const IniFile file("[HTTP]\nVerbosity=LOUD\n");
    Arguments arguments{"-c", file.Path()};
    char port[RDXHTTP_PORT_SIZE];
    ASSERT_EQ(ParseCommandLine(arguments.argc(), arguments.argv(), port), 0);
    const CaptureStdout quiet;
    SignalHandler(SIGUSR1);
    EXPECT_EQ(ucReconfigured, 0);
    EXPECT_EQ(signalled, 0);
}

TEST_F(RdxHttpTest, SignalHandlerLeavesTheErrorOfTheInterruptedCode) {
    Arguments arguments{"-c", "/nowhere/tnd.ini"};
    char port[RDXHTTP_PORT_SIZE];
    ASSERT_EQ(ParseCommandLine(arguments.argc(), arguments.argv(), port), 0);
    const CaptureStdout quiet;
    errno = EXDEV;
    SignalHandler(SIGUSR1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(ucReconfigured, 0);
}

struct sigaction ActionOf(int number) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    return action;
}

TEST_F(RdxHttpTest, InitSignalHandlingInstallsTheHandler) {
    for (const int verbosity : kVerbosities) {
        Child child([verbosity] {
            ucVerbosity = static_cast<unsigned char>(verbosity);
            sigerr = 5;
            signalled = 1;
            sigset_t blocked;
            sigemptyset(&blocked);
            sigaddset(&blocked, SIGUSR1);
            sigaddset(&blocked, SIGTERM);
            pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
            EXPECT_EQ(InitSignalHandling(), 0);
            EXPECT_EQ(sigerr, 0);
            EXPECT_EQ(signalled, 0);
            for (const int number : {SIGTERM, SIGBUS, SIGSYS, SIGHUP, SIGUSR1}) {
                const struct sigaction action = ActionOf(number);
                EXPECT_EQ(action.sa_handler, SignalHandler) << number;
                for (const int flag : {SA_RESTART, SA_SIGINFO, SA_NODEFER, static_cast<int>(SA_RESETHAND)}) {
                    EXPECT_EQ(action.sa_flags & flag, 0);
                }
                for (int other = 1; other < 32; ++other) EXPECT_EQ(sigismember(&action.sa_mask, other), 0);
            }
            for (const int number : {SIGINT, SIGQUIT, SIGPIPE}) {
                EXPECT_EQ(ActionOf(number).sa_handler, SIG_IGN) << number;
            }
            for (const int number : {SIGUSR2, SIGALRM, SIGCHLD, SIGABRT}) {
                EXPECT_NE(ActionOf(number).sa_handler, SignalHandler) << number;
            }
            sigset_t now;
            pthread_sigmask(SIG_BLOCK, nullptr, &now);
            EXPECT_EQ(sigismember(&now, SIGUSR1), 0);
            EXPECT_EQ(sigismember(&now, SIGTERM), 1) << "another signal stays as it was";
            return 0;
        });
        EXPECT_EQ(child.Result(), 0);
        EXPECT_EQ(child.Output(), verbosity > VERBOSITY_WARN
                                      ? "\n[TIME],InitSignalHandling(): signal handler installed (10)"
                                      : "");
    }
}

// The handler logs too: it must not find a half-written line.
TEST_F(RdxHttpTest, InitSignalHandlingLogsUndisturbed) {
    Child child([] {
        int lines = 0;
        cookie_io_functions_t functions{};
        functions.write = [](void* cookie, const char*, std::size_t size) {
            sigset_t now;
            pthread_sigmask(SIG_BLOCK, nullptr, &now);
            for (const int number : kCaughtSignals) EXPECT_EQ(sigismember(&now, number), 1) << number;
            ++*static_cast<int*>(cookie);
            return static_cast<ssize_t>(size);
        };
        outlog = fopencookie(&lines, "w", functions);
        ucVerbosity = VERBOSITY_ALL;
        EXPECT_EQ(InitSignalHandling(), 0);
        EXPECT_EQ(lines, 1);
        return CloseLogfile();
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpTest, InitSignalHandlingStopsAtTheFirstFailure) {
    const int kOrder[] = {SIGTERM, SIGBUS, SIGSYS, SIGHUP, SIGUSR1};
    for (int nth = 1; nth <= 5; ++nth) {
        Child child([&kOrder, nth] {
            ucVerbosity = VERBOSITY_ALL;
            std::signal(SIGINT, SIG_DFL);
            {
                const FailCall refused("sigaction", nth, EINVAL);
                EXPECT_EQ(InitSignalHandling(), -6);
                EXPECT_TRUE(refused.Struck());
            }
            for (int i = 1; i <= 5; ++i) {
                EXPECT_EQ(ActionOf(kOrder[i - 1]).sa_handler == SignalHandler, i < nth) << i;
            }
            EXPECT_NE(ActionOf(SIGINT).sa_handler, SIG_IGN);
            return 0;
        });
        EXPECT_EQ(child.Result(), 0) << nth;
        EXPECT_EQ(child.Output(), "");
    }
}

TEST_F(RdxHttpTest, InitSignalHandlingDoesNotAskWhetherSignalsAreIgnored) {
    for (int nth = 6; nth <= 8; ++nth) {
        Child child([nth] {
            const FailCall refused("sigaction", nth, EINVAL);
            const int result = InitSignalHandling();
            EXPECT_TRUE(refused.Struck());
            return result;
        });
        EXPECT_EQ(child.Result(), 0) << nth;
    }
}

// --- small entries -------------------------------------------------------------------------------------

TEST_F(RdxHttpTest, InstanceFunctionsDoNothing) {
    Arguments arguments{"-x"};
    const CaptureStdout capture;
    EXPECT_EQ(rDxHttpCreateInstance(arguments.argc(), arguments.argv()), 0);
    EXPECT_EQ(rDxHttpCreateInstance(0, nullptr), 0);
    EXPECT_EQ(rDxHttpDeinitialize(), 0);
    EXPECT_EQ(AssertCrt(), 0);
    EXPECT_EQ(OpenLogfile("/nowhere/log"), 0);
    EXPECT_EQ(OpenLogfile(nullptr), 0);
    EXPECT_EQ(capture.Text(), "");
    EXPECT_FALSE(std::filesystem::exists("/nowhere"));
}

TEST_F(RdxHttpTest, ExitFunctionSaysGoodbye) {
    for (const int verbosity : kVerbosities) {
        ucVerbosity = static_cast<unsigned char>(verbosity);
        const CaptureStdout capture;
        ExitFunction();
        EXPECT_EQ(WithoutTimes(capture.Text()), "\n[TIME],ExitFunction(): program exits (0)");
    }
}

// A stream that counts how often it was closed.
FILE* CountingStream(int* closed) {
    cookie_io_functions_t functions{};
    functions.close = [](void* cookie) {
        ++*static_cast<int*>(cookie);
        return 0;
    };
    return fopencookie(closed, "w", functions);
}

TEST_F(RdxHttpTest, CloseLogfileSetsTheStandardStreamsBack) {
    errlog = nullptr;
    outlog = nullptr;
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(errlog, StdErr);
    EXPECT_EQ(outlog, StdOut);
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(errlog, StdErr);
    EXPECT_EQ(outlog, StdOut);
    EXPECT_GE(fileno(stderr), 0) << "not closed";
    EXPECT_GE(fileno(stdout), 0);
}

TEST_F(RdxHttpTest, CloseLogfileClosesOtherStreams) {
    int errors = 0;
    int log = 0;
    errlog = CountingStream(&errors);
    outlog = StdOut;
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(errors, 1);
    EXPECT_EQ(errlog, StdErr);

    outlog = CountingStream(&log);
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(log, 1);
    EXPECT_EQ(outlog, StdOut);

    errlog = CountingStream(&errors);
    outlog = CountingStream(&log);
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(errors, 2);
    EXPECT_EQ(log, 2);
}

TEST_F(RdxHttpTest, CloseLogfileClosesAStreamOfBothLogsOnce) {
    int closed = 0;
    errlog = outlog = CountingStream(&closed);
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(closed, 1);
    EXPECT_EQ(errlog, StdErr);
    EXPECT_EQ(outlog, StdOut);
}

// Each stream is spared by the log that it is the standard of, and only by that.
TEST_F(RdxHttpTest, CloseLogfileClosesTheErrorStreamAsALog) {
    Child child([] {
        errlog = outlog = StdErr;
        EXPECT_EQ(CloseLogfile(), 0);
        EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFD), -1);
        EXPECT_EQ(errlog, StdErr);
        EXPECT_EQ(outlog, StdOut);
        return 0;
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpTest, CloseLogfileDoesNotCareWhetherClosingFailed) {
    outlog = std::fopen("/dev/full", "w");
    ASSERT_NE(outlog, nullptr);
    std::fputs("lost", outlog);
    EXPECT_EQ(CloseLogfile(), 0);
    EXPECT_EQ(outlog, StdOut);
}

// --- the start -----------------------------------------------------------------------------------------

using RdxHttpMainTest = RdxHttpTest;

TEST_F(RdxHttpMainTest, BeginsWithItsDefaults) {
    Child child([] {
        ReplaceAll(VERBOSITY_WARN);
        nMaxThreads = 9;
        uiAdminServerPort = 9;
        uiReconfigurations = 9;
        ucRunAsJunior = 1;
        replaced.readIniFile = [](const char* path, const char* section) {
            EXPECT_STREQ(path, "/etc/tnd.ini");
            EXPECT_STREQ(section, "HTTP");
            EXPECT_EQ(uiAdminServerPort, 0U);
            EXPECT_EQ(ucRunAsJunior, 0);
            EXPECT_EQ(errlog, StdErr);
            EXPECT_EQ(outlog, StdOut);
            return 0;
        };
        const time_t before = time(nullptr);
        EXPECT_EQ(RunMain({}), 0);
        EXPECT_EQ(nMaxThreads, 1);
        EXPECT_EQ(uiReconfigurations, 0U);
        EXPECT_GE(server_start_time, static_cast<unsigned>(before));
        EXPECT_LE(server_start_time, static_cast<unsigned>(time(nullptr)));
        return 0;
    });
    EXPECT_EQ(child.Result(), 0);
    EXPECT_EQ(child.Output(), "\n[TIME],main(): rdxhttp_main (0)"
                              "\n[TIME],main(): running single threaded server (1)"
                              "\n<dump>\n<listen www 5>\n<serve 1>");
}

TEST_F(RdxHttpMainTest, TracesAtEveryVerbosity) {
    for (const int verbosity : kVerbosities) {
        for (const char* configured : {"www", "8090"}) {
            Child child([verbosity, configured] {
                ReplaceAll(verbosity);
                replaced.readIniFile = [verbosity, configured](const char*, const char*) {
                    ucVerbosity = static_cast<unsigned char>(verbosity);
                    std::strcpy(szConfigSvcPort, configured);
                    return 0;
                };
                return RunMain({});
            });
            EXPECT_EQ(child.Result(), 0);
            const bool log = verbosity > VERBOSITY_WARN;
            const std::string port = configured;
            std::string expected = "\n[TIME],main(): rdxhttp_main (0)"
                                   "\n[TIME],main(): running single threaded server (1)";
            if (log) {
                expected += "\n[TIME],InitSignalHandling(): signal handler installed (10)"
                            "\n[TIME],main(): socket library initialized (0)";
            }
            expected += "\n<dump>";
            if (log && port != "www") {
                expected += "\n[TIME],main(): warning - svc port from config file overrides cmdline or "
                            "default param <8090>";
            }
            expected += "\n<listen " + port + " 5>";
            if (log) expected += "\n[TIME],main(): server socket created (0)";
            expected += "\n<serve 1>";
            if (log) expected += "\n[TIME],main(): ordinary HTTP server shutdown (0)";
            EXPECT_EQ(child.Output(), expected);
        }
    }
}

TEST_F(RdxHttpMainTest, AlwaysTakesTheConfiguredPort) {
    for (const int verbosity : kVerbosities) {
        Child child([verbosity] {
            ReplaceAll(verbosity);
            return RunMain({"-p", "8080"});
        });
        EXPECT_EQ(child.Result(), 0);
        EXPECT_THAT(child.Output(), HasSubstr("\n<listen www 5>"));
        EXPECT_EQ(child.CountOf("main(): warning - svc port from config file overrides cmdline or default "
                                "param <www>"),
                  verbosity > VERBOSITY_WARN ? 1 : 0);
    }
}

TEST_F(RdxHttpMainTest, SaysHowManyThreadsServe) {
    for (const int verbosity : kVerbosities) {
        Child child([verbosity] {
            ReplaceAll(verbosity);
            return RunMain({"-mt", "8"});
        });
        EXPECT_EQ(child.Result(), 0);
        const std::string line = "\n[TIME],main(): MT server - maximum concurrency level = (8) [tid=";
        EXPECT_THAT(child.Output(), HasSubstr(line));
        EXPECT_THAT(child.Output(), HasSubstr("\n<serve 8>"));
        EXPECT_THAT(child.Output(), Not(HasSubstr("single threaded")));
    }
    for (const char* few : {"0", "-3", "1"}) {
        Child child([few] {
            ReplaceAll(VERBOSITY_NONE);
            return RunMain({"-mt", few});
        });
        EXPECT_EQ(child.Result(), 0);
        EXPECT_THAT(child.Output(), HasSubstr("\n[TIME],main(): running single threaded server (1)"));
        EXPECT_THAT(child.Output(), HasSubstr("\n<serve 1>"));
    }
}

TEST_F(RdxHttpMainTest, RunsAsJuniorWithAnAdministrationServer) {
    Child child([] {
        ReplaceAll(VERBOSITY_WARN);
        replaced.readIniFile = [](const char*, const char*) {
            EXPECT_EQ(ucRunAsJunior, 1) << "before the file is read";
            std::memset(szConfigAuthInfo, 'x', 48);
            szConfigAuthInfo[48] = '\0';
            return 0;
        };
        EXPECT_EQ(RunMain({"-as", "admin:8080", "-ba", "replaced"}), 0);
        EXPECT_EQ(ucRunAsJunior, 1);
        EXPECT_STREQ(szAdminServerHost, "admin");
        EXPECT_EQ(uiAdminServerPort, 8080U);
        EXPECT_EQ(szAuthInfo, "Basic " + std::string(48, 'x'));
        return 0;
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpMainTest, IsNoJuniorOtherwise) {
    for (const bool port0 : {false, true}) {
        Child child([port0] {
            ReplaceAll(VERBOSITY_WARN);
            EXPECT_EQ(port0 ? RunMain({"-as", "admin:0", "-ba", "kept"}) : RunMain({"-ba", "kept"}), 0);
            EXPECT_EQ(ucRunAsJunior, 0);
            EXPECT_STREQ(szAuthInfo, "Basic kept");
            return 0;
        });
        EXPECT_EQ(child.Result(), 0);
    }
}

TEST_F(RdxHttpMainTest, RefusesABadCommandLineBeforeItReadsAFile) {
    replaced.readIniFile = [](const char*, const char*) {
        ADD_FAILURE() << "reads the file";
        return 0;
    };
    const CaptureStdout capture;
    EXPECT_EQ(RunMain({"-x"}), -1);
    EXPECT_EQ(RunMain({"-p"}), -1);
    EXPECT_EQ(RunMain({"-as", "host:port"}), -1);
    EXPECT_EQ(RunMain({"-ba", std::string(27, 'x')}), -1);
    const std::string line = "\n[TIME],main(): rdxhttp_main (0)";
    EXPECT_EQ(WithoutTimes(capture.Text()), line + line + line + line);
}

TEST_F(RdxHttpMainTest, NeedsItsConfiguration) {
    const IniFile bad("[HTTP]\nVerbosity=LOUD\n");
    const CaptureStdout quiet;
    EXPECT_EQ(RunMain({"-c", bad.Path() + ".missing"}), -2);
    EXPECT_EQ(RunMain({"-c", ""}), -2);
    EXPECT_EQ(RunMain({"-c", bad.Path()}), -2);
    const IniFile good;
    const FailCall unreadable("fopen", 1, EMFILE);
    EXPECT_EQ(RunMain({"-c", good.Path()}), -2);
    EXPECT_TRUE(unreadable.Struck());
}

TEST_F(RdxHttpMainTest, LeavesTheLogStreamsWhenItCannotStart) {
    const CaptureStdout quiet;
    replaced.readIniFile = [](const char*, const char*) {
        outlog = stderr;
        return -4;
    };
    EXPECT_EQ(RunMain({}), -2);
    EXPECT_EQ(outlog, stderr);
}

TEST_F(RdxHttpMainTest, TakesALogfileForGranted) {
    Child child([] {
        ReplaceAll(VERBOSITY_WARN);
        replaced.readIniFile = [](const char*, const char*) {
            std::strcpy(szConfigLogfile, "/nowhere/log");
            return 0;
        };
        return RunMain({});
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpMainTest, NeedsItsSignals) {
    for (int nth = 1; nth <= 5; ++nth) {
        Child child([nth] {
            ReplaceAll(VERBOSITY_WARN);
            const FailCall refused("sigaction", nth, EINVAL);
            return RunMain({});
        });
        EXPECT_EQ(child.Result(), -6) << nth;
        EXPECT_THAT(child.Output(), Not(HasSubstr("<dump>")));
    }
}

TEST_F(RdxHttpMainTest, NeedsTheSocketLibrary) {
    Child child([] {
        ReplaceAll(VERBOSITY_ALL);
        replaced.initSockLib = [] { return 1; };
        return RunMain({});
    });
    EXPECT_EQ(child.Result(), -7);
    EXPECT_THAT(child.Output(), Not(HasSubstr("socket library initialized")));
    EXPECT_THAT(child.Output(), Not(HasSubstr("<dump>")));
}

TEST_F(RdxHttpMainTest, NeedsItsServicePort) {
    const test::Listener taken;
    const IniFile busy("[HTTP]\nServicePort=" + std::to_string(taken.Port()) + "\n");
    const IniFile unknown("[HTTP]\nServicePort=nosuchsvc\n");
    for (const IniFile* file : {&busy, &unknown}) {
        Child child([file] { return RunMain({"-c", file->Path()}); });
        EXPECT_EQ(child.Result(), -9);
        EXPECT_THAT(child.Output(), HasSubstr("DumpConfiguration-\n"));
        EXPECT_THAT(child.Output(), Not(HasSubstr("ucTerminated")));
    }
}

TEST_F(RdxHttpMainTest, NeedsItsServiceLoop) {
    const IniFile file("[HTTP]\nServicePort=" + std::to_string(test::FreePort()) +
                       "\nVerbosity=VERBOSITY_ALL\n");
    for (int nth = 1; nth <= 3; ++nth) {
        Child child([&file, nth] {
            std::optional<FailCall> noMemory;
            int server = -1;
            replaced.runHttpServer = [&](unsigned socket, unsigned threads) {
                server = static_cast<int>(socket);
                noMemory.emplace("calloc", nth);
                return __real_RunHttpServer(socket, threads);
            };
            const int result = RunMain({"-c", file.Path(), "-mt", "4"});
            EXPECT_TRUE(noMemory->Struck());
            EXPECT_EQ(fcntl(server, F_GETFD), -1) << "the service port is closed";
            return result;
        });
        EXPECT_EQ(child.Result(), -10) << nth;
        EXPECT_THAT(child.Output(), Not(HasSubstr("ordinary HTTP server shutdown")));
    }
}

TEST_F(RdxHttpMainTest, MustBeAbleToCloseItsServicePort) {
    Child child([] {
        ReplaceAll(VERBOSITY_ALL);
        const FailCall stuck("close", 1, EIO);
        const int result = RunMain({});
        EXPECT_TRUE(stuck.Struck());
        return result;
    });
    EXPECT_EQ(child.Result(), -11);
    EXPECT_THAT(child.Output(), testing::EndsWith("main(): ordinary HTTP server shutdown (0)"));
}

TEST_F(RdxHttpMainTest, BeginsAgainAfterAReconfiguration) {
    for (const int verbosity : kVerbosities) {
        Child child([verbosity] {
            ReplaceAll(verbosity);
            int loops = 0;
            replaced.runHttpServer = [&loops](unsigned socket, unsigned) {
                EXPECT_GE(fcntl(static_cast<int>(socket), F_GETFD), 0);
                std::printf("\n<serve>");
                ++loops;
                ucReconfigured = loops < 3;
                if (loops == 2) std::strcpy(szConfigSvcPort, "8090");
                return 0;
            };
            EXPECT_EQ(RunMain({}), 0);
            EXPECT_EQ(ucReconfigured, 0);
            return 0;
        });
        EXPECT_EQ(child.Result(), 0);
        const std::string output = child.Output();
        const bool log = verbosity > VERBOSITY_WARN;
        const auto loop = [log](const std::string& port) {
            std::string text = "\n<listen " + port + " 5>";
            if (log) text += "\n[TIME],main(): server socket created (0)";
            text += "\n<serve>";
            if (log) text += "\n[TIME],main(): ordinary HTTP server shutdown (0)";
            return text;
        };
        const std::string event = log ? "\n[TIME],main(): Tavrin reconfiguration event (0)" : "";
        const std::string warning = log ? "\n[TIME],main(): warning - svc port from config file overrides "
                                          "cmdline or default param <8090>"
                                        : "";
        EXPECT_THAT(output, testing::EndsWith("\n<dump>" + loop("www") + event + "\n<dump>" + loop("www") +
                                              event + "\n<dump>" + warning + loop("8090")));
    }
}

TEST_F(RdxHttpMainTest, RestoresTheLogStreams) {
    for (const bool errors : {false, true}) {
        Child child([errors] {
            ReplaceAll(VERBOSITY_WARN);
            int closed = 0;
            replaced.runHttpServer = [&](unsigned, unsigned) {
                (errors ? errlog : outlog) = CountingStream(&closed);
                return 0;
            };
            EXPECT_EQ(RunMain({}), 0);
            EXPECT_EQ(closed, 1);
            EXPECT_EQ(errlog, StdErr);
            EXPECT_EQ(outlog, StdOut);
            return 0;
        });
        EXPECT_EQ(child.Result(), 0);
    }
}

TEST_F(RdxHttpMainTest, DumpsToTheLog) {
    Child child([] {
        ReplaceAll(VERBOSITY_WARN);
        int closed = 0;
        FILE* const log = CountingStream(&closed);
        replaced.readIniFile = [log](const char*, const char*) {
            outlog = log;
            return 0;
        };
        replaced.dumpConfiguration = [log](FILE* stream) {
            EXPECT_EQ(stream, log);
            return 0;
        };
        return RunMain({});
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpMainTest, LeavesTheLogStreamsWhenItCannotServe) {
    for (const int result : {-7, -9, -10}) {
        Child child([result] {
            ReplaceAll(VERBOSITY_WARN);
            int closed = 0;
            FILE* const log = CountingStream(&closed);
            replaced.readIniFile = [log](const char*, const char*) {
                outlog = log;
                return 0;
            };
            replaced.dumpConfiguration = [](FILE*) { return 0; };
            if (result == -7) replaced.initSockLib = [] { return 1; };
            if (result == -9) replaced.createSrvSocket = [](const char*, int, int*) { return -1; };
            if (result == -10) replaced.runHttpServer = [](unsigned, unsigned) { return 1; };
            EXPECT_EQ(RunMain({}), result);
            EXPECT_EQ(outlog, log);
            EXPECT_EQ(closed, 0);
            return 0;
        });
        EXPECT_EQ(child.Result(), 0) << result;
    }
}

// The host may hold any lock by then.
TEST_F(RdxHttpMainTest, OnlyNotesSignalsOnceItHasEnded) {
    Child child([] {
        ReplaceAll(VERBOSITY_ALL);
        replaced.runHttpServer = [](unsigned, unsigned) {
            raise(SIGUSR1); // waits, for there is no window
            return 0;
        };
        EXPECT_EQ(RunMain({}), 0);
        EXPECT_EQ(ucReconfigured, 0);
        const CaptureStdout capture;
        raise(SIGUSR1);
        EXPECT_EQ(signalled, 0);
        for (const int number : {SIGTERM, SIGBUS, SIGSYS, SIGHUP}) {
            signalled = 0;
            raise(number);
            EXPECT_EQ(sigerr, number);
            EXPECT_EQ(signalled, 1);
        }
        EXPECT_EQ(ucReconfigured, 0);
        EXPECT_EQ(capture.Text(), "");
        return 0;
    });
    EXPECT_EQ(child.Result(), 0);
}

TEST_F(RdxHttpMainTest, RestoresTheSignalMask) {
    Child child([] {
        ReplaceAll(VERBOSITY_WARN);
        sigset_t before;
        sigemptyset(&before);
        sigaddset(&before, SIGUSR1);
        sigaddset(&before, SIGALRM);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        replaced.runHttpServer = [](unsigned, unsigned) {
            sigset_t now;
            pthread_sigmask(SIG_BLOCK, nullptr, &now);
            for (const int number : {SIGTERM, SIGBUS, SIGSYS, SIGHUP, SIGUSR1, SIGALRM}) {
                EXPECT_EQ(sigismember(&now, number), 1) << number;
            }
            return 0;
        };
        EXPECT_EQ(RunMain({}), 0);
        sigset_t after;
        pthread_sigmask(SIG_BLOCK, nullptr, &after);
        for (int number = 1; number < 32; ++number) {
            EXPECT_EQ(sigismember(&after, number), number == SIGALRM ? 1 : 0) << number;
        }
        return 0;
    });
    EXPECT_EQ(child.Result(), 0);
}

// --- the server as a whole -----------------------------------------------------------------------------

const std::string kNotFoundPage = "<HTML><BODY>Not Found</BODY></HTML>";

// A server in a child process.
class ServerTest : public RdxHttpTest {
protected:
    void Start(const std::string& threads = "1") {
        Configure(port_);
        child_.emplace([this, threads] {
            const int result = RunMain({"-c", file_.Path(), "-mt", threads});
            std::printf("\nsigerr=%d signalled=%d", sigerr, signalled);
            return result;
        });
        ASSERT_TRUE(child_->Prints("mtPrimaryThread="));
    }

    void Configure(int port, const std::string& more = "") {
        file_.Write("[HTTP]\nServicePort=" + std::to_string(port) +
                    "\nMethodsAllowed=GET\nVerbosity=VERBOSITY_LOG\n" + more);
    }

    static void ExpectServes(Client& client) {
        client.Send("GET /other HTTP/1.1\r\nConnection: close\r\n\r\n");
        EXPECT_THAT(client.ReceiveAll(), testing::EndsWith(kNotFoundPage));
    }

    void ExpectServes(int port) {
        Client client(port);
        ASSERT_TRUE(client.Connected());
        ExpectServes(client);
    }

    Child& Server() { return *child_; }

    int port_ = test::FreePort();
    IniFile file_;

private:
    std::optional<Child> child_;
};

TEST_F(ServerTest, StopsInOrderOnEachTerminatingSignal) {
    const struct {
        int number;
        std::string line;
    } rows[] = {{SIGTERM, "handling signal <SIGTERM>"},
                {SIGHUP, "handling signal <SIGHUP>"},
                {SIGBUS, "handling signal <" + std::string(aszSigNames[SIGBUS]) + ">"},
                {SIGSYS, "handling signal (" + std::to_string(SIGSYS) + ")"}};
    for (const auto& row : rows) {
        for (const char* threads : {"1", "3"}) {
            SCOPED_TRACE(row.number);
            Start(threads);
            ExpectServes(port_);
            Client idle(port_);
            ASSERT_TRUE(Server().Prints("accepted connection", 2));
            ASSERT_TRUE(Server().Prints("ServeClientDone: Socket closed"));
            Server().Signal(row.number);
            EXPECT_EQ(Server().Result(), 0);
            EXPECT_EQ(idle.ReceiveAll(), "");
            EXPECT_THAT(Server().Output(),
                        testing::EndsWith("\nSignal handling " + std::to_string(row.number) +
                                          "\n[TIME],SignalHandler(): " + row.line +
                                          "\nucTerminated=0"
                                          "\n[TIME],main(): ordinary HTTP server shutdown (0)"
                                          "\nsigerr=" +
                                          std::to_string(row.number) + " signalled=1"));
        }
    }
}

TEST_F(ServerTest, IgnoresTheSignalsOfATerminal) {
    Start();
    for (const int number : {SIGINT, SIGQUIT, SIGPIPE}) {
        Server().Signal(number);
        ExpectServes(port_);
    }
    Server().Signal(SIGTERM);
    EXPECT_EQ(Server().Result(), 0);
    EXPECT_EQ(Server().CountOf("Signal handling"), 1);
}

TEST_F(ServerTest, BeginsAgainOnSigusr1) {
    for (const char* threads : {"1", "3"}) {
        Start(threads);
        ExpectServes(port_);
        Client idle(port_);
        Server().Signal(SIGUSR1);
        ASSERT_TRUE(Server().Prints("mtPrimaryThread=", 2));
        EXPECT_EQ(idle.ReceiveAll(), "");
        ExpectServes(port_);

        const int other = test::FreePort();
        Configure(other);
        Server().Signal(SIGUSR1);
        ASSERT_TRUE(Server().Prints("mtPrimaryThread=", 3));
        ExpectServes(other);
        EXPECT_FALSE(Client(port_).Connected());

        Server().Signal(SIGTERM);
        EXPECT_EQ(Server().Result(), 0);
        for (const char* counter : {"counter: 0", "counter: 1", "counter: 2"}) {
            EXPECT_EQ(Server().CountOf(counter), 1) << counter;
        }
        EXPECT_EQ(Server().CountOf("\nSignal handling 10\n[TIME],SignalHandler(): handling signal <SIGBUS>"),
                  2);
        EXPECT_EQ(Server().CountOf("main(): Tavrin reconfiguration event (0)"), 2);
        EXPECT_EQ(Server().CountOf("param <" + std::to_string(other) + ">"), 1);
    }
}

TEST_F(ServerTest, GoesOnWhenTheNewConfigurationIsBad) {
    Start("3");
    Client idle(port_);
    Configure(port_, "MethodsAllowed=FOO\n");
    Server().Signal(SIGUSR1);
    ASSERT_TRUE(Server().Prints("Signal handling 10"));
    ExpectServes(idle);
    Server().Signal(SIGTERM);
    EXPECT_EQ(Server().Result(), 0);
    EXPECT_EQ(Server().CountOf("mtPrimaryThread="), 1);
}

TEST_F(ServerTest, CannotBeginAgainOnATakenPort) {
    Start();
    const test::Listener taken;
    Configure(taken.Port());
    Server().Signal(SIGUSR1);
    EXPECT_EQ(Server().Result(), -9);
}

TEST_F(ServerTest, AnswersARequestInServiceAfterItBeganAgain) {
    Start("2");
    for (int run = 1; run <= 5; ++run) {
        Client client(port_);
        client.Send("GET /other HTTP/1.1\r\nHo");
        ASSERT_TRUE(Server().Prints("ParseHttpMethodLine ok", run));
        Server().Signal(SIGUSR1);
        ASSERT_TRUE(Server().Prints("mtPrimaryThread=", run + 1));
        client.Send("st: a\r\n\r\n");
        EXPECT_THAT(client.ReceiveAll(), testing::EndsWith(kNotFoundPage));
    }
    ExpectServes(port_);
    Server().Signal(SIGTERM);
    EXPECT_EQ(Server().Result(), 0);
}

// In the single-threaded server the thread that handles signals is the one that waits for the client.
TEST_F(ServerTest, IsNotHeldUpByAStalledClient) {
    Start();
    Client stalled(port_);
    stalled.Send("GET /other HTTP/1.1\r\nHo");
    ASSERT_TRUE(Server().Prints("ParseHttpMethodLine ok"));
    Server().Signal(SIGTERM);
    EXPECT_EQ(Server().Result(), 0);
    EXPECT_EQ(stalled.ReceiveAll(), "") << "no answer to half a request";
}

TEST_F(ServerTest, FinishesTheRequestBeforeItBeginsAgain) {
    Start();
    Client client(port_);
    client.Send("GET /other HTTP/1.1\r\nHo");
    ASSERT_TRUE(Server().Prints("ParseHttpMethodLine ok"));
    Server().Signal(SIGUSR1);
    ASSERT_TRUE(Server().Prints("handling signal <SIGBUS>"));
    EXPECT_TRUE(client.IsSilent());
    client.Send("st: a\r\n\r\n");
    EXPECT_THAT(client.ReceiveAll(), testing::EndsWith(kNotFoundPage));
    ASSERT_TRUE(Server().Prints("mtPrimaryThread=", 2));
    ExpectServes(port_);
    Server().Signal(SIGTERM);
    EXPECT_EQ(Server().Result(), 0);
}

// A host may leave the caught signals unblocked in threads of its own.
TEST_F(ServerTest, HandlesASignalOfAnotherThreadOnTheServersOwn) {
    Configure(port_);
    Child child([this] {
        static std::atomic<pthread_t> logger{}; // the thread of the handler's line
        cookie_io_functions_t functions{};
        functions.write = [](void*, const char* text, std::size_t size) {
            if (std::string_view(text, size).find("SignalHandler()") != std::string_view::npos) {
                logger = pthread_self();
            }
            return static_cast<ssize_t>(size);
        };
        replaced.readIniFile = [&functions](const char* path, const char* section) {
            outlog = fopencookie(nullptr, "w", functions);
            return __real_ReadIniFile(path, section);
        };
        std::thread other([] {
            Eventually([] { return LoadShared(mtPrimaryThread) != static_cast<ThreadID>(-1); });
            pthread_kill(pthread_self(), SIGTERM);
            EXPECT_TRUE(Eventually([] { return LoadShared(signalled) != 0; }));
        });
        const int result = RunMain({"-c", file_.Path()});
        other.join();
        EXPECT_EQ(logger, pthread_self());
        return result;
    });
    EXPECT_EQ(child.Result(), 0);
    EXPECT_EQ(child.CountOf("\nSignal handling 15"), 1);
}

TEST_F(ServerTest, ReturnsZeroWhenAHandlerEndsIt) {
    Configure(port_);
    Child child([this] {
        std::thread stopper([] {
            Eventually([] { return LoadShared(mtPrimaryThread) != static_cast<ThreadID>(-1); });
            StoreShared<unsigned char>(ucTerminated, 1);
        });
        const int result = RunMain({"-c", file_.Path(), "-mt", "2"});
        stopper.join();
        return result;
    });
    EXPECT_EQ(child.Result(), 0);
    EXPECT_EQ(child.CountOf("\nucTerminated=1"), 1);
}

} // namespace
