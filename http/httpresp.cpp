#include "http/httpresp.h"

#include "common/check.h"
#include "common/config.h"
#include "common/entity_terminator.h"
#include "common/memory.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/text.h"
#include "http/header_lines.h"
#include "http/header_list.h"
#include "http/message_writer.h"
#include "http/socket_line.h"
#include "http/versions.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <iterator>

namespace {

// Clients that are in the field compare it; it never was the time of day.
constexpr const char* kFixedDate = "Tue, 30 April 2002 12:08:00 GMT";

struct Reason {
    int status;
    const char* phrase;
};
constexpr Reason kReasons[] = {{HTTP_STATUS_OK, "OK"},
                               {HTTP_STATUS_BAD_REQUEST, "Bad Request"},
                               {HTTP_STATUS_UNAUTHORIZED, "Unauthorized"},
                               {HTTP_STATUS_NOT_FOUND, "Not found"},
                               {HTTP_STATUS_INTERNAL_ERROR, "Internal Server Error"}};

const char* ReasonOf(int status) {
    const auto* const reason = std::ranges::find(kReasons, status, &Reason::status);
    return reason != std::end(kReasons) ? reason->phrase : "Not implemented";
}

bool IsStatus(int status) { return status >= HTTP_MIN_STATUS && status <= HTTP_MAX_STATUS; }

std::array<rdx::HeaderList, 3> ListsOf(HttpResponse& response) {
    return {rdx::MakeHeaderList(IsGeneralHeader, response.aGeneralHeaders, response.ucNumOfGeneralHeaders),
            rdx::MakeHeaderList(IsResponseHeader, response.aResponseHeaders, response.ucNumOfResponseHeaders),
            rdx::MakeHeaderList(IsEntityHeader, response.aEntityHeaders, response.ucNumOfEntityHeaders)};
}

// Frees what a response owns, also one whose counts a remote server has driven past its lists.
void ReleaseContents(HttpResponse& response) {
    rdx::FreeAndNull(response.pszReason);
    rdx::FreeAndNull(response.pszReserved);
    for (const rdx::HeaderList& list : ListsOf(response)) rdx::ReleaseHeaders(list);
    rdx::FreeAndNull(response.pEntityBody);
    response.uiBodyLength = 0;
}

// Whoever gives up on a response under construction frees contents and record, without a look at the counts.
struct DeleteUnfinished {
    void operator()(HttpResponse* response) const {
        ReleaseContents(*response);
        std::free(response);
    }
};
using UnfinishedResponse = std::unique_ptr<HttpResponse, DeleteUnfinished>;

UnfinishedResponse MakeResponse() {
    return UnfinishedResponse(rdx::AllocateZeroed<HttpResponse>().release());
}

bool Add(HttpHeader* headers, unsigned char& count, const char* name, const char* value) {
    return AllocHeader(&headers[count++], name, value) == HTTP_ALLOC_DONE;
}

// Clients rely on which list holds which header, also where the tables sort them otherwise.
bool AddGeneralHeaders(HttpResponse& response) {
    unsigned char& count = response.ucNumOfGeneralHeaders;
    return Add(response.aGeneralHeaders, count, "Date", kFixedDate) &&
           Add(response.aGeneralHeaders, count, "Last-modified", kFixedDate) &&
           Add(response.aGeneralHeaders, count, "Accept-Ranges", "bytes");
}

bool AddChallenge(HttpResponse& response) {
    constexpr std::string_view kScheme = "BASIC realm=\"";
    const rdx::SharedText realm(szConfigAuthRealm);
    const std::size_t l1 = kScheme.size();
    const std::size_t l2 = realm.View().size();
    char value[64];
    RDX_CHECK_FOR(
        "int CreateHttpResponse(HttpResponse**, short unsigned int, const char*, const char*, unsigned int)",
        l1 + l2 + 1 <= sizeof value, "(l1 + l2 + 1) <= (63 + 1)");
    rdx::Appender(value).Add(kScheme).Add(realm.View()).Add("\"");
    return Add(response.aResponseHeaders, response.ucNumOfResponseHeaders, "WWW-Authenticate", value);
}

bool AddResponseHeaders(HttpResponse& response) {
    return Add(response.aResponseHeaders, response.ucNumOfResponseHeaders, "Server", "Halvor Dx httpd/0.1") &&
           (response.usStatusCode != HTTP_STATUS_UNAUTHORIZED || AddChallenge(response));
}

bool AddEntityHeaders(HttpResponse& response, const char* contentType, unsigned int length) {
    unsigned char& count = response.ucNumOfEntityHeaders;
    if (!Add(response.aEntityHeaders, count, "Content-type", contentType)) return false;
    if (length == 0) return true;
    char digits[16];
    rdx::Appender(digits).AddDecimal(static_cast<int>(length));
    return Add(response.aEntityHeaders, count, "Content-length", digits);
}

// A length without a body leaves the response without one.
bool CopyBody(HttpResponse& response, const char* body, unsigned int length) {
    if (body == nullptr || length == 0) return true;
    response.pEntityBody = rdx::AllocateBytes(length).release();
    if (response.pEntityBody == nullptr) return false;
    std::copy_n(body, length, response.pEntityBody);
    response.uiBodyLength = length;
    return true;
}

void WriteHeaders(rdx::MessageWriter& writer, HttpResponse& response) {
    for (const rdx::HeaderList& list : ListsOf(response)) {
        for (const HttpHeader& header : rdx::Held(list)) {
            writer.Text(header.name).Text(": ").Text(header.value).Text("\r\n");
        }
    }
}

// Not counted in Content-length, and sent without a body too: the peer waits for it.
void WriteTerminator(rdx::MessageWriter& writer) {
    const rdx::EntityTerminator terminator = rdx::LoadEntityTerminator();
    if (!terminator.used) return;
    writer.Bytes(terminator.text.c_str(), static_cast<unsigned int>(terminator.View().size()));
}

// 0, or a bad request for a length of 0.
int ApplyHeader(HttpResponse& response, const HttpHeader& header) {
    if (!rdx::EqualsIgnoringCase(header.name, "Content-length")) return 0;
    response.uiBodyLength = static_cast<unsigned int>(rdx::ParseDecimal(header.value));
    return response.uiBodyLength != 0 ? 0 : -HTTP_STATUS_BAD_REQUEST;
}

constexpr rdx::HeaderFailures kHeaderFailures = {.notReceived = -HTTP_STATUS_BAD_REQUEST,
                                                 .badLine = -HTTP_STATUS_BAD_REQUEST,
                                                 .none = HTTPRESP_UNUSABLE,
                                                 .unknown = HTTPRESP_UNUSABLE};

int ReadBody(int sock, HttpResponse& response) {
    const unsigned int length = response.uiBodyLength;
    if (length == 0) return HTTPRESP_DONE;
    if (length > INT_MAX) return -HTTP_STATUS_INTERNAL_ERROR; // below 0
    response.pEntityBody = rdx::AllocateBytes(length).release();
    if (response.pEntityBody == nullptr) return -HTTP_STATUS_INTERNAL_ERROR;
    const int wanted = static_cast<int>(length);
    return RecvSocket(sock, response.pEntityBody, wanted, 0) == wanted ? HTTPRESP_DONE : HTTPRESP_UNUSABLE;
}

unsigned int LowBits(const void* address) {
    return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(address));
}

} // namespace

