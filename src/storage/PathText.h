// Parts of paths, as texts: nothing here looks at a disk.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

namespace korvane {

// The last component, slashes after it aside; "/" for the root and empty for the empty path.
[[nodiscard]] std::string_view lastPathComponent(std::string_view path);

// From the last "/" to the end, that "/" included; nothing where there is none.
[[nodiscard]] std::optional<std::string_view> fromLastSlash(std::string_view path);

// What is between the slashes, in order, as views of the path. Empty components do not count.
[[nodiscard]] std::vector<std::string_view> pathComponents(std::string_view path);

}  // namespace korvane
