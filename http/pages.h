// The pages that more than one module answers with.
#ifndef RDX_HTTP_PAGES_H
#define RDX_HTTP_PAGES_H

namespace rdx {

inline constexpr char kUnauthorizedPage[] = "<HTML><BODY>Unauthorized</BODY></HTML>";

} // namespace rdx

#endif
