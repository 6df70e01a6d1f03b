// Files as the simulated device uses them, and what it says on standard error.
#ifndef RDX_SIM_FILES_H
#define RDX_SIM_FILES_H

#include <cstddef>
#include <string>
#include <string_view>

namespace rdx::sim {

// Most bytes read from a file, far more than the device ever writes: what is larger is the wrong file.
inline constexpr std::size_t kFileMax = std::size_t{4} << 20;

// What became of a file operation: 0 or the errno of the step that failed.
struct FileContent {
    int error;
    std::string text;

    bool operator==(const FileContent&) const = default;
};

// The whole of a regular file. EFBIG beyond kFileMax, EINVAL for what is no regular file.
FileContent ReadFile(const std::string& path);

// Puts `text` in the place of a file, readable by its owner alone, so that a reader sees either the old or
// the new one.
int ReplaceFile(const std::string& path, std::string_view text);

// Adds `text` to the end in one write, so that what several threads add is never mixed.
int AppendToFile(const std::string& path, std::string_view text);

// One line on standard error that says whose it is.
void Report(std::string_view message);

// "PATH: why".
std::string Explain(const std::string& path, int error);

} // namespace rdx::sim

#endif
