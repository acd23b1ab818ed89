// Decisions on the records of the trash usage file: what is written of an item that is seen in a
// trash folder, and what becomes of the records of items that are there no longer. Values only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "platform/DirectoryWatch.h"
#include "storage/TrashEntry.h"

namespace korvane {

// An item of a scan, and what is known of the one that was remembered under its number.
struct FoundItem {
    TrashItem item;
    Recognized before{};
};

// What a scan of a trash folder has found.
struct TrashScan {
    std::string folder;
    std::optional<std::int16_t> volume;  // that the folder lies on, as far as it is known
    std::vector<CatalogItem> catalogue;
    std::vector<FoundItem> items;  // those of the catalogue, in its order
};

// Where each of these items is now, in their order.
using NodeResolver = std::function<std::vector<ResolvedNode>(std::span<const SeenItem>)>;

// Stores the records of a scan's items under their keys. An item seen again keeps the date on which
// it was first seen; one that had been deleted or put back starts afresh. The record of another
// item that had the number before stays, under endedTrashEntryKey(), and is marked as deleted where
// it was open; one of another volume of the same name is not marked. On a file system whose
// subvolumes each have an item of that number the record is that of the item seen last.
void storeTrashRecords(Dictionary& usage, std::span<const FoundItem> items,
                       const NodeResolver& resolve, Time now);

// The longest path, its terminating zero byte among them, that an item can be followed to.
inline constexpr std::size_t kTrashPathBytes = 1024;

// Marks the records of items that have left the trash and drops those that were marked before and
// are older than `saveDays` days of the calendar, from the last key to the first. Whether anything
// changed.
bool updateTrashRecords(Dictionary& usage, const NodeResolver& resolve, Time now,
                        std::int64_t saveDays);

// The numbers that items are still to be recognized by: of those that have not left, and of those
// that were put back. A number whose item was deleted goes to another item.
[[nodiscard]] std::vector<ItemNumber> numbersToRemember(const Dictionary& usage);

// Whether a file that was last written then has been kept long enough.
[[nodiscard]] bool isTrashFileExpired(Time modified, Time now, std::int64_t saveDays);

}  // namespace korvane
