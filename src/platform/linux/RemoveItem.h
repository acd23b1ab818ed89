// Removing an item with all that is in it, relative to a folder that is held open.
#pragma once

#include <string>

namespace korvane {

// Links are removed, not followed, and what is mounted below is left alone. 0, or the errno of the
// first failure: a folder that cannot be emptied wholly keeps what could not be removed.
[[nodiscard]] int removeItem(int parent, const std::string& name);

}  // namespace korvane
