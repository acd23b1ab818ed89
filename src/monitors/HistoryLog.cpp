// The history logs: one property list per drive or volume, a folder each, to which every check adds
// its result. The main application reads them, and may rewrite them.

#include <optional>
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

// The document with the entry added: a new one where there is none that can be read, and then with
// its one entry whatever the limit.
Dictionary withEntry(std::optional<Dictionary> document, Dictionary entry, std::int64_t limit) {
    if (!document) {
        PropertyListArray entries;
        entries.emplace_back(std::move(entry));
        return Dictionary{{kLogEntries, std::move(entries)}};
    }
    PropertyList* stored = document->find(kLogEntries);
    PropertyListArray entries;
    if (stored && stored->array()) entries = std::move(*stored->array());
    appendHistoryEntry(entries, std::move(entry), limit);
    document->set(kLogEntries, std::move(entries));
    return std::move(*document);
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
    Result<PropertyList> stored = files.readPropertyList(path);
    std::optional<Dictionary> document;
    if (stored && stored->dictionary()) document = std::move(*stored->dictionary());
    (void)files.writePropertyList(
        path, withEntry(std::move(document), logDict, integerValue(preference(history->limitKey))),
        kSharedFilePermissions, Durability::process);
}

}  // namespace korvane
