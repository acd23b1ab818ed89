// What tells one state of the settings document from another where it counts: whether somebody's
// settings or an inventory changed, and how much there is to write.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/PropertyList.h"

namespace korvane {

struct SettingsDigest {
    // Of all but the statuses and due times of the checks, which a machine finds again by itself.
    std::uint64_t fingerprint = 0;
    // About as many as the document has in its file.
    std::size_t bytes = 0;
};

[[nodiscard]] SettingsDigest digestSettings(const PropertyList& document);

}  // namespace korvane
