// Serving in junior mode: a request with a ticket is acknowledged at once, and its result follows in a
// request of the server's own to the administration server.
//
//     read -> handle -> respond                        a request without a ticket
//     read -> acknowledge -> handle -> follow up       a request with one
//
// The client's connection is kept or closed as soon as it has its response or acknowledge; the slot stays in
// service until the follow-up is over.
#include "client/tnp.h"
#include "common/check.h"
#include "common/config.h"
#include "common/delivery.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/memory.h"
#include "common/owned_socket.h"
#include "common/portability_sockets.h"
#include "common/ports.h"
#include "common/shared.h"
#include "common/text.h"
#include "http/pages.h"
#include "rDxsd/pdata.h"
#include "server/serving.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

using namespace rdx;

namespace {

constexpr std::size_t kUriSize = 512;   // bytes of a follow-up's URI, the NUL included
constexpr std::size_t kTicketSize = 64; // bytes of a ticket as a text, the NUL included

// Bytes of a follow-up's command: the longer word, "&SvcTicket=", a 64-bit number and the NUL.
constexpr std::size_t kCommandSize = 17 + 11 + 20 + 1;

constexpr char kAcknowledge[] = "<?xml version='1.0'?>\n"
                                "<!DOCTYPE wddxPacket SYSTEM 'wddx_0100.dtd'>\n"
                                "<wddxPacket version='1.0'>\n"
                                "<header>\n"
                                "    <comment>acknowledge from Tavrin</comment>\n"
                                "</header>\n"
                                "<data>\n"
                                "    <struct>\n"
                                "        <var name='Return'>\n"
                                "            <number>0</number>\n"
                                "        </var>\n"
                                "        <var name='ServiceTicket'>\n"
                                "            <string>TND-ST_%lu</string>\n"
                                "        </var>\n"
                                "    </struct>\n"
                                "</data>\n"
                                "</wddxPacket>\n";
static_assert(sizeof kAcknowledge - 1 == 380);

// Whose steps the functions here are, in its assertions.
constexpr const char* kServeClientInStages = "void* ServeClientInStages(ServiceCall*)";

// The buffers of one service, on the serving thread's stack.
struct Buffers {
    char output[SERVICE_BUFFER_SIZE];
    char acknowledge[SERVICE_BUFFER_SIZE];
    char serialised[SERVICE_BUFFER_SIZE];
};

// A response without a result of a handler's.
struct Page {
    unsigned short status;
    const char* body;
};

// The pages for requests that could not be read, by the result of reading. They differ from the direct
// body's: clients of junior mode take a bad request line or header for an internal error.
struct UnreadPage {
    int result;
    Page page;
};
constexpr UnreadPage kUnreadPages[] = {
    {kNobodyThere, {HTTP_STATUS_BAD_REQUEST, kBadRequestPage}},
    {-HTTP_STATUS_UNAUTHORIZED, {HTTP_STATUS_UNAUTHORIZED, kUnauthorizedPage}},
    // No reader of this library gives it; a program that puts a reader of its own in the place of this one
    // does.
    {PDATA_NOT_MULTIPART, {HTTP_STATUS_BAD_REQUEST, kInvalidRequestPage}},
    {-HTTP_STATUS_METHOD_NOT_ALLOWED, {HTTP_STATUS_METHOD_NOT_ALLOWED, kNotAllowedPage}},
};

Page PageForUnread(int result) {
    const auto* const row = std::ranges::find(kUnreadPages, result, &UnreadPage::result);
    return row != std::end(kUnreadPages) ? row->page : Page{HTTP_STATUS_INTERNAL_ERROR, kInternalErrorPage};
}

// What a service needs of its slot. The thread's creator may be storing the thread at this moment.
ServiceCall CopyOf(const ServiceCall& slot) {
    ServiceCall copy{};
    copy.hSocket = slot.hSocket;
    copy.iSvcStatus = LoadShared(slot.iSvcStatus);
    copy.hThreadId = LoadShared(slot.hThreadId);
    copy.pFdSet = slot.pFdSet;
    return copy;
}

// One service from the request that has been read to its end.
class StagedService {
public:
    StagedService(ServiceCall& slot, Buffers& buffers)
        : slot_(slot), copy_(CopyOf(slot)), buffers_(buffers) {}

    // The status of the service.
    int Serve() {
        const int result = ReadRequest(copy_.hSocket, request_);
        status_ = result == kNobodyThere ? SERVICE_NO_REQUEST : 0;
        if (result != kNobodyThere) printf("\nServeClientInStages 2 ConsumeHttpRequest=%d", result);
        if (result != HTTP_STATUS_OK) return Respond(PageForUnread(result));
        handler_ = GetServerHandler(request_->pszUri);
        if (handler_ == nullptr) return Respond({HTTP_STATUS_NOT_FOUND, kNotFoundPage});
        char ticket[kTicketSize];
        if (GetQueryStringValue(request_.get(), "SvcTicket", ticket, sizeof ticket) != HTTPQUERY_FOUND)
            return ServeAtOnce();
        return ServeTicket(ParseUnsignedDecimal(ticket));
    }

