// Writing property lists. The form is the one that other writers of this document type agree on,
// byte for byte: one tab a level, lines of base64 of at most 76 columns with tabs counted as eight,
// reals in their shortest exact digits, fixed from 1e-4 to below 1e16 and with an exponent beyond.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "base/PropertyListCodec.h"

namespace korvane {

namespace {

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kFooter = "</plist>\n";

// The length of the UTF-8 sequence at the start of the text, or 0 with `skip` set to the number of
// bytes that are to be replaced together: the longest start of a sequence that is legal so far.
struct Sequence {
    std::size_t length = 0;
    std::size_t skip = 1;
};

Sequence sequenceAt(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) return {1, 1};
    std::size_t length = 0;
    // RFC 3629, section 4: which second bytes are legal after which first ones.
    unsigned low = 0x80;
    unsigned high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return {0, 1};
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (i == text.size() || byte(i) < low || byte(i) > high) return {0, i};
        low = 0x80;
        high = 0xBF;
    }
    return {length, length};
}

// U+FFFE and U+FFFF are legal UTF-8 but no XML characters.
bool isNoncharacter(std::string_view sequence) {
    return sequence == "\xEF\xBF\xBE" || sequence == "\xEF\xBF\xBF";
}

// Whether every byte of the eight is a plain ASCII character that needs no escape: not below the
// space, not above 0x7F, none of "&<>".
bool areAllPlain(std::uint64_t bytes) {
    constexpr std::uint64_t kOnes = 0x0101010101010101U;
    constexpr std::uint64_t kHighs = 0x8080808080808080U;
    // The high bit of a byte of this is set where the byte is zero (and perhaps above such a one,
    // which is as good a reason to look closer).
    const auto zeros = [](std::uint64_t v) { return (v - kOnes) & ~v; };
    const std::uint64_t belowSpace = (bytes - kOnes * 0x20) & ~bytes;
    const std::uint64_t special =
        zeros(bytes ^ (kOnes * '&')) | zeros((bytes ^ (kOnes * '<')) & ~(kOnes * 2));
    return ((bytes | belowSpace | special) & kHighs) == 0;
}

class DocumentWriter {
  public:
    std::string write(const PropertyList& value);

  private:
    void add(const PropertyList& value, std::size_t level);
    void addArray(const PropertyListArray& items, std::size_t level);
    void addDictionary(const Dictionary& dictionary, std::size_t level);
    void addText(std::string_view opening, std::string_view text, std::string_view closing,
                 std::size_t level);
    void addEscaped(std::string_view text);
    void addReal(double value, std::size_t level);
    void addDate(PropertyListDate date, std::size_t level);
    void addData(const PropertyListData& data, std::size_t level);
    template <typename Integer>
    void addInteger(Integer value, std::size_t level);
    void addLine(std::string_view line, std::size_t level);

    // Room for `count` bytes after the end; the functions below rely on it.
    void reserve(std::size_t count) {
        if (static_cast<std::size_t>(limit_ - end_) < count) grow(count);
    }
    void grow(std::size_t count);
    void put(char c) { *end_++ = c; }
    void put(std::string_view text) {
        std::memcpy(end_, text.data(), text.size());
        end_ += text.size();
    }
    void putTabs(std::size_t level) {
        std::memset(end_, '\t', level);
        end_ += level;
    }

    std::unique_ptr<char[]> buffer_;
    char* end_ = nullptr;
    char* limit_ = nullptr;
};

void DocumentWriter::grow(std::size_t count) {
    const auto used = static_cast<std::size_t>(end_ - buffer_.get());
    const std::size_t capacity = std::max<std::size_t>(used * 2, used + count + 4096);
    std::unique_ptr<char[]> larger(new char[capacity]);
    if (used != 0) std::memcpy(larger.get(), buffer_.get(), used);
    buffer_ = std::move(larger);
    end_ = buffer_.get() + used;
    limit_ = buffer_.get() + capacity;
}

void DocumentWriter::addLine(std::string_view line, std::size_t level) {
    reserve(level + line.size() + 1);
    putTabs(level);
    put(line);
    put('\n');
}

void DocumentWriter::addText(std::string_view opening, std::string_view text,
                             std::string_view closing, std::size_t level) {
    // A character grows to five bytes at most ("&amp;", "&#13;"); the scan stores eight at once.
    reserve(level + opening.size() + text.size() * 5 + 8 + closing.size());
    putTabs(level);
    put(opening);
    addEscaped(text);
    put(closing);
}

void DocumentWriter::addEscaped(std::string_view text) {
    while (!text.empty()) {
        if (text.size() >= 8) {
            std::uint64_t bytes = 0;
            std::memcpy(&bytes, text.data(), 8);
            if (areAllPlain(bytes)) {
                std::memcpy(end_, &bytes, 8);
                end_ += 8;
                text.remove_prefix(8);
                continue;
            }
        }
        const char c = text.front();
        const Sequence sequence = sequenceAt(text);
        if (c == '&') {
            put("&amp;");
        } else if (c == '<') {
            put("&lt;");
        } else if (c == '>') {
            put("&gt;");
        } else if (c == '\r') {
            put("&#13;");  // A bare one would come back as a line feed.
        } else if (sequence.length == 0) {
            put("\xEF\xBF\xBD");
        } else if (sequence.length == 1) {
            const bool isLegal = static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n';
            if (isLegal) put(c);
        } else if (!isNoncharacter(text.substr(0, sequence.length))) {
            put(text.substr(0, sequence.length));
        }
        text.remove_prefix(sequence.skip);
    }
}

