#include "base/Format.h"

#include <charconv>
#include <cmath>
#include <iterator>
#include <limits>

namespace korvane {

namespace {

enum class Kind { text, whole, rounded };

struct Directive {
    std::string_view form;
    Kind kind;
};

constexpr Directive kDirectives[] = {
    {"%@", Kind::text},   {"%s", Kind::text},   {"%d", Kind::whole},
    {"%ld", Kind::whole}, {"%zd", Kind::whole}, {"%.0f", Kind::rounded},
};

const Directive* directiveAt(std::string_view format) {
    for (const auto& directive : kDirectives) {
        if (format.starts_with(directive.form)) return &directive;
    }
    return nullptr;
}

std::int64_t cutToWhole(double value) {
    if (std::isnan(value)) return 0;
    constexpr double kEnd = 9223372036854775808.0;  // 2^63, the first double out of range.
    if (value >= kEnd) return std::numeric_limits<std::int64_t>::max();
    if (value < -kEnd) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(value);
}

std::string shortest(double value) {
    if (std::isnan(value)) return "nan";  // Whatever its sign.
    char digits[32];  // The longest shortest form, "-2.2250738585072014e-308", has 24 characters.
    return {digits, std::to_chars(std::begin(digits), std::end(digits), value).ptr};
}

std::string rounded(double value) {
    if (std::isnan(value)) return "nan";
    char digits[320];  // The largest double has 309 digits before the point.
    return {digits,
            std::to_chars(std::begin(digits), std::end(digits), value, std::chars_format::fixed, 0)
                .ptr};
}

// What the directive makes of the argument; false when it is for another kind.
bool append(std::string& result, Kind kind, const FormatArgument& argument) {
    const auto* text = std::get_if<std::string_view>(&argument);
    const auto* whole = std::get_if<std::int64_t>(&argument);
    const auto* real = std::get_if<double>(&argument);
    if (kind != Kind::text && text != nullptr) return false;
    if (text != nullptr) {
        result += *text;
    } else if (whole != nullptr) {
        result += std::to_string(*whole);
    } else if (kind == Kind::whole) {
        result += std::to_string(cutToWhole(*real));
    } else {
        result += kind == Kind::text ? shortest(*real) : rounded(*real);
    }
    return true;
}

}  // namespace

std::string formatText(std::string_view format, std::initializer_list<FormatArgument> arguments) {
    std::string result;
    const auto* next = arguments.begin();
    while (!format.empty()) {
        const std::size_t percent = format.find('%');
        result += format.substr(0, percent);
        if (percent == std::string_view::npos) break;
        format.remove_prefix(percent);
        if (format.starts_with("%%")) {
            result += '%';
            format.remove_prefix(2);
            continue;
        }
        const Directive* directive = directiveAt(format);
        // An argument of the wrong kind counts as used, so that those after it keep their places.
        const bool shown = directive != nullptr && next != arguments.end() &&
                           append(result, directive->kind, *next++);
        const std::size_t length = directive != nullptr ? directive->form.size() : 1;
        if (!shown) result += format.substr(0, length);
        format.remove_prefix(length);
    }
    return result;
}

}  // namespace korvane
