#include "KorvaneProDataRecovery/Recovery.h"

#include <fmt/format.h>

#include <chrono>
#include <map>
#include <memory>

#include "KorvaneProDataRecovery/ContentChecksum.h"
#include "KorvaneProDataRecovery/ItemRecording.h"
#include "KorvaneProDataRecovery/ResultFile.h"

namespace korvane {

namespace {

// Checksums are a comfort that every scan of a trash asks for anew: they may keep a disk busy for
// moments, not for minutes.
constexpr std::chrono::seconds kReadingTime{5};
constexpr std::uint64_t kReadingOfRun = 256ULL * 1024 * 1024;

}  // namespace

void recordJobs(const JobFile& file, const MachinePlaces& places, const std::string& resultFolder,
                const std::function<void(const std::string&)>& tell) {
    if (file.refused > 0) tell(fmt::format("{} records are no jobs", file.refused));
    std::map<std::string, TrashFolders> volumes;
    FolderLimit limit;
    ReadingLimit reading{.until = std::chrono::steady_clock::now() + kReadingTime,
                         .bytesOfFile = kMostChecksummed,
                         .bytesLeft = kReadingOfRun};
    for (const RecoveryJob& job : file.jobs) {
        TrashFolders& folders = volumes.try_emplace(job.device, places, job.device).first->second;
        const auto place = folders.find(job.node, job.parent);
        if (!place) continue;  // emptied, or put back, before this program came to it
        auto items = recordItem(place->folder->folder.get(), place->folder->path, place->name,
                                limit, reading);
        // Gone since, or another item has taken its name.
        if (items.empty() || static_cast<std::uint32_t>(items.front().node) != job.node) continue;
        items.front().origin = originOf(*place->folder, place->name);
        std::string bytes;
        for (RecordedItem& item : items) bytes += encodeItem(std::move(item));
        if (const auto saved = saveResult(resultFolder, job.resultName, bytes); !saved) {
            tell(saved.error().message);
        }
    }
}

}  // namespace korvane
