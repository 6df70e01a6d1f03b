// rdxhttpd: the ready-made host process of librDxsH.so.
//
// Two processes. The child runs the server on its main thread, as the library wants it. The parent has
// no part in serving: it passes signals on, so that Ctrl-C ends the server although the library ignores
// SIGINT, and it stays whole when an assertion of the library ends the child.

#include "common/config.h"
#include "host/results.h"
#include "server/rdxhttp.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string_view>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Descriptors the process may open. The server closes connections whose descriptor is 1024 or more one
// by one; at the usual limit of 1024 there would be no such descriptor and `accept` would starve.
constexpr rlim_t kDescriptors = 4096;

// How long requests still in service may go on once the server has stopped, in steps of a pause.
constexpr int kFinishSteps = 200;
constexpr timespec kFinishPause = {.tv_sec = 0, .tv_nsec = 10'000'000};

constexpr char kUsage[] =
    "Usage: rdxhttpd [OPTION VALUE]...\n"
    "Runs the device's HTTP server until it is stopped with Ctrl-C or SIGTERM.\n"
    "\n"
    "  -c FILE            configuration file, " CONFIG_DEFAULT_PATH " unless given\n"
    "  -mt THREADS        requests served at once, 1 unless given\n"
    "  -p PORT            kept for old callers: the file's ServicePort always wins\n"
    "  -as ADDRESS[:PORT] administration server, by its IPv4 address; turns junior mode on\n"
    "  -ba CREDENTIALS    kept for old callers: the file's AuthInfo always wins\n"
    "  --help, --version  print this text or the version, and end\n"
    "\n"
    "SIGUSR1 reads the configuration file again. The exit status is 0 after an ordinary\n"
    "shutdown and 1 otherwise.\n";

// Signals that the parent passes on, and what it makes of them.
struct PassedSignal {
    int received;
    int sent;
};
constexpr std::array<PassedSignal, 7> kPassedSignals = {{
    {SIGINT, SIGTERM}, // the server ignores SIGINT itself
    {SIGTERM, SIGTERM},
    {SIGHUP, SIGHUP},
    {SIGQUIT, SIGQUIT},
    {SIGUSR1, SIGUSR1},
    {SIGBUS, SIGBUS},
    {SIGSYS, SIGSYS},
}};

// Blocks the signals that are passed on, and SIGCHLD, and gives them their default action: one that a parent
// process has set to be ignored would never wait to be received. `before` receives the mask as it was.
// Returns the blocked ones.
sigset_t HoldSignals(sigset_t* before) {
    sigset_t held;
    sigemptyset(&held);
    for (const PassedSignal& passed : kPassedSignals) sigaddset(&held, passed.received);
    sigaddset(&held, SIGCHLD);
    sigprocmask(SIG_BLOCK, &held, before);
    for (const PassedSignal& passed : kPassedSignals) std::signal(passed.received, SIG_DFL);
    std::signal(SIGCHLD, SIG_DFL);
    return held;
}

void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kDescriptors) return;
    limit.rlim_cur = std::min(kDescriptors, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Opens what the standard streams are without: the server's connections would take their descriptors, and
// what it prints would go to its clients.
void OpenStandardStreams() {
    int descriptor;
    do descriptor = open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0) close(descriptor);
}

std::ptrdiff_t CountThreads() {
    std::error_code error;
    const std::filesystem::directory_iterator tasks("/proc/self/task", error);
    return std::distance(begin(tasks), end(tasks));
}

// Serving threads send their answers to the end after the server has returned; ending the process at
// once would cut them off.
void AwaitServingThreads(std::ptrdiff_t threadsBefore) {
    for (int step = 0; step < kFinishSteps && CountThreads() > threadsBefore; ++step)
        nanosleep(&kFinishPause, nullptr);
}

int RunServer(int argc, char** argv) {
    const std::ptrdiff_t threadsBefore = CountThreads();
    const int result = rdxhttp_main(argc, argv);
    if (result == 0) AwaitServingThreads(threadsBefore);
    std::fflush(stdout);
    rdx::ReportResult(result, rdx::ConfigurationPath(argc, argv), szConfigSvcPort);
    return result == 0 ? 0 : 1;
}

// The child's own start: Ctrl-C is the parent's business from the first moment, SIGUSR1 waits until the
// server unblocks it, and a parent that is gone stops the server.
int RunChild(pid_t parent, const sigset_t& before, int argc, char** argv) {
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGQUIT, SIG_IGN);
    sigset_t mask = before;
    for (const PassedSignal& passed : kPassedSignals) sigdelset(&mask, passed.received);
    sigaddset(&mask, SIGUSR1);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) return 1;
    return RunServer(argc, argv);
}

// The exit status for the end of the child. SIGTERM ends it only before the server has installed its
// handler, which is an ordinary stop like any later one.
int ReportEnd(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WTERMSIG(status) == SIGTERM) return 0;
    std::fprintf(stderr,
                 "\nrdxhttpd: the server was ended by signal %d (%s).\n"
                 "  The last lines above say where. Start it again; if it ends again, report those lines.\n",
                 WTERMSIG(status), strsignal(WTERMSIG(status)));
    return 1;
}

// Passes signals on until the child has ended; returns the exit status.
int Attend(pid_t child, const sigset_t& held) {
    for (;;) {
        int received = 0;
        int status = 0;
        sigwait(&held, &received);
        const auto* passed = std::find_if(kPassedSignals.begin(), kPassedSignals.end(),
                                          [&](const PassedSignal& p) { return p.received == received; });
        if (passed != kPassedSignals.end()) kill(child, passed->sent);
        if (waitpid(child, &status, WNOHANG) == child) return ReportEnd(status);
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::string_view first = argc > 1 ? argv[1] : "";
    if (first == "--help") return std::fputs(kUsage, stdout) >= 0 ? 0 : 1;
    if (first == "--version") return std::puts("rdxhttpd " RDX_VERSION) >= 0 ? 0 : 1;

    OpenStandardStreams();
    RaiseDescriptorLimit();
    sigset_t before;
    const sigset_t held = HoldSignals(&before);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) return RunChild(parent, before, argc, argv);
    if (child > 0) return Attend(child, held);
    std::fprintf(stderr,
                 "rdxhttpd: no process for the server: %s.\n  Free memory or raise the process limit.\n",
                 std::strerror(errno));
    return 1;
}
