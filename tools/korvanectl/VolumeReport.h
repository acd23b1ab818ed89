// What is known of one volume: its entry in the preferences, its log, and what the machine says
// now.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "korvanectl/DaemonLink.h"
#include "korvanectl/Outcome.h"
#include "korvanectl/Words.h"
#include "platform/Volumes.h"

namespace korvane::ctl {

// One line of a volume's log.
struct LoggedCheck {
    std::optional<Time> time;
    std::string timeText;  // as logged; for what cannot be read as a time
    bool failed = false;
    std::optional<double> percentFree;
    std::optional<double> freeBytes;
    std::optional<double> sizeBytes;
};

// When a check comes next, if at all.
enum class Schedule { at, off, never };

struct VolumeReport {
    std::string mountPoint;
    std::string name;
    std::string device;                         // empty while it is not mounted
    std::optional<FileSystemAttributes> space;  // now
    bool watched = false;
    std::int64_t warningLevel = 0;  // percent
    CheckState state = CheckState::unknown;
    Schedule schedule = Schedule::never;
    Time nextCheck{};
    bool isNextCheckBeyondInterval = false;
    std::optional<LoggedCheck> lastCheck;
};

// What reports are made from. `volumes` is asked for sizes only of local volumes whose entry is not
// "not available": a dead server cannot hang it.
struct ReportSources {
    const Dictionary& preferences;
    std::string supportFolder;
    Volumes& volumes;
    DaemonPresence daemon = DaemonPresence::absent;
    Time now{};
};

// All volumes that have an entry, in the entries' order.
[[nodiscard]] std::vector<VolumeReport> reportVolumes(const ReportSources& sources);

// The index in "volumeArray" of the entry with this mount point, else with this name. Failures:
// none, or several of the name.
[[nodiscard]] Outcome<std::size_t> findVolume(const Dictionary& preferences, Volumes& volumes,
                                              std::string_view name);

// The entry at the index, which findVolume() gave for the same preferences.
[[nodiscard]] const Dictionary& volumeEntryAt(const Dictionary& preferences, std::size_t index);

// Sets every free-space check that is recorded as running back to be made anew.
void setBackRunningUsageChecks(Dictionary& preferences);
// Whether one of them is recorded as running since the same due time as in `before`: one that the
// daemon has begun anew is no longer stuck.
[[nodiscard]] bool hasStuckUsageCheck(const Dictionary& preferences, const Dictionary& before);

// The log of the volume that goes by this name, oldest first; none when it has none yet. A damaged
// log is a failure.
[[nodiscard]] Outcome<std::vector<LoggedCheck>> readVolumeLog(const std::string& supportFolder,
                                                              std::string_view volumeName);

}  // namespace korvane::ctl
