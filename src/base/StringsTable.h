// Localized texts by key: a strings table read from an XML property list such as
// en.lproj/Localizable.strings.
#pragma once

#include <string>
#include <string_view>

#include "base/PropertyList.h"

namespace korvane {

class StringsTable {
  public:
    StringsTable() = default;
    // Values that are not texts are left out.
    explicit StringsTable(Dictionary texts) : texts_(std::move(texts)) {}

    // The text under the key, else the fallback.
    [[nodiscard]] std::string text(std::string_view key, std::string_view fallback) const {
        const PropertyList* const value = texts_.find(key);
        const std::string* const text = value == nullptr ? nullptr : value->string();
        return text == nullptr ? std::string{fallback} : *text;
    }

  private:
    Dictionary texts_;
};

}  // namespace korvane
