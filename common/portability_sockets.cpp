#include "common/portability_sockets.h"

#include "common/check.h"
#include "common/entity_terminator.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/memory.h"
#include "common/owned_socket.h"
#include "common/ports.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "common/text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <netdb.h>
#include <optional>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

unsigned short usPortOffset = 0;

namespace {

// Room for one entry of the service, protocol or host database.
constexpr std::size_t kDatabaseEntrySize = 4096;

// A dotted address; nothing when the text is not one.
std::optional<in_addr> ParseAddress(const char* dotted) {
    in_addr address{};
    if (inet_aton(dotted, &address) == 0) return std::nullopt;
    return address;
}

sockaddr_in MakeAddress(in_addr address, unsigned short port) {
    sockaddr_in record{};
    record.sin_family = AF_INET;
    record.sin_port = htons(port);
    record.sin_addr = address;
    return record;
}

const sockaddr* Generic(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }

bool BindTo(int socket, const sockaddr_in& address) {
    return bind(socket, Generic(address), sizeof address) == 0;
}

// The port that a text names: a service's of the database moved by `offset`, or a number. 0 for no number;
// below 0 or above 65535 for what is no port.
std::int64_t PortOf(const char* service, unsigned short offset) {
    servent entry{};
    servent* found = nullptr;
    char buffer[kDatabaseEntrySize];
    if (getservbyname_r(service, "tcp", &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr) {
        return rdx::ParseDecimal(service);
    }
    return std::int64_t{ntohs(static_cast<unsigned short>(found->s_port))} + offset;
}

// The number of protocol "tcp", or -1 where the protocol database does not name it.
int TcpProtocol() {
    protoent entry{};
    protoent* found = nullptr;
    char buffer[kDatabaseEntrySize];
    const int error = getprotobyname_r("tcp", &entry, buffer, sizeof buffer, &found);
    return error != 0 || found == nullptr ? -1 : found->p_proto;
}

// The address of a host by its name or dotted address.
std::optional<in_addr> AddressOfHost(const char* host) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, nullptr, &wanted, &found) != 0) return ParseAddress(host);
    sockaddr_in first{};
    std::memcpy(&first, found->ai_addr, sizeof first);
    freeaddrinfo(found);
    return first.sin_addr;
}

bool ResetOnClose(int socket) {
    const linger atOnce{1, 0};
    return setsockopt(socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce) == 0;
}

