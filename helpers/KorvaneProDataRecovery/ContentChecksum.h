// SHA-256 of contents as they come by.
#pragma once

#include <openssl/evp.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "KorvaneProDataRecovery/ResultRecords.h"

namespace korvane {

class ContentChecksum {
  public:
    ContentChecksum();

    void add(std::span<const std::uint8_t> bytes);
    // So many zeros, as a hole in a file reads.
    void addZeros(std::uint64_t count);
    // Ends it; nothing when the library refused one of the steps.
    [[nodiscard]] std::optional<Sha256> finish();

  private:
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> context_;
    bool isGood_ = false;
};

// Checksums are a comfort, and the contents must be read for them: a larger file gets none.
inline constexpr std::uint64_t kMostChecksummed = 64ULL * 1024 * 1024;

// What may be read for checksums in one run: time and bytes.
struct ReadingLimit {
    std::chrono::steady_clock::time_point until;
    std::uint64_t bytesOfFile = 0;
    std::uint64_t bytesLeft = 0;
};

// The checksum of the open file's contents, `size` bytes; nothing when the limit does not suffice,
// or the contents changed or could not be read. Takes what it read from the limit.
[[nodiscard]] std::optional<Sha256> checksumOfFile(int file, std::uint64_t size,
                                                   ReadingLimit& limit);

}  // namespace korvane
