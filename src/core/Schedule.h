// When things fall due: the decisions behind the daemon's timers. Values in, values out; the timers
// themselves are the daemon's.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "base/Calendar.h"
#include "base/PropertyList.h"

namespace korvane {

// What is still to be waited before protection begins: nothing once the machine has been up for two
// minutes, in whole seconds of uptime.
[[nodiscard]] std::chrono::seconds startUpDelay(std::chrono::microseconds sinceBoot);

// Whether any power source says something else than that it is on mains. Without power-source
// information the machine counts as on mains.
[[nodiscard]] bool isOnBattery(const std::optional<std::vector<std::string>>& powerSourceStates);

// The volume whose usage check is to be started: the first that is due, unless its check is running
// already. Entries that are not available, or are no entries at all, are passed over.
[[nodiscard]] std::optional<std::size_t> usageCheckToStart(const PropertyListArray& volumeArray,
                                                           Time now);

// The volume whose directory backup is due first, running or not: while it is, it keeps the others
// waiting. Entries that are switched off or not available are passed over.
[[nodiscard]] std::optional<std::size_t> dueDirectoryBackup(const PropertyListArray& volumeArray,
                                                            Time now);

// The first drive that is due, of those whose check is switched on: whether there is one, and its
// index unless its check is running already.
struct DueSmartCheck {
    bool isAnyDue = false;
    std::optional<std::size_t> toStart;
};
[[nodiscard]] DueSmartCheck dueSmartCheck(const PropertyListArray& driveArray, Time now);

// The kinds of check that may be waited for.
struct CheckSwitches {
    bool usage = false;
    bool directory = false;
    bool smart = false;
};

// How long until the earliest of the checks falls due: at most an hour, and 3 seconds when one is
// overdue. Running checks take part like idle ones.
[[nodiscard]] std::chrono::duration<double> outTimerInterval(const PropertyListArray& volumeArray,
                                                             const PropertyListArray& driveArray,
                                                             const CheckSwitches& switches,
                                                             Time now);

// The wall clock has been set by so much, and shows `now`: the daemon's own due times move with it,
// so that a check comes when it would have come. A due time that was further ahead than its
// interval was not the daemon's own: it stays at the date that somebody chose.
void moveDueTimes(PropertyListArray& volumeArray, PropertyListArray& driveArray, Time now,
                  std::chrono::microseconds step);

}  // namespace korvane
