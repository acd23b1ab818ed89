// What is known of one drive: its entry in the preferences and its log. No drive is asked anything.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "korvanectl/DaemonLink.h"
#include "korvanectl/Outcome.h"
#include "korvanectl/VolumeReport.h"
#include "korvanectl/Words.h"

namespace korvane::ctl {

// One line of a drive's log.
struct LoggedDriveCheck {
    std::optional<Time> time;
    std::string timeText;  // as logged; for what cannot be read as a time
    bool failed = false;
    std::string path;        // of the device
    std::string connection;  // "ATA", "USB"
};

struct DriveReport {
    std::string model;
    std::string serial;
    bool watched = false;
    bool isResting = false;  // at the last check, which did not ask it then
    // By the last line of the log: the status in the entry says that all is well whatever a drive
    // said. A drive that a check has passed by without a line, one that does not answer or whose
    // number is too high, is "notChecked".
    CheckState state = CheckState::unknown;
    Schedule schedule = Schedule::never;
    Time nextCheck{};
    bool isNextCheckBeyondInterval = false;
    std::optional<LoggedDriveCheck> lastCheck;
};

// All drives that have an entry, in the entries' order.
[[nodiscard]] std::vector<DriveReport> reportDrives(const Dictionary& preferences,
                                                    const std::string& supportFolder,
                                                    DaemonPresence daemon, Time now);

// The drive that goes by this serial number, model, or both as its folder has them. Failures: none,
// or several.
[[nodiscard]] Outcome<DriveReport> findDrive(const std::vector<DriveReport>& drives,
                                             std::string_view name);

// The drive's log, oldest first; none when it has none yet. A damaged log is a failure.
[[nodiscard]] Outcome<std::vector<LoggedDriveCheck>> readDriveLog(const std::string& supportFolder,
                                                                  const std::string& model,
                                                                  const std::string& serial);

}  // namespace korvane::ctl
