// The watch over the trash folders: which are watched, and the scan of one that has changed.

#include <algorithm>
#include <iterator>

#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "platform/VolumeOfPath.h"
#include "storage/SupportFolder.h"
#include "storage/VolumeEntry.h"
#include "trash/TrashFormats.h"
#include "trash/TrashRecords.h"

namespace korvane {

namespace {

constexpr std::size_t kMostItemsOfAScan = 100;
// The cause in the log of folders that are not watched.
constexpr char kWatching[] = "watching trash folders";
// Other programs take and give back watches; where it is the limit that is too low, only a person
// helps.
constexpr std::chrono::minutes kFirstWatchDelay{1};
constexpr std::chrono::minutes kLastWatchDelay{60};

// The volume that a folder lies on, as far as it is known.
struct TrashVolume {
    std::string path;
    std::string name;
    std::int16_t number = 0;
};

std::optional<TrashVolume> trashVolumeOf(Volumes& volumes, const std::string& folder) {
    const std::optional<PathVolume> volume = volumeOfPath(volumes, folder);
    if (!volume) return std::nullopt;
    const VolumeInfo& info = volume->info;
    return TrashVolume{info.root.rootPath, info.name, info.referenceNumber};
}

}  // namespace

void KorvaneProDaemon::setupTrashRetainer(bool scanNow) {
    for (auto& slot : trashRetainerFNSubscriptionRefArray) slot.reset();
    trashSlots.clear();
    trashWatchTimer.reset();
    if (!booleanValue(preference(kTrashHistoryOnOff))) {
        waitingSearches.clear();
        return;
    }

    std::vector<std::string> folders;
    for (const PropertyList& element : volumeArray) {
        const auto entry = ConstVolumeEntry::over(element);
        if (!entry || !entry->trashOnOff()) continue;
        for (const std::string& path : machine_.volumes.mountedLocalVolumePaths()) {
            if (path != entry->volumeMountToName()) continue;
            const std::optional<FileSystemFlags> flags = machine_.volumes.fileSystemFlags(path);
            if (!flags || !flags->isWritable) continue;
            std::ranges::copy(machine_.directoryWatch.trashFolders(path),
                              std::back_inserter(folders));
        }
    }
    bool isShortOfWatches = false;
    for (const std::string& folder : folders) {
        // A folder that cannot be watched takes its slot all the same.
        if (trashSlots.size() == trashRetainerFNSubscriptionRefArray.size()) break;
        const std::size_t slot = trashSlots.size();
        if (!trashSlots.emplace(folder, slot).second) continue;
        if (!watchTrashFolder(slot, folder, scanNow)) {
            isShortOfWatches = isShortOfWatches || machine_.directoryWatch.isShortOfWatches();
        }
    }
    if (isShortOfWatches) {
        watchTrashAgainLater();
    } else {
        trashWatchDelay = kFirstWatchDelay;
        logOnce.ended(kWatching);
    }
}

bool KorvaneProDaemon::watchTrashFolder(std::size_t slot, const std::string& folder, bool scanNow) {
    auto& reference = trashRetainerFNSubscriptionRefArray[slot];
    reference =
        machine_.directoryWatch.subscribe(folder, [this, folder] { trashDidChange(folder); });
    if (reference && scanNow) trashDidChange(folder);
    return reference != nullptr;
}

void KorvaneProDaemon::watchTrashAgainLater() {
    logOnce.write(kWatching, LogMessage::trashNotWatched);
    // What has changed until then is seen then.
    trashWatchTimer = machine_.runLoop.startTimer(trashWatchDelay, Repeat::once,
                                                  [this] { setupTrashRetainer(true); });
    trashWatchDelay = std::min<std::chrono::minutes>(2 * trashWatchDelay, kLastWatchDelay);
}

void KorvaneProDaemon::trashDidChange(const std::string& folder) {
    scanPace.didChange(folder, machine_.directoryWatch.userOf(folder));
    scanChangedTrashes();
    if (!trashWatchTimer && machine_.directoryWatch.isShortOfWatches()) watchTrashAgainLater();
}

void KorvaneProDaemon::scanChangedTrashes() {
    const auto sinceBoot = [this] {
        return ScanPace::Moment(machine_.clock.microsecondsSinceBoot());
    };
    while (const auto due = scanPace.takeNext(sinceBoot())) {
        const auto slot = trashSlots.find(due->folder);
        if (slot == trashSlots.end()) continue;  // it is watched no longer
        const ScanPace::Moment began = sinceBoot();
        carryOut("scanning a trash", [&] { MyFNSubscriptionProc(slot->second, due->folder); });
        scanPace.didScan(due->user, began, sinceBoot());
    }
    scanTimer.reset();
    if (const auto next = scanPace.nextMoment()) {
        scanTimer = machine_.runLoop.startTimer(std::max(*next - sinceBoot(), ScanPace::Moment(0)),
                                                Repeat::once, [this] { scanChangedTrashes(); });
    }
}

void KorvaneProDaemon::MyFNSubscriptionProc(std::size_t slot, const std::string& folder) {
    if (!machine_.fileSystem.exists(kSupportFolder)) return;
    if (!trashRetainerFNSubscriptionRefArray[slot]) return;
    if (folder.size() >= kTrashPathBytes) return;
    const std::string program = machine_.bundle.plugIn(kRecoveryProgram);
    if (program.empty()) return;
    auto items = machine_.directoryWatch.catalog(folder, kMostItemsOfAScan);
    if (!items) return;
    std::erase_if(*items, [](const CatalogItem& item) { return item.name.starts_with('.'); });

    const auto volume = trashVolumeOf(machine_.volumes, folder);
    if (volume) {
        std::vector<SearchContent> jobs;
        for (const CatalogItem& item : *items) {
            jobs.push_back({.nodeId = item.nodeId,
                            .parentId = item.parentId,
                            .volumePath = volume->path,
                            .outFilePath = volumeFolder(volume->name),
                            .searchResultPath = searchResultPathOf(item.nodeId)});
        }
        if (!jobs.empty()) startSearch(folder, {program, volume->name, std::move(jobs)});
    }
    // A volume that keeps no such date goes without.
    (void)machine_.directoryWatch.setBackupDates(folder, *items, machine_.clock.now());
    TrashScan scan{.folder = folder,
                   .volume = volume ? std::optional(volume->number) : std::nullopt,
                   .catalogue = std::move(*items),
                   .items = {}};
    const auto recognized =
        machine_.directoryWatch.recognize(scan.volume.value_or(0), folder, scan.catalogue);
    for (std::size_t i = 0; i < scan.catalogue.size(); ++i) {
        const CatalogItem& item = scan.catalogue[i];
        scan.items.push_back(
            {.item = {.itemName = item.name,
                      .nodeId = item.nodeId,
                      .volRefNum = scan.volume.value_or(0),
                      .dirPath = folder,
                      .volumeName = volume ? std::optional(volume->name) : std::nullopt},
             .before = recognized[i]});
    }
    trashSub(scan);
}

}  // namespace korvane
