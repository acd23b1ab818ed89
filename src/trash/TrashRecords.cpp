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

SeenItem seenItem(const ConstTrashEntry& record) {
    return {.volume = record.volRefNum(),
            .nodeId = record.nodeId(),
            .folder = record.dirPath(),
            .name = record.itemName()};
}

// The items that have not left the trash as far as their records know, last one first.
std::vector<SeenItem> openItems(const Dictionary& usage) {
    std::vector<SeenItem> items;
    items.reserve(usage.size());
    for (auto entry = usage.end(); entry != usage.begin();) {
        --entry;
        const auto record = ConstTrashEntry::over(entry->value);
        if (!record || isMarked(*record)) continue;
        items.push_back(seenItem(*record));
    }
    return items;
}

// Whether the record is of the item that has its number now.
bool isOfItem(const ConstTrashEntry& record, const FoundItem& found,
              std::span<const FoundItem> items) {
    if (record.volRefNum() != found.item.volRefNum) return false;
    const bool hasName = record.itemName() == found.item.itemName;
    // A daemon that was killed may have recorded an item without remembering it.
    const bool isRemembered = found.before.name == record.itemName();
    switch (isRemembered ? found.before.identity : Identity::unknown) {
        case Identity::same:
            return hasName || !isMarked(record);
        case Identity::another:
            return false;
        case Identity::unknown:
            break;
    }
    // An item may have several names in the folder, and one record.
    const auto isItsOtherName = [&](const FoundItem& other) {
        return other.item.nodeId == found.item.nodeId && other.item.itemName == record.itemName();
    };
    if (isMarked(record)) return hasName && record.state() == TrashState::removed;
    return hasName || std::ranges::any_of(items, isItsOtherName);
}

// Whether the item of an open record still is in the trash folder of another subvolume.
bool isInOtherTrash(const ConstTrashEntry& record, const TrashItem& item,
                    const NodeResolver& resolve) {
    if (isMarked(record) || record.dirPath() == item.dirPath ||
        record.volRefNum() != item.volRefNum) {
        return false;
    }
    const SeenItem wanted = seenItem(record);
    const ResolvedNode node = resolve({&wanted, 1}).front();
    return node.state == NodeState::found && node.path.starts_with(wanted.folder);
}

// The item of the record is gone, since another item of its volume has the number.
void setAside(Dictionary& usage, const std::string& key, const TrashItem& item, Time now) {
    PropertyList ended = std::move(*usage.find(key));
    TrashEntry record(*ended.dictionary());
    if (!isMarked(record) && record.volRefNum() == item.volRefNum) record.setDeleted(now);
    const std::string plain = endedTrashEntryKey(key, record.addDate().value_or(now));
    std::string free = plain;
    for (int next = 2; usage.contains(free); ++next) free = plain + '_' + std::to_string(next);
    usage.set(free, std::move(ended));
}

}  // namespace

void storeTrashRecords(Dictionary& usage, std::span<const FoundItem> items,
                       const NodeResolver& resolve, Time now) {
    for (const FoundItem& found : items) {
        const std::string key = trashEntryKey(found.item);
        const auto totalSize = static_cast<float>(doubleValue(usage.find(kTrashTotalSize)));
        Dictionary record = newTrashEntry(found.item, totalSize > 0 ? totalSize : 0, now);
        const PropertyList* const stored = usage.find(key);
        const auto before = stored ? ConstTrashEntry::over(*stored) : std::nullopt;
        if (before && !isOfItem(*before, found, items) &&
            !isInOtherTrash(*before, found.item, resolve)) {
            setAside(usage, key, found.item, now);
        } else if (before && !isMarked(*before) && before->addDate()) {
            TrashEntry(record).setAddDate(*before->addDate());
        }
        usage.set(key, std::move(record));
    }
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

std::vector<ItemNumber> numbersToRemember(const Dictionary& usage) {
    std::vector<ItemNumber> numbers;
    for (const Dictionary::Entry& entry : usage) {
        const auto record = ConstTrashEntry::over(entry.value);
        if (record && record->state() != TrashState::deleted) {
            numbers.push_back({record->volRefNum(), record->nodeId()});
        }
    }
    return numbers;
}

bool isTrashFileExpired(Time modified, Time now, std::int64_t saveDays) {
    constexpr double kSecondsPerDay = 86'400;
    return secondsSince1970(now) - secondsSince1970(modified) >=
           static_cast<double>(saveDays) * kSecondsPerDay;
}

}  // namespace korvane
