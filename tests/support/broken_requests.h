// Requests that are broken in one way each, and what reading them comes to.
//
// They hold for a server that allows GET and POST, demands no credentials and has its other settings at their
// defaults. The far end closes behind the last byte.
#ifndef RDX_TESTS_SUPPORT_BROKEN_REQUESTS_H
#define RDX_TESTS_SUPPORT_BROKEN_REQUESTS_H

#include <string_view>

namespace rdx::test {

// Bytes of a literal, NULs and all.
struct Bytes : std::string_view {
    template <std::size_t Size>
    constexpr Bytes(const char (&literal)[Size]) : std::string_view(literal, Size - 1) {}
};

struct BrokenRequest {
    int outcome; // the result of ConsumeHttpRequest
    const char* why;
    Bytes bytes;
};

// A request that ends the process: reading it, or freeing it afterwards, meets an assertion.
struct LethalRequest {
    const char* assertion;
    const char* why;
    Bytes bytes;
};

// clang-format off
#define X16 "xxxxxxxxxxxxxxxx"
#define X64 X16 X16 X16 X16
#define X192 X64 X64 X64
#define X240 X192 X16 X16 X16
#define X256 X192 X64
#define BLANKS16 "                "
#define BLANKS64 BLANKS16 BLANKS16 BLANKS16 BLANKS16
#define BLANKS240 BLANKS64 BLANKS64 BLANKS64 BLANKS16 BLANKS16 BLANKS16
#define BLANKS256 BLANKS64 BLANKS64 BLANKS64 BLANKS64
#define HOST "Host: a\r\n\r\n"
#define GET "GET /x HTTP/1.1\r\n"
#define POST "POST /x HTTP/1.1\r\n"
#define MULTIPART "Content-Type: multipart/form-data"
#define THREE(line) line line line
#define FOURTEEN(line) THREE(line) THREE(line) THREE(line) THREE(line) line line
#define SIXTEEN(line) FOURTEEN(line) line line

inline constexpr BrokenRequest kBrokenRequests[] = {
    // Request line: words
    {-400, "a lone word", "GET\r\n" HOST},
    {-400, "a lone byte", "x"},
    {-400, "no target", "GET \r\n" HOST},
    {-400, "no target but blanks", "GET  \t \r\n" HOST},
    {-400, "no protocol", "GET /x\r\n" HOST},
    {-400, "no protocol, a blank", "GET /x \r\n" HOST},
    {-400, "no protocol, a tab", "GET /x\tHTTP/1.1\r\n" HOST},
    {-400, "no version", "GET /x HTTP\r\n" HOST},
    {-400, "no version, a blank", "GET /x HTTP \r\n" HOST},
    {-400, "the target left out", "GET HTTP/1.1\r\n" HOST},
    {-400, "tabs for blanks", "GET\t/x\tHTTP/1.1\r\n" HOST},
    {-400, "a backslash for the slash", "GET /x HTTP\\1.1\r\n" HOST},
    {-400, "the greeting of an encrypted connection", "\x16\x03\x01\x00\x05hello\n"},
    {-400, "the greeting of another protocol", "EHLO\r\n"},
    {-400, "bytes above 127", "\xff\xfe\xfd\r\n"},
    {-400, "a NUL alone", "\0"},
    {-400, "a NUL in a lone word", "GET\0/x\r\n" HOST},
    {-400, "two carriage returns in the request line", "GET /x\r HTTP/1.1\r\n" HOST},
    {-400, "two carriage returns at its end", "GET /x HTTP/1.1\r\r\n" HOST},
    {-400, "two carriage returns at its beginning", "\r\rGET /x HTTP/1.1\n" HOST},
    {-400, "two carriage returns and nothing else", "\r\r"},

    // Request line: lengths
    {-400, "a method of 256 characters", X256 " /x HTTP/1.1\r\n" HOST},
    {-405, "a method of 255 characters", X240 "xxxxxxxxxxxxxxx /x HTTP/1.1\r\n" HOST},
    {-400, "a target of 256 characters", "GET " X256 " HTTP/1.1\r\n" HOST},
    {-400, "a target of 300 characters", "GET " X256 X16 X16 "xxxxxxxxxxxx HTTP/1.1\r\n" HOST},
    {-400, "a protocol of 256 characters", "GET /x " X256 "/1.1\r\n" HOST},
    {-501, "a protocol of 255 characters", "GET /x " X240 "xxxxxxxxxxxxxxx/1.1\r\n" HOST},
    {-505, "a version of 256 characters", "GET /x HTTP/" X256 "\r\n" HOST},
    {-400, "a request line of 512 characters", "GET" BLANKS256 BLANKS240 "  /x HTTP/1.1\r\n" HOST},
    {-400, "a request line without end", X256 X256 X256 X256},

    // Methods
    {-405, "an unknown method", "FOO /x HTTP/1.1\r\n" HOST},
    {-405, "PUT is not allowed", "PUT /x HTTP/1.1\r\n" HOST},
    {-405, "HEAD is not allowed", "HEAD /x HTTP/1.1\r\n" HOST},
    {-405, "DELETE is not allowed", "DELETE /x HTTP/1.1\r\n" HOST},
    {-405, "TRACE is not allowed", "TRACE /x HTTP/1.1\r\n" HOST},
    {-405, "OPTIONS is not allowed", "OPTIONS * HTTP/1.1\r\n" HOST},
    {-405, "CONNECT is not allowed", "CONNECT a:1 HTTP/1.1\r\n" HOST},
    {-405, "PATCH is unknown", "PATCH /x HTTP/1.1\r\n" HOST},
    {-405, "the beginning of a method", "GE /x HTTP/1.1\r\n" HOST},
    {-405, "a method and more", "GETS /x HTTP/1.1\r\n" HOST},
    {-405, "a method and the target in one word", "GET/x HTTP/1.1\r\n" HOST},
    {-405, "a posted target in one word", "POST/x HTTP/1.1\r\n" HOST},
    {-405, "a blank before the method", " GET /x HTTP/1.1\r\n" HOST},
    {-405, "a tab before the method", "\tGET /x HTTP/1.1\r\n" HOST},
    {-405, "a tab behind the method", "GET\t /x HTTP/1.1\r\n" HOST},
    {-405, "blanks and nothing else", "   \r\n" HOST},
    {-405, "a NUL before the method", "\0GET /x HTTP/1.1\r\n" HOST},
    {-405, "a NUL behind the method", "GET\0 /x HTTP/1.1\r\n" HOST},
    {-405, "a NUL within the method", "GE\0T /x HTTP/1.1\r\n" HOST},
    {-405, "the method quoted", "\"GET\" /x HTTP/1.1\r\n" HOST},
    {-405, "the greeting of version 2", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"},
    {-405, "a response", "HTTP/1.1 200 OK\r\nServer: a\r\n\r\n"},

    // Protocol
    {-501, "another protocol", "GET /x FTP/1.0\r\n" HOST},
    {-501, "a protocol and more", "GET /x HTTPS/1.1\r\n" HOST},
    {-501, "the beginning of the protocol", "GET /x HTT/1.1\r\n" HOST},
    {-501, "an empty protocol", "GET /x /1.1\r\n" HOST},
    {-501, "a blank before the slash", "GET /x HTTP /1.1\r\n" HOST},
    {-501, "a blank in the target", "GET /x y HTTP/1.1\r\n" HOST},
    {-501, "a blank and a slash in the target", "GET /x y/z HTTP/1.1\r\n" HOST},
    {-501, "a NUL behind the protocol", "GET /x HTTP\0/1.1\r\n" HOST},
    {-501, "a NUL before the protocol", "GET /x \0HTTP/1.1\r\n" HOST},

    // Version
    {-505, "version 2.0", "GET /x HTTP/2.0\r\n" HOST},
    {-505, "version 0.9", "GET /x HTTP/0.9\r\n" HOST},
    {-505, "version 1.2", "GET /x HTTP/1.2\r\n" HOST},
    {-505, "version 11", "GET /x HTTP/11\r\n" HOST},
    {-505, "half a version", "GET /x HTTP/1\r\n" HOST},
    {-505, "a version without its end", "GET /x HTTP/1.\r\n" HOST},
    {-505, "an empty version", "GET /x HTTP/\r\n" HOST},
    {-505, "a version and a digit", "GET /x HTTP/1.10\r\n" HOST},
    {-505, "a version with a leading zero", "GET /x HTTP/01.1\r\n" HOST},
    {-505, "a version with a comma", "GET /x HTTP/1,1\r\n" HOST},
    {-505, "a blank behind the version", "GET /x HTTP/1.1 \r\n" HOST},
    {-505, "a tab behind the version", "GET /x HTTP/1.1\t\r\n" HOST},
    {-505, "a blank before the version", "GET /x HTTP/ 1.1\r\n" HOST},
    {-505, "two slashes", "GET /x HTTP//1.1\r\n" HOST},
    {-505, "a word behind the version", "GET /x HTTP/1.1 now\r\n" HOST},
    {-505, "a NUL behind the version", "GET /x HTTP/1.1\0\r\n" HOST},
    {-505, "a NUL in the version", "GET /x HTTP/1.\0" "1\r\n" HOST},

    // Headers
    {-400, "no header", GET "\r\n"},
    {-400, "no header in version 1.0", "GET /x HTTP/1.0\r\n\r\n"},
    {-400, "closed behind the request line", GET},
    {-400, "closed within the request line's end", "GET /x HTTP/1.1\r"},
    {-400, "closed before the request line's end", "GET /x HTTP/1.1"},
    {-500, "an unknown header", GET "X-Custom: 1\r\n\r\n"},
    {-500, "an unknown header behind a known one", GET "Host: a\r\nX-Custom: 1\r\n\r\n"},
    {-500, "an unknown header without value", GET "Foo:\r\n\r\n"},
    {-500, "a header of responses", GET "Server: a\r\n\r\n"},
    {-500, "another header of responses", GET "Accept-Ranges: bytes\r\n\r\n"},
    {-500, "a header of browsers", GET "Origin: null\r\n\r\n"},
    {-500, "a header of proxies", GET "X-Forwarded-For: 192.0.2.1\r\n\r\n"},
    {-500, "a header of old clients", GET "Keep-Alive: 300\r\n\r\n"},
    {-500, "a known name and more", GET "Hosts: a\r\n\r\n"},
    {-500, "a blank before the name", GET " Host: a\r\n\r\n"},
    {-500, "a blank behind the name", GET "Host : a\r\n\r\n"},
    {-500, "a tab behind the name", GET "Host\t: a\r\n\r\n"},
    {-500, "a folded line with a colon", GET "Host: a\r\n b: c\r\n\r\n"},
    {-500, "a NUL behind the name", GET "Host\0: a\r\n\r\n"},
    {-500, "a NUL before the name", GET "\0Host: a\r\n\r\n"},
    {-500, "a long name behind a NUL", GET "Host\0" X256 ": a\r\n\r\n"},
    {-500, "a name of 500 bytes", GET X256 X240 "xxxx: a\r\n\r\n"},
    {-500, "a name of bytes above 127", GET "\xc3\xa4\xc3\xb6: a\r\n\r\n"},
    {-400, "a header line of 512 characters", GET "Host: " X256 X240 "xxxxxxxxxx\r\n\r\n"},
    {-400, "a header line without end", GET "Host: " X256 X256 X256},
    {-400, "two carriage returns in a header line", GET "Host: a\rb\r\n\r\n"},
    {-400, "two carriage returns in the empty line", GET "Host: a\r\n\r\r\n"},

    // Body length
    {-400, "a length of 0", POST "Content-length: 0\r\n\r\n"},
    {-400, "a length of 0 on a GET", GET "Content-length: 0\r\n\r\n"},
    {-400, "a length of many zeros", POST "Content-length: 0000000000000000000000\r\n\r\n"},
    {-400, "an empty length", POST "Content-length:\r\n\r\n"},
    {-400, "a length of blanks", POST "Content-length:   \r\n\r\n"},
    {-400, "a length in words", POST "Content-length: four\r\n\r\nbody"},
    {-400, "a hexadecimal length", POST "Content-length: 0x4\r\n\r\nbody"},
    {-400, "a quoted length", POST "Content-length: \"4\"\r\n\r\nbody"},
    {-400, "a negative length", POST "Content-length: -1\r\n\r\nbody"},
    {-400, "a length below 32 bits", POST "Content-length: -4294967292\r\n\r\nbody"},
    {-400, "a length above the limit", POST "Content-length: 65537\r\n\r\n"},
    {-400, "a length of 2^31 - 1", POST "Content-length: 2147483647\r\n\r\nbody"},
    {-400, "a length of 2^31", POST "Content-length: 2147483648\r\n\r\nbody"},
    {-400, "a length of 2^32", POST "Content-length: 4294967296\r\n\r\nbody"},
    {-400, "a length of 2^32 + 4", POST "Content-length: 4294967300\r\n\r\nbody"},
    {-400, "a length of 2^64 + 4", POST "Content-length: 18446744073709551620\r\n\r\nbody"},
    {-400, "a good length and then 0", POST "Content-length: 4\r\nContent-length: 0\r\n\r\nbody"},
    {-400, "a good length and then too many", POST "Content-length: 4\r\nContent-length: 65537\r\n\r\nbody"},
    {-400, "no body", POST "Content-length: 4\r\n\r\n"},
    {-400, "a body that is a byte short", POST "Content-length: 4\r\n\r\nbod"},
    {-400, "the longest body, a byte short of everything", POST "Content-length: 65536\r\n\r\nb"},
    {-400, "a body of a GET that is short", GET "Content-length: 4\r\n\r\nbod"},
    {-400, "closed behind the length's line", POST "Content-length: 4\r\n"},

    // Multipart
    {-400, "multipart on a GET", GET MULTIPART "; boundary=AbC\r\n\r\n"},
    {-400, "multipart on a GET, without boundary", GET MULTIPART "\r\n\r\n"},
    {-400, "no boundary", POST MULTIPART "\r\n\r\n"},
    {-400, "no boundary but another parameter", POST MULTIPART "; charset=utf-8\r\n\r\n"},
    {-400, "the boundary's key in another case", POST MULTIPART "; Boundary=AbC\r\n\r\n"},
    {-400, "a blank behind the boundary's key", POST MULTIPART "; boundary =AbC\r\n\r\n"},
    {-400, "the boundary before the type's end", POST "Content-Type: multipart/form-databoundary\r\n\r\n"},
    {-400, "a boundary and a short body", POST MULTIPART "; boundary=AbC\r\nContent-length: 9\r\n\r\n--AbC"},

    {200, "a good request", GET HOST},
};

inline constexpr LethalRequest kLethalRequests[] = {
    {"pcolon != __null", "a header line without a colon", GET "Host\r\n\r\n"},
    {"pcolon != __null", "a header line without a colon behind one that has one", GET "Host: a\r\nHost\r\n\r\n"},
    {"pcolon != __null", "a folded line", GET "Host: a\r\n b\r\n\r\n"},
    {"pcolon != __null", "a header line of one blank", GET " \r\n\r\n"},
    {"pcolon != __null", "a header line of one NUL", GET "\0\r\n\r\n"},
    {"pcolon != __null", "a header line of 511 characters without a colon", GET X256 X240 "xxxxxxxxxxxxxxx\r\n\r\n"},
    {"pcolon != __null", "closed within a header's name", GET "Hos"},
    {"pcolon != __null", "a body where the headers should end", POST "Content-length: 4\r\nbody\r\n\r\n"},
    {"pRequest->ucNumOfGeneralHeaders <= 16", "17 general headers", GET SIXTEEN("Via: a\r\n") "Via: a\r\n\r\n"},
    {"pRequest->ucNumOfGeneralHeaders <= 16", "17 headers with short names", GET SIXTEEN("X: a\r\n") "X: a\r\n\r\n"},
    {"pRequest->ucNumOfGeneralHeaders <= 16", "18 general headers and a failure", GET SIXTEEN("Via: a\r\n") "Via: a\r\nVia: a\r\nFoo: a\r\n\r\n"},
    {"pRequest->ucNumOfRequestHeaders <= 14", "15 request headers", GET FOURTEEN("Host: a\r\n") HOST},
    {"pRequest->ucNumOfEntityHeaders <= 16", "17 entity headers", GET SIXTEEN("Allow: a\r\n") "Allow: a\r\n\r\n"},
};
// clang-format on

#undef X16
#undef X64
#undef X192
#undef X240
#undef X256
#undef BLANKS16
#undef BLANKS64
#undef BLANKS240
#undef BLANKS256
#undef HOST
#undef GET
#undef POST
#undef MULTIPART
#undef THREE
#undef FOURTEEN
#undef SIXTEEN

} // namespace rdx::test

#endif
