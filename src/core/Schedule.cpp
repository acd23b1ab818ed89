#include "core/Schedule.h"

#include <algorithm>

#include "platform/PowerSources.h"
#include "storage/DriveEntry.h"
#include "storage/VolumeEntry.h"

namespace korvane {

using std::chrono::seconds;

namespace {

// By then the machine has settled after its start.
constexpr seconds kSettlingTime{120};
// The daemon looks around at least once an hour.
constexpr double kLongestIntervalSeconds = 3600;
// Something overdue is running, or has just been started: no need to look at once.
constexpr double kOverdueIntervalSeconds = 3;

void moveDueTime(Dictionary& entry, const CheckKeys& keys, Time now,
                 std::chrono::microseconds step) {
    // An entry without a due time is due in any case.
    if (!entry.contains(keys.executionTime) || isDueBeyondInterval(entry, keys, now - step)) return;
    setExecutionTime(entry, keys, executionTime(entry, keys) + step);
}

}  // namespace

seconds startUpDelay(std::chrono::microseconds sinceBoot) {
    return kSettlingTime - std::min(std::chrono::duration_cast<seconds>(sinceBoot), kSettlingTime);
}

bool isOnBattery(const std::optional<std::vector<std::string>>& powerSourceStates) {
    return powerSourceStates &&
           std::any_of(powerSourceStates->begin(), powerSourceStates->end(),
                       [](const std::string& state) { return state != kPowerSourceOnMains; });
}

std::optional<std::size_t> usageCheckToStart(const PropertyListArray& volumeArray, Time now) {
    for (std::size_t index = 0; index < volumeArray.size(); ++index) {
        const auto entry = ConstVolumeEntry::over(volumeArray[index]);
        if (!entry) continue;
        const EntryStatus status = entry->usageStatus();
        if (status == kStatusNotAvailable) continue;
        if (!remainingTime(entry->executionTimeUsage(), now).isDue()) continue;
        if (status == kStatusRunning) return std::nullopt;
        return index;
    }
    return std::nullopt;
}

std::optional<std::size_t> dueDirectoryBackup(const PropertyListArray& volumeArray, Time now) {
    for (std::size_t index = 0; index < volumeArray.size(); ++index) {
        const auto entry = ConstVolumeEntry::over(volumeArray[index]);
        if (entry && entry->directoryOnOff() && entry->directoryStatus() != kStatusNotAvailable &&
            remainingTime(entry->executionTimeDirectory(), now).isDue()) {
            return index;
        }
    }
    return std::nullopt;
}

DueSmartCheck dueSmartCheck(const PropertyListArray& driveArray, Time now) {
    for (std::size_t index = 0; index < driveArray.size(); ++index) {
        const auto entry = ConstDriveEntry::over(driveArray[index]);
        if (!entry || !entry->smartOnOff()) continue;
        if (!remainingTime(entry->executionTimeSmart(), now).isDue()) continue;
        if (entry->smartStatus() == kStatusRunning) return {.isAnyDue = true, .toStart = {}};
        return {.isAnyDue = true, .toStart = index};
    }
    return {};
}

void moveDueTimes(PropertyListArray& volumeArray, PropertyListArray& driveArray, Time now,
                  std::chrono::microseconds step) {
    for (PropertyList& element : volumeArray) {
        Dictionary* const entry = element.dictionary();
        if (!entry) continue;
        moveDueTime(*entry, kUsageKeys, now, step);
        moveDueTime(*entry, kDirectoryKeys, now, step);
    }
    for (PropertyList& element : driveArray) {
        if (Dictionary* const entry = element.dictionary()) {
            moveDueTime(*entry, kSmartKeys, now, step);
        }
    }
}

std::chrono::duration<double> outTimerInterval(const PropertyListArray& volumeArray,
                                               const PropertyListArray& driveArray,
                                               const CheckSwitches& switches, Time now) {
    double interval = kLongestIntervalSeconds;
    const auto consider = [&](Time due) {
        interval = std::min(interval, remainingTime(due, now).totalSeconds());
    };
    for (const PropertyList& element : volumeArray) {
        const auto entry = ConstVolumeEntry::over(element);
        if (!entry) continue;
        if (switches.usage && entry->usageStatus() != kStatusNotAvailable) {
            consider(entry->executionTimeUsage());
        }
        if (switches.directory && entry->directoryOnOff() &&
            entry->directoryStatus() != kStatusNotAvailable) {
            consider(entry->executionTimeDirectory());
        }
    }
    for (const PropertyList& element : driveArray) {
        const auto entry = ConstDriveEntry::over(element);
        if (entry && switches.smart && entry->smartOnOff()) consider(entry->executionTimeSmart());
    }
    return std::chrono::duration<double>(interval > 0 ? interval : kOverdueIntervalSeconds);
}

}  // namespace korvane
