// What the tests of the entry share: the functions that stand for those it calls, its arguments and files.
#ifndef RDX_TESTS_SUPPORT_ENTRY_H
#define RDX_TESTS_SUPPORT_ENTRY_H

#include "common/config.h"
#include "common/log.h"
#include "common/portability_sockets.h"
#include "common/signal_windows.h"
#include "server/rdxhttp.h"
#include "server/service.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern "C" {
int __real_ReadIniFile(const char*, const char*);
int __real_RunHttpServer(unsigned, unsigned);
}

namespace rdx::test {

// Where nothing is set, the real function is called.
struct Replaced {
    std::function<int(const char* path, const char* section)> readIniFile;
    std::function<int(FILE*)> dumpConfiguration;
    std::function<int()> initSockLib;
    std::function<int(const char* service, int backlog, int* socket)> createSrvSocket;
    std::function<int(unsigned server, unsigned threads)> runHttpServer;
};
extern Replaced replaced;

inline constexpr int kVerbosities[] = {VERBOSITY_NONE, VERBOSITY_WARN, VERBOSITY_LOG, VERBOSITY_ALL};

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

    // Only while it runs: -1 stands for every process of the machine.
    void Signal(int number) const {
        ASSERT_GT(process_, 1);
        kill(process_, number);
    }

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

inline int RunMain(std::initializer_list<std::string> words) {
    Arguments arguments(words);
    return rdxhttp_main(arguments.argc(), arguments.argv());
}

class RdxHttpTest : public testing::Test {
protected:
    void SetUp() override { replaced = {}; }
    void TearDown() override { replaced = {}; }

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
};

} // namespace rdx::test

#endif
