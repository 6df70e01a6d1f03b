#include "rDxsd/pdata.h"

#include "common/check.h"
#include "common/files.h"
#include "common/memory.h"
#include "common/portability.h"
#include "common/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

using rdx::OwnedFile;
using rdx::OwnedText;

// What a part's header begins with; the field's name and a closing quote follow.
constexpr std::string_view kPartHeader = "Content-Disposition: form-data; name=\"";

constexpr std::string_view kDefaultArgs = "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM '"
                                          "http://www.openwddx.org/downloads/dtd/wddx_dtd_10.dtd"
                                          "'><wddxPacket version='1.0'><header/><data/></wddxPacket>";
static_assert(kDefaultArgs.size() == PDATA_DEFAULT_ARGS_LENGTH);

// The bytes of `text` from `position` on, which may lie behind its end.
std::string_view From(std::string_view text, std::size_t position) {
    return text.substr(std::min(position, text.size()));
}

int TakeFunctionName(HttpRequest* request, unsigned int closingQuote, TavrinRequest* call) {
    char* data = nullptr;
    const int length = ReadMultipartData(request, closingQuote, &data);
    const OwnedText owner(data);
    if (length < 0) return PDATA_NAME_UNREADABLE;
    if (length == 0) return PDATA_BAD_CALL;
    if (length > PDATA_FUNCTION_NAME_MAX) return PDATA_NAME_TOO_LONG;
    rdx::CopyBounded(call->szFunctionName, {data, static_cast<std::size_t>(length)});
    return PDATA_CALL_TAKEN;
}

int TakeFunctionArgs(HttpRequest* request, unsigned int closingQuote, TavrinRequest* call) {
    char* data = nullptr;
    if (ReadMultipartData(request, closingQuote, &data) < 0) return PDATA_ARGS_UNREADABLE;
    rdx::FreeAndNull(call->pszWddxArgs); // a field given twice: the last one counts
    call->pszWddxArgs = data;
    return PDATA_CALL_TAKEN;
}

int IgnoreField(HttpRequest*, unsigned int, TavrinRequest*) { return PDATA_CALL_TAKEN; }

struct Field {
    std::string_view name;
    int (*take)(HttpRequest* request, unsigned int closingQuote, TavrinRequest* call);
};

constexpr std::array kFields{
    Field{"FunctionName", TakeFunctionName}, Field{"FunctionArgs", TakeFunctionArgs},
    Field{"PostIt", IgnoreField}, // the button of an HTML form
};

int TakeField(std::string_view name, HttpRequest* request, std::size_t closingQuote, TavrinRequest* call) {
    const auto* const field = std::find_if(kFields.begin(), kFields.end(),
                                           [name](const Field& known) { return known.name == name; });
    if (field == kFields.end()) return PDATA_BAD_CALL;
    return field->take(request, static_cast<unsigned int>(closingQuote), call);
}

// The argument packet of a call that is not multipart.
std::string_view StandardArgs(const HttpRequest& request) {
    if (request.uiBodyLength == 0 || request.pEntityBody == nullptr) return kDefaultArgs;
    return {request.pEntityBody, request.uiBodyLength};
}

struct ResultText {
    OwnedText bytes; // PDATA_RESULT_SIZE of them, `length` used
    std::size_t length = 0;
};

// The file through which a result is printed; it is gone when this object is.
class ResultFile {
public:
    ResultFile() = default;
    ~ResultFile() {
        if (exists_) std::remove(name_);
    }
    ResultFile(const ResultFile&) = delete;
    ResultFile& operator=(const ResultFile&) = delete;

    int Print(WddxValue* value, const char* comment) {
        if (TempFileName(name_) != 0) return PDATA_NO_TEMP_NAME;
        OwnedFile stream = Create();
        if (!stream) return PDATA_NOT_CREATED;
        if (wddxPrintStream(stream.get(), value, comment) == 0) return PDATA_NOT_PRINTED;
        return std::fclose(stream.release()) == 0 ? PDATA_ASSIGNED : PDATA_NOT_WRITTEN;
    }

