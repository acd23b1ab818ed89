// Reading property lists of the plain form. Whatever is met that is not of this form ends the
// reading: the general reader then starts anew, so nothing here decides what is legal.
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "base/PropertyListBuilder.h"
#include "base/PropertyListReaders.h"
#include "base/Utf8.h"

namespace korvane {

namespace {

using Container = PropertyListBuilder::Container;

class PlainParser {
  public:
    explicit PlainParser(std::string_view text) : rest_(text) {}

    std::optional<PropertyList> parse();

  private:
    // Each returns false where the document is not of the plain form.
    bool parseElement();
    bool parseClosingTag();
    bool parseKey();
    bool parseString();
    bool parseEmptyElement(std::string_view tag, PropertyList value);
    bool parseContainer(std::string_view tag, Container container);
    bool parseScalar(std::string_view opening, std::string_view closing,
                     std::optional<PropertyList> (*parseText)(std::string_view));
    // The text up to the next tag, with its references replaced.
    bool takeText(std::string& text);
    // How many bytes from the start on stand for themselves.
    bool measurePlain(std::size_t& length) const;
    bool takeReference(std::string& text);

    bool take(std::string_view expected) {
        if (!rest_.starts_with(expected)) return false;
        rest_.remove_prefix(expected.size());
        return true;
    }
    void skipSpace() {
        while (!rest_.empty() && isXmlSpace(rest_.front())) rest_.remove_prefix(1);
    }

    std::string_view rest_;
    PropertyListBuilder builder_;
};

std::optional<PropertyList> PlainParser::parse() {
    (void)take("\xEF\xBB\xBF");  // The mark may be there or not, as may the next two.
    if (take("<?xml version=\"1.0\" encoding=\"UTF-8\"?>")) skipSpace();
    if (take("<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
             "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">")) {
        skipSpace();
    }
    if (!take("<plist version=\"1.0\">")) return std::nullopt;
    do {
        skipSpace();
        if (!parseElement()) return std::nullopt;
    } while (builder_.isInContainer());
    skipSpace();
    if (!take("</plist>")) return std::nullopt;
    skipSpace();
    if (!rest_.empty()) return std::nullopt;
    return std::move(builder_.root());
}

bool PlainParser::parseElement() {
    if (rest_.size() < 2 || rest_.front() != '<') return false;
    const char kind = rest_[1];
    if (kind == '/') return parseClosingTag();
    if (kind == 'k') return parseKey();
    if (builder_.objectionToValue() != nullptr) return false;
    switch (kind) {
        case 's':
            return parseString();
        case 'i':
            return parseScalar("<integer>", "</integer>", parsePropertyListInteger);
        case 'r':
            return parseScalar("<real>", "</real>", parsePropertyListReal);
        case 't':
            return parseEmptyElement("<true/>", true);
        case 'f':
            return parseEmptyElement("<false/>", false);
        case 'a':
            return parseEmptyElement("<array/>", PropertyListArray()) ||
                   parseContainer("<array>", Container::array);
        case 'd':
            // Tried once only: what one of them has taken another must not go on from.
            if (rest_.starts_with("<date>")) {
                return parseScalar("<date>", "</date>", parsePropertyListDate);
            }
            if (rest_.starts_with("<data>")) {
                return parseScalar("<data>", "</data>", parsePropertyListData);
            }
            return parseEmptyElement("<dict/>", Dictionary()) ||
                   parseContainer("<dict>", Container::dictionary);
        default:
            return false;
    }
}

bool PlainParser::parseClosingTag() {
    if (!builder_.isInContainer() || builder_.objectionToEnd() != nullptr) return false;
    if (!take(builder_.isIn(Container::dictionary) ? "</dict>" : "</array>")) return false;
    builder_.close();
    return true;
}

bool PlainParser::parseKey() {
    if (builder_.objectionToKey() != nullptr || !take("<key>")) return false;
    std::string key;
    if (!takeText(key) || !take("</key>")) return false;
    builder_.addKey(std::move(key));
    return true;
}

bool PlainParser::parseString() {
    if (!take("<string>")) return parseEmptyElement("<string/>", PropertyList());
    std::string text;
    if (!takeText(text) || !take("</string>")) return false;
    builder_.addValue(std::move(text));
    return true;
}

bool PlainParser::parseEmptyElement(std::string_view tag, PropertyList value) {
    if (!take(tag)) return false;
    builder_.addValue(std::move(value));
    return true;
}

bool PlainParser::parseContainer(std::string_view tag, Container container) {
    if (builder_.objectionToContainer() != nullptr || !take(tag)) return false;
    builder_.open(container);
    return true;
}

bool PlainParser::parseScalar(std::string_view opening, std::string_view closing,
                              std::optional<PropertyList> (*parseText)(std::string_view)) {
    if (!take(opening)) return false;
    // What these elements may hold is ASCII without references: the parsers refuse all else.
    const std::size_t length = rest_.find('<');
    if (length == std::string_view::npos) return false;
    auto value = parseText(rest_.substr(0, length));
    rest_.remove_prefix(length);
    if (!value || !take(closing)) return false;
    builder_.addValue(std::move(*value));
    return true;
}

bool PlainParser::measurePlain(std::size_t& length) const {
    std::size_t i = 0;
    while (i < rest_.size()) {
        std::uint64_t bytes = 0;
        while (rest_.size() - i >= sizeof bytes) {
            std::memcpy(&bytes, rest_.data() + i, sizeof bytes);
            if (!areAllPlain(bytes)) break;
            i += sizeof bytes;
        }
        // What ended that lies within the next eight bytes, if it is not the text's end.
        for (const std::size_t stop = i + sizeof bytes; i < stop && i < rest_.size();) {
            const char c = rest_[i];
            if (c == '<' || c == '&') {
                length = i;
                return true;
            }
            // A ">" might end a section that was never opened, and a carriage return is no plain
            // line end.
            if (c == '>' || c == '\r') return false;
            const Utf8Sequence sequence = utf8SequenceAt(rest_.substr(i));
            if (sequence.length == 0 || !isXmlCharacter(rest_.substr(i, sequence.length))) {
                return false;
            }
            i += sequence.length;
        }
    }
    return false;
}

bool PlainParser::takeReference(std::string& text) {
    struct Reference {
        std::string_view form;
        char character;
    };
    constexpr Reference kReferences[] = {{"&amp;", '&'},  {"&lt;", '<'},   {"&gt;", '>'},
                                         {"&#13;", '\r'}, {"&quot;", '"'}, {"&apos;", '\''}};
    for (const auto& reference : kReferences) {
        if (take(reference.form)) {
            text += reference.character;
            return true;
        }
    }
    return false;
}

bool PlainParser::takeText(std::string& text) {
    while (true) {
        std::size_t length = 0;
        if (!measurePlain(length)) return false;
        text.append(rest_.substr(0, length));
        rest_.remove_prefix(length);
        if (rest_.front() == '<') return true;
        if (!takeReference(text)) return false;
    }
}

}  // namespace

std::optional<PropertyList> parsePlainPropertyList(std::string_view text) {
    return PlainParser(text).parse();
}

}  // namespace korvane
