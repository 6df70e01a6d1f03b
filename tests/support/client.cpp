#include "tests/support/client.h"

#include "tests/support/listener.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace rdx::test {

namespace {

using Clock = std::chrono::steady_clock;

milliseconds Until(Clock::time_point end) {
    return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(end - Clock::now()));
}

std::string LowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The number behind `name` in a head, or 0.
std::size_t NumberOf(const std::string& head, const std::string& name) {
    const std::size_t at = LowerCase(head).find("\r\n" + name + ": ");
    return at == std::string::npos ? 0 : std::stoul(head.substr(at + 2 + name.size() + 2));
}

} // namespace

Client::Client(int port, int receiveBuffer) {
    socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = LoopbackAddress(port);
    if (receiveBuffer > 0) {
        setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(socket_);
        socket_ = -1;
        return;
    }
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

Client::~Client() { Close(); }

int Client::Port() const { return LocalPort(socket_); }

void Client::Close() {
    if (socket_ >= 0) close(std::exchange(socket_, -1));
}

void Client::Reset() {
    const linger atOnce{1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    Close();
}

Client::Client(Client&& other) noexcept
    : socket_(std::exchange(other.socket_, -1)), closed_(other.closed_),
      received_(std::move(other.received_)) {}

bool Client::Send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

// Waits until the peer's side has taken every byte sent, so that the next is a segment of its own.
void Client::WaitUntilArrived() const {
    Eventually([this] {
        int pending = 0;
        return ioctl(socket_, SIOCOUTQ, &pending) != 0 || pending == 0;
    });
}

bool Client::SendInPieces(std::string_view bytes, std::size_t size) {
    while (!bytes.empty()) {
        const std::string_view piece = bytes.substr(0, size);
        if (!Send(piece)) return false;
        WaitUntilArrived();
        bytes.remove_prefix(piece.size());
    }
    return true;
}

bool Client::SendInLines(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t feed = bytes.find('\n');
        const std::string_view line = bytes.substr(0, feed == bytes.npos ? bytes.npos : feed + 1);
        if (!Send(line)) return false;
        WaitUntilArrived();
        bytes.remove_prefix(line.size());
    }
    return true;
}

void Client::FinishSending() { shutdown(socket_, SHUT_WR); }

Client::Arrival Client::Receive(milliseconds scaledLimit) {
    if (closed_ || socket_ < 0) return Arrival::kClosed;
    pollfd ready = {socket_, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(scaledLimit.count())) <= 0) return Arrival::kNothing;
    std::array<char, 65536> buffer;
    const ssize_t count = recv(socket_, buffer.data(), buffer.size(), 0);
    if (count <= 0) { // a reset closes as well as an end of file
        closed_ = true;
        return Arrival::kClosed;
    }
    received_.append(buffer.data(), static_cast<std::size_t>(count));
    return Arrival::kBytes;
}

Reply Client::ReadAnswer(milliseconds limit) {
    const auto end = Clock::now() + Scaled(limit);
    for (;;) {
        const std::size_t empty = received_.find("\r\n\r\n");
        if (empty != std::string::npos) {
            const std::string head = received_.substr(0, empty + 4);
            const std::size_t length = NumberOf(head, "content-length");
            if (received_.size() >= head.size() + length) {
                Reply answer;
                answer.head = head;
                answer.body = received_.substr(head.size(), length);
                answer.text = head + answer.body;
                if (head.size() > 12 && head.compare(0, 5, "HTTP/") == 0) {
                    answer.status = std::atoi(head.c_str() + 9);
                }
                received_.erase(0, answer.text.size());
                return answer;
            }
        }
        if (Receive(Until(end)) != Arrival::kBytes) break;
    }
    Reply none;
    none.text = received_;
    return none;
}

std::string Client::Read(std::size_t count) {
    const auto end = Clock::now() + Scaled(kPatience);
    while (received_.size() < count && Receive(Until(end)) == Arrival::kBytes) {
    }
    std::string text = received_.substr(0, count);
    received_.erase(0, count);
    return text;
}

std::string Client::ReadUntilClosed(milliseconds limit) {
    const auto end = Clock::now() + Scaled(limit);
    while (Receive(Until(end)) == Arrival::kBytes) {
    }
    return std::exchange(received_, {});
}

bool Client::ClosedByPeer(milliseconds limit) {
    const auto end = Clock::now() + Scaled(limit);
    return received_.empty() && Receive(Until(end)) == Arrival::kClosed;
}

bool Client::StaysSilent(milliseconds glance) {
    return received_.empty() && Receive(glance) == Arrival::kNothing;
}

Reply Ask(int port, std::string_view request) {
    Client connection(port);
    connection.Send(request);
    return connection.ReadAnswer();
}

Reply AskUntilAnswered(int port, std::string_view request) {
    Reply answer;
    Eventually([&] {
        Client connection(port);
        connection.Send(request);
        answer = connection.ReadAnswer(milliseconds(500));
        return answer.status != 0;
    });
    return answer;
}

} // namespace rdx::test
