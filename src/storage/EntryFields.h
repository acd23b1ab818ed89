// How entries of drives and volumes store their values: texts, and what they keep of each check, a
// status, a due time and an interval. Other programs rewrite entries, so every reading is lenient.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/Calendar.h"
#include "base/PropertyList.h"

namespace korvane {

// Stored as decimal text and read by its integer value, whatever that is: values other than these
// count as idle.
enum EntryStatus : std::int64_t {
    kStatusNotExamined = 0,   // set at every start
    kStatusWaiting = 1,       // a backup waits for another backup
    kStatusRunning = 2,       // the check runs
    kStatusPassed = 3,        // passed, or idle
    kStatusFailing = 4,       // failing, or low on space: the warning has been given
    kStatusNotAvailable = 5,  // absent or not eligible: never scheduled
};

// The keys under which an entry keeps what belongs to one check.
struct CheckKeys {
    const char* status;
    const char* executionTime;  // seconds since 1970, a real
    const char* intervalHours;
    const char* intervalMinutes;
    const char* intervalSeconds;
};
inline constexpr CheckKeys kUsageKeys{
    "usageStatus", "executionTimeUsage", "executionIntervalUsage_hours",
    "executionIntervalUsage_minutes", "executionIntervalUsage_seconds"};
inline constexpr CheckKeys kDirectoryKeys{
    "directoryStatus", "executionTimeDirectory", "executionIntervalDirectory_hours",
    "executionIntervalDirectory_minutes", "executionIntervalDirectory_seconds"};
inline constexpr CheckKeys kSmartKeys{
    "smartStatus", "executionTimeSmart", "executionIntervalSmart_hours",
    "executionIntervalSmart_minutes", "executionIntervalSmart_seconds"};

// When the first check of a new entry is due: soon, and not before the drive or volume has settled.
inline constexpr std::chrono::seconds kFirstCheckDelay{10};

// The text under the key, empty when there is none. Holds until the entry next changes.
[[nodiscard]] const std::string& entryText(const Dictionary& entry, std::string_view key);

[[nodiscard]] EntryStatus entryStatus(const Dictionary& entry, const CheckKeys& keys);
void setEntryStatus(Dictionary& entry, const CheckKeys& keys, EntryStatus status);

[[nodiscard]] Time executionTime(const Dictionary& entry, const CheckKeys& keys);
void setExecutionTime(Dictionary& entry, const CheckKeys& keys, Time due);

[[nodiscard]] CheckInterval executionInterval(const Dictionary& entry, const CheckKeys& keys);
// Whether the due time is further ahead than the check's interval. The daemon itself sets none
// such: another program did, or the interval has been shortened since, or the clock was ahead and
// was set right while no daemon ran.
[[nodiscard]] bool isDueBeyondInterval(const Dictionary& entry, const CheckKeys& keys, Time now);
void setExecutionInterval(Dictionary& entry, const CheckKeys& keys, const CheckInterval& interval);

}  // namespace korvane
