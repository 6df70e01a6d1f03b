// The pages that requests without a result are answered with.
#ifndef RDX_HTTP_PAGES_H
#define RDX_HTTP_PAGES_H

namespace rdx {

inline constexpr char kInvalidRequestPage[] = "<HTML><BODY>Invalid Request</BODY></HTML>";
inline constexpr char kBadRequestPage[] = "<HTML><BODY>Bad Request</BODY></HTML>";
inline constexpr char kUnauthorizedPage[] = "<HTML><BODY>Unauthorized</BODY></HTML>";
inline constexpr char kNotFoundPage[] = "<HTML><BODY>Not Found</BODY></HTML>";
inline constexpr char kNotAllowedPage[] = "<HTML><BODY>Method not allowed</BODY></HTML>";
inline constexpr char kInternalErrorPage[] = "<HTML><BODY>Internal Server Error</BODY></HTML>";
inline constexpr char kOutOfResourcesPage[] = "<HTML><BODY>Out of Resources</BODY></HTML>";

} // namespace rdx

#endif
