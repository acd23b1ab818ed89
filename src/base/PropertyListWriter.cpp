// Writing property lists. The form is the one that other writers of this document type agree on,
// byte for byte: one tab a level, lines of base64 of at most 76 columns with tabs counted as eight,
// reals in their shortest exact digits, fixed from 1e-4 to below 1e16 and with an exponent beyond.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "base/PropertyListCodec.h"
#include "base/Utf8.h"

namespace korvane {

namespace {

constexpr char kHeader[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr char kFooter[] = "</plist>\n";

class DocumentWriter {
  public:
    std::string write(const PropertyList& value);

  private:
    void add(const PropertyList& value, std::size_t level);
    void addArray(const PropertyListArray& items, std::size_t level);
    void addDictionary(const Dictionary& dictionary, std::size_t level);
    void addKey(std::string_view key, std::size_t level);
    void addString(std::string_view text, std::size_t level);
    void addEscaped(std::string_view text);
    // Adds the last `count` bytes of the text, fewer than eight, if they are plain.
    bool addPlainEnd(std::string_view text, std::size_t count);
    // Adds what the first character becomes; how many bytes of the text that was.
    std::size_t addCharacter(std::string_view text);
    void addReal(double value, std::size_t level);
    void addDate(PropertyListDate date, std::size_t level);
    void addData(const PropertyListData& data, std::size_t level);
    template <typename Integer>
    void addInteger(Integer value, std::size_t level);
    // The line is a literal, which the compiler copies in place.
    template <std::size_t size>
    void addLine(const char (&line)[size], std::size_t level) {
        reserve(roomForTabs(level) + size);
        putTabs(level);
        put(line);
        put('\n');
    }

    // Room for `count` bytes after the end; the functions below rely on it.
    void reserve(std::size_t count) {
        if (static_cast<std::size_t>(limit_ - end_) < count) grow(count);
    }
    void grow(std::size_t count);
    void put(char c) { *end_++ = c; }
    template <std::size_t size>
    void put(const char (&literal)[size]) {
        std::memcpy(end_, literal, size - 1);
        end_ += size - 1;
    }
    // Tabs are stored eight at once, and those too many are written over.
    static std::size_t roomForTabs(std::size_t level) { return level + 8; }
    void putTabs(std::size_t level) {
        for (std::size_t stored = 0; stored < level; stored += 8) {
            std::memcpy(end_ + stored, "\t\t\t\t\t\t\t\t", 8);
        }
        end_ += level;
    }

    std::string buffer_;
    char* end_ = nullptr;
    char* limit_ = nullptr;
};

void DocumentWriter::grow(std::size_t count) {
    const auto used = end_ == nullptr ? 0 : static_cast<std::size_t>(end_ - buffer_.data());
    buffer_.resize(std::max<std::size_t>(used * 2, used + count + 4096));
    end_ = buffer_.data() + used;
    limit_ = buffer_.data() + buffer_.size();
}

// The caller has seen to the room.
void DocumentWriter::addEscaped(std::string_view text) {
    std::string_view rest = text;
    std::uint64_t bytes = 0;
    while (rest.size() >= sizeof bytes) {
        std::memcpy(&bytes, rest.data(), sizeof bytes);
        if (areAllPlain(bytes)) {
            std::memcpy(end_, &bytes, sizeof bytes);
            end_ += sizeof bytes;
            rest.remove_prefix(sizeof bytes);
            continue;
        }
        // Up to where eight bytes may be worth another look.
        for (const std::size_t stop = rest.size() - sizeof bytes; rest.size() > stop;) {
            rest.remove_prefix(addCharacter(rest));
        }
    }
    if (addPlainEnd(text, rest.size())) return;
    while (!rest.empty()) rest.remove_prefix(addCharacter(rest));
}

bool DocumentWriter::addPlainEnd(std::string_view text, std::size_t count) {
    std::uint64_t bytes = 0;
    if (text.size() >= sizeof bytes) {
        // The last eight, some of which were added before: plain as all are, they stand there as
        // they are, and are stored once more.
        std::memcpy(&bytes, text.data() + text.size() - sizeof bytes, sizeof bytes);
        if (!areAllPlain(bytes)) return false;
        std::memcpy(end_ + count - sizeof bytes, &bytes, sizeof bytes);
    } else if (text.size() >= sizeof bytes / 2) {
        // The first four and the last four, some of them twice.
        constexpr std::size_t kHalf = sizeof bytes / 2;
        std::uint32_t halves[2] = {};
        std::memcpy(&halves[0], text.data(), kHalf);
        std::memcpy(&halves[1], text.data() + text.size() - kHalf, kHalf);
        if (!areAllPlain(std::uint64_t{halves[1]} << 32U | halves[0])) return false;
        std::memcpy(end_, &halves[0], kHalf);
        std::memcpy(end_ + count - kHalf, &halves[1], kHalf);
    } else {
        return false;
    }
    end_ += count;
    return true;
}

std::size_t DocumentWriter::addCharacter(std::string_view text) {
    const char c = text.front();
    if (c >= 0x20 && c != '&' && c != '<' && c != '>') {
        put(c);
        return 1;
    }
    const Utf8Sequence sequence = utf8SequenceAt(text);
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
    } else if (isXmlCharacter(text.substr(0, sequence.length))) {
        std::memcpy(end_, text.data(), sequence.length);
        end_ += sequence.length;
    }
    return sequence.skip;
}

template <typename Integer>
void DocumentWriter::addInteger(Integer value, std::size_t level) {
    reserve(roomForTabs(level) + 64);
    putTabs(level);
    put("<integer>");
    end_ = std::to_chars(end_, limit_, value).ptr;
    put("</integer>\n");
}

void DocumentWriter::addReal(double value, std::size_t level) {
    reserve(roomForTabs(level) + 64);
    putTabs(level);
    put("<real>");
    if (std::isnan(value)) {
        put("nan");
    } else if (std::isinf(value)) {
        if (value < 0) put('-');
        put("inf");
    } else {
        const double magnitude = std::abs(value);
        const bool isFixed = magnitude == 0 || (magnitude >= 1e-4 && magnitude < 1e16);
        char* const digits = end_;
        end_ = std::to_chars(end_, limit_, value,
                             isFixed ? std::chars_format::fixed : std::chars_format::scientific)
                   .ptr;
        if (isFixed &&
            std::memchr(digits, '.', static_cast<std::size_t>(end_ - digits)) == nullptr) {
            put(".0");
        }
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
    reserve(roomForTabs(level) + 64);
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
        reserve(roomForTabs(level) + columns + 8);
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

// What the elements around a text and the eight bytes at once take, beside its characters, each of
// which grows to five bytes at most ("&amp;", "&#13;").
constexpr std::size_t kRoomAroundText = 32;

void DocumentWriter::addKey(std::string_view key, std::size_t level) {
    reserve(roomForTabs(level) + key.size() * 5 + kRoomAroundText);
    putTabs(level);
    put("<key>");
    addEscaped(key);
    put("</key>\n");
}

void DocumentWriter::addString(std::string_view text, std::size_t level) {
    reserve(roomForTabs(level) + text.size() * 5 + kRoomAroundText);
    putTabs(level);
    put("<string>");
    addEscaped(text);
    put("</string>\n");
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
        addKey(key, level + 1);
        add(value, level + 1);
    }
    addLine("</dict>", level);
}

void DocumentWriter::add(const PropertyList& value, std::size_t level) {
    if (const auto* text = value.string()) {
        addString(*text, level);
    } else if (const auto* integer = value.integer()) {
        addInteger(*integer, level);
    } else if (const auto* real = value.real()) {
        addReal(*real, level);
    } else if (const auto* boolean = value.boolean()) {
        if (*boolean) {
            addLine("<true/>", level);
        } else {
            addLine("<false/>", level);
        }
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
    reserve(sizeof kHeader);
    put(kHeader);
    add(value, 0);
    reserve(sizeof kFooter);
    put(kFooter);
    buffer_.resize(static_cast<std::size_t>(end_ - buffer_.data()));
    return std::move(buffer_);
}

}  // namespace

std::string formatPropertyList(const PropertyList& value) { return DocumentWriter().write(value); }

}  // namespace korvane
