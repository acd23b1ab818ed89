// What became of a volume's entries between two directory backups of it. Both records are read side
// by side, so that their size costs no memory.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "korvanectl/Outcome.h"
#include "korvanectl/RecordReader.h"

namespace korvane::ctl {

enum class ChangeKind {
    appeared,
    vanished,
    changed,
    unknown  // one of the records could not look there
};

// One word of an entry, "size" or "time", as both records have it; empty where one has none.
struct WordChange {
    std::string_view key;
    std::string before;
    std::string after;
};

struct Change {
    ChangeKind kind = ChangeKind::appeared;
    std::string path;               // below the volume's own folder; empty for that one
    std::vector<WordChange> words;  // of what has changed
};

struct ChangeCounts {
    std::size_t appeared = 0;
    std::size_t vanished = 0;
    std::size_t changed = 0;
    std::size_t unknown = 0;
};

// Tells of every change, in the records' order, and answers how many there were of each kind. Node
// numbers are not compared: some file systems give them out anew at each mount. A damaged record
// ends it; what was told until then stands.
[[nodiscard]] Outcome<ChangeCounts> compareRecords(RecordReader& before, RecordReader& after,
                                                   const std::function<void(const Change&)>& tell);

}  // namespace korvane::ctl