template <typename Integer>
void DocumentWriter::addInteger(Integer value, std::size_t level) {
    reserve(level + 64);
    putTabs(level);
    put("<integer>");
    end_ = std::to_chars(end_, limit_, value).ptr;
    put("</integer>\n");
}

void DocumentWriter::addReal(double value, std::size_t level) {
    reserve(level + 64);
    putTabs(level);
    put("<real>");
    if (std::isnan(value)) {
        put("nan");
    } else if (std::isinf(value)) {
        put(value < 0 ? "-inf" : "inf");
    } else {
        const double magnitude = std::abs(value);
        const bool isFixed = magnitude == 0 || (magnitude >= 1e-4 && magnitude < 1e16);
        char* const digits = end_;
        end_ = std::to_chars(end_, limit_, value,
                             isFixed ? std::chars_format::fixed : std::chars_format::scientific)
                   .ptr;
        if (isFixed && std::find(digits, end_, '.') == end_) put(".0");
    }
    put("</real>\n");
}

void DocumentWriter::addDate(PropertyListDate date, std::size_t level) {
    // What the four digits of the year can say.
    constexpr PropertyListDate kFirst = std::chrono::sys_days(std::chrono::year(1) / 1 / 1);
    constexpr PropertyListDate kLast =
        std::chrono::sys_days(std::chrono::year(10000) / 1 / 1) - std::chrono::seconds(1);
    date = std::clamp(date, kFirst, kLast);
    const auto midnight = std::chrono::floor<std::chrono::days>(date);
    const std::chrono::year_month_day day(midnight);
    const std::chrono::hh_mm_ss time(date - midnight);
    reserve(level + 64);
    putTabs(level);
    put("<date>");
    const auto number = [this](long value, int digits) {
        for (int i = digits - 1; i >= 0; --i, value /= 10) {
            end_[i] = static_cast<char>('0' + value % 10);
        }
        end_ += digits;
    };
    number(static_cast<int>(day.year()), 4);
    put('-');
    number(static_cast<long>(static_cast<unsigned>(day.month())), 2);
    put('-');
    number(static_cast<long>(static_cast<unsigned>(day.day())), 2);
    put('T');
    number(time.hours().count(), 2);
    put(':');
    number(time.minutes().count(), 2);
    put(':');
    number(time.seconds().count(), 2);
    put("Z</date>\n");
}

void DocumentWriter::addData(const PropertyListData& data, std::size_t level) {
    constexpr std::string_view kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::size_t columns = std::max<std::size_t>(16, level * 8 < 76 ? 76 - level * 8 : 0);
    const std::size_t bytesPerLine = columns / 4 * 3;
    addLine("<data>", level);
    for (std::size_t line = 0; line < data.size(); line += bytesPerLine) {
        const std::size_t lineEnd = std::min(data.size(), line + bytesPerLine);
        reserve(level + columns + 8);
        putTabs(level);
        for (std::size_t i = line; i < lineEnd; i += 3) {
            const std::size_t count = std::min<std::size_t>(3, lineEnd - i);
            const auto byte = [&](std::size_t k) {
                return k < count ? static_cast<std::uint32_t>(data[i + k]) : 0U;
            };
            const std::uint32_t group = byte(0) << 16U | byte(1) << 8U | byte(2);
            put(kDigits[group >> 18U]);
            put(kDigits[group >> 12U & 63U]);
            put(count > 1 ? kDigits[group >> 6U & 63U] : '=');
            put(count > 2 ? kDigits[group & 63U] : '=');
        }
        put('\n');
    }
    addLine("</data>", level);
}

void DocumentWriter::addArray(const PropertyListArray& items, std::size_t level) {
    if (items.empty()) return addLine("<array/>", level);
    addLine("<array>", level);
    for (const auto& item : items) add(item, level + 1);
    addLine("</array>", level);
}

void DocumentWriter::addDictionary(const Dictionary& dictionary, std::size_t level) {
    if (dictionary.empty()) return addLine("<dict/>", level);
    addLine("<dict>", level);
    for (const auto& [key, value] : dictionary) {
        addText("<key>", key, "</key>\n", level + 1);
        add(value, level + 1);
    }
    addLine("</dict>", level);
}

void DocumentWriter::add(const PropertyList& value, std::size_t level) {
    if (const auto* text = value.string()) {
        addText("<string>", *text, "</string>\n", level);
    } else if (const auto* integer = value.integer()) {
        addInteger(*integer, level);
    } else if (const auto* real = value.real()) {
        addReal(*real, level);
    } else if (const auto* boolean = value.boolean()) {
        addLine(*boolean ? "<true/>" : "<false/>", level);
    } else if (const auto* dictionary = value.dictionary()) {
        addDictionary(*dictionary, level);
    } else if (const auto* items = value.array()) {
        addArray(*items, level);
    } else if (const auto* date = value.date()) {
        addDate(*date, level);
    } else if (const auto* data = value.data()) {
        addData(*data, level);
    } else if (const auto* large = value.largeInteger()) {
        addInteger(*large, level);
    }
}

std::string DocumentWriter::write(const PropertyList& value) {
    reserve(kHeader.size());
    put(kHeader);
    add(value, 0);
    reserve(kFooter.size());
    put(kFooter);
    return {buffer_.get(), end_};
}

}  // namespace

std::string formatPropertyList(const PropertyList& value) { return DocumentWriter().write(value); }

}  // namespace korvane
