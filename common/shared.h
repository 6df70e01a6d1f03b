// Access to plain objects that several threads share.
//
// The server has no mutexes: flags, counters, settings and the watched descriptor set are plain objects
// that any program may read by name. Inside the library every access that can meet another thread's goes
// through these functions. Stores release, so that whoever sees a flag also sees what was written before it
// was raised; loads and changes have one order that all threads agree on, so that of two threads which each
// change one object and then look at the other's at least one sees the other's change.
#ifndef RDX_COMMON_SHARED_H
#define RDX_COMMON_SHARED_H

#include <cstddef>
#include <span>
#include <string_view>
#include <type_traits>

namespace rdx {

template <typename T>
T LoadShared(const T& object) {
    return __atomic_load_n(&object, __ATOMIC_SEQ_CST);
}

template <typename T>
void StoreShared(T& object, std::type_identity_t<T> value) {
    __atomic_store_n(&object, value, __ATOMIC_RELEASE);
}

// Adds `change`, which may be below 0; the value afterwards.
template <typename T>
T AddShared(T& object, std::type_identity_t<T> change) {
    return __atomic_add_fetch(&object, change, __ATOMIC_SEQ_CST);
}

// Sets or clears bits; the value before.
template <typename T>
T SetSharedBits(T& object, std::type_identity_t<T> bits) {
    return __atomic_fetch_or(&object, bits, __ATOMIC_SEQ_CST);
}
template <typename T>
T ClearSharedBits(T& object, std::type_identity_t<T> bits) {
    return __atomic_fetch_and(&object, static_cast<T>(~bits), __ATOMIC_SEQ_CST);
}

// Puts `value` in the place of `expected`. False when something else is there; `expected` is that then.
template <typename T>
bool ReplaceShared(T& object, T& expected, std::type_identity_t<T> value) {
    return __atomic_compare_exchange_n(&object, &expected, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

// A private copy of a shared text setting, taken byte by byte. A copy taken while the setting is being
// rewritten may mix the old text and the new; it always ends inside the setting's buffer.
template <std::size_t Size>
class SharedText {
public:
    explicit SharedText(const char (&setting)[Size]) {
        while (length_ < Size - 1) {
            const char c = __atomic_load_n(&setting[length_], __ATOMIC_ACQUIRE);
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
    const std::string_view fitting = value.substr(0, setting.size() - 1);
    for (std::size_t i = 0; i < fitting.size(); ++i) StoreShared(setting[i], fitting[i]);
    StoreShared(setting[fitting.size()], '\0');
}

// Marks changes of several shared objects that belong together. Who reads them all between two calls of
// `Begin` and `Unchanged` that agree has read what belongs together:
//
//     do number = marks.Begin(); while (read all of them, !marks.Unchanged(number));
//
// One thread changes at a time, and does not read in between.
class SharedChanges {
public:
    void Start() { AddShared(number_, 1); } // odd while a change is under way
    void Finish() { AddShared(number_, 1); }

    unsigned Begin() const { return LoadShared(number_); }
    bool Unchanged(unsigned begun) const { return begun % 2 == 0 && LoadShared(number_) == begun; }

private:
    unsigned number_ = 0;
};

} // namespace rdx

#endif
