// What is to be known of an item in the trash, and of what it holds, to find its contents again.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "KorvaneProDataRecovery/ContentChecksum.h"
#include "KorvaneProDataRecovery/RecordFiles.h"
#include "KorvaneProDataRecovery/ResultRecords.h"

namespace korvane {

// How much of what folders in the trash hold one run records. The items of the trash themselves do
// not count: whatever the others hold, each is recorded.
struct FolderLimit {
    std::size_t itemsOfFolder = 1000;
    std::size_t extentsOfFolder = 65'536;  // 7 MB of records
    std::size_t namesOfFolder = 100'000;   // of one level, read to be sorted
    std::size_t depth = 16;
    std::size_t itemsLeft = 10'000;
};

// The item `name` in the folder `folder` at `folderPath`, and, when it is a folder, what it holds:
// the item itself first, a folder before what is in it, the names of each level in the order of
// their bytes. Empty when the item is gone. Goes through no link and to no other file system, and
// reads contents only for their checksums, as far as `reading` allows and where no earlier
// recording of the item has them.
[[nodiscard]] std::vector<RecordedItem> recordItem(int folder, const std::string& folderPath,
                                                   const std::string& name, FolderLimit& limit,
                                                   ReadingLimit& reading,
                                                   const EarlierRecords& earlier = {});

}  // namespace korvane
