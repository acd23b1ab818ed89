// The records in the trash usage file: written of what is seen in the trash, marked and dropped of
// what left it; and the end of old files of results.

#include <utility>

#include "base/Format.h"
#include "base/PropertyListCodec.h"
#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "storage/SupportFolder.h"
#include "trash/TrashRecords.h"

namespace korvane {

namespace {

std::string_view nameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

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

}  // namespace korvane
