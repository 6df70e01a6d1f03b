// Requests as the server reads them, put together by hand.
#ifndef RDX_TESTS_SUPPORT_REQUEST_H
#define RDX_TESTS_SUPPORT_REQUEST_H

#include "http/httpreq.h"
#include "tests/support/guarded.h"

#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace rdx::test {

// Owns everything the record points to. The body ends right before an unreadable page.
class Request {
public:
    explicit Request(const std::string& uri = "/rDx") : uri_(uri) {
        record_.pszUri = uri_.data();
        std::strcpy(record_.pszSeparator, "\r\n");
        std::strcpy(record_.szPeerName, "192.0.2.7:51234");
        record_.iSocket = -1;
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    // A request of the query form for `function`, with `body` as its arguments.
    Request(const std::string& function, std::string_view body) : Request("/rDx?FunctionName=" + function) {
        if (!body.empty()) Body(body);
    }

    Request& Body(std::string_view body) {
        body_ = std::make_unique<GuardedBytes>(body);
        record_.pEntityBody = body_->begin();
        record_.uiBodyLength = static_cast<unsigned int>(body.size());
        return *this;
    }

    // Marks the request as multipart; `boundary` is its parameter, without the dashes.
    Request& Multipart(const std::string& boundary) {
        boundary_ = "--" + boundary;
        record_.ucMultipart = 1;
        record_.pszBoundary = boundary_.data();
        record_.ucBoundaryLen = static_cast<unsigned char>(boundary_.size());
        return *this;
    }

    Request& Separator(const char* separator) {
        std::strcpy(record_.pszSeparator, separator);
        return *this;
    }

    Request& Authorization(const std::string& value) {
        authorization_ = value;
        record_.aRequestHeaders[0] = {authorizationName_.data(), authorization_.data()};
        record_.ucNumOfRequestHeaders = 1;
        return *this;
    }

    HttpRequest* get() { return &record_; }
    HttpRequest* operator->() { return &record_; }

private:
    HttpRequest record_{};
    std::string uri_;
    std::unique_ptr<GuardedBytes> body_;
    std::string boundary_;
    std::string authorizationName_ = "Authorization";
    std::string authorization_;
};

} // namespace rdx::test

#endif
