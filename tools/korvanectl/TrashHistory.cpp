#include "korvanectl/TrashHistory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <system_error>
#include <tuple>
#include <utility>

#include "KorvaneProDataRecovery/RecordFiles.h"
#include "korvanectl/Document.h"
#include "korvanectl/Text.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/OpenFolder.h"
#include "storage/SupportFolder.h"
#include "trash/TrashFormats.h"

namespace korvane::ctl {

namespace {

namespace fs = std::filesystem;

HistoryItem historyItem(const std::string& key, const ConstTrashEntry& entry) {
    HistoryItem item{.key = key,
                     .name = entry.itemName(),
                     .folder = entry.dirPath(),
                     .volumeName = entry.volumeName(),
                     .node = entry.nodeId(),
                     .putIn = entry.addDate(),
                     .state = entry.state(),
                     .left = std::nullopt,
                     .origin = {},
                     .lastSeen = std::nullopt};
    if (item.state == TrashState::removed) item.left = entry.removedDate();
    if (item.state == TrashState::deleted) item.left = entry.deletedDate();
    return item;
}

// Keeps, of all that it is given in order, the last whole recording of one item. A run that had no
// time for a checksum takes none away that an earlier one made of the same contents.
class NewestRecording {
  public:
    explicit NewestRecording(const HistoryItem& wanted) : wanted_(wanted) {}

    void add(RecordedItem item) {
        if (item.node == item.trashNode) {
            // Node numbers are used again: another name is another item.
            isWanted_ = item.node == wanted_.node && textOfBytes(item.name) == wanted_.name &&
                        isFileName(item.name) && isSameFile(item);
            if (isWanted_) items_.clear();
        }
        if (!isWanted_ || item.trashNode != wanted_.node) return;
        const auto [earlier, isNew] = earlier_.try_emplace(item.node, item);
        if (!isNew) {
            takeOverChecksum(item, earlier->second);
            earlier->second = item;
        }
        items_.push_back(std::move(item));
    }
    std::vector<RecordedItem> take() { return std::move(items_); }

  private:
    bool isSameFile(const RecordedItem& item) const {
        return item.born == wanted_.born && item.volumeUuid == wanted_.volumeUuid;
    }

    const HistoryItem& wanted_;
    std::vector<RecordedItem> items_;
    std::map<std::uint64_t, RecordedItem> earlier_;  // the last one of each node
    bool isWanted_ = false;
};

// Calls `each` with every whole item of the volume's records, the oldest first.
void forEachRecorded(const std::string& supportFolder, const std::string& volumeName,
                     const std::function<void(ItemAssembly::Collected&&)>& each) {
    for (const std::string& path :
         recordFilesIn(supportFolder + "/" + volumeFolderName(volumeName))) {
        (void)forEachItemIn(path, UINT64_MAX, each);
    }
}

// The moment of a stamp, which counts local time.
Time timeOfStamp(std::uint32_t stamp) {
    constexpr double kSecondsTo1970 = 2'082'844'800;  // from the beginning of 1904
    const Time local = timeFromSecondsSince1970(stamp - kSecondsTo1970);
    // As far from the moment as the local one's own stamp is from it; but for the hour in which the
    // clocks change.
    const auto offset = static_cast<std::int32_t>(stamp - secondsSince1904(local));
    return local + std::chrono::seconds{offset};
}

// Those of the history, and those that have records of items that left it.
std::set<std::string> recordedVolumes(const std::string& supportFolder,
                                      const std::vector<HistoryItem>& history) {
    std::set<std::string> volumes;
    for (const HistoryItem& item : history) volumes.insert(item.volumeName);
    std::error_code none;
    for (fs::directory_iterator entry{supportFolder, none}, end; !none && entry != end;
         entry.increment(none)) {
        const std::string name = entry->path().filename().string();
        if (volumeFolderName(name) == name && !recordFilesIn(entry->path().string()).empty()) {
            volumes.insert(name);
        }
    }
    return volumes;
}

// An item of the trash as its volume's records have it, at its last time.
struct Recorded {
    RecordedItem item;
    Time seen;
};

// Node numbers are used again, also for an item of the same name: by its birth it is another one.
using Identity = std::tuple<std::uint64_t, std::int64_t, VolumeUuid, std::string>;
Identity identityOf(const RecordedItem& item) {
    return {item.node, item.born, item.volumeUuid, item.name};
}

std::vector<Recorded> newestFirst(const std::string& supportFolder, const std::string& volume) {
    std::map<Identity, std::pair<std::size_t, Recorded>> found;
    std::size_t count = 0;
    forEachRecorded(supportFolder, volume, [&](ItemAssembly::Collected&& each) {
        RecordedItem& item = each.item;
        if (item.node != item.trashNode || !isFileName(item.name)) return;
        const Identity identity = identityOf(item);
        found[identity] = {++count, {std::move(item), timeOfStamp(each.stamp)}};
    });
    std::vector<std::pair<std::size_t, Recorded>> order;
    order.reserve(found.size());
    for (auto& [identity, recorded] : found) order.push_back(std::move(recorded));
    std::ranges::sort(order, std::greater{}, [](const auto& each) { return each.first; });
    std::vector<Recorded> items;
    items.reserve(order.size());
    for (auto& [number, recorded] : order) items.push_back(std::move(recorded));
    return items;
}

HistoryItem forgottenItem(const std::string& volume, const Recorded& recorded) {
    const RecordedItem& item = recorded.item;
    const std::string path = textOfBytes(item.path);
    return {.key = fmt::format("{}_{}@{}", volume, item.node,
                               item.born != 0 ? std::to_string(item.born) : textOfBytes(item.name)),
            .name = textOfBytes(item.name),
            .folder = path.substr(0, std::min(path.rfind('/'), path.size())),
            .volumeName = volume,
            .node = item.node,
            .putIn = std::nullopt,
            .state = TrashState::deleted,
            .left = std::nullopt,
            .origin = textOfBytes(item.origin),
            .lastSeen = recorded.seen,
            .born = item.born,
            .volumeUuid = item.volumeUuid};
}

// The items of a volume's history by their numbers and names, each with those of the same, in the
// order in which they came into the trash.
class KnownItems {
  public:
    KnownItems(std::vector<HistoryItem>& history, const std::string& volume) {
        for (HistoryItem& item : history) {
            if (item.volumeName == volume) items_[{item.node, item.name}].push_back(&item);
        }
        for (auto& [number, twins] : items_) {
            std::ranges::stable_sort(twins, {}, [](const HistoryItem* item) {
                return item->putIn.value_or(Time::min());
            });
            for (HistoryItem* const item : twins) item->isSuperseded = item != twins.back();
        }
    }

