#include "common/log.h"

#include "common/log_lines.h"
#include "common/shared.h"

#include <cstdint>
#include <ctime>
#include <pthread.h>

FILE* StdErr = stderr;
FILE* StdOut = stdout;
FILE* errlog = nullptr;
FILE* outlog = nullptr;
unsigned char ucVerbosity = VERBOSITY_DEFAULT;

namespace {

// A time stamp of its own for each line: a buffer shared by threads would mix their times.
class TimeStamp {
public:
    TimeStamp() { Now2(text_, sizeof text_ - 1); }
    const char* c_str() const { return text_; }

private:
    char text_[128];
};

FILE* Log() { return outlog != nullptr ? outlog : StdOut; }

} // namespace

char* Now2(char* buf, unsigned int /*size*/) {
    constexpr std::size_t kBufferSize = 128;
    const time_t now = time(nullptr);
    tm local;
    if (localtime_r(&now, &local) == nullptr || strftime(buf, kBufferSize, "%X", &local) == 0) {
        buf[0] = '\0';
    }
    return buf;
}

namespace rdx {

void LogPlain(const char* label, const char* message, int number) {
    fprintf(Log(), "\n[%s],%s: %s (%d)", TimeStamp().c_str(), label, message, number);
    fflush(Log());
}

void LogThread(const char* label, const char* message, int number) {
    fprintf(Log(), "\n[%s],%s: %s (%d) [tid=%lu]", TimeStamp().c_str(), label, message, number,
            static_cast<unsigned long>(ThreadNumber()));
    fflush(Log());
}

void LogString(const char* label, const char* message, const char* value) {
    fprintf(Log(), "\n[%s],%s: %s <%s>", TimeStamp().c_str(), label, message, value);
    fflush(Log());
}

bool VerbosityAbove(int level) { return LoadShared(ucVerbosity) > level; }

unsigned int ThreadNumber() {
    // The low half of the POSIX handle is what a 32-bit device has.
    return static_cast<unsigned int>(pthread_self());
}

} // namespace rdx
