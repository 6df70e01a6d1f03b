// A connection whose far end sends given bytes in given pieces.
//
// Readers must not depend on how the network cuts what they read. A test feeds the same bytes at every cut
// that CutsOf() names; each piece is sent only when the reader has taken everything before it.
#ifndef RDX_TESTS_SUPPORT_WIRE_H
#define RDX_TESTS_SUPPORT_WIRE_H

#include <atomic>
#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace rdx::test {

struct Cut {
    std::string name;
    std::vector<std::string_view> pieces;
};

inline Cut CutEvery(std::string_view bytes, std::size_t size, std::string name) {
    Cut cut{std::move(name), {}};
    for (std::size_t at = 0; at < bytes.size(); at += size) cut.pieces.push_back(bytes.substr(at, size));
    return cut;
}

// One piece for each line, its end included; with `inside`, the line feeds come alone.
inline Cut CutAtLines(std::string_view bytes, bool inside) {
    Cut cut{inside ? "before and behind each line feed" : "at each line end", {}};
    std::size_t begin = 0;
    const auto cutAt = [&](std::size_t end) {
        if (end > begin) cut.pieces.push_back(bytes.substr(begin, end - begin));
        begin = end;
    };
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        if (bytes[at] != '\n') continue;
        if (inside) cutAt(at);
        cutAt(at + 1);
    }
    cutAt(bytes.size());
    return cut;
}

inline std::vector<Cut> CutsOf(std::string_view bytes) {
    std::vector<Cut> cuts = {{"whole", {bytes}}, CutEvery(bytes, 1, "byte by byte")};
    for (std::size_t size = 2; size <= 5; ++size) {
        cuts.push_back(CutEvery(bytes, size, std::to_string(size) + " bytes at a time"));
    }
    cuts.push_back(CutAtLines(bytes, false));
    cuts.push_back(CutAtLines(bytes, true));
    return cuts;
}

class Wire {
public:
    enum class Then { Close, StayOpen };

    // Sends the pieces one after the other from a thread of its own, then closes its end or stays silent.
    explicit Wire(std::vector<std::string_view> pieces, Then then = Then::Close)
        : pieces_(std::move(pieces)), then_(then) {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) != 0) std::abort();
        sender_ = std::thread([this] { Send(); });
    }

    ~Wire() {
        Stop();
        close(ends_[0]);
        close(ends_[1]);
    }
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    int Socket() const { return ends_[0]; }

    // How many bytes the reader has taken out of the socket. Nothing more is sent after this.
    std::size_t Taken() {
        Stop();
        return sent_ - Unread();
    }

private:
    std::size_t Unread() const {
        int count = 0;
        if (ioctl(ends_[0], FIONREAD, &count) != 0) std::abort();
        return static_cast<std::size_t>(count);
    }

    void Stop() {
        if (!sender_.joinable()) return;
        stopped_ = true;
        shutdown(ends_[0], SHUT_RD); // ends a send that waits for room
        sender_.join();
    }

    void Send() {
        for (const std::string_view piece : pieces_) {
            while (Unread() > 0 && !stopped_) std::this_thread::yield();
            if (stopped_ || !SendWhole(piece)) return;
        }
        if (then_ == Then::Close) shutdown(ends_[1], SHUT_WR);
    }

    bool SendWhole(std::string_view piece) {
        while (!piece.empty()) {
            const ssize_t count = send(ends_[1], piece.data(), piece.size(), MSG_NOSIGNAL);
            if (count <= 0) return false;
            sent_ += static_cast<std::size_t>(count);
            piece.remove_prefix(static_cast<std::size_t>(count));
        }
        return true;
    }

    std::vector<std::string_view> pieces_;
    Then then_;
    int ends_[2] = {-1, -1};
    std::size_t sent_ = 0; // the sender's, until it has been joined
    std::atomic<bool> stopped_ = false;
    std::thread sender_;
};

} // namespace rdx::test

#endif
