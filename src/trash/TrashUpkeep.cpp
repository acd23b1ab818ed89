// The records in the trash usage file: written of what is seen in the trash, marked and dropped of
// what left it; and the end of old files of results.

#include <set>
#include <span>
#include <string_view>
#include <utility>

#include "base/PropertyListCodec.h"
#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "storage/SupportFolder.h"
#include "trash/TrashRecords.h"

namespace korvane {

namespace {

std::string usagePath() { return std::string(kSupportFolder) + '/' + kTrashUsageFile; }

std::string_view nameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

void KorvaneProDaemon::logUsageFile(const Result<std::monostate>& written, LogMessage message) {
    if (written) {
        logOnce.ended(usagePath());
    } else {
        logOnce.write(usagePath(), message, {written.error().message});
    }
}

Result<std::monostate> KorvaneProDaemon::beginTrashUsage(
    const std::function<bool(PropertyList&)>& edit) {
    FileSystem& files = machine_.fileSystem;
    const std::string path = usagePath();
    const Time now = machine_.clock.now();
    if (const auto attributes = files.attributes(path)) {
        // What cannot be read now may be good, and what can be by now is. More than can ever be
        // read is not.
        if (attributes->kind == ItemKind::file && attributes->ownerId == files.userId() &&
            attributes->sizeBytes <= kLargestPropertyListBytes) {
            const Result<std::string> text = files.readFile(path, Writers::anybody);
            if (!text) return text.error();
            const auto document = parsePropertyList(*text);
            if (document && document->dictionary())
                return Error{path + ": could not be read a moment ago"};
        }
        const std::string aside =
            std::string(kSupportFolder) + '/' +
            formatLocalTime(now, "Trash Usage, unreadable %Y-%m-%d %H-%M-%S") + ".plist";
        if (!files.rename(path, aside)) return Error{path + ": cannot be set aside"};
        machine_.systemLog.write(LogMessage::usageFileSetAside, {path, aside});
    }
    PropertyList usage{Dictionary()};
    (void)edit(usage);  // a dictionary is always usable
    return files.writePropertyList(path, usage, kSharedFilePermissions, Durability::process);
}

std::vector<ItemNumber> KorvaneProDaemon::updateTrashUsage(Dictionary& usage,
                                                           const TrashScan& scan) {
    const Time now = machine_.clock.now();
    std::set<std::pair<std::uint64_t, std::string_view>> justSeen;
    for (const CatalogItem& item : scan.catalogue) justSeen.emplace(item.nodeId, item.name);
    const auto resolve = [&](std::span<const SeenItem> items) {
        std::vector<ResolvedNode> nodes(items.size());
        std::vector<SeenItem> others;
        std::vector<std::size_t> places;
        for (std::size_t i = 0; i < items.size(); ++i) {
            if (items[i].folder == scan.folder && items[i].volume == scan.volume &&
                justSeen.contains({items[i].nodeId, items[i].name})) {
                nodes[i] = {NodeState::found, items[i].folder + '/' + items[i].name};
            } else {
                others.push_back(items[i]);
                places.push_back(i);
            }
        }
        std::vector<ResolvedNode> answers = machine_.directoryWatch.resolve(others);
        for (std::size_t i = 0; i < places.size(); ++i) nodes[places[i]] = std::move(answers[i]);
        return nodes;
    };
    storeTrashRecords(usage, scan.items, resolve, now);
    (void)updateTrashRecords(usage, resolve, now, trashSaveDays);
    return numbersToRemember(usage);
}

void KorvaneProDaemon::didFindOut() {
    if (booleanValue(preference(kTrashHistoryOnOff))) trashSub({});
}

void KorvaneProDaemon::trashSub(const TrashScan& scan) {
    const std::string path = usagePath();
    bool isUsable = false;
    std::vector<ItemNumber> numbers;
    const auto edit = [&](PropertyList& document) {
        isUsable = document.dictionary() != nullptr;
        if (isUsable) numbers = updateTrashUsage(*document.dictionary(), scan);
        return isUsable;
    };
    auto written = machine_.fileSystem.changePropertyList(path, edit, kSharedFilePermissions,
                                                          Durability::process);
    if (!isUsable && !scan.items.empty()) written = beginTrashUsage(edit);
    // A file that cannot be read, or written, stays as it is; the next scan tries again.
    if (!scan.items.empty()) {
        logUsageFile(written, LogMessage::trashNotRecorded);
    } else if (isUsable) {
        logUsageFile(written, LogMessage::trashNotUpdated);
    }
    (void)machine_.fileSystem.setPermissions(path, kSharedFilePermissions);  // there may be no file
    if (written && isUsable) {
        // After the records: items that are not recorded must not be taken for those that are.
        if (scan.volume)
            machine_.directoryWatch.remember(*scan.volume, scan.folder, scan.catalogue);
        machine_.directoryWatch.keepOnly(numbers);
    }
    expireTrashFiles();
}

void KorvaneProDaemon::expireTrashFiles() {
    FileSystem& files = machine_.fileSystem;
    const Time now = machine_.clock.now();
    for (const std::string& relative : files.enumerate(kSupportFolder)) {
        if (!nameOf(relative).starts_with(kTrashDeletesPrefix)) continue;
        const std::string file = std::string(kSupportFolder) + '/' + relative;
        const auto attributes = files.attributes(file);
        if (attributes && attributes->kind == ItemKind::file &&
            isTrashFileExpired(attributes->modificationDate, now, trashSaveDays)) {
            (void)files.remove(file);  // the next scan tries again
        }
    }
}

}  // namespace korvane
