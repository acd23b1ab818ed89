// The markup of notification bodies.
#pragma once

#include <string>
#include <string_view>

namespace korvane {

// The text with the characters that the markup gives a meaning replaced by their entities.
[[nodiscard]] std::string escapeMarkup(std::string_view text);

}  // namespace korvane
