// The volume usage check: measures the free space of one volume, warns once for each time it runs
// low, and keeps the result.

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "base/Format.h"
#include "core/KorvaneProDaemon.h"
#include "monitors/UsageOutcome.h"
#include "storage/VolumeEntry.h"

namespace korvane {

namespace {

// The emergency start-up volume is never measured.
constexpr char kEmergencyVolumeName[] = "Ostrand";
// The history log of this check.
constexpr std::int16_t kUsageLog = 2;

}  // namespace

void KorvaneProDaemon::volumeUsageCheck(std::size_t index) {
    // The array may have been reloaded since the timer was armed.
    if (ignoreFreeSpaceUsage || index >= volumeArray.size()) return;
    std::optional<VolumeEntry> entry = VolumeEntry::over(volumeArray[index]);
    if (!entry) return;

    const std::string path = entry->volumeMountToName();
    if (canMeasureUsage(path)) {
        measureVolumeUsage(path, *entry, index);
    } else {
        entry->setUsageStatus(kStatusPassed);
    }
    entry->setExecutionTimeUsage(
        addInterval(machine_.clock.now(), entry->executionIntervalUsage()));
    savePreferences();
}

bool KorvaneProDaemon::canMeasureUsage(const std::string& path) {
    const std::vector<std::string>& mounted = machine_.volumes.mountedLocalVolumePaths();
    if (std::find(mounted.begin(), mounted.end(), path) == mounted.end()) return false;
    const std::optional<FileSystemFlags> flags = machine_.volumes.fileSystemFlags(path);
    return flags && flags->isWritable && machine_.volumes.displayName(path) != kEmergencyVolumeName;
}

void KorvaneProDaemon::measureVolumeUsage(const std::string& path, VolumeEntry& entry,
                                          std::size_t index) {
    // Sizes that cannot be had count as zero, and zero sizes as enough: a volume that vanished a
    // moment ago is no reason for an alarm.
    const UsageMeasurement measured =
        measureUsage(machine_.volumes.fileSystemAttributes(path).value_or(FileSystemAttributes{}));
    const UsageOutcome outcome =
        usageOutcome(entry.volumeOnOff(), entry.freeSpaceWarningLevel(), measured.percentFree);
    const std::string displayName = machine_.volumes.displayName(path);
    if (outcome == UsageOutcome::passed) {
        entry.setUsageStatus(kStatusPassed);
    } else {
        machine_.systemLog.write(LogMessage::freeSpaceLow,
                                 {displayName, double{measured.percentFree}});
        if (entry.usageStatus() != kStatusFailing) {
            showWarningDialog(
                formatText(localized("percentFreeSpaceRemaining"),
                           {std::string_view(displayName), double{measured.percentFree}}));
            // Sent after this run, which so is saved whatever the mail server does.
            machine_.runLoop.post([this, displayName, percentFree = measured.percentFree] {
                mailUsageWarning(displayName, percentFree);
            });
        }
        // The latch holds whether or not anybody could be shown the dialog.
        entry.setUsageStatus(kStatusFailing);
    }
    updateLog(kUsageLog, usageLogEntry(displayName, machine_.clock.now(), measured, outcome),
              index);
}

void KorvaneProDaemon::mailUsageWarning(const std::string& displayName, float percentFree) {
    sendAlertMail(formatText(localized("percentFreeSpaceRemaining"),
                             {std::string_view(displayName), double{percentFree}}),
                  kSenderVolumeUsage);
}

}  // namespace korvane
