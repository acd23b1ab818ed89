#include "platform/linux/LinuxClock.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <limits>
#include <system_error>
#include <utility>

namespace korvane {

namespace {

// Less is no matter for checks that come every few minutes, and is what reading two clocks one
// after the other may differ by on a busy machine.
constexpr std::chrono::seconds kLeastStep{1};

}  // namespace

LinuxClock::LinuxClock(LinuxRunLoop& loop)
    : loop_(loop), watchFd_(::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (!watchFd_ || !armWatch()) {
        throw std::system_error(errno, std::generic_category(), "watch of the clock");
    }
    sd_event_source* source = nullptr;
    int result = sd_event_add_io(loop.event(), &source, watchFd_.get(), EPOLLIN, onClockSet, this);
    watchSource_.reset(source);
    // Before any timer is looked at: what is due is compared with times that have been moved.
    if (result >= 0) result = sd_event_source_set_priority(source, kPriorityClock);
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), "watch of the clock");
    }
    knownWallClockAtBoot_ = wallClockAtBoot();
}

Time LinuxClock::now() {
    return std::chrono::time_point_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now());
}

std::uint64_t LinuxClock::microsecondsSinceBoot() {
    timespec time{};
    (void)::clock_gettime(CLOCK_BOOTTIME, &time);  // cannot fail for a clock that exists
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000 +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000;
}

void LinuxClock::setDidStep(std::function<void(std::chrono::microseconds step)> callback) {
    knownWallClockAtBoot_ = wallClockAtBoot();
    didStep_ = std::move(callback);
}

std::chrono::microseconds LinuxClock::wallClockAtBoot() {
    return now().time_since_epoch() -
           std::chrono::microseconds{static_cast<std::int64_t>(microsecondsSinceBoot())};
}

// timerfd_create(2): a timer at an absolute time is cancelled when the clock is set. This one is
// set for a time that never comes.
bool LinuxClock::armWatch() noexcept {
    itimerspec never{};
    never.it_value.tv_sec = std::numeric_limits<time_t>::max();
    return ::timerfd_settime(watchFd_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never,
                             nullptr) == 0;
}

int LinuxClock::onClockSet(sd_event_source*, int fd, std::uint32_t, void* self) noexcept {
    auto* const clock = static_cast<LinuxClock*>(self);
    std::uint64_t ignoredCount = 0;
    (void)::read(fd, &ignoredCount, sizeof ignoredCount);  // says no more than that it was set
    // Before the look: what is set from now on is another event.
    (void)clock->armWatch();  // as at the start; there is nothing in it that could be refused
    clock->loop_.callBack("the clock's setting", [clock] { clock->lookForStep(); });
    return 0;
}

void LinuxClock::lookForStep() {
    const std::chrono::microseconds found = wallClockAtBoot();
    const std::chrono::microseconds step = found - knownWallClockAtBoot_;
    if (std::chrono::abs(step) < kLeastStep) return;
    knownWallClockAtBoot_ = found;
    // A copy, since it may set another one.
    const auto callback = didStep_;
    if (callback) callback(step);
}

}  // namespace korvane
