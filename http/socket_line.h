// One line of a message as it is read from a socket.
#ifndef RDX_HTTP_SOCKET_LINE_H
#define RDX_HTTP_SOCKET_LINE_H

#include "common/portability_sockets.h"
#include "http/http.h"

#include <cstddef>
#include <string_view>

namespace rdx {

class SocketLine {
public:
    // Reads the next line in place of this one. The result is ReadLineFromSocket's: the line's length, or a
    // negative number, after which the line is empty.
    int Read(int sock) {
        end_[0] = end_[1] = end_[2] = '\0'; // a CR left from the line before would count as this line's
        const int result = ReadLineFromSocket(sock, text_, sizeof text_, end_);
        length_ = result > 0 ? static_cast<std::size_t>(result) : 0;
        return result;
    }

    std::string_view Text() const { return {text_, length_}; }
    const char* begin() const { return text_; }
    const char* end() const { return text_ + length_; }

    // "\r\n" or "\n"; less when the peer closed within the line.
    std::string_view LineEnd() const { return end_; }

private:
    char text_[HTTP_LINE_SIZE];
    char end_[HTTP_SEPARATOR_SIZE] = "";
    static_assert(sizeof end_ == SOCKET_LINE_END_SIZE);
    std::size_t length_ = 0;
};

} // namespace rdx

#endif
