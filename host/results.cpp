#include "host/results.h"

#include "common/config.h"
#include "server/rdxhttp.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

namespace {

// What a cause is about; its name follows the cause's words.
enum class Subject { kNone, kFile, kPort };

struct Outcome {
    int result;
    const char* cause;
    Subject subject;
    const char* advice;
};

constexpr std::array<Outcome, 8> kOutcomes = {{
    {RDXHTTP_OK, "ordinary shutdown", Subject::kNone, nullptr},
    {RDXHTTP_BAD_COMMAND_LINE, "the command line was rejected", Subject::kNone,
     "Every option takes a value; 'rdxhttpd --help' lists them."},
    {RDXHTTP_BAD_CONFIGURATION, "the configuration was not accepted; check the file", Subject::kFile,
     "It must be readable, and every value in its section [HTTP] valid; reading stops at the first that "
     "is not."},
    {RDXHTTP_NO_SIGNALS, "the signal handler could not be installed", Subject::kNone,
     "A restriction put on the process, such as a system call filter, must allow sigaction."},
    {RDXHTTP_NO_SOCKETS, "the socket library could not be started", Subject::kNone,
     "A restriction put on the process must allow IPv4 sockets."},
    {RDXHTTP_NO_SERVER_SOCKET, "the port cannot be opened:", Subject::kPort,
     "It is in use (choose another with ServicePort in the configuration file), or it lies below 1024 and "
     "needs root's privileges, or a name or protocol is unknown to the system (Debian package netbase)."},
    {RDXHTTP_NO_SERVICE_LOOP, "the service loop could not be started", Subject::kNone,
     "Free memory, or give a smaller number of threads with -mt."},
    {RDXHTTP_SERVER_SOCKET_LOST, "the server stopped, but its port could not be closed", Subject::kNone,
     "Nothing is left to do; the port is free now that the process ends."},
}};

const char* NameOf(Subject subject, const char* path, const char* port) {
    switch (subject) {
    case Subject::kFile:
        return path;
    case Subject::kPort:
        return port;
    case Subject::kNone:
        break;
    }
    return "";
}

} // namespace

namespace rdx {

const char* ConfigurationPath(int argc, char** argv) {
    const char* path = CONFIG_DEFAULT_PATH;
    for (int i = 1; i + 1 < argc; i += 2)
        if (std::string_view(argv[i]) == "-c") path = argv[i + 1];
    return path;
}

void ReportResult(int result, const char* configurationPath, const char* port) {
    const auto* outcome = std::find_if(kOutcomes.begin(), kOutcomes.end(),
                                       [=](const Outcome& o) { return o.result == result; });
    if (outcome == kOutcomes.end()) {
        std::fprintf(stderr, "\nrdxhttpd: the server ended with the unknown result %d.\n", result);
        return;
    }
    const char* name = NameOf(outcome->subject, configurationPath, port);
    std::fprintf(stderr, "\nrdxhttpd: %s%s%s.\n", outcome->cause, *name == '\0' ? "" : " ", name);
    if (outcome->advice != nullptr) std::fprintf(stderr, "  %s\n", outcome->advice);
}

} // namespace rdx
