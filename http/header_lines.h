// Reading the header lines of a message into its lists.
#ifndef RDX_HTTP_HEADER_LINES_H
#define RDX_HTTP_HEADER_LINES_H

#include "http/header_list.h"
#include "http/socket_line.h"

#include <span>

namespace rdx {

// What a message's reader returns for header lines that cannot be taken.
struct HeaderFailures {
    int notReceived; // receiving failed
    int badLine;     // a second CR, or too long
    int none;        // not one before the empty line
    int unknown;     // of no list
};

// Reads header lines up to the empty one. `apply` gets each that was stored, and ends the reading with any
// result but 0. A header that its list has no room for, or there is no memory for, is counted and nothing
// else. Returns 0, one of `failures`, or the result of `apply`.
template <typename Apply>
int ReadHeaderLines(int sock, SocketLine& line, std::span<const HeaderList> lists,
                    const HeaderFailures& failures, Apply apply) {
    for (bool any = false;; any = true) {
        const int length = line.Read(sock);
        if (length < 0) return length == SOCKETLINE_NOT_RECEIVED ? failures.notReceived : failures.badLine;
        if (length == 0) return any ? 0 : failures.none;
        const StoredLine stored = StoreHeaderLine(line.Text(), lists);
        if (!stored.known) return failures.unknown;
        const int result = stored.header != nullptr ? apply(*stored.header) : 0;
        if (result != 0) return result;
    }
}

} // namespace rdx

#endif