bool ReuseAddress(int socket) {
    const int on = 1;
    return setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

// The common end of the two functions that store -1 on failure and log a socket that cannot be closed.
int FinishExt(const char* label, rdx::OwnedSocket& socket, int result, int* phSocket) {
    const int descriptor = socket.Release();
    *phSocket = result == 0 ? descriptor : -1;
    if (result != 0 && descriptor >= 0) {
        const int closed = CloseSocket(descriptor);
        if (closed != 0) rdx::LogPlain(label, "failed closing socket on error exit", closed);
    }
    return result;
}

// Receives as recv does. The thread that handles the caught signals waits in a window.
ssize_t Receive(int socket, void* buffer, std::size_t size, int flags) {
    if (!rdx::HandlesSignalsInWindows()) return recv(socket, buffer, size, flags);
    for (;;) {
        const ssize_t count = recv(socket, buffer, size, flags | MSG_DONTWAIT);
        if (count >= 0 || errno != EAGAIN) return count;
        if (!rdx::WaitForPeer(socket, POLLIN, -1)) {
            errno = EINTR;
            return -1;
        }
    }
}

// Sends as send does. The thread that handles the caught signals waits in a window for a peer that does
// not read, and sends the rest piece by piece.
ssize_t Send(int socket, const char* data, std::size_t size) {
    if (!rdx::HandlesSignalsInWindows()) return send(socket, data, size, 0);
    std::size_t sent = 0;
    while (sent < size) {
        const ssize_t count = send(socket, data + sent, size - sent, MSG_DONTWAIT);
        if (count >= 0) {
            sent += static_cast<std::size_t>(count);
        } else if (errno != EAGAIN || !rdx::WaitForPeer(socket, POLLOUT, -1)) {
            return sent > 0 ? static_cast<ssize_t>(sent) : -1;
        }
    }
    return static_cast<ssize_t>(sent);
}

// A socket that does not wait for a scope.
class NonBlockingScope {
public:
    explicit NonBlockingScope(int socket) : socket_(socket), flags_(fcntl(socket, F_GETFL)) {
        entered_ = flags_ >= 0 && fcntl(socket_, F_SETFL, flags_ | O_NONBLOCK) >= 0;
    }
    ~NonBlockingScope() { Leave(); }
    NonBlockingScope(const NonBlockingScope&) = delete;
    NonBlockingScope& operator=(const NonBlockingScope&) = delete;

    bool Entered() const { return entered_; }

    // Ends the scope early. False when the socket goes on not waiting.
    bool Leave() { return !std::exchange(entered_, false) || fcntl(socket_, F_SETFL, flags_) >= 0; }

private:
    int socket_;
    int flags_;
    bool entered_;
};

// Waits in a window for a connection under way; its failure is in errno.
bool AwaitConnection(int socket) {
    if (!rdx::WaitForPeer(socket, POLLOUT, -1)) {
        errno = EINTR;
        return false;
    }
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return false;
    if (error != 0) errno = error;
    return error == 0;
}

// Connects as connect does. The thread that handles the caught signals waits in a window for a peer that does
// not answer.
bool Connect(int socket, const sockaddr_in& address) {
    const auto start = [&] { return connect(socket, Generic(address), sizeof address) == 0; };
    if (!rdx::HandlesSignalsInWindows()) return start();
    NonBlockingScope scope(socket);
    return scope.Entered() && (start() || (errno == EINPROGRESS && AwaitConnection(socket))) && scope.Leave();
}

// True when `data` ends in the configured end-of-entity text; a CR LF at the very end is passed over.
bool EndsEntity(std::string_view data, std::string_view terminator) {
    if (data.ends_with("\r\n")) data.remove_suffix(2);
    return data.ends_with(terminator);
}

bool MakeNonBlocking(int socket) {
    const int flags = fcntl(socket, F_GETFL);
    return flags >= 0 && fcntl(socket, F_SETFL, flags | O_NONBLOCK | O_APPEND) >= 0;
}

// Counts the tries of a non-blocking receive on an empty socket and pauses before each.
class Retries {
public:
    // True when another try is due, after its pause.
    bool Next() {
        constexpr int kMost = 3;
        constexpr useconds_t kPauseUs = 2000;
        if (tries_ == kMost) return false;
        ++tries_;
        usleep(kPauseUs);
        return true;
    }

private:
    int tries_ = 0;
};

// Takes `count` bytes that have been peeked at out of the socket.
bool Consume(int socket, std::size_t count) {
    char taken[512];
    while (count > 0) {
        const ssize_t got = Receive(socket, taken, std::min(count, sizeof taken), 0);
        if (got <= 0) return false;
        count -= static_cast<std::size_t>(got);
    }
    return true;
}

// Whether there is memory for a preview of what was not sent. Nobody reads the preview; callers tell by the
// result that a report could not have been made whole.
bool CanCopyPreview(const char* data, int length) {
    constexpr int kPreviewSize = 32; // bytes, the NUL included
    const int previewed = std::max(std::min(length, kPreviewSize) - 1, 0);
    return rdx::CopyText({data, static_cast<std::size_t>(previewed)}) != nullptr;
}

int ReportFailedLine(int received) {
    char message[64];
    rdx::Appender(message).Add("recv failed after ").AddDecimal(received).Add(" bytes");
    ReportSocketError("ReadLineFromSocket()", message);
    return SOCKETLINE_NOT_RECEIVED;
}

// Builds one line from bytes in the order of their arrival.
class LineBuilder {
public:
    LineBuilder(char* line, std::size_t size, char* lineEnd) : line_(line), size_(size), end_(lineEnd) {
        line_[0] = '\0';
        end_[0] = '\0';
    }

    static constexpr int kMore = std::numeric_limits<int>::min();

    // The line's result after this byte, or kMore.
    int Add(char c) {
        if (c == '\r') {
            if (endLength_ > 0) return SOCKETLINE_SECOND_CR;
            AddToEnd(c);
            return kMore;
        }
        if (c == '\n') {
            AddToEnd(c);
            return Length();
        }
        if (length_ == size_ - 1) return SOCKETLINE_TOO_LONG;
        line_[length_++] = c;
        line_[length_] = '\0';
        return kMore;
    }

    int Length() const { return static_cast<int>(length_); }

    // The most bytes that can still belong to the line: its text, CR and LF.
    std::size_t MostBytesLeft() const { return size_ - 1 - length_ + 2; }

private:
    void AddToEnd(char c) {
        end_[endLength_++] = c;
        end_[endLength_] = '\0';
    }

    char* line_;
    std::size_t size_;
    char* end_;
    std::size_t length_ = 0;
    std::size_t endLength_ = 0;
};

} // namespace

