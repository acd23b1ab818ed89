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
#include <map>
#include <tuple>
#include <utility>

#include "KorvaneProDataRecovery/RecordFiles.h"
#include "korvanectl/Document.h"
#include "korvanectl/Text.h"
#include "platform/linux/MountTable.h"
#include "storage/SupportFolder.h"

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
                     .origin = {}};
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
                        isFileName(item.name);
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
    const HistoryItem& wanted_;
    std::vector<RecordedItem> items_;
    std::map<std::uint64_t, RecordedItem> earlier_;  // the last one of each node
    bool isWanted_ = false;
};

// Calls `each` with every whole item of the volume's records, the oldest first.
void forEachRecorded(const std::string& supportFolder, const std::string& volumeName,
                     const std::function<void(RecordedItem&&)>& each) {
    for (const std::string& path :
         recordFilesIn(supportFolder + "/" + volumeFolderName(volumeName))) {
        (void)forEachItemIn(path, UINT64_MAX, each);
    }
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

}  // namespace

bool isFileName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

Outcome<std::vector<HistoryItem>> readTrashHistory(const std::string& supportFolder) {
    const auto document = readDocument(supportFolder + "/" + kTrashUsageFile);
    if (!document) return document.failure();
    std::vector<HistoryItem> history;
    if (!*document) return history;
    for (const auto& [key, value] : (*document)->contents) {
        if (const auto entry = ConstTrashEntry::over(value)) {
            history.push_back(historyItem(key, *entry));
        }
    }
    std::sort(history.begin(), history.end(), [](const HistoryItem& a, const HistoryItem& b) {
        return std::tie(a.putIn, a.key) < std::tie(b.putIn, b.key);
    });
    return history;
}

Outcome<HistoryItem> findHistoryItem(const std::vector<HistoryItem>& history,
                                     std::string_view wanted) {
    std::vector<const HistoryItem*> found;
    std::string keys;
    for (const HistoryItem& item : history) {
        if (item.key == wanted) return item;
        if (item.name == wanted || std::to_string(item.node) == wanted) {
            found.push_back(&item);
            keys.append(1, ' ').append(shellWord(printable(item.key)));
        }
    }
    if (found.size() == 1) return *found.front();
    return Failure{ExitStatus::refused,
                   found.empty()
                       ? fmt::format("the trash history has no \"{}\"; korvanectl trash list shows "
                                     "what it has",
                                     printable(wanted))
                       : fmt::format("{} items are called \"{}\"; name one by its key:{}",
                                     found.size(), printable(wanted), keys)};
}

std::vector<RecordedItem> recordsOf(const std::string& supportFolder, const HistoryItem& item) {
    NewestRecording newest{item};
    forEachRecorded(supportFolder, item.volumeName,
                    [&newest](RecordedItem&& each) { newest.add(std::move(each)); });
    return newest.take();
}

void findOrigins(const std::string& supportFolder, std::vector<HistoryItem>& history) {
    std::map<std::string, std::map<std::uint64_t, HistoryItem*>> volumes;
    for (HistoryItem& item : history) volumes[item.volumeName][item.node] = &item;
    for (const auto& [volumeName, items] : volumes) {
        forEachRecorded(supportFolder, volumeName, [&items = items](RecordedItem&& each) {
            const auto found = items.find(each.node);
            if (each.node == each.trashNode && found != items.end() &&
                textOfBytes(each.name) == found->second->name) {
                found->second->origin = textOfBytes(each.origin);
            }
        });
    }
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
        found.status.st_ino != item.node) {
        return std::nullopt;
    }
    return found;
}

}  // namespace korvane::ctl