int CreateHttpResponse(HttpResponse** ppResponse, unsigned short usStatus, const char* pszContentType,
                       const char* pBody, unsigned int uiBodyLength) {
    if (ppResponse == nullptr) return HTTPRESP_NO_RECORD;
    *ppResponse = nullptr;
    if (!IsStatus(usStatus)) return HTTPRESP_BAD_STATUS;
    if (pszContentType == nullptr || *pszContentType == '\0') return HTTPRESP_NO_CONTENT_TYPE;
    UnfinishedResponse response = MakeResponse();
    if (!response) return HTTPRESP_NO_MEMORY;
    response->ucHttpVersion = 11;
    response->usStatusCode = usStatus;
    response->pszReason = rdx::CopyText(ReasonOf(usStatus)).release();
    if (response->pszReason == nullptr || !AddGeneralHeaders(*response) || !AddResponseHeaders(*response) ||
        !AddEntityHeaders(*response, pszContentType, uiBodyLength) ||
        !CopyBody(*response, pBody, uiBodyLength)) {
        return HTTPRESP_NO_MEMORY;
    }
    *ppResponse = response.release();
    return HTTPRESP_DONE;
}

int SerializeHttpResponse(HttpResponse* pResponse, char* pBuf, unsigned int uiBufSize) {
    if (pResponse == nullptr) return HTTPRESP_NO_RECORD;
    if (pBuf == nullptr || uiBufSize == 0) return HTTPRESP_NO_BUFFER;
    rdx::MessageWriter writer(pBuf, uiBufSize);
    writer.Text("HTTP/");
    if (const rdx::HttpVersion* const version = rdx::FindHttpVersion(pResponse->ucHttpVersion)) {
        writer.Text(version->name).Text(" ");
    } else {
        writer.Fail(HTTPRESP_BAD_VERSION);
    }
    char status[16];
    rdx::Appender(status).AddDecimal(pResponse->usStatusCode);
    writer.Text(status).Text(" ").Text(pResponse->pszReason).Text("\r\n");
    WriteHeaders(writer, *pResponse);
    writer.Text("\r\n").Bytes(pResponse->pEntityBody, pResponse->uiBodyLength);
    WriteTerminator(writer);
    return writer.Result();
}

