#include "KorvaneProDataRecovery/ResultFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <stdio.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "platform/linux/UniqueFd.h"

namespace korvane {

namespace {

constexpr mode_t kMode = 0600;

Error failure(std::string_view what, const std::string& name) {
    return Error{fmt::format("{} {}: {}", what, name, std::strerror(errno))};
}

// One that others may write holds what they like, such as a left name of a file that all may write.
bool isOwnFile(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_uid == ::geteuid() &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
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

enum class Name { free, ours, taken };

// Somebody's link or file, and one of ours that has a second name or that others may write, is
// another's.
Result<Name> lookAt(int folder, const std::string& name) {
    struct stat status {};
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) return Name::free;
        return failure("looking at", name);
    }
    return isOwnFile(status) && status.st_nlink == 1 ? Name::ours : Name::taken;
}

// A whole file under a name for a moment, for file systems that have no files without a name.
// Others can make files in the folder, and half a file must be nobody else's: a name that nobody
// guesses.
Result<std::string> makePassing(int folder, const std::string& name, std::string_view bytes) {
    std::uint64_t number = 0;
    // Short of that many random bytes only a second after the machine's start: zero is as good.
    (void)::getrandom(&number, sizeof number, GRND_NONBLOCK);
    std::string passing = fmt::format("{}.{:016x}", name, number);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const UniqueFd file{::openat(folder, passing.c_str(), kFlags, kMode)};
    if (!file) return failure("making", passing);
    if (!writeAll(file.get(), bytes)) {
        Error error = failure("writing", passing);
        (void)::unlinkat(folder, passing.c_str(), 0);
        return error;
    }
    return passing;
}

// In the place of one of ours, or where nothing is. Another run over the same items may be at the
// same place: the last one's stays, and at no moment none.
Result<Saved> moveInto(int folder, const std::string& passing, const std::string& name) {
    constexpr int kAttempts = 10;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const Result<Name> place = lookAt(folder, name);
        if (!place) return place.error();
        if (*place == Name::taken) {
            (void)::unlinkat(folder, passing.c_str(), 0);
            return Saved::nameIsTaken;
        }
        // In a folder with the sticky bit nobody can put something else in our file's place.
        const unsigned flags = *place == Name::free ? RENAME_NOREPLACE : 0;
        // Gone from there it is in place: the other run moved it.
        if (::renameat2(folder, passing.c_str(), folder, name.c_str(), flags) == 0 ||
            errno == ENOENT) {
            return Saved::whole;
        }
        if (errno != EEXIST) break;
    }
    Error error = failure("naming", name);
    (void)::unlinkat(folder, passing.c_str(), 0);
    return error;
}

// Gives a whole file without a name its own, by way of one that is the same at each run: what a run
// that was killed left under it goes the same way first, as does another run's file. Both are
// whole.
Result<Saved> giveName(int folder, int file, const std::string& name) {
    const std::string passing = name + ".new";
    // The one way to name such a file that needs no privilege (open(2), O_TMPFILE).
    const std::string self = fmt::format("/proc/self/fd/{}", file);
    constexpr int kAttempts = 100;  // each that fails is one at which another run got on
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (::linkat(AT_FDCWD, self.c_str(), folder, passing.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            return moveInto(folder, passing, name);
        }
        if (errno != EEXIST) break;
        const Result<Name> there = lookAt(folder, passing);
        if (!there) return there.error();
        if (*there == Name::taken) return Saved::nameIsTaken;
        if (*there == Name::free) continue;
        if (auto moved = moveInto(folder, passing, name); !moved || *moved == Saved::nameIsTaken) {
            return moved;
        }
    }
    return failure("naming", passing);
}

}  // namespace

Result<Saved> saveResult(const std::string& folder, const std::string& name,
                         std::string_view bytes) {
    const UniqueFd place{::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!place) return failure("opening", folder);
    const TerminationHeldBack heldBack;
    const UniqueFd file{::openat(place.get(), ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, kMode)};
    if (file) {
        if (!writeAll(file.get(), bytes)) return failure("writing", name);
        return giveName(place.get(), file.get(), name);
    }
    const auto passing = makePassing(place.get(), name, bytes);
    if (!passing) return passing.error();
    return moveInto(place.get(), *passing, name);
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
