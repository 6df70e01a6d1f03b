// Searching and filling a request's header lists, and the credentials that one of the headers carries.
#include "common/check.h"
#include "common/config.h"
#include "common/memory.h"
#include "common/shared.h"
#include "common/text.h"
#include "http/httpreq.h"
#include "http/request_lists.h"

#include <algorithm>

namespace {

bool Holds(rdx::NameTable names, std::string_view name) {
    return std::ranges::any_of(names,
                               [=](const char* entry) { return rdx::EqualsIgnoringCase(entry, name); });
}

// AddHeader2Request's result; the list is unchanged when memory is short.
int Append(const rdx::HeaderList& list, const HttpHeader& header) {
    rdx::OwnedText name = rdx::CopyText(header.name);
    rdx::OwnedText value = rdx::CopyText(header.value);
    if (!name || !value) return HTTPREQ_NOT_ADDED;
    list.headers[(*list.count)++] = {name.release(), value.release()};
    return HTTPREQ_DONE;
}

} // namespace

char* GetReqHeaderByName(HttpRequest* pReq, const char* szName) {
    RDX_CHECK(szName != nullptr, "szName != __null");
    RDX_CHECK(*szName != '\0', "strlen( szName ) != 0");
    if (pReq == nullptr) return nullptr;
    for (const rdx::HeaderList& list : rdx::ListsOf(*pReq)) {
        if (const HttpHeader* const header = rdx::FindHeader(rdx::Held(list), szName)) return header->value;
    }
    return nullptr;
}

int IsHeaderAvailable(HttpRequest* pReq, const char* pszHeader) {
    RDX_CHECK(pszHeader != nullptr, "pszHeader != __null");
    if (pReq == nullptr) return 0;
    RDX_CHECK(pReq->ucNumOfGeneralHeaders < HTTP_MAX_GENERAL_HEADERS, "nHeaders < 16");
    RDX_CHECK(pReq->ucNumOfRequestHeaders < HTTP_MAX_REQUEST_HEADERS, "nHeaders < 14");
    RDX_CHECK(pReq->ucNumOfEntityHeaders < HTTP_MAX_ENTITY_HEADERS, "nHeaders < 16");
    int number = 0;
    for (const rdx::HeaderList& list : rdx::ListsOf(*pReq)) {
        ++number;
        if (rdx::FindHeader(rdx::Held(list), pszHeader) != nullptr) return number;
    }
    return 0;
}

int AddHeader2Request(HttpRequest* pReq, HttpHeader* pHeader) {
    RDX_CHECK(pHeader->name != nullptr, "pHeader->name != __null");
    RDX_CHECK(pHeader->value != nullptr, "pHeader->value != __null");
    struct Place {
        const char* const* names;
        int i_max;
        const char* hasRoom;
    };
    const Place places[] = {{apszGeneralHeaders, g_cnGeneralHeaders, "nHeaders < 16"},
                            {apszRequestHeaders, g_cnReqHeaders, "nHeaders < 14"},
                            {apszEntityHeaders, g_cnEntityHeaders, "nHeaders < 16"}};
    const auto lists = rdx::ListsOf(*pReq);
    for (std::size_t i = 0; i < lists.size(); ++i) {
        const Place& place = places[i];
        RDX_CHECK(place.i_max > 0, "i_max > 0");
        if (!Holds({place.names, static_cast<std::size_t>(place.i_max)}, pHeader->name)) continue;
        RDX_CHECK(*lists[i].count < lists[i].capacity, place.hasRoom);
        return Append(lists[i], *pHeader);
    }
    return HTTPREQ_NOT_ADDED;
}

int IsAuthorized(const char* pszAuthorization) {
    if (pszAuthorization == nullptr) return 0;
    constexpr std::string_view kScheme = "Basic ";
    const std::string_view value = pszAuthorization;
    if (!rdx::StartsWithIgnoringCase(value, kScheme)) return 0;
    // Compared as it comes: the settings hold the credentials encoded as clients send them.
    const rdx::SharedText expected(szConfigAuthInfo);
    return value.substr(kScheme.size()) == expected.View();
}

int CheckAuth(int /*sock*/, HttpRequest* pReq) {
    if (rdx::LoadShared(ucAuthRequired) == 0) return HTTPREQ_DONE;
    return IsAuthorized(GetReqHeaderByName(pReq, "Authorization")) != 0 ? HTTPREQ_DONE : HTTPREQ_REFUSED;
}
