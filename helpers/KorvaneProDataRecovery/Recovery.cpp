#include "KorvaneProDataRecovery/Recovery.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <set>

#include "KorvaneProDataRecovery/ContentChecksum.h"
#include "KorvaneProDataRecovery/ItemRecording.h"
#include "KorvaneProDataRecovery/RecordFiles.h"
#include "KorvaneProDataRecovery/ResultFile.h"
#include "storage/SupportFolder.h"

namespace korvane {

namespace {

// Checksums are a comfort: each run may keep a disk busy with those that are still missing for
// moments, not for minutes.
constexpr std::chrono::seconds kReadingTime{5};
constexpr std::uint64_t kReadingOfRun = 256ULL * 1024 * 1024;

template <typename Number>
std::set<Number> numbersOf(const JobFile& file, Number RecoveryJob::*number) {
    std::set<Number> numbers;
    for (const RecoveryJob& job : file.jobs) numbers.insert(job.*number);
    return numbers;
}

}  // namespace

std::string recordFolderOf(const std::string& supportFolder, std::string_view inputPath) {
    const auto folderOf = [&](const std::string& volume) {
        return supportFolder + "/" + volumeFolderName(volume);
    };
    std::string volume = volumeNameOfInput(inputPath);
    std::error_code none;
    if (!std::filesystem::exists(folderOf(volume), none)) {
        // A second search of a volume at a time has a number behind the name.
        const std::size_t end = volume.find_last_not_of("0123456789");
        if (end != std::string::npos && volume[end] == ' ') volume.resize(end);
    }
    return folderOf(volume);
}

void recordJobs(const JobFile& file, const MachinePlaces& places, const std::string& recordFolder,
                const std::string& resultFolder,
                const std::function<void(const std::string&)>& tell) {
    if (file.refused > 0) tell(fmt::format("{} records are no jobs", file.refused));
    const EarlierRecords earlier{recordFolder, numbersOf(file, &RecoveryJob::node),
                                 std::chrono::system_clock::now()};
    const std::set<std::uint32_t> parents = numbersOf(file, &RecoveryJob::parent);
    std::map<std::string, TrashFolders> volumes;
    FolderLimit limit;
    ReadingLimit reading{.until = std::chrono::steady_clock::now() + kReadingTime,
                         .bytesOfFile = kMostChecksummed,
                         .bytesLeft = kReadingOfRun};
    for (const RecoveryJob& job : file.jobs) {
        TrashFolders& folders =
            volumes.try_emplace(job.device, places, job.device, parents).first->second;
        const auto place = folders.find(job.node, job.parent);
        if (!place) continue;  // emptied, or put back, before this program came to it
        auto items = recordItem(place->folder->folder.get(), place->folder->path, place->name,
                                limit, reading, earlier);
        // Gone since, or another item has taken its name.
        if (items.empty() || items.front().node != job.node) continue;
        items.front().origin = originOf(*place->folder, place->name);
        const auto* const before = earlier.of(items.front().node);
        if (before != nullptr && before->isFresh && isSameRecording(items, before->items)) continue;
        std::string bytes;
        for (RecordedItem& item : items) bytes += encodeItem(std::move(item));
        // Of a name that is taken the daemon tells, which looks for the result there.
        const auto saved = saveResult(resultFolder, job.resultName, bytes);
        if (!saved) tell(saved.error().message);
    }
}

}  // namespace korvane
