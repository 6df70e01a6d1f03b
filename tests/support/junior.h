// What a server in junior mode and its administration server say to each other.
#ifndef RDX_TESTS_SUPPORT_JUNIOR_H
#define RDX_TESTS_SUPPORT_JUNIOR_H

#include <string>

namespace rdx::test {

// What the administration server receives.
inline std::string FollowUp(const std::string& command, const std::string& body) {
    return "GET /VServer?FunctionName=" + command +
           " HTTP/1.1\r\n"
           "Connection: close\r\n"
           "Host: 127.0.0.1\r\n"
           "User-Agent: VXL tnp/0.1\r\n"
           "Accept: */*\r\n"
           "Authorization: Basic dXNlcjpwYXNz\r\n"
           "Content-type: text/xml\r\n"
           "Content-length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

// What it answers.
inline const std::string kTaken = "HTTP/1.1 200 OK\r\nServer: a\r\nContent-length: 5\r\n\r\ntaken";

} // namespace rdx::test

#endif
