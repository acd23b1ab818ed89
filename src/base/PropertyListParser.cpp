// Reading property lists. Expat checks the XML; this file checks that it is a property list.
//
// Decisions where the document type leaves a choice: of equal keys the last one stands, since
// refusing would lock a user out of settings that every other reader accepts; a key without a value
// and a value without a key are refused; attributes are refused but on <plist>; integers may be
// hexadecimal and of any value that fits 64 bits, signed or unsigned; a real beyond the range of a
// double is refused; a date has exactly the form "2001-02-03T04:05:06Z", years 1 to 9999.
#include <expat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "base/PropertyListCodec.h"

namespace korvane {

namespace {

enum class Element {
    none,
    plist,
    dict,
    array,
    key,
    string,
    integer,
    real,
    trueElement,
    falseElement,
    date,
    data
};

Element elementNamed(std::string_view name) {
    switch (name.size()) {
        case 3:
            if (name == "key") return Element::key;
            break;
        case 4:
            if (name == "dict") return Element::dict;
            if (name == "true") return Element::trueElement;
            if (name == "real") return Element::real;
            if (name == "date") return Element::date;
            if (name == "data") return Element::data;
            break;
        case 5:
            if (name == "array") return Element::array;
            if (name == "false") return Element::falseElement;
            if (name == "plist") return Element::plist;
            break;
        case 6:
            if (name == "string") return Element::string;
            break;
        case 7:
            if (name == "integer") return Element::integer;
            break;
        default:
            break;
    }
    return Element::none;
}

bool isXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool isAllSpace(std::string_view text) { return std::all_of(text.begin(), text.end(), isXmlSpace); }

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isXmlSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isXmlSpace(text.back())) text.remove_suffix(1);
    return text;
}

// A whole number in decimal or, after 0x, in hexadecimal digits, with at most one sign.
std::optional<PropertyList> parseInteger(std::string_view text) {
    text = trimmed(text);
    bool negative = false;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    }
    std::uint64_t magnitude = 0;
    const char* end = text.data() + text.size();
    const auto outcome = std::from_chars(text.data(), end, magnitude, base);
    if (outcome.ec != std::errc() || outcome.ptr != end) return std::nullopt;
    if (!negative) return PropertyList(magnitude);
    constexpr std::uint64_t kLowest = std::uint64_t{1} << 63U;
    if (magnitude > kLowest) return std::nullopt;
    return PropertyList(static_cast<std::int64_t>(0 - magnitude));
}

// A decimal real, or "inf", "infinity" or "nan" in any case, with at most one sign.
std::optional<PropertyList> parseReal(std::string_view text) {
    text = trimmed(text);
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) return std::nullopt;
    }
    double value = 0;
    const char* end = text.data() + text.size();
    const auto outcome = std::from_chars(text.data(), end, value);
    if (outcome.ec != std::errc() || outcome.ptr != end) return std::nullopt;
    return PropertyList(value);
}

std::optional<PropertyList> parseDate(std::string_view text) {
    text = trimmed(text);
    constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:ddZ";
    if (text.size() != kForm.size()) return std::nullopt;
    for (std::size_t i = 0; i < kForm.size(); ++i) {
        const bool matches =
            kForm[i] == 'd' ? text[i] >= '0' && text[i] <= '9' : text[i] == kForm[i];
        if (!matches) return std::nullopt;
    }
    const auto number = [&](std::size_t from, std::size_t count) {
        int value = 0;
        for (std::size_t i = from; i < from + count; ++i) value = value * 10 + (text[i] - '0');
        return value;
    };
    const std::chrono::year_month_day day{std::chrono::year(number(0, 4)),
                                          std::chrono::month(static_cast<unsigned>(number(5, 2))),
                                          std::chrono::day(static_cast<unsigned>(number(8, 2)))};
    const int hour = number(11, 2);
    const int minute = number(14, 2);
    const int second = number(17, 2);
    if (!day.ok() || number(0, 4) == 0 || hour > 23 || minute > 59 || second > 59) {
        return std::nullopt;
    }
    return PropertyList(PropertyListDate(std::chrono::sys_days(day) + std::chrono::hours(hour) +
                                         std::chrono::minutes(minute) +
                                         std::chrono::seconds(second)));
}

constexpr std::uint8_t kNotBase64 = 0xFF;

constexpr std::array<std::uint8_t, 256> kBase64Values = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(kNotBase64);
    constexpr std::string_view kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (std::size_t i = 0; i < kDigits.size(); ++i) {
        values[static_cast<std::uint8_t>(kDigits[i])] = static_cast<std::uint8_t>(i);
    }
    return values;
}();

