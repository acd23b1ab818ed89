// The recovery program at work: launched for the items of a trash folder, polled until it has
// ended, and its results collected.

#include <algorithm>
#include <utility>

#include "base/Format.h"
#include "core/KorvaneProDaemon.h"
#include "storage/RegistryProbes.h"
#include "storage/SupportFolder.h"
#include "storage/VolumeLookups.h"
#include "trash/TrashFormats.h"

namespace korvane {

using std::chrono::seconds;

namespace {

// The recovery program's input is the daemon's own affair; its group may look.
constexpr mode_t kSearchInputPermissions = 0640;
constexpr seconds kSearchPoll{2};
// Enough for what somebody throws away one by one while the first still reads: what is not looked
// at soon may be emptied by then. A disk that hangs keeps no more of them.
constexpr std::ptrdiff_t kMostSearchesOfAVolume = 4;
constexpr mode_t kTrashDeletesPermissions = 0640;

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
        resultsLeft.erase(job.searchResultPath);
    } else if (resultsLeft.insert(job.searchResultPath).second) {
        // Whoever has planted it there leaves it there: every scan comes upon it again.
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
