#include "KorvaneProDataRecovery/RecordFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <span>
#include <utility>

#include "platform/linux/UniqueFd.h"
#include "storage/SupportFolder.h"

namespace korvane {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kRecordsOfARead = 256;
// Reading so much takes a tenth of a second; the records of ten folders of 1,000 files fit in.
constexpr std::uint64_t kMostLookedThrough = 32ULL * 1024 * 1024;
// Files are kept for days from their last change: what is not written again for this long is there
// nearly as long as what is, and a trash in steady use is recorded four times a day.
constexpr std::chrono::hours kFresh{6};

// How many bytes could be read.
std::size_t readFully(int file, std::span<std::uint8_t> bytes, off_t offset) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t got = ::pread(file, bytes.data() + done, bytes.size() - done,
                                    offset + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
    }
    return done;
}

bool isFreshFile(const std::string& path, EarlierRecords::Moment now) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return false;
    const auto age = now - std::chrono::system_clock::from_time_t(status.st_mtim.tv_sec);
    return age > -kFresh && age < kFresh;
}

}  // namespace

std::vector<std::string> recordFilesIn(const std::string& folder) {
    std::vector<std::string> files;
    std::error_code none;
    for (fs::directory_iterator entry{folder, none}, end; !none && entry != end;
         entry.increment(none)) {
        std::error_code gone;
        if (entry->path().filename().string().starts_with(kTrashDeletesPrefix) &&
            entry->symlink_status(gone).type() == fs::file_type::regular) {
            files.push_back(entry->path().string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::uint64_t forEachItemIn(const std::string& path, std::uint64_t most,
                            const std::function<void(ItemAssembly::Collected&&)>& each) {
    const UniqueFd file{
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return 0;
    const std::uint64_t count = static_cast<std::uint64_t>(status.st_size) / kResultRecordSize;
    std::uint64_t next = count - std::min(count, most / kResultRecordSize);
    const std::uint64_t length = (count - next) * kResultRecordSize;
    std::vector<std::array<std::uint8_t, kResultRecordSize>> records(kRecordsOfARead);
    const std::span<std::uint8_t> bytes{records.front().data(), records.size() * kResultRecordSize};
    ItemAssembly assembly;
    while (next < count) {
        // Anybody may have made the file terabytes long without writing them.
        const off_t data =
            ::lseek(file.get(), static_cast<off_t>(next * kResultRecordSize), SEEK_DATA);
        if (data < 0 && errno == ENXIO) break;
        if (data >= 0) {
            const std::uint64_t first = static_cast<std::uint64_t>(data) / kResultRecordSize;
            if (first > next) assembly.interrupt();
            next = first;
        }
        const std::size_t got =
            readFully(file.get(), bytes, static_cast<off_t>(next * kResultRecordSize)) /
            kResultRecordSize;
        if (got == 0) break;
        next += got;
        for (std::size_t i = 0; i < got; ++i) {
            const auto record = decodeRecord(records[i]);
            if (!record) assembly.interrupt();
            auto collected = record ? assembly.add(*record) : std::nullopt;
            if (collected) each(std::move(*collected));
        }
    }
    return length;
}

EarlierRecords::EarlierRecords(const std::string& folder, std::set<std::uint64_t> nodes,
                               Moment now) {
    std::vector<std::string> files = recordFilesIn(folder);
    std::reverse(files.begin(), files.end());
    std::uint64_t left = kMostLookedThrough;
    for (const std::string& path : files) {
        if (nodes.empty() || left < kResultRecordSize) return;
        const bool isFresh = isFreshFile(path, now);
        std::map<std::uint64_t, Recording> found;
        left -= forEachItemIn(path, left, [&](ItemAssembly::Collected&& collected) {
            RecordedItem& item = collected.item;
            if (!nodes.contains(item.trashNode)) return;
            Recording& recording = found[item.trashNode];
            if (item.node == item.trashNode) recording = {.items = {}, .isFresh = isFresh};
            recording.items.push_back(std::move(item));
        });
        for (const auto& [node, recording] : found) nodes.erase(node);
        recordings_.merge(found);
    }
}

const EarlierRecords::Recording* EarlierRecords::of(std::uint64_t node) const {
    const auto found = recordings_.find(node);
    return found == recordings_.end() ? nullptr : &found->second;
}

}  // namespace korvane
