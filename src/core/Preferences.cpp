// The settings document: loading it, completing it, writing it back, and what follows a change.

#include <utility>

#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "storage/DriveInventory.h"
#include "storage/SupportFolder.h"

namespace korvane {

using std::chrono::seconds;

namespace {

// Moves the array under the key out of the dictionary; one that is absent, or no array, is empty.
PropertyListArray takeArray(Dictionary& dictionary, std::string_view key) {
    PropertyList* value = dictionary.find(key);
    PropertyListArray* array = value ? value->array() : nullptr;
    return array ? std::exchange(*array, {}) : PropertyListArray{};
}

}  // namespace

void KorvaneProDaemon::loadPreferences() {
    if (preferenceDictionary) {
        preferenceDictionary.reset();
        driveArray.clear();
        volumeArray.clear();
    }
    FileSystem& files = machine_.fileSystem;
    if (files.exists(kSupportFolder) && files.exists(kPreferencesFile)) {
        Result<PropertyList> document = files.readPropertyList(kPreferencesFile);
        if (document && document->dictionary()) {
            preferenceDictionary = std::move(*document->dictionary());
            if (preferenceDictionary->size() < kFewestPreferences) {
                // Whatever the file holds, the arrays in memory are what is written and kept.
                createPreferences();
            } else {
                driveArray = takeArray(*preferenceDictionary, kDriveArray);
                volumeArray = takeArray(*preferenceDictionary, kVolumeArray);
            }
        } else {
            const std::string reason = document
                                           ? std::string(kPreferencesFile) + ": holds no dictionary"
                                           : document.error().message;
            machine_.systemLog.write(LogMessage::settingsUnusable, {reason});
        }
    } else {
        preferenceDictionary.emplace();
        createPreferences();
    }
    if (!preferenceDictionary) return;

    trashSaveDays = integerValue(preference(kTrashSaveDays));
    const std::string startUpVolume = startUpVolumeLocation();
    completeBackupLocations(*preferenceDictionary, startUpVolume);
    rootSaveDisabled = backupLocationsLack(*preferenceDictionary, startUpVolume);
}

void KorvaneProDaemon::createPreferences() {
    forceDefaultPreferences(*preferenceDictionary);
    completeBackupLocations(*preferenceDictionary, startUpVolumeLocation());
    writePreferences();
}

void KorvaneProDaemon::writePreferences() {
    if (!preferenceDictionary) return;
    FileSystem& files = machine_.fileSystem;
    if (!files.exists(kSupportFolder)) {
        // Nothing can be done about a failure here: the write below fails too, and the next save
        // that finds no folder ends the daemon.
        (void)files.createFolders(kSupportFolder, files.userName());
    }
    // A failed write leaves the last complete state on disk, and the next one tries again.
    (void)writePreferencesTo(kPreferencesFile, Durability::powerLoss);
}

Result<std::monostate> KorvaneProDaemon::writePreferencesTo(const std::string& path,
                                                            Durability durability) {
    // Lent to the dictionary rather than copied: the arrays can be large.
    preferenceDictionary->set(kDriveArray, std::move(driveArray));
    preferenceDictionary->set(kVolumeArray, std::move(volumeArray));
    PropertyList document(std::move(*preferenceDictionary));
    Result<std::monostate> written =
        machine_.fileSystem.writePropertyList(path, document, kSharedFilePermissions, durability);
    preferenceDictionary = std::move(*document.dictionary());
    driveArray = takeArray(*preferenceDictionary, kDriveArray);
    volumeArray = takeArray(*preferenceDictionary, kVolumeArray);
    return written;
}

bool KorvaneProDaemon::savePreferences() {
    if (!machine_.fileSystem.isFolder(kSupportFolder)) {
        quitWithoutSupportFolder();
        return false;
    }
    writePreferences();
    outTimer.reset();
    armClockTimer(seconds(1));
    return true;
}

void KorvaneProDaemon::preferencesUpdated() {
    if (!machine_.fileSystem.isFolder(kSupportFolder)) {
        quitWithoutSupportFolder();
        return;
    }
    loadPreferences();
    updateDrivePreferences(DriveProbe::none);
    updateVolumePreferences();
    setupTrashRetainer(false);
    outTimer.reset();
    clockTimer.reset();
    setOutTimer();
}

const PropertyList* KorvaneProDaemon::preference(std::string_view key) const {
    return preferenceDictionary ? preferenceDictionary->find(key) : nullptr;
}

std::string KorvaneProDaemon::startUpVolumeLocation() {
    return "/Volumes/" + machine_.fileSystem.displayName("/");
}

}  // namespace korvane
