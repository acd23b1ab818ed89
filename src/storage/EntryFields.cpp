#include "storage/EntryFields.h"

#include <algorithm>

namespace korvane {

const std::string& entryText(const Dictionary& entry, std::string_view key) {
    static const std::string none;
    const PropertyList* value = entry.find(key);
    const std::string* text = value ? value->string() : nullptr;
    return text ? *text : none;
}

EntryStatus entryStatus(const Dictionary& entry, const CheckKeys& keys) {
    return EntryStatus{integerValue(entry.find(keys.status))};
}

void setEntryStatus(Dictionary& entry, const CheckKeys& keys, EntryStatus status) {
    entry.set(keys.status, std::to_string(std::int64_t{status}));
}

Time executionTime(const Dictionary& entry, const CheckKeys& keys) {
    return timeFromSecondsSince1970(doubleValue(entry.find(keys.executionTime)));
}

void setExecutionTime(Dictionary& entry, const CheckKeys& keys, Time due) {
    entry.set(keys.executionTime, secondsSince1970(due));
}

CheckInterval executionInterval(const Dictionary& entry, const CheckKeys& keys) {
    return {.hours = integerValue(entry.find(keys.intervalHours)),
            .minutes = integerValue(entry.find(keys.intervalMinutes)),
            .seconds = integerValue(entry.find(keys.intervalSeconds))};
}

bool isDueBeyondInterval(const Dictionary& entry, const CheckKeys& keys, Time now) {
    // With a short interval the first check of a new entry is due later than that.
    return executionTime(entry, keys) >
           std::max(addInterval(now, executionInterval(entry, keys)), now + kFirstCheckDelay);
}

void setExecutionInterval(Dictionary& entry, const CheckKeys& keys, const CheckInterval& interval) {
    entry.set(keys.intervalHours, std::int64_t{interval.hours});
    entry.set(keys.intervalMinutes, std::int64_t{interval.minutes});
    entry.set(keys.intervalSeconds, std::int64_t{interval.seconds});
}

}  // namespace korvane
