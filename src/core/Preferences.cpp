// The settings document: loading it, completing it, writing it back, and what follows a change.

#include <optional>
#include <string>
#include <utility>

#include "base/PropertyListCodec.h"
#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "core/SettingsDigest.h"
#include "storage/DriveInventory.h"
#include "storage/SupportFolder.h"

namespace korvane {

using std::chrono::microseconds;
using std::chrono::seconds;

namespace {

// A document that large costs so much to write that its owner waits for the next state of it.
constexpr std::size_t kLargeDocumentBytes = 1'000'000;
constexpr seconds kLargeDocumentPause{10};
// What stood in the way of a write or a load is looked at again after as long.
constexpr seconds kFailedWriteRetry{60};
constexpr seconds kLoadRetry{10};

// Moves the array under the key out of the dictionary; one that is absent, or no array, is empty.
PropertyListArray takeArray(Dictionary& dictionary, std::string_view key) noexcept {
    PropertyList* value = dictionary.find(key);
    PropertyListArray* array = value ? value->array() : nullptr;
    return array ? std::exchange(*array, {}) : PropertyListArray{};
}

// The settings with the arrays in their places, for as long as this lives. They can be large, so
// they are lent to the document rather than copied, and go back even where a write throws.
class WholeDocument {
  public:
    WholeDocument(Dictionary& preferences, PropertyListArray& driveArray,
                  PropertyListArray& volumeArray)
        : preferences_(preferences), driveArray_(driveArray), volumeArray_(volumeArray) {
        // The places first: for them memory may run out, for the moves not.
        preferences.set(kDriveArray, PropertyListArray{});
        preferences.set(kVolumeArray, PropertyListArray{});
        preferences.find(kDriveArray)->array()->swap(driveArray);
        preferences.find(kVolumeArray)->array()->swap(volumeArray);
        document_ = PropertyList(std::move(preferences));
    }
    ~WholeDocument() {
        preferences_ = std::move(*document_.dictionary());
        driveArray_ = takeArray(preferences_, kDriveArray);
        volumeArray_ = takeArray(preferences_, kVolumeArray);
    }
    WholeDocument(const WholeDocument&) = delete;
    WholeDocument& operator=(const WholeDocument&) = delete;
    [[nodiscard]] const PropertyList& get() const { return document_; }

