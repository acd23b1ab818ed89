#include "platform/linux/LinuxFileSystem.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <tuple>
#include <utility>

#include "platform/linux/FolderDescent.h"
#include "platform/linux/LinuxFolder.h"
#include "platform/linux/RemoveItem.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

namespace {

constexpr mode_t kPermissionBits = 07777;
// What mkdir(2) is asked for; the umask takes away what the administrator does not want.
constexpr mode_t kNewFolderPermissions = 0777;
// Room for the longest record that a name service gives out (sysconf's suggestion is 1024).
constexpr std::size_t kAccountBufferSize = 16 * 1024;

Error errorFrom(int number) { return Error{std::generic_category().message(number)}; }

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::optional<uid_t> userIdOf(const std::string& name) {
    std::array<char, kAccountBufferSize> buffer;
    passwd account{};
    passwd* found = nullptr;
    const int error = ::getpwnam_r(name.c_str(), &account, buffer.data(), buffer.size(), &found);
    if (error != 0 || found == nullptr) return std::nullopt;
    return account.pw_uid;
}

// A new folder is given away only when it is not its maker's already.
void giveFolder(const std::string& path, std::optional<uid_t> owner) {
    if (!owner || *owner == ::geteuid()) return;
    const UniqueFd folder{::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    // A folder that stays its maker's still serves the daemon.
    if (folder) std::ignore = ::fchown(folder.get(), *owner, static_cast<gid_t>(-1));
}

// A descent does not follow links. With a final full stop the last component is none.
bool beginAt(FolderDescent& descent, const std::string& place) {
    return !place.empty() && descent.begin(AT_FDCWD, place + "/.");
}

}  // namespace

LinuxFileSystem::LinuxFileSystem(std::string rootFolder) : rootFolder_(std::move(rootFolder)) {}

std::string LinuxFileSystem::located(const std::string& path) const {
    return path.starts_with('/') ? rootFolder_ + path : std::string();
}

bool LinuxFileSystem::exists(const std::string& path) {
    struct stat status {};
    return ::stat(located(path).c_str(), &status) == 0;
}

bool LinuxFileSystem::isFolder(const std::string& path) {
    struct stat status {};
    return ::stat(located(path).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::optional<std::vector<std::string>> LinuxFileSystem::list(const std::string& path) {
    FolderDescent descent;
    std::vector<FolderDescent::Name> names;
    if (!beginAt(descent, located(path)) || !descent.read(names)) return std::nullopt;
    std::vector<std::string> texts;
    texts.reserve(names.size());
    for (FolderDescent::Name& name : names) texts.push_back(std::move(name.text));
    return texts;
}

std::vector<std::string> LinuxFileSystem::enumerate(const std::string& path) {
    std::vector<std::string> found;
    FolderDescent descent;
    if (!beginAt(descent, located(path))) return found;
    // Names still to be told, per level, and the path of each level with its slash.
    std::vector<std::vector<FolderDescent::Name>> levels(1);
    std::vector<std::string> prefixes{""};
    // What was read before an error is told all the same.
    (void)descent.read(levels.back());
    while (true) {
        if (levels.back().empty()) {
            levels.pop_back();
            prefixes.pop_back();
            if (levels.empty() || !descent.leave()) return found;
            continue;
        }
        const FolderDescent::Name name = std::move(levels.back().back());
        levels.back().pop_back();
        found.push_back(prefixes.back() + name.text);
        if (!name.mayBeFolder || descent.enter(name.text) != FolderDescent::Step::entered) continue;
        prefixes.push_back(found.back() + "/");
        levels.emplace_back();
        (void)descent.read(levels.back());
    }
}

std::optional<ItemAttributes> LinuxFileSystem::attributes(const std::string& path) {
    struct stat status {};
    const std::string place = withoutTrailingSlashes(located(path));
    if (::lstat(place.c_str(), &status) != 0) return std::nullopt;
    return attributesFrom(status);
}

std::unique_ptr<Folder> LinuxFileSystem::openRoot() {
    UniqueFd root{
        ::open((rootFolder_ + "/").c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    return root ? std::make_unique<LinuxFolder>(std::move(root), "/", std::nullopt) : nullptr;
}

bool LinuxFileSystem::createFolders(const std::string& path, const std::string& ownerName) {
    const std::string place = withoutTrailingSlashes(located(path));
    if (place.empty()) return false;
    struct stat status {};
    // The common case: everything is there.
    if (::stat(place.c_str(), &status) == 0) return S_ISDIR(status.st_mode);
    const std::optional<uid_t> owner = userIdOf(ownerName);
    for (std::size_t end = 0; end != std::string::npos;) {
        end = place.find('/', end + 1);
        const std::string folder = place.substr(0, end);
        if (::mkdir(folder.c_str(), kNewFolderPermissions) == 0) {
            giveFolder(folder, owner);
        } else if (errno != EEXIST && errno != EROFS && errno != EACCES) {
            // Those three are also said of a folder that is there; the last word is below.
            return false;
        }
    }
    return ::stat(place.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool LinuxFileSystem::createEmptyFile(const std::string& path, mode_t permissions) {
    // Not emptied by the opening: first it must be known to be an ordinary file.
    const UniqueFd file{::open(located(path).c_str(),
                               O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                               permissions)};
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    if ((status.st_mode & kPermissionBits) != permissions &&
        ::fchmod(file.get(), permissions) != 0) {
        return false;
    }
    return status.st_size == 0 || ::ftruncate(file.get(), 0) == 0;
}

Result<std::monostate> LinuxFileSystem::remove(const std::string& path) {
    // Without its slashes a link at the end is removed, not followed.
    const std::string item = withoutTrailingSlashes(path);
    const std::string place = located(item);
    if (place.empty()) return errorFrom(ENOENT);
    const std::string name = item.substr(item.rfind('/') + 1);
    if (name.empty() || name == "." || name == "..") return errorFrom(EINVAL);
    // The way to the item is resolved once; whatever moves on it meanwhile leads nowhere else.
    const UniqueFd parent{::open(place.substr(0, place.size() - name.size()).c_str(),
                                 O_PATH | O_DIRECTORY | O_CLOEXEC)};
    if (!parent) return errorFrom(errno);

    const int failure = removeItem(parent.get(), name);
    if (failure != 0) return errorFrom(failure);
    return std::monostate{};
}

bool LinuxFileSystem::setPermissions(const std::string& path, mode_t permissions) {
    const std::string place = located(path);
    struct stat status {};
    // What has them is left alone: the time of its change is what tells others that it is another.
    if (::lstat(place.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        (status.st_mode & 07777) == permissions) {
        return true;
    }
    return ::fchmodat(AT_FDCWD, place.c_str(), permissions, AT_SYMLINK_NOFOLLOW) == 0;
}

Result<PropertyList> LinuxFileSystem::readPropertyList(const std::string& path) {
    const std::string place = located(path);
    if (place.empty()) return errorFrom(ENOENT);
    return propertyLists_.read(place);
}

Result<std::monostate> LinuxFileSystem::writePropertyList(const std::string& path,
                                                          const PropertyList& value,
                                                          mode_t permissions,
                                                          Durability durability) {
    const std::string place = located(path);
    if (place.empty()) return errorFrom(ENOENT);
    return propertyLists_.write(place, value, permissions, durability);
}

std::string LinuxFileSystem::userName() {
    std::array<char, kAccountBufferSize> buffer;
    passwd account{};
    passwd* found = nullptr;
    const int error = ::getpwuid_r(::geteuid(), &account, buffer.data(), buffer.size(), &found);
    // An account without a name is known by its number, as the usual tools show it.
    if (error != 0 || found == nullptr) return std::to_string(::geteuid());
    return account.pw_name;
}

std::uint32_t LinuxFileSystem::userId() { return ::geteuid(); }

}  // namespace korvane
