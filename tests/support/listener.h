// A listening TCP socket on a free port of the loopback interface.
#ifndef RDX_TESTS_SUPPORT_LISTENER_H
#define RDX_TESTS_SUPPORT_LISTENER_H

#include <arpa/inet.h>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace rdx::test {

inline sockaddr_in LoopbackAddress(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<unsigned short>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// The port that a socket is bound to.
inline int LocalPort(int socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) std::abort();
    return ntohs(address.sin_port);
}

// A listening socket with the options of the server's own: closing what it accepts resets the connection.
class Listener {
public:
    Listener() : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
        const sockaddr_in address = LoopbackAddress(0);
        const linger atOnce{1, 0};
        if (setsockopt(socket_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce) != 0 ||
            bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(socket_, 64) != 0) {
            std::abort();
        }
    }
    ~Listener() { close(socket_); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int Socket() const { return socket_; }
    int Port() const { return LocalPort(socket_); }

private:
    int socket_;
};

} // namespace rdx::test

#endif