int InitSockLib() { return 0; }

int CreateSrvSocket(const char* szService, int iBacklog, int* phSocket) {
    constexpr const char* kFunction = "CreateSrvSocket()";
    const std::optional<unsigned short> port = rdx::UsablePort(PortOf(szService, usPortOffset));
    if (!port) return SRVSOCKET_NO_PORT;
    const auto fail = [](int result, const char* message) {
        if (rdx::VerbosityAbove(VERBOSITY_NONE)) ReportSocketError(kFunction, message);
        return result;
    };
    const int protocol = TcpProtocol();
    if (protocol < 0) return fail(SRVSOCKET_NO_PROTOCOL, "failed mapping protocol name");
    rdx::OwnedSocket server(socket(AF_INET, SOCK_STREAM, protocol));
    if (server.Get() < 0) return fail(SRVSOCKET_NO_SOCKET, "failed creating socket");
    if (ReuseSockAddr(server.Get()) != 0) {
        return fail(SRVSOCKET_NO_REUSE, "failed declaring socket address reusable");
    }
    if (!BindTo(server.Get(), MakeAddress({htonl(INADDR_ANY)}, *port))) {
        return fail(SRVSOCKET_NOT_BOUND, "failed binding allocated socket");
    }
    if (listen(server.Get(), iBacklog) != 0) {
        return fail(SRVSOCKET_NOT_LISTENING, "listening on bound socket failed");
    }
    *phSocket = server.Release();
    return 0;
}

int CreateClntSocket(const char* szHost, const char* szService, int* phSocket) {
    constexpr const char* kFunction = "CreateClntSocket()";
    const std::int64_t port = PortOf(szService, 0);
    RDX_CHECK(port != 0, "port != 0");
    const std::optional<in_addr> address = AddressOfHost(szHost);
    if (!address) return CLNTSOCKET_NO_HOST;
    RDX_CHECK(address->s_addr != 0, "ulAddr != 0L");
    const auto fail = [](int result, const char* message) {
        ReportSocketError(kFunction, message);
        return result;
    };
    const int protocol = TcpProtocol();
    if (protocol < 0) return fail(CLNTSOCKET_NO_PROTOCOL, "failed mapping protocol name");
    rdx::OwnedSocket client(socket(AF_INET, SOCK_STREAM, protocol));
    if (client.Get() < 0) return fail(CLNTSOCKET_NO_SOCKET, "failed creating socket");
    const std::optional<unsigned short> usable = rdx::UsablePort(port);
    if (!usable || !Connect(client.Get(), MakeAddress(*address, *usable))) {
        return fail(CLNTSOCKET_NOT_CONNECTED, "failed connecting socket");
    }
    *phSocket = client.Release();
    return 0;
}

