#include "rDxsd/auth.h"

#include "common/memory.h"
#include "common/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <crypt.h>
#include <cstdio>
#include <cstring>
#include <shadow.h>

namespace {

using rdx::OwnedText;

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char kNotInAlphabet = 64;

constexpr auto kValues = [] {
    std::array<unsigned char, 256> values{};
    values.fill(kNotInAlphabet);
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
        values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
    }
    return values;
}();

unsigned char ValueOf(char c) { return kValues[static_cast<unsigned char>(c)]; }

// The encoded bytes, blanks in front of them gone.
std::string_view SkipBlanks(const char* text) {
    rdx::Reader reader(text);
    reader.Skip(" \t");
    return reader.Rest();
}

// The bytes that `run` characters at the front of `text` really stand for, out of a reported `length`. A
// single character in the last group stands for none; it counts by what follows the byte that ended it.
std::size_t TrueLength(std::string_view text, std::size_t run, std::size_t length) {
    if (run % 4 == 0) return length;
    const std::size_t secondLast = run / 4 * 4 + 2;
    const bool ended = secondLast >= text.size() || ValueOf(text[secondLast]) == kNotInAlphabet;
    return length - (ended ? 2 : 1);
}

// Memory that held a secret, wiped when its owner goes.
template <typename T>
class Wiped {
public:
    Wiped() = default;
    ~Wiped() { explicit_bzero(&object, sizeof object); }
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;

    T object;
};

// Bytes on the heap, wiped after use; none when memory is short.
class WipedBytes {
public:
    explicit WipedBytes(std::size_t size) : bytes_(rdx::AllocateBytes(size)), size_(size) {}
    ~WipedBytes() {
        if (bytes_) explicit_bzero(bytes_.get(), size_);
    }
    WipedBytes(const WipedBytes&) = delete;
    WipedBytes& operator=(const WipedBytes&) = delete;

    char* Get() const { return bytes_.get(); }

private:
    rdx::OwnedText bytes_;
    std::size_t size_;
};

struct WipeText {
    void operator()(char* text) const {
        explicit_bzero(text, std::strlen(text));
        std::free(text);
    }
};
using SecretText = std::unique_ptr<char, WipeText>;

// 32 KB on most systems: more than a serving thread's stack should give to one step.
struct WipeCryptData {
    void operator()(crypt_data* data) const {
        explicit_bzero(data, sizeof *data);
        std::free(data);
    }
};
using CryptData = std::unique_ptr<crypt_data, WipeCryptData>;

// Whether `stored` can be anybody's password at all: an empty text, and one that begins with a character
// no method of encryption uses, mark accounts without a password and locked ones.
bool IsUsable(std::string_view stored) { return !stored.empty() && stored[0] != '*' && stored[0] != '!'; }

// Compares without an early exit, so that the time taken says nothing about where the texts differ.
bool SameText(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    unsigned int difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        difference |=
            static_cast<unsigned char>(a[i]) ^ static_cast<unsigned int>(static_cast<unsigned char>(b[i]));
    }
    return difference == 0;
}

// Encrypts `password` afresh, with `stored` as the salt, and compares. A failure token of crypt ("*0",
// "*1") is as little a password as a locked account's text.
bool IsPassword(const char* password, const char* stored) {
    const CryptData data(rdx::AllocateZeroed<crypt_data>().release());
    if (!data) return false;
    const char* const encrypted = crypt_r(password, stored, data.get());
    if (encrypted == nullptr) return false;
    if (IsUsable(stored) && IsUsable(encrypted) && SameText(encrypted, stored)) return true;
    std::printf("\nHandleBasicAuth: pw (%s)", "wrong");
    return false;
}

// An entry of the shadow database is a line of text; a real one has a few hundred bytes. A longer line, also
// another user's or a comment, asks for more room.
constexpr std::size_t kShadowEntrySize = 4096;
constexpr std::size_t kShadowEntryMax = 1024 * 1024;

