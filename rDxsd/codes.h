// What the dispatcher and the method handlers tell each other.
#ifndef RDX_RDXSD_CODES_H
#define RDX_RDXSD_CODES_H

namespace rdx {

// Results of rDxHandler and of the method handlers, beside those of taking the call data.
enum HandlerCode : int {
    kAnswered = 0,
    kBadCall = 400,
    kNotAuthorised = -401,
    kBodyTooLong = -3, // also what an unknown method says of arguments that are no structure
    kNoResult = -4,
    kUnknownStatus = -5,
    kNotAssigned = -6
};

// Values of TavrinResponse::iStatus.
enum ResultStatus : int {
    kStatusResult = 0,
    kStatusBeforeDispatch = -99,
    kStatusBadCall = 400,
    kStatusUnauthorized = 401
};

} // namespace rdx

#endif