  private:
    Dictionary& preferences_;
    PropertyListArray& driveArray_;
    PropertyListArray& volumeArray_;
    PropertyList document_;
};

}  // namespace

void KorvaneProDaemon::loadPreferences() {
    // What waited to be written gives way to what the file holds.
    saveTimer.reset();
    std::optional<Dictionary> document = readPreferences();
    if (document && document->size() < kFewestPreferences) {
        createPreferences(std::move(*document));
    } else {
        takePreferences(std::move(document), EntryArrays::ofDocument);
    }
}

std::optional<Dictionary> KorvaneProDaemon::readPreferences() {
    FileSystem& files = machine_.fileSystem;
    if (!files.exists(kSupportFolder) || !files.exists(kPreferencesFile)) {
        loadTimer.reset();
        return Dictionary{};
    }
    Result<PropertyList> document = files.readPropertyList(kPreferencesFile);
    if (document && document->dictionary()) {
        logOnce.ended(kPreferencesFile);
        loadTimer.reset();
        return std::move(*document->dictionary());
    }
    const std::string reason = document ? std::string(kPreferencesFile) + ": holds no dictionary"
                                        : document.error().message;
    logOnce.write(kPreferencesFile, LogMessage::settingsUnusable, {reason});
    if (document || !maySucceedLater(document.error())) {
        loadTimer.reset();
    } else if (!loadTimer) {
        loadTimer = machine_.runLoop.startTimer(kLoadRetry, Repeat::every, [this] {
            carryOut("loading the settings again", [this] { loadAgain(); });
        });
    }
    return std::nullopt;
}

void KorvaneProDaemon::loadAgain() {
    // The start is still to come, and must not be taken for one that a reload replaces.
    if (startupInProgress) {
        loadPreferences();
        return;
    }
    preferencesUpdated();
    if (preferenceDictionary && !areEntriesMarked) {
        markNotYetExamined();
        writePreferences();
    }
}

void KorvaneProDaemon::takePreferences(std::optional<Dictionary> document, EntryArrays arrays) {
    // All that may run out of memory comes before the first change.
    const std::string startUpVolume = startUpVolumeLocation();
    if (document) completeBackupLocations(*document, startUpVolume);

    if (preferenceDictionary) {
        driveArray.clear();
        volumeArray.clear();
    }
    preferenceDictionary = std::move(document);
    if (!preferenceDictionary) return;
    if (arrays == EntryArrays::ofDocument) {
        driveArray = takeArray(*preferenceDictionary, kDriveArray);
        volumeArray = takeArray(*preferenceDictionary, kVolumeArray);
    }
    trashSaveDays = integerValue(preference(kTrashSaveDays));
    rootSaveDisabled = backupLocationsLack(*preferenceDictionary, startUpVolume);
}

void KorvaneProDaemon::createPreferences(Dictionary document) {
    forceDefaultPreferences(document);
    takePreferences(std::move(document), EntryArrays::inMemory);
    writePreferences();
}

void KorvaneProDaemon::writePreferences() {
    if (!preferenceDictionary) return;
    const WholeDocument document(*preferenceDictionary, driveArray, volumeArray);
    const SettingsDigest digest = digestSettings(document.get());
    const microseconds sinceLastWrite{
        static_cast<std::int64_t>(machine_.clock.microsecondsSinceBoot() - lastWrite)};
    if (digest.bytes > kLargeDocumentBytes && syncedSettings &&
        sinceLastWrite < kLargeDocumentPause) {
        writeLater(kLargeDocumentPause - sinceLastWrite);
        return;
    }
    saveTimer.reset();
    FileSystem& files = machine_.fileSystem;
    if (!files.exists(kSupportFolder)) {
        // Nothing can be done about a failure here: the write below fails too, and the next save
        // that finds no folder ends the daemon.
        (void)files.createFolders(kSupportFolder, files.userName());
    }
    // What somebody set must outlive a power cut; the checks find statuses and times again.
    const bool isOnlyProgress = syncedSettings == digest.fingerprint;
    const auto written =
        files.writePropertyList(kPreferencesFile, document.get(), kSharedFilePermissions,
                                isOnlyProgress ? Durability::process : Durability::powerLoss);
    lastWrite = machine_.clock.microsecondsSinceBoot();
    if (written) {
        syncedSettings = digest.fingerprint;
    } else {
        // The last complete state stays on the disk.
        syncedSettings.reset();
        writeLater(kFailedWriteRetry);
    }
}

void KorvaneProDaemon::writeLater(microseconds delay) {
    if (saveTimer) return;
    saveTimer = machine_.runLoop.startTimer(delay, Repeat::once, [this] {
        saveTimer.reset();
        carryOut("saving the settings later", [this] {
            if (machine_.fileSystem.isFolder(kSupportFolder)) writePreferences();
        });
    });
}

std::string KorvaneProDaemon::preferencesText() {
    return formatPropertyList(WholeDocument(*preferenceDictionary, driveArray, volumeArray).get());
}

bool KorvaneProDaemon::savePreferences() {
    if (!machine_.fileSystem.isFolder(kSupportFolder)) {
        quitWithoutSupportFolder();
        return false;
    }
    writePreferences();
    armClockTimer(seconds(1));
    outTimer.reset();
    return true;
}

void KorvaneProDaemon::preferencesUpdated() {
    if (!machine_.fileSystem.isFolder(kSupportFolder)) {
        quitWithoutSupportFolder();
        return;
    }
    loadPreferences();
    refreshInventories(DriveProbe::none);
    setupTrashRetainer(false);
    outTimer.reset();
    clockTimer.reset();
    setOutTimer();
}

const PropertyList* KorvaneProDaemon::preference(std::string_view key) const {
    return preferenceDictionary ? preferenceDictionary->find(key) : nullptr;
}

std::string KorvaneProDaemon::startUpVolumeLocation() {
    return "/Volumes/" + machine_.volumes.displayName("/");
}

}  // namespace korvane
