// The history logs: one property list per drive or volume, a folder each, to which every check adds
// its result. The main application reads them, and may rewrite them.

#include <cerrno>
#include <string>
#include <utility>

#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "monitors/HistoryEntries.h"
#include "storage/SupportFolder.h"

namespace korvane {

namespace {

constexpr char kLogEntries[] = "logEntries";

std::string folderOfDrive(const Dictionary& entry) {
    return driveFolder(stringValue(entry.find("driveModel")),
                       stringValue(entry.find("driveSerial")));
}

std::string folderOfVolume(const Dictionary& entry) {
    return volumeFolder(stringValue(entry.find("displayName")));
}

// A kind of log: the folder that an entry belongs into, the file in it, and the setting that says
// how many entries it keeps.
struct HistoryKind {
    std::int16_t kind;
    std::string (*folder)(const Dictionary& entry);
    const char* fileName;
    const char* limitKey;
};
constexpr HistoryKind kHistoryKinds[] = {
    {1, folderOfDrive, "Smart Check.plist", kSmartEntryLimit},
    {2, folderOfVolume, "Volume Usage.plist", kUsageEntryLimit},
};

const HistoryKind* historyKind(std::int16_t kind) {
    for (const HistoryKind& known : kHistoryKinds) {
        if (known.kind == kind) return &known;
    }
    return nullptr;
}

Dictionary newLog(const Dictionary& entry) {
    return Dictionary{{kLogEntries, PropertyListArray{PropertyList(entry)}}};
}

// The document with the entry added; a new one, with its one entry whatever the limit, where there
// is no dictionary.
void addEntry(PropertyList& document, const Dictionary& entry, std::int64_t limit) {
    Dictionary* log = document.dictionary();
    if (!log) {
        document = newLog(entry);
        return;
    }
    PropertyList* stored = log->find(kLogEntries);
    PropertyListArray entries;
    if (stored && stored->array()) entries = std::move(*stored->array());
    appendHistoryEntry(entries, entry, limit);
    log->set(kLogEntries, std::move(entries));
}

// Whether nothing that could be read as a log can ever lie there, as long as what is there does: a
// link, say, or a file of an absurd size.
bool isForeign(const Error& error) {
    return error.number == 0 || error.number == ELOOP || error.number == ENXIO;
}

}  // namespace

void KorvaneProDaemon::updateLog(std::int16_t kind, const Dictionary& logDict,
                                 std::size_t /*index*/) {
    const HistoryKind* history = historyKind(kind);
    if (!history) return;

    // A failure anywhere below costs one line of history and nothing else; the next check tries
    // again.
    FileSystem& files = machine_.fileSystem;
    if (!files.exists(kSupportFolder)) {
        (void)files.createFolders(kSupportFolder, files.userName());
    }
    const std::string folder = history->folder(logDict);
    if (!files.exists(folder)) (void)files.createFolders(folder, files.userName());

    const std::string path = folder + '/' + history->fileName;
    bool isRead = false;
    const auto added = files.changePropertyList(
        path,
        [&](PropertyList& document) {
            isRead = true;
            addEntry(document, logDict, integerValue(preference(history->limitKey)));
            return true;
        },
        kSharedFilePermissions, Durability::process);
    // For want of descriptors a good log must not be begun anew.
    if (isRead || added || maySucceedLater(added.error())) return;
    const auto begin = [&] {
        return files.writePropertyList(path, newLog(logDict), kSharedFilePermissions,
                                       Durability::process);
    };
    const auto begun = begin();
    if (begun || !isForeign(begun.error())) return;
    const auto attributes = files.attributes(path);
    if (attributes && attributes->kind != ItemKind::folder && files.remove(path)) (void)begin();
}

}  // namespace korvane
