#include "core/DefaultPreferences.h"

#include <algorithm>

namespace korvane {

Dictionary defaultPreferences() {
    return Dictionary{
        {kDaemonOn, true},
        {"protectionUpdated", false},
        {"showProtection", false},
        {"SMARTCheckEmail", true},
        {"volumeUsageEmail", true},
        {"emailEnabled", false},
        {"emailUseAuthentication", false},
        {"emailSubject", ""},
        {"emailAddress", ""},
        {"emailPort", ""},  // a text like the other mail settings, not a number
        {"emailServer", ""},
        {"emailUserName", ""},
        {"emailPassword", ""},
        {kTrashHistoryOnOff, true},
        {kTrashSaveDays, 5},
        {kVolumeUsageOnOff, true},
        {kUsageEntryLimit, 15},
        {kDirectoryBackupOnOff, true},
        {kDirectoryFilesToSave, 3},
        {kSmartCheckOnOff, true},
        {kSmartEntryLimit, 15},
    };
}

void forceDefaultPreferences(Dictionary& preferences) {
    for (Dictionary::Entry& setting : defaultPreferences()) {
        preferences.set(setting.key, std::move(setting.value));
    }
}

void completeBackupLocations(Dictionary& preferences, const std::string& startUpVolumeLocation) {
    const PropertyList* locations = preferences.find(kDirectoryBackupLocations);
    const PropertyListArray* named = locations ? locations->array() : nullptr;
    if (named && !named->empty()) return;
    preferences.set(kDirectoryBackupLocations, PropertyListArray{startUpVolumeLocation});
}

bool backupLocationsLack(const Dictionary& preferences, std::string_view startUpVolumeLocation) {
    const PropertyList* locations = preferences.find(kDirectoryBackupLocations);
    const PropertyListArray* named = locations ? locations->array() : nullptr;
    return !named || std::none_of(named->begin(), named->end(), [&](const PropertyList& location) {
        return location.string() && *location.string() == startUpVolumeLocation;
    });
}

}  // namespace korvane
