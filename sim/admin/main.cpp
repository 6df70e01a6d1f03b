// rdxadmin: an administration server to try junior mode with.
//
// It takes the follow-ups that a server in junior mode posts, prints each and records it: a line that names
// it and its body. What it answers can be changed while it runs:
//
//     curl -X PUT http://127.0.0.1:PORT/mode/stall
#include <CLI/CLI.hpp>
#include <microhttpd.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::string_view kFollowUps = "/VServer";
constexpr std::string_view kModes = "/mode/";

enum class Mode { kAccept, kRefuse, kStall, kNotFound, kFail, kEmpty, kCut };

struct ModeName {
    std::string_view name;
    Mode mode;
    const char* meaning;
};
constexpr std::array<ModeName, 7> kModeNames = {{
    {"accept", Mode::kAccept, "answer 200"},
    {"refuse", Mode::kRefuse, "close each connection when it is made"},
    {"stall", Mode::kStall, "take the request and never answer"},
    {"not-found", Mode::kNotFound, "answer 404"},
    {"fail", Mode::kFail, "answer 500"},
    {"empty", Mode::kEmpty, "answer 200 without a body"},
    {"cut", Mode::kCut, "promise a body and close half way"},
}};

const ModeName* FindMode(std::string_view name) {
    const auto* const mode = std::ranges::find(kModeNames, name, &ModeName::name);
    return mode != kModeNames.end() ? mode : nullptr;
}

std::string ListModes() {
    std::string list;
    for (const ModeName& mode : kModeNames) {
        list += "  " + std::string(mode.name) + std::string(12 - mode.name.size(), ' ') + mode.meaning + '\n';
    }
    return list;
}

// Prints follow-ups and writes them into a file; safe from several threads.
class Record {
public:
    // False when the file could not be opened.
    bool Open(const std::string& path) {
        if (path.empty()) return true;
        file_.open(path, std::ios::app);
        return file_.is_open();
    }

    void Add(std::string_view method, std::string_view url, std::string_view body) {
        const std::lock_guard lock(mutex_);
        Write(std::cout, method, url, body);
        if (file_.is_open()) Write(file_, method, url, body);
    }

private:
    // "METHOD URL LENGTH", the body, an empty line.
    static void Write(std::ostream& out, std::string_view method, std::string_view url,
                      std::string_view body) {
        out << method << ' ' << url << ' ' << body.size() << '\n' << body << "\n\n" << std::flush;
    }

    std::mutex mutex_;
    std::ofstream file_;
};

// Connections that wait for an answer they never get. The daemon wants them back before it stops.
class Stalled {
public:
    // False when nothing is to be stalled any more.
    bool Add(MHD_Connection* connection) {
        const std::lock_guard lock(mutex_);
        if (over_) return false;
        MHD_suspend_connection(connection);
        connections_.push_back(connection);
        return true;
    }

    void GiveBack() {
        const std::lock_guard lock(mutex_);
        over_ = true;
        for (MHD_Connection* const connection : connections_) MHD_resume_connection(connection);
    }

private:
    std::mutex mutex_;
    std::vector<MHD_Connection*> connections_;
    bool over_ = false;
};

struct Server {
    std::atomic<Mode> mode{Mode::kAccept};
    Record record;
    Stalled stalled;
};

// One request while it arrives.
struct Arriving {
    std::string url; // with its query
    std::string body;
    bool begun = false;    // its headers have been seen
    bool recorded = false; // it is whole
};

void* Begin(void*, const char* uri, MHD_Connection*) { return new Arriving{.url = uri}; }

void End(void*, MHD_Connection*, void** context, MHD_RequestTerminationCode) {
    delete static_cast<Arriving*>(*context);
    *context = nullptr;
}

