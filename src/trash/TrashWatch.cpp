// The watch over the trash folders: which are watched, and the scan of one that has changed.

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/Format.h"
#include "base/PropertyListCodec.h"
#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "platform/VolumeOfPath.h"
#include "storage/SupportFolder.h"
#include "storage/VolumeEntry.h"
#include "storage/VolumeLookups.h"
#include "trash/TrashFormats.h"
#include "trash/TrashRecords.h"

namespace korvane {

using std::chrono::seconds;

namespace {

constexpr std::size_t kMostItemsOfAScan = 100;
// The recovery program's input is the daemon's own affair; its group may look.
constexpr mode_t kSearchInputPermissions = 0640;
constexpr seconds kSearchPoll{2};
// Enough for what somebody throws away one by one while the first still reads: what is not looked
// at soon may be emptied by then. A disk that hangs keeps no more of them.
constexpr std::ptrdiff_t kMostSearchesOfAVolume = 4;

// The volume that a folder lies on, as far as it is known.
struct TrashVolume {
    std::string path;
    std::string name;
    std::int16_t number = 0;
};

std::optional<TrashVolume> trashVolumeOf(Volumes& volumes, FileSystem& files,
                                         const std::string& folder) {
    const std::optional<PathVolume> volume = volumeOfPath(volumes, folder);
    if (!volume) return std::nullopt;
    const std::string& root = volume->info.root.rootPath;
    return TrashVolume{root, files.displayName(root), volume->info.referenceNumber};
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

    const auto volume = trashVolumeOf(machine_.volumes, machine_.fileSystem, folder);
    if (volume) {
        machine_.directoryWatch.remember(volume->number, folder, *items);
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
    std::vector<TrashItem> records;
    for (const CatalogItem& item : *items) {
        records.push_back({.itemName = item.name,
                           .nodeId = item.nodeId,
                           .volRefNum = volume ? volume->number : std::int16_t{0},
                           .dirPath = folder,
                           .volumeName = volume ? std::optional(volume->name) : std::nullopt});
        // A volume that keeps no such date goes without.
        (void)machine_.directoryWatch.setBackupDate(folder, item, machine_.clock.now());
    }
    recordTrashItems(records);
    trashSub();
}

std::string KorvaneProDaemon::searchInputFor(const std::string& volumeName) const {
    const auto isInUse = [&](const std::string& path) {
        return std::ranges::any_of(searchTasks,
                                   [&](const SearchTask& task) { return task.inFilePath == path; });
    };
    std::string path = searchInputPathOf(volumeName);
    for (int next = 1; isInUse(path); ++next) {
        path = searchInputPathOf(volumeName + ' ' + std::to_string(next));
    }
    return path;
}

void KorvaneProDaemon::startSearch(const std::string& folder, WaitingSearch search) {
    const std::ptrdiff_t running = std::ranges::count_if(searchTasks, [&](const SearchTask& task) {
        return task.inFilePath != kSearchTaskDone &&
               task.contentArray.front().volumePath == search.contentArray.front().volumePath;
    });
    if (running >= kMostSearchesOfAVolume) {
        // In the place of an earlier one, whose items are in this one if they are still there.
        waitingSearches.insert_or_assign(folder, std::move(search));
        return;
    }
    waitingSearches.erase(folder);
    auto& [program, volumeName, jobs] = search;
    FileSystem& files = machine_.fileSystem;
    std::string input;
    for (const SearchContent& job : jobs) {
        if (!files.exists(job.outFilePath)) {
            (void)files.createFolders(job.outFilePath, files.userName());  // shown when it is used
        }
        const SearchJobBytes bytes =
            encodeSearchJob({.nodeId = static_cast<std::uint32_t>(job.nodeId),
                             .parentId = static_cast<std::uint32_t>(job.parentId),
                             .deviceName = getVolumeMountFromName(machine_.volumes, job.volumePath),
                             .searchResultPath = job.searchResultPath});
        input.append(bytes.data(), bytes.size());
    }
    const std::string inFilePath = searchInputFor(volumeName);
    const auto written = files.writeFile(inFilePath, input, kSearchInputPermissions);
    if (!written) {
        machine_.systemLog.write(
            LogLevel::warning, formatText("No search for what is in the trash of \"%@\": %@.",
                                          {std::string_view(volumeName), written.error().message}));
    } else if (auto task = machine_.processes.launch(program, {kInFileArgument, inFilePath})) {
        searchTasks.push_back({std::move(task), inFilePath, std::move(jobs)});
    }
    armSearchTimer();
}

void KorvaneProDaemon::startWaitingSearches() {
    for (auto& [folder, search] : std::exchange(waitingSearches, {})) {
        startSearch(folder, std::move(search));
    }
}

void KorvaneProDaemon::armSearchTimer() {
    // Every scan has its own.
    const auto timer = searchTimers.emplace(searchTimers.end());
    *timer = machine_.runLoop.startTimer(kSearchPoll, Repeat::once, [this, timer] {
        const std::unique_ptr<Timer> fired = std::move(*timer);
        searchTimers.erase(timer);
        searchTaskCompleteCheck();
    });
}

void KorvaneProDaemon::recordTrashItems(const std::vector<TrashItem>& items) {
    if (items.empty()) return;
    const std::string path = std::string(kSupportFolder) + '/' + kTrashUsageFile;
    const Time now = machine_.clock.now();
    const auto recordFrom = [&](std::size_t first) {
        bool isUsable = false;
        // A failed write costs these records until the folder changes again, and nothing else.
        (void)machine_.fileSystem.changePropertyListInSteps(
            path, items.size() - first,
            [&](PropertyList& usage, std::size_t step) {
                isUsable = usage.dictionary() != nullptr;
                if (isUsable) storeTrashRecord(*usage.dictionary(), items[first + step], now);
                return isUsable;
            },
            kSharedFilePermissions, Durability::process);
        return isUsable;
    };
    if (recordFrom(0)) return;
    if (beginTrashUsage(items.front()) && items.size() > 1) (void)recordFrom(1);
}

bool KorvaneProDaemon::beginTrashUsage(const TrashItem& item) {
    FileSystem& files = machine_.fileSystem;
    const std::string path = std::string(kSupportFolder) + '/' + kTrashUsageFile;
    const Time now = machine_.clock.now();
    if (const auto attributes = files.attributes(path)) {
        // What cannot be read now may be good, and what can be by now is.
        if (attributes->kind == ItemKind::file && attributes->ownerId == files.userId()) {
            const Result<std::string> text = files.readFile(path);
            if (!text) return false;
            const auto document = parsePropertyList(*text);
            if (document && document->dictionary()) return false;
        }
        const std::string aside =
            std::string(kSupportFolder) + '/' +
            formatLocalTime(now, "Trash Usage, unreadable %Y-%m-%d %H-%M-%S") + ".plist";
        if (!files.rename(path, aside)) return false;
        machine_.systemLog.write(LogLevel::error,
                                 formatText("\"%@\" cannot be used and is kept as \"%@\".",
                                            {std::string_view(path), std::string_view(aside)}));
    }
    Dictionary usage;
    storeTrashRecord(usage, item, now);
    return static_cast<bool>(files.writePropertyList(path, PropertyList(std::move(usage)),
                                                     kSharedFilePermissions, Durability::process));
}

}  // namespace korvane