    ThreadID Thread() const { return copy_.hThreadId; }

private:
    // Has the request handled into the output buffer; the handler's result.
    int Handle() {
        std::memset(buffers_.output, 0, sizeof buffers_.output);
        unsigned long length = sizeof buffers_.output;
        const int handled = handler_(request_.get(), buffers_.output, &length, &slot_.ucTerminate);
        buffers_.output[sizeof buffers_.output - 1] = '\0'; // the output is taken as a text
        if (handled == 0 && slot_.ucTerminate != 0) LogTermination("ServeClientInStages()", *request_);
        return handled;
    }

    int ServeAtOnce() {
        const int handled = Handle();
        if (handled == 0) return Respond({HTTP_STATUS_OK, buffers_.output});
        // Also a handler that asks for authentication is an internal error to the clients of this mode.
        return Respond(handled > 0 ? Page{HTTP_STATUS_BAD_REQUEST, kBadRequestPage}
                                   : Page{HTTP_STATUS_INTERNAL_ERROR, kInternalErrorPage});
    }

    int ServeTicket(unsigned long ticket) {
        const int length = GenerateAcknowledge(buffers_.acknowledge, sizeof buffers_.acknowledge, ticket);
        HttpResponse* response = nullptr;
        const int built = CreateHttpResponse(&response, HTTP_STATUS_OK, kContentType, buffers_.acknowledge,
                                             static_cast<unsigned int>(length));
        if (built < 0) return Respond({HTTP_STATUS_OUT_OF_RESOURCES, kOutOfResourcesPage});
        FinalizeRequest(nullptr, response, built, buffers_.serialised, status_, &copy_, &slot_,
                        slot_.ucKeepAlive);
        return FollowUp(ticket);
    }

    // The second stage. What fails is the thread's exit status and nothing else: the client has its
    // acknowledge.
    int FollowUp(unsigned long ticket) {
        const int handled = Handle();
        const char* body = handled > 0 ? kBadRequestPage : kInternalErrorPage;
        if (handled == 0) {
            body = buffers_.output;
            LogString("ServeClientInStages()", "body is", body);
        }
        if (request_->ucKeepAlive == 1) slot_.ucKeepAlive = 1;
        char command[kCommandSize];
        snprintf(command, sizeof command, "%s&SvcTicket=%lu",
                 handled == 0 ? "vsFollowUpSuccess" : "vsFollowUpFailure", ticket);
        const int status = SendFollowUp(command, body);
        RDX_CHECK_FOR(kServeClientInStages, request_ != nullptr, "pReq != __null");
        return status;
    }

    int SendFollowUp(const char* command, const char* body);

    int Respond(const Page& page) {
        RDX_CHECK_FOR(kServeClientInStages, page.body != nullptr, "szBody != __null");
        HttpResponse* response = nullptr;
        const int built = CreateHttpResponse(&response, page.status, kContentType, page.body,
                                             static_cast<unsigned int>(std::strlen(page.body)));
        // Released with a status below 0, too: there is no request then.
        return FinalizeRequest(request_.release(), response, built, buffers_.serialised, status_, &copy_,
                               &slot_, slot_.ucKeepAlive);
    }

    ServiceCall& slot_;
    ServiceCall copy_; // the slot as it was at the start: what the connection is kept or closed by
    Buffers& buffers_;
    OwnedRequest request_;
    ServerHandler handler_ = nullptr;
    int status_ = SERVICE_NO_REQUEST;
};

// The local port of follow-ups: the one behind the service's. A service that is named instead of numbered
// gives port 1, on which the administrators' filters count.
std::int64_t FollowUpPort() {
    const SharedText service(szConfigSvcPort);
    return std::int64_t{ParseDecimal(service.View())} + 1;
}

// Connects to the administration server. Follow-ups share the local port: one that starts while another is
// under way fails, and its result is lost; the server never queues.
bool ConnectToAdmin(OwnedSocket& admin) {
    const SharedText local(szConfigSvcAddr);
    const SharedText host(szAdminServerHost);
    const std::int64_t localPort = FollowUpPort();
    const auto remotePort = UsablePort(LoadShared(uiAdminServerPort));
    // Port 0 leaves the choice to the system.
    if (localPort < 0 || localPort > kHighestPort || !remotePort) return false;
    return CreateClntSocketExt(local.c_str(), static_cast<unsigned short>(localPort), host.c_str(),
                               *remotePort, admin.Out()) == 0;
}

// "/VServer" and what follows the first segment of the URI.
OwnedText RewriteUri(const char* uri) {
    Reader reader(uri);
    reader.Take("/");
    const std::string_view path = reader.Rest();
    return JoinText("/VServer", path.substr(std::min(path.find_first_of("/?"), path.size())));
}

} // namespace

