#include "tests/system/mutations.h"

#include <cctype>
#include <string_view>

namespace rdx::test {

namespace {

// A piece of a packet.
struct Piece {
    std::size_t begin;
    std::size_t end;
};

// The lengths at which limits begin and end to matter, and one that nearly fills a request.
constexpr std::size_t kLengths[] = {0, 32, 33, 4096, 60000};

constexpr const char* kOtherValues[] = {
    "",
    "<null/>",
    "<string></string>",
    "<string>7</string>",
    "<number>0</number>",
    "<number>-1</number>",
    "<number>7.5</number>",
    "<number>99999999999</number>",
    "<number>seven</number>",
    "<boolean value='true'/>",
    "<boolean value='false'/>",
    "<array length='0'></array>",
    "<array length='1'><null/></array>",
    "<array length='2000000000'><null/></array>",
    "<array length='-1'></array>",
    "<struct></struct>",
    "<struct><var name='AttributeName'><string>a</string></var></struct>",
    "<dateTime>2002-04-30T12:08:00Z</dateTime>",
    "<recordset rowCount='1' fieldNames='a'><field name='a'><null/></field></recordset>",
};

class Mutator {
public:
    explicit Mutator(const std::string& packet) : packet_(packet) {
        FindTags();
        FindTexts();
        FindQuoted();
        FindMembers();
    }

    std::vector<Mutation> All() {
        Cut();
        for (const auto& [kind, pieces] : {std::pair{"tag", &tags_},
                                           {"text", &texts_},
                                           {"attribute", &attributes_},
                                           {"attribute's value", &quoted_},
                                           {"argument", &members_},
                                           {"argument's value", &values_}}) {
            Rearrange(kind, *pieces);
        }
        for (const Piece& value : values_) {
            for (const char* other : kOtherValues) Replace("another value", value, other);
        }
        for (const auto* pieces : {&texts_, &quoted_}) {
            for (const Piece& piece : *pieces) Stretch(piece);
        }
        return std::move(mutations_);
    }

private:
    std::string Text(const Piece& piece) const {
        return packet_.substr(piece.begin, piece.end - piece.begin);
    }

    void FindTags() {
        for (std::size_t begin = packet_.find('<'); begin != packet_.npos;
             begin = packet_.find('<', begin + 1)) {
            tags_.push_back({begin, packet_.find('>', begin) + 1});
        }
    }

    // The text of strings and numbers; not the blanks that make the packet easy to read.
    void FindTexts() {
        for (const Piece& tag : tags_) {
            const std::string name = Text(tag);
            if (name != "<string>" && name != "<number>") continue;
            texts_.push_back({tag.end, packet_.find('<', tag.end)});
        }
    }

    // name='value', and the value alone.
    void FindQuoted() {
        for (const Piece& tag : tags_) {
            std::size_t quote = packet_.find('\'', tag.begin);
            while (quote < tag.end) {
                const std::size_t closing = packet_.find('\'', quote + 1);
                quoted_.push_back({quote + 1, closing});
                attributes_.push_back({packet_.rfind(' ', quote), closing + 1});
                quote = packet_.find('\'', closing + 1);
            }
        }
    }

    // Whole var elements, those inside others too, and their values.
    void FindMembers() {
        std::vector<Piece> open;
        for (const Piece& tag : tags_) {
            const std::string text = Text(tag);
            if (text.starts_with("<var ")) open.push_back(tag);
            if (text != "</var>" || open.empty()) continue;
            members_.push_back({open.back().begin, tag.end});
            values_.push_back({open.back().end, tag.begin});
            open.pop_back();
        }
    }

    void Add(const std::string& why, std::string packet) { mutations_.push_back({why, std::move(packet)}); }

    void Replace(const std::string& why, const Piece& piece, std::string_view by) {
        std::string packet = packet_;
        packet.replace(piece.begin, piece.end - piece.begin, by);
        Add(why + " for " + Text(piece), std::move(packet));
    }

    void Cut() {
        for (std::size_t length = 0; length <= packet_.size(); ++length) {
            Add("cut to " + std::to_string(length) + " bytes", packet_.substr(0, length));
        }
    }

    void Rearrange(const std::string& kind, const std::vector<Piece>& pieces) {
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            Replace("a dropped " + kind, pieces[i], "");
            Replace("a doubled " + kind, pieces[i], Text(pieces[i]) + Text(pieces[i]));
            for (std::size_t j = i + 1; j < pieces.size(); ++j) Swap(kind, pieces[i], pieces[j]);
        }
    }

    // Pieces of which neither lies in the other.
    void Swap(const std::string& kind, Piece first, Piece second) {
        if (second.begin < first.begin) std::swap(first, second);
        if (second.begin < first.end || Text(first) == Text(second)) return;
        Add("a swapped " + kind + ": " + Text(first) + " and " + Text(second),
            packet_.substr(0, first.begin) + Text(second) +
                packet_.substr(first.end, second.begin - first.end) + Text(first) +
                packet_.substr(second.end));
    }

    void Stretch(const Piece& piece) {
        const std::string text = Text(piece);
        const bool number = !text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) != 0;
        for (const std::size_t length : kLengths) {
            Replace(std::to_string(length) + " characters", piece, std::string(length, number ? '7' : 'x'));
        }
    }

    const std::string& packet_;
    std::vector<Piece> tags_;
    std::vector<Piece> texts_;
    std::vector<Piece> quoted_;
    std::vector<Piece> attributes_;
    std::vector<Piece> members_;
    std::vector<Piece> values_;
    std::vector<Mutation> mutations_;
};

} // namespace

std::vector<Mutation> MutationsOf(const std::string& packet) { return Mutator(packet).All(); }

} // namespace rdx::test
