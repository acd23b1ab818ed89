#include "KorvaneProDataRecovery/TrashFolders.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/linux/MountTable.h"
#include "platform/linux/TrashInfo.h"

namespace korvane {

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
constexpr std::string_view kDevices = "/dev/";
// A device name in a job is cut here.
constexpr std::size_t kCutDevice = 31;
// The trash of a user's own home: XDG base directories with their default.
const std::vector<std::string> kTrashOfHome = {".local", "share", "Trash", "files"};
constexpr std::size_t kMostNote = 65'536;
constexpr std::size_t kMostItems = 1'000'000;

struct FolderStreamCloser {
    // Nothing was written through the stream, so nothing can be lost by its closing.
    void operator()(DIR* stream) const { (void)::closedir(stream); }
};

// Calls `each` for every entry of the folder until it answers false.
template <typename Each>
void forEachEntry(int folder, const Each& each) {
    UniqueFd copy{::openat(folder, ".", kFolderFlags)};
    if (!copy) return;
    const std::unique_ptr<DIR, FolderStreamCloser> stream{::fdopendir(copy.get())};
    if (!stream) return;
    (void)copy.release();  // the stream's now
    while (const dirent* const entry = ::readdir(stream.get())) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        if (!each(*entry)) return;
    }
}

std::string textOf(const std::string& path) {
    std::ifstream in{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{in}, {}};
}

// The number of the block device of that name; nothing when there is none of that name.
std::optional<DeviceNumber> deviceNumber(const MachinePlaces& places, std::string_view device) {
    if (!device.starts_with(kDevices)) return std::nullopt;
    std::string name{device.substr(kDevices.size())};
    // sysfs writes the "/" of a name such as cciss/c0d0 as "!".
    std::replace(name.begin(), name.end(), '/', '!');
    if (name.empty() || name.starts_with('.')) return std::nullopt;
    const std::string text = textOf(places.blockDevices + "/" + name + "/dev");
    DeviceNumber number;
    if (std::sscanf(text.c_str(), "%u:%u", &number.major, &number.minor) !=
        2) {  // NOLINT(cert-err34-c): the kernel wrote it
        return std::nullopt;
    }
    return number;
}

bool isSource(const std::string& source, const std::string& device) {
    return source == device || (device.size() == kCutDevice && source.starts_with(device));
}

// A file system of several devices has no device's number; its source may be another name of one:
// "/dev/mapper/data" is "/dev/dm-0".
bool isNode(const std::string& source, const DeviceNumber& number) {
    struct stat status {};
    return source.starts_with(kDevices) && ::stat(source.c_str(), &status) == 0 &&
           S_ISBLK(status.st_mode) && ::major(status.st_rdev) == number.major &&
           ::minor(status.st_rdev) == number.minor;
}

TrashFolders::Mounts mountsFor(const MachinePlaces& places, const std::string& device) {
    const std::vector<MountRow> rows = parseMountTable(textOf(places.mountTable));
    const auto number = deviceNumber(places, device);
    TrashFolders::Mounts mounts;
    for (const std::size_t index : reachableMounts(rows)) {
        const MountRow& row = rows[index];
        mounts[row.mountPoint] = isSource(row.source, device) ||
                                 (number && (row.device == *number || isNode(row.source, *number)));
    }
    return mounts;
}

// Whether the path lies on the volume by the mount table alone: a look at the path itself would
// wait for a server that is away.
bool liesOnVolume(const TrashFolders::Mounts& mounts, std::string path) {
    for (;;) {
        if (const auto mount = mounts.find(path); mount != mounts.end()) return mount->second;
        const std::size_t end = path.rfind('/');
        if (path == "/" || end == std::string::npos) return false;
        path.resize(std::max<std::size_t>(end, 1));
    }
}

// Where "/home" leads to that is a link, as on some systems.
std::string folderBehind(const std::string& path) {
    std::error_code none;
    const std::filesystem::path target = std::filesystem::read_symlink(path, none);
    if (none) return path;
    return (std::filesystem::path{path}.parent_path() / target).lexically_normal();
}

std::vector<std::string> stepsOf(std::string_view path) {
    std::vector<std::string> steps;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        if (end > 0) steps.emplace_back(path.substr(0, end));
        path.remove_prefix(std::min(path.size(), end + 1));
    }
    return steps;
}

std::string joined(const std::string& folder, const std::vector<std::string>& steps) {
    std::string path = folder == "/" ? "" : folder;
    for (const std::string& step : steps) path += "/" + step;
    return path;
}

}  // namespace

UniqueFd openFolder(int base, const std::vector<std::string>& steps) {
    UniqueFd folder{::openat(base, ".", kFolderFlags)};
    for (const std::string& step : steps) {
        if (!folder) break;
        folder = UniqueFd{::openat(folder.get(), step.c_str(), kFolderFlags)};
    }
    return folder;
}

