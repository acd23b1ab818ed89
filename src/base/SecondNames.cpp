#include "base/SecondNames.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/BriefLock.h"

namespace korvane {

namespace {

class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0) (void)::close(number_);  // the copying was checked before
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    [[nodiscard]] int get() const { return number_; }

  private:
    int number_;
};

// O_NONBLOCK: a FIFO in the file's place must not hold us up.
constexpr int kCarefully = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
// As much as any of these files may hold.
constexpr off_t kMostBytes = 64 * 1024 * 1024;

bool isOursAlone(int folder) {
    struct stat status {};
    return ::fstat(folder, &status) == 0 && status.st_uid == ::geteuid() &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool copyContents(int from, int to) {
    char bytes[4096];  // at a time: a larger buffer on the stack is memory for good
    while (true) {
        const ssize_t count = ::read(from, bytes, sizeof bytes);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return count == 0;
        ssize_t done = 0;
        while (done < count) {
            const ssize_t written =
                ::write(to, bytes + done, static_cast<std::size_t>(count - done));
            if (written < 0 && errno == EINTR) continue;
            if (written < 0) return false;
            done += written;
        }
    }
}

}  // namespace

bool leaveSecondNames(int folder, const std::string& name) {
    const Descriptor file{::openat(folder, name.c_str(), O_RDONLY | kCarefully)};
    struct stat status {};
    if (file.get() < 0) return errno == ENOENT;
    if (::fstat(file.get(), &status) != 0) return false;
    if (status.st_nlink <= 1) return true;
    if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid() || status.st_size > kMostBytes ||
        !isOursAlone(folder)) {
        return false;
    }
    // What is half written would never be whole under the name: its writer goes on in this file.
    lockBriefly(file.get(), Sharing::none);
    struct stat named {};
    if (::fstatat(folder, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
        named.st_ino != status.st_ino) {
        return false;  // somebody else was quicker
    }
    const std::string copy = "." + name + ".copy";
    (void)::unlinkat(folder, copy.c_str(), 0);  // of a run that was killed
    const Descriptor own{::openat(folder, copy.c_str(), O_WRONLY | O_CREAT | O_EXCL | kCarefully,
                                  S_IRUSR | S_IWUSR)};
    if (own.get() < 0) return false;
    const bool isCopied =
        copyContents(file.get(), own.get()) && ::fchmod(own.get(), status.st_mode & 07777) == 0 &&
        ::fsync(own.get()) == 0 && ::renameat(folder, copy.c_str(), folder, name.c_str()) == 0;
    if (!isCopied) (void)::unlinkat(folder, copy.c_str(), 0);  // the failure counts
    return isCopied;
}

}  // namespace korvane
