// The SMART check: asks one drive whether it says of itself that it is failing, warns each time it
// does, and keeps the result.

#include <optional>
#include <string>
#include <vector>

#include "base/Format.h"
#include "core/KorvaneProDaemon.h"
#include "monitors/SmartLogEntry.h"
#include "storage/DriveEntry.h"
#include "storage/DriveIndex.h"
#include "storage/SmartStatus.h"

namespace korvane {

namespace {

// The history log of this check.
constexpr std::int16_t kSmartLog = 1;

}  // namespace

void KorvaneProDaemon::smartCheck(std::size_t index) {
    // The array may have been reloaded since the timer was armed.
    if (index >= driveArray.size()) return;
    std::optional<DriveEntry> entry = DriveEntry::over(driveArray[index]);
    if (!entry) return;

    // One pass for each number that a disk can have. A drive is looked at in the pass of its own
    // number, and only then opened: no other drive is asked anything, and this one is asked once.
    const std::vector<NumberedDrive> drives =
        driveIndex.drivesNamed(entry->driveModel(), entry->driveSerial());
    bool isResting = false;
    for (unsigned number = 0; number <= kHighestDiskNumber; ++number) {
        failing = false;
        for (const auto& [ownNumber, drive] : drives) {
            if (ownNumber != number) continue;
            const DriveStatus status = readSmartStatus(drive);
            isResting = isResting || status == kDriveResting;
            if (status != kDriveSuccess) continue;
            if (failing) warnOfFailingDrive(drive);
            updateLog(kSmartLog, smartLogEntry(drive, machine_.clock.now(), failing), index);
            break;
        }
    }
    // What is left of `failing` is what the last pass found: the entry of a drive with a lower
    // number says that all is well whatever the drive said. The warning and the log tell the truth.
    entry->setExecutionTimeSmart(
        addInterval(machine_.clock.now(), entry->executionIntervalSmart()));
    entry->setSmartResting(isResting);
    entry->setSmartStatus(failing ? kStatusFailing : kStatusPassed);
    savePreferences();
}

DriveStatus KorvaneProDaemon::readSmartStatus(const CheckedDrive& drive) {
    const SmartStatusAnswer answer = askSmartStatus(machine_.deviceRegistry, drive.service);
    failing = answer.isThresholdExceeded;
    if (answer.status == kDriveNotPermitted) logLackOfRights(drive.path);
    return answer.status;
}

void KorvaneProDaemon::warnOfFailingDrive(const CheckedDrive& drive) {
    const std::string message =
        formatText(localized("smartReportingFailure"),
                   {std::string_view(*drive.identity.model),
                    std::string_view(*drive.identity.serial), std::string_view(drive.path)});
    machine_.systemLog.write(LogMessage::driveFailing, {drive.path});
    showWarningDialog(message);
    // At once, unlike the usage check's: the drive may not be there for long.
    sendAlertMail(message, kSenderSmartCheck);
}

// Never ended: what an administrator has not granted now is not granted in an hour.
void KorvaneProDaemon::logLackOfRights(const std::string& path) {
    logOnce.write(path, LogMessage::driveNotPermitted, {path});
}

}  // namespace korvane
