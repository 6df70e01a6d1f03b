// Closing a connection without losing the answer, and learning that the peer has done so.
#ifndef RDX_COMMON_DELIVERY_H
#define RDX_COMMON_DELIVERY_H

#include <sys/select.h>

namespace rdx {

// How long a peer may take to acknowledge anything more of an answer, in milliseconds.
inline constexpr int kDeliveryPatienceMs = 2000;

// Waits until the peer has acknowledged everything that was sent on a TCP socket: closing the socket resets
// the connection, which would cut the rest off. Gives up when the connection has failed, when nothing more
// was acknowledged for kDeliveryPatienceMs, or when a terminating signal ends the wait.
void AwaitDelivery(int socket);

// The same for all of `sockets` when a service loop ends, within kDeliveryPatienceMs for all of them
// together; a terminating signal, which may be why the loop ends, does not cut that short.
void AwaitDeliveries(const fd_set& sockets);

// True when nothing is on its way to the peer any more: it has acknowledged all that was sent, or the
// connection has failed and takes nothing. Also for a socket that is not TCP's.
bool IsDelivered(int socket);

// What a look at a connection finds, which takes nothing from it and leaves its error where it is.
enum class Peer {
    kThere,  // it may still send, or something that it sent is unread
    kClosed, // it has closed its side, and everything that it sent was read
    kFailed  // the connection was reset, or failed otherwise, and everything was read
};
Peer LookAtPeer(int socket);

// True when the peer has closed its side or the connection has failed, whatever is unread.
bool HasPeerLeft(int socket);

} // namespace rdx

#endif
