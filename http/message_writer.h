// Writing a message into a caller's buffer.
#ifndef RDX_HTTP_MESSAGE_WRITER_H
#define RDX_HTTP_MESSAGE_WRITER_H

#include "http/http.h"

namespace rdx {

// Appends to a buffer until an appender fails; that failure is kept and the rest is left out.
class MessageWriter {
public:
    MessageWriter(char* buffer, unsigned int size)
        : begin_(buffer), cursor_(buffer), last_(buffer + size - 1) {}

    // A null text fails as an empty one does.
    MessageWriter& Text(const char* text) {
        if (result_ == 0) result_ = AssertedStrCopy(&cursor_, last_, text);
        return *this;
    }

    MessageWriter& Bytes(const void* data, unsigned int length) {
        if (result_ == 0) result_ = AssertedMemCopy(&cursor_, last_, data, length);
        return *this;
    }

    // Fails with a result of the message's own, unless an appender has failed before.
    void Fail(int result) {
        if (result_ == 0) result_ = result;
    }

    // The number of bytes written, or the failure.
    int Result() const { return result_ != 0 ? result_ : static_cast<int>(cursor_ - begin_); }

private:
    char* begin_;
    char* cursor_;
    const char* last_;
    int result_ = 0;
};

} // namespace rdx

#endif
