// Drives a server over real connections and prints what it answers for each pass of its loop.
//
//     load SERVER COUNTING_LIBRARY [SECONDS]
//
// SERVER is rdxhttpd. The floor of each table is a server in this process that does nothing but what the
// pacing demands: sleep 1 ms, poll, and answer each readable connection with fixed bytes.
#include "bench/counters.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using rdx::bench::Counters;

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "load: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

// --- the servers measured -------------------------------------------------------------------------------

// A file in a folder of its own, mapped; the counting library finds it by its path.
class SharedCounters {
public:
    explicit SharedCounters(const std::filesystem::path& path) : path_(path) {
        const int file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (file < 0 || ftruncate(file, sizeof(Counters)) != 0) Fail("counters");
        void* const memory = mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        if (memory == MAP_FAILED) Fail("counters");
        counters_ = new (memory) Counters{};
    }
    ~SharedCounters() { munmap(counters_, sizeof(Counters)); }
    SharedCounters(const SharedCounters&) = delete;
    SharedCounters& operator=(const SharedCounters&) = delete;

    Counters& Get() { return *counters_; }
    const std::filesystem::path& Path() const { return path_; }

private:
    std::filesystem::path path_;
    Counters* counters_;
};

std::filesystem::path MakeFolder() {
    std::string name = std::filesystem::temp_directory_path() / "rdx-bench-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) Fail("temporary folder");
    return name;
}

sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int Listen(int port) {
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(server, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = Loopback(port);
    if (bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(server, SOMAXCONN) != 0) {
        Fail("listen");
    }
    return server;
}

int FreePort() {
    const int server = Listen(0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(server, reinterpret_cast<sockaddr*>(&address), &size);
    close(server);
    return ntohs(address.sin_port);
}

int Connect(int port) {
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Loopback(port);
    if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(client);
        return -1;
    }
    const int on = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return client;
}

// The least that a server with this pacing does, answering every request with `answer`.
[[noreturn]] void RunFloor(int port, Counters& counters, const std::string& answer) {
    const int server = Listen(port);
    fd_set watched;
    FD_ZERO(&watched);
    FD_SET(server, &watched);
    counters.process = getpid();
    for (;;) {
        usleep(1000);
        ++counters.passes;
        fd_set ready = watched;
        timeval poll{0, 0};
        if (select(FD_SETSIZE, &ready, nullptr, nullptr, &poll) <= 0) continue;
        for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) {
            if (!FD_ISSET(descriptor, &ready)) continue;
            if (descriptor == server) {
                const int client = accept(server, nullptr, nullptr);
                if (client >= 0) FD_SET(client, &watched);
                continue;
            }
            char request[4096];
            if (recv(descriptor, request, sizeof request, 0) <= 0) {
                FD_CLR(descriptor, &watched);
                close(descriptor);
            } else if (send(descriptor, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) {
                Fail("send");
            }
        }
    }
}

struct Setup {
    std::string server;
    std::string countingLibrary;
    double seconds;
};

// A server process under measurement, stopped at the end of its life.
class Server {
public:
    // `threads` is the limit given with -mt; 0 starts the floor instead. `descriptors` limits the process.
    Server(const Setup& setup, int threads, const std::string& floorAnswer, rlim_t descriptors = 0)
        : folder_(MakeFolder()), counters_(folder_ / "counters"), port_(FreePort()) {
        process_ = fork();
        if (process_ < 0) Fail("fork");
        if (process_ == 0) {
            if (descriptors != 0) Limit(descriptors);
            if (threads == 0) RunFloor(port_, counters_.Get(), floorAnswer);
            Execute(setup, threads);
        }
        AwaitPort();
        std::this_thread::sleep_for(std::chrono::seconds(1)); // until the loop's select only polls
    }
    ~Server() {
        kill(process_, SIGTERM);
        waitpid(process_, nullptr, 0);
        std::filesystem::remove_all(folder_);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    int Port() const { return port_; }
    unsigned long Passes() { return counters_.Get().passes; }

    // What the process that runs the loop holds.
    unsigned long ResidentKilobytes() {
        const long page = sysconf(_SC_PAGESIZE);
        unsigned long size = 0;
        unsigned long resident = 0;
        std::ifstream(ProcessFolder() / "statm") >> size >> resident;
        return resident * static_cast<unsigned long>(page) / 1024;
    }
    long Descriptors() {
        const std::filesystem::directory_iterator entries(ProcessFolder() / "fd");
        return std::distance(begin(entries), end(entries));
    }

    // Processor time of the process that runs the loop, in seconds.
    double ProcessorTime() {
        clockid_t clock;
        timespec time{};
        if (clock_getcpuclockid(counters_.Get().process, &clock) != 0) Fail("processor time");
        clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    }

private:
    std::filesystem::path ProcessFolder() {
        return "/proc/" + std::to_string(counters_.Get().process.load());
    }

    // Both limits, for the server raises the soft one.
    static void Limit(rlim_t descriptors) {
        const rlimit limit{descriptors, descriptors};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) Fail("so high a limit of descriptors");
    }

    [[noreturn]] void Execute(const Setup& setup, int threads) {
        const std::string file = folder_ / "tnd.ini";
        std::ofstream(file) << "[HTTP]\nServicePort=" << port_ << "\nMethodsAllowed=GET, POST\n";
        setenv(rdx::bench::kCountersVariable, counters_.Path().c_str(), 1);
        setenv("RDX_SIM_STATE", "", 1); // in memory alone
        setenv("LD_PRELOAD", setup.countingLibrary.c_str(), 1);
        const int silence = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(silence, STDOUT_FILENO);
        const std::string limit = std::to_string(threads);
        execl(setup.server.c_str(), setup.server.c_str(), "-c", file.c_str(), "-mt", limit.c_str(), nullptr);
        Fail(setup.server);
    }

    void AwaitPort() {
        for (int tries = 0; tries < 500; ++tries) {
            if (const int client = Connect(port_); client >= 0) {
                close(client);
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        Fail("the server does not answer");
    }

    std::filesystem::path folder_;
    SharedCounters counters_;
    int port_;
    pid_t process_;
};

// --- the calls ------------------------------------------------------------------------------------------

const std::string kArguments =
    "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_0100.dtd'><wddxPacket version='1.0'><header/>"
    "<data><struct><var name='version'><number>1</number></var></struct></data></wddxPacket>";

std::string MakeCall(const std::string& method) {
    return "POST /rDx?FunctionName=" + method +
           " HTTP/1.1\r\nHost: localhost\r\n"
           "Content-type: text/xml\r\nContent-length: " +
           std::to_string(kArguments.size()) + "\r\n\r\n" + kArguments;
}

const std::string kVersionCall = MakeCall("rdxGetVersion");
const std::string kStatusCall = MakeCall("rdxGetDeviceStatus");

// A kept-alive connection that calls and reads whole answers.
class Caller {
public:
    explicit Caller(int port) : socket_(Connect(port)) {
        if (socket_ < 0) Fail("connect");
    }
    ~Caller() { close(socket_); }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    // The whole answer, or nothing when there was none within two seconds.
    std::string Call(const std::string& call = kVersionCall) {
        if (send(socket_, call.data(), call.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(call.size()))
            return {};
        std::string answer;
        while (!IsWhole(answer)) {
            pollfd wait{socket_, POLLIN, 0};
            char bytes[16384];
            if (poll(&wait, 1, 2000) <= 0) return {};
            const ssize_t count = recv(socket_, bytes, sizeof bytes, 0);
            if (count <= 0) return {};
            answer.append(bytes, static_cast<std::size_t>(count));
        }
        return answer;
    }

private:
    static bool IsWhole(const std::string& answer) {
        static const std::string kLength = "Content-length: ";
        const std::size_t end = answer.find("\r\n\r\n");
        const std::size_t length = answer.find(kLength);
        if (end == std::string::npos || length == std::string::npos) return false;
        return answer.size() >= end + 4 + std::strtoul(answer.c_str() + length + kLength.size(), nullptr, 10);
    }

    int socket_;
};

bool IsGood(const std::string& answer) { return answer.starts_with("HTTP/1.1 200 "); }

struct Figures {
    unsigned long answers = 0;
    unsigned long failures = 0;
    unsigned long passes = 0;
    double seconds = 0;
    double processorSeconds = 0;
};

// Runs `client` on `count` threads against the server and measures meanwhile.
template <typename Client>
Figures Measure(Server& server, int count, Client client) {
    std::atomic<unsigned long> answers{0};
    std::atomic<unsigned long> failures{0};
    std::vector<std::unique_ptr<Caller>> callers;
    for (int i = 0; i < count; ++i) callers.push_back(std::make_unique<Caller>(server.Port()));
    for (auto& caller : callers) caller->Call(); // connections accepted and warm
    const auto note = [&](bool good) { ++(good ? answers : failures); };
    Figures figures;
    const unsigned long passes = server.Passes();
    const double processor = server.ProcessorTime();
    const auto begin = Clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] { client(*callers[static_cast<std::size_t>(i)], i, note); });
    for (std::thread& thread : threads) thread.join();
    figures.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    figures.processorSeconds = server.ProcessorTime() - processor;
    figures.passes = server.Passes() - passes;
    figures.answers = answers;
    figures.failures = failures;
    return figures;
}

// Clients that call again as soon as they are answered.
Figures CallAtOnce(Server& server, int clients, double seconds) {
    return Measure(server, clients, [seconds](Caller& caller, int, const auto& note) {
        const auto end = Clock::now() + std::chrono::duration<double>(seconds);
        while (Clock::now() < end) note(IsGood(caller.Call()));
    });
}

// One client that asks for the device's status `count` times.
Figures AskForStatus(Server& server, unsigned long count) {
    return Measure(server, 1, [count](Caller& caller, int, const auto& note) {
        for (unsigned long i = 0; i < count; ++i) note(IsGood(caller.Call(kStatusCall)));
    });
}

// Calls that arrive at random moments, `rate` a second in all: a Poisson process on each connection. A call
// that arrives while its connection is busy is sent as soon as it is free, and none is left out.
Figures CallAtRandom(Server& server, int connections, double rate, double seconds) {
    return Measure(server, connections, [=](Caller& caller, int index, const auto& note) {
        std::mt19937 random(static_cast<unsigned>(index) + 1);
        std::exponential_distribution<double> gap(rate / connections);
        const auto begin = Clock::now();
        for (double at = gap(random); at < seconds; at += gap(random)) {
            std::this_thread::sleep_until(
                begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(at)));
            note(IsGood(caller.Call()));
        }
    });
}

// --- the table ------------------------------------------------------------------------------------------

void PrintHead() {
    std::printf("%-44s %9s %9s %9s %9s %12s\n", "", "answers", "failed", "passes", "ans/pass", "us CPU/call");
}

void PrintRow(const char* name, const Figures& figures, const char* wanted) {
    const double answers = static_cast<double>(figures.answers);
    std::printf("%-44s %9lu %9lu %9lu %9.3f %12.1f  %s\n", name, figures.answers, figures.failures,
                figures.passes, answers / static_cast<double>(std::max(figures.passes, 1UL)),
                figures.processorSeconds * 1e6 / std::max(answers, 1.0), wanted);
    std::fflush(stdout);
}

void MeasureKeepAlive(const Setup& setup, const std::string& answer) {
    struct Row {
        const char* name;
        int threads; // 0: the floor
        int clients;
        const char* wanted;
    };
    constexpr Row kRows[] = {
        {"floor, 1 client", 0, 1, ""},
        {"1 thread, 1 client", 1, 1, "at least 0.95"},
        {"4 threads, 1 client", 4, 1, "at least 0.95"},
        {"floor, 8 clients", 0, 8, ""},
        {"1 thread, 8 clients", 1, 8, "at least 7"},
    };
    for (const Row& row : kRows) {
        Server server(setup, row.threads, answer);
        PrintRow(row.name, CallAtOnce(server, row.clients, setup.seconds), row.wanted);
    }
}

void MeasureRandomArrivals(const Setup& setup, double seconds) {
    constexpr int kThreads = 64;
    constexpr int kConnections = 16;
    Server server(setup, kThreads, {});
    const unsigned long before = server.Passes();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const double rate = static_cast<double>(server.Passes() - before) / 2;
    const std::string name =
        "64 threads, Poisson " + std::to_string(std::lround(rate)) + "/s, 16 connections";
    PrintRow(name.c_str(), CallAtRandom(server, kConnections, rate, seconds), "none failed");
}

// The first calls count for the descriptors alone: they make what is made once, such as the threads' stacks.
void MeasureStatusCalls(const Setup& setup) {
    constexpr unsigned long kWarmUp = 500;
    constexpr unsigned long kCalls = 10'000;
    std::string answer;
    std::printf("\n%-28s %9s %9s %12s %11s %11s %6s %6s\n", "10000 status calls, 1 client", "failed",
                "ans/pass", "us CPU/call", "KB before", "KB after", "descr.", "more");
    for (const int threads : {1, 4, 0}) {
        Server server(setup, threads, answer);
        const long descriptors = server.Descriptors();
        if (threads != 0) answer = Caller(server.Port()).Call(kStatusCall);
        AskForStatus(server, kWarmUp);
        const unsigned long before = server.ResidentKilobytes();
        const Figures figures = AskForStatus(server, kCalls);
        std::this_thread::sleep_for(std::chrono::seconds(1)); // until the client's connection is gone
        const long more = server.Descriptors() - descriptors;
        const double answers = static_cast<double>(figures.answers);
        const std::string name = threads != 0 ? std::to_string(threads) + " thread(s)" : "floor";
        std::printf("%-28s %9lu %9.3f %12.1f %11lu %11lu %6ld %6ld  %s\n", name.c_str(), figures.failures,
                    answers / static_cast<double>(std::max(figures.passes, 1UL)),
                    figures.processorSeconds * 1e6 / std::max(answers, 1.0), before,
                    server.ResidentKilobytes(), descriptors, more,
                    more <= 1 ? "" : "more than one descriptor more!");
        std::fflush(stdout);
    }
}

void MeasureIdlePass(const Setup& setup) {
    std::printf("\n%-44s %9s %12s\n", "idle loop", "passes", "us CPU/pass");
    struct Row {
        const char* name;
        int threads;
        rlim_t descriptors;
    };
    constexpr Row kRows[] = {
        {"floor", 0, 1024},
        {"1 thread, 256 descriptors", 1, 256},
        {"1 thread, 20000 descriptors", 1, 20000},
        {"64 threads, 256 descriptors", 64, 256},
        {"64 threads, 20000 descriptors", 64, 20000},
    };
    for (const Row& row : kRows) {
        Server server(setup, row.threads, {}, row.descriptors);
        const unsigned long passes = server.Passes();
        const double processor = server.ProcessorTime();
        std::this_thread::sleep_for(std::chrono::duration<double>(setup.seconds));
        const double spent = server.ProcessorTime() - processor;
        const unsigned long done = server.Passes() - passes;
        std::printf("%-44s %9lu %12.2f\n", row.name, done,
                    spent * 1e6 / static_cast<double>(std::max(done, 1UL)));
        std::fflush(stdout);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: load SERVER COUNTING_LIBRARY [SECONDS]\n");
        return 2;
    }
    const Setup setup{argv[1], argv[2], argc > 3 ? std::strtod(argv[3], nullptr) : 5.0};
    std::string answer;
    {
        Server server(setup, 1, {});
        answer = Caller(server.Port()).Call();
        if (!IsGood(answer)) Fail("the first call was not answered");
    }
    PrintHead();
    MeasureKeepAlive(setup, answer);
    MeasureRandomArrivals(setup, std::max(60.0, 12 * setup.seconds));
    MeasureStatusCalls(setup);
    MeasureIdlePass(setup);
    return 0;
}