// Base64 in complete groups of four, with white space anywhere.
std::optional<PropertyList> parseData(std::string_view text) {
    PropertyListData bytes;
    bytes.reserve(text.size() / 4 * 3);
    std::uint32_t group = 0;
    int digits = 0;
    int padding = 0;
    for (const char c : text) {
        if (isXmlSpace(c)) continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        const std::uint8_t value = kBase64Values[static_cast<std::uint8_t>(c)];
        if (value == kNotBase64 || padding != 0) return std::nullopt;
        group = group << 6U | value;
        if (++digits == 4) {
            bytes.push_back(static_cast<std::byte>(group >> 16U));
            bytes.push_back(static_cast<std::byte>(group >> 8U));
            bytes.push_back(static_cast<std::byte>(group));
            group = 0;
            digits = 0;
        }
    }
    if (digits == 0 && padding == 0) return PropertyList(std::move(bytes));
    if (digits < 2 || digits + padding != 4) return std::nullopt;
    bytes.push_back(static_cast<std::byte>(group >> (digits == 2 ? 4U : 10U)));
    if (digits == 3) bytes.push_back(static_cast<std::byte>(group >> 2U));
    return PropertyList(std::move(bytes));
}

// One pass over a document. The children of all open containers lie in one list, in the order in
// which they were met; a container that closes takes its own from the end, so that every container
// is allocated once and at its size.
class DocumentParser {
  public:
    DocumentParser() : expat_(XML_ParserCreate("UTF-8"), XML_ParserFree) {}

    Result<PropertyList> parse(std::string_view text);

  private:
    struct OpenContainer {
        bool isDictionary;
        bool hasKey;  // A key was read and its value was not yet.
        std::size_t firstChild;
    };

    // Expat is C: whatever is thrown inside a handler must not travel through it.
    template <auto Handler, typename... Arguments>
    static void guarded(void* self, Arguments... arguments) {
        auto* parser = static_cast<DocumentParser*>(self);
        if (!parser->failure_.empty()) return;
        try {
            (parser->*Handler)(arguments...);
        } catch (const std::bad_alloc&) {
            parser->fail("there is not enough memory");
        }
    }

    void startElement(const char* name, const char** attributes);
    void endElement(const char* name);
    void characters(const char* text, int length);
    void xmlDeclaration(const char* version, const char* encoding, int standalone);
    void documentType(const char* name, const char* systemId, const char* publicId, int subset);
    void skippedEntity(const char* name, int isParameter);

    void startValue(Element element);
    void endScalar();
    void endContainer();
    void addValue(PropertyList value);
    void addParsed(std::optional<PropertyList> value, const char* what);
    void fail(std::string_view what);

    std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> expat_;
    bool insideRoot_ = false;
    Element scalar_ = Element::none;  // The scalar that is open; nothing may nest in it.
    std::string text_;                // What it holds so far.
    std::vector<OpenContainer> open_;
    std::vector<Dictionary::Entry> children_;
    std::optional<PropertyList> root_;
    std::string failure_;
};

void DocumentParser::fail(std::string_view what) {
    failure_ = "line " + std::to_string(XML_GetCurrentLineNumber(expat_.get())) + ": ";
    failure_ += what;
    (void)XML_StopParser(expat_.get(), XML_FALSE);  // Fails only when it has stopped already.
}

void DocumentParser::xmlDeclaration(const char* /*version*/, const char* encoding,
                                    int /*standalone*/) {
    if (encoding == nullptr) return;
    const std::string_view name(encoding);
    constexpr std::string_view kOnly = "utf-8";
    const bool isUtf8 =
        std::equal(name.begin(), name.end(), kOnly.begin(), kOnly.end(), [](char a, char b) {
            return (a >= 'A' && a <= 'Z' ? static_cast<char>(a + ('a' - 'A')) : a) == b;
        });
    if (!isUtf8) fail("the encoding is not UTF-8");
}

void DocumentParser::documentType(const char* /*name*/, const char* /*systemId*/,
                                  const char* /*publicId*/, int subset) {
    // Entities of a document's own can grow it without bound, or hide what it says.
    if (subset != 0) fail("the document type has declarations of its own");
}

void DocumentParser::skippedEntity(const char* /*name*/, int /*isParameter*/) {
    fail("an entity that is not predefined");
}

void DocumentParser::startElement(const char* name, const char** attributes) {
    const Element element = elementNamed(name);
    if (element == Element::none) return fail("an element that property lists do not have");
    if (element == Element::plist) {
        if (insideRoot_) return fail("a <plist> inside the root");
        insideRoot_ = true;
        return;
    }
    if (!insideRoot_) return fail("the root is not <plist>");
    if (attributes[0] != nullptr) return fail("an attribute where none is defined");
    if (scalar_ != Element::none) return fail("an element inside a text");
    startValue(element);
}

