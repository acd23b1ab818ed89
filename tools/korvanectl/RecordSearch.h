// Looks for a name in all directory backups of one volume at once. They are read side by side, so
// that their size costs no memory, and an entry that many of them have is told once.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Calendar.h"
#include "korvanectl/Outcome.h"
#include "korvanectl/RecordReader.h"

namespace korvane::ctl {

// Whether the path's last name has the text in it, or as a whole matches it where it is a pattern
// with "*", "?" or "[". A text with a "/" is looked for in the whole path. The case of ASCII
// letters does not matter.
[[nodiscard]] bool matchesName(std::string_view path, const std::string& text);

// The moment in the word "time"; nothing for anything else.
[[nodiscard]] std::optional<Time> recordedTime(std::optional<std::string_view> word);

// An entry as the newest of the backups that have it has it.
struct RecordMatch {
    std::string path;  // whole, below the mount point that the backup names
    std::string type;
    std::optional<double> sizeBytes;
    std::optional<Time> modified;
    std::size_t newest = 0;   // the last of the backups that have it
    std::size_t backups = 0;  // how many have it
};

// `records` are paths, the oldest first. What `tell` is called with is in the records' order. A
// damaged record is left aside from where it is damaged on, and is `warn`ed of.
void searchRecords(const std::vector<std::string>& records, const std::string& text,
                   const std::function<void(const RecordMatch&)>& tell,
                   const std::function<void(const Failure&)>& warn);

}  // namespace korvane::ctl
