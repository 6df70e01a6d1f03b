// A packet as an ordinary XML parser reads it: libxml2, without a network and without loading a DTD.
#ifndef RDX_TESTS_SYSTEM_XML_H
#define RDX_TESTS_SYSTEM_XML_H

#include <optional>
#include <string>

struct _xmlDoc;
struct _xmlNode;

namespace rdx::test {

class XmlPacket {
public:
    explicit XmlPacket(const std::string& text);
    ~XmlPacket();
    XmlPacket(const XmlPacket&) = delete;
    XmlPacket& operator=(const XmlPacket&) = delete;

    // Whether the text is XML, and if not, why.
    bool WellFormed() const { return document_ != nullptr; }
    const std::string& Error() const { return error_; }

    // Whether it is a packet whose data is one value.
    bool HasData() const { return Data() != nullptr; }

    // The character content of a value, found by the names and numbers of the members and elements that lead
    // to it: "IfUsage/0/ControlledBy". Nothing when there is none.
    std::optional<std::string> TextAt(const std::string& path) const;

private:
    _xmlNode* Data() const;

    _xmlDoc* document_;
    std::string error_;
};

} // namespace rdx::test

#endif