int CreateSrvSocketExt(const char* szLocalAddr, unsigned short usPort, int iBacklog, int* phSocket) {
    constexpr const char* kFunction = "CreateSrvSocketExt()";
    rdx::OwnedSocket server(socket(AF_INET, SOCK_STREAM, 0));
    const auto fail = [&](int result, const char* message) {
        ReportSocketError(kFunction, message);
        return FinishExt(kFunction, server, result, phSocket);
    };
    // "datagram" although the socket is a stream socket: who watches the hook looks for these very words.
    if (server.Get() < 0) return fail(SRVSOCKETEXT_NO_SOCKET, "failed creating datagram socket");
    if (ReuseSockAddr(server.Get()) != 0) {
        return fail(SRVSOCKETEXT_NO_REUSE, "failed declaring socket address reusable");
    }
    const std::optional<in_addr> local = ParseAddress(szLocalAddr);
    if (!local) return FinishExt(kFunction, server, SRVSOCKETEXT_NO_ADDRESS, phSocket);
    RDX_CHECK(local->s_addr != 0, "ulAddr != 0L");
    if (!BindTo(server.Get(), MakeAddress(*local, usPort))) {
        return fail(SRVSOCKETEXT_NOT_BOUND, "failed binding datagram socket to local addr/port");
    }
    if (listen(server.Get(), iBacklog) != 0) {
        return fail(SRVSOCKETEXT_NOT_LISTENING, "listening on bound socket failed");
    }
    return FinishExt(kFunction, server, 0, phSocket);
}

int CreateClntSocketExt(const char* szLocalAddr, unsigned short usLocalPort, const char* szRemoteAddr,
                        unsigned short usRemotePort, int* phSocket) {
    constexpr const char* kFunction = "CreateClntSocketExt()";
    rdx::OwnedSocket client(socket(AF_INET, SOCK_STREAM, 0));
    const auto finish = [&](int result) { return FinishExt(kFunction, client, result, phSocket); };
    const auto fail = [&](int result, const char* message) {
        ReportSocketError(kFunction, message);
        return finish(result);
    };
    const auto failUnlessSilent = [&](int result, const char* message) {
        return rdx::VerbosityAbove(VERBOSITY_NONE) ? fail(result, message) : finish(result);
    };
    if (client.Get() < 0) return fail(CLNTSOCKETEXT_NO_SOCKET, "failed creating stream socket");
    if (!ResetOnClose(client.Get())) {
        return failUnlessSilent(CLNTSOCKETEXT_NO_OPTION, "setting socket option SO_LINGER failed");
    }
    if (!ReuseAddress(client.Get())) {
        return failUnlessSilent(CLNTSOCKETEXT_NO_OPTION, "setting socket option SO_REUSEADDR failed");
    }
    const std::optional<in_addr> local = ParseAddress(szLocalAddr);
    if (!local) return finish(CLNTSOCKETEXT_NO_LOCAL);
    RDX_CHECK(local->s_addr != 0, "ulAddr != 0L");
    if (!BindTo(client.Get(), MakeAddress(*local, usLocalPort))) {
        return fail(CLNTSOCKETEXT_NOT_BOUND, "failed binding stream socket to local addr/port");
    }
    const std::optional<in_addr> remote = ParseAddress(szRemoteAddr);
    if (!remote) return finish(CLNTSOCKETEXT_NO_REMOTE);
    RDX_CHECK(remote->s_addr != 0, "ulAddr != 0L");
    if (!Connect(client.Get(), MakeAddress(*remote, usRemotePort))) {
        return fail(CLNTSOCKETEXT_NOT_CONNECTED, "failed establishing virtual circuit to destination");
    }
    return finish(0);
}

int CloseSocket(int hSocket) {
    const int result = close(hSocket);
    if (result != 0) ReportSocketError("CloseSocket()", "failed closing socket by handle");
    return result;
}

