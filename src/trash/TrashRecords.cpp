#include "trash/TrashRecords.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>
#include <vector>

namespace korvane {

namespace {

// Whether that changed the record.
bool markIfLeft(TrashEntry record, const ResolvedNode& node, Time now) {
    if (node.state == NodeState::unknown) return false;
    const std::string_view path = node.path;
    const bool hasPath = node.state == NodeState::found && path.size() < kTrashPathBytes;
    if (!hasPath || path.substr(path.rfind('/') + 1) != record.itemName()) {
        record.setDeleted(now);
        return true;
    }
    if (path.starts_with(record.dirPath())) return false;
    record.setRemoved(now);
    return true;
}

bool isMarked(const ConstTrashEntry& record) { return record.state() != TrashState::inTrash; }

// The items that have not left the trash as far as their records know, last one first.
std::vector<SeenItem> openItems(const Dictionary& usage) {
    std::vector<SeenItem> items;
    items.reserve(usage.size());
    for (auto entry = usage.end(); entry != usage.begin();) {
        --entry;
        const auto record = ConstTrashEntry::over(entry->value);
        if (!record || isMarked(*record)) continue;
        items.push_back({.volume = record->volRefNum(),
                         .nodeId = record->nodeId(),
                         .folder = record->dirPath(),
                         .name = record->itemName()});
    }
    return items;
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

bool updateTrashRecords(Dictionary& usage, const NodeResolver& resolve, Time now,
                        std::int64_t saveDays) {
    const Time oldest =
        addDays(now, -std::max(saveDays, -std::numeric_limits<std::int64_t>::max()));
    const std::vector<ResolvedNode> nodes = resolve(openItems(usage));
    auto node = nodes.begin();
    bool changed = false;
    std::vector<Dictionary::Entry> kept;
    kept.reserve(usage.size());
    for (auto entry = usage.end(); entry != usage.begin();) {
        --entry;
        // The total at the top level, and whatever else is no record, stays as it is.
        const auto record = TrashEntry::over(entry->value);
        if (record && !isMarked(*record)) {
            changed = markIfLeft(*record, *node++, now) || changed;
        } else if (record && record->addDate() && *record->addDate() < oldest) {
            changed = true;
            continue;
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
