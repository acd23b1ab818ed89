#include "KorvaneProDataRecovery/ContentChecksum.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

namespace korvane {

namespace {

constexpr std::size_t kBlock = 256 * 1024;

bool isSameState(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

ContentChecksum::ContentChecksum() : context_(EVP_MD_CTX_new()) {
    isGood_ = context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1;
}

void ContentChecksum::add(std::span<const std::uint8_t> bytes) {
    isGood_ = isGood_ && EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1;
}

void ContentChecksum::addZeros(std::uint64_t count) {
    static constexpr std::array<std::uint8_t, 65536> kZeros{};
    while (count > 0 && isGood_) {
        const std::uint64_t part = std::min<std::uint64_t>(count, kZeros.size());
        add({kZeros.data(), static_cast<std::size_t>(part)});
        count -= part;
    }
}

std::optional<Sha256> ContentChecksum::finish() {
    Sha256 sum{};
    unsigned length = 0;
    isGood_ = isGood_ && EVP_DigestFinal_ex(context_.get(), sum.data(), &length) == 1 &&
              length == sum.size();
    return isGood_ ? std::optional{sum} : std::nullopt;
}

std::optional<Sha256> checksumOfFile(int file, std::uint64_t size, ReadingLimit& limit) {
    struct stat before {};
    if (size > limit.bytesOfFile || size > limit.bytesLeft || ::fstat(file, &before) != 0 ||
        static_cast<std::uint64_t>(before.st_size) != size) {
        return std::nullopt;
    }
    limit.bytesLeft -= size;
    ContentChecksum checksum;
    std::vector<std::uint8_t> block(kBlock);
    std::uint64_t done = 0;
    while (done < size) {
        if (std::chrono::steady_clock::now() >= limit.until) return std::nullopt;
        const ssize_t length = ::pread(file, block.data(), block.size(), static_cast<off_t>(done));
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return std::nullopt;
        checksum.add({block.data(), static_cast<std::size_t>(length)});
        done += static_cast<std::uint64_t>(length);
    }
    struct stat after {};
    if (done != size || ::fstat(file, &after) != 0 || !isSameState(before, after)) {
        return std::nullopt;
    }
    return checksum.finish();
}

}  // namespace korvane
