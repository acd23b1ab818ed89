#include "korvanectl/Json.h"

#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <cmath>
#include <cstddef>

#include "korvanectl/Utf8.h"

namespace korvane::ctl {

namespace {

constexpr std::size_t kIndent = 2;

std::string hexadecimal(const PropertyListData& data) {
    std::string text;
    for (const std::byte byte : data) {
        text += fmt::format("{:02x}", std::to_integer<unsigned>(byte));
    }
    return text;
}

std::string jsonReal(double value) {
    if (!std::isfinite(value)) {
        return "null";
    }
    char digits[32];  // the shortest form of any double has at most 24 characters
    const auto [end, error] = std::to_chars(std::begin(digits), std::end(digits), value);
    return error == std::errc{} ? std::string(std::begin(digits), end) : "null";
}

std::string isoDate(PropertyListDate date) {
    const auto day = std::chrono::floor<std::chrono::days>(date);
    const std::chrono::year_month_day calendar{day};
    const std::chrono::hh_mm_ss time{date - day};
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(calendar.year()),
                       static_cast<unsigned>(calendar.month()),
                       static_cast<unsigned>(calendar.day()), time.hours().count(),
                       time.minutes().count(), time.seconds().count());
}

void append(std::string& out, const PropertyList& value, std::size_t depth);

// The members of an array or a dictionary, one a line.
template <typename Members, typename AppendMember>
void appendMembers(std::string& out, char open, char close, const Members& members,
                   std::size_t depth, const AppendMember& appendMember) {
    out += open;
    const char* separator = "\n";
    for (const auto& member : members) {
        out += separator;
        out.append((depth + 1) * kIndent, ' ');
        appendMember(member);
        separator = ",\n";
    }
    if (!members.empty()) {
        out += '\n';
        out.append(depth * kIndent, ' ');
    }
    out += close;
}

void append(std::string& out, const PropertyList& value, std::size_t depth) {
    if (const bool* const boolean = value.boolean()) {
        out += *boolean ? "true" : "false";
    } else if (const std::int64_t* const integer = value.integer()) {
        out += fmt::format("{}", *integer);
    } else if (const std::uint64_t* const large = value.largeInteger()) {
        out += fmt::format("{}", *large);
    } else if (const double* const real = value.real()) {
        out += jsonReal(*real);
    } else if (const std::string* const text = value.string()) {
        out += jsonString(*text);
    } else if (const PropertyListDate* const date = value.date()) {
        out += jsonString(isoDate(*date));
    } else if (const PropertyListData* const data = value.data()) {
        out += jsonString(hexadecimal(*data));
    } else if (const PropertyListArray* const array = value.array()) {
        appendMembers(out, '[', ']', *array, depth,
                      [&](const PropertyList& member) { append(out, member, depth + 1); });
    } else if (const Dictionary* const dictionary = value.dictionary()) {
        appendMembers(out, '{', '}', *dictionary, depth, [&](const Dictionary::Entry& member) {
            out += jsonString(member.key) + ": ";
            append(out, member.value, depth + 1);
        });
    }
}

}  // namespace

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        const std::size_t length = firstUtf8Character(text).length;
        const char first = text.front();
        if (length == 0) {
            out += "\\ufffd";
        } else if (first == '"' || first == '\\') {
            out += {'\\', first};
        } else if (first == '\n') {
            out += "\\n";
        } else if (first == '\t') {
            out += "\\t";
        } else if (static_cast<unsigned char>(first) < 0x20 || first == 0x7f) {
            out += fmt::format("\\u{:04x}", static_cast<unsigned char>(first));
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return out + '"';
}

std::string formatJson(const PropertyList& value) {
    std::string out;
    append(out, value, 0);
    return out + '\n';
}

}  // namespace korvane::ctl