int RecvSocket(int hSocket, void* pBuf, int iSize, char cNonBlocking) {
    const bool blocking = cNonBlocking == 0;
    if (!blocking && !MakeNonBlocking(hSocket)) return SOCKET_NOT_RECEIVED;
    char* const buffer = static_cast<char*>(pBuf);
    const rdx::EntityTerminator terminator = rdx::LoadEntityTerminator();
    const bool terminated = blocking && terminator.used;
    Retries retries;
    int total = 0;
    while (total < iSize) {
        RDX_CHECK(iSize - total > 0, "rem > 0");
        const auto remaining = static_cast<std::size_t>(iSize - total);
        const ssize_t count = blocking ? Receive(hSocket, buffer + total, remaining, 0)
                                       : recv(hSocket, buffer + total, remaining, 0);
        if (count == 0) return total;
        if (count > 0) {
            total += static_cast<int>(count);
            if (!terminated) continue;
            RDX_CHECK(!terminator.View().empty(), "slen > 0");
            if (EndsEntity({buffer, static_cast<std::size_t>(total)}, terminator.View())) return total;
        } else if (blocking || errno != EAGAIN || !retries.Next()) {
            return total > 0 ? total : static_cast<int>(SOCKET_NOT_RECEIVED);
        }
    }
    return total;
}

int ReadLineFromSocket(int hSocket, char* szBuf, unsigned int uiBufsize, char* szCrLf) {
    RDX_CHECK(uiBufsize > 0, "uiBufsize > 0");
    RDX_CHECK(szBuf != nullptr, "szBuf != __null");
    RDX_CHECK(szCrLf != nullptr, "szCrLf != __null");
    LineBuilder line(szBuf, uiBufsize, szCrLf);
    // What has arrived is looked at first and then taken as far as the line goes: two system calls for a
    // line instead of one for each byte, and what follows the line stays in the socket.
    for (;;) {
        char arrived[512];
        const std::size_t most = std::min(sizeof arrived, line.MostBytesLeft());
        const ssize_t count = Receive(hSocket, arrived, most, MSG_PEEK);
        if (count == 0) return line.Length();
        if (count < 0) return ReportFailedLine(line.Length());
        std::size_t taken = 0;
        int result = LineBuilder::kMore;
        while (taken < static_cast<std::size_t>(count) && result == LineBuilder::kMore) {
            result = line.Add(arrived[taken++]);
        }
        if (!Consume(hSocket, taken)) return SOCKETLINE_NOT_RECEIVED;
        if (result != LineBuilder::kMore) return result;
    }
}

int SendSocket(int hSocket, const void* pData, int iLength) {
    const char* const data = static_cast<const char*>(pData);
    const ssize_t sent = Send(hSocket, data, static_cast<std::size_t>(std::max(iLength, 0)));
    if (sent == iLength) return iLength;
    if (rdx::VerbosityAbove(VERBOSITY_FATAL)) {
        ReportSocketError("SendSocket()", "send() failed");
        if (!CanCopyPreview(data, iLength)) return SOCKET_NO_MEMORY;
    }
    return sent < 0 ? SOCKET_NOT_SENT : SOCKET_PARTLY_SENT;
}

int WriteSocket(int hSocket, const void* pData, unsigned int uiLength) {
    const auto written = static_cast<int>(write(hSocket, pData, uiLength));
    if (written < 0) ReportSocketError("WriteSocket()", "failed writing to socket");
    if (written == 0) ReportSocketError("WriteSocket()", "failed writing all bytes");
    return written;
}

int DumpClientSocket(FILE* stream, const char* szFunction, int hClient, const sockaddr_in* pClient) {
    char stamp[128];
    unsigned char address[4];
    std::memcpy(address, &pClient->sin_addr, sizeof address);
    fprintf(stream, "\n[%s],%s: accepted connection from %d.%d.%d.%d (clnt socket handle = %d)",
            Now2(stamp, sizeof stamp - 1), szFunction, address[0], address[1], address[2], address[3],
            hClient);
    fflush(stream);
    return 0;
}

int IsClientGranted() { return 1; }

int ReuseSockAddr(int hSocket) {
    ResetOnClose(hSocket);
    return ReuseAddress(hSocket) ? 0 : -1;
}

int GetLocalHostAddr() { return -1; }
