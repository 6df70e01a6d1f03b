#include "server/rdxhttp.h"

#include "common/config.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "common/text.h"
#include "rDxsd/rDxsd.h"
#include "server/service.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <string_view>
#include <unistd.h>

const char* const aszSigNames[30] = {
    "NIL",     "SIGHUP",  "SIGINT",  "SIGQUIT",   "SIGILL",   "SIGTRAP", "SIGABRT", "SIGEMT",
    "SIGFPE",  "SIGKILL", "SIGBUS",  "SIGSEGV",   "SIGSYS",   "SIGPIPE", "SIGALRM", "SIGTERM",
    "SIGUSR1", "SIGUSR2", "SIGCHLD", "SIGPWR",    "SIGWINCH", "SIGPOLL", "SIGSTOP", "SIGTSTP",
    "SIGCONT", "SIGTTIN", "SIGTTOU", "SIGVTALRM", "SIGPROF",  "SIGIO",
};

namespace {

constexpr int kListenBacklog = 5;
constexpr const char* kDefaultPort = "www";

char szConfigPath[RDXHTTP_PATH_SIZE] = CONFIG_DEFAULT_PATH;

// The thread that runs the server. The handler may find itself on another one, if a host leaves the caught
// signals unblocked there.
pthread_t serverThread;
unsigned char serverThreadKnown = 0;

bool IsVerbose() { return rdx::VerbosityAbove(VERBOSITY_WARN); }

void LogProgress(const char* message, int number) {
    if (IsVerbose()) rdx::LogPlain("main()", message, number);
}

using OptionReader = int (*)(char* value, char* szSvcPort);

int ReadPort(char* value, char* szSvcPort) {
    rdx::CopyBounded({szSvcPort, RDXHTTP_PORT_SIZE}, value);
    return 0;
}

int ReadPath(char* value, char* /*szSvcPort*/) {
    rdx::CopyBounded(szConfigPath, value);
    return 0;
}

int ReadThreadLimit(char* value, char* /*szSvcPort*/) {
    rdx::StoreShared(nMaxThreads, std::max(rdx::ParseDecimal(value), 1));
    return 0;
}

int ReadAdminServer(char* value, char* /*szSvcPort*/) {
    constexpr unsigned kDefaultAdminPort = 80;
    constexpr std::size_t kPortDigits = 15; // characters looked at
    char* const colon = std::strchr(value, ':');
    if (colon != nullptr) *colon = '\0';
    rdx::StoreSharedText(szAdminServerHost, value);
    if (colon == nullptr) {
        rdx::StoreShared(uiAdminServerPort, kDefaultAdminPort);
        return 0;
    }
    const std::string_view port(colon + 1);
    if (port.empty() || port[0] < '0' || port[0] > '9') return RDXHTTP_BAD_COMMAND_LINE;
    rdx::StoreShared(uiAdminServerPort,
                     static_cast<unsigned>(rdx::ParseDecimal(port.substr(0, kPortDigits))));
    return 0;
}

int ReadCredentials(char* value, char* /*szSvcPort*/) {
    constexpr std::size_t kMostCredentials = 26; // characters accepted
    constexpr std::size_t kAuthInfoCut = 25; // characters of "Basic " and them: servers know no more of them
    const std::string_view credentials(value);
    if (credentials.size() > kMostCredentials) return RDXHTTP_BAD_COMMAND_LINE;
    char text[sizeof szAuthInfo];
    rdx::Appender(text).Add("Basic ").Add(credentials);
    rdx::StoreSharedText(szAuthInfo, std::string_view(text).substr(0, kAuthInfoCut));
    return 0;
}

struct Option {
    std::string_view word;
    OptionReader read;
};

constexpr std::array<Option, 5> kOptions = {{
    {"-p", ReadPort},
    {"-c", ReadPath},
    {"-mt", ReadThreadLimit},
    {"-as", ReadAdminServer},
    {"-ba", ReadCredentials},
}};

// "Basic " and the configured credentials, for the requests that the server sends.
void TakeConfiguredCredentials() {
    char text[sizeof szAuthInfo];
    rdx::Appender(text).Add("Basic ").Add(rdx::SharedText(szConfigAuthInfo).View());
    rdx::StoreSharedText(szAuthInfo, text);
}

// Everything up to the signals: settings from the command line and the file. 0 or the start's result.
int Configure(int argc, char** argv, char* port) {
    rdx::StoreShared(uiAdminServerPort, 0);
    rdx::StoreShared(nMaxThreads, 1);
    if (ParseCommandLine(argc, argv, port) != RDXHTTP_OK) return RDXHTTP_BAD_COMMAND_LINE;
    SetDefaultConfig();
    if (rdx::LoadShared(uiAdminServerPort) != 0) rdx::StoreShared(ucRunAsJunior, 1);
    if (ReadIniFile(szConfigPath, "HTTP") != CONFIG_OK) return RDXHTTP_BAD_CONFIGURATION;
    if (rdx::LoadShared(ucRunAsJunior) != 0) TakeConfiguredCredentials();
    const rdx::SharedText logfile(szConfigLogfile);
    if (!logfile.View().empty() && OpenLogfile(logfile.c_str()) != 0) return RDXHTTP_BAD_LOGFILE;
    return RDXHTTP_OK;
}

void LogConcurrency() {
    const int limit = rdx::LoadShared(nMaxThreads);
    if (limit > 1) {
        rdx::LogThread("main()", "MT server - maximum concurrency level =", limit);
    } else {
        rdx::LogPlain("main()", "running single threaded server", limit);
    }
}

// The configured port always wins over the command line's, since there always is one.
void TakeConfiguredPort(char* port) {
    const rdx::SharedText configured(szConfigSvcPort);
    if (port == configured.View()) return;
    if (IsVerbose()) {
        rdx::LogString("main()", "warning - svc port from config file overrides cmdline or default param",
                       configured.c_str());
    }
    rdx::CopyBounded({port, RDXHTTP_PORT_SIZE}, configured.View());
}

// Opens the service port, serves on it until the loop ends, and closes it. 0 or the start's result.
int ServeOnce(char* port) {
    DumpConfiguration(outlog);
    TakeConfiguredPort(port);
    int server = -1;
    if (CreateSrvSocket(port, kListenBacklog, &server) < 0) return RDXHTTP_NO_SERVER_SOCKET;
    LogProgress("server socket created", 0);
    const int result =
        RunHttpServer(static_cast<unsigned>(server), static_cast<unsigned>(rdx::LoadShared(nMaxThreads)));
    if (result != SERVICE_LOOP_ENDED) {
        close(server);
        return RDXHTTP_NO_SERVICE_LOOP;
    }
    LogProgress("ordinary HTTP server shutdown", result);
    return CloseSocket(server) == 0 ? RDXHTTP_OK : RDXHTTP_SERVER_SOCKET_LOST;
}

// Serves, again after each reconfiguration. 0 or the start's result.
int ServeUntilEnd(char* port) {
    for (;;) {
        const int result = ServeOnce(port);
        if (result != 0 || rdx::LoadShared(ucReconfigured) == 0) return result;
        rdx::StoreShared(ucReconfigured, 0);
        LogProgress("Tavrin reconfiguration event", 0);
    }
}

// Names the calling thread as the one that runs the server, for a scope.
class ServerThread {
public:
    ServerThread() {
        serverThread = pthread_self();
        rdx::StoreShared(serverThreadKnown, 1);
    }
    ~ServerThread() { rdx::StoreShared(serverThreadKnown, 0); }
    ServerThread(const ServerThread&) = delete;
    ServerThread& operator=(const ServerThread&) = delete;
};

// Has the caught signals handled; false at the first for which that fails.
bool CatchSignals(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    return std::ranges::all_of(rdx::kCaughtSignals,
                               [&](int number) { return sigaction(number, &action, nullptr) == 0; });
}

// Notes a terminating signal.
void NoteSignal(int sig) {
    if (sig == SIGUSR1) return;
    rdx::StoreShared(sigerr, sig);
    rdx::StoreShared(signalled, 1);
}

// Sees to it at the end of a scope that caught signals are only noted from then on: the windows are gone, and
// SignalHandler could interrupt the host where it holds a lock of the C library.
struct SignalsNotedInTheEnd {
    SignalsNotedInTheEnd() = default;
    ~SignalsNotedInTheEnd() { CatchSignals(NoteSignal); }
    SignalsNotedInTheEnd(const SignalsNotedInTheEnd&) = delete;
    SignalsNotedInTheEnd& operator=(const SignalsNotedInTheEnd&) = delete;
};

// True when it is a caught signal and another thread runs the server: it is that thread's, which handles it
// where it waits.
bool PassToServerThread(int sig) {
    if (std::ranges::find(rdx::kCaughtSignals, sig) == rdx::kCaughtSignals.end() ||
        rdx::LoadShared(serverThreadKnown) == 0 || pthread_equal(serverThread, pthread_self()) != 0)
        return false;
    return pthread_kill(serverThread, sig) == 0;
}

void CloseUnlessStandard(FILE*& stream, FILE* standard) {
    if (stream != nullptr && stream != standard) fclose(stream);
    stream = standard;
}

} // namespace

