// The recovery program at work: launched for the items of a trash folder, polled until it has
// ended, and its results collected.

#include <algorithm>
#include <utility>

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
// Whatever keeps the program from being launched is not over sooner for being asked about often.
constexpr seconds kLongestRetryDelay{3600};
// Enough for what somebody throws away one by one while the first still reads: what is not looked
// at soon may be emptied by then. A disk that hangs keeps no more of them.
constexpr std::ptrdiff_t kMostSearchesOfAVolume = 4;
// Those of ten full scans; the others wait for the next start.
constexpr std::size_t kMostUncollected = 1000;
constexpr mode_t kTrashDeletesPermissions = 0640;
// Logged once while files of results cannot be added to, whichever they are.
constexpr char kKeepingResults[] = "keeping results";

bool isPending(const SearchTask& task) { return task.inFilePath != kSearchTaskDone; }

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
    std::erase_if(search.contentArray,
                  [this](const SearchContent& job) { return !hasPlaceForResult(job); });
    if (search.contentArray.empty()) {
        waitingSearches.erase(folder);
        return;
    }
    const std::ptrdiff_t running = std::ranges::count_if(searchTasks, [&](const SearchTask& task) {
        return isPending(task) && (!task.isGivenUp || task.searchTask->isRunning()) &&
               task.contentArray.front().volumePath == search.contentArray.front().volumePath;
    });
    if (running >= kMostSearchesOfAVolume) {
        // In the place of an earlier one, whose items are in this one if they are still there.
        waitingSearches.insert_or_assign(folder, std::move(search));
        return;
    }
    if (std::ranges::any_of(search.contentArray, [this](const SearchContent& job) {
            return isPlaceOfAnotherResult(job);
        })) {
        waitingSearches.insert_or_assign(folder, std::move(search));
        if (searchTimers.empty()) armSearchTimer(kSearchPoll);  // nothing may be running
        return;
    }
    if (auto task = launchSearch(search)) {
        waitingSearches.erase(folder);
        searchTasks.push_back(std::move(*task));
        searchRetryDelay = kSearchPoll;
        armSearchTimer(kSearchPoll);
        return;
    }
    waitingSearches.insert_or_assign(folder, std::move(search));
    if (!searchTimers.empty()) return;
    armSearchTimer(searchRetryDelay);
    searchRetryDelay = std::min<seconds>(2 * searchRetryDelay, kLongestRetryDelay);
}

