// The records in the trash usage file: written of what is seen in the trash, marked and dropped of
// what left it; and the end of old files of results.

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

void KorvaneProDaemon::recordTrashItems(const std::vector<TrashItem>& items) {
    if (items.empty()) return;
    const Time now = machine_.clock.now();
    bool isUsable = false;
    const auto recordFrom = [&](std::size_t first) {
        return machine_.fileSystem.changePropertyListInSteps(
            usagePath(), items.size() - first,
            [&](PropertyList& usage, std::size_t step) {
                isUsable = usage.dictionary() != nullptr;
                if (isUsable) storeTrashRecord(*usage.dictionary(), items[first + step], now);
                return isUsable;
            },
            kSharedFilePermissions, Durability::process);
    };
    Result<std::monostate> recorded = recordFrom(0);
    if (!isUsable) {
        recorded = beginTrashUsage(items.front());
        if (recorded && items.size() > 1) recorded = recordFrom(1);
    }
    // These records are lost until the folder changes again, and nothing else is.
    logUsageFile(recorded, LogMessage::trashNotRecorded);
}

void KorvaneProDaemon::logUsageFile(const Result<std::monostate>& written, LogMessage message) {
    if (written) {
        logOnce.ended(usagePath());
    } else {
        logOnce.write(usagePath(), message, {written.error().message});
    }
}

Result<std::monostate> KorvaneProDaemon::beginTrashUsage(const TrashItem& item) {
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
    Dictionary usage;
    storeTrashRecord(usage, item, now);
    return files.writePropertyList(path, PropertyList(std::move(usage)), kSharedFilePermissions,
                                   Durability::process);
}

void KorvaneProDaemon::didFindOut() {
    if (booleanValue(preference(kTrashHistoryOnOff))) trashSub();
}

void KorvaneProDaemon::trashSub() {
    FileSystem& files = machine_.fileSystem;
    const std::string path = usagePath();
    const Time now = machine_.clock.now();
    bool isUsable = false;
    // A file that cannot be read, or written, stays as it is; the next scan tries again.
    const auto updated = files.changePropertyList(
        path,
        [&](PropertyList& document) {
            isUsable = document.dictionary() != nullptr;
            if (!isUsable) return false;
            (void)updateTrashRecords(
                *document.dictionary(),
                [this](std::span<const SeenItem> items) {
                    return machine_.directoryWatch.resolve(items);
                },
                now, trashSaveDays);
            return true;
        },
        kSharedFilePermissions, Durability::process);
    if (isUsable) {
        logUsageFile(updated, LogMessage::trashNotUpdated);
    }
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

}  // namespace korvane
