// Reading property lists of any form. Expat checks the XML; this file checks that it is a property
// list. Its word is final: PropertyListPlainParser only takes from it what is beyond doubt.
//
// Decisions where the document type leaves a choice: of equal keys the last one stands, since
// refusing would lock a user out of settings that every other reader accepts; a key without a value
// and a value without a key are refused; attributes are refused but on <plist>; integers may be
// hexadecimal and of any value that fits 64 bits, signed or unsigned; a real beyond the range of a
// double is refused; a date has exactly the form "2001-02-03T04:05:06Z", years 1 to 9999.
#include <expat.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "base/PropertyListBuilder.h"
#include "base/PropertyListCodec.h"
#include "base/PropertyListReaders.h"

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

bool isAllSpace(std::string_view text) { return std::all_of(text.begin(), text.end(), isXmlSpace); }

// One pass over a document.
class DocumentParser {
  public:
    DocumentParser() : expat_(XML_ParserCreate("UTF-8"), XML_ParserFree) {}

    Result<PropertyList> parse(std::string_view text);

  private:
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
    void addParsed(std::optional<PropertyList> value, const char* what);
    void fail(std::string_view what);

    std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> expat_;
    bool insideRoot_ = false;
    Element scalar_ = Element::none;  // The scalar that is open; nothing may nest in it.
    std::string text_;                // What it holds so far.
    PropertyListBuilder builder_;
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
    const char* objection =
        element == Element::key ? builder_.objectionToKey() : builder_.objectionToValue();
    if (objection != nullptr) return fail(objection);
    if (element != Element::dict && element != Element::array) {
        scalar_ = element;
        text_.clear();
        return;
    }
    objection = builder_.objectionToContainer();
    if (objection != nullptr) return fail(objection);
    builder_.open(element == Element::dict ? PropertyListBuilder::Container::dictionary
                                           : PropertyListBuilder::Container::array);
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
    } else if (builder_.isInContainer()) {
        endContainer();
    } else if (!builder_.root()) {
        fail("the root is empty");
    }
}

void DocumentParser::endScalar() {
    switch (scalar_) {
        case Element::key:
            return builder_.addKey(text_);
        case Element::string:
            return builder_.addValue(PropertyList(text_));
        case Element::trueElement:
            return builder_.addValue(PropertyList(true));
        case Element::falseElement:
            return builder_.addValue(PropertyList(false));
        case Element::integer:
            return addParsed(parsePropertyListInteger(text_),
                             "an integer that is none, or is out of range");
        case Element::real:
            return addParsed(parsePropertyListReal(text_),
                             "a real that is none, or is out of range");
        case Element::date:
            return addParsed(parsePropertyListDate(text_), "a date that is none");
        case Element::data:
            return addParsed(parsePropertyListData(text_), "data that is not base64");
        default:
            return;
    }
}

void DocumentParser::addParsed(std::optional<PropertyList> value, const char* what) {
    if (!value) return fail(what);
    builder_.addValue(std::move(*value));
}

void DocumentParser::endContainer() {
    const char* objection = builder_.objectionToEnd();
    if (objection != nullptr) return fail(objection);
    builder_.close();
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
    return std::move(*builder_.root());
}

}  // namespace

Result<PropertyList> parsePropertyList(std::string_view text) {
    auto value = parsePlainPropertyList(text);
    if (value) return std::move(*value);
    return parseAnyPropertyList(text);
}

Result<PropertyList> parseAnyPropertyList(std::string_view text) {
    return DocumentParser().parse(text);
}

}  // namespace korvane
