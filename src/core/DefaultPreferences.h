// What a settings document holds before anybody has set anything. The keys are shared with the main
// application.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "base/PropertyList.h"

namespace korvane {

// A document with fewer top-level entries counts as incomplete: even without the mail settings a
// whole one holds more.
inline constexpr std::size_t kFewestPreferences = 10;

// Keys that the daemon itself reads or writes.
inline constexpr char kDaemonOn[] = "DAEMON_ON";
inline constexpr char kVolumeUsageOnOff[] = "volumeUsageOnOff";
inline constexpr char kUsageEntryLimit[] = "usageEntryLimit";
inline constexpr char kDirectoryBackupOnOff[] = "directoryBackupOnOff";
inline constexpr char kSmartCheckOnOff[] = "smartCheckOnOff";
inline constexpr char kSmartEntryLimit[] = "smartEntryLimit";
inline constexpr char kDirectoryFilesToSave[] = "directoryFilesToSave";
inline constexpr char kDirectoryBackupLocations[] = "directoryBackupLocations";
inline constexpr char kTrashHistoryOnOff[] = "trashHistoryOnOff";
inline constexpr char kTrashSaveDays[] = "trashSaveDays";
inline constexpr char kDriveArray[] = "driveArray";
inline constexpr char kVolumeArray[] = "volumeArray";

// Every setting but the backup locations and the arrays, with its default.
[[nodiscard]] Dictionary defaultPreferences();

// Sets every default over what is there; keys that have none stay as they are.
void forceDefaultPreferences(Dictionary& preferences);

// Where no backup location is named, names the start-up volume alone.
void completeBackupLocations(Dictionary& preferences, const std::string& startUpVolumeLocation);

// Whether the backup locations leave the start-up volume out.
[[nodiscard]] bool backupLocationsLack(const Dictionary& preferences,
                                       std::string_view startUpVolumeLocation);

}  // namespace korvane
