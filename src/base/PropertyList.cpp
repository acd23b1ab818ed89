#include "base/PropertyList.h"

#include <locale.h>
#include <stdlib.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace korvane {

namespace {

bool isWhiteSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

std::string_view withoutLeadingWhiteSpace(std::string_view text) {
    while (!text.empty() && isWhiteSpace(text.front())) text.remove_prefix(1);
    return text;
}

// The whole number that the text begins with, held within the range of the result.
std::int64_t leadingInteger(std::string_view text) {
    text = withoutLeadingWhiteSpace(text);
    const bool negative = !text.empty() && text.front() == '-';
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    // Only one sign: from_chars itself takes a minus, which must not follow a plus.
    const std::size_t firstDigit = negative ? 1 : 0;
    if (text.size() <= firstDigit || !isDigit(text[firstDigit])) return 0;
    std::int64_t value = 0;
    const auto outcome = std::from_chars(text.data(), text.data() + text.size(), value);
    if (outcome.ec == std::errc::result_out_of_range) {
        return negative ? std::numeric_limits<std::int64_t>::min()
                        : std::numeric_limits<std::int64_t>::max();
    }
    return value;
}

// The decimal number that the text begins with. Names such as "inf" are no numbers here.
double leadingReal(std::string_view text) {
    text = withoutLeadingWhiteSpace(text);
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (!text.empty() && text.front() == '-') return 0;
    }
    std::string_view unsignedPart = text;
    const bool negative = !text.empty() && text.front() == '-';
    if (negative) unsignedPart.remove_prefix(1);
    if (unsignedPart.empty() || (!isDigit(unsignedPart.front()) && unsignedPart.front() != '.')) {
        return 0;
    }
    double value = 0;
    const auto outcome = std::from_chars(text.data(), text.data() + text.size(), value);
    if (outcome.ec != std::errc::result_out_of_range) return value;
    // from_chars does not tell too large from too small; strtod does, and what it is given here is
    // known to be plain decimal.
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", nullptr);
    value = strtod_l(std::string(text.data(), outcome.ptr).c_str(), nullptr, cLocale);
    return std::clamp(value, std::numeric_limits<double>::lowest(),
                      std::numeric_limits<double>::max());
}

}  // namespace

std::int64_t integerValue(const PropertyList* value) {
    if (value == nullptr) return 0;
    if (const auto* integer = value->integer()) return *integer;
    if (value->largeInteger() != nullptr) return std::numeric_limits<std::int64_t>::max();
    if (const auto* boolean = value->boolean()) return *boolean ? 1 : 0;
    if (const auto* text = value->string()) return leadingInteger(*text);
    const auto* real = value->real();
    if (real == nullptr || std::isnan(*real)) return 0;
    // 2^63 is the smallest double above the range, and its negation is the range's lower end.
    constexpr double kEnd = 9223372036854775808.0;
    if (*real >= kEnd) return std::numeric_limits<std::int64_t>::max();
    if (*real < -kEnd) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(*real);
}

double doubleValue(const PropertyList* value) {
    if (value == nullptr) return 0;
    if (const auto* real = value->real()) return *real;
    if (const auto* integer = value->integer()) return static_cast<double>(*integer);
    if (const auto* large = value->largeInteger()) return static_cast<double>(*large);
    if (const auto* boolean = value->boolean()) return *boolean ? 1 : 0;
    if (const auto* text = value->string()) return leadingReal(*text);
    return 0;
}

bool booleanValue(const PropertyList* value) {
    if (value == nullptr) return false;
    if (const auto* boolean = value->boolean()) return *boolean;
    if (const auto* integer = value->integer()) return *integer != 0;
    if (value->largeInteger() != nullptr) return true;
    if (const auto* real = value->real()) return *real != 0;
    const auto* string = value->string();
    if (string == nullptr) return false;
    std::string_view text = withoutLeadingWhiteSpace(*string);
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) text.remove_prefix(1);
    while (!text.empty() && text.front() == '0') text.remove_prefix(1);
    if (text.empty()) return false;
    return std::string_view("YyTt123456789").find(text.front()) != std::string_view::npos;
}

std::string stringValue(const PropertyList* value) {
    if (value == nullptr) return {};
    if (const auto* text = value->string()) return *text;
    if (const auto* integer = value->integer()) return std::to_string(*integer);
    if (const auto* large = value->largeInteger()) return std::to_string(*large);
    if (const auto* boolean = value->boolean()) return *boolean ? "1" : "0";
    const auto* real = value->real();
    if (real == nullptr) return {};
    char digits[32];  // The longest shortest form, "-2.2250738585072014e-308", has 24 characters.
    const auto end = std::to_chars(std::begin(digits), std::end(digits), *real).ptr;
    return {digits, end};
}

Dictionary::Dictionary() = default;
Dictionary::Dictionary(const Dictionary&) = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<Entry> entries)
    : Dictionary(std::vector<Entry>(entries)) {}

