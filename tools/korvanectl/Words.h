// Numbers of the preferences and logs in the words a person reads.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "korvanectl/DaemonLink.h"
#include "korvanectl/Text.h"
#include "storage/EntryFields.h"

namespace korvane::ctl {

enum class CheckKind { usage, directory, smart };

enum class CheckState {
    notYetExamined,
    waiting,  // for another backup to end
    running,
    stuck,  // recorded as running, but nothing runs
    ok,
    notWatched,  // examined, but its switch is off: it can never fail
    failing,
    notAvailable,
    notChecked,  // a check has passed it by: it could not be asked
    unknown      // a number that the daemon never writes
};

// How long after its due time a check that is recorded as running is taken for stuck, while a
// daemon runs. A free-space check takes milliseconds, and starts at most seconds late; SMART checks
// may wait 10 seconds for each of many dying drives; a backup of a large volume takes hours.
[[nodiscard]] std::chrono::seconds stuckAfter(CheckKind kind);

// A stored status, with what makes the difference between running and stuck.
[[nodiscard]] CheckState checkState(CheckKind kind, EntryStatus status, Time due, Time now,
                                    DaemonPresence daemon);

// "ok", "LOW SPACE" and the like, and the tone they are said in.
[[nodiscard]] std::string stateWords(CheckKind kind, CheckState state);
[[nodiscard]] Tone stateTone(CheckState state);
// One word for programs: "ok", "failing", "notAvailable".
[[nodiscard]] std::string stateToken(CheckState state);

// "14:05:12" today, else "2026-03-01 14:05:12", in the local zone.
[[nodiscard]] std::string timeWords(Time time, Time now);
// "in 4 min", "in 2 h 5 min", "in 30 s"; "now" for what is due.
[[nodiscard]] std::string untilWords(Time time, Time now);

// When a check comes next: "14:05:12, in 4 min", "now". One that is further ahead than its
// interval, which the daemon itself never sets, says so: beyondIntervalWords() follows.
[[nodiscard]] std::string dueWords(Time due, bool isBeyondInterval, Time now);
[[nodiscard]] std::string beyondIntervalWords();

// "999 bytes", "1.5 kB", "12.3 GB": powers of 1000, as on the drive's label.
[[nodiscard]] std::string sizeWords(double bytes);
// "9.6 %", and "100 %" only for what is whole: rounded down, since the daemon warns before
// rounding.
[[nodiscard]] std::string percentWords(double percent);

// A setting's value in one line: yes or no, a number, the text, a list's elements with commas
// between them; entries are counted.
[[nodiscard]] std::string valueWords(const PropertyList& value);

// The moment in a log entry: a date, or a text in the form of calendarDateDescription(); nothing
// for anything else.
[[nodiscard]] std::optional<Time> loggedMoment(const PropertyList* calendarDate);

}  // namespace korvane::ctl
