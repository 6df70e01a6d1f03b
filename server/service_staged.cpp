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
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/text.h"
#include "server/serving.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

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

// Results of a service; what is sent counts as its number of bytes.
enum ServiceStatus : int {
    kNothingRead = -1,
    kNotBuilt = -2,
    kNotSerialised = -3,
    kNotConnected = -3,
    kNotFollowedUp = -4,
    kFollowUpRefused = -5
};

// An assertion of ServeClientInStages, whose steps are functions of their own: the report names that
// function, not the step, whatever the compiler's spelling.
void Check(bool holds, const char* text, unsigned int line = __builtin_LINE()) {
    if (!holds) __assert_fail(text, __FILE__, line, "void* ServeClientInStages(ServiceCall*)");
}

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

// The page for a request that could not be read. It differs from the direct body's: a bad request line or
// header is an internal error here (kept).
Page PageForUnread(int result) {
    switch (result) {
    case 0:
        return {400, kBadRequestPage};
    case -401:
        return {401, kUnauthorizedPage};
    case -99:
        return {400, kInvalidRequestPage};
    case -405:
        return {405, kNotAllowedPage};
    default:
        return {500, kInternalErrorPage};
    }
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
        status_ = result == 0 ? kNothingRead : 0;
        if (result != 0) printf("\nServeClientInStages 2 ConsumeHttpRequest=%d", result);
        if (result != 200) return Respond(PageForUnread(result));
        handler_ = GetServerHandler(request_->pszUri);
        if (handler_ == nullptr) return Respond({404, kNotFoundPage});
        char ticket[kTicketSize];
        if (GetQueryStringValue(request_.get(), "SvcTicket", ticket, sizeof ticket) != 0)
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
        if (handled == 0) return Respond({200, buffers_.output});
        // Kept: also a handler that asks for authentication is an internal error here.
        return Respond(handled > 0 ? Page{400, kBadRequestPage} : Page{500, kInternalErrorPage});
    }

    int ServeTicket(unsigned long ticket) {
        const int length = GenerateAcknowledge(buffers_.acknowledge, sizeof buffers_.acknowledge, ticket);
        HttpResponse* response = nullptr;
        const int built = CreateHttpResponse(&response, 200, kContentType, buffers_.acknowledge,
                                             static_cast<unsigned int>(length));
        if (built < 0) return Respond({503, kOutOfResourcesPage});
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
        Check(request_ != nullptr, "pReq != __null");
        return status;
    }

    int SendFollowUp(const char* command, const char* body);

    int Respond(const Page& page) {
        Check(page.body != nullptr, "szBody != __null");
        HttpResponse* response = nullptr;
        const int built = CreateHttpResponse(&response, page.status, kContentType, page.body,
                                             static_cast<unsigned int>(std::strlen(page.body)));
        return FinalizeRequest(request_.release(), response, built, buffers_.serialised, status_, &copy_,
                               &slot_, slot_.ucKeepAlive);
    }

    ServiceCall& slot_;
    ServiceCall copy_; // the slot as it was at the start: what the connection is kept or closed by
    Buffers& buffers_;
    OwnedRequest request_;
    ServerHandler handler_ = nullptr;
    int status_ = kNothingRead;
};

// A connection to the administration server, closed at the end of a scope.
class AdminConnection {
public:
    AdminConnection() = default;
    ~AdminConnection() {
        if (socket_ >= 0) CloseSocket(socket_);
    }
    AdminConnection(const AdminConnection&) = delete;
    AdminConnection& operator=(const AdminConnection&) = delete;

    // Follow-ups share the local port. One that starts while another is under way fails, and its result is
    // lost (kept).
    bool Open() {
        const SharedText local(szConfigSvcAddr);
        const SharedText admin(szAdminServerHost);
        return CreateClntSocketExt(local.c_str(), LocalPort(), admin.c_str(),
                                   static_cast<unsigned short>(uiAdminServerPort), &socket_) == 0;
    }

    int Get() const { return socket_; }

private:
    // The port behind the service's; a service that is named instead of numbered gives port 1 (kept).
    static unsigned short LocalPort() {
        const SharedText service(szConfigSvcPort);
        return static_cast<unsigned short>(static_cast<unsigned>(ParseDecimal(service.View())) + 1);
    }

    int socket_ = -1;
};

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
    if (BuildTavrinRequestExt(&stFollowUpRqst, host.c_str(), command, body, 1) != 0) return kNotBuilt;
    Check(kUriSize > std::strlen(stFollowUpRqst.pszUri), "sizeof( szUri ) > strlen( stFollowUpRqst.pszUri )");
    Check(*stFollowUpRqst.pszUri == '/', "*p == '/'");
    OwnedText uri = RewriteUri(stFollowUpRqst.pszUri);
    if (!uri) return kNotBuilt;
    std::free(stFollowUpRqst.pszUri);
    stFollowUpRqst.pszUri = uri.release();
    LogString("ServeClientInStages()", "rewritten URI", stFollowUpRqst.pszUri);

    AdminConnection admin;
    if (!admin.Open()) return kNotConnected;
    HttpResponse* pRsp = nullptr;
    Check(pRsp == nullptr, "pRsp == __null");
    if (SendHttpRequest(admin.Get(), &stFollowUpRqst, &pRsp) != 0) return kNotFollowedUp;
    Check(pRsp != nullptr, "pRsp != __null");
    const OwnedResponse response(pRsp);
    return response->usStatusCode == 200 ? 0 : kFollowUpRefused;
}

void* ServeClientInStages(ServiceCall* pArgs) {
    Check(pArgs != nullptr, "pArgs != __null");
    Check(pArgs->pFdSet != nullptr, "pArgs->pFdSet != __null");
    Check(LoadShared(pArgs->iSvcStatus) == SERVICE_RUNNING, "pArgs->iSvcStatus == 1");
    int status;
    ThreadID thread;
    {
        // Everything the service owns is gone before the thread ends, which unwinds nothing.
        Buffers buffers;
        StagedService service(*pArgs, buffers);
        status = service.Serve();
        thread = service.Thread();
    }
    Check(thread != 0, "stSvc.hThreadId != 0L");
    Check(PrimaryThreadID() != 0, "PrimaryThreadID() != 0L");
    FinishService(*pArgs, thread, status);
    return AsResult(status);
}

int FinalizeRequest(HttpRequest* pReq, HttpResponse* pRsp, int iRspStatus, char* pRspBuf, int iSvcStat,
                    ServiceCall* pSvc, ServiceCall* /*pArgs*/, unsigned char ucKeepAlive) {
    OwnedRequest request(pReq);
    OwnedResponse response(pRsp);
    const int client = pSvc->hSocket;
    if (iSvcStat >= 0 && iRspStatus < 0) {
        iSvcStat = kNotBuilt;
    } else if (iSvcStat >= 0) {
        RDX_CHECK(pRspBuf != nullptr, "pRspBuf != __null");
        RDX_CHECK(pRsp != nullptr, "pRsp != __null");
        const int length = SerializeHttpResponse(pRsp, pRspBuf, SERVICE_BUFFER_SIZE);
        iSvcStat = length < 0 ? kNotSerialised : SendSocket(client, pRspBuf, length);
        if (length >= 0 && VerbosityAbove(VERBOSITY_WARN)) {
            LogThread("FinalizeRequest()", "sent bytes successfully", iSvcStat); // kept: a failure as well
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
