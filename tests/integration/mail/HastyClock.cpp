// Preloaded into a daemon, it lets the minutes pass in which the daemon waits for a mail server
// that says nothing: a wait of ppoll(2) for longer than ten seconds lasts a hundredth of that, and
// the clocks since boot go on by the rest.
#include <dlfcn.h>
#include <poll.h>
#include <time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace {

constexpr std::int64_t kNanosecondsInSecond = 1'000'000'000;
constexpr std::int64_t kLongWait = 10 * kNanosecondsInSecond;
constexpr std::int64_t kHaste = 100;

std::atomic<std::int64_t> skippedNanoseconds{0};

timespec timeOf(std::int64_t nanoseconds) {
    return {.tv_sec = nanoseconds / kNanosecondsInSecond,
            .tv_nsec = nanoseconds % kNanosecondsInSecond};
}

std::int64_t nanosecondsOf(const timespec& time) {
    return time.tv_sec * kNanosecondsInSecond + time.tv_nsec;
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

using Poll = int (*)(pollfd*, nfds_t, const timespec*, const sigset_t*);

}  // namespace

extern "C" {

int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* signals) {
    static const auto real = next<Poll>("ppoll");
    if (timeout == nullptr || nanosecondsOf(*timeout) <= kLongWait) {
        return real(descriptors, count, timeout, signals);
    }
    const std::int64_t whole = nanosecondsOf(*timeout);
    const timespec part = timeOf(whole / kHaste);
    const int ready = real(descriptors, count, &part, signals);
    if (ready == 0) skippedNanoseconds += whole - whole / kHaste;
    return ready;
}

// What a hardened program calls in its place: the C library's name for it.
// NOLINTNEXTLINE(bugprone-reserved-identifier, readability-identifier-naming)
int __ppoll_chk(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* signals,
                std::size_t /*size*/) {
    return ppoll(descriptors, count, timeout, signals);
}

int clock_gettime(clockid_t clock, timespec* now) {
    static const auto real = next<int (*)(clockid_t, timespec*)>("clock_gettime");
    const int result = real(clock, now);
    if (result == 0 && (clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME)) {
        *now = timeOf(nanosecondsOf(*now) + skippedNanoseconds);
    }
    return result;
}

}  // extern "C"
