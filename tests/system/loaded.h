// The library loaded at run time: what it offers by its plain name, with the records written out here as an
// outside program would.
#ifndef RDX_TESTS_SYSTEM_LOADED_H
#define RDX_TESTS_SYSTEM_LOADED_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <string>

namespace rdx::test {

// The records.

struct HttpHeader {
    char* name;
    char* value;
};

struct HttpRequest {
    unsigned char ucMethod;
    unsigned char ucHttpVersion;
    char* pszUri;
    char pszSeparator[3];
    unsigned char ucNumOfGeneralHeaders;
    HttpHeader aGeneralHeaders[16];
    unsigned char ucNumOfRequestHeaders;
    HttpHeader aRequestHeaders[14];
    unsigned char ucNumOfEntityHeaders;
    HttpHeader aEntityHeaders[16];
    unsigned char ucMultipart;
    unsigned char ucKeepAlive;
    unsigned char ucBoundaryLen;
    char* pszBoundary;
    std::uint32_t uiBodyLength;
    char* pEntityBody;
    std::int32_t iSocket;
    char szPeerName[256];
};

struct HttpResponse {
    unsigned char ucHttpVersion;
    unsigned short usStatusCode;
    char* pszReason;
    char* pszReserved;
    char pszSeparator[3];
    unsigned char ucNumOfGeneralHeaders;
    HttpHeader aGeneralHeaders[16];
    unsigned char ucNumOfResponseHeaders;
    HttpHeader aResponseHeaders[8];
    unsigned char ucNumOfEntityHeaders;
    HttpHeader aEntityHeaders[16];
    std::uint32_t uiBodyLength;
    char* pEntityBody;
};

struct WddxValue;

struct TavrinRequest {
    std::int32_t number;
    char szFunctionName[33];
    char* pszWddxArgs;
    HttpRequest* request;
};

struct TavrinResponse {
    std::int32_t number;
    unsigned char flag;
    std::int32_t status;
    char* pszWddxResult;
};

struct TagDef {
    std::uint32_t dwId;
    const char* szName;
    const char* szAttr;
    std::uint32_t dwChildren;
    unsigned char ucEmptyTag;
    unsigned char ucMultiChild;
    unsigned char ucMayBeEmpty;
    unsigned char ucNeedsChild;
};

struct ServerFunction {
    const char* prefix;
    void* handler;
};

// What the library offers, by name.

inline void* Library() {
    static void* const library = dlopen(RDX_TEST_LIBRARY, RTLD_NOW);
    return library;
}

inline void* Symbol(const char* name) {
    void* symbol = dlsym(Library(), name);
    if (symbol == nullptr) {
        std::fprintf(stderr, "%s is not there\n", name);
        std::abort();
    }
    return symbol;
}

template <typename F>
F* Function(const char* name) {
    return reinterpret_cast<F*>(Symbol(name));
}

template <typename T>
T& Global(const char* name) {
    return *static_cast<T*>(Symbol(name));
}

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};

using OwnedText = std::unique_ptr<char, FreeText>;

// A text that the stream functions have written.
class StreamText {
public:
    StreamText() : stream_(open_memstream(&text_, &size_)) {}
    ~StreamText() {
        std::fclose(stream_);
        std::free(text_);
    }
    StreamText(const StreamText&) = delete;
    StreamText& operator=(const StreamText&) = delete;

    FILE* Stream() const { return stream_; }
    std::string Text() const {
        std::fflush(stream_);
        return {text_, size_};
    }

private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    FILE* stream_;
};

inline std::string Printed(WddxValue* value, const char* comment = nullptr) {
    char* text = nullptr;
    const int result =
        Function<int(WddxValue*, const char*, char**)>("wddxPrintStreamToVar")(value, comment, &text);
    const OwnedText owned(text);
    return result == 1 ? text : "failed";
}

inline WddxValue* Parsed(const std::string& text) {
    return Function<WddxValue*(const char*)>("wddxParseStream")(text.c_str());
}

inline void Free(WddxValue* value) { Function<void(WddxValue**)>("wddxFree")(&value); }

} // namespace rdx::test

#endif