    int ReadBack(ResultText& text) const {
        const OwnedFile stream(std::fopen(name_, "re"));
        if (!stream) return PDATA_NOT_READ_BACK;
        text.bytes = rdx::AllocateBytes(PDATA_RESULT_SIZE);
        if (!text.bytes) return PDATA_NO_MEMORY_FOR_TEXT;
        text.length = std::fread(text.bytes.get(), 1, PDATA_RESULT_SIZE, stream.get());
        if (std::ferror(stream.get()) != 0) return PDATA_NOT_READ_BACK;
        const bool full = text.length == PDATA_RESULT_SIZE;
        return full && std::fgetc(stream.get()) != EOF ? PDATA_TEXT_TOO_LONG : PDATA_ASSIGNED;
    }

private:
    // The name was free when it was made; somebody may have taken it since, with a link to lead us astray.
    OwnedFile Create() {
        const int descriptor = open(name_, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (descriptor < 0) return nullptr;
        exists_ = true;
        OwnedFile stream(fdopen(descriptor, "w"));
        if (!stream) close(descriptor);
        return stream;
    }

    char name_[TEMP_FILE_NAME_SIZE];
    bool exists_ = false;
};

int PrintThroughFile(WddxValue* value, const char* comment, ResultText& text) {
    ResultFile file;
    const int code = file.Print(value, comment);
    return code == PDATA_ASSIGNED ? file.ReadBack(text) : code;
}

} // namespace

int GetMultipartCallData(HttpRequest* pRequest, TavrinRequest* call) {
    if (pRequest->ucMultipart == 0) return PDATA_NOT_MULTIPART;
    const char* const p = pRequest->pEntityBody;
    const std::size_t blen = pRequest->pszBoundary == nullptr ? 0 : std::strlen(pRequest->pszBoundary);
    const std::size_t slen = strnlen(pRequest->pszSeparator, sizeof pRequest->pszSeparator);
    RDX_CHECK(p != nullptr, "p != __null");
    RDX_CHECK(blen > 0, "blen > 0");
    RDX_CHECK(blen == pRequest->ucBoundaryLen, "blen == pRequest->ucBoundaryLen");
    RDX_CHECK(slen > 0 && slen <= 2, "(slen > 0) && (slen <= 2)");

    const std::string_view body(p, pRequest->uiBodyLength);
    const std::string_view boundary(pRequest->pszBoundary, blen);
    if (body.size() < blen + slen || !body.starts_with(boundary)) return PDATA_BAD_START;

    call->pszWddxArgs = nullptr;
    int code = PDATA_CALL_TAKEN;
    std::size_t at = 0; // the boundary in front of the part
    do {
        const std::size_t header = at + blen + slen;
        if (!rdx::StartsWithIgnoringCase(From(body, header), kPartHeader)) return PDATA_BAD_PART;
        const std::size_t nameBegin = header + kPartHeader.size();
        const std::size_t nameEnd = body.find('"', nameBegin);
        if (nameEnd == std::string_view::npos) {
            code = PDATA_BAD_PART;
            break;
        }
        const std::string_view name = body.substr(nameBegin, nameEnd - nameBegin);
        RDX_CHECK(!name.empty(), "siz > 0");
        if (name.size() > PDATA_FIELD_NAME_MAX) return PDATA_BAD_PART;
        code = TakeField(name, pRequest, nameEnd, call);
        if (code != PDATA_CALL_TAKEN) break;
        if (body.size() - nameEnd < blen) return PDATA_BOUNDARY_MISSING;
        at = body.find(boundary, nameEnd);
        if (at == std::string_view::npos) code = PDATA_BOUNDARY_MISSING;
    } while (code == PDATA_CALL_TAKEN && at + blen < body.size() && !From(body, at + blen).starts_with("--"));

    if (code != PDATA_CALL_TAKEN) FreeTnRequest(call);
    return code;
}

