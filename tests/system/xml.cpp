#include "tests/system/xml.h"

#include <algorithm>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <string_view>

namespace rdx::test {

namespace {

std::string_view View(const xmlChar* text) {
    return text == nullptr ? std::string_view() : reinterpret_cast<const char*>(text);
}

xmlNode* FirstElement(xmlNode* node) {
    while (node != nullptr && node->type != XML_ELEMENT_NODE) node = node->next;
    return node;
}

// The child element at a place in the order of the document.
xmlNode* Child(xmlNode* parent, std::size_t index) {
    xmlNode* child = FirstElement(parent->children);
    while (child != nullptr && index-- > 0) child = FirstElement(child->next);
    return child;
}

xmlNode* ChildNamed(xmlNode* parent, std::string_view name) {
    xmlNode* child = FirstElement(parent->children);
    while (child != nullptr && View(child->name) != name) child = FirstElement(child->next);
    return child;
}

// The value of a structure's member.
xmlNode* Member(xmlNode* structure, const std::string& name) {
    for (xmlNode* var = Child(structure, 0); var != nullptr; var = FirstElement(var->next)) {
        xmlChar* const given = xmlGetProp(var, reinterpret_cast<const xmlChar*>("name"));
        const bool found = View(given) == name;
        xmlFree(given);
        if (found) return Child(var, 0);
    }
    return nullptr;
}

xmlNode* Step(xmlNode* value, const std::string& word) {
    const std::string_view kind = View(value->name);
    if (kind == "array") return Child(value, std::stoul(word));
    return kind == "struct" ? Member(value, word) : nullptr;
}

} // namespace

XmlPacket::XmlPacket(const std::string& text)
    : document_(xmlReadMemory(text.data(), static_cast<int>(text.size()), "packet", nullptr,
                              XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING)) {
    if (document_ != nullptr) return;
    const auto* const error = xmlGetLastError();
    error_ = error == nullptr || error->message == nullptr ? "no reason given" : error->message;
}

XmlPacket::~XmlPacket() { xmlFreeDoc(document_); }

xmlNode* XmlPacket::Data() const {
    if (document_ == nullptr) return nullptr;
    xmlNode* const packet = xmlDocGetRootElement(document_);
    if (packet == nullptr || View(packet->name) != "wddxPacket") return nullptr;
    xmlNode* const data = ChildNamed(packet, "data");
    return data != nullptr && Child(data, 1) == nullptr ? Child(data, 0) : nullptr;
}

std::optional<std::string> XmlPacket::TextAt(const std::string& path) const {
    xmlNode* value = Data();
    for (std::size_t begin = 0; value != nullptr && begin <= path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        value = Step(value, path.substr(begin, end - begin));
        begin = end + 1;
    }
    if (value == nullptr || View(value->name) == "null") return std::nullopt;
    xmlChar* const content = xmlNodeGetContent(value);
    std::string text(View(content));
    xmlFree(content);
    return text;
}

} // namespace rdx::test
