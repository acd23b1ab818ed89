// Decisions on the records of the trash usage file: what is written of an item that is seen in a
// trash folder, and what becomes of the records of items that are there no longer. Values only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "platform/DirectoryWatch.h"
#include "storage/TrashEntry.h"

namespace korvane {

// Stores the item's record under its key. An item seen again keeps the date on which it was first
// seen; one that had been deleted or put back starts afresh.
void storeTrashRecord(Dictionary& usage, const TrashItem& item, Time now);

// Where each of these items is now, in their order.
using NodeResolver = std::function<std::vector<ResolvedNode>(std::span<const SeenItem>)>;
// The longest path, its terminating zero byte among them, that an item can be followed to.
inline constexpr std::size_t kTrashPathBytes = 1024;

// Marks the records of items that have left the trash and drops those that were marked before and
// are older than `saveDays` days of the calendar, from the last key to the first. Whether anything
// changed.
bool updateTrashRecords(Dictionary& usage, const NodeResolver& resolve, Time now,
                        std::int64_t saveDays);

// Whether a file that was last written then has been kept long enough.
[[nodiscard]] bool isTrashFileExpired(Time modified, Time now, std::int64_t saveDays);

}  // namespace korvane
