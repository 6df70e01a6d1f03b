// The administration server of junior mode: it takes follow-ups over the loopback interface, one connection
// at a time, and answers each with the same bytes, until it is told others.
#ifndef RDX_TESTS_SUPPORT_ADMIN_SERVER_H
#define RDX_TESTS_SUPPORT_ADMIN_SERVER_H

#include "tests/support/listener.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace rdx::test {

class AdminServer {
public:
    // What becomes of a connection behind the answer: closed; or left open until the peer closes it. A
    // refused one is closed when it was accepted, nothing is read or answered.
    enum class Then { Close, StayOpen, Refuse };

    struct FollowUp {
        std::string peer;    // "address:port"
        std::string request; // everything received before it was answered
    };

    // `tail` is how many bytes come behind a request's announced body.
    explicit AdminServer(std::string answer, Then then = Then::Close, std::size_t tail = 0)
        : tail_(tail), answer_(std::move(answer)), then_(then), thread_([this] { Run(); }) {}
    ~AdminServer() {
        stopped_ = true;
        shutdown(listener_.Socket(), SHUT_RDWR);
        HangUp();
        thread_.join();
    }
    AdminServer(const AdminServer&) = delete;
    AdminServer& operator=(const AdminServer&) = delete;

    int Port() const { return listener_.Port(); }

    // What becomes of the connections from now on.
    void AnswerWith(std::string answer, Then then = Then::Close) {
        const std::lock_guard lock(mutex_);
        answer_ = std::move(answer);
        then_ = then;
    }

    // The connections so far on which a request has arrived, or which were closed before.
    std::vector<FollowUp> FollowUps() const {
        const std::lock_guard lock(mutex_);
        return followUps_;
    }

    // The request of the only connection so far.
    std::string Request() const {
        const std::vector<FollowUp> followUps = FollowUps();
        return followUps.size() == 1 ? followUps[0].request
                                     : std::to_string(followUps.size()) + " connections";
    }

    // Closes the current connection, answered or not.
    void HangUp() {
        const std::lock_guard lock(mutex_);
        if (connection_ >= 0) shutdown(connection_, SHUT_RDWR);
    }

private:
    void Run() {
        while (!stopped_) {
            sockaddr_in peer{};
            socklen_t size = sizeof peer;
            const int connection = accept(listener_.Socket(), reinterpret_cast<sockaddr*>(&peer), &size);
            if (connection < 0) continue; // stopped, or given up before it was accepted
            SetConnection(connection);
            Serve(connection, peer);
            SetConnection(-1);
            close(connection); // what has not been read makes this a reset
        }
    }

    void SetConnection(int connection) {
        const std::lock_guard lock(mutex_);
        connection_ = connection;
    }

    void Serve(int connection, const sockaddr_in& peer) {
        const std::string request = WhatNow().second == Then::Refuse ? "" : ReceiveRequest(connection);
        const auto [answer, then] = WhatNow();
        {
            const std::lock_guard lock(mutex_);
            followUps_.push_back({NameOf(peer), request});
        }
        if (then == Then::Refuse) return;
        send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
        if (then == Then::Close) shutdown(connection, SHUT_WR);
        std::string rest; // closing before the peer does would reset what it has not read
        while (Receive(connection, rest)) {
        }
    }

    std::pair<std::string, Then> WhatNow() const {
        const std::lock_guard lock(mutex_);
        return {answer_, then_};
    }

    std::string ReceiveRequest(int connection) const {
        std::string request;
        while (!IsWhole(request) && Receive(connection, request)) {
        }
        return request;
    }

    bool IsWhole(const std::string& request) const {
        const std::string_view end = "\r\n\r\n";
        const std::string_view length = "\r\nContent-length: ";
        const std::size_t head = request.find(end);
        if (head == std::string::npos) return false;
        const std::size_t at = request.find(length);
        const int body = at < head ? std::atoi(request.c_str() + at + length.size()) : 0;
        return request.size() >= head + end.size() + static_cast<std::size_t>(body) + tail_;
    }

    static bool Receive(int connection, std::string& received) {
        char piece[4096];
        const ssize_t count = recv(connection, piece, sizeof piece, 0);
        if (count > 0) received.append(piece, static_cast<std::size_t>(count));
        return count > 0;
    }

    static std::string NameOf(const sockaddr_in& peer) {
        char address[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
        return std::string(address) + ":" + std::to_string(ntohs(peer.sin_port));
    }

    std::size_t tail_;
    Listener listener_;
    std::atomic<bool> stopped_ = false;
    mutable std::mutex mutex_; // guards what follows
    std::string answer_;
    Then then_;
    std::vector<FollowUp> followUps_;
    int connection_ = -1;
    std::thread thread_; // last: it uses all of the above
};

} // namespace rdx::test

#endif
