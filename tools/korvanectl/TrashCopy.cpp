#include "korvanectl/TrashCopy.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "korvanectl/Document.h"
#include "korvanectl/NewFile.h"
#include "korvanectl/ReadAround.h"
#include "korvanectl/Text.h"
#include "platform/linux/FolderDescent.h"
#include "platform/linux/UniqueFd.h"

namespace korvane::ctl {

namespace {

namespace fs = std::filesystem;

// What one read takes: large enough for a disk to be at its full rate.
constexpr std::size_t kBlock = 1024 * 1024;
// Deeper than any path that a program can name (PATH_MAX); a stack's worth of levels all the same.
constexpr std::size_t kMostDepth = 2048;
// What a copy may be to its owner: not a program that runs as somebody else.
constexpr mode_t kPermissions = 0777;

bool isSame(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// A file system without owners, or a caller who may not give files away, leaves the caller's own.
void setAttributes(int copy, const struct stat& status) {
    (void)::fchown(copy, status.st_uid, status.st_gid);
    (void)::fchmod(copy, status.st_mode & kPermissions);
    const timespec times[] = {status.st_atim, status.st_mtim};
    (void)::futimens(copy, times);
}

class TreeCopy {
  public:
    explicit TreeCopy(const std::function<void(std::uint64_t)>& progress) : progress_(progress) {}

    // The item itself, to `newName` in the folder `to`; an error number, 0 for none.
    int copyItem(int from, const std::string& name, const struct stat& status, int to,
                 const std::string& newName) {
        path_ = name;
        if (S_ISDIR(status.st_mode)) return copyFolder(from, name, status, to, newName);
        return copyOther(from, name, status, to, newName);
    }
    // Whether the item is a folder, and there now.
    bool hasBegun() const { return copied_.folders > 0; }
    CopiedItem take() { return std::move(copied_); }

  private:
    int copyOther(int from, const std::string& name, const struct stat& status, int to,
                  const std::string& newName) {
        if (S_ISREG(status.st_mode)) return copyFile(from, name, status, to, newName);
        if (S_ISLNK(status.st_mode)) return copyLink(from, name, status, to, newName);
        return ENOTSUP;  // pipes, sockets and devices hold nothing
    }

    int copyFile(int from, const std::string& name, const struct stat& status, int to,
                 const std::string& newName) {
        const UniqueFd source{::openat(from, name.c_str(),
                                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
        struct stat opened {};
        if (!source || ::fstat(source.get(), &opened) != 0) return errno;
        if (!isSame(opened, status)) return ESTALE;
        NewFile file{to, newName};
        if (file.error() != 0) return file.error();
        ReadAround reader{source.get()};
        std::uint64_t length = 0;
        if (const int error =
                copyContents(reader, source.get(), file.get(), opened.st_size, length)) {
            return error;
        }
        setAttributes(file.get(), opened);
        if (const int error = finish(file, reader, length)) return error;
        copied_.bytes += static_cast<std::uint64_t>(opened.st_size);
        ++copied_.files;
        return 0;
    }

    // A file of which something cannot be read has a name that says so.
    int finish(NewFile& file, const ReadAround& reader, std::uint64_t length) {
        std::uint64_t lost = 0;
        for (const ByteRange& range : reader.missing()) lost += range.length;
        if (lost == 0) return file.finish();
        if (lost == length) return reader.error();
        if (const int error = file.finishIncomplete()) return error;
        copied_.incomplete.push_back(
            fmt::format("{} is kept as {}: zeros stand for what could not be read, {}", path_,
                        file.name(), rangesWords(reader.missing())));
        return 0;
    }

    // Holes stay holes: an image of a disk may be larger than the disk that it is copied to. Adds
    // how much lies between them to `length`.
    int copyContents(ReadAround& reader, int source, int file, off_t size, std::uint64_t& length) {
        if (::ftruncate(file, size) != 0) return errno;
        off_t at = 0;
        while ((at = ::lseek(source, at, SEEK_DATA)) >= 0 && at < size) {
            const off_t end = ::lseek(source, at, SEEK_HOLE);
            if (end < 0) return errno;
            const off_t last = std::min(end, size);
            if (const int error = copyRange(reader, file, at, last)) return error;
            length += static_cast<std::uint64_t>(last - at);
            at = end;
        }
        // Without data behind the place there is no next one.
        return at < 0 && errno != ENXIO ? errno : 0;
    }

    int copyRange(ReadAround& reader, int file, off_t at, off_t end) {
        block_.resize(kBlock);
        while (at < end) {
            const auto length = std::min(block_.size(), static_cast<std::size_t>(end - at));
            const auto place = static_cast<std::uint64_t>(at);
            if (!reader.read({block_.data(), length}, place, place, length)) {
                return ESTALE;  // cut short meanwhile
            }
            for (std::size_t written = 0; written < length;) {
                const ssize_t part = ::pwrite(file, block_.data() + written, length - written,
                                              at + static_cast<off_t>(written));
                if (part < 0 && errno != EINTR) return errno;
                written += static_cast<std::size_t>(std::max<ssize_t>(part, 0));
            }
            at += static_cast<off_t>(length);
            progress_(copied_.bytes + static_cast<std::uint64_t>(at));
        }
        return 0;
    }

    int copyLink(int from, const std::string& name, const struct stat& status, int to,
                 const std::string& newName) {
        std::array<char, PATH_MAX> target;
        const ssize_t length = ::readlinkat(from, name.c_str(), target.data(), target.size() - 1);
        if (length < 0) return errno;
        target[static_cast<std::size_t>(length)] = '\0';
        if (::symlinkat(target.data(), to, newName.c_str()) != 0) return errno;
        // As with files: where the caller may.
        (void)::fchownat(to, newName.c_str(), status.st_uid, status.st_gid, AT_SYMLINK_NOFOLLOW);
        ++copied_.links;
        return 0;
    }

    int copyFolder(int from, const std::string& name, const struct stat& status, int to,
                   const std::string& newName) {
        struct stat opened {};
        if (!source_.begin(from, name) || ::fstat(source_.folder(), &opened) != 0) return errno;
        if (!isSame(opened, status)) return ESTALE;
        if (::mkdirat(to, newName.c_str(), 0700) != 0 || !target_.begin(to, newName)) return errno;
        return copyLevel("", opened, 0);
    }

    // What the current folder holds, then its attributes. An error ends the whole copy.
    int copyLevel(const std::string& path, const struct stat& self, std::size_t depth) {
        ++copied_.folders;
        std::vector<FolderDescent::Name> names;
        if (!source_.read(names)) miss(path, errno);
        std::sort(names.begin(), names.end(),
                  [](const auto& a, const auto& b) { return a.text < b.text; });
        for (const FolderDescent::Name& name : names) {
            const std::string below = path.empty() ? name.text : path + "/" + name.text;
            if (const int error = copyEntry(below, name.text, depth)) return error;
        }
        setAttributes(target_.folder(), self);
        return 0;
    }

    int copyEntry(const std::string& path, const std::string& name, std::size_t depth) {
        struct stat status {};
        int error = 0;
        if (::fstatat(source_.folder(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            error = errno;
        } else if (S_ISDIR(status.st_mode)) {
            return copyBelow(path, name, status, depth + 1);
        } else {
            path_ = path;
            error = copyOther(source_.folder(), name, status, target_.folder(), name);
        }
        if (error == ENOSPC || error == EDQUOT) return error;
        if (error != 0) miss(path, error);
        return 0;
    }

    int copyBelow(const std::string& path, const std::string& name, const struct stat& status,
                  std::size_t depth) {
        const auto step = depth < kMostDepth ? source_.enter(name) : FolderDescent::Step::failed;
        if (step != FolderDescent::Step::entered) {
            miss(path, step == FolderDescent::Step::anotherFileSystem ? EXDEV : ENOTDIR);
            return 0;
        }
        int error = 0;
        if (::mkdirat(target_.folder(), name.c_str(), 0700) != 0) {
            miss(path, errno);
        } else if (target_.enter(name) != FolderDescent::Step::entered) {
            return ESTALE;
        } else {
            error = copyLevel(path, status, depth);
            if (error == 0 && !target_.leave()) error = ESTALE;
        }
        // A way back that is lost leads somewhere that nobody asked for.
        return error == 0 && !source_.leave() ? ESTALE : error;
    }

    void miss(const std::string& path, int error) {
        copied_.missing.push_back(fmt::format("{}: {}", path, std::strerror(error)));
    }

    const std::function<void(std::uint64_t)>& progress_;
    CopiedItem copied_;
    FolderDescent source_;
    FolderDescent target_;
    std::vector<std::uint8_t> block_;
    std::string path_;  // of what is being copied, within the item
};

// What the files in the current folder and below add up to, as far as it can be looked at.
std::uint64_t bytesBelow(FolderDescent& descent, std::size_t depth) {
    std::vector<FolderDescent::Name> names;
    if (!descent.read(names)) return 0;
    std::uint64_t bytes = 0;
    for (const FolderDescent::Name& name : names) {
        struct stat status {};
        if (::fstatat(descent.folder(), name.text.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        if (S_ISREG(status.st_mode)) bytes += static_cast<std::uint64_t>(status.st_size);
        const bool isBelow = S_ISDIR(status.st_mode) && depth < kMostDepth &&
                             descent.enter(name.text) == FolderDescent::Step::entered;
        if (!isBelow) continue;
        bytes += bytesBelow(descent, depth + 1);
        if (!descent.leave()) return bytes;
    }
    return bytes;
}

// Whether the path lies in the folder, or is it.
bool liesWithin(const fs::path& path, const struct stat& folder) {
    std::error_code none;
    fs::path at = fs::weakly_canonical(path, none);
    for (;; at = at.parent_path()) {
        struct stat status {};
        if (::stat(at.c_str(), &status) == 0 && isSame(status, folder)) return true;
        if (!at.has_relative_path()) return false;
    }
}

}  // namespace

std::uint64_t bytesInTrash(const ItemInTrash& item) {
    if (!S_ISDIR(item.status.st_mode)) {
        return S_ISREG(item.status.st_mode) ? static_cast<std::uint64_t>(item.status.st_size) : 0;
    }
    FolderDescent descent;
    return descent.begin(item.folder.get(), item.name) ? bytesBelow(descent, 0) : 0;
}

Outcome<CopiedItem> copyFromTrash(const ItemInTrash& item, const fs::path& target,
                                  const std::function<void(std::uint64_t)>& progress) {
    const fs::path parent = target.has_parent_path() ? target.parent_path() : fs::path{"."};
    if (liesWithin(parent, item.status)) {
        return Failure{ExitStatus::refused, "the target lies within the item itself"};
    }
    const UniqueFd to{::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!to) return fileFailure(parent.string(), errno);
    TreeCopy copy{progress};
    const int error = copy.copyItem(item.folder.get(), item.name, item.status, to.get(),
                                    target.filename().string());
    if (error != 0 && copy.hasBegun()) {
        return Failure{ExitStatus::fileProblem,
                       fmt::format("{} is not complete: {}", printable(target.string()),
                                   std::strerror(error))};
    }
    if (error == ENOTSUP && !S_ISREG(item.status.st_mode)) {
        return Failure{ExitStatus::refused,
                       fmt::format("{} is a pipe, socket or device and holds nothing to copy",
                                   printable(item.name))};
    }
    if (error != 0) return fileFailure(target.string(), error);
    // The names are as safe as the contents: who reads that it is copied empties the trash.
    if (::syncfs(to.get()) != 0) return fileFailure(target.string(), errno);
    return copy.take();
}

}  // namespace korvane::ctl
