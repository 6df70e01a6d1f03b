// Requests and responses with one owner.
#ifndef RDX_HTTP_OWNED_MESSAGES_H
#define RDX_HTTP_OWNED_MESSAGES_H

#include "http/httpreq.h"
#include "http/httpresp.h"

#include <cstdlib>
#include <memory>

namespace rdx {

// Contents and record.
struct DeleteRequest {
    void operator()(HttpRequest* request) const {
        FreeHttpRequest(request);
        std::free(request);
    }
};
using OwnedRequest = std::unique_ptr<HttpRequest, DeleteRequest>;

struct DeleteResponse {
    void operator()(HttpResponse* response) const {
        FreeHttpResponse(response);
        std::free(response);
    }
};
using OwnedResponse = std::unique_ptr<HttpResponse, DeleteResponse>;

// A request whose record lives on the stack; its contents are released at the end of the scope.
struct ScopedRequest {
    HttpRequest request{};

    ScopedRequest() = default;
    ~ScopedRequest() { FreeHttpRequest(&request); }
    ScopedRequest(const ScopedRequest&) = delete;
    ScopedRequest& operator=(const ScopedRequest&) = delete;
};

} // namespace rdx

#endif
