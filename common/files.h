// Streams with one owner.
#ifndef RDX_COMMON_FILES_H
#define RDX_COMMON_FILES_H

#include <cstdio>
#include <memory>

namespace rdx {

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using OwnedFile = std::unique_ptr<std::FILE, CloseFile>;

} // namespace rdx

#endif