int GetStandardCallData(HttpRequest* req, TavrinRequest* call) {
    char name[PDATA_FUNCTION_NAME_MAX + 1];
    if (GetQueryStringValue(req, "FunctionName", name, sizeof name) != 0) return PDATA_BAD_CALL;
    rdx::CopyBounded(call->szFunctionName, name);
    call->pszWddxArgs = rdx::CopyText(StandardArgs(*req)).release();
    if (call->pszWddxArgs == nullptr) return PDATA_NO_MEMORY_FOR_ARGS;
    return PDATA_CALL_TAKEN;
}

int AssignWddxResult(TavrinResponse* pTnResponse, WddxValue* value, const char* comment) {
    ResultText text;
    const int code = PrintThroughFile(value, comment != nullptr ? comment : "", text);
    if (code != PDATA_ASSIGNED) return code;

    const std::size_t i = text.length;
    RDX_CHECK(i < PDATA_RESULT_SIZE, "i < 131072");
    text.bytes.get()[i] = '\0';
    auto* const shrunk = static_cast<char*>(std::realloc(text.bytes.get(), i + 1));
    if (shrunk == nullptr) return PDATA_TEXT_NOT_SHRUNK;
    static_cast<void>(text.bytes.release()); // realloc took it

    FreeTnResponse(pTnResponse);
    pTnResponse->pszWddxResult = shrunk;
    RDX_CHECK(pTnResponse->pszWddxResult[i] == '\0', "pTnResponse->pszWddxResult[ i ] == '\\0'");
    pTnResponse->ucFlag = 0;
    pTnResponse->iStatus = PDATA_STATUS_RESULT;
    return PDATA_ASSIGNED;
}

int AssignResult(TavrinResponse* rsp, WddxValue* value) { return AssignWddxResult(rsp, value, nullptr); }

int Wddx2Html(const char* szWddx, char* szBuf, unsigned int uiBufsiz) {
    RDX_CHECK(szWddx != nullptr, "szWddx != __null");
    RDX_CHECK(szBuf != nullptr, "szBuf != __null");
    RDX_CHECK(uiBufsiz > 0, "uiBufsiz > 0");
    if (*szWddx == '\0') return PDATA_HTML_WRITTEN;

    rdx::Appender html({szBuf, uiBufsiz});
    for (const char& c : std::string_view(szWddx)) {
        const bool opens = c == '<';
        const bool closes = c == '>';
        html.Add(opens ? "&lt;" : closes ? "&gt;" : std::string_view(&c, 1));
        if (!html.Fits())
            return opens ? PDATA_FULL_AT_LESS : closes ? PDATA_FULL_AT_GREATER : PDATA_FULL_AT_OTHER;
    }
    return PDATA_HTML_WRITTEN;
}

void FreeTnRequest(TavrinRequest* call) {
    if (call != nullptr) rdx::FreeAndNull(call->pszWddxArgs);
}

void FreeTnResponse(TavrinResponse* rsp) {
    if (rsp != nullptr) rdx::FreeAndNull(rsp->pszWddxResult);
}

int CopyTnResponse(TavrinResponse* dst, const TavrinResponse* src) {
    if (dst == nullptr || src == nullptr) return PDATA_NOT_COPIED;
    if (dst == src) return PDATA_COPIED;
    dst->iCallNumber = src->iCallNumber;
    dst->ucFlag = src->ucFlag;
    dst->iStatus = src->iStatus;
    FreeTnResponse(dst);
    if (src->pszWddxResult == nullptr) return PDATA_COPIED;
    dst->pszWddxResult = rdx::CopyText(src->pszWddxResult).release();
    return dst->pszWddxResult != nullptr ? PDATA_COPIED : PDATA_NOT_COPIED;
}
