#include "korvanectl/CheckReset.h"

#include <algorithm>

namespace korvane::ctl {

namespace {

bool hasToBe(const Dictionary& entry, const CheckKeys& keys, Time now) {
    return entryStatus(entry, keys) == kStatusRunning || isDueBeyondInterval(entry, keys, now);
}

}  // namespace

bool setBackChecks(Dictionary& entry, std::span<const CheckKeys> kinds, Time now) {
    bool any = false;
    for (const CheckKeys& keys : kinds) {
        any = any || hasToBe(entry, keys, now);
        if (entryStatus(entry, keys) == kStatusRunning) {
            setEntryStatus(entry, keys, kStatusNotExamined);
        }
        if (isDueBeyondInterval(entry, keys, now)) {
            setExecutionTime(entry, keys, now);
        }
    }
    return any;
}

bool isToBeSetBack(const Dictionary& entry, const Dictionary& before,
                   std::span<const CheckKeys> kinds, Time now) {
    return std::ranges::any_of(kinds, [&](const CheckKeys& keys) {
        return hasToBe(before, keys, now) && hasToBe(entry, keys, now) &&
               executionTime(entry, keys) == executionTime(before, keys);
    });
}

}  // namespace korvane::ctl
