// Access to plain objects that several threads share.
//
// The server has no mutexes: flags, counters, settings and the watched descriptor set are plain objects
// that any program may read by name. Inside the library every access that can meet another thread's goes
// through these functions. Loads acquire and stores release, so that whoever sees a flag also sees what
// was written before it was raised.
#ifndef RDX_COMMON_SHARED_H
#define RDX_COMMON_SHARED_H

#include <cstddef>
#include <span>
#include <string_view>

namespace rdx {

template <typename T>
T LoadShared(const T& object) {
    return __atomic_load_n(&object, __ATOMIC_ACQUIRE);
}

template <typename T>
void StoreShared(T& object, T value) {
    __atomic_store_n(&object, value, __ATOMIC_RELEASE);
}

// A private copy of a shared text setting, taken byte by byte. A copy taken while the setting is being
// rewritten may mix the old text and the new; it always ends inside the setting's buffer.
template <std::size_t Size>
class SharedText {
public:
    explicit SharedText(const char (&setting)[Size]) {
        while (length_ < Size - 1) {
            const char c = __atomic_load_n(&setting[length_], __ATOMIC_RELAXED);
            if (c == '\0') break;
            text_[length_++] = c;
        }
        text_[length_] = '\0';
    }

    const char* c_str() const { return text_; }
    std::string_view View() const { return {text_, length_}; }

private:
    char text_[Size];
    std::size_t length_ = 0;
};

// Rewrites a shared text setting; what does not fit is cut off.
inline void StoreSharedText(std::span<char> setting, std::string_view value) {
    const std::string_view kept = value.substr(0, setting.size() - 1);
    for (std::size_t i = 0; i < kept.size(); ++i) {
        __atomic_store_n(&setting[i], kept[i], __ATOMIC_RELAXED);
    }
    __atomic_store_n(&setting[kept.size()], '\0', __ATOMIC_RELAXED);
}

} // namespace rdx

#endif
