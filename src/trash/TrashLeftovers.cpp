// What a daemon before this one, ended or killed, has left of its searches: input files of programs
// that it no longer polls, and results that it no longer collects. Only files of the daemon's own
// user are touched; others may have put theirs under such names.

#include <algorithm>
#include <map>
#include <utility>

#include "base/Format.h"
#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "storage/SupportFolder.h"
#include "trash/TrashFormats.h"
#include "trash/TrashRecords.h"

namespace korvane {

namespace {

// Which of the running programs is an earlier daemon's is not known: it has ended once none runs.
class EarlierTask final : public Task {
  public:
    explicit EarlierTask(Processes& processes) : processes_(processes) {}

    bool isRunning() override {
        bool runs = false;
        if (isGivenUp_) return runs;
        processes_.forEachName([&](std::string_view name) {
            runs = name == kRecoveryProgram;
            return !runs;
        });
        return runs;
    }
    void interrupt() override { isGivenUp_ = true; }
    void terminate() override { isGivenUp_ = true; }

  private:
    Processes& processes_;
    bool isGivenUp_ = false;  // no longer waited for
};

// The volumes on which an item of this number was seen in the trash.
std::map<std::uint64_t, std::set<std::int16_t>> volumesOfNodes(const PropertyList& usage) {
    std::map<std::uint64_t, std::set<std::int16_t>> volumes;
    if (!usage.dictionary()) return volumes;
    for (const Dictionary::Entry& entry : *usage.dictionary()) {
        const auto record = ConstTrashEntry::over(entry.value);
        if (record) volumes[record->nodeId()].insert(record->volRefNum());
    }
    return volumes;
}

}  // namespace

void KorvaneProDaemon::takeUpSearches() {
    if (!booleanValue(preference(kTrashHistoryOnOff))) return;
    const auto names = machine_.fileSystem.list(kSearchFolder);
    if (!names) return;
    std::set<std::uint64_t> results;
    std::set<std::uint64_t> taken;
    for (const std::string& name : *names) {
        const std::string path = std::string(kSearchFolder) + '/' + name;
        if (const auto node = nodeOfSearchResult(path)) results.insert(*node);
        if (!isSearchInputPath(path)) continue;
        if (auto task = leftSearch(path, taken)) searchTasks.push_back(std::move(*task));
    }
    std::erase_if(results, [&](std::uint64_t node) { return taken.contains(node); });
    collectLeftResults(results);
    if (!searchTasks.empty()) armSearchTimer();
}

std::optional<SearchTask> KorvaneProDaemon::leftSearch(const std::string& inFilePath,
                                                       std::set<std::uint64_t>& taken) {
    FileSystem& files = machine_.fileSystem;
    const Result<std::string> input = files.readFile(inFilePath);
    if (!input) return std::nullopt;  // somebody else's
    std::vector<SearchContent> jobs;
    for (std::size_t at = 0; at < input->size(); at += kSearchJobBytes) {
        const auto job = decodeSearchJob(std::string_view(*input).substr(at, kSearchJobBytes));
        const auto node = job ? nodeOfSearchResult(job->searchResultPath) : std::nullopt;
        if (!node) continue;
        constexpr std::string_view kDevices = "/dev/";
        const std::string_view device = job->deviceName;
        if (!device.starts_with(kDevices)) continue;
        const auto volume = machine_.volumes.volumeInfoByDevice(device.substr(kDevices.size()));
        if (volume.status != 0) continue;  // it is not mounted, so nothing can be looked for
        // The same item may be in the jobs of several.
        if (!taken.insert(*node).second) continue;
        const std::string& root = volume.value.root.rootPath;
        jobs.push_back({.nodeId = *node,
                        .parentId = job->parentId,
                        .volumePath = root,
                        .outFilePath = volumeFolder(files.displayName(root)),
                        .searchResultPath = job->searchResultPath});
    }
    if (jobs.empty()) {
        (void)files.remove(inFilePath);  // of no use to anybody
        return std::nullopt;
    }
    return SearchTask{.searchTask = std::make_unique<EarlierTask>(machine_.processes),
                      .inFilePath = inFilePath,
                      .contentArray = std::move(jobs),
                      .seenAt = machine_.clock.microsecondsSinceBoot(),
                      .isOfEarlier = true};
}

void KorvaneProDaemon::collectLeftResults(const std::set<std::uint64_t>& nodeIds) {
    if (nodeIds.empty()) return;
    FileSystem& files = machine_.fileSystem;
    const auto usage = files.readPropertyList(std::string(kSupportFolder) + '/' + kTrashUsageFile);
    const auto volumes = volumesOfNodes(usage ? *usage : PropertyList());
    for (const std::uint64_t nodeId : nodeIds) {
        const std::string path = searchResultPathOf(nodeId);
        const Result<std::string> result = files.readFile(path);
        if (!result || !result->starts_with(kResultTag)) continue;  // somebody else's
        const auto seenOn = volumes.find(nodeId);
        // Two volumes may each have an item of this number: which one's it is cannot be told.
        if (seenOn == volumes.end() || seenOn->second.size() != 1) {
            const auto attributes = files.attributes(path);
            if (attributes && isTrashFileExpired(attributes->modificationDate, machine_.clock.now(),
                                                 trashSaveDays)) {
                (void)files.remove(path);  // the next start tries again
            }
            continue;
        }
        const auto volume = machine_.volumes.volumeInfoByReferenceNumber(*seenOn->second.begin());
        if (volume.status != 0) continue;  // it may be mounted at the next start
        const std::string& root = volume.value.root.rootPath;
        collectSearchResult({.nodeId = nodeId,
                             .volumePath = root,
                             .outFilePath = volumeFolder(files.displayName(root)),
                             .searchResultPath = path});
    }
}

void KorvaneProDaemon::searchAnew(SearchTask& task) {
    const auto left =
        std::ranges::stable_partition(task.contentArray, [this](const SearchContent& job) {
            return machine_.fileSystem.attributes(job.searchResultPath).has_value();
        });
    const std::string program = machine_.bundle.plugIn(kRecoveryProgram);
    if (!left.empty() && !program.empty()) {
        const std::string& root = left.front().volumePath;
        waitingSearches.insert_or_assign(
            task.inFilePath, WaitingSearch{.program = program,
                                           .volumeName = machine_.fileSystem.displayName(root),
                                           .contentArray = {left.begin(), left.end()}});
    }
    task.contentArray.erase(left.begin(), left.end());
}

}  // namespace korvane
