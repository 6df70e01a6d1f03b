#include "tests/system/harness.h"

#include "tests/support/free_port.h"
#include "tests/support/process.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <net/if.h>
#include <netinet/in.h>
#include <random>
#include <sched.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern "C" char** environ;

namespace rdx::test {

namespace {

constexpr int kSetUpFailed = 125; // exit status of a child that could not become the server

// The line that every start of the service loop writes at every verbosity, when the port is open.
constexpr const char* kLoopStarted = "InitThreadLib(): running POSIX threads (0)";

// Everything below until Spawn runs between fork and exec.

bool WriteProc(const char* path, const std::string& text) {
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    if (file < 0) return false;
    const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(file);
    return written;
}

// Enters new namespaces; an ordinary user needs one for users as well, in which it is root.
bool EnterNamespaces(int kinds) {
    if (unshare(kinds) == 0) return true;
    const uid_t user = getuid();
    const gid_t group = getgid();
    if (unshare(kinds | CLONE_NEWUSER) != 0) return false;
    return WriteProc("/proc/self/setgroups", "deny") &&
           WriteProc("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
           WriteProc("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

bool ReplaceShadow(const std::string& file) {
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount(file.c_str(), "/etc/shadow", nullptr, MS_BIND, nullptr) == 0;
}

bool RaiseLoopback() {
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (control < 0) return false;
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    const bool raised = ioctl(control, SIOCSIFFLAGS, &request) == 0;
    close(control);
    return raised;
}

// What a process has for itself.
struct Own {
    std::string shadow = {}; // the file that is its /etc/shadow
    std::string name = {};   // of the machine
    bool network = false;
};

bool Isolate(const Own& own) {
    const int kinds = (own.shadow.empty() ? 0 : CLONE_NEWNS) | (own.name.empty() ? 0 : CLONE_NEWUTS) |
                      (own.network ? CLONE_NEWNET : 0);
    if (kinds == 0) return true;
    if (!EnterNamespaces(kinds)) return false;
    if (!own.shadow.empty() && !ReplaceShadow(own.shadow)) return false;
    if (!own.name.empty() && sethostname(own.name.data(), own.name.size()) != 0) return false;
    return !own.network || RaiseLoopback();
}

void ResetSignals() {
    for (int number = 1; number < SIGRTMIN; ++number) signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void Redirect(const std::string& path, int descriptor) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file < 0 || dup2(file, descriptor) < 0) _exit(kSetUpFailed);
}

void LimitCoreFiles() {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

// Memory is given out in small pages, so that what a test reads of it grows with what is used.
void RefuseHugePages() { prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0); }

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

using Variables = std::vector<std::pair<std::string, std::string>>;

bool Names(const Variables& variables, const std::string& name) {
    return std::ranges::any_of(variables, [&](const auto& variable) { return variable.first == name; });
}

// Each server has a device of its own, in memory and as it is by itself, unless the test says otherwise.
void IsolateDevice(Variables& changes) {
    for (const char* name : {"RDX_SIM_STATE", "RDX_SIM_SCENARIO", "RDX_SIM_CALLS"}) {
        if (!Names(changes, name)) changes.emplace_back(name, "");
    }
}

// Has the process read its users from this file, not from the system's database.
void PreloadUsers(Variables& changes, const std::string& file) {
    const char* others = std::getenv("LD_PRELOAD");
    changes.emplace_back("LD_PRELOAD", std::string(RDX_TEST_USERS ":") + (others == nullptr ? "" : others));
    changes.emplace_back("RDX_SIM_USERS", file);
}

std::vector<std::string> Environment(const Variables& changes) {
    std::vector<std::string> all;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (!Names(changes, text.substr(0, text.find('=')))) all.push_back(text);
    }
    for (const auto& [name, value] : changes) all.push_back(name + "=" + value);
    return all;
}

const char* ProgramOf(Host host) {
    switch (host) {
    case Host::kLinked:
        return RDX_TEST_LINKED_HOST;
    case Host::kRdxhttpd:
        return RDX_TEST_RDXHTTPD;
    case Host::kPlain:
        break;
    }
#ifdef RDX_TEST_SANITIZED
    // The search for leaks fails on the thread-local storage of a library that was loaded later.
    return RDX_TEST_LINKED_HOST;
#else
    return RDX_TEST_PLAIN_HOST;
#endif
}

// The parent of a process, the second word behind the name in /proc/PID/stat.
pid_t ParentOf(const std::string& pid) {
    const std::string stat = ReadFile("/proc/" + pid + "/stat");
    const std::size_t name = stat.rfind(')');
    if (name == std::string::npos) return -1;
    std::istringstream words(stat.substr(name + 1));
    char state = 0;
    pid_t parent = -1;
    words >> state >> parent;
    return parent;
}

// A child of the process, or -1.
pid_t ChildOf(pid_t parent) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        if (ParentOf(name) == parent) return std::stoi(name);
    }
    return -1;
}

// How often the process has waited so far.
[[maybe_unused]] int WaitsOf(pid_t process) {
    const std::string label = "\nvoluntary_ctxt_switches:";
    const std::string status = ReadFile("/proc/" + std::to_string(process) + "/status");
    const std::size_t found = status.find(label);
    return found != std::string::npos ? std::atoi(status.c_str() + found + label.size()) : 0;
}

// The end of a text, which tells the most about a failure.
std::string LastOf(const std::string& text) {
    constexpr std::size_t kMost = 4000;
    return text.size() <= kMost ? text : "..." + text.substr(text.size() - kMost);
}

void SendSignal(pid_t process, int number) {
    ASSERT_GT(process, 1) << "nobody to be sent signal " << number;
    kill(process, number);
}

bool SucceedsInAChild(const std::function<bool()>& attempt) {
    const pid_t child = fork();
    if (child == 0) _exit(attempt() ? 0 : 1);
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
}

TemporaryFolder::TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "rdx-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

PortReservation::PortReservation(int count) {
    std::random_device random;
    const int end = EndOfServerPorts();
    std::uniform_int_distribution<int> ports(end - kServerPorts, end - count);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        if (Take(ports(random), count)) return;
    }
    std::abort();
}

