// What single functions take, each beside a peer or a floor that does the same work:
// requests against a reader that takes every byte with a system call of its own, packets against libxml2,
// responses against one snprintf.
#include "common/config.h"
#include "common/portability_sockets.h"
#include "http/httpreq.h"
#include "http/httpresp.h"
#include "wddx/wddx.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The traces of a request go to standard output, where the table goes: both away while a benchmark runs.
class Silence {
public:
    Silence() : saved_(dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
    ~Silence() {
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

private:
    int saved_;
};

struct SocketPair {
    SocketPair() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
        near = ends[0];
        far = ends[1];
    }
    ~SocketPair() {
        close(near);
        close(far);
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;

    int near;
    int far;
};

// A structure of `members` named strings, as a packet.
std::string MakePacket(int members) {
    std::string packet = "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'><wddxPacket "
                         "version='1.0'><header/><data><struct>";
    for (int i = 0; i < members; ++i) {
        packet += "<var name='Attribute" + std::to_string(i) + "'><string>value &amp; unit " +
                  std::to_string(i) + "</string></var>";
    }
    return packet + "</struct></data></wddxPacket>";
}

const std::string kRequest = "POST /rDx?FunctionName=rdxGetVersion HTTP/1.1\r\nHost: device\r\nUser-Agent: "
                             "bench\r\nAccept: */*\r\nContent-type: text/xml\r\nContent-length: 180\r\n\r\n" +
                             std::string(180, 'x');

void Send(int socket, const std::string& bytes) {
    if (write(socket, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) std::abort();
}

void ReadRequest(benchmark::State& state) {
    const Silence silence;
    const SocketPair sockets;
    aiMethodsAllowed[2] = 1; // POST
    for (auto _ : state) {
        Send(sockets.far, kRequest);
        HttpRequest* request = nullptr;
        if (ConsumeHttpRequest(sockets.near, &request) != 200) std::abort();
        FreeHttpRequest(request);
        std::free(request);
    }
}
BENCHMARK(ReadRequest);

void ReadRequestFloorByteByByte(benchmark::State& state) {
    const SocketPair sockets;
    for (auto _ : state) {
        Send(sockets.far, kRequest);
        char byte;
        for (std::size_t i = 0; i < kRequest.size(); ++i) {
            if (recv(sockets.near, &byte, 1, 0) != 1) std::abort();
            benchmark::DoNotOptimize(byte);
        }
    }
}
BENCHMARK(ReadRequestFloorByteByByte);

void ParsePacket(benchmark::State& state) {
    const std::string packet = MakePacket(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        WddxValue* value = wddxParseStream(packet.c_str());
        if (value == nullptr) std::abort();
        wddxFree(&value);
    }
    state.SetBytesProcessed(static_cast<int64_t>(packet.size()) * state.iterations());
}
BENCHMARK(ParsePacket)->Arg(4)->Arg(900);

void ParsePacketPeerLibxml2(benchmark::State& state) {
    const std::string packet = MakePacket(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        xmlDoc* const document =
            xmlReadMemory(packet.data(), static_cast<int>(packet.size()), nullptr, nullptr, XML_PARSE_NONET);
        if (document == nullptr) std::abort();
        xmlFreeDoc(document);
    }
    state.SetBytesProcessed(static_cast<int64_t>(packet.size()) * state.iterations());
}
BENCHMARK(ParsePacketPeerLibxml2)->Arg(4)->Arg(900);

void PrintPacket(benchmark::State& state) {
    const std::string packet = MakePacket(static_cast<int>(state.range(0)));
    WddxValue* value = wddxParseStream(packet.c_str());
    FILE* const stream = std::fopen("/dev/null", "w");
    for (auto _ : state) {
        if (wddxPrintStream(stream, value, nullptr) != 1) std::abort();
        std::fflush(stream);
    }
    state.SetBytesProcessed(static_cast<int64_t>(packet.size()) * state.iterations());
    std::fclose(stream);
    wddxFree(&value);
}
BENCHMARK(PrintPacket)->Arg(4)->Arg(900);

void PrintPacketPeerLibxml2(benchmark::State& state) {
    const std::string packet = MakePacket(static_cast<int>(state.range(0)));
    xmlDoc* const document =
        xmlReadMemory(packet.data(), static_cast<int>(packet.size()), nullptr, nullptr, XML_PARSE_NONET);
    FILE* const stream = std::fopen("/dev/null", "w");
    for (auto _ : state) {
        if (xmlDocDump(stream, document) < 0) std::abort();
        std::fflush(stream);
    }
    state.SetBytesProcessed(static_cast<int64_t>(packet.size()) * state.iterations());
    std::fclose(stream);
    xmlFreeDoc(document);
}
BENCHMARK(PrintPacketPeerLibxml2)->Arg(4)->Arg(900);

void WriteResponse(benchmark::State& state) {
    const std::string body(500, 'x');
    char buffer[4096];
    for (auto _ : state) {
        HttpResponse* response = nullptr;
        if (CreateHttpResponse(&response, 200, "text/html", body.data(), 500) != 0) std::abort();
        benchmark::DoNotOptimize(SerializeHttpResponse(response, buffer, sizeof buffer));
        FreeHttpResponse(response);
        std::free(response);
    }
}
BENCHMARK(WriteResponse);

void WriteResponseFloorSnprintf(benchmark::State& state) {
    const std::string body(500, 'x');
    char buffer[4096];
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(
            buffer, sizeof buffer,
            "HTTP/1.1 %d %s\r\nDate: %s\r\nLast-modified: %s\r\nAccept-Ranges: bytes\r\nServer: %s\r\n"
            "Content-type: %s\r\nContent-length: %d\r\n\r\n%s",
            200, "OK", "Tue, 30 April 2002 12:08:00 GMT", "Tue, 30 April 2002 12:08:00 GMT",
            "Halvor Dx httpd/0.1", "text/html", 500, body.c_str()));
    }
}
BENCHMARK(WriteResponseFloorSnprintf);

} // namespace

BENCHMARK_MAIN();
