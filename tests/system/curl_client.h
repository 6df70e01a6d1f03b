// The ordinary client: libcurl, with one handle that keeps its connection from call to call.
#ifndef RDX_TESTS_SYSTEM_CURL_CLIENT_H
#define RDX_TESTS_SYSTEM_CURL_CLIENT_H

#include <map>
#include <string>
#include <vector>

namespace rdx::test {

struct CurlAnswer {
    std::string error; // empty when an answer came
    long status = 0;
    long newConnections = 0; // how many the call had to open
    std::string head;
    std::string body;
};

class CurlClient {
public:
    explicit CurlClient(int port);
    ~CurlClient();
    CurlClient(const CurlClient&) = delete;
    CurlClient& operator=(const CurlClient&) = delete;

    void UseHttp10(bool use) { http10_ = use; }
    void UseCredentials(const std::string& userAndPassword) { credentials_ = userAndPassword; }
    void UseHeaders(const std::vector<std::string>& headers) { headers_ = headers; }

    CurlAnswer Get(const std::string& target);
    CurlAnswer Post(const std::string& target, const std::string& body);

    // A form with these fields, in this order.
    CurlAnswer PostForm(const std::string& target,
                        const std::vector<std::pair<std::string, std::string>>& fields);

private:
    void Prepare(const std::string& target);
    CurlAnswer Perform();

    void* handle_;
    std::string base_;
    bool http10_ = false;
    std::string credentials_;
    std::vector<std::string> headers_;
};

} // namespace rdx::test

#endif
