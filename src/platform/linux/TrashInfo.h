// The notes that a trash keeps of where its items came from (the Trash layout of freedesktop.org),
// which their users write.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace korvane {

// The path that the trash's note of an item says it came from, as it stands there but decoded;
// relative to the volume's root on volumes other than the user's own. Nothing when it says none.
[[nodiscard]] std::optional<std::string> originInTrashInfo(std::string_view text);

}  // namespace korvane
