// A connection whose far end has answered before it is asked, so that a call and its answer need no thread.
#ifndef RDX_TESTS_SUPPORT_EXCHANGE_H
#define RDX_TESTS_SUPPORT_EXCHANGE_H

#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace rdx::test {

class Exchange {
public:
    // What the far end does behind its answer.
    enum class Then { Close, StayOpen };

    // An answer that does not fit into the socket's buffer aborts.
    explicit Exchange(std::string_view answer, Then then = Then::Close) {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) != 0) std::abort();
        if (send(ends_[1], answer.data(), answer.size(), MSG_DONTWAIT) !=
            static_cast<ssize_t>(answer.size())) {
            std::abort();
        }
        if (then == Then::Close) shutdown(ends_[1], SHUT_WR);
    }
    ~Exchange() {
        close(ends_[0]);
        CloseFar();
    }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    int Socket() const { return ends_[0]; }

    // Nothing more can be sent.
    void CloseFar() {
        if (ends_[1] >= 0) close(std::exchange(ends_[1], -1));
    }

    // What has been sent since this was last asked.
    std::string Sent() const {
        std::string sent;
        char piece[4096];
        ssize_t count;
        while ((count = recv(ends_[1], piece, sizeof piece, MSG_DONTWAIT)) > 0) {
            sent.append(piece, static_cast<std::size_t>(count));
        }
        return sent;
    }

    // How many bytes of the answer have not been read.
    int Unread() const {
        int count = 0;
        if (ioctl(ends_[0], FIONREAD, &count) != 0) std::abort();
        return count;
    }

private:
    int ends_[2] = {-1, -1};
};

} // namespace rdx::test

#endif
