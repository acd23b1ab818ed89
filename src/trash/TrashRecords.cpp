#include "trash/TrashRecords.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>
#include <vector>

namespace korvane {

namespace {

bool markIfLeft(TrashEntry record, const std::function<ResolvedNode(const SeenItem&)>& resolve,
                Time now) {
    const ResolvedNode node = resolve({.volume = record.volRefNum(),
                                       .nodeId = record.nodeId(),
                                       .folder = record.dirPath(),
                                       .name = record.itemName()});
    if (node.state == NodeState::unknown) return false;
    const std::string_view path = node.path;
    const std::string_view name = path.substr(path.rfind('/') + 1);
    if (node.state == NodeState::gone || name != record.itemName()) {
        record.setDeleted(now);
        return true;
    }
    if (path.starts_with(record.dirPath())) return false;
    record.setRemoved(now);
    return true;
}

}  // namespace

void storeTrashRecord(Dictionary& usage, const TrashItem& item, Time now) {
    const std::string key = trashEntryKey(item);
    const auto totalSize = static_cast<float>(doubleValue(usage.find(kTrashTotalSize)));
    Dictionary record = newTrashEntry(item, totalSize > 0 ? totalSize : 0, now);
    const PropertyList* const stored = usage.find(key);
    const auto before = stored ? ConstTrashEntry::over(*stored) : std::nullopt;
    if (before && before->state() == TrashState::inTrash && before->addDate()) {
        TrashEntry(record).setAddDate(*before->addDate());
    }
    usage.set(key, std::move(record));
}

bool updateTrashRecords(Dictionary& usage,
                        const std::function<ResolvedNode(const SeenItem&)>& resolve, Time now,
                        std::int64_t saveDays) {
    const Time oldest =
        addDays(now, -std::max(saveDays, -std::numeric_limits<std::int64_t>::max()));
    bool changed = false;
    std::vector<Dictionary::Entry> kept;
    kept.reserve(usage.size());
    for (auto entry = usage.end(); entry != usage.begin();) {
        --entry;
        // The total at the top level, and whatever else is no record, stays as it is.
        const auto record = TrashEntry::over(entry->value);
        if (record && record->state() != TrashState::inTrash) {
            if (record->addDate() && *record->addDate() < oldest) {
                changed = true;
                continue;
            }
        } else if (record) {
            changed = markIfLeft(*record, resolve, now) || changed;
        }
        kept.push_back(std::move(*entry));
    }
    std::reverse(kept.begin(), kept.end());
    usage = Dictionary(std::move(kept));
    return changed;
}

bool isTrashFileExpired(Time modified, Time now, std::int64_t saveDays) {
    constexpr double kSecondsPerDay = 86'400;
    return secondsSince1970(now) - secondsSince1970(modified) >=
           static_cast<double>(saveDays) * kSecondsPerDay;
}

}  // namespace korvane