PortReservation::~PortReservation() { GiveBack(); }

void PortReservation::GiveBack() {
    for (const int lock : locks_) close(lock);
    locks_.clear();
}

bool PortReservation::Take(int first, int count) {
    for (int port = first; port < first + count; ++port) {
        if (Take(port)) continue;
        GiveBack();
        return false;
    }
    port_ = first;
    return true;
}

// Holds the port by a name that only one process can bind, since the port itself must stay free.
bool PortReservation::Take(int port) {
    const int lock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    const std::string text = "rdx-test-port-" + std::to_string(port);
    std::memcpy(name.sun_path + 1, text.data(), text.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
    locks_.push_back(lock);
    return bind(lock, reinterpret_cast<sockaddr*>(&name), length) == 0 && IsFree(port);
}

Server::Server(ServerOptions options) : options_(std::move(options)), port_(options_.ports) {
    WriteSettings(options_.settings);
    if (options_.shadow.empty()) return;
    WriteFile(ShadowPath(), options_.shadow);
    if (!CanReplaceShadow()) options_.preloaded = true;
}

Server::~Server() {
    End();
    for (const char* report : {"Sanitizer:", "runtime error:"}) {
        if (Errors().find(report) != std::string::npos) ADD_FAILURE() << "the server's sanitizer reports";
    }
    if (testing::Test::HasFailure()) {
        std::cerr << "--- output of the server ---\n"
                  << LastOf(Output()) << "\n--- errors ---\n"
                  << LastOf(Errors()) << "\n---\n";
    }
}

void Server::WriteSettings(const std::vector<std::string>& settings, int port) {
    std::string text =
        "[HTTP]\nServicePort=" + std::to_string(port != 0 ? port : Port()) + "\nMethodsAllowed=GET,POST\n";
    for (const std::string& line : settings) text += line + "\n";
    // The server must never see half a file.
    WriteFile(ConfigurationPath() + ".new", text);
    std::filesystem::rename(ConfigurationPath() + ".new", ConfigurationPath());
}

std::vector<std::string> Server::StandardArguments() const {
    return {"-mt", std::to_string(options_.threads), "-c", ConfigurationPath()};
}

std::vector<std::string> Server::CommandLine(const std::vector<std::string>& arguments) const {
    std::vector<std::string> all = options_.wrapper;
    all.emplace_back(ProgramOf(options_.host));
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

void Server::Spawn(const std::vector<std::string>& arguments) {
    ending_.reset();
    for (const char* name : {"/output", "/errors"}) std::filesystem::remove(folder_.Path() + name);
    std::vector<std::string> words = CommandLine(arguments);
    Variables changes = options_.environment;
    IsolateDevice(changes);
    if (options_.preloaded) PreloadUsers(changes, ShadowPath());
    changes.emplace_back("RDX_TEST_HELD_DESCRIPTORS", std::to_string(options_.heldDescriptors));
    // The handler runs only where the server holds no lock, which the thread sanitizer cannot know.
    const char* sanitizer = std::getenv("TSAN_OPTIONS");
    changes.emplace_back("TSAN_OPTIONS",
                         "report_signal_unsafe=0 " + std::string(sanitizer == nullptr ? "" : sanitizer));
    std::vector<std::string> variables = Environment(changes);
    const std::vector<char*> argv = Pointers(words);
    const std::vector<char*> envp = Pointers(variables);
    const Own own = {.shadow = options_.preloaded || options_.shadow.empty() ? "" : ShadowPath(),
                     .name = options_.machineName,
                     .network = options_.ownNetwork};
    const pid_t parent = getpid();

    pid_ = fork();
    if (pid_ < 0) std::abort();
    if (pid_ > 0) {
        setpgid(pid_, pid_);
        return;
    }
    setpgid(0, 0);
    ResetSignals();
    LimitCoreFiles();
    RefuseHugePages();
    Redirect(folder_.Path() + "/output", STDOUT_FILENO);
    Redirect(folder_.Path() + "/errors", STDERR_FILENO);
    if (!Isolate(own)) _exit(kSetUpFailed);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(kSetUpFailed);
    execvpe(argv[0], argv.data(), envp.data());
    _exit(kSetUpFailed);
}

testing::AssertionResult Server::Start(const std::vector<std::string>& more) {
    std::vector<std::string> arguments = StandardArguments();
    arguments.insert(arguments.end(), more.begin(), more.end());
    Spawn(arguments);
    const bool settled = Eventually(
        [this] { return CountOf(kLoopStarted, Output()) > 0 || WaitForEnd(milliseconds(0)).has_value(); });
    if (settled && !ending_) {
        WaitForPasses();
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "the server did not start: "
                                       << (ending_ ? "result " + std::to_string(ending_->result) +
                                                         ", signal " + std::to_string(ending_->signal)
                                                   : std::string("no sign of the service loop"));
}

std::optional<Ending> Server::Run(const std::vector<std::string>& arguments) {
    Spawn(arguments);
    return WaitForEnd();
}

void Server::Signal(int number) const { SendSignal(pid_, number); }

void Server::SignalServing(int number) const { SendSignal(ServingPid(), number); }

void Server::SignalGroup(int number) const {
    ASSERT_GT(pid_, 1) << "nobody to be sent signal " << number;
    killpg(pid_, number);
}

std::optional<Ending> Server::WaitForEnd(milliseconds limit) {
    if (ending_ || pid_ <= 0) return ending_;
    int status = 0;
    if (!Eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, limit)) return std::nullopt;
    ending_ = Ending{};
    if (WIFEXITED(status)) ending_->result = static_cast<signed char>(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) ending_->signal = WTERMSIG(status);
    return ending_;
}

void Server::End() {
    if (pid_ <= 0) return;
    if (!ending_ || options_.host == Host::kRdxhttpd) kill(-pid_, SIGKILL); // a host may have children
    if (!ending_) waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

pid_t Server::ServingPid() const { return options_.host == Host::kRdxhttpd ? ChildOf(pid_) : pid_; }

bool Server::WaitForLoop(int count) {
    return Eventually([&] { return CountOf(kLoopStarted, Output()) >= count; });
}

// The thread sanitizer can lose a signal that comes during a thread's first wait, when it makes what it keeps
// signals in.
void Server::WaitForPasses() const {
    if constexpr (!kThreadSanitizer) return;
    const pid_t process = ServingPid();
    const int before = WaitsOf(process);
    Eventually([&] { return WaitsOf(process) > before + 1; });
}

bool Server::WaitForServingThreads(int count) const {
    int others = 1;
    if constexpr (kThreadSanitizer) {
        // Its own thread comes with the first other one, and a process that was forked has one more.
        others += (options_.threads > 1 ? 1 : 0) + (options_.host == Host::kRdxhttpd ? 1 : 0);
    }
    const std::string process = std::to_string(ServingPid());
    return Eventually([&] { return ThreadsOf(process) == others + count; });
}

bool Server::WaitForDescriptors(int count) const {
    return Eventually([&] { return Descriptors() == count; });
}

int Server::Descriptors() const { return OpenDescriptors(std::to_string(ServingPid())); }

int Server::DescriptorsWhenClosed() const {
    WaitForOutput("ServeClientDone: Socket closed");
    return Descriptors();
}

std::string Server::Output() const { return ReadFile(folder_.Path() + "/output"); }

std::string Server::Errors() const { return ReadFile(folder_.Path() + "/errors"); }

bool Server::WaitForOutput(const std::string& part, milliseconds limit) const {
    return Eventually([&] { return Output().find(part) != std::string::npos; }, limit);
}

int RunningServerPort() {
    const char* port = std::getenv("RDX_TEST_SERVER");
    return port == nullptr ? 0 : std::atoi(port);
}

bool CanReplaceShadow() {
    TemporaryFolder folder;
    const std::string file = folder.Path() + "/shadow";
    WriteFile(file, "nobody:*:19000:0:99999:7:::\n");
    return SucceedsInAChild([&] { return Isolate({.shadow = file}); });
}

bool CanHaveOwnName() {
    return SucceedsInAChild([] { return Isolate({.name = "x"}); });
}

bool CanHaveOwnNetwork() {
    return SucceedsInAChild([] { return Isolate({.network = true}); });
}

int CountOf(const std::string& part, const std::string& text) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

} // namespace rdx::test
