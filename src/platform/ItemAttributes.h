// What is known of an item of a folder without opening it.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "platform/Clock.h"

namespace korvane {

enum class ItemKind { file, folder, link, other };

struct ItemAttributes {
    ItemKind kind = ItemKind::other;
    std::uint64_t sizeBytes = 0;
    Time modificationDate{};
    std::uint32_t ownerId = 0;
    mode_t permissions = 0;
};

}  // namespace korvane
