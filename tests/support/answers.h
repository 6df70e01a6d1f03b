// The server's answers byte for byte, for all tests that expect one.
#ifndef RDX_TESTS_SUPPORT_ANSWERS_H
#define RDX_TESTS_SUPPORT_ANSWERS_H

#include <string>

namespace rdx::test {

inline const std::string kInvalidPage = "<HTML><BODY>Invalid Request</BODY></HTML>";
inline const std::string kBadPage = "<HTML><BODY>Bad Request</BODY></HTML>";
inline const std::string kUnauthorizedPage = "<HTML><BODY>Unauthorized</BODY></HTML>";
inline const std::string kNotFoundPage = "<HTML><BODY>Not Found</BODY></HTML>";
inline const std::string kNotAllowedPage = "<HTML><BODY>Method not allowed</BODY></HTML>";
inline const std::string kErrorPage = "<HTML><BODY>Internal Server Error</BODY></HTML>";
inline const std::string kNoResourcesPage = "<HTML><BODY>Out of Resources</BODY></HTML>";

// The reason of a status; every other one has that of 405.
inline std::string ReasonOf(int status) {
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 404:
        return "Not found";
    case 500:
        return "Internal Server Error";
    default:
        return "Not implemented";
    }
}

// What stands behind the status line of every answer.
inline const std::string kGeneralHeaders = "Date: Tue, 30 April 2002 12:08:00 GMT\r\n"
                                           "Last-modified: Tue, 30 April 2002 12:08:00 GMT\r\n"
                                           "Accept-Ranges: bytes\r\n";
inline const std::string kServerHeader = "Server: Halvor Dx httpd/0.1\r\n";

inline std::string Challenge(const std::string& realm = "Tavrin") {
    return "WWW-Authenticate: BASIC realm=\"" + realm + "\"\r\n";
}

// A whole answer. An empty body is not announced.
inline std::string Answer(int status, const std::string& body, const std::string& challenge = "") {
    std::string head = "HTTP/1.1 " + std::to_string(status) + " " + ReasonOf(status) + "\r\n" +
                       kGeneralHeaders + kServerHeader + challenge + "Content-type: text/html\r\n";
    if (!body.empty()) head += "Content-length: " + std::to_string(body.size()) + "\r\n";
    return head + "\r\n" + body;
}

inline std::string BadRequestAnswer() { return Answer(400, kInvalidPage); }
inline std::string UnauthorizedAnswer(const std::string& realm = "Tavrin") {
    return Answer(401, kUnauthorizedPage, Challenge(realm));
}
inline std::string NotFoundAnswer() { return Answer(404, kNotFoundPage); }
inline std::string NotAllowedAnswer() { return Answer(405, kNotAllowedPage); }
inline std::string ServerErrorAnswer() { return Answer(500, kErrorPage); }

// What a handler's result makes of a request that could be read.
inline std::string BadCallAnswer() { return Answer(400, kBadPage); }
inline std::string NoResourcesAnswer() { return Answer(503, kNoResourcesPage); }

// The body of every answer to rdxGetVersion.
inline const std::string kVersionBody =
    "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'><wddxPacket version='1.0'>"
    "<header><comment>rDxGetVersion</comment></header><data>"
    "    <struct>"
    "        <var name='status'>"
    "\t\t\t<struct>"
    "\t\t\t\t<var name='code'><number>0</number></var>"
    "\t\t\t</struct></var>"
    "        <var name='version'><number>100</number></var>"
    "    </struct></data></wddxPacket>";

inline std::string VersionAnswer() { return Answer(200, kVersionBody); }

} // namespace rdx::test

#endif