Dictionary::Dictionary(std::vector<Entry> entries) : entries_(std::move(entries)) {
    const auto outOfOrder =
        std::adjacent_find(entries_.begin(), entries_.end(),
                           [](const Entry& a, const Entry& b) { return a.key >= b.key; });
    if (outOfOrder == entries_.end()) return;
    std::stable_sort(entries_.begin(), entries_.end(),
                     [](const Entry& a, const Entry& b) { return a.key < b.key; });
    // From the back, the first of equal keys is the one given last.
    const auto kept = std::unique(entries_.rbegin(), entries_.rend(),
                                  [](const Entry& a, const Entry& b) { return a.key == b.key; });
    entries_.erase(entries_.begin(), kept.base());
}

std::size_t Dictionary::size() const { return entries_.size(); }

bool Dictionary::empty() const { return entries_.empty(); }

bool Dictionary::contains(std::string_view key) const { return find(key) != nullptr; }

const PropertyList* Dictionary::find(std::string_view key) const {
    const auto found =
        std::lower_bound(entries_.begin(), entries_.end(), key,
                         [](const Entry& entry, std::string_view k) { return entry.key < k; });
    return found != entries_.end() && found->key == key ? &found->value : nullptr;
}

PropertyList* Dictionary::find(std::string_view key) {
    const auto found =
        std::lower_bound(entries_.begin(), entries_.end(), key,
                         [](const Entry& entry, std::string_view k) { return entry.key < k; });
    return found != entries_.end() && found->key == key ? &found->value : nullptr;
}

void Dictionary::set(std::string_view key, PropertyList value) {
    if (entries_.empty() || entries_.back().key < key) {
        entries_.push_back({std::string(key), std::move(value)});
        return;
    }
    const auto place =
        std::lower_bound(entries_.begin(), entries_.end(), key,
                         [](const Entry& entry, std::string_view k) { return entry.key < k; });
    if (place != entries_.end() && place->key == key) {
        place->value = std::move(value);
    } else {
        entries_.insert(place, {std::string(key), std::move(value)});
    }
}

bool Dictionary::remove(std::string_view key) {
    const auto found =
        std::lower_bound(entries_.begin(), entries_.end(), key,
                         [](const Entry& entry, std::string_view k) { return entry.key < k; });
    if (found == entries_.end() || found->key != key) return false;
    entries_.erase(found);
    return true;
}

void Dictionary::reserve(std::size_t count) { entries_.reserve(count); }

Dictionary::const_iterator Dictionary::begin() const { return entries_.begin(); }

Dictionary::const_iterator Dictionary::end() const { return entries_.end(); }

Dictionary::iterator Dictionary::begin() { return entries_.begin(); }

Dictionary::iterator Dictionary::end() { return entries_.end(); }

bool operator==(const Dictionary& a, const Dictionary& b) { return a.entries_ == b.entries_; }

PropertyList::PropertyList() = default;
PropertyList::PropertyList(bool value) : value_(value) {}
PropertyList::PropertyList(int value) : value_(static_cast<std::int64_t>(value)) {}
PropertyList::PropertyList(std::int64_t value) : value_(value) {}
PropertyList::PropertyList(std::uint64_t value) {
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        value_ = static_cast<std::int64_t>(value);
    } else {
        value_ = value;
    }
}
PropertyList::PropertyList(double value) : value_(value) {}
PropertyList::PropertyList(const char* value) : value_(std::string(value)) {}
PropertyList::PropertyList(std::string_view value) : value_(std::string(value)) {}
PropertyList::PropertyList(std::string value) : value_(std::move(value)) {}
PropertyList::PropertyList(PropertyListDate value) : value_(value) {}
PropertyList::PropertyList(PropertyListData value) : value_(std::move(value)) {}
PropertyList::PropertyList(PropertyListArray value) : value_(std::move(value)) {}
PropertyList::PropertyList(Dictionary value) : value_(std::move(value)) {}

const bool* PropertyList::boolean() const { return std::get_if<bool>(&value_); }
const std::int64_t* PropertyList::integer() const { return std::get_if<std::int64_t>(&value_); }
const std::uint64_t* PropertyList::largeInteger() const {
    return std::get_if<std::uint64_t>(&value_);
}
const double* PropertyList::real() const { return std::get_if<double>(&value_); }
const std::string* PropertyList::string() const { return std::get_if<std::string>(&value_); }
const PropertyListDate* PropertyList::date() const {
    return std::get_if<PropertyListDate>(&value_);
}
const PropertyListData* PropertyList::data() const {
    return std::get_if<PropertyListData>(&value_);
}
const PropertyListArray* PropertyList::array() const {
    return std::get_if<PropertyListArray>(&value_);
}
PropertyListArray* PropertyList::array() { return std::get_if<PropertyListArray>(&value_); }
const Dictionary* PropertyList::dictionary() const { return std::get_if<Dictionary>(&value_); }
Dictionary* PropertyList::dictionary() { return std::get_if<Dictionary>(&value_); }

bool operator==(const PropertyList& a, const PropertyList& b) {
    const double* realA = a.real();
    const double* realB = b.real();
    if (realA != nullptr && realB != nullptr && std::isnan(*realA) && std::isnan(*realB)) {
        return true;
    }
    return a.value_ == b.value_;
}

}  // namespace korvane
