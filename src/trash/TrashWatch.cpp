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
    if (!booleanValue(preference(kTrashHistoryOnOff))) return;

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
    // The slots are few: those that are there come before those that are waited for.
    std::stable_partition(folders.begin(), folders.end(), [this](const std::string& folder) {
        return machine_.directoryWatch.catalog(folder, 0).has_value();
    });
    // A folder that cannot be watched takes its slot all the same.
    const std::size_t count = std::min(folders.size(), trashRetainerFNSubscriptionRefArray.size());
    for (std::size_t slot = 0; slot < count; ++slot) watchTrashFolder(slot, folders[slot], scanNow);
}

void KorvaneProDaemon::watchTrashFolder(std::size_t slot, const std::string& folder, bool scanNow) {
    auto& reference = trashRetainerFNSubscriptionRefArray[slot];
    reference = machine_.directoryWatch.subscribe(
        folder, [this, slot, folder] { MyFNSubscriptionProc(slot, folder); });
    if (reference && scanNow) MyFNSubscriptionProc(slot, folder);
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
