// Closing a connection without losing the answer.
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

// True when the peer has closed its side and left nothing to be read.
bool PeerHasClosed(int socket);

} // namespace rdx

#endif
