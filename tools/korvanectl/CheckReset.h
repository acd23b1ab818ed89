// Sets checks of a volume or a drive back that would not come by themselves: one that is recorded
// as running, though nothing runs, and one whose due time is further ahead than its interval.
#pragma once

#include <span>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "storage/EntryFields.h"

namespace korvane::ctl {

// Sets the entry's checks of these kinds back, to be examined anew or due now. Whether any had to
// be.
bool setBackChecks(Dictionary& entry, std::span<const CheckKeys> kinds, Time now);

// Whether a check that had to be set back in `before` is as it was: one that the daemon has begun
// anew since then is another matter.
[[nodiscard]] bool isToBeSetBack(const Dictionary& entry, const Dictionary& before,
                                 std::span<const CheckKeys> kinds, Time now);

}  // namespace korvane::ctl
