#include "storage/Place.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <deque>
#include <string_view>
#include <utility>
#include <vector>

#include "storage/PathText.h"

namespace korvane {

namespace {

// The kernel gives up after as many links (ELOOP).
constexpr int kMostLinks = 40;
// File systems that keep what they hold in memory or in another one of this machine, and ZFS, whose
// mounts name no device.
constexpr std::array<std::string_view, 6> kLocalTypes{"tmpfs",   "ramfs", "rootfs",
                                                      "overlay", "zfs",   "devtmpfs"};
constexpr std::string_view kDevices = "/dev/";
// A walk goes no deeper, and looks at no more items, than this: somebody else may have filled the
// folder, and the loop waits.
constexpr std::size_t kDeepestWalk = 64;
constexpr std::size_t kLongestWalk = 100'000;

std::deque<std::string> componentsOf(std::string_view path) {
    const std::vector<std::string_view> components = pathComponents(path);
    return {components.begin(), components.end()};
}

// A user can give a program's file system any device's name; its type cannot be chosen.
bool isOfThisMachine(const MountEntry& mount) {
    const std::string_view type = mount.fileSystemTypeName;
    if (type == "fuse" || type.starts_with("fuse.")) return false;
    return mount.mountFromName.starts_with(kDevices) ||
           std::find(kLocalTypes.begin(), kLocalTypes.end(), type) != kLocalTypes.end();
}

class PlaceWalk {
  public:
    PlaceWalk(FileSystem& fileSystem, Volumes& volumes)
        : fileSystem_(fileSystem), volumes_(volumes) {}

    Result<std::optional<Place>> open(const std::string& path, const std::string& inner,
                                      MissingFolders missing) {
        passed_.push_back(fileSystem_.openRoot());
        if (!passed_.back() || !path.starts_with('/')) return nothing();
        if (const Step step = judge(componentsOf(path).empty()); !step.goesOn) return end(step);
        for (ahead_ = componentsOf(path); !ahead_.empty();) {
            const std::string name = std::move(ahead_.front());
            ahead_.pop_front();
            if (const Step step = goTo(name); !step.goesOn) return end(step);
        }
        const std::deque<std::string> names = componentsOf(inner);
        for (const std::string& name : names) {
            if (const Step step = goInto(name, missing); !step.goesOn) return end(step);
        }
        return std::optional(Place{std::move(passed_.back()), isOwn_ && !isShared_});
    }

  private:
    // Whether the walk goes on; if not, why, or nothing where there is no such folder.
    struct Step {
        bool goesOn = true;
        std::string objection;
    };
    static Step missingFolder() { return {.goesOn = false, .objection = {}}; }
    static Step refuse(std::string why) { return {.goesOn = false, .objection = std::move(why)}; }
    static Result<std::optional<Place>> nothing() { return std::optional<Place>(); }
    static Result<std::optional<Place>> end(const Step& step) {
        return step.objection.empty() ? nothing() : Error{step.objection};
    }

    Folder& current() { return *passed_.back(); }

    Step goTo(const std::string& name) {
        if (name == ".") return {};
        if (name == "..") {
            if (!isOwn_ || isShared_)
                return refuse("its path leads back through folders of others");
            if (passed_.size() > 1) passed_.pop_back();
            return judge(ahead_.empty());  // what is known is of the folder that was left
        }
        const std::string path = (passed_.size() == 1 ? "" : current().path()) + '/' + name;
        const MountEntry* const mount = volumes_.mountAt(path);
        if (mount && !isOfThisMachine(*mount)) {
            return refuse(fmt::format("\"{}\" is not on a disk of this machine", path));
        }
        if (mount && !isOwn_) {
            return refuse(fmt::format("\"{}\" is mounted below a folder of somebody else", path));
        }
        // What the table does not show may have been mounted since: then it is not asked.
        auto folder = current().open(name, mount ? Mounts::crossed : Mounts::refused);
        if (!folder) return followLink(name);
        passed_.push_back(std::move(folder));
        return judge(ahead_.empty());
    }

    // Root's links in root's folders are part of the path as root has it: "/Volumes/NAME" is one.
    Step followLink(const std::string& name) {
        const std::optional<std::string> target = current().linkTarget(name);
        if (!target) return missingFolder();
        if (!isOwn_ || isShared_) return refuse("a link that others can change is on its path");
        if (++links_ > kMostLinks) return missingFolder();
        if (target->starts_with('/')) passed_.resize(1);
        const std::deque<std::string> components = componentsOf(*target);
        ahead_.insert(ahead_.begin(), components.begin(), components.end());
        return {};
    }

