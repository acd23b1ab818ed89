// What a daemon before this one, ended or killed, has left of its searches: input files of programs
// that it no longer polls, and results that it no longer collects. Only files of the daemon's own
// user are touched; others may have put theirs under such names.

#include <algorithm>
#include <map>
#include <utility>

#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "storage/SupportFolder.h"
#include "storage/TrashEntry.h"
#include "trash/TrashFormats.h"

namespace korvane {

namespace {

// No more than what a machine runs without a restart.
constexpr std::int64_t kMostDaysOfAResult = 3650;

// Runs until no process has the input file as its argument.
class EarlierTask final : public Task {
  public:
    EarlierTask(Processes& processes, std::string inFilePath)
        : processes_(processes), inFilePath_(std::move(inFilePath)) {}

    bool isRunning() override {
        return !isGivenUp_ && processes_.isRunning(std::string(kRecoveryProgram), inFilePath_);
    }
    void interrupt() override { isGivenUp_ = true; }
    void terminate() override { isGivenUp_ = true; }
    int endingSignal() override { return 0; }  // nobody here is its parent

  private:
    Processes& processes_;
    std::string inFilePath_;
    bool isGivenUp_ = false;  // no longer waited for
};

// The volumes on which an item of a number was seen in the trash.
using NodeVolumes = std::map<std::uint64_t, std::set<std::int16_t>>;

NodeVolumes volumesOfNodes(FileSystem& files) {
    NodeVolumes volumes;
    const auto usage = files.readPropertyList(std::string(kSupportFolder) + '/' + kTrashUsageFile);
    if (!usage || !usage->dictionary()) return volumes;
    for (const Dictionary::Entry& entry : *usage->dictionary()) {
        const auto record = ConstTrashEntry::over(entry.value);
        if (record) volumes[record->nodeId()].insert(record->volRefNum());
    }
    return volumes;
}

// The job as it was given, if its item has a record on a volume that is mounted.
std::optional<SearchContent> leftJob(const Machine& machine, std::string_view bytes,
                                     const NodeVolumes& seenOn) {
    const auto job = decodeSearchJob(bytes);
    const auto node = job ? nodeOfSearchResult(job->searchResultPath) : std::nullopt;
    constexpr std::string_view kDevices = "/dev/";
    if (!node || !job->deviceName.starts_with(kDevices)) return std::nullopt;
    const auto volume = machine.volumes.volumeInfoByDevice(job->deviceName.substr(kDevices.size()));
    const auto volumes = seenOn.find(*node);
    if (volume.status != 0 || volumes == seenOn.end() ||
        !volumes->second.contains(volume.value.referenceNumber)) {
        return std::nullopt;
    }
    return SearchContent{.nodeId = *node,
                         .parentId = job->parentId,
                         .volumePath = volume.value.root.rootPath,
                         .outFilePath = volumeFolder(volume.value.name),
                         .searchResultPath = job->searchResultPath};
}

// Items that have a job already, by their number and the path of their volume.
using JobItems = std::set<std::pair<std::uint64_t, std::string>>;

// The jobs of an input file that none has `taken` yet.
std::vector<SearchContent> leftJobs(const Machine& machine, const std::string& inFilePath,
                                    const NodeVolumes& seenOn, JobItems& taken) {
    std::vector<SearchContent> jobs;
    const Result<std::string> input = machine.fileSystem.readFile(inFilePath, Writers::owner);
    if (!input) return jobs;  // somebody else's
    for (std::size_t at = 0; at < input->size(); at += kSearchJobBytes) {
        auto job = leftJob(machine, std::string_view(*input).substr(at, kSearchJobBytes), seenOn);
        if (job && taken.emplace(job->nodeId, job->volumePath).second) {
            jobs.push_back(std::move(*job));
        }
    }
    return jobs;
}

// What belongs to nothing is no use once it is that old.
void removeIfOld(const Machine& machine, const std::string& path, std::chrono::seconds age) {
    FileSystem& files = machine.fileSystem;
    const auto attributes = files.attributes(path);
    if (attributes && attributes->kind == ItemKind::file && attributes->ownerId == files.userId() &&
        machine.clock.now() - attributes->modificationDate >= age) {
        (void)files.remove(path);  // the next start tries again
    }
}

}  // namespace

void KorvaneProDaemon::takeUpSearches() {
    if (!booleanValue(preference(kTrashHistoryOnOff))) return;
    const auto names = machine_.fileSystem.list(kSearchFolder);
    if (!names) return;
    const NodeVolumes seenOn = volumesOfNodes(machine_.fileSystem);
    std::set<std::uint64_t> results;
    JobItems taken;
    for (const std::string& name : *names) {
        const std::string path = std::string(kSearchFolder) + '/' + name;
        if (const auto node = nodeOfSearchResult(path)) results.insert(*node);
        if (!isSearchInputPath(path)) continue;
        auto jobs = leftJobs(machine_, path, seenOn, taken);
        if (jobs.empty()) {
            removeIfOld(machine_, path, kLongestSearch);
        } else {
            searchTasks.push_back(
                {.searchTask = std::make_unique<EarlierTask>(machine_.processes, path),
                 .inFilePath = path,
                 .contentArray = std::move(jobs),
                 .seenAt = machine_.clock.microsecondsSinceBoot(),
                 .isOfEarlier = true});
        }
    }
    for (const std::uint64_t node : results) {
        const auto job = taken.lower_bound({node, std::string()});
        if (job != taken.end() && job->first == node) continue;
        const auto volumes = seenOn.find(node);
        collectLeftResult(node,
                          volumes != seenOn.end() ? volumes->second : std::set<std::int16_t>{});
    }
    if (!searchTasks.empty()) armSearchTimer(kSearchPoll);
}

void KorvaneProDaemon::collectLeftResult(std::uint64_t nodeId,
                                         const std::set<std::int16_t>& seenOn) {
    FileSystem& files = machine_.fileSystem;
    const std::string path = searchResultPathOf(nodeId);
    const Result<std::string> result = files.readFile(path, Writers::owner);
    if (!result || !result->starts_with(kResultTag)) return;  // somebody else's
    // Two volumes may each have an item of this number: which one's it is cannot be told.
    if (seenOn.size() != 1) {
        removeIfOld(
            machine_, path,
            std::chrono::days(std::clamp<std::int64_t>(trashSaveDays, 1, kMostDaysOfAResult)));
        return;
    }
    const auto volume = machine_.volumes.volumeInfoByReferenceNumber(*seenOn.begin());
    if (volume.status != 0) return;  // it may be mounted at the next start
    collectSearchResult({.nodeId = nodeId,
                         .volumePath = volume.value.root.rootPath,
                         .outFilePath = volumeFolder(volume.value.name),
                         .searchResultPath = path});
}

void KorvaneProDaemon::searchAnew(SearchTask& task) {
    std::vector<SearchContent>& jobs = task.contentArray;
    const auto left =
        std::stable_partition(jobs.begin(), jobs.end(), [this](const SearchContent& job) {
            return machine_.fileSystem.attributes(job.searchResultPath).has_value();
        });
    const std::string program = machine_.bundle.plugIn(kRecoveryProgram);
    if (left != jobs.end() && !program.empty() && booleanValue(preference(kTrashHistoryOnOff))) {
        // The folder of a volume is named after it.
        const std::string& folder = left->outFilePath;
        waitingSearches.insert_or_assign(
            task.inFilePath, WaitingSearch{.program = program,
                                           .volumeName = folder.substr(folder.rfind('/') + 1),
                                           .contentArray = {left, jobs.end()}});
    }
    jobs.erase(left, jobs.end());
}

}  // namespace korvane