int rdxhttp_main(int argc, char** argv) {
    errlog = StdErr;
    outlog = StdOut;
    rdx::StoreShared(server_start_time, static_cast<unsigned int>(time(nullptr)));
    rdx::LogPlain("main()", "rdxhttp_main", 0);
    if (AssertCrt() != 0) return RDXHTTP_BAD_COMMAND_LINE;
    char port[RDXHTTP_PORT_SIZE];
    rdx::CopyBounded(port, kDefaultPort);
    rdx::CopyBounded(szConfigPath, CONFIG_DEFAULT_PATH);
    if (const int result = Configure(argc, argv, port); result != 0) return result;
    LogConcurrency();
    if (InitSignalHandling() != 0) return RDXHTTP_NO_SIGNALS;
    const rdx::SignalsInWindowsOnly signals;
    const ServerThread thisThread;
    const SignalsNotedInTheEnd noted;
    if (InitSockLib() != 0) return RDXHTTP_NO_SOCKETS;
    LogProgress("socket library initialized", 0);
    rdx::StoreShared(uiReconfigurations, 0);
    if (const int result = ServeUntilEnd(port); result != 0) return result;
    if (errlog != StdErr || outlog != StdOut) CloseLogfile();
    return RDXHTTP_OK;
}

int rDxHttpCreateInstance(int /*argc*/, char** /*argv*/) { return 0; }

