// The trash history as a table, and the choice of one item out of it by what a person types.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "korvanectl/Program.h"
#include "korvanectl/Table.h"
#include "korvanectl/TrashHistory.h"

namespace korvane::ctl {

inline constexpr std::string_view kNoWords = "-";
inline constexpr char kItemHelp[] = "Name, path, node number or key of an item";

// "1 file", "2 files".
[[nodiscard]] std::string counted(std::uint64_t count, std::string_view one);
[[nodiscard]] std::string timeOrNothing(const std::optional<Time>& time, Time now);
[[nodiscard]] std::string stateWords(const HistoryItem& item, Time now);

[[nodiscard]] Table historyTable(const std::vector<HistoryItem>& items, Time now, bool withKeys);

// The history with what the records add to it; of what they alone have, what still lies in its
// trash is in the trash. What left it is looked for where it came from.
[[nodiscard]] Outcome<std::vector<HistoryItem>> trashHistoryOf(Program& program);

// standsAtOrigin() of an item that is not in its trash, asked where it can be: on the mount that
// the trash lies on, which alone an item can be moved to and be the same one.
[[nodiscard]] bool isPutBackToOrigin(Program& program, const HistoryItem& item);

// The item that is called so. Of several all are shown on standard error, to choose one by its key.
[[nodiscard]] Outcome<HistoryItem> itemCalled(Program& program, const std::string& wanted);

}  // namespace korvane::ctl
