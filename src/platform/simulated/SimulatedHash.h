// The one hash of the simulated machine: FNV-1a, the same on every build and every run, so that
// digests and seeded orders can be compared between them.
#pragma once

#include <cstdint>
#include <string_view>

namespace korvane {

// FNV-1a, 64 bits: offset basis and prime of the published algorithm.
inline constexpr std::uint64_t kHashStart = 0xcbf29ce484222325;
inline constexpr std::uint64_t kHashPrime = 0x100000001b3;

[[nodiscard]] constexpr std::uint64_t hashBytes(std::uint64_t start, std::string_view bytes) {
    std::uint64_t hash = start;
    for (const char byte : bytes) {
        hash ^= static_cast<unsigned char>(byte);
        hash *= kHashPrime;
    }
    return hash;
}

}  // namespace korvane
