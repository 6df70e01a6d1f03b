// The header lists of a request, in the order in which lines are tried and headers are searched.
#ifndef RDX_HTTP_REQUEST_LISTS_H
#define RDX_HTTP_REQUEST_LISTS_H

#include "http/header_list.h"
#include "http/httpreq.h"

#include <array>

namespace rdx {

inline std::array<HeaderList, 3> ListsOf(HttpRequest& request) {
    return {MakeHeaderList(IsGeneralHeader, request.aGeneralHeaders, request.ucNumOfGeneralHeaders),
            MakeHeaderList(IsRequestHeader, request.aRequestHeaders, request.ucNumOfRequestHeaders),
            MakeHeaderList(IsEntityHeader, request.aEntityHeaders, request.ucNumOfEntityHeaders)};
}

} // namespace rdx

#endif
