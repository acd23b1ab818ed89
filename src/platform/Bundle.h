// What the program brings along: helper programs and texts.
#pragma once

#include <string>
#include <string_view>

namespace korvane {

// Strings tables by name.
inline constexpr char kDefaultStringsTable[] = "Localizable";

class Bundle {
  public:
    virtual ~Bundle() = default;

    // The path of an executable in the built-in plug-ins folder; empty when it is not there.
    [[nodiscard]] virtual std::string plugIn(std::string_view name) = 0;

    // The text under the key in the user's language, else the fallback.
    [[nodiscard]] virtual std::string localizedString(std::string_view table, std::string_view key,
                                                      std::string_view fallback) = 0;
};

}  // namespace korvane
