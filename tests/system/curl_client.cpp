#include "tests/system/curl_client.h"

#include "tests/system/harness.h"

#include <curl/curl.h>

namespace rdx::test {

namespace {

std::size_t Append(char* bytes, std::size_t size, std::size_t count, void* text) {
    static_cast<std::string*>(text)->append(bytes, size * count);
    return size * count;
}

} // namespace

CurlClient::CurlClient(int port)
    : handle_(curl_easy_init()), base_("http://127.0.0.1:" + std::to_string(port)) {}

CurlClient::~CurlClient() { curl_easy_cleanup(handle_); }

void CurlClient::Prepare(const std::string& target) {
    curl_easy_reset(handle_); // keeps the connection
    curl_easy_setopt(handle_, CURLOPT_URL, (base_ + target).c_str());
    curl_easy_setopt(handle_, CURLOPT_TIMEOUT_MS, static_cast<long>(Scaled(kPatience).count()));
    curl_easy_setopt(handle_, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
    if (http10_) curl_easy_setopt(handle_, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_0));
    if (!credentials_.empty()) {
        curl_easy_setopt(handle_, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
        curl_easy_setopt(handle_, CURLOPT_USERPWD, credentials_.c_str());
    }
}

CurlAnswer CurlClient::Perform() {
    CurlAnswer answer;
    curl_slist* headers = nullptr;
    for (const std::string& header : headers_) headers = curl_slist_append(headers, header.c_str());
    curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, &Append);
    curl_easy_setopt(handle_, CURLOPT_WRITEDATA, static_cast<void*>(&answer.body));
    curl_easy_setopt(handle_, CURLOPT_HEADERFUNCTION, &Append);
    curl_easy_setopt(handle_, CURLOPT_HEADERDATA, static_cast<void*>(&answer.head));
    const CURLcode result = curl_easy_perform(handle_);
    if (result != CURLE_OK) answer.error = curl_easy_strerror(result);
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &answer.status);
    curl_easy_getinfo(handle_, CURLINFO_NUM_CONNECTS, &answer.newConnections);
    curl_slist_free_all(headers);
    return answer;
}

CurlAnswer CurlClient::Get(const std::string& target) {
    Prepare(target);
    return Perform();
}

CurlAnswer CurlClient::Post(const std::string& target, const std::string& body) {
    Prepare(target);
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, body.c_str());
    return Perform();
}

CurlAnswer CurlClient::PostForm(const std::string& target,
                                const std::vector<std::pair<std::string, std::string>>& fields) {
    Prepare(target);
    curl_mime* form = curl_mime_init(handle_);
    for (const auto& [name, value] : fields) {
        curl_mimepart* part = curl_mime_addpart(form);
        curl_mime_name(part, name.c_str());
        curl_mime_data(part, value.data(), value.size());
    }
    curl_easy_setopt(handle_, CURLOPT_MIMEPOST, form);
    const CurlAnswer answer = Perform();
    curl_mime_free(form);
    return answer;
}

} // namespace rdx::test
