#include "scenarios/DaemonFiles.h"

#include <gtest/gtest.h>

#include "base/PropertyListCodec.h"
#include "core/DefaultPreferences.h"
#include "storage/SupportFolder.h"

namespace korvane {

Dictionary completePreferences() {
    Dictionary preferences = defaultPreferences();
    preferences.set("directoryBackupLocations", PropertyListArray{"/Volumes/System"});
    preferences.set("driveArray", PropertyListArray{});
    preferences.set("volumeArray", PropertyListArray{});
    return preferences;
}

std::string textOf(const Dictionary& document) { return formatPropertyList(document); }

void putPreferences(Scenario& scenario, const Dictionary& preferences) {
    ASSERT_TRUE(scenario.machine().fileSystem.put(kPreferencesFile, formatPropertyList(preferences),
                                                  kSharedFilePermissions));
}

std::vector<std::string> volumePathsIn(Scenario& scenario) {
    const Dictionary preferences = scenario.preferences();
    std::vector<std::string> paths;
    const PropertyList* stored = preferences.find("volumeArray");
    if (!stored || !stored->array()) return paths;
    for (const PropertyList& element : *stored->array()) {
        if (!element.dictionary()) continue;
        paths.push_back(stringValue(element.dictionary()->find("volumeMountToName")));
    }
    return paths;
}

std::string usageStatusIn(Scenario& scenario, const std::string& mountPoint) {
    return stringValue(scenario.volumeEntry(mountPoint).find("usageStatus"));
}

double executionTimeUsageIn(Scenario& scenario, const std::string& mountPoint) {
    return doubleValue(scenario.volumeEntry(mountPoint).find("executionTimeUsage"));
}

std::string usageLogPath(const std::string& displayName) {
    return volumeFolder(displayName) + "/Volume Usage.plist";
}

std::vector<std::string> usageResultsIn(Scenario& scenario, const std::string& displayName) {
    std::vector<std::string> results;
    for (const Dictionary& entry : scenario.historyLog(displayName)) {
        results.push_back(stringValue(entry.find("result")));
    }
    return results;
}

}  // namespace korvane
