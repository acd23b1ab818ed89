// The entries of a history log in memory: how one is added, and how many stay. Where a log lies and
// how it is kept in step with its file is the daemon's work.
#pragma once

#include <cstdint>

#include "base/PropertyList.h"

namespace korvane {

// Adds the entry at the end and drops the oldest ones down to the limit, the new one included. The
// limit is compared without its sign, as an array's count is: a negative one is so large that
// nothing is dropped.
void appendHistoryEntry(PropertyListArray& logEntries, Dictionary entry, std::int64_t limit);

}  // namespace korvane
