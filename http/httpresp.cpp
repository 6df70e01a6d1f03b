#include "http/httpresp.h"

#include "common/check.h"
#include "common/config.h"
#include "common/memory.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/text.h"
#include "http/header_list.h"
#include "http/message_writer.h"
#include "http/socket_line.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <iterator>

namespace {

// Results of creating and writing.
constexpr int kNoMemory = -1;
constexpr int kNoResponse = -1;
constexpr int kNoBuffer = -2;
constexpr int kNoContentType = -3;
constexpr int kBadStatus = -7;
constexpr int kBadVersion = -8;

// Results of reading.
constexpr int kNotHttp = -10;
constexpr int kNothingBehindVersion = -11;
constexpr int kNoReason = -13;
constexpr int kUnknownVersion = -90;
constexpr int kUnusable = -98; // headers or body
constexpr int kUnreadable = -400;
constexpr int kNoMemoryForBody = -500;

// Clients that are in the field compare it; it never was the time of day.
constexpr const char* kFixedDate = "Tue, 30 April 2002 12:08:00 GMT";

struct Reason {
    int status;
    const char* phrase;
};
constexpr Reason kReasons[] = {{200, "OK"},
                               {400, "Bad Request"},
                               {401, "Unauthorized"},
                               {404, "Not found"},
                               {500, "Internal Server Error"}};

const char* ReasonOf(int status) {
    const auto* const reason = std::ranges::find(kReasons, status, &Reason::status);
    return reason != std::end(kReasons) ? reason->phrase : "Not implemented";
}

// The versions, as they are read behind "HTTP/" and written there with a blank.
struct Version {
    std::string_view name;
    const char* written;
    unsigned char number;
};
constexpr Version kVersions[] = {{"1.0", "1.0 ", 10}, {"1.1", "1.1 ", 11}};

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

// A response under construction: whoever gives up on it frees contents and record.
struct ResponseDelete {
    void operator()(HttpResponse* response) const {
        ReleaseContents(*response);
        std::free(response);
    }
};
using OwnedResponse = std::unique_ptr<HttpResponse, ResponseDelete>;

OwnedResponse MakeResponse() { return OwnedResponse(rdx::AllocateZeroed<HttpResponse>().release()); }

bool Add(HttpHeader* headers, unsigned char& count, const char* name, const char* value) {
    return AllocHeader(&headers[count++], name, value) == 0;
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
    RDX_CHECK(l1 + l2 + 1 <= sizeof value, "(l1 + l2 + 1) <= (63 + 1)");
    rdx::Appender(value).Add(kScheme).Add(realm.View()).Add("\"");
    return Add(response.aResponseHeaders, response.ucNumOfResponseHeaders, "WWW-Authenticate", value);
}

bool AddResponseHeaders(HttpResponse& response) {
    return Add(response.aResponseHeaders, response.ucNumOfResponseHeaders, "Server", "Halvor Dx httpd/0.1") &&
           (response.usStatusCode != 401 || AddChallenge(response));
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
    if (rdx::LoadShared(ucEntityTerminator) == 0) return;
    const rdx::SharedText terminator(szEntityTerminator);
    writer.Bytes(terminator.c_str(), static_cast<unsigned int>(terminator.View().size()));
}

// 0, or -400 for a length of 0.
int ApplyHeader(HttpResponse& response, const HttpHeader& header) {
    if (!rdx::EqualsIgnoringCase(header.name, "Content-length")) return 0;
    response.uiBodyLength = static_cast<unsigned int>(rdx::ParseDecimal(header.value));
    return response.uiBodyLength != 0 ? 0 : kUnreadable;
}

int ReadHeaderLines(int sock, rdx::SocketLine& line, HttpResponse& response) {
    const auto lists = ListsOf(response);
    for (bool any = false;; any = true) {
        const int length = line.Read(sock);
        if (length < 0) return kUnreadable;
        if (length == 0) return any ? 0 : kUnusable;
        const rdx::StoredLine stored = rdx::StoreHeaderLine(line.Text(), lists);
        if (!stored.known) return kUnusable;
        const int result = stored.header != nullptr ? ApplyHeader(response, *stored.header) : 0;
        if (result != 0) return result;
    }
}

int ReadBody(int sock, HttpResponse& response) {
    const unsigned int length = response.uiBodyLength;
    if (length == 0) return 0;
    if (length > INT_MAX) return kNoMemoryForBody;
    response.pEntityBody = rdx::AllocateBytes(length).release();
    if (response.pEntityBody == nullptr) return kNoMemoryForBody;
    const int wanted = static_cast<int>(length);
    return RecvSocket(sock, response.pEntityBody, wanted, 0) == wanted ? 0 : kUnusable;
}

unsigned int LowBits(const void* address) {
    return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(address));
}

} // namespace