bool IsUser(const char* user, const char* password) {
    for (std::size_t size = kShadowEntrySize; size <= kShadowEntryMax; size *= 2) {
        const WipedBytes text(size);
        if (text.Get() == nullptr) return false;
        spwd entry;
        spwd* found = nullptr;
        const int result = getspnam_r(user, &entry, text.Get(), size, &found);
        if (result == ERANGE) continue;
        if (result != 0 || found == nullptr || found->sp_pwdp == nullptr) return false;
        return IsPassword(password, found->sp_pwdp);
    }
    return false;
}

// True when nobody asked for a copy or the copy was made.
bool GiveCopy(std::string_view text, char** copy) {
    if (copy == nullptr) return true;
    *copy = rdx::CopyText(text).release();
    return *copy != nullptr;
}

} // namespace

int Base64Encode(const unsigned char* in, unsigned long len, char* out) {
    for (; len > 0; in += 3) {
        const unsigned long taken = std::min(len, 3UL);
        const auto byte = [in, taken](unsigned long i) { return i < taken ? unsigned{in[i]} : 0U; };
        const unsigned int group = byte(0) << 16U | byte(1) << 8U | byte(2);
        for (const unsigned int shift : {18U, 12U, 6U, 0U}) *out++ = kAlphabet[group >> shift & 63U];
        std::fill(out - (3 - taken), out, '=');
        len -= taken;
    }
    *out = '\0';
    return 1;
}

int Base64Decode(const char* in, unsigned char* out, unsigned long* outLen) {
    const std::string_view text = SkipBlanks(in);
    const auto* const end =
        std::find_if(text.begin(), text.end(), [](char c) { return ValueOf(c) == kNotInAlphabet; });
    const auto run = static_cast<std::size_t>(end - text.begin());
    *outLen = (run + 3) / 4 * 3;

    unsigned char* next = out;
    for (std::size_t i = 0; i < run; i += 4) {
        unsigned int group = 0;
        for (std::size_t k = i; k < i + 4; ++k) group = group << 6U | (k < run ? ValueOf(text[k]) : 0U);
        for (const unsigned int shift : {16U, 8U, 0U}) *next++ = static_cast<unsigned char>(group >> shift);
    }
    out[TrueLength(text, run, *outLen)] = '\0';
    return 1;
}

int HandleBasicAuth(const char* encoded, char** user, char** password) {
    if (user != nullptr) *user = nullptr;
    if (password != nullptr) *password = nullptr;
    if (encoded == nullptr || strnlen(encoded, AUTH_CREDENTIALS_SIZE) == AUTH_CREDENTIALS_SIZE) return 0;

    Wiped<unsigned char[AUTH_CREDENTIALS_SIZE]> decoded;
    unsigned long length = 0;
    Base64Decode(encoded, decoded.object, &length);
    auto* const name = reinterpret_cast<char*>(decoded.object);
    char* const colon = std::strchr(name, ':');
    if (colon == nullptr) return 0;
    *colon = '\0';
    const char* const word = colon + 1;
    if (!GiveCopy(name, user) || !GiveCopy(word, password)) return 0;
    return IsUser(name, word) ? 1 : 0;
}

int rDxCheckAuth(HttpRequest* req) {
    constexpr std::string_view kBasic = "Basic ";
    const char* const value = GetReqHeaderByName(req, "Authorization");
    if (value == nullptr || !rdx::StartsWithIgnoringCase(value, kBasic)) return AUTH_REFUSED;
    char* user = nullptr;
    char* password = nullptr;
    const int valid = HandleBasicAuth(value + kBasic.size(), &user, &password);
    const OwnedText userOwner(user);
    const SecretText passwordOwner(password);
    std::printf("\nrDxCheckAuth: HandleBasicAuth=%d", valid);
    return valid != 0 ? AUTH_GRANTED : AUTH_REFUSED;
}