    // Whose the folder is that the walk has come to, and what follows from it.
    Step judge(bool isLast) {
        if (!isOwn_) return {};
        const std::optional<ItemAttributes> folder = current().attributes();
        if (!folder) return missingFolder();
        if (!isTrusted(folder->ownerId)) return takeRightsOf(folder->ownerId);
        isShared_ = othersMayWriteIn(*folder);
        // In a folder with the sticky bit nobody renames what is another's (unlink(2)).
        if (!isShared_ || (folder->permissions & S_ISVTX) != 0 || isLast) return {};
        return refuse(fmt::format("others may write in \"{}\"", current().path()));
    }

    Step takeRightsOf(std::uint32_t owner) {
        isOwn_ = false;
        if (fileSystem_.userId() == kRoot && current().takeRightsOf(owner)) return {};
        return refuse(fmt::format("\"{}\" belongs to somebody else", current().path()));
    }

    bool isTrusted(std::uint32_t owner) const {
        return owner == kRoot || owner == fileSystem_.userId();
    }

    Step goInto(const std::string& name, MissingFolders missing) {
        // Before it is entered: a dead server would hang the loop.
        const std::string path = (passed_.size() == 1 ? "" : current().path()) + '/' + name;
        if (volumes_.mountAt(path)) {
            return refuse(fmt::format("something is mounted at its folder \"{}\"", name));
        }
        std::unique_ptr<Folder> folder = current().open(name, Mounts::refused);
        if (!folder && missing == MissingFolders::make && current().make(name)) {
            folder = current().open(name, Mounts::refused);
        }
        const std::optional<ItemAttributes> attributes =
            folder ? folder->attributes() : current().attributesOf(name);
        if (!attributes) return missingFolder();
        const bool isTheirs = isOwn_ ? !isTrusted(attributes->ownerId)
                                     : attributes->ownerId != current().account().userId;
        if (attributes->kind == ItemKind::link || isTheirs) {
            return refuse(
                fmt::format("its folder \"{}\" is a link or belongs to somebody else", name));
        }
        if (!folder) return missingFolder();
        isShared_ = isShared_ || (isOwn_ && othersMayWriteIn(*attributes));
        passed_.push_back(std::move(folder));
        return {};
    }

    static constexpr std::uint32_t kRoot = 0;

    FileSystem& fileSystem_;
    Volumes& volumes_;
    std::vector<std::unique_ptr<Folder>> passed_;  // from "/" to where the walk has come
    std::deque<std::string> ahead_;
    int links_ = 0;
    bool isOwn_ = true;      // every folder so far is root's or the daemon's own
    bool isShared_ = false;  // and yet others may write in the last one
};

class FolderWalk {
  public:
    using Visit = std::function<Into(Folder&, const std::string&, const std::string&)>;

    explicit FolderWalk(const Visit& visit) : visit_(visit) {}

    void go(Folder& folder, const std::string& prefix, std::size_t depth) {
        if (depth == kDeepestWalk) return;
        const auto names = folder.list(left_);
        if (!names) return;
        left_ -= names->size();
        for (const std::string& name : *names) {
            if (visit_(folder, name, prefix + name) == Into::no) continue;
            const auto below = folder.open(name, Mounts::refused);
            if (below) go(*below, prefix + name + '/', depth + 1);
        }
    }

  private:
    const Visit& visit_;
    std::size_t left_ = kLongestWalk;
};

}  // namespace

// Both rights are needed to put something into a folder. The group's stand for the mask of an
// access list, too (acl(5)).
bool othersMayWriteIn(const ItemAttributes& folder) {
    constexpr mode_t kGroup = S_IWGRP | S_IXGRP;
    constexpr mode_t kOthers = S_IWOTH | S_IXOTH;
    return (folder.permissions & kGroup) == kGroup || (folder.permissions & kOthers) == kOthers;
}

Result<std::optional<Place>> openPlace(FileSystem& fileSystem, Volumes& volumes,
                                       const std::string& path, const std::string& inner,
                                       MissingFolders missing) {
    return PlaceWalk(fileSystem, volumes).open(path, inner, missing);
}

void walk(Folder& start, const std::function<Into(Folder& parent, const std::string& name,
                                                  const std::string& relativePath)>& visit) {
    FolderWalk(visit).go(start, "", 0);
}

}  // namespace korvane
