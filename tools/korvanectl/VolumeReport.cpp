#include "korvanectl/VolumeReport.h"

#include <fmt/format.h>

#include <utility>

#include "core/DefaultPreferences.h"
#include "korvanectl/HistoryLog.h"
#include "korvanectl/Text.h"
#include "storage/EntryFields.h"
#include "storage/SupportFolder.h"
#include "storage/VolumeEntry.h"

namespace korvane::ctl {

namespace {

constexpr char kUsageLogName[] = "Volume Usage.plist";

const PropertyListArray& volumeArray(const Dictionary& preferences) {
    static const PropertyListArray none;
    const PropertyList* const stored = preferences.find(kVolumeArray);
    return stored != nullptr && stored->array() != nullptr ? *stored->array() : none;
}

// Protection and the check itself are on unless the preferences say no; an absent switch of the
// check alone arms nothing.
bool usageChecksAreOn(const Dictionary& preferences) {
    const PropertyList* const daemonOn = preferences.find(kDaemonOn);
    return (daemonOn == nullptr || booleanValue(daemonOn)) &&
           booleanValue(preferences.find(kVolumeUsageOnOff));
}

std::optional<double> number(const Dictionary& entry, std::string_view key) {
    const PropertyList* const value = entry.find(key);
    if (value == nullptr || (value->real() == nullptr && value->integer() == nullptr)) {
        return std::nullopt;
    }
    return doubleValue(value);
}

LoggedCheck loggedCheck(const Dictionary& entry) {
    const PropertyList* const date = entry.find("calendarDate");
    return LoggedCheck{.time = loggedMoment(date),
                       .timeText = stringValue(date),
                       .failed = stringValue(entry.find("result")) != "passed",
                       .percentFree = number(entry, "percentFree"),
                       .freeBytes = number(entry, "fs_freeSize"),
                       .sizeBytes = number(entry, "fs_size")};
}

VolumeReport reportVolume(const ReportSources& sources, const Dictionary& fields) {
    const ConstVolumeEntry entry{fields};
    VolumeReport report;
    report.mountPoint = entry.volumeMountToName();
    report.name = sources.volumes.displayName(report.mountPoint);
    report.watched = entry.volumeOnOff();
    report.warningLevel = entry.freeSpaceWarningLevel();
    report.nextCheck = entry.executionTimeUsage();
    report.isNextCheckBeyondInterval = isDueBeyondInterval(fields, kUsageKeys, sources.now);
    report.state = checkState(CheckKind::usage, entry.usageStatus(), report.nextCheck, sources.now,
                              sources.daemon);
    if (report.state == CheckState::ok && !report.watched) {
        report.state = CheckState::notWatched;
    }
    if (report.state != CheckState::notAvailable) {
        report.schedule = usageChecksAreOn(sources.preferences) ? Schedule::at : Schedule::off;
        const MountEntry* const mount = sources.volumes.mountAt(report.mountPoint);
        report.device = mount != nullptr ? mount->mountFromName : "";
        report.space = sources.volumes.fileSystemAttributes(report.mountPoint);
    }
    const auto log = readVolumeLog(sources.supportFolder, report.name);
    if (log && !log->empty()) {
        report.lastCheck = log->back();
    }
    return report;
}

Failure noSuchVolume(const Dictionary& preferences, std::string_view name) {
    std::string known;
    for (const PropertyList& element : volumeArray(preferences)) {
        if (const auto entry = ConstVolumeEntry::over(element)) {
            known += (known.empty() ? "" : ", ") + printable(entry->volumeMountToName());
        }
    }
    return {ExitStatus::refused,
            known.empty()
                ? std::string{"no volume is known yet; the daemon finds them when it runs"}
                : fmt::format("no volume \"{}\"; there are: {}", printable(name), known)};
}

}  // namespace

std::vector<VolumeReport> reportVolumes(const ReportSources& sources) {
    std::vector<VolumeReport> reports;
    for (const PropertyList& element : volumeArray(sources.preferences)) {
        if (const Dictionary* const fields = element.dictionary()) {
            reports.push_back(reportVolume(sources, *fields));
        }
    }
    return reports;
}

Outcome<std::size_t> findVolume(const Dictionary& preferences, Volumes& volumes,
                                std::string_view name) {
    const PropertyListArray& entries = volumeArray(preferences);
    std::vector<std::size_t> named;
    std::string paths;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const auto entry = ConstVolumeEntry::over(entries[i]);
        if (!entry) {
            continue;
        }
        const std::string& mountPoint = entry->volumeMountToName();
        if (mountPoint == name) {
            return i;
        }
        if (volumes.displayName(mountPoint) == name) {
            named.push_back(i);
            paths += (paths.empty() ? "" : ", ") + printable(mountPoint);
        }
    }
    if (named.size() > 1) {
        return Failure{ExitStatus::refused,
                       fmt::format("{} volumes are called \"{}\"; name one by its mount point: {}",
                                   named.size(), printable(name), paths)};
    }
    if (named.empty()) {
        return noSuchVolume(preferences, name);
    }
    return named.front();
}

const Dictionary& volumeEntryAt(const Dictionary& preferences, std::size_t index) {
    return *volumeArray(preferences)[index].dictionary();
}

void setBackRunningUsageChecks(Dictionary& preferences) {
    PropertyList* const stored = preferences.find(kVolumeArray);
    if (stored == nullptr || stored->array() == nullptr) {
        return;
    }
    for (PropertyList& element : *stored->array()) {
        Dictionary* const entry = element.dictionary();
        if (entry != nullptr && entryStatus(*entry, kUsageKeys) == kStatusRunning) {
            setEntryStatus(*entry, kUsageKeys, kStatusNotExamined);
        }
    }
}

bool hasStuckUsageCheck(const Dictionary& preferences, const Dictionary& before) {
    for (const PropertyList& element : volumeArray(before)) {
        const auto entry = ConstVolumeEntry::over(element);
        if (!entry || entry->usageStatus() != kStatusRunning) {
            continue;
        }
        for (const PropertyList& other : volumeArray(preferences)) {
            const auto now = ConstVolumeEntry::over(other);
            if (now && now->volumeMountToName() == entry->volumeMountToName() &&
                now->usageStatus() == kStatusRunning &&
                now->executionTimeUsage() == entry->executionTimeUsage()) {
                return true;
            }
        }
    }
    return false;
}

Outcome<std::vector<LoggedCheck>> readVolumeLog(const std::string& supportFolder,
                                                std::string_view volumeName) {
    const std::string path =
        fmt::format("{}/{}/{}", supportFolder, volumeFolderName(volumeName), kUsageLogName);
    return readLog<LoggedCheck>(path, loggedCheck);
}

}  // namespace korvane::ctl