void DocumentParser::startValue(Element element) {
    if (open_.empty()) {
        if (element == Element::key) return fail("a key outside a dictionary");
        if (root_) return fail("a second value in the root");
    } else if (open_.back().isDictionary) {
        if (element == Element::key && open_.back().hasKey) return fail("a key without a value");
        if (element != Element::key && !open_.back().hasKey) return fail("a value without a key");
    } else if (element == Element::key) {
        return fail("a key outside a dictionary");
    }
    if (element == Element::dict || element == Element::array) {
        if (open_.size() == kPropertyListDepthLimit) return fail("containers too deep");
        open_.push_back({element == Element::dict, false, children_.size()});
        return;
    }
    scalar_ = element;
    text_.clear();
}

void DocumentParser::characters(const char* text, int length) {
    const std::string_view characters(text, static_cast<std::size_t>(length));
    const bool holdsText = scalar_ != Element::none && scalar_ != Element::trueElement &&
                           scalar_ != Element::falseElement;
    if (holdsText) {
        text_.append(characters);
    } else if (!isAllSpace(characters)) {
        fail("text outside a value");
    }
}

void DocumentParser::endElement(const char* /*name*/) {
    // Expat has matched the names: what closes is the open scalar or, without one, a container.
    if (scalar_ != Element::none) {
        endScalar();
        scalar_ = Element::none;
    } else if (!open_.empty()) {
        endContainer();
    } else if (!root_) {
        fail("the root is empty");
    }
}

void DocumentParser::endScalar() {
    switch (scalar_) {
        case Element::key:
            children_.push_back({text_, PropertyList()});
            open_.back().hasKey = true;
            return;
        case Element::string:
            return addValue(PropertyList(text_));
        case Element::trueElement:
            return addValue(PropertyList(true));
        case Element::falseElement:
            return addValue(PropertyList(false));
        case Element::integer:
            return addParsed(parseInteger(text_), "an integer that is none, or is out of range");
        case Element::real:
            return addParsed(parseReal(text_), "a real that is none, or is out of range");
        case Element::date:
            return addParsed(parseDate(text_), "a date that is none");
        case Element::data:
            return addParsed(parseData(text_), "data that is not base64");
        default:
            return;
    }
}

void DocumentParser::addParsed(std::optional<PropertyList> value, const char* what) {
    if (!value) return fail(what);
    addValue(std::move(*value));
}

void DocumentParser::addValue(PropertyList value) {
    if (open_.empty()) {
        root_ = std::move(value);
    } else if (open_.back().isDictionary) {
        children_.back().value = std::move(value);
        open_.back().hasKey = false;
    } else {
        children_.push_back({std::string(), std::move(value)});
    }
}

void DocumentParser::endContainer() {
    const OpenContainer container = open_.back();
    if (container.hasKey) return fail("a key without a value");
    const auto first = children_.begin() + static_cast<std::ptrdiff_t>(container.firstChild);
    PropertyList value;
    if (container.isDictionary) {
        value = Dictionary(std::vector<Dictionary::Entry>(
            std::make_move_iterator(first), std::make_move_iterator(children_.end())));
    } else {
        PropertyListArray items;
        items.reserve(children_.size() - container.firstChild);
        for (auto child = first; child != children_.end(); ++child) {
            items.push_back(std::move(child->value));
        }
        value = std::move(items);
    }
    children_.erase(first, children_.end());
    open_.pop_back();
    addValue(std::move(value));
}

Result<PropertyList> DocumentParser::parse(std::string_view text) {
    XML_Parser expat = expat_.get();
    if (expat == nullptr) return Error{"there is not enough memory"};
    // Expat takes its lengths as int.
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        return Error{"the document is too large"};
    }
    // Expat changes to UTF-16 by itself when it meets that encoding's mark, and in UTF-16 alone
    // are there bytes of value 0.
    if (text.starts_with("\xFE\xFF") || text.starts_with("\xFF\xFE") ||
        (!text.empty() && std::memchr(text.data(), 0, text.size()) != nullptr)) {
        return Error{"line 1: the encoding is not UTF-8"};
    }
    XML_SetUserData(expat, this);
    XML_SetElementHandler(expat, guarded<&DocumentParser::startElement>,
                          guarded<&DocumentParser::endElement>);
    XML_SetCharacterDataHandler(expat, guarded<&DocumentParser::characters>);
    XML_SetXmlDeclHandler(expat, guarded<&DocumentParser::xmlDeclaration>);
    XML_SetStartDoctypeDeclHandler(expat, guarded<&DocumentParser::documentType>);
    XML_SetSkippedEntityHandler(expat, guarded<&DocumentParser::skippedEntity>);
    const auto status = XML_Parse(expat, text.data(), static_cast<int>(text.size()), /*isFinal=*/1);
    if (!failure_.empty()) return Error{failure_};
    if (status != XML_STATUS_OK) {
        fail(XML_ErrorString(XML_GetErrorCode(expat)));
        return Error{failure_};
    }
    return std::move(*root_);
}

}  // namespace

Result<PropertyList> parsePropertyList(std::string_view text) {
    return DocumentParser().parse(text);
}

}  // namespace korvane
