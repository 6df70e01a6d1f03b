// rdxadmin: an administration server to try junior mode with.
//
// It takes the follow-ups that a server in junior mode posts, prints each and records it: a line that names
// it, and its body. What it answers can be changed while it runs:
//
//     curl -X PUT http://127.0.0.1:8090/mode/stall
//
// One thread serves all connections; the main thread only waits for the signal that ends the program.
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
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <vector>

namespace {

constexpr std::string_view kFollowUps = "/VServer";
constexpr std::string_view kModes = "/mode/";

enum class Mode { kTake, kRefuse, kStall, kNotFound, kFail, kEmpty, kRubbish, kCut };

struct ModeName {
    std::string_view name;
    Mode mode;
    const char* meaning;
};
constexpr std::array<ModeName, 8> kModeNames = {{
    {"take", Mode::kTake, "answer 200"},
    {"refuse", Mode::kRefuse, "close the connection when the headers have come; nothing is recorded"},
    {"stall", Mode::kStall, "do not answer before another mode is set"},
    {"not-found", Mode::kNotFound, "answer 404"},
    {"fail", Mode::kFail, "answer 500"},
    {"empty", Mode::kEmpty, "answer 200 with a Content-Length of 0"},
    {"rubbish", Mode::kRubbish, "answer what is not HTTP and close"},
    {"cut", Mode::kCut, "promise a body and close half way"},
}};

bool IsFollowUp(std::string_view path) {
    return path.starts_with(kFollowUps) &&
           (path.size() == kFollowUps.size() || path[kFollowUps.size()] == '/');
}

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

// Prints follow-ups and adds them to a file.
class Record {
public:
    // False when the file could not be opened.
    bool Open(const std::string& path) {
        if (path.empty()) return true;
        file_.open(path, std::ios::app | std::ios::binary);
        return file_.is_open();
    }

    void Add(const std::string& title, const std::string& body) {
        const std::string entry = title + ", " + std::to_string(body.size()) + " bytes\n" + body + "\n\n";
        // Beside a server, whose lines have their line feeds in front.
        std::cout << "\nrdxadmin: " << entry << std::flush;
        if (file_.is_open()) file_ << entry << std::flush;
    }

private:
    std::ofstream file_;
};

// Connections that wait for their answer.
class Stalled {
public:
    // False when nothing is to wait any more.
    bool Add(MHD_Connection* connection) {
        const std::lock_guard lock(mutex_);
        if (over_) return false;
        MHD_suspend_connection(connection);
        connections_.push_back(connection);
        return true;
    }

    // Has each of them asked again what it is answered.
    void Release() {
        const std::lock_guard lock(mutex_);
        for (MHD_Connection* const connection : connections_) MHD_resume_connection(connection);
        connections_.clear();
    }

