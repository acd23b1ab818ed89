// Puts a property list together from what a reader meets, in the order in which it is met, and says
// what is wrong with that order. Shared by the two readers; nobody else needs it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/PropertyList.h"

namespace korvane {

inline bool isXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The contents of an element as the value that they stand for, or nothing when they are none.
// White space around them counts for nothing.
[[nodiscard]] std::optional<PropertyList> parsePropertyListInteger(std::string_view text);
[[nodiscard]] std::optional<PropertyList> parsePropertyListReal(std::string_view text);
[[nodiscard]] std::optional<PropertyList> parsePropertyListDate(std::string_view text);
[[nodiscard]] std::optional<PropertyList> parsePropertyListData(std::string_view text);

// The children of all open containers lie in one list, in the order in which they were met; a
// container that closes takes its own from the end, so that each is allocated once and at its size.
class PropertyListBuilder {
  public:
    enum class Container { array, dictionary };

    // Each of these says what is wrong with meeting this here, or null.
    [[nodiscard]] const char* objectionToKey() const;
    [[nodiscard]] const char* objectionToValue() const;
    [[nodiscard]] const char* objectionToContainer() const;  // On top of that to a value.
    [[nodiscard]] const char* objectionToEnd() const;        // Of the innermost container.

    // Only where there is no objection.
    void addKey(std::string key);
    void addValue(PropertyList value);
    void open(Container container);
    void close();

    [[nodiscard]] bool isInContainer() const { return !open_.empty(); }
    [[nodiscard]] bool isIn(Container container) const {
        return !open_.empty() && open_.back().kind == container;
    }
    // The root, once it is complete.
    [[nodiscard]] std::optional<PropertyList>& root() { return root_; }

  private:
    struct Open {
        Container kind;
        bool hasKey;  // A key was met and its value was not yet.
        std::size_t firstChild;
    };

    std::vector<Open> open_;
    std::vector<Dictionary::Entry> children_;
    std::optional<PropertyList> root_;
};

}  // namespace korvane