int ConsumeHttpResponse(int sock, HttpResponse** ppResponse) {
    RDX_CHECK(ppResponse != nullptr, "ppResponse != __null");
    *ppResponse = nullptr;
    UnfinishedResponse response = MakeResponse();
    if (!response) return HTTPRESP_NO_MEMORY;
    if (const int result = ReadHttpRespHeaders(sock, response.get()); result != 0) return result;
    if (const int result = ReadBody(sock, *response); result != 0) return result;
    *ppResponse = response.release();
    return HTTPRESP_DONE;
}

int ReadHttpRespHeaders(int sock, HttpResponse* pResponse) {
    rdx::SocketLine line;
    if (line.Read(sock) <= 0) return -HTTP_STATUS_BAD_REQUEST;
    rdx::CopyBounded(pResponse->pszSeparator, line.LineEnd());
    const int result = ParseHttpStatusLine(line.begin(), line.end(), pResponse);
    if (result != HTTPRESP_DONE) return result;
    return rdx::ReadHeaderLines(sock, line, ListsOf(*pResponse), kHeaderFailures,
                                [=](const HttpHeader& header) { return ApplyHeader(*pResponse, header); });
}

int ParseHttpStatusLine(const char* p, const char* q, HttpResponse* pResponse) {
    constexpr std::string_view kProtocol = "HTTP/";
    constexpr std::size_t kLongestVersion = 4; // and its blank
    rdx::Reader line(rdx::Line(p, q));
    RDX_CHECK(kProtocol.size() < line.Rest().size(), "len < (q - p)");
    if (!line.Take(kProtocol)) return HTTPRESP_NOT_HTTP;

    const auto name = line.TakeUntil(" ");
    if (!name || name->size() > kLongestVersion) return HTTPRESP_NOT_HTTP;
    const rdx::HttpVersion* const version = rdx::FindHttpVersion(*name);
    if (version == nullptr) return HTTPRESP_OTHER_VERSION;
    pResponse->ucHttpVersion = version->number;

    line.TakeBytes(1);
    if (line.AtEnd()) return HTTPRESP_NO_STATUS;
    const auto digits = line.TakeUntil(" ");
    if (!digits) return HTTPRESP_NO_REASON;
    const int status = rdx::ParseDecimal(*digits);
    if (!IsStatus(status)) return HTTPRESP_BAD_STATUS;
    pResponse->usStatusCode = static_cast<unsigned short>(status);

    line.TakeBytes(1);
    if (line.AtEnd()) return HTTPRESP_NO_REASON;
    std::free(pResponse->pszReason);
    pResponse->pszReason = rdx::CopyText(line.Rest()).release();
    return pResponse->pszReason != nullptr ? HTTPRESP_DONE : HTTPRESP_NO_MEMORY;
}

int IsResponseHeader(const char* p, const char* q, char** ppcolon) {
    const int i_max = g_cnRespHeaders;
    RDX_CHECK(i_max > 0, "i_max > 0");
    return rdx::ClassifyHeader(__PRETTY_FUNCTION__, p, q, ppcolon,
                               {apszResponseHeaders, static_cast<std::size_t>(i_max)});
}

void FreeHttpResponse(HttpResponse* pResponse) {
    if (pResponse == nullptr) return;
    rdx::FreeAndNull(pResponse->pszReason);
    rdx::FreeAndNull(pResponse->pszReserved);
    RDX_CHECK(pResponse->ucNumOfGeneralHeaders <= HTTP_MAX_GENERAL_HEADERS,
              "pResponse->ucNumOfGeneralHeaders <= 16");
    RDX_CHECK(pResponse->ucNumOfResponseHeaders <= HTTP_MAX_RESPONSE_HEADERS,
              "pResponse->ucNumOfResponseHeaders <= 8");
    RDX_CHECK(pResponse->ucNumOfEntityHeaders <= HTTP_MAX_ENTITY_HEADERS,
              "pResponse->ucNumOfEntityHeaders <= 16");
    ReleaseContents(*pResponse);
}

void DumpHttpResp(char* pszTitle, HttpResponse* pResponse) {
    printf("\n");
    printf("DumpHttpResp: %s ---\n", pszTitle);
    printf("DumpHttpResp: %X\n", LowBits(pResponse));
    printf("ucHttpVersion = %d\n", pResponse->ucHttpVersion);
    printf("usStatusCode = %d\n", pResponse->usStatusCode);
    printf("pszSeparator = %s\n", pResponse->pszSeparator);
    printf("ucNumOfGeneralHeaders = %d\n", pResponse->ucNumOfGeneralHeaders);
    printf("ucNumOfResponseHeaders = %d\n", pResponse->ucNumOfResponseHeaders);
    printf("ucNumOfEntityHeaders = %d\n", pResponse->ucNumOfEntityHeaders);
    printf("uiBodyLength = %d  (%X)\n", static_cast<int>(pResponse->uiBodyLength),
           LowBits(pResponse->pEntityBody));
    printf("DumpHttpResp: ---\n");
}