    // The same for good: the daemon wants them back before it stops.
    void End() {
        {
            const std::lock_guard lock(mutex_);
            over_ = true;
        }
        Release();
    }

private:
    std::mutex mutex_;
    std::vector<MHD_Connection*> connections_;
    bool over_ = false;
};

struct Server {
    std::atomic<Mode> mode{Mode::kTake};
    Record record;
    Stalled stalled;
};

// One request while it arrives.
struct Arriving {
    std::string url;       // with its query
    std::string body{};    // so far
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

// Past the library, which would only send an answer. What it says afterwards is nothing: the connection ends.
MHD_Result AnswerRubbish(MHD_Connection* connection) {
    constexpr std::string_view kRubbish = "this is not an answer\r\n\r\n";
    const auto* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    send(info->connect_fd, kRubbish.data(), kRubbish.size(), MSG_NOSIGNAL);
    return MHD_NO;
}

MHD_Result AnswerFollowUp(Server& server, MHD_Connection* connection) {
    switch (server.mode) {
    case Mode::kTake:
        return Answer(connection, MHD_HTTP_OK, "taken\n");
    case Mode::kRefuse:
        return MHD_NO;
    case Mode::kStall:
        return server.stalled.Add(connection) ? MHD_YES : MHD_NO;
    case Mode::kNotFound:
        return Answer(connection, MHD_HTTP_NOT_FOUND, "not found\n");
    case Mode::kFail:
        return Answer(connection, MHD_HTTP_INTERNAL_SERVER_ERROR, "failed\n");
    case Mode::kEmpty:
        return Answer(connection, MHD_HTTP_OK, "");
    case Mode::kRubbish:
        return AnswerRubbish(connection);
    case Mode::kCut:
        return AnswerHalf(connection);
    }
    return MHD_NO;
}

MHD_Result SetMode(Server& server, MHD_Connection* connection, std::string_view name) {
    const ModeName* const mode = FindMode(name);
    if (mode == nullptr) return Answer(connection, MHD_HTTP_BAD_REQUEST, "modes:\n" + ListModes());
    server.mode = mode->mode;
    server.stalled.Release();
    return Answer(connection, MHD_HTTP_OK, "ok\n");
}

// "METHOD URL from ADDRESS:PORT"
std::string TitleOf(MHD_Connection* connection, const std::string& method, const std::string& url) {
    const auto* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    sockaddr_in peer{};
    std::memcpy(&peer, info->client_addr, sizeof peer);
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
    return method + ' ' + url + " from " + address + ':' + std::to_string(ntohs(peer.sin_port));
}

// Called when the headers have come, then for each piece of the body, then when the request is whole, and
// then each time when a stalled connection is released.
MHD_Result Handle(void* context, MHD_Connection* connection, const char* path, const char* method,
                  const char*, const char* data, size_t* size, void** request) {
    Server& server = *static_cast<Server*>(context);
    Arriving& arriving = *static_cast<Arriving*>(*request);
    const std::string_view url(path);
    const bool followsUp = IsFollowUp(url);
    if (!arriving.begun) {
        arriving.begun = true;
        return followsUp && server.mode == Mode::kRefuse ? MHD_NO : MHD_YES;
    }
    if (*size > 0) {
        arriving.body.append(data, *size);
        *size = 0;
        return MHD_YES;
    }
    if (url.starts_with(kModes) && std::string_view(method) == MHD_HTTP_METHOD_PUT) {
        return SetMode(server, connection, url.substr(kModes.size()));
    }
    if (!followsUp) return Answer(connection, MHD_HTTP_NOT_FOUND, "not found\n");
    if (!arriving.recorded) server.record.Add(TitleOf(connection, method, arriving.url), arriving.body);
    arriving.recorded = true;
    return AnswerFollowUp(server, connection);
}

sigset_t EndSignals() {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&ends, number);
    return ends;
}

// Before any thread is started: they inherit that these signals wait for AwaitEnd.
void HoldEnd() {
    const sigset_t ends = EndSignals();
    // A signal that whoever started the program has set to be ignored would never come.
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) std::signal(number, SIG_DFL);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
}

// Waits for a signal that ends the program.
void AwaitEnd() {
    const sigset_t ends = EndSignals();
    int received = 0;
    sigwait(&ends, &received);
}

// The daemon on the loopback address, or null.
MHD_Daemon* Start(Server& server, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_ALLOW_SUSPEND_RESUME, port, nullptr,
                            nullptr, Handle, &server, MHD_OPTION_SOCK_ADDR,
                            reinterpret_cast<sockaddr*>(&address), MHD_OPTION_URI_LOG_CALLBACK, Begin,
                            static_cast<void*>(nullptr), MHD_OPTION_NOTIFY_COMPLETED, End,
                            static_cast<void*>(nullptr), MHD_OPTION_END);
}

// Serves until a signal ends it; the exit status.
int Run(Server& server, std::uint16_t port) {
    HoldEnd();
    MHD_Daemon* const daemon = Start(server, port);
    if (daemon == nullptr) {
        std::cerr << "rdxadmin: port " << port << " cannot be opened: " << std::strerror(errno)
                  << ".\n  Choose another one with --port.\n";
        return 1;
    }
    std::cout << "rdxadmin: listening on port "
              << MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_BIND_PORT)->port << "\n\n"
              << std::flush;
    AwaitEnd();
    server.stalled.End();
    MHD_stop_daemon(daemon);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("An administration server to try junior mode with. It takes follow-ups on any path under "
                 "/VServer, prints them and records them.");
    std::uint16_t port = 8090;
    std::string recordPath;
    std::string modeName = "take";
    app.add_option("--port", port, "port, on the loopback address; 0 takes a free one")
        ->capture_default_str();
    app.add_option("--record", recordPath, "file to which each follow-up is added");
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
    return Run(server, port);
}
