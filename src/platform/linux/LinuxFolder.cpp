#include "platform/linux/LinuxFolder.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <system_error>
#include <utility>

#include "platform/linux/FileRights.h"
#include "platform/linux/OpenFolder.h"
#include "platform/linux/RemoveItem.h"

namespace korvane {

namespace {

constexpr mode_t kPermissionBits = 07777;
// What mkdir(2) is asked for; the umask takes away what the administrator does not want.
constexpr mode_t kNewFolderPermissions = 0777;

Error errorAt(const std::string& path, int number) {
    return Error{path + ": " + std::generic_category().message(number)};
}

// A name that leads out of the folder is none.
bool isName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

ItemKind kindOf(mode_t mode) {
    if (S_ISREG(mode)) return ItemKind::file;
    if (S_ISDIR(mode)) return ItemKind::folder;
    if (S_ISLNK(mode)) return ItemKind::link;
    return ItemKind::other;
}

// The errno of what failed, or 0.
int writeWhole(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(file, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return errno;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

}  // namespace

ItemAttributes attributesFrom(const struct stat& status) {
    const auto sinceEpoch = std::chrono::seconds{status.st_mtim.tv_sec} +
                            std::chrono::nanoseconds{status.st_mtim.tv_nsec};
    return ItemAttributes{
        .kind = kindOf(status.st_mode),
        .sizeBytes = static_cast<std::uint64_t>(status.st_size),
        .modificationDate = Time{std::chrono::floor<std::chrono::microseconds>(sinceEpoch)},
        .ownerId = status.st_uid,
        .permissions = status.st_mode & kPermissionBits};
}

LinuxFolder::LinuxFolder(UniqueFd folder, std::string path, std::optional<Account> rights)
    : folder_(std::move(folder)), path_(std::move(path)), rights_(rights) {}

std::optional<ItemAttributes> LinuxFolder::attributes() {
    struct stat status {};
    if (::fstat(folder_.get(), &status) != 0) return std::nullopt;
    return attributesFrom(status);
}

std::optional<ItemAttributes> LinuxFolder::attributesOf(const std::string& name) {
    const FileRights rights(rights_);
    struct stat status {};
    if (!rights.areTaken() || !isName(name) ||
        ::fstatat(folder_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) !=
            0) {
        return std::nullopt;
    }
    return attributesFrom(status);
}

std::optional<std::vector<std::string>> LinuxFolder::list(std::size_t most) {
    const FileRights rights(rights_);
    if (!rights.areTaken()) return std::nullopt;
    const FolderStream stream = streamOf(openFolderAt(folder_.get(), "."));
    if (!stream) return std::nullopt;
    std::vector<std::string> names;
    for (errno = 0; const dirent* const entry = ::readdir(stream.get()); errno = 0) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        if (names.size() == most) return names;
        names.emplace_back(name);
    }
    if (errno != 0) return std::nullopt;
    return names;
}

std::optional<std::string> LinuxFolder::linkTarget(const std::string& name) {
    const FileRights rights(rights_);
    std::array<char, PATH_MAX> target;
    if (!rights.areTaken() || !isName(name)) return std::nullopt;
    const ssize_t length = ::readlinkat(folder_.get(), name.c_str(), target.data(), target.size());
    if (length < 0) return std::nullopt;
    return std::string(target.data(), static_cast<std::size_t>(length));
}

std::unique_ptr<Folder> LinuxFolder::open(const std::string& name, Mounts mounts) {
    const FileRights rights(rights_);
    if (!rights.areTaken() || !isName(name)) return nullptr;
    UniqueFd folder = openPlaceBelow(folder_.get(), name, mounts);
    if (!folder) return nullptr;
    return std::make_unique<LinuxFolder>(std::move(folder),
                                         (path_ == "/" ? "" : path_) + '/' + name, rights_);
}

bool LinuxFolder::make(const std::string& name) {
    const FileRights rights(rights_);
    return rights.areTaken() && isName(name) &&
           ::mkdirat(folder_.get(), name.c_str(), kNewFolderPermissions) == 0;
}

Result<std::monostate> LinuxFolder::createFile(const std::string& name, std::string_view bytes,
                                               mode_t permissions) {
    const FileRights rights(rights_);
    if (!rights.areTaken()) return errorAt(path_, EPERM);
    if (!isName(name)) return errorAt(name, EINVAL);
    // Only a file that this call has made is written to, so what somebody else has put there, a
    // link or a FIFO, is neither followed nor waited for.
    const UniqueFd file{::openat(folder_.get(), name.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                 permissions)};
    if (!file) return errorAt(name, errno);
    int failure = writeWhole(file.get(), bytes);
    if (failure == 0 && ::fchmod(file.get(), permissions) != 0) failure = errno;
    if (failure == 0) return std::monostate{};
    (void)::unlinkat(folder_.get(), name.c_str(), 0);
    return errorAt(name, failure);
}

Result<std::monostate> LinuxFolder::remove(const std::string& name) {
    const FileRights rights(rights_);
    if (!rights.areTaken()) return errorAt(path_, EPERM);
    if (!isName(name)) return errorAt(name, EINVAL);
    int failure = 0;
    if (!rights_) {
        failure = removeItem(folder_.get(), name);
    } else if (::unlinkat(folder_.get(), name.c_str(), 0) != 0) {
        // unlink(2) refuses a folder with EISDIR, and some file systems with EPERM.
        failure = errno;
        const bool mayBeFolder = failure == EISDIR || failure == EPERM;
        if (mayBeFolder && ::unlinkat(folder_.get(), name.c_str(), AT_REMOVEDIR) == 0) failure = 0;
    }
    if (failure != 0) return errorAt(name, failure);
    return std::monostate{};
}

bool LinuxFolder::setPermissions(const std::string& name, mode_t permissions) {
    const FileRights rights(rights_);
    return rights.areTaken() && isName(name) &&
           ::fchmodat(folder_.get(), name.c_str(), permissions, AT_SYMLINK_NOFOLLOW) == 0;
}

bool LinuxFolder::takeRightsOf(std::uint32_t userId) {
    if (userId == ::geteuid()) {
        rights_.reset();
        return true;
    }
    rights_ = accountOf(userId);
    return FileRights(rights_).areTaken();
}

Account LinuxFolder::account() { return rights_.value_or(Account{::geteuid(), ::getegid()}); }

}  // namespace korvane