int rDxHttpDeinitialize() { return 0; }

int ParseCommandLine(int argc, char** argv, char* szSvcPort) {
    for (int i = 1; i < argc; i += 2) {
        const auto* const option = std::ranges::find(kOptions, std::string_view(argv[i]), &Option::word);
        if (option == kOptions.end() || i + 1 >= argc) return RDXHTTP_BAD_COMMAND_LINE;
        if (option->read(argv[i + 1], szSvcPort) != RDXHTTP_OK) return RDXHTTP_BAD_COMMAND_LINE;
    }
    return RDXHTTP_OK;
}

int InitSignalHandling() {
    rdx::StoreShared(sigerr, 0);
    rdx::StoreShared(signalled, 0);
    if (!CatchSignals(SignalHandler)) return RDXHTTP_NO_SIGNALS;
    sigset_t reconfigure;
    sigemptyset(&reconfigure);
    sigaddset(&reconfigure, SIGUSR1);
    pthread_sigmask(SIG_UNBLOCK, &reconfigure, nullptr);
    if (IsVerbose()) {
        const rdx::CaughtSignalsBlocked whileLogging;
        rdx::LogPlain("InitSignalHandling()", "signal handler installed", SIGUSR1);
    }
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    for (const int number : {SIGINT, SIGQUIT, SIGPIPE}) sigaction(number, &action, nullptr);
    return RDXHTTP_OK;
}

void SignalHandler(int sig) {
    constexpr int kNamedSignals = 30; // 1 to 29 have a name
    if (PassToServerThread(sig)) return;
    const int error = errno; // of whatever was interrupted
    printf("\nSignal handling %d", sig);
    if (sig > 0 && sig < kNamedSignals) {
        rdx::LogString("SignalHandler()", "handling signal", aszSigNames[sig]);
    } else {
        rdx::LogPlain("SignalHandler()", "handling signal", sig);
    }
    if (sig == SIGUSR1) Reconfig(szConfigPath);
    NoteSignal(sig);
    errno = error;
}

void ExitFunction() { rdx::LogPlain("ExitFunction()", "program exits", 0); }

int AssertCrt() { return 0; }

int OpenLogfile(const char* /*path*/) { return 0; }

int CloseLogfile() {
    if (outlog == errlog && errlog != StdErr) outlog = nullptr; // one stream for both is closed once
    CloseUnlessStandard(errlog, StdErr);
    CloseUnlessStandard(outlog, StdOut);
    return 0;
}
