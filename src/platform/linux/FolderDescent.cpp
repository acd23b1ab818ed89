#include "platform/linux/FolderDescent.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>

namespace korvane {

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

struct FolderStreamCloser {
    // Nothing was written through the stream, so nothing can be lost by its closing.
    void operator()(DIR* stream) const { (void)::closedir(stream); }
};

}  // namespace

bool FolderDescent::begin(int base, const std::string& path) {
    UniqueFd folder{::openat(base, path.c_str(), kFolderFlags)};
    struct stat status {};
    if (!folder || ::fstat(folder.get(), &status) != 0) return false;
    folder_ = std::move(folder);
    path_.assign(1, Identity{status.st_dev, status.st_ino});
    return true;
}

FolderDescent::Step FolderDescent::enter(const std::string& name) {
    UniqueFd folder{::openat(folder_.get(), name.c_str(), kFolderFlags)};
    if (!folder) {
        // open(2): a link with O_NOFOLLOW is ELOOP, and with O_DIRECTORY too it is ENOTDIR.
        return errno == ENOTDIR || errno == ELOOP ? Step::notAFolder : Step::failed;
    }
    struct stat status {};
    if (::fstat(folder.get(), &status) != 0) return Step::failed;
    if (status.st_dev != path_.back().device) return Step::anotherFileSystem;
    folder_ = std::move(folder);
    path_.push_back({status.st_dev, status.st_ino});
    return Step::entered;
}

bool FolderDescent::leave() {
    UniqueFd folder{::openat(folder_.get(), "..", kFolderFlags)};
    struct stat status {};
    if (!folder || ::fstat(folder.get(), &status) != 0) return false;
    path_.pop_back();
    if (path_.empty() || path_.back() != Identity{status.st_dev, status.st_ino}) {
        errno = ENOENT;
        return false;
    }
    folder_ = std::move(folder);
    return true;
}

bool FolderDescent::read(std::vector<Name>& names, std::size_t most) const {
    // A descriptor of its own, since closing the stream closes the one that it reads.
    UniqueFd copy{::openat(folder_.get(), ".", kFolderFlags)};
    if (!copy) return false;
    const std::unique_ptr<DIR, FolderStreamCloser> stream{::fdopendir(copy.get())};
    if (!stream) return false;
    (void)copy.release();  // the stream's now
    names.clear();
    for (errno = 0; const dirent* const entry = ::readdir(stream.get()); errno = 0) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        names.push_back(
            {std::string(name), entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN});
        if (names.size() >= most) return true;
    }
    return errno == 0;
}

}  // namespace korvane