std::string originOf(const TrashFolder& folder, const std::string& name) {
    const UniqueFd notes{::openat(folder.folder.get(), "../info", kFolderFlags)};
    const UniqueFd note{notes ? ::openat(notes.get(), (name + ".trashinfo").c_str(),
                                         O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)
                              : -1};
    struct stat status {};
    if (!note || ::fstat(note.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
    std::string text(kMostNote, '\0');
    const ssize_t length = ::pread(note.get(), text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    const std::optional<std::string> path = originInTrashInfo(text);
    if (!path) return {};
    return path->front() == '/' ? *path : joined(folder.top, {*path});
}

TrashFolders::TrashFolders(const MachinePlaces& places, const std::string& device,
                           const std::set<std::uint32_t>& nodes) {
    const Mounts mounts = mountsFor(places, device);
    for (const auto& [mountPoint, isOfVolume] : mounts) {
        struct stat status {};
        if (isOfVolume && ::lstat(mountPoint.c_str(), &status) == 0) {
            devices_.push_back(status.st_dev);
        }
    }
    for (const auto& [mountPoint, isOfVolume] : mounts) {
        if (isOfVolume) addOfMount(mountPoint, nodes);
    }
    if (devices_.empty()) return;
    addHomes(folderBehind(places.homes), mounts, nodes);
    addHome(folderBehind(places.homeOfRoot), {}, mounts, nodes);
}

// Only root makes entries of /home; what stands at them and below belongs to users. A home may be a
// volume of its own, and one of another volume is left alone: it may be a server's.
void TrashFolders::addHomes(const std::string& homes, const Mounts& mounts, const Nodes& nodes) {
    std::set<std::string> users;
    for (const auto& [mountPoint, isOfVolume] : mounts) {
        if (!isOfVolume || !mountPoint.starts_with(homes + "/")) continue;
        const std::size_t begin = homes.size() + 1;
        users.insert(mountPoint.substr(begin, mountPoint.find('/', begin) - begin));
    }
    if (liesOnVolume(mounts, homes)) {
        const UniqueFd folder{::open(homes.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        if (folder) {
            forEachEntry(folder.get(), [&users](const dirent& entry) {
                users.emplace(entry.d_name);
                return true;
            });
        }
    }
    for (const std::string& user : users) addHome(homes, {user}, mounts, nodes);
}

// The trash of a home, the folder that `steps` lead to from `base`.
void TrashFolders::addHome(const std::string& base, std::vector<std::string> steps,
                           const Mounts& mounts, const Nodes& nodes) {
    steps.insert(steps.end(), kTrashOfHome.begin(), kTrashOfHome.end());
    const std::string path = joined(base, steps);
    if (!liesOnVolume(mounts, path)) return;
    const UniqueFd folder{::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (folder) add(openFolder(folder.get(), steps), path, "", nodes);
}

// ".Trash-UID/files" and ".Trash/UID/files" of freedesktop.org's common trash folders.
void TrashFolders::addOfMount(const std::string& mountPoint, const Nodes& nodes) {
    const UniqueFd root{::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    const UniqueFd mount = root ? openFolder(root.get(), stepsOf(mountPoint)) : UniqueFd{};
    if (!mount) return;
    const auto addBelow = [&](const std::vector<std::string>& steps) {
        add(openFolder(mount.get(), steps), joined(mountPoint, steps), mountPoint, nodes);
    };
    forEachEntry(mount.get(), [&](const dirent& entry) {
        const std::string name = entry.d_name;
        if (name.starts_with(".Trash-")) addBelow({name, "files"});
        return true;
    });
    const UniqueFd shared = openFolder(mount.get(), {".Trash"});
    if (!shared) return;
    forEachEntry(shared.get(), [&](const dirent& entry) {
        addBelow({".Trash", entry.d_name, "files"});
        return true;
    });
}

void TrashFolders::add(UniqueFd folder, std::string path, std::string top, const Nodes& nodes) {
    struct stat status {};
    if (!folder || ::fstat(folder.get(), &status) != 0) return;
    if (!nodes.contains(static_cast<std::uint32_t>(status.st_ino))) return;
    if (std::find(devices_.begin(), devices_.end(), status.st_dev) == devices_.end()) return;
    folders_.push_back({.folder = std::move(folder),
                        .path = std::move(path),
                        .top = std::move(top),
                        .device = status.st_dev,
                        .node = status.st_ino,
                        .items = std::nullopt});
}

std::optional<TrashFolders::Place> TrashFolders::find(std::uint64_t node, std::uint32_t parent) {
    for (TrashFolder& folder : folders_) {
        if (static_cast<std::uint32_t>(folder.node) != parent) continue;
        if (!folder.items) {
            folder.items.emplace();
            forEachEntry(folder.folder.get(), [&](const dirent& entry) {
                folder.items->emplace(entry.d_ino, entry.d_name);
                return folder.items->size() < kMostItems;
            });
        }
        const auto [begin, end] = folder.items->equal_range(node);
        for (auto item = begin; item != end; ++item) {
            struct stat status {};
            if (::fstatat(folder.folder.get(), item->second.c_str(), &status,
                          AT_SYMLINK_NOFOLLOW) == 0 &&
                status.st_ino == node && status.st_dev == folder.device) {
                return Place{&folder, item->second};
            }
        }
    }
    return std::nullopt;
}

}  // namespace korvane