    // Takes the item that this is a recording of. It had its number from its birth on, so it is the
    // first one that came into the trash after that; without a birth, the last one that had come
    // when it was recorded. Null when there is none, or another recording of it was taken.
    HistoryItem* take(const Recorded& recorded) {
        const auto place = items_.find({recorded.item.node, textOfBytes(recorded.item.name)});
        if (place == items_.end() || place->second.empty()) return nullptr;
        std::vector<HistoryItem*>& twins = place->second;
        const bool hasBirth = recorded.item.born != 0;
        const Time moment = hasBirth
                                ? timeFromSecondsSince1970(static_cast<double>(recorded.item.born))
                                : recorded.seen;
        const auto isBefore = [&](const HistoryItem* each) {
            const Time putIn = each->putIn.value_or(Time::min());
            return hasBirth ? putIn < moment : putIn <= moment;
        };
        // Of those that came before the moment the last one, or the first one behind them.
        auto item = std::ranges::find_if_not(twins, isBefore);
        if (!hasBirth && item != twins.begin()) --item;
        if (item == twins.end()) --item;  // the clock was set meanwhile
        HistoryItem* const taken = *item;
        twins.erase(item);
        return taken;
    }

  private:
    std::map<std::pair<std::uint64_t, std::string>, std::vector<HistoryItem*>> items_;
};

// Gives the history's items their origins, and adds the items that the volume's records alone have.
void addRecorded(const std::string& supportFolder, const std::string& volume,
                 std::vector<HistoryItem>& history) {
    KnownItems known(history, volume);
    std::vector<HistoryItem> forgotten;
    // Another name within the trash is no other item: a file counts under its newest one.
    std::set<std::tuple<std::uint64_t, std::int64_t, VolumeUuid, std::int64_t, std::uint32_t>>
        files;
    for (const Recorded& recorded : newestFirst(supportFolder, volume)) {
        const RecordedItem& item = recorded.item;
        const bool isNewFile =
            item.born == 0 || files
                                  .emplace(item.node, item.born, item.volumeUuid, item.modified,
                                           item.modifiedNanoseconds)
                                  .second;
        if (HistoryItem* const its = known.take(recorded)) {
            its->origin = textOfBytes(item.origin);
            its->born = item.born;
            its->volumeUuid = item.volumeUuid;
        } else if (isNewFile) {
            forgotten.push_back(forgottenItem(volume, recorded));
        }
    }
    std::ranges::move(forgotten, std::back_inserter(history));
}

// Only root makes entries of "/", so the first step may be a link, as "/home" is on some systems.
UniqueFd openTrashFolder(const std::string& path) {
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK;
    UniqueFd folder{::open("/", kFlags)};
    int follow = 0;
    for (const fs::path& step : fs::path{path}.relative_path()) {
        if (!folder || step == "..") return {};
        folder = UniqueFd{::openat(folder.get(), step.c_str(), kFlags | follow)};
        follow = O_NOFOLLOW;
    }
    return folder;
}

bool hasNodeAndBirth(const HistoryItem& item, int folder, const std::string& name) {
    struct statx status {};
    return ::statx(folder, name.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                   STATX_INO | STATX_BTIME, &status) == 0 &&
           (status.stx_mask & STATX_BTIME) != 0 && status.stx_ino == item.node &&
           status.stx_btime.tv_sec == item.born;
}

// A file system gives the number of an emptied item to the next file, which may well get its name,
// too: what left the trash is there again only by its birth.
bool isItemsBirth(const HistoryItem& item, const ItemInTrash& found) {
    const bool hasLeft = item.lastSeen || item.state != TrashState::inTrash;
    if (!hasLeft) return true;
    if (item.born == 0) return !item.lastSeen && !item.isSuperseded;
    return hasNodeAndBirth(item, found.folder.get(), found.name);
}

}  // namespace

bool isFileName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

Outcome<std::vector<HistoryItem>> readTrashHistory(const std::string& supportFolder) {
    const auto document = readDocument(supportFolder + "/" + kTrashUsageFile);
    if (!document) return document.failure();
    std::vector<HistoryItem> history;
    if (*document) {
        for (const auto& [key, value] : (*document)->contents) {
            if (const auto entry = ConstTrashEntry::over(value)) {
                history.push_back(historyItem(key, *entry));
            }
        }
    }
    for (const std::string& volume : recordedVolumes(supportFolder, history)) {
        addRecorded(supportFolder, volume, history);
    }
    const auto moment = [](const HistoryItem& item) {
        return item.lastSeen ? item.lastSeen : item.putIn;
    };
    std::sort(history.begin(), history.end(), [&](const HistoryItem& a, const HistoryItem& b) {
        return std::tuple{moment(a), a.key} < std::tuple{moment(b), b.key};
    });
    return history;
}

std::vector<HistoryItem> findHistoryItems(const std::vector<HistoryItem>& history,
                                          std::string_view wanted) {
    std::vector<HistoryItem> found;
    for (const HistoryItem& item : history) {
        if (item.key == wanted) return {item};
        if (item.name == wanted || std::to_string(item.node) == wanted || item.origin == wanted ||
            item.folder + "/" + item.name == wanted) {
            found.push_back(item);
        }
    }
    return found;
}

std::vector<RecordedItem> recordsOf(const std::string& supportFolder, const HistoryItem& item) {
    NewestRecording newest{item};
    forEachRecorded(supportFolder, item.volumeName, [&newest](ItemAssembly::Collected&& each) {
        newest.add(std::move(each.item));
    });
    return newest.take();
}

bool isDeviceNumber(std::uint64_t volumeId, dev_t device) {
    const std::uint32_t minor = gnu_dev_minor(device);
    const std::uint32_t number =
        (minor & 0xFFU) | (gnu_dev_major(device) << 8U) | ((minor & ~0xFFU) << 12U);
    const std::array<std::uint32_t, 2> id{number, 0};
    return std::memcmp(&volumeId, id.data(), sizeof volumeId) == 0;
}

std::optional<ItemInTrash> findInTrash(const HistoryItem& item) {
    ItemInTrash found{.folder = openTrashFolder(bytesOfText(item.folder)),
                      .name = bytesOfText(item.name)};
    if (!found.folder || !isFileName(found.name) ||
        ::fstatat(found.folder.get(), found.name.c_str(), &found.status, AT_SYMLINK_NOFOLLOW) !=
            0 ||
        found.status.st_ino != item.node || !isItemsBirth(item, found)) {
        return std::nullopt;
    }
    return found;
}

bool standsAtOrigin(const HistoryItem& item) {
    const fs::path origin = bytesOfText(item.origin);
    // Written in any other way, the path could lead past the mount that its name tells of.
    if (item.born == 0 || !origin.is_absolute() ||
        origin.native() != origin.lexically_normal().native() ||
        !isFileName(origin.filename().native()) ||
        origin.native().find('\0') != std::string::npos) {
        return false;
    }
    const UniqueFd folder = openPlaceAt(AT_FDCWD, origin.parent_path().native());
    return folder && hasNodeAndBirth(item, folder.get(), origin.filename().native());
}

}  // namespace korvane::ctl
