// The hook of the socket layer, in a source of its own: a program that wants to see the reports puts another
// ReportSocketError in its place when it links.
#include "common/portability_sockets.h"

#include <cerrno>

int ReportSocketError(const char* /*szFunction*/, const char* /*szMessage*/) { return errno; }
