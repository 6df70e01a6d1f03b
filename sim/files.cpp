#include "sim/files.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rdx::sim {

namespace {

class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() { Close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Number() const { return number_; }

    // 0 or errno; a second time does nothing.
    int Close() {
        if (number_ < 0) return 0;
        const int result = close(number_);
        number_ = -1;
        return result == 0 ? 0 : errno;
    }

private:
    int number_;
};

int WriteAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(descriptor, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

int ReadAll(int descriptor, std::string& text) {
    for (;;) {
        char piece[8192];
        const ssize_t count = read(descriptor, piece, sizeof piece);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        if (count == 0) return 0;
        text.append(piece, static_cast<std::size_t>(count));
        if (text.size() > kFileMax) return EFBIG;
    }
}

} // namespace

FileContent ReadFile(const std::string& path) {
    // Not blocking: opening a pipe would wait for somebody to write into it.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.Number() < 0) return {errno, {}};
    struct stat status {};
    if (fstat(file.Number(), &status) != 0) return {errno, {}};
    if (!S_ISREG(status.st_mode)) return {EINVAL, {}};
    std::string text;
    const int error = ReadAll(file.Number(), text);
    if (error != 0) return {error, {}};
    return {0, std::move(text)};
}

int ReplaceFile(const std::string& path, std::string_view text) {
    std::string temporary = path + ".XXXXXX";
    Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
    if (file.Number() < 0) return errno;
    int error = WriteAll(file.Number(), text);
    if (error == 0) error = file.Close();
    if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0) error = errno;
    if (error != 0) unlink(temporary.c_str());
    return error;
}

int AppendToFile(const std::string& path, std::string_view text) {
    constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
    const Descriptor file(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kOwnerOnly));
    return file.Number() < 0 ? errno : WriteAll(file.Number(), text);
}

void Report(std::string_view message) {
    std::fprintf(stderr, "libDxSvcs: %.*s\n", static_cast<int>(message.size()), message.data());
}

std::string Explain(const std::string& path, int error) {
    return path + ": " + (error == EINVAL ? "not a regular file" : std::generic_category().message(error));
}

} // namespace rdx::sim
