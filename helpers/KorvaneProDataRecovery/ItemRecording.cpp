#include "KorvaneProDataRecovery/ItemRecording.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "KorvaneProDataRecovery/FileExtents.h"
#include "platform/linux/FolderDescent.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

namespace {

struct Identity {
    dev_t device = 0;
    ino_t node = 0;
    friend bool operator==(const Identity&, const Identity&) = default;
};

Identity identityOf(const struct statx& status) {
    return {::makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
}

std::optional<struct statx> statusOf(int folder, const char* name) {
    struct statx status {};
    // Not synced with a server: the volumes are local.
    if (::statx(folder, name, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH | AT_STATX_DONT_SYNC,
                STATX_BASIC_STATS | STATX_BTIME, &status) != 0) {
        return std::nullopt;
    }
    return status;
}

// Opened without a trace in the access time where that is allowed, which it is to the owner and to
// root; and only when it still is the file that was looked at.
UniqueFd openFile(int folder, const char* name, Identity identity) {
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd file{::openat(folder, name, kFlags | O_NOATIME)};
    if (!file && errno == EPERM) file = UniqueFd{::openat(folder, name, kFlags)};
    const auto status = file ? statusOf(file.get(), "") : std::nullopt;
    return status && identityOf(*status) == identity ? std::move(file) : UniqueFd{};
}

std::string linkTargetOf(int folder, const char* name) {
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlinkat(folder, name, target.data(), target.size());
    return length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : "";
}

class Recording {
  public:
    Recording(FolderLimit& limit, ReadingLimit& reading, const EarlierRecords& earlier)
        : limit_(limit), reading_(reading), earlierRecords_(earlier) {}

    std::vector<RecordedItem> record(int folder, const std::string& folderPath,
                                     const std::string& name) {
        const auto status = statusOf(folder, name.c_str());
        const auto folderStatus = statusOf(folder, "");
        if (!status || !folderStatus) return {};
        trashNode_ = status->stx_ino;
        device_ = identityOf(*status).device;
        volume_ = volumeIdentityOf(folder);
        if (const auto* const recording = earlierRecords_.of(trashNode_)) {
            for (const RecordedItem& item : recording->items) earlier_.emplace(item.node, &item);
        }
        add(folder, folderStatus->stx_ino, folderPath, name, *status);
        if (S_ISDIR(status->stx_mode)) addContents(folder, folderPath + "/" + name, name);
        return std::move(items_);
    }

  private:
    void add(int folder, std::uint64_t parent, const std::string& folderPath,
             const std::string& name, const struct statx& status) {
        RecordedItem item{.node = status.stx_ino,
                          .parent = parent,
                          .trashNode = trashNode_,
                          .volumeId = volume_.id,
                          .volumeUuid = volume_.uuid,
                          .mode = status.stx_mode,
                          .userId = status.stx_uid,
                          .groupId = status.stx_gid,
                          .linkCount = status.stx_nlink,
                          .size = status.stx_size,
                          .modified = status.stx_mtime.tv_sec,
                          .changed = status.stx_ctime.tv_sec,
                          .modifiedNanoseconds = status.stx_mtime.tv_nsec,
                          .name = name,
                          .path = folderPath + "/" + name};
        if ((status.stx_mask & STATX_BTIME) != 0) item.born = status.stx_btime.tv_sec;
        if (S_ISLNK(status.stx_mode)) item.linkTarget = linkTargetOf(folder, name.c_str());
        if (S_ISREG(status.stx_mode)) addData(folder, item, identityOf(status));
        items_.push_back(std::move(item));
    }

    void addData(int folder, RecordedItem& item, Identity identity) {
        const UniqueFd file = openFile(folder, item.name.c_str(), identity);
        ExtentList list = file ? readExtents(file.get()) : ExtentList{};
        // The first one is the item of the trash itself: it has all that a record may hold.
        if (!items_.empty() && list.extents.size() > extentsLeft_) {
            list = ExtentList{.extents = {}, .isWhole = false};
        }
        extentsLeft_ -= std::min(extentsLeft_, list.extents.size());
        if (!list.isWhole) item.flags |= kRecordExtentsCut;
        item.extents = std::move(list.extents);
        const auto before = earlier_.find(item.node);
        if (before != earlier_.end()) takeOverChecksum(item, *before->second);
        if ((item.flags & kRecordHasChecksum) != 0) return;
        const auto sum =
            file ? checksumOfFile(file.get(), item.size, reading_) : std::optional<Sha256>{};
        if (!sum) return;
        item.checksum = *sum;
        item.flags |= kRecordHasChecksum;
    }

    void addContents(int folder, const std::string& path, const std::string& name) {
        FolderDescent descent;
        if (!descent.begin(folder, name) || !isOnDevice(descent.folder())) {
            items_.front().flags |= kRecordFolderCut;
            return;
        }
        addLevel(descent, path, 1);
    }

    bool isOnDevice(int folder) const {
        const auto status = statusOf(folder, "");
        return status && identityOf(*status).device == device_;
    }

    // What the descent's current folder holds; depth 1 is the item's own level. False when the way
    // back was lost, which ends the whole descent.
    bool addLevel(FolderDescent& descent, const std::string& path, std::size_t depth) {
        std::vector<FolderDescent::Name> names;
        const auto self = statusOf(descent.folder(), "");
        if (!self || !descent.read(names, limit_.namesOfFolder)) {
            items_.front().flags |= kRecordFolderCut;
            return true;
        }
        if (names.size() == limit_.namesOfFolder) items_.front().flags |= kRecordFolderCut;
        std::sort(names.begin(), names.end(),
                  [](const auto& a, const auto& b) { return a.text < b.text; });
        // More are never recorded, and every level of the way down holds its own.
        if (names.size() > limit_.itemsOfFolder + 1) names.resize(limit_.itemsOfFolder + 1);
        for (const FolderDescent::Name& name : names) {
            if (items_.size() > limit_.itemsOfFolder || limit_.itemsLeft == 0) {
                items_.front().flags |= kRecordFolderCut;
                return true;
            }
            const auto status = statusOf(descent.folder(), name.text.c_str());
            // Gone since, or another volume mounted there.
            if (!status || identityOf(*status).device != device_) continue;
            --limit_.itemsLeft;
            add(descent.folder(), self->stx_ino, path, name.text, *status);
            if (S_ISDIR(status->stx_mode) && !addBelow(descent, path, name.text, depth)) {
                return false;
            }
        }
        return true;
    }

    bool addBelow(FolderDescent& descent, const std::string& path, const std::string& name,
                  std::size_t depth) {
        if (depth >= limit_.depth || path.size() + name.size() + 1 > PATH_MAX ||
            descent.enter(name) != FolderDescent::Step::entered) {
            items_.front().flags |= kRecordFolderCut;
            return true;
        }
        const bool goesOn = addLevel(descent, path + "/" + name, depth + 1) && descent.leave();
        if (!goesOn) items_.front().flags |= kRecordFolderCut;
        return goesOn;
    }

    FolderLimit& limit_;
    ReadingLimit& reading_;
    const EarlierRecords& earlierRecords_;
    std::map<std::uint64_t, const RecordedItem*> earlier_;  // of this item and what it held
    std::uint64_t trashNode_ = 0;
    VolumeIdentity volume_;
    dev_t device_ = 0;
    std::size_t extentsLeft_ = limit_.extentsOfFolder;
    std::vector<RecordedItem> items_;
};

}  // namespace

std::vector<RecordedItem> recordItem(int folder, const std::string& folderPath,
                                     const std::string& name, FolderLimit& limit,
                                     ReadingLimit& reading, const EarlierRecords& earlier) {
    return Recording{limit, reading, earlier}.record(folder, folderPath, name);
}

}  // namespace korvane
