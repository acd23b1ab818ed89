// Result files in a folder that everybody can write: one appears whole or not at all, and never in
// place of somebody else's file.
#pragma once

#include <string>
#include <string_view>

#include "base/Result.h"

namespace korvane {

enum class Saved {
    whole,
    nameIsTaken,  // by something that is not this program's; it stays
};

// Makes the file `name` in the folder, readable by its owner alone. A regular file of this user
// that no other may write and without further names, left over from before or made by a run at the
// same time, is replaced.
[[nodiscard]] Result<Saved> saveResult(const std::string& folder, const std::string& name,
                                       std::string_view bytes);

// The contents of a regular file of this user's that no other may write, not through a link and not
// longer than `most`.
[[nodiscard]] Result<std::string> readOwnFile(const std::string& path, std::size_t most);

}  // namespace korvane