std::optional<SearchTask> KorvaneProDaemon::launchSearch(const WaitingSearch& search) {
    FileSystem& files = machine_.fileSystem;
    std::string input;
    for (const SearchContent& job : search.contentArray) {
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
    const std::string inFilePath = searchInputFor(search.volumeName);
    const auto written = files.writeFile(inFilePath, input, kSearchInputPermissions);
    if (!written) {
        logOnce.write(inFilePath, LogMessage::searchNotLaunched,
                      {search.volumeName, written.error().message});
        return std::nullopt;
    }
    logOnce.ended(inFilePath);
    auto launched = machine_.processes.launch(search.program, {kInFileArgument, inFilePath});
    if (!launched) {
        logOnce.write(search.program, LogMessage::searchNotLaunched,
                      {search.volumeName, search.program + ": cannot be launched"});
        return std::nullopt;
    }
    logOnce.ended(search.program);
    return SearchTask{.searchTask = std::move(launched),
                      .inFilePath = inFilePath,
                      .contentArray = search.contentArray,
                      .seenAt = machine_.clock.microsecondsSinceBoot()};
}

bool KorvaneProDaemon::hasPlaceForResult(const SearchContent& job) {
    const auto taken = machine_.fileSystem.attributes(job.searchResultPath);
    if (!taken ||
        (taken->kind == ItemKind::file && taken->ownerId == machine_.fileSystem.userId())) {
        logOnce.ended(job.searchResultPath);
        return true;
    }
    logOnce.write(job.searchResultPath, LogMessage::resultPlaceTaken, {job.searchResultPath});
    return false;
}

bool KorvaneProDaemon::isPlaceOfAnotherResult(const SearchContent& job) const {
    const auto isAnother = [&](const SearchContent& other) {
        return other.nodeId == job.nodeId &&
               (other.volumePath != job.volumePath || other.parentId != job.parentId);
    };
    const auto uncollected = uncollectedResults.find(job.nodeId);
    if (uncollected != uncollectedResults.end() && isAnother(uncollected->second)) return true;
    return std::ranges::any_of(searchTasks, [&](const SearchTask& task) {
        // What a program that hangs may still write is not waited for.
        return isPending(task) && !task.isGivenUp &&
               std::ranges::any_of(task.contentArray, isAnother);
    });
}

void KorvaneProDaemon::startWaitingSearches() {
    // The suite may have been removed meanwhile: a search would make its folders again.
    if (!machine_.fileSystem.exists(kSupportFolder)) waitingSearches.clear();
    for (auto& [folder, search] : std::exchange(waitingSearches, {})) {
        startSearch(folder, std::move(search));
    }
}

void KorvaneProDaemon::armSearchTimer(seconds delay) {
    // Every scan has its own.
    const auto timer = searchTimers.emplace(searchTimers.end());
    *timer = machine_.runLoop.startTimer(delay, Repeat::once, [this, timer] {
        const std::unique_ptr<Timer> fired = std::move(*timer);
        searchTimers.erase(timer);
        searchTaskCompleteCheck();
    });
}

void KorvaneProDaemon::searchTaskCompleteCheck() {
    // Decided before anything is collected, so that one more pass follows the last program's end.
    const bool anyPending = std::ranges::any_of(searchTasks, isPending);
    // One that does not even end when it is told to has no poll: it would be polled for ever.
    const bool anyAwaited = std::ranges::any_of(
        searchTasks, [](const SearchTask& task) { return isPending(task) && !task.isGivenUp; });
    for (const auto& [nodeId, job] : std::exchange(uncollectedResults, {})) {
        collectSearchResult(job);
    }
    for (SearchTask& task : searchTasks) {
        if (!isPending(task)) continue;
        if (task.searchTask->isRunning()) {
            endSearchThatHangs(task);
        } else {
            collectSearchTask(task);
        }
    }
    // A full disk takes a record now and then.
    if (uncollectedResults.empty()) logOnce.ended(kKeepingResults);
    if (!anyPending) {
        searchTasks.clear();
    } else if (anyAwaited && searchTimers.empty()) {
        // Another poll that is to come goes on for this one: a program that hangs keeps one going,
        // however many scans there were meanwhile.
        armSearchTimer(kSearchPoll);
    }
    startWaitingSearches();
}

void KorvaneProDaemon::endSearchThatHangs(SearchTask& task) {
    const std::uint64_t now = machine_.clock.microsecondsSinceBoot();
    const std::chrono::microseconds since(now - std::exchange(task.seenAt, now));
    task.ran += std::min<std::chrono::microseconds>(since, 2 * kSearchPoll);
    if (task.isGivenUp || task.ran < kLongestSearch) return;
    task.isGivenUp = true;
    task.searchTask->terminate();
    machine_.systemLog.write(LogMessage::searchGivenUp, {task.contentArray.front().volumePath});
}

void KorvaneProDaemon::collectSearchTask(SearchTask& task) {
    if (task.isOfEarlier) searchAnew(task);
    for (const SearchContent& job : task.contentArray) collectSearchResult(job);
    (void)machine_.fileSystem.remove(task.inFilePath);  // somebody may have been quicker
    task = {.searchTask = nullptr, .inFilePath = kSearchTaskDone, .contentArray = {}};
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
    const Result<std::string> result = hasResult
                                           ? files.readFile(job.searchResultPath, Writers::owner)
                                           : Result<std::string>(std::string());
    if (result) {
        addition += stampedRecords(*result, secondsSince1904(now));
    } else {
        logOnce.write(job.searchResultPath, LogMessage::resultUnreadable, {result.error().message});
    }
    const auto kept =
        files.appendRecords(path, addition, kTrashRecordBytes, kTrashDeletesPermissions);
    if (kept && hasResult && result) {
        (void)files.remove(job.searchResultPath);
    } else if (!kept && hasResult) {
        // The result stays, and is looked at again with those of the next search.
        if (uncollectedResults.size() < kMostUncollected) {
            uncollectedResults.insert_or_assign(job.nodeId, job);
        }
        logOnce.write(kKeepingResults, LogMessage::resultsNotKept, {kept.error().message});
    }
    (void)files.setPermissions(path, kSharedFilePermissions);  // there may be no file
}

}  // namespace korvane
