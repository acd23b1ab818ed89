// The upkeep of what the watch has recorded: the records of items that left the trash, and the
// results of the recovery program.

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/Format.h"
#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "storage/RegistryProbes.h"
#include "storage/SupportFolder.h"
#include "storage/VolumeLookups.h"
#include "trash/TrashFormats.h"
#include "trash/TrashRecords.h"

namespace korvane {

namespace {

constexpr mode_t kTrashDeletesPermissions = 0640;

std::string_view nameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }

// The program's records, each stamped; a short last one is filled up with zero bytes.
std::string stampedRecords(std::string_view results, std::uint32_t stamp) {
    std::string records;
    while (!results.empty()) {
        TrashRecord record{};
        const std::string_view chunk = results.substr(0, record.size());
        std::copy(chunk.begin(), chunk.end(), record.begin());
        stampTrashRecord(record, stamp);
        records.append(record.data(), record.size());
        results.remove_prefix(chunk.size());
    }
    return records;
}

}  // namespace

void KorvaneProDaemon::didFindOut() {
    if (booleanValue(preference(kTrashHistoryOnOff))) trashSub();
}

void KorvaneProDaemon::trashSub() {
    FileSystem& files = machine_.fileSystem;
    const std::string path = std::string(kSupportFolder) + '/' + kTrashUsageFile;
    const Time now = machine_.clock.now();
    // A file that cannot be read, or written, stays as it is; the next scan tries again.
    (void)files.changePropertyList(
        path,
        [&](PropertyList& document) {
            if (!document.dictionary()) return false;
            (void)updateTrashRecords(
                *document.dictionary(),
                [this](std::span<const SeenItem> items) {
                    return machine_.directoryWatch.resolve(items);
                },
                now, trashSaveDays);
            return true;
        },
        kSharedFilePermissions, Durability::process);
    (void)files.setPermissions(path, kSharedFilePermissions);  // there may be no file

    // With a final full stop: the folder may be a link, which everything else follows.
    for (const std::string& relative : files.enumerate(std::string(kSupportFolder) + "/.")) {
        if (!nameOf(relative).starts_with(kTrashDeletesPrefix)) continue;
        const std::string file = std::string(kSupportFolder) + '/' + relative;
        const auto attributes = files.attributes(file);
        if (attributes && attributes->kind == ItemKind::file &&
            isTrashFileExpired(attributes->modificationDate, now, trashSaveDays)) {
            (void)files.remove(file);  // the next scan tries again
        }
    }
}

void KorvaneProDaemon::searchTaskCompleteCheck() {
    const auto isPending = [](const SearchTask& task) {
        return task.inFilePath != kSearchTaskDone;
    };
    // Decided before anything is collected, so that one more pass follows the last program's end.
    const bool anyPending = std::ranges::any_of(searchTasks, isPending);
    for (SearchTask& task : searchTasks) {
        if (!isPending(task) || task.searchTask->isRunning()) continue;
        for (const SearchContent& job : task.contentArray) collectSearchResult(job);
        (void)machine_.fileSystem.remove(task.inFilePath);  // somebody may have been quicker
        task = {.searchTask = nullptr, .inFilePath = kSearchTaskDone, .contentArray = {}};
    }
    if (!anyPending) {
        searchTasks.clear();
    } else if (searchTimers.empty()) {
        // Another poll that is to come goes on for this one: a program that hangs keeps one going,
        // however many scans there were meanwhile.
        armSearchTimer();
    }
    startWaitingSearches();
}

void KorvaneProDaemon::collectSearchResult(const SearchContent& job) {
    FileSystem& files = machine_.fileSystem;
    const Time now = machine_.clock.now();
    const std::string path = job.outFilePath + '/' + trashDeletesFileName(now);
    const auto attributes = files.attributes(path);
    std::string addition;
    // Without a whole one, too: what a kill has left of it is cut off.
    if (!attributes || attributes->sizeBytes < kTrashRecordBytes) {
        const std::string device = getVolumeMountFromName(machine_.volumes, job.volumePath);
        const DeviceValue value =
            GetDeviceValue(machine_.deviceRegistry, device, schemeOfPartition);
        const TrashRecord header =
            encodeTrashDeletesHeader({.deviceName = device,
                                      .volumePath = job.volumePath,
                                      .deviceValue = value.identifier,
                                      .schemeOfPartition = schemeOfPartition});
        addition.append(header.data(), header.size());
    }
    const bool hasResult = files.attributes(job.searchResultPath).has_value();
    const Result<std::string> result =
        hasResult ? files.readFile(job.searchResultPath) : Result<std::string>(std::string());
    if (result) {
        addition += stampedRecords(*result, secondsSince1904(now));
    } else {
        machine_.systemLog.write(LogLevel::warning,
                                 formatText("A result of the trash search is left where it is: %@.",
                                            {std::string_view(result.error().message)}));
    }
    // Where the records cannot be kept the result stays.
    const bool isKept = static_cast<bool>(
        files.appendRecords(path, addition, kTrashRecordBytes, kTrashDeletesPermissions));
    if (isKept && hasResult && result) (void)files.remove(job.searchResultPath);
    (void)files.setPermissions(path, kSharedFilePermissions);  // there may be no file
}

}  // namespace korvane
