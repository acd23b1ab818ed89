#include "korvanectl/NewFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace korvane::ctl {

namespace {

constexpr mode_t kPermissions = 0600;
constexpr std::string_view kIncomplete = ".incomplete";

// Another one for each process, so that what was left by a killed one is in nobody's way.
std::string nameWhileIncomplete(const std::string& name) {
    const std::string end = fmt::format(".{}{}", ::getpid(), kIncomplete);
    return (name.size() + end.size() <= NAME_MAX ? name : std::string{"item"}) + end;
}

// Over nothing that is there; an error number, 0 for none.
int rename(int folder, const std::string& from, const std::string& to) {
    if (::renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL) return errno;
    // The file system cannot promise it; the name was free a moment ago.
    struct stat taken {};
    if (::fstatat(folder, to.c_str(), &taken, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
    return ::renameat(folder, from.c_str(), folder, to.c_str()) == 0 ? 0 : errno;
}

}  // namespace

NewFile::NewFile(int folder, const std::string& name) : folder_(folder), name_(name) {
    // Long work that ends at a name that is taken would be for nothing.
    struct stat taken {};
    if (::fstatat(folder, name.c_str(), &taken, AT_SYMLINK_NOFOLLOW) == 0) {
        error_ = EEXIST;
        return;
    }
    file_ = UniqueFd{::openat(folder, ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, kPermissions)};
    if (file_) return;
    // FAT and network file systems have no files without a name.
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const std::string incomplete = nameWhileIncomplete(name);
    file_ = UniqueFd{::openat(folder, incomplete.c_str(), kFlags, kPermissions)};
    if (file_) {
        incompleteName_ = incomplete;
    } else {
        error_ = errno;
    }
}

NewFile::~NewFile() {
    if (!incompleteName_.empty()) (void)::unlinkat(folder_, incompleteName_.c_str(), 0);
}

int NewFile::finishIncomplete() {
    constexpr int kMostNames = 100;
    const std::string wanted = name_;
    const bool isShort = wanted.size() + kIncomplete.size() + 3 <= NAME_MAX;
    int error = EEXIST;
    for (int next = 1; error == EEXIST && next <= kMostNames; ++next) {
        name_ = fmt::format("{}{}{}", isShort ? wanted : "item", kIncomplete,
                            next == 1 ? "" : fmt::format(".{}", next));
        error = finish();
    }
    return error;
}

int NewFile::finish() {
    if (::fsync(file_.get()) != 0) return errno;
    if (incompleteName_.empty()) {
        // The one way to name such a file that needs no privilege (open(2), O_TMPFILE).
        const std::string self = fmt::format("/proc/self/fd/{}", file_.get());
        const int linked =
            ::linkat(AT_FDCWD, self.c_str(), folder_, name_.c_str(), AT_SYMLINK_FOLLOW);
        return linked == 0 ? 0 : errno;
    }
    if (const int error = rename(folder_, incompleteName_, name_)) return error;
    incompleteName_.clear();
    return 0;
}

}  // namespace korvane::ctl
