#include "monitors/HistoryEntries.h"

#include <utility>

namespace korvane {

void appendHistoryEntry(PropertyListArray& logEntries, Dictionary entry, std::int64_t limit) {
    logEntries.emplace_back(std::move(entry));
    const auto most = static_cast<std::uint64_t>(limit);
    if (logEntries.size() <= most) return;
    const auto surplus = static_cast<std::ptrdiff_t>(logEntries.size() - most);
    logEntries.erase(logEntries.begin(), logEntries.begin() + surplus);
}

}  // namespace korvane
