#include "tests/system/messages.h"

#include <cstddef>

namespace rdx::test {

std::string StatusPacket(int code, int reason) {
    return "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'><wddxPacket version='1.0'>"
           "<header><comment></comment></header><data><struct><var name='Status'><struct>"
           "<var name='code'><number>" +
           std::to_string(code) + "</number></var><var name='msg'><number>" + std::to_string(reason) +
           "</number></var><var name='params'><null/></var></struct></var></struct></data></wddxPacket>";
}

std::string Packet(const std::string& value) {
    return "<?xml version='1.0'?><wddxPacket version='1.0'><header/><data>" + value + "</data></wddxPacket>";
}

std::string VersionPacket() {
    return Packet("<struct><var name='version'><number>7</number></var></struct>");
}

std::string Request(const std::string& requestLine, const std::vector<std::string>& headers,
                    const std::string& body) {
    std::string text = requestLine + "\r\n";
    for (const std::string& header : headers) text += header + "\r\n";
    if (!body.empty()) text += "Content-length: " + std::to_string(body.size()) + "\r\n";
    return text + "\r\n" + body;
}

std::string VersionCall(const std::vector<std::string>& headers) {
    return Request(std::string(kVersionLine), headers, VersionPacket());
}

std::string VersionCallAndClose() { return VersionCall({"Connection: close"}); }

std::string Call(const std::string& method, const std::string& packet,
                 const std::vector<std::string>& headers) {
    return Request("POST /rDx?FunctionName=" + method + " HTTP/1.1", headers, packet);
}

std::string UnknownTarget(const std::vector<std::string>& headers) {
    std::vector<std::string> all = {"Host: device"};
    all.insert(all.end(), headers.begin(), headers.end());
    return Request("GET /nowhere HTTP/1.1", all);
}

std::string FormPart(const std::string& name, const std::string& value) {
    return "--AbC\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
}

std::string FormCall(const std::string& parts, const std::vector<std::string>& headers,
                     const std::string& boundary) {
    std::vector<std::string> all = headers;
    all.push_back("Content-Type: multipart/form-data; boundary=" + boundary);
    return Request("POST /rDx HTTP/1.1", all, parts);
}

std::string VersionForm(const std::vector<std::string>& headers) {
    return FormCall(FormPart("FunctionName", "rdxGetVersion") + FormPart("FunctionArgs", VersionPacket()) +
                        "--AbC--\r\n",
                    headers);
}

std::string Base64(const std::string& text) {
    static constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    for (std::size_t at = 0; at < text.size(); at += 3) {
        unsigned int group = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            group = (group << 8) | (at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0U);
        }
        for (std::size_t i = 0; i < 4; ++i) encoded += kAlphabet[(group >> (18 - 6 * i)) & 63U];
        if (at + 1 >= text.size()) encoded[encoded.size() - 2] = '=';
        if (at + 2 >= text.size()) encoded[encoded.size() - 1] = '=';
    }
    return encoded;
}

std::string BasicAuthorization(const std::string& user, const std::string& password) {
    return "Authorization: Basic " + Base64(user + ":" + password);
}

} // namespace rdx::test
