#include "platform/linux/OpenFolder.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace korvane {

namespace {

constexpr int kNoLink = O_NOFOLLOW | O_CLOEXEC;

// Opens a path's components one after the other, since O_NOFOLLOW is about the last one alone.
UniqueFd openComponents(int base, std::string_view path, int flags) {
    UniqueFd folder;
    const auto current = [&] { return folder ? folder.get() : base; };
    if (path.starts_with('/')) {
        folder = UniqueFd{::open("/", O_PATH | O_DIRECTORY | kNoLink)};
        if (!folder) return folder;
    }
    while (true) {
        path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
        const std::string name(path.substr(0, path.find('/')));
        path.remove_prefix(name.size());
        if (path.find_first_not_of('/') == std::string_view::npos) {
            const char* const last = name.empty() ? "." : name.c_str();
            return UniqueFd{::openat(current(), last, flags | kNoLink)};
        }
        folder = UniqueFd{::openat(current(), name.c_str(), O_PATH | O_DIRECTORY | kNoLink)};
        if (!folder) return folder;
    }
}

UniqueFd openResolved(int base, const char* path, int flags, __u64 resolve) {
    open_how how{};
    how.flags = static_cast<__u64>(flags | kNoLink);
    how.resolve = resolve | RESOLVE_NO_SYMLINKS;
    return UniqueFd{static_cast<int>(::syscall(SYS_openat2, base, path, &how, sizeof how))};
}

// Kernels before 5.6 and the filters of some containers do not know the call.
bool isCallMissing(int error) { return error == ENOSYS || error == EPERM; }

UniqueFd openWithoutLinks(int base, const std::string& path, int flags) {
    UniqueFd opened = openResolved(base, path.empty() ? "." : path.c_str(), flags, 0);
    // A path may be longer than PATH_MAX.
    const bool isRefused = !opened && (isCallMissing(errno) || errno == ENAMETOOLONG);
    return isRefused ? openComponents(base, path, flags) : std::move(opened);
}

bool areOnOneFileSystem(int one, int other) {
    struct stat first {};
    struct stat second {};
    return ::fstat(one, &first) == 0 && ::fstat(other, &second) == 0 &&
           first.st_dev == second.st_dev;
}

}  // namespace

UniqueFd openFolderAt(int base, const std::string& path) {
    return openWithoutLinks(base, path, O_RDONLY | O_DIRECTORY | O_NONBLOCK);
}

UniqueFd openPlaceAt(int base, const std::string& path) {
    return openWithoutLinks(base, path, O_PATH | O_DIRECTORY);
}

UniqueFd openPlaceBelow(int folder, const std::string& name, Mounts mounts) {
    constexpr int kFlags = O_PATH | O_DIRECTORY;
    const __u64 resolve = mounts == Mounts::refused ? RESOLVE_NO_XDEV : 0;
    UniqueFd opened = openResolved(folder, name.c_str(), kFlags, RESOLVE_BENEATH | resolve);
    if (opened || !isCallMissing(errno)) return opened;
    opened = UniqueFd{::openat(folder, name.c_str(), kFlags | kNoLink)};
    if (opened && mounts == Mounts::refused && !areOnOneFileSystem(folder, opened.get())) {
        errno = EXDEV;
        return UniqueFd{};
    }
    return opened;
}

UniqueFd openRegularFileAt(int base, const std::string& path) {
    UniqueFd file = openWithoutLinks(base, path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    struct stat status {};
    if (file && (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) return UniqueFd{};
    return file;
}

FolderStream streamOf(UniqueFd folder) {
    FolderStream stream{folder ? ::fdopendir(folder.get()) : nullptr};
    if (stream) (void)folder.release();  // the stream's now
    return stream;
}

}  // namespace korvane