int StagedService::SendFollowUp(const char* command, const char* body) {
    const SharedText host(szAdminServerHost);
    ScopedRequest followUp;
    HttpRequest& stFollowUpRqst = followUp.request;
    if (BuildTavrinRequestExt(&stFollowUpRqst, host.c_str(), command, body, 1) != TNP_BUILT) {
        return SERVICE_NOT_BUILT;
    }
    RDX_CHECK_FOR(kServeClientInStages, kUriSize > std::strlen(stFollowUpRqst.pszUri),
                  "sizeof( szUri ) > strlen( stFollowUpRqst.pszUri )");
    RDX_CHECK_FOR(kServeClientInStages, *stFollowUpRqst.pszUri == '/', "*p == '/'");
    OwnedText uri = RewriteUri(stFollowUpRqst.pszUri);
    if (!uri) return SERVICE_NOT_BUILT;
    std::free(stFollowUpRqst.pszUri);
    stFollowUpRqst.pszUri = uri.release();
    LogString("ServeClientInStages()", "rewritten URI", stFollowUpRqst.pszUri);

    OwnedSocket admin;
    if (!ConnectToAdmin(admin)) return SERVICE_NOT_CONNECTED;
    HttpResponse* pRsp = nullptr;
    RDX_CHECK_FOR(kServeClientInStages, pRsp == nullptr, "pRsp == __null");
    if (SendHttpRequest(admin.Get(), &stFollowUpRqst, &pRsp) != HTTPREQ_DONE) return SERVICE_NOT_ANSWERED;
    RDX_CHECK_FOR(kServeClientInStages, pRsp != nullptr, "pRsp != __null");
    const OwnedResponse response(pRsp);
    return response->usStatusCode == HTTP_STATUS_OK ? SERVICE_FOLLOWED_UP : SERVICE_FOLLOW_UP_REFUSED;
}

void* ServeClientInStages(ServiceCall* pArgs) {
    RDX_CHECK_FOR(kServeClientInStages, pArgs != nullptr, "pArgs != __null");
    RDX_CHECK_FOR(kServeClientInStages, pArgs->pFdSet != nullptr, "pArgs->pFdSet != __null");
    RDX_CHECK_FOR(kServeClientInStages, LoadShared(pArgs->iSvcStatus) == SERVICE_RUNNING,
                  "pArgs->iSvcStatus == 1");
    int status;
    ThreadID thread;
    {
        // Everything the service owns is gone before the thread ends, which unwinds nothing.
        Buffers buffers;
        StagedService service(*pArgs, buffers);
        status = service.Serve();
        thread = service.Thread();
    }
    RDX_CHECK_FOR(kServeClientInStages, thread != 0, "stSvc.hThreadId != 0L");
    RDX_CHECK_FOR(kServeClientInStages, PrimaryThreadID() != 0, "PrimaryThreadID() != 0L");
    FinishService(*pArgs, thread, status);
    return AsResult(status);
}

int FinalizeRequest(HttpRequest* pReq, HttpResponse* pRsp, int iRspStatus, char* pRspBuf, int iSvcStat,
                    ServiceCall* pSvc, ServiceCall* /*pArgs*/, unsigned char ucKeepAlive) {
    const OwnedRequest request(iSvcStat >= 0 ? pReq : nullptr);
    const OwnedResponse response(pRsp);
    const int client = pSvc->hSocket;
    if (iSvcStat >= 0 && iRspStatus < 0) {
        iSvcStat = SERVICE_NOT_BUILT;
    } else if (iSvcStat >= 0) {
        RDX_CHECK(pRspBuf != nullptr, "pRspBuf != __null");
        RDX_CHECK(pRsp != nullptr, "pRsp != __null");
        const int length = SerializeHttpResponse(pRsp, pRspBuf, SERVICE_BUFFER_SIZE);
        iSvcStat = length < 0 ? static_cast<int>(SERVICE_NOT_WRITTEN) : SendSocket(client, pRspBuf, length);
        if (length >= 0 && VerbosityAbove(VERBOSITY_WARN)) {
            // Also for a failure, which the number shows.
            LogThread("FinalizeRequest()", "sent bytes successfully", iSvcStat);
        }
    }
    RDX_CHECK(iSvcStat != 0, "iSvcStat != 0");
    const bool keep = iSvcStat > 0 && ucKeepAlive != 0;
    RDX_CHECK(!keep || pSvc->pFdSet != nullptr, "pSvc->pFdSet != __null");
    if (keep && WatchAgain(*pSvc)) {
        if (Traces()) LogThread("FinalizeRequest()", "added handle to active set again", client);
    } else {
        AwaitDelivery(client);
        CloseSocket(client);
        if (Traces()) LogThread("FinalizeRequest()", "client socket closed", client);
    }
    return iSvcStat;
}

int GenerateAcknowledge(char* pBuf, unsigned int uiBufsize, unsigned long ulTicket) {
    const char* const szWddx = kAcknowledge;
    RDX_CHECK(uiBufsize > std::strlen(szWddx) + 8, "uiBufsize > (strlen( szWddx ) + 8)");
    RDX_CHECK(pBuf != nullptr, "pBuf != __null");
    const auto length = static_cast<unsigned int>(snprintf(pBuf, uiBufsize, kAcknowledge, ulTicket));
    return static_cast<int>(std::min(length, uiBufsize - 1));
}
