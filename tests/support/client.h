// A raw client: sends any bytes at any cuts over one connection and reads answers whole.
#ifndef RDX_TESTS_SUPPORT_CLIENT_H
#define RDX_TESTS_SUPPORT_CLIENT_H

#include "tests/support/eventually.h"

#include <string>
#include <string_view>

namespace rdx::test {

// One answer as it came. A status of 0 means that the connection closed, or nothing came in time, before
// the answer was whole; `text` then holds what did come.
struct Reply {
    int status = 0;
    std::string head; // the status line and the headers with the empty line
    std::string body;
    std::string text;
};

class Client {
public:
    // Connects to `port` on this machine; see Connected. `receiveBuffer` bytes may wait here to be received;
    // 0 leaves that to the system.
    explicit Client(int port, int receiveBuffer = 0);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    Client(Client&& other) noexcept;

    bool Connected() const { return socket_ >= 0; }
    int Descriptor() const { return socket_; }

    // The port that it connects from.
    int Port() const;

    // Hands all bytes to the system; false when the peer closed first.
    bool Send(std::string_view bytes);

    // Sends `size` bytes at a time, each when the ones before it have arrived.
    bool SendInPieces(std::string_view bytes, std::size_t size);

    // Sends the bytes cut behind each line feed, likewise.
    bool SendInLines(std::string_view bytes);

    void Close();

    // Closes with a reset in place of an orderly end.
    void Reset();

    // Tells the peer that nothing more will come.
    void FinishSending();

    // The next answer of this connection, of the length that its Content-length gives.
    Reply ReadAnswer(milliseconds limit = kPatience);

    // `count` bytes; fewer when the peer closes before, or does not send them in time.
    std::string Read(std::size_t count);

    // Everything that comes until the peer closes.
    std::string ReadUntilClosed(milliseconds limit = kPatience);

    // True when the peer closes within the limit without another byte.
    bool ClosedByPeer(milliseconds limit = kPatience);

    // True when neither a byte nor the close of the peer comes for a glance, or until now.
    bool StaysSilent(milliseconds glance = kGlance);

private:
    enum class Arrival { kBytes, kClosed, kNothing };

    void WaitUntilArrived() const;
    Arrival Receive(milliseconds scaledLimit);

    int socket_ = -1;
    bool closed_ = false;
    std::string received_; // not handed out yet
};

// Sends one request over a connection of its own and reads the answer.
Reply Ask(int port, std::string_view request);

// Asks over fresh connections until an answer comes: a connection that found all threads busy gets none.
Reply AskUntilAnswered(int port, std::string_view request);

} // namespace rdx::test

#endif
