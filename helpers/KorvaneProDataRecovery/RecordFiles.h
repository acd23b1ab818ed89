// The "Trash Deletes" files of a volume, in which the daemon keeps the records, read back.
// Everybody may write to them.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "KorvaneProDataRecovery/ResultRecords.h"

namespace korvane {

// Those in the volume's folder, the oldest first: their names end in the date, the year first.
[[nodiscard]] std::vector<std::string> recordFilesIn(const std::string& folder);

// Calls `each` with every whole item in the file's last `most` bytes, in the file's order; gives
// how many bytes there were. A file that is a link, or none that can be read, has none.
std::uint64_t forEachItemIn(const std::string& path, std::uint64_t most,
                            const std::function<void(ItemAssembly::Collected&&)>& each);

// What was recorded of items before, so that the same contents are not read, and the same records
// not kept, again at every change of a trash.
class EarlierRecords {
  public:
    using Moment = std::chrono::system_clock::time_point;
    struct Recording {
        std::vector<RecordedItem> items;  // of one item of the trash: itself first
        bool isFresh = false;             // kept for as long as anything recorded now, nearly
    };

    EarlierRecords() = default;
    // Reads the newest files in the folder until it has each of the items of the trash with these
    // node numbers, or has read enough.
    EarlierRecords(const std::string& folder, std::set<std::uint64_t> nodes, Moment now);

    // The newest recording of that item; null when there is none.
    [[nodiscard]] const Recording* of(std::uint64_t node) const;

  private:
    std::map<std::uint64_t, Recording> recordings_;
};

}  // namespace korvane
