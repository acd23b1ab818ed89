// Decisions on the records of the trash usage file: what is written of an item that is seen in a
// trash folder, and what becomes of the records of items that are there no longer. Values only.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "platform/DirectoryWatch.h"
#include "storage/TrashEntry.h"

namespace korvane {

// Stores the item's record under its key. An item seen again keeps the date on which it was first
// seen; one that had been deleted or put back starts afresh.
void storeTrashRecord(Dictionary& usage, const TrashItem& item, Time now);

// Marks the records of items that have left the trash and drops those that were marked before and
// are older than `saveDays` days of the calendar, from the last key to the first. Whether anything
// changed.
bool updateTrashRecords(Dictionary& usage,
                        const std::function<ResolvedNode(const SeenItem&)>& resolve, Time now,
                        std::int64_t saveDays);

// Whether a file that was last written then has been kept long enough.
[[nodiscard]] bool isTrashFileExpired(Time modified, Time now, std::int64_t saveDays);

}  // namespace korvane
