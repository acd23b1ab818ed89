#include "base/PropertyListMark.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include "base/PropertyListPlace.h"

namespace korvane {

namespace {

constexpr char kAttribute[] = "user.korvane";

// As it lies in the attribute, which never leaves the machine: native byte order.
struct Mark {
    std::uint64_t boot = 0;  // the start of the machine in which the text was written
    std::uint64_t fingerprint = 0;
    std::int64_t seconds = 0;      // the modification time given to the file,
    std::int64_t nanoseconds = 0;  // or kWriting
};
constexpr std::int64_t kWriting = -1;

// Of the identifier that the kernel makes at each start; 0 where it cannot be read.
std::uint64_t thisBoot() {
    static const std::uint64_t boot = [] {
        const OpenFile file(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
        std::array<char, 64> text{};
        const ssize_t length = file ? read(file.get(), text.data(), text.size()) : -1;
        return length > 0 ? fingerprintOf({text.data(), static_cast<std::size_t>(length)}) : 0;
    }();
    return boot;
}

bool setMark(int file, const Mark& mark) {
    return fsetxattr(file, kAttribute, &mark, sizeof mark, 0) == 0;
}

}  // namespace

std::uint64_t fingerprintOf(std::string_view text) {
    // Multiplication mixes upwards, the shift down again. An accident is to be noticed, no forger.
    constexpr std::uint64_t kOddFactor = 0x9E3779B97F4A7C15U;
    std::uint64_t hash = text.size() * kOddFactor;
    const auto mix = [&hash](std::uint64_t bytes) {
        hash = (hash ^ bytes) * kOddFactor;
        hash ^= hash >> 32U;
    };
    std::uint64_t bytes = 0;
    for (; text.size() >= sizeof bytes; text.remove_prefix(sizeof bytes)) {
        std::memcpy(&bytes, text.data(), sizeof bytes);
        mix(bytes);
    }
    bytes = 0;
    std::memcpy(&bytes, text.data(), text.size());
    mix(bytes);
    return hash;
}

bool markWriting(int file, std::uint64_t fingerprint) {
    return setMark(file, {.boot = thisBoot(), .fingerprint = fingerprint, .nanoseconds = kWriting});
}

void unmark(int file) {
    (void)fremovexattr(file, kAttribute);  // There may be none.
}

void stampNow(int file) {
    timespec times[2] = {};
    times[0].tv_nsec = UTIME_OMIT;
    (void)clock_gettime(CLOCK_REALTIME, &times[1]);  // Cannot fail for this clock.
    (void)futimens(file, times);                     // The kernel's own time is near enough.
}

bool markWritten(int file, std::uint64_t fingerprint, struct stat& status) {
    timespec times[2] = {};
    times[0].tv_nsec = UTIME_OMIT;
    timespec tick{};
    (void)clock_gettime(CLOCK_REALTIME_COARSE, &tick);  // Neither can fail for these clocks.
    (void)clock_gettime(CLOCK_REALTIME, &times[1]);
    if (isSameMoment(tick, times[1])) times[1].tv_nsec ^= 1;
    if (futimens(file, times) != 0 || fstat(file, &status) != 0) return false;
    // A coarser time than the one given is what the file system has for it.
    (void)setMark(file, {.boot = thisBoot(),
                         .fingerprint = fingerprint,
                         .seconds = status.st_mtim.tv_sec,
                         .nanoseconds = status.st_mtim.tv_nsec});
    return isSameMoment(status.st_mtim, times[1]) && fstat(file, &status) == 0;
}

bool hasLostPages(int file, const struct stat& status, std::string_view text,
                  const timespec* copy) {
    Mark mark;
    if (fgetxattr(file, kAttribute, &mark, sizeof mark) != ssize_t{sizeof mark} ||
        mark.boot == thisBoot()) {
        return false;
    }
    const bool isOurs =
        mark.nanoseconds == kWriting ||
        (mark.seconds == status.st_mtim.tv_sec && mark.nanoseconds == status.st_mtim.tv_nsec);
    if (!isOurs) return false;
    const timespec& time = status.st_mtim;
    const bool isOlder = copy && (copy->tv_sec != time.tv_sec ? copy->tv_sec > time.tv_sec
                                                              : copy->tv_nsec > time.tv_nsec);
    return isOlder || mark.fingerprint != fingerprintOf(text);
}

}  // namespace korvane
