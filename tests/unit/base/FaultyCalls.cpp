#include "FaultyCalls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

namespace korvane {

namespace {

FaultPlan currentPlan;
int changing = 0;
int reading = 0;
int syncs = 0;
std::function<void()> interventionBeforeStamp;

// Whether the call that begins now is to fail, with errno set.
bool isFaulty() {
    ++changing;
    const bool isNow =
        changing == currentPlan.atCall ||
        (currentPlan.persists && currentPlan.atCall != 0 && changing > currentPlan.atCall);
    if (isNow) errno = currentPlan.error;
    return isNow;
}

// The end of the process, if it is planned to die rather than to see an error.
long fault() {
    if (currentPlan.dies) _exit(kDied);
    return -1;
}

}  // namespace

void planFault(const FaultPlan& plan) {
    currentPlan = plan;
    changing = 0;
    reading = 0;
    syncs = 0;
}

int changingCalls() { return changing; }

int readingCalls() { return reading; }

int syncCalls() { return syncs; }

void interveneBeforeStamp(std::function<void()> intervention) {
    interventionBeforeStamp = std::move(intervention);
}

}  // namespace korvane

// The C library declares some of these as throwing nothing, which their definitions must repeat.
extern "C" {

ssize_t pread(int fd, void* buffer, std::size_t count, off_t offset) {
    ++korvane::reading;
    return syscall(SYS_pread64, fd, buffer, count, offset);
}

ssize_t pwrite(int fd, const void* buffer, std::size_t count, off_t offset) {
    if (!korvane::isFaulty()) return syscall(SYS_pwrite64, fd, buffer, count, offset);
    const int error = errno;
    (void)syscall(SYS_pwrite64, fd, buffer, count / 2, offset);
    errno = error;
    return korvane::fault();
}

// No power is lost here: not syncing for real saves most of the tests' time.
int fsync(int /*fd*/) {
    ++korvane::syncs;
    return static_cast<int>(korvane::isFaulty() ? korvane::fault() : 0);
}

int fsetxattr(int fd, const char* name, const void* value, std::size_t size, int flags) noexcept {
    return static_cast<int>(korvane::isFaulty()
                                ? korvane::fault()
                                : syscall(SYS_fsetxattr, fd, name, value, size, flags));
}

int ftruncate(int fd, off_t length) noexcept {
    return static_cast<int>(korvane::isFaulty() ? korvane::fault()
                                                : syscall(SYS_ftruncate, fd, length));
}

int fallocate(int fd, int mode, off_t offset, off_t length) {
    return static_cast<int>(korvane::isFaulty() ? korvane::fault()
                                                : syscall(SYS_fallocate, fd, mode, offset, length));
}

int fchmod(int fd, mode_t mode) noexcept {
    return static_cast<int>(korvane::isFaulty() ? korvane::fault() : syscall(SYS_fchmod, fd, mode));
}

int renameat(int fromFolder, const char* from, int toFolder, const char* to) noexcept {
    return static_cast<int>(korvane::isFaulty()
                                ? korvane::fault()
                                : syscall(SYS_renameat, fromFolder, from, toFolder, to));
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to,
              unsigned flags) noexcept {
    return static_cast<int>(korvane::isFaulty()
                                ? korvane::fault()
                                : syscall(SYS_renameat2, fromFolder, from, toFolder, to, flags));
}

int unlinkat(int folder, const char* name, int flags) noexcept {
    return static_cast<int>(korvane::isFaulty() ? korvane::fault()
                                                : syscall(SYS_unlinkat, folder, name, flags));
}

int futimens(int fd, const timespec times[2]) noexcept {
    if (const auto intervene = std::exchange(korvane::interventionBeforeStamp, {})) intervene();
    return static_cast<int>(korvane::isFaulty() ? korvane::fault()
                                                : syscall(SYS_utimensat, fd, nullptr, times, 0));
}
}
