#include "KorvaneProDataRecovery/ResultFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/UniqueFd.h"

namespace korvane {

namespace {

constexpr mode_t kMode = 0600;

Error failure(std::string_view what, const std::string& name) {
    return Error{fmt::format("{} {}: {}", what, name, std::strerror(errno))};
}

bool isOwnFile(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_uid == ::geteuid();
}

bool writeAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t length = ::write(file, bytes.data(), bytes.size());
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(length));
    }
    return true;
}

// Keeps SIGTERM off while a file stands there half written.
class TerminationHeldBack {
  public:
    TerminationHeldBack() {
        sigset_t terminate;
        sigemptyset(&terminate);
        sigaddset(&terminate, SIGTERM);
        (void)::sigprocmask(SIG_BLOCK, &terminate, &before_);  // fails for no valid mask
    }
    ~TerminationHeldBack() { (void)::sigprocmask(SIG_SETMASK, &before_, nullptr); }
    TerminationHeldBack(const TerminationHeldBack&) = delete;
    TerminationHeldBack& operator=(const TerminationHeldBack&) = delete;

  private:
    sigset_t before_{};
};

// Makes room: what was left over from before goes.
Result<Saved> clearName(int folder, const std::string& name) {
    struct stat status {};
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) return Saved::whole;
        return failure("looking at", name);
    }
    if (!isOwnFile(status) || status.st_nlink != 1) return Saved::nameIsTaken;
    if (::unlinkat(folder, name.c_str(), 0) != 0) return failure("removing", name);
    return Saved::whole;
}

// For file systems that have no files without a name.
Result<Saved> saveUnderItsName(int folder, const std::string& name, std::string_view bytes) {
    const TerminationHeldBack heldBack;
    const UniqueFd file{::openat(folder, name.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode)};
    if (!file) return failure("making", name);
    if (writeAll(file.get(), bytes)) return Saved::whole;
    Error error = failure("writing", name);
    (void)::unlinkat(folder, name.c_str(), 0);  // a half file is worse than none
    return error;
}

}  // namespace

Result<Saved> saveResult(const std::string& folder, const std::string& name,
                         std::string_view bytes) {
    const UniqueFd place{::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!place) return failure("opening", folder);
    const Result<Saved> cleared = clearName(place.get(), name);
    if (!cleared || *cleared == Saved::nameIsTaken) return cleared;
    const UniqueFd file{::openat(place.get(), ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, kMode)};
    if (!file) return saveUnderItsName(place.get(), name, bytes);
    if (!writeAll(file.get(), bytes)) return failure("writing", name);
    // The one way to name such a file that needs no privilege (open(2), O_TMPFILE).
    const std::string self = fmt::format("/proc/self/fd/{}", file.get());
    if (::linkat(AT_FDCWD, self.c_str(), place.get(), name.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        return failure("naming", name);
    }
    return Saved::whole;
}

Result<std::string> readOwnFile(const std::string& path, std::size_t most) {
    const UniqueFd file{
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return failure("opening", path);
    if (!isOwnFile(status)) return Error{fmt::format("{} is not a file of this user's", path)};
    std::string text(most, '\0');
    std::size_t length = 0;
    while (length < most) {
        const ssize_t part = ::read(file.get(), text.data() + length, most - length);
        if (part < 0 && errno == EINTR) continue;
        if (part < 0) return failure("reading", path);
        if (part == 0) break;
        length += static_cast<std::size_t>(part);
    }
    text.resize(length);
    return text;
}

}  // namespace korvane
