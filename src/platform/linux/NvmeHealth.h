// What an NVMe drive says of its health, cut out of its log page. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace korvane {

// NVM Express 1.4, 5.14.1.2: SMART / health information, log page 02h.
inline constexpr std::uint8_t kNvmeHealthLogPage = 0x02;
inline constexpr std::size_t kNvmeHealthLogBytes = 512;

// Whether any critical warning stands: too little spare, too hot, unreliable, read-only, without
// power for its cache. Nothing when the page is cut short.
[[nodiscard]] std::optional<bool> hasCriticalWarning(std::span<const std::uint8_t> page);

}  // namespace korvane
