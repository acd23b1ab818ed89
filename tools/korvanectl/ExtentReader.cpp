#include "korvanectl/ExtentReader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <variant>

#include "KorvaneProDataRecovery/ContentChecksum.h"
#include "korvanectl/NewFile.h"
#include "korvanectl/Text.h"

namespace korvane::ctl {

namespace {

// Direct reads want whole logical blocks of the device, which are at most of this size.
constexpr std::size_t kAlignment = ReadAround::kPiece;
constexpr std::size_t kBlock = 4 * 1024 * 1024;

struct FreeBlock {
    void operator()(std::uint8_t* block) const { std::free(block); }
};

bool writeAll(int file, const std::uint8_t* bytes, std::size_t count, std::uint64_t offset) {
    while (count > 0) {
        const ssize_t length = ::pwrite(file, bytes, count, static_cast<off_t>(offset));
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return false;
        bytes += length;
        count -= static_cast<std::size_t>(length);
        offset += static_cast<std::uint64_t>(length);
    }
    return true;
}

// From the device into the file, in the file's order, so that a checksum can be made on the way.
class ExtentCopy {
  public:
    ExtentCopy(const RecordedItem& item, int device, int file,
               const std::function<void(std::uint64_t)>& progress)
        : item_(item), device_(device), file_(file), progress_(progress) {
        block_.reset(static_cast<std::uint8_t*>(std::aligned_alloc(kAlignment, kBlock)));
        if (!block_) throw std::bad_alloc{};
    }

    // False, with errno set, when the file cannot be written. What cannot be read is left out.
    bool run() {
        if (::ftruncate(file_, static_cast<off_t>(item_.size)) != 0) return false;
        for (const FileExtent& extent : item_.extents) {
            if (extent.logical >= item_.size) break;
            zerosTo(extent.logical);
            if (isOnDevice(extent) && !copy(extent)) return false;
        }
        zerosTo(item_.size);
        return true;
    }
    std::optional<Sha256> checksum() { return checksum_.finish(); }
    const ReadAround& reading() const { return device_; }
    std::uint64_t bytesOnDevice() const { return bytesOnDevice_; }

  private:
    bool wantsChecksum() const { return (item_.flags & kRecordHasChecksum) != 0; }

    // The new file reads as zeros where nothing is written.
    void zerosTo(std::uint64_t place) {
        if (wantsChecksum() && place > done_) checksum_.addZeros(place - done_);
        done_ = std::max(done_, place);
    }

    bool copy(const FileExtent& extent) {
        const std::uint64_t length = std::min(extent.length, item_.size - extent.logical);
        for (std::uint64_t at = 0; at < length;) {
            const auto part =
                static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, length - at));
            const std::size_t whole = (part + kAlignment - 1) / kAlignment * kAlignment;
            (void)device_.read({block_.get(), whole}, extent.physical + at, extent.logical + at,
                               part);  // an early end is told like any place that is missing
            if (!writeAll(file_, block_.get(), part, extent.logical + at)) return false;
            if (wantsChecksum()) checksum_.add({block_.get(), part});
            at += part;
            bytesOnDevice_ += part;
            done_ = extent.logical + at;
            progress_(done_);
        }
        return true;
    }

    const RecordedItem& item_;
    ReadAround device_;
    int file_;
    const std::function<void(std::uint64_t)>& progress_;
    std::unique_ptr<std::uint8_t, FreeBlock> block_;
    ContentChecksum checksum_;
    std::uint64_t done_ = 0;
    std::uint64_t bytesOnDevice_ = 0;
};

std::string reasonNotOnDevice(std::uint32_t flags) {
    if ((flags & kExtentEncoded) != 0) return "its contents are compressed or encrypted";
    if ((flags & kExtentInline) != 0) {
        return "its contents are kept within the file system's own structures";
    }
    return "its file system does not say where on the device the contents are";
}

}  // namespace

std::string reasonNotRecoverable(const RecordedItem& item) {
    if (!S_ISREG(item.mode)) return "it is not a file";
    if ((item.flags & kRecordExtentsCut) != 0) return "not all places of its contents are recorded";
    std::uint64_t end = 0;
    for (const FileExtent& extent : item.extents) {
        if (!isRecoverable(extent)) return reasonNotOnDevice(extent.flags);
        const bool isSound = extent.logical >= end && extent.length > 0 &&
                             extent.logical + extent.length > extent.logical &&
                             extent.physical + extent.length > extent.physical &&
                             extent.physical + extent.length <= INT64_MAX;
        if (!isSound) return "its record makes no sense";
        end = extent.logical + extent.length;
    }
    // Of more no checksum is ever made: a forged record would have zeros hashed for years.
    const bool hasChecksum = (item.flags & kRecordHasChecksum) != 0;
    const std::uint64_t most = hasChecksum ? kMostChecksummed : INT64_MAX;
    return item.size > most ? "its record makes no sense" : "";
}

Outcome<RecoveredContents> recoverContents(const RecordedItem& item, int device, int folder,
                                           const std::string& name,
                                           const std::function<void(std::uint64_t)>& progress) {
    if (const std::string reason = reasonNotRecoverable(item); !reason.empty()) {
        return Failure{ExitStatus::refused, reason};
    }
    const auto failure = [&name](int error) {
        return Failure{ExitStatus::fileProblem,
                       fmt::format("cannot make {}: {}", printable(name), std::strerror(error))};
    };
    NewFile file{folder, name};
    if (file.error() != 0) return failure(file.error());
    ExtentCopy copy{item, device, file.get(), progress};
    if (!copy.run()) return failure(errno);
    const timespec modified{.tv_sec = item.modified, .tv_nsec = item.modifiedNanoseconds};
    const timespec times[] = {modified, modified};
    (void)::futimens(file.get(), times);  // a time that no file can have is not worth a failure
    const std::vector<ByteRange>& missing = copy.reading().missing();
    if (!missing.empty()) {
        std::uint64_t lost = 0;
        for (const ByteRange& range : missing) lost += range.length;
        if (lost == copy.bytesOnDevice()) {
            const int error = copy.reading().error();
            return Failure{ExitStatus::fileProblem,
                           fmt::format("nothing of it can be read from the device: {}",
                                       std::strerror(error != 0 ? error : EIO))};
        }
        if (const int error = file.finishIncomplete()) return failure(error);
        return RecoveredContents{ContentProof::incomplete, file.name(), missing};
    }
    if (const int error = file.finish()) return failure(error);
    const auto proof = (item.flags & kRecordHasChecksum) == 0 ? ContentProof::sizeAlone
                       : copy.checksum() == std::optional{item.checksum}
                           ? ContentProof::checksumMatches
                           : ContentProof::checksumDiffers;
    return RecoveredContents{proof, file.name(), {}};
}

}  // namespace korvane::ctl
