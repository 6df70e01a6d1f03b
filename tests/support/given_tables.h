// Tables whose names and order are given: programs read them by name and index. The tests have them once,
// here.
#ifndef RDX_TESTS_SUPPORT_GIVEN_TABLES_H
#define RDX_TESTS_SUPPORT_GIVEN_TABLES_H

#include <string>
#include <vector>

namespace rdx::test {

using Names = std::vector<std::string>;

inline const Names kGeneralHeaderNames = {"Cache-Control",     "Connection", "Date", "Pragma", "Trailer",
                                          "Transfer-Encoding", "Upgrade",    "Via",  "Warning"};

inline const Names kRequestHeaderNames = {"Accept",
                                          "Accept-Charset",
                                          "Accept-Encoding",
                                          "Accept-Language",
                                          "Authorization",
                                          "Cookie",
                                          "Expect",
                                          "From",
                                          "Host",
                                          "If-Modified-Since",
                                          "If-Match",
                                          "If-None-Match",
                                          "If-Range",
                                          "If-Unmodified-Since",
                                          "Max-Forwards",
                                          "Proxy-Authorization",
                                          "Range",
                                          "Referer",
                                          "TE",
                                          "User-Agent",
                                          "UA-OS",
                                          "UA-CPU",
                                          "UA-Language",
                                          "UA-Agent",
                                          "UA-color",
                                          "UA-pixels"};

inline const Names kResponseHeaderNames = {
    "Accept-Ranges", "Age",    "ETag",       "Location", "Proxy-Authenticate",
    "Retry-After",   "Server", "Set-Cookie", "Vary",     "WWW-Authenticate"};

inline const Names kEntityHeaderNames = {
    "Allow",       "Content-Encoding", "Content-Language", "Content-Length", "Content-Location",
    "Content-MD5", "Content-Range",    "Content-Type",     "Expires",        "Last-Modified"};

// Of the signals from 0 on; the last one is the library's own choice.
inline const Names kSignalNames = {"NIL",     "SIGHUP",  "SIGINT",   "SIGQUIT",   "SIGILL",  "SIGTRAP",
                                   "SIGABRT", "SIGEMT",  "SIGFPE",   "SIGKILL",   "SIGBUS",  "SIGSEGV",
                                   "SIGSYS",  "SIGPIPE", "SIGALRM",  "SIGTERM",   "SIGUSR1", "SIGUSR2",
                                   "SIGCHLD", "SIGPWR",  "SIGWINCH", "SIGPOLL",   "SIGSTOP", "SIGTSTP",
                                   "SIGCONT", "SIGTTIN", "SIGTTOU",  "SIGVTALRM", "SIGPROF", "SIGIO"};

} // namespace rdx::test

#endif
