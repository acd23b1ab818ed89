// One property list's file, open and locked for a rewriting. Shared by the two halves of
// PropertyListFile.h; nobody else needs it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/PropertyListFile.h"
#include "base/PropertyListPlace.h"

namespace korvane {

struct PropertyListTarget {
    PropertyListPlace place;
    OpenFile folder;
    OpenFile file;  // nothing where there is none yet
};

// Waits a little for other writers; closing the file lets them go on.
[[nodiscard]] Result<PropertyListTarget> openTarget(const std::string& path);

// Writes it; `written` is the file's status then, and nothing where that is not certain.
[[nodiscard]] Result<std::monostate> writeTarget(PropertyListTarget& target, std::string_view text,
                                                 mode_t mode, Durability durability,
                                                 std::optional<struct stat>& written);

// The whole text beside a file that is torn, put back in its place. Nothing when there is none that
// can be trusted; when putting it back fails it stays, and what it holds counts. `mayUseKept`: the
// copy that stays is not older than what was lost, or all that there can be.
[[nodiscard]] std::optional<PropertyList> restoreTorn(const std::string& path, bool mayUseKept);

// Reads a file beside the list, or the list itself, from an open file.
[[nodiscard]] Result<OpenFile> openForReading(int folder, const std::string& name,
                                              const std::string& path, struct stat& status);

}  // namespace korvane
