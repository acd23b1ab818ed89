#include "platform/linux/NvmeHealth.h"

namespace korvane {

std::optional<bool> hasCriticalWarning(std::span<const std::uint8_t> page) {
    if (page.size() < kNvmeHealthLogBytes) return std::nullopt;
    return page[0] != 0;
}

}  // namespace korvane