int CreateHttpResponse(HttpResponse** ppResponse, unsigned short usStatus, const char* pszContentType,
                       const char* pBody, unsigned int uiBodyLength) {
    if (ppResponse == nullptr) return kNoResponse;
    *ppResponse = nullptr;
    if (!IsStatus(usStatus)) return kBadStatus;
    if (pszContentType == nullptr || *pszContentType == '\0') return kNoContentType;
    OwnedResponse response = MakeResponse();
    if (!response) return kNoMemory;
    response->ucHttpVersion = 11;
    response->usStatusCode = usStatus;
    response->pszReason = rdx::CopyText(ReasonOf(usStatus)).release();
    if (response->pszReason == nullptr || !AddGeneralHeaders(*response) || !AddResponseHeaders(*response) ||
        !AddEntityHeaders(*response, pszContentType, uiBodyLength) ||
        !CopyBody(*response, pBody, uiBodyLength)) {
        return kNoMemory;
    }
    *ppResponse = response.release();
    return 0;
}

int SerializeHttpResponse(HttpResponse* pResponse, char* pBuf, unsigned int uiBufSize) {
    if (pResponse == nullptr) return kNoResponse;
    if (pBuf == nullptr || uiBufSize == 0) return kNoBuffer;
    const auto* const version = std::ranges::find(kVersions, pResponse->ucHttpVersion, &Version::number);
    rdx::MessageWriter writer(pBuf, uiBufSize);
    writer.Text("HTTP/");
    if (version == std::end(kVersions)) return writer.Result() < 0 ? writer.Result() : kBadVersion;
    writer.Text(version->written);
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
    OwnedResponse response = MakeResponse();
    if (!response) return kNoMemory;
    if (const int result = ReadHttpRespHeaders(sock, response.get()); result != 0) return result;
    if (const int result = ReadBody(sock, *response); result != 0) return result;
    *ppResponse = response.release();
    return 0;
}

int ReadHttpRespHeaders(int sock, HttpResponse* pResponse) {
    rdx::SocketLine line;
    if (line.Read(sock) <= 0) return kUnreadable;
    rdx::CopyBounded(pResponse->pszSeparator, line.LineEnd());
    const int result = ParseHttpStatusLine(line.begin(), line.end(), pResponse);
    return result != 0 ? result : ReadHeaderLines(sock, line, *pResponse);
}

int ParseHttpStatusLine(const char* p, const char* q, HttpResponse* pResponse) {
    constexpr std::string_view kProtocol = "HTTP/";
    constexpr std::size_t kLongestVersion = 4; // and its blank
    rdx::Reader line(rdx::Line(p, q));
    RDX_CHECK(kProtocol.size() < line.Rest().size(), "len < (q - p)");
    if (!line.Take(kProtocol)) return kNotHttp;

    const auto name = line.TakeUntil(" ");
    if (!name || name->size() > kLongestVersion) return kNotHttp;
    const auto* const version = std::ranges::find(kVersions, *name, &Version::name);
    if (version == std::end(kVersions)) return kUnknownVersion;
    pResponse->ucHttpVersion = version->number;

    line.TakeBytes(1);
    if (line.AtEnd()) return kNothingBehindVersion;
    const auto digits = line.TakeUntil(" ");
    if (!digits) return kNoReason;
    const int status = rdx::ParseDecimal(*digits);
    if (!IsStatus(status)) return kBadStatus;
    pResponse->usStatusCode = static_cast<unsigned short>(status);

    line.TakeBytes(1);
    if (line.AtEnd()) return kNoReason;
    std::free(pResponse->pszReason);
    pResponse->pszReason = rdx::CopyText(line.Rest()).release();
    return pResponse->pszReason != nullptr ? 0 : kNoMemory;
}

int IsResponseHeader(const char* p, const char* q, char** ppcolon) {
    const int i_max = g_cnRespHeaders;
    RDX_CHECK(i_max > 0, "i_max > 0");
    return rdx::ClassifyHeader(p, q, ppcolon, {apszResponseHeaders, static_cast<std::size_t>(i_max)});
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
