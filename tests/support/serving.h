// Serving in tests: a connection in service on the test's own thread, what it is answered, what it traces.
//
// The tests that use this have CloseSocket and pthread_exit replaced by the ones of serving.cpp, which count.
#ifndef RDX_TESTS_SUPPORT_SERVING_H
#define RDX_TESTS_SUPPORT_SERVING_H

#include "common/config.h"
#include "common/mt.h"
#include "server/service.h"
#include "tests/support/answers.h"
#include "tests/support/capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace rdx::test {

// True as soon as no serving thread is left; what they did has happened before then.
bool ServingThreadsEnd();

// How often CloseSocket was called for each descriptor, or for one, since that was forgotten.
std::map<int, int> TimesClosed();
int TimesClosed(int descriptor);
void ForgetClosed(int descriptor);
void ForgetClosed();

// --- texts ---------------------------------------------------------------------------------------------

inline constexpr unsigned char kFlags[] = {0, 1};
inline constexpr ThreadID kNone = static_cast<ThreadID>(-1);

inline std::string Get(const std::string& uri, const std::string& connection = "keep-alive") {
    return "GET " + uri + " HTTP/1.1\r\nConnection: " + connection + "\r\n\r\n";
}

// What a good request prints while it is read from a socket that is not TCP's.
inline constexpr const char* kRead = "\nParsing: method ok (1)\nParseHttpMethodLine ok";

// A piece of the trace that is printed when the verbosity is above a level.
struct Trace {
    int above;
    std::string text;
};
inline constexpr int kAlways = -1;
inline constexpr int kProgress = VERBOSITY_WARN;
inline constexpr int kDetail = VERBOSITY_LOG;

// Matches what has the traces of this verbosity in this order, and none of the others.
inline testing::Matcher<std::string> HasTracesAt(int verbosity, const std::vector<Trace>& traces) {
    std::vector<std::string> printed;
    for (const Trace& trace : traces) {
        if (verbosity > trace.above) printed.push_back(trace.text);
    }
    std::vector<testing::Matcher<std::string>> matchers = {HasLines(printed)};
    for (const Trace& trace : traces) {
        const bool alsoPrinted = std::ranges::find(printed, trace.text) != printed.end();
        if (!alsoPrinted && !trace.text.empty())
            matchers.push_back(testing::Not(testing::HasSubstr(trace.text)));
    }
    return testing::AllOfArray(matchers);
}

inline std::string ThreadLine(const std::string& label, const std::string& message, long number,
                              unsigned long thread = CurrentThreadID()) {
    return "\n[TIME]," + label + ": " + message + " (" + std::to_string(number) +
           ") [tid=" + std::to_string(thread) + "]";
}

// --- handlers and connections ----------------------------------------------------------------------------

// A handler that answers with this text.
inline auto Answering(const std::string& text) {
    return [text](HttpRequest*, char* out, unsigned long* length, unsigned char*) {
        *length = text.copy(out, *length);
        return 0;
    };
}

// A handler that fails, or refuses the request, with this result.
inline auto Failing(int result) {
    return [result](HttpRequest*, char*, unsigned long*, unsigned char*) { return result; };
}

// A connection in service on the calling thread, which is the primary one.
class Serving {
public:
    Serving() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
        client_ = ends[1];
        Take(ends[0]);
        call.iSvcStatus = SERVICE_RUNNING;
        call.hThreadId = CurrentThreadID();
        call.pFdSet = &watched;
    }
    ~Serving() {
        if (TimesClosed(call.hSocket) == 0) close(call.hSocket);
        CloseClient();
    }
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;

    // Serves this connection instead.
    void Replace(int socket) {
        close(call.hSocket);
        Take(socket);
    }

    void Send(std::string_view bytes) const {
        ASSERT_EQ(send(client_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    void EndSending() const { shutdown(client_, SHUT_WR); }

    void CloseClient() {
        if (client_ >= 0) close(std::exchange(client_, -1));
    }

    // What has been sent to the client so far.
    std::string Received() const {
        std::string received;
        char piece[4096];
        ssize_t count;
        while ((count = recv(client_, piece, sizeof piece, MSG_DONTWAIT)) > 0) {
            received.append(piece, static_cast<std::size_t>(count));
        }
        return received;
    }

    bool IsWatched() const { return FD_ISSET(call.hSocket, &watched); }
    bool IsClosed() const { return TimesClosed(call.hSocket) == 1; }

    ServiceCall call{};
    fd_set watched{};

private:
    void Take(int socket) {
        call.hSocket = socket;
        ForgetClosed(socket); // of an earlier connection of that number
    }

    int client_;
};

} // namespace rdx::test

#endif
