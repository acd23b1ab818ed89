#include "base/PropertyListBuilder.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <iterator>

#include "base/PropertyListCodec.h"

namespace korvane {

namespace {

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isXmlSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isXmlSpace(text.back())) text.remove_suffix(1);
    return text;
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

}  // namespace

// A whole number in decimal or, after 0x, in hexadecimal digits, with at most one sign.
std::optional<PropertyList> parsePropertyListInteger(std::string_view text) {
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
std::optional<PropertyList> parsePropertyListReal(std::string_view text) {
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

std::optional<PropertyList> parsePropertyListDate(std::string_view text) {
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

// Base64 in complete groups of four, with white space anywhere.
std::optional<PropertyList> parsePropertyListData(std::string_view text) {
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

const char* PropertyListBuilder::objectionToKey() const {
    if (!isIn(Container::dictionary)) return "a key outside a dictionary";
    return open_.back().hasKey ? "a key without a value" : nullptr;
}

const char* PropertyListBuilder::objectionToValue() const {
    if (open_.empty()) return root_ ? "a second value in the root" : nullptr;
    const bool lacksKey = open_.back().kind == Container::dictionary && !open_.back().hasKey;
    return lacksKey ? "a value without a key" : nullptr;
}

const char* PropertyListBuilder::objectionToContainer() const {
    return open_.size() == kPropertyListDepthLimit ? "containers too deep" : nullptr;
}

const char* PropertyListBuilder::objectionToEnd() const {
    return open_.back().hasKey ? "a key without a value" : nullptr;
}

void PropertyListBuilder::addKey(std::string key) {
    children_.push_back({std::move(key), PropertyList()});
    open_.back().hasKey = true;
}

void PropertyListBuilder::addValue(PropertyList value) {
    if (open_.empty()) {
        root_ = std::move(value);
    } else if (open_.back().kind == Container::dictionary) {
        children_.back().value = std::move(value);
        open_.back().hasKey = false;
    } else {
        children_.push_back({std::string(), std::move(value)});
    }
}

void PropertyListBuilder::open(Container container) {
    open_.push_back({container, false, children_.size()});
}

void PropertyListBuilder::close() {
    const Open container = open_.back();
    open_.pop_back();
    const auto first = children_.begin() + static_cast<std::ptrdiff_t>(container.firstChild);
    PropertyList value;
    if (container.kind == Container::dictionary) {
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
    addValue(std::move(value));
}

}  // namespace korvane
