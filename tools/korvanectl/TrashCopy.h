// Copies an item that is still in the trash, a folder with all that it holds. Goes through no link
// and to no other file system, and writes over nothing that is there.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "korvanectl/Outcome.h"
#include "korvanectl/TrashHistory.h"

namespace korvane::ctl {

struct CopiedItem {
    std::uint64_t files = 0;
    std::uint64_t folders = 0;
    std::uint64_t links = 0;
    std::uint64_t bytes = 0;
    std::vector<std::string> missing;     // what could not be copied, with the reason
    std::vector<std::string> incomplete;  // what was copied in part, and what of it is not there
};

// What a copy of the item comes to, for a bar; a folder is gone through for it.
[[nodiscard]] std::uint64_t bytesInTrash(const ItemInTrash& item);

// Makes `target`, which must not be there. Permissions and times are the item's, and so is the
// owner where the caller may give files away. A failure of the item itself is a Failure; of what it
// holds, it is told and the rest is copied, unless the target's volume is full.
[[nodiscard]] Outcome<CopiedItem> copyFromTrash(const ItemInTrash& item,
                                                const std::filesystem::path& target,
                                                const std::function<void(std::uint64_t)>& progress);

}  // namespace korvane::ctl
