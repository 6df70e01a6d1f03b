// The texts that go over the wire: the requests of the tests and the answers they expect, byte for byte.
#ifndef RDX_TESTS_SYSTEM_MESSAGES_H
#define RDX_TESTS_SYSTEM_MESSAGES_H

#include "tests/support/answers.h"

#include <string>
#include <string_view>
#include <vector>

namespace rdx::test {

// The result packet with nothing but this status and null parameters.
std::string StatusPacket(int code, int reason);

// An argument packet around a value, and the one that rdxGetVersion wants.
std::string Packet(const std::string& value);
std::string VersionPacket();

// A request of any kind: request line, header lines, Content-length when there is a body, and the body.
std::string Request(const std::string& requestLine, const std::vector<std::string>& headers,
                    const std::string& body = "");

inline constexpr std::string_view kVersionLine = "POST /rDx?FunctionName=rdxGetVersion HTTP/1.1";

// A POST of rdxGetVersion with its arguments, HTTP/1.1, with these further headers.
std::string VersionCall(const std::vector<std::string>& headers = {});
std::string VersionCallAndClose();

// A POST of any method with its argument packet.
std::string Call(const std::string& method, const std::string& packet,
                 const std::vector<std::string>& headers = {});

// A GET that is answered with 404.
std::string UnknownTarget(const std::vector<std::string>& headers = {});

// One part of a form, and a request with such parts.
std::string FormPart(const std::string& name, const std::string& value);
std::string FormCall(const std::string& parts, const std::vector<std::string>& headers = {},
                     const std::string& boundary = "AbC");
std::string VersionForm(const std::vector<std::string>& headers = {});

// The header that carries a user's name and password.
std::string BasicAuthorization(const std::string& user, const std::string& password);
std::string Base64(const std::string& text);

} // namespace rdx::test

#endif
