// The values that settings and records are made of: what a property list can hold, as plain
// values in memory. Reading and writing their XML form is PropertyListCodec's work, files are
// PropertyListFile's.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace korvane {

class PropertyList;

// A moment as a property list stores it: whole seconds, always UTC.
using PropertyListDate = std::chrono::sys_seconds;
// Uninterpreted bytes (<data>).
using PropertyListData = std::vector<std::byte>;
using PropertyListArray = std::vector<PropertyList>;

// A string-keyed dictionary, kept sorted by the keys' bytes: equal contents always write equal
// bytes. Look-ups are O(log n); adding keys in ascending order is O(1) each.
class Dictionary {
  public:
    struct Entry;
    using const_iterator = std::vector<Entry>::const_iterator;
    using iterator = std::vector<Entry>::iterator;

    Dictionary();
    Dictionary(std::initializer_list<Entry> entries);
    // Takes entries in any order; of those with equal keys the last one stands.
    explicit Dictionary(std::vector<Entry> entries);
    Dictionary(const Dictionary&);
    Dictionary(Dictionary&&) noexcept;
    Dictionary& operator=(const Dictionary&);
    Dictionary& operator=(Dictionary&&) noexcept;
    ~Dictionary();

    [[nodiscard]] std::size_t size() const;
    [[nodiscard]] bool empty() const;
    [[nodiscard]] bool contains(std::string_view key) const;
    // The value under the key, or null. The pointer holds until the dictionary next changes.
    [[nodiscard]] const PropertyList* find(std::string_view key) const;
    [[nodiscard]] PropertyList* find(std::string_view key);
    // Stores the value, replacing one already under the key.
    void set(std::string_view key, PropertyList value);
    // Whether there was something to remove.
    bool remove(std::string_view key);
    void reserve(std::size_t count);

    [[nodiscard]] const_iterator begin() const;
    [[nodiscard]] const_iterator end() const;
    // Through these the values may be changed; the keys are constant.
    [[nodiscard]] iterator begin();
    [[nodiscard]] iterator end();

    friend bool operator==(const Dictionary&, const Dictionary&);

  private:
    std::vector<Entry> entries_;
};

// One value. A real that is not finite is legal and is written as the format has it.
class PropertyList {
  public:
    PropertyList();  // the empty string, the format's nearest thing to nothing
    PropertyList(bool value);
    PropertyList(int value);
    PropertyList(std::int64_t value);
    PropertyList(std::uint64_t value);
    PropertyList(double value);
    PropertyList(const char* value);
    PropertyList(std::string_view value);
    PropertyList(std::string value);
    PropertyList(PropertyListDate value);
    PropertyList(PropertyListData value);
    PropertyList(PropertyListArray value);
    PropertyList(Dictionary value);

    // The value as exactly this kind, or null when it is of another.
    [[nodiscard]] const bool* boolean() const;
    [[nodiscard]] const std::int64_t* integer() const;
    // Only integers above the largest std::int64_t are held in this form.
    [[nodiscard]] const std::uint64_t* largeInteger() const;
    [[nodiscard]] const double* real() const;
    [[nodiscard]] const std::string* string() const;
    [[nodiscard]] const PropertyListDate* date() const;
    [[nodiscard]] const PropertyListData* data() const;
    [[nodiscard]] const PropertyListArray* array() const;
    [[nodiscard]] PropertyListArray* array();
    [[nodiscard]] const Dictionary* dictionary() const;
    [[nodiscard]] Dictionary* dictionary();

    // Equal kinds with equal contents; two reals that are not a number count as equal, so that a
    // comparison can tell whether something changed.
    friend bool operator==(const PropertyList&, const PropertyList&);

  private:
    std::variant<std::string, bool, std::int64_t, std::uint64_t, double, PropertyListDate,
                 PropertyListData, PropertyListArray, Dictionary>
        value_;
};

struct Dictionary::Entry {
    std::string key;
    PropertyList value;
    friend bool operator==(const Entry&, const Entry&) = default;
};

// Lenient readings, for settings that another program may have stored under another type. A text
// counts by the decimal number it begins with (after white space), a boolean as 0 or 1, a real is
// cut toward zero and held within the range of the result; anything else, and null, is 0, NO or
// the empty text.
[[nodiscard]] std::int64_t integerValue(const PropertyList* value);
[[nodiscard]] double doubleValue(const PropertyList* value);
// A number counts as YES when it is not 0; a text when it begins with Y, y, T, t or a digit 1-9
// (after white space, a sign and zeros).
[[nodiscard]] bool booleanValue(const PropertyList* value);
// A number is shown in decimal, a boolean as "0" or "1".
[[nodiscard]] std::string stringValue(const PropertyList* value);

}  // namespace korvane
