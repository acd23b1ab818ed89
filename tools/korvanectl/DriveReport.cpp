#include "korvanectl/DriveReport.h"

#include <fmt/format.h>

#include <utility>

#include "core/DefaultPreferences.h"
#include "korvanectl/HistoryLog.h"
#include "korvanectl/Text.h"
#include "storage/DriveEntry.h"
#include "storage/SupportFolder.h"

namespace korvane::ctl {

namespace {

using namespace std::chrono_literals;

constexpr char kSmartLogName[] = "Smart Check.plist";
// A check writes its line before it sets the next time, by less than this even when drives before
// it hang.
constexpr std::chrono::minutes kLongestCheck{10};

bool smartChecksAreOn(const Dictionary& preferences) {
    const PropertyList* const daemonOn = preferences.find(kDaemonOn);
    return (daemonOn == nullptr || booleanValue(daemonOn)) &&
           booleanValue(preferences.find(kSmartCheckOnOff));
}

LoggedDriveCheck loggedCheck(const Dictionary& entry) {
    const PropertyList* const date = entry.find("calendarDate");
    return LoggedDriveCheck{.time = loggedMoment(date),
                            .timeText = stringValue(date),
                            .failed = stringValue(entry.find("result")) != "passed",
                            .path = stringValue(entry.find("bsdName")),
                            .connection = stringValue(entry.find("driveConnection"))};
}

// Whether the check that set the next time has left a line.
bool hasLineOfLastRun(const ConstDriveEntry& entry, const std::optional<LoggedDriveCheck>& last,
                      Time now) {
    if (!last) {
        return false;
    }
    if (!last->time) {
        return true;
    }
    const CheckInterval interval = entry.executionIntervalSmart();
    const Time lastRun = addInterval(
        entry.executionTimeSmart(),
        {.hours = -interval.hours, .minutes = -interval.minutes, .seconds = -interval.seconds});
    // The interval may have been shortened since.
    return lastRun > now || *last->time + kLongestCheck >= lastRun;
}

CheckState driveState(const ConstDriveEntry& entry, const std::optional<LoggedDriveCheck>& last,
                      DaemonPresence daemon, Time now) {
    const CheckState stored =
        checkState(CheckKind::smart, entry.smartStatus(), entry.executionTimeSmart(), now, daemon);
    // Nothing may hide a failing drive, not even a check of it that runs or hangs.
    if (last && last->failed) {
        return CheckState::failing;
    }
    if (stored != CheckState::ok) {
        return stored;
    }
    return hasLineOfLastRun(entry, last, now) || (last && entry.smartResting())
               ? CheckState::ok
               : CheckState::notChecked;
}

DriveReport reportDrive(const Dictionary& preferences, const std::string& supportFolder,
                        const Dictionary& fields, DaemonPresence daemon, Time now) {
    const ConstDriveEntry entry{fields};
    DriveReport report;
    report.model = entry.driveModel();
    report.serial = entry.driveSerial();
    report.watched = entry.smartOnOff();
    report.isResting = entry.smartResting();
    report.nextCheck = entry.executionTimeSmart();
    report.isNextCheckBeyondInterval = isDueBeyondInterval(fields, kSmartKeys, now);
    report.schedule =
        smartChecksAreOn(preferences) && report.watched ? Schedule::at : Schedule::off;
    if (const auto log = readDriveLog(supportFolder, report.model, report.serial);
        log && !log->empty()) {
        report.lastCheck = log->back();
    }
    report.state = driveState(entry, report.lastCheck, daemon, now);
    return report;
}

}  // namespace

std::vector<DriveReport> reportDrives(const Dictionary& preferences,
                                      const std::string& supportFolder, DaemonPresence daemon,
                                      Time now) {
    std::vector<DriveReport> reports;
    const PropertyList* const stored = preferences.find(kDriveArray);
    if (stored == nullptr || stored->array() == nullptr) {
        return reports;
    }
    for (const PropertyList& element : *stored->array()) {
        if (const Dictionary* const fields = element.dictionary()) {
            reports.push_back(reportDrive(preferences, supportFolder, *fields, daemon, now));
        }
    }
    return reports;
}

Outcome<DriveReport> findDrive(const std::vector<DriveReport>& drives, std::string_view name) {
    std::vector<const DriveReport*> named;
    std::string serials;
    for (const DriveReport& drive : drives) {
        if (drive.serial == name || driveFolderName(drive.model, drive.serial) == name ||
            (drive.lastCheck && drive.lastCheck->path == name)) {
            return drive;
        }
        if (drive.model == name) {
            named.push_back(&drive);
            serials += (serials.empty() ? "" : ", ") + printable(drive.serial);
        }
    }
    if (named.size() == 1) {
        return *named.front();
    }
    return Failure{ExitStatus::refused,
                   named.empty()
                       ? fmt::format("no drive \"{}\"", printable(name))
                       : fmt::format("{} drives are called \"{}\"; name one by its serial: {}",
                                     named.size(), printable(name), serials)};
}

Outcome<std::vector<LoggedDriveCheck>> readDriveLog(const std::string& supportFolder,
                                                    const std::string& model,
                                                    const std::string& serial) {
    const std::string path =
        fmt::format("{}/{}/{}", supportFolder, driveFolderName(model, serial), kSmartLogName);
    return readLog<LoggedDriveCheck>(path, loggedCheck);
}

}  // namespace korvane::ctl