MHD_Result Answer(MHD_Connection* connection, unsigned status, std::string_view body) {
    MHD_Response* const response =
        MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

// Gives a few bytes of the promised body and then fails, which closes the connection.
ssize_t GiveHalf(void*, uint64_t position, char* buffer, size_t most) {
    constexpr std::string_view kHalf = "half of ";
    if (position > 0) return MHD_CONTENT_READER_END_WITH_ERROR;
    const size_t count = std::min(most, kHalf.size());
    std::copy_n(kHalf.begin(), count, buffer);
    return static_cast<ssize_t>(count);
}

MHD_Result AnswerHalf(MHD_Connection* connection) {
    constexpr uint64_t kPromised = 64;
    MHD_Response* const response =
        MHD_create_response_from_callback(kPromised, kPromised, GiveHalf, nullptr, nullptr);
    if (response == nullptr) return MHD_NO;
    const MHD_Result result = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result AnswerFollowUp(Server& server, MHD_Connection* connection) {
    switch (server.mode) {
    case Mode::kStall:
        return server.stalled.Add(connection) ? MHD_YES : MHD_NO;
    case Mode::kNotFound:
        return Answer(connection, MHD_HTTP_NOT_FOUND, "not found\n");
    case Mode::kFail:
        return Answer(connection, MHD_HTTP_INTERNAL_SERVER_ERROR, "failed\n");
    case Mode::kEmpty:
        return Answer(connection, MHD_HTTP_OK, "");
    case Mode::kCut:
        return AnswerHalf(connection);
    case Mode::kAccept:
    case Mode::kRefuse: // connections made before
        break;
    }
    return Answer(connection, MHD_HTTP_OK, "taken\n");
}

MHD_Result SetMode(Server& server, MHD_Connection* connection, std::string_view name) {
    const ModeName* const mode = FindMode(name);
    if (mode == nullptr) return Answer(connection, MHD_HTTP_BAD_REQUEST, "modes:\n" + ListModes());
    server.mode = mode->mode;
    return Answer(connection, MHD_HTTP_OK, "ok\n");
}

MHD_Result Handle(void* context, MHD_Connection* connection, const char* path, const char* method,
                  const char*, const char* data, size_t* size, void** request) {
    Server& server = *static_cast<Server*>(context);
    Arriving& arriving = *static_cast<Arriving*>(*request);
    if (!arriving.begun) {
        arriving.begun = true;
        return MHD_YES; // the body, if there is one, comes next
    }
    if (*size > 0) {
        arriving.body.append(data, *size);
        *size = 0;
        return MHD_YES;
    }
    const std::string_view url(path);
    if (url.starts_with(kModes) && std::string_view(method) == MHD_HTTP_METHOD_PUT) {
        return SetMode(server, connection, url.substr(kModes.size()));
    }
    if (!url.starts_with(kFollowUps)) return Answer(connection, MHD_HTTP_NOT_FOUND, "not found\n");
    if (!arriving.recorded) server.record.Add(method, arriving.url, arriving.body);
    arriving.recorded = true;
    return AnswerFollowUp(server, connection);
}

MHD_Result Admit(void* context, const sockaddr*, socklen_t) {
    return static_cast<Server*>(context)->mode == Mode::kRefuse ? MHD_NO : MHD_YES;
}

// Waits for a signal that ends the program.
void AwaitEnd() {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&ends, number);
    int received = 0;
    sigwait(&ends, &received);
}

// Before any thread is started: they inherit that these signals wait for AwaitEnd.
void HoldEnd() {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&ends, number);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("An administration server to try junior mode with. It takes follow-ups on any path under "
                 "/VServer, prints them and records them.");
    std::uint16_t port = 8090;
    std::string recordPath;
    std::string modeName = "accept";
    app.add_option("--port", port, "port, on the loopback address; 0 takes a free one")
        ->capture_default_str();
    app.add_option("--record", recordPath, "file to which each follow-up is appended");
    app.add_option("--mode", modeName, "what to answer; PUT /mode/MODE changes it while it runs")
        ->capture_default_str();
    app.footer("Modes:\n" + ListModes());
    CLI11_PARSE(app, argc, argv);

    Server server;
    const ModeName* const mode = FindMode(modeName);
    if (mode == nullptr) {
        std::cerr << "rdxadmin: there is no mode '" << modeName << "'. Give one of:\n" << ListModes();
        return 1;
    }
    server.mode = mode->mode;
    if (!server.record.Open(recordPath)) {
        std::cerr << "rdxadmin: " << recordPath << " cannot be written. Give another file to --record.\n";
        return 1;
    }
    HoldEnd();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    MHD_Daemon* const daemon =
        MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_ALLOW_SUSPEND_RESUME, port, Admit, &server,
                         Handle, &server, MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&address),
                         MHD_OPTION_URI_LOG_CALLBACK, Begin, static_cast<void*>(nullptr),
                         MHD_OPTION_NOTIFY_COMPLETED, End, static_cast<void*>(nullptr), MHD_OPTION_END);
    if (daemon == nullptr) {
        std::cerr << "rdxadmin: port " << port << " cannot be opened: " << std::strerror(errno)
                  << ".\n  Choose another one with --port.\n";
        return 1;
    }
    std::cout << "listening on port " << MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_BIND_PORT)->port
              << "\n\n"
              << std::flush;
    AwaitEnd();
    server.stalled.GiveBack();
    MHD_stop_daemon(daemon);
    return 0;
}
