// Clients of a listening socket on the loopback interface.
#ifndef RDX_TESTS_SUPPORT_LOOPBACK_H
#define RDX_TESTS_SUPPORT_LOOPBACK_H

#include "tests/support/eventually.h"
#include "tests/support/free_port.h"
#include "tests/support/listener.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace rdx::test {

class Client {
public:
    // `receiveBuffer` bytes may wait here to be received; 0 leaves that to the system.
    explicit Client(int port, int receiveBuffer = 0) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
        const sockaddr_in address = LoopbackAddress(port);
        if (receiveBuffer > 0) {
            setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        }
        connected_ = connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~Client() { Close(); }
    Client(Client&& other) noexcept
        : socket_(std::exchange(other.socket_, -1)), connected_(std::exchange(other.connected_, false)) {}
    Client& operator=(Client&&) = delete;

    bool Connected() const { return connected_; }
    int Port() const { return LocalPort(socket_); }

    void Send(std::string_view bytes) {
        ASSERT_EQ(send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    // `count` bytes; fewer when the server closes before, or does not send them in time.
    std::string Receive(std::size_t count) {
        std::string received;
        while (received.size() < count && ReceiveInto(received, count - received.size()) > 0) {
        }
        return received;
    }

    // Everything until the server closes, which it must.
    std::string ReceiveAll() {
        std::string received;
        while (ReceiveInto(received, 65536) > 0) {
        }
        EXPECT_TRUE(closed_) << "the server keeps the connection open";
        return received;
    }

    // True when the server has neither closed the connection nor sent anything.
    bool IsSilent() const {
        pollfd state{socket_, POLLIN, 0};
        return poll(&state, 1, 0) == 0;
    }

    void Close() {
        if (socket_ >= 0) close(std::exchange(socket_, -1));
    }

    // Closes with a reset in place of an orderly end.
    void Reset() {
        const linger atOnce{1, 0};
        ASSERT_EQ(setsockopt(socket_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce), 0);
        Close();
    }

    // Sends no more, and still receives.
    void EndSending() { ASSERT_EQ(shutdown(socket_, SHUT_WR), 0); }

private:
    // The result of one recv; 0 when the server has closed or does not send in time.
    ssize_t ReceiveInto(std::string& received, std::size_t most) {
        constexpr auto kPatienceMs = std::chrono::milliseconds(kPatience).count();
        pollfd state{socket_, POLLIN, 0};
        if (poll(&state, 1, static_cast<int>(kPatienceMs)) <= 0) return 0;
        std::string piece(most, '\0');
        const ssize_t count = recv(socket_, piece.data(), most, 0);
        closed_ = count == 0 || (count < 0 && errno == ECONNRESET);
        if (count > 0) received.append(piece, 0, static_cast<std::size_t>(count));
        return count;
    }

    int socket_;
    bool connected_ = false;
    bool closed_ = false;
};

} // namespace rdx::test

#endif
