// What went through the trash, as the daemon keeps it: the history of the items, and the records of
// where their contents lay. Both can be written by everybody: what they say is shown and looked
// for, never trusted.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KorvaneProDataRecovery/ResultRecords.h"
#include "base/Calendar.h"
#include "korvanectl/Outcome.h"
#include "platform/linux/UniqueFd.h"
#include "storage/TrashEntry.h"

namespace korvane::ctl {

// Whether a text that anybody may have written is the name of a file within a folder.
[[nodiscard]] bool isFileName(std::string_view name);

// One item of the history; its texts are those of the record.
struct HistoryItem {
    std::string key;
    std::string name;
    std::string folder;  // the trash folder that it was seen in
    std::string volumeName;
    std::uint64_t node = 0;
    std::optional<Time> putIn;
    TrashState state = TrashState::inTrash;
    std::optional<Time> left;  // when it was seen to have left the trash
    std::string origin;        // the path that it came from; empty when it is not recorded
    // Its volume is not mounted: what became of it is not known.
    bool isVolumeAway = false;
    // A later item of the history has its number and its name.
    bool isSuperseded = false;
    // It left the trash, and stands where it came from. One that had another name in the trash is
    // emptied all the same by the history, which knows an item by its name.
    bool isAtOrigin = false;

    // Of an item that the history has no longer: its time was over, or the history was begun anew.
    // Whether it was emptied or put back is not known. Its records are kept for as long as others,
    // and it is as recoverable. When it was recorded last.
    std::optional<Time> lastSeen;
    // What tells it from others of its node and name, as far as it was recorded.
    std::int64_t born = 0;
    VolumeUuid volumeUuid{};
};

// The whole history, oldest first, with what the records say of the items' origins and the items
// that they alone have.
[[nodiscard]] Outcome<std::vector<HistoryItem>> readTrashHistory(const std::string& supportFolder);

// The item of this key, or else all of this name, node number, origin or path in the trash.
[[nodiscard]] std::vector<HistoryItem> findHistoryItems(const std::vector<HistoryItem>& history,
                                                        std::string_view wanted);

// The newest records of the item: itself first, then what it held. Empty when there are none.
[[nodiscard]] std::vector<RecordedItem> recordsOf(const std::string& supportFolder,
                                                  const HistoryItem& item);

// Whether the recorded id of a volume is nothing but the number of its device. Of file systems
// without an id of their own the kernel answers so (u64_to_fsid() of huge_encode_dev(),
// linux/statfs.h).
[[nodiscard]] bool isDeviceNumber(std::uint64_t volumeId, dev_t device);

// The item in its trash folder, found by its name and its node, and its birth if it is known to
// have left, without going through a link that users can plant.
struct ItemInTrash {
    UniqueFd folder;
    std::string name;  // in bytes
    struct stat status {};
};
[[nodiscard]] std::optional<ItemInTrash> findInTrash(const HistoryItem& item);

// Whether the path that the item came from has the item itself, by its node and its birth, without
// a link in the way; false when its birth is not recorded. Nothing is opened but the folder's
// place.
[[nodiscard]] bool standsAtOrigin(const HistoryItem& item);

}  // namespace korvane::ctl
