#include "platform/linux/LinuxRunLoop.h"

#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <string>
#include <system_error>
#include <utility>

namespace korvane {

namespace {

// sd-event reads an accuracy of 0 as 250 ms.
constexpr std::uint64_t kTimerAccuracyMicroseconds = 1000;
// Far beyond any uptime, and far from the end of the arithmetic.
constexpr std::chrono::microseconds kLongestDelay = std::chrono::hours{24 * 365 * 100};
// sd_watchdog_enabled(3) asks for a sign of life in half of the time at the latest.
constexpr std::uint64_t kWatchdogDivisor = 3;

std::uint64_t boottimeMicrosecondsNow() {
    timespec time{};
    (void)::clock_gettime(CLOCK_BOOTTIME, &time);  // cannot fail for a clock that exists
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000 +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000;
}

std::uint64_t periodOf(std::chrono::microseconds delay) {
    return static_cast<std::uint64_t>(
        std::clamp(delay, std::chrono::microseconds{0}, kLongestDelay).count());
}

// sd-event answers with negative error numbers.
void require(int result, const char* what) {
    if (result < 0) throw std::system_error(-result, std::generic_category(), what);
}

}  // namespace

// A callback and its place in the queue of timers. The queue's node is made with it and is kept
// while it is not queued: queueing again needs no memory.
class LinuxRunLoop::QueuedTimer {
  public:
    // Without a period it fires once.
    QueuedTimer(LinuxRunLoop& loop, std::optional<std::uint64_t> periodMicroseconds,
                Callback callback)
        : loop_(loop),
          periodMicroseconds_(periodMicroseconds),
          callback_(std::make_shared<const Callback>(std::move(callback))) {
        TimerQueue queue;
        queue.emplace(TimerKey{}, this);
        node_ = queue.extract(queue.begin());
    }
    ~QueuedTimer() { disarm(); }
    QueuedTimer(const QueuedTimer&) = delete;
    QueuedTimer& operator=(const QueuedTimer&) = delete;

    void armAt(std::uint64_t boottimeMicroseconds) noexcept {
        disarm();
        key_ = {boottimeMicroseconds, loop_.nextSequence_++};
        node_.key() = key_;
        loop_.timers_.insert(std::move(node_));
        loop_.armForEarliestTimer();
    }
    void disarm() noexcept {
        if (node_) return;
        node_ = loop_.timers_.extract(key_);
        loop_.armForEarliestTimer();
    }

    // Its time has come: it is taken off the queue, and queued again when it repeats. The callback
    // is handed out, since it may destroy this object.
    [[nodiscard]] std::shared_ptr<const Callback> fired(std::uint64_t now) noexcept {
        node_ = loop_.timers_.extract(key_);
        if (periodMicroseconds_) {
            const std::uint64_t period = *periodMicroseconds_;
            const std::uint64_t planned = key_.boottimeMicroseconds;
            const std::uint64_t missed = period == 0 ? 0 : (now - planned) / period;
            armAt(period == 0 ? now : planned + (missed + 1) * period);
        }
        return callback_;
    }

  private:
    LinuxRunLoop& loop_;
    std::optional<std::uint64_t> periodMicroseconds_;
    std::shared_ptr<const Callback> callback_;
    TimerKey key_;
    TimerQueue::node_type node_;  // while it is not queued
};

class LinuxRunLoop::LoopTimer final : public Timer {
  public:
    LoopTimer(LinuxRunLoop& loop, Repeat repeat, std::uint64_t delay, Callback callback)
        : queued_(loop, repeat == Repeat::every ? std::optional(delay) : std::nullopt,
                  std::move(callback)) {
        queued_.armAt(boottimeMicrosecondsNow() + delay);
    }

  private:
    QueuedTimer queued_;
};

class LinuxRunLoop::LoopStandbyTimer final : public StandbyTimer {
  public:
    LoopStandbyTimer(LinuxRunLoop& loop, Callback callback)
        : queued_(loop, std::nullopt, std::move(callback)) {}
    void arm(std::chrono::microseconds delay) noexcept override {
        queued_.armAt(boottimeMicrosecondsNow() + periodOf(delay));
    }
    void disarm() noexcept override { queued_.disarm(); }

  private:
    QueuedTimer queued_;
};

LinuxRunLoop::SignalMask::SignalMask() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&blocked, signal);
    const int error = ::pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    if (error != 0) throw std::system_error(error, std::generic_category(), "blocking signals");
}

LinuxRunLoop::SignalMask::~SignalMask() {
    (void)::pthread_sigmask(SIG_SETMASK, &previous, nullptr);  // a mask it gave out itself
}

LinuxRunLoop::LinuxRunLoop(SystemLog& systemLog) : systemLog_(systemLog) {
    sd_event* event = nullptr;
    require(sd_event_new(&event), "event loop");
    event_.reset(event);
    postsFd_ = UniqueFd{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    if (!postsFd_) throw std::system_error(errno, std::generic_category(), "eventfd");
    addSources();
    sigset_t endSignals;
    sigemptyset(&endSignals);
    for (const int signal : {SIGTERM, SIGINT}) sigaddset(&endSignals, signal);
    endSignalsFd_ = UniqueFd{::signalfd(-1, &endSignals, SFD_CLOEXEC | SFD_NONBLOCK)};
    if (!endSignalsFd_) throw std::system_error(errno, std::generic_category(), "signalfd");
    std::uint64_t watchdogMicroseconds = 0;
    if (sd_watchdog_enabled(0, &watchdogMicroseconds) > 0) {
        watchdogInterval_ = std::chrono::microseconds{watchdogMicroseconds / kWatchdogDivisor};
    }
    // Answers the service manager in time when it asked for it in the environment, else nothing.
    require(sd_event_set_watchdog(event_.get(), 1), "watchdog");
}

LinuxRunLoop::~LinuxRunLoop() = default;

void LinuxRunLoop::addSources() {
    sd_event_source* source = nullptr;
    require(sd_event_add_time(event_.get(), &source, CLOCK_BOOTTIME, 0, kTimerAccuracyMicroseconds,
                              onTimers, this),
            "timer source");
    timerSource_.reset(source);
    require(sd_event_source_set_enabled(source, SD_EVENT_OFF), "timer source");

    require(sd_event_add_defer(event_.get(), &source, onTimersDueNow, this), "defer source");
    dueNowSource_.reset(source);
    require(sd_event_source_set_enabled(source, SD_EVENT_OFF), "defer source");

    require(sd_event_add_io(event_.get(), &source, postsFd_.get(), EPOLLIN, onPosts, this),
            "post source");
    postsSource_.reset(source);

    require(sd_event_add_defer(event_.get(), &source, onTerminate, this), "defer source");
    terminateSource_.reset(source);
    require(sd_event_source_set_enabled(source, SD_EVENT_OFF), "defer source");
    require(sd_event_source_set_priority(source, kPriorityTerminate), "defer source");

    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        require(sd_event_add_signal(event_.get(), &source, signal, onSignal, this),
                "signal source");
        signalSources_.emplace_back(source);
        require(sd_event_source_set_priority(source, kPrioritySignals), "signal source");
    }
}

std::unique_ptr<Timer> LinuxRunLoop::startTimer(std::chrono::microseconds delay, Repeat repeat,
                                                Callback callback) {
    return std::make_unique<LoopTimer>(*this, repeat, periodOf(delay), std::move(callback));
}

std::unique_ptr<StandbyTimer> LinuxRunLoop::makeStandbyTimer(Callback callback) {
    return std::make_unique<LoopStandbyTimer>(*this, std::move(callback));
}

void LinuxRunLoop::armForEarliestTimer() noexcept {
    // None of these calls can fail on a live source; the kernel's timer is set once a pass, by
    // sd-event, however often it changes here.
    if (timers_.empty()) {
        (void)sd_event_source_set_enabled(timerSource_.get(), SD_EVENT_OFF);
        (void)sd_event_source_set_enabled(dueNowSource_.get(), SD_EVENT_OFF);
        return;
    }
    const std::uint64_t earliest = timers_.begin()->first.boottimeMicroseconds;
    const bool dueNow = earliest <= boottimeMicrosecondsNow();
    (void)sd_event_source_set_enabled(dueNowSource_.get(),
                                      dueNow ? SD_EVENT_ONESHOT : SD_EVENT_OFF);
    if (dueNow) {
        (void)sd_event_source_set_enabled(timerSource_.get(), SD_EVENT_OFF);
    } else {
        (void)sd_event_source_set_time(timerSource_.get(), earliest);
        (void)sd_event_source_set_enabled(timerSource_.get(), SD_EVENT_ONESHOT);
    }
}

void LinuxRunLoop::fireDueTimers() {
    const std::uint64_t now = boottimeMicrosecondsNow();
    // A timer started by one of these callbacks waits for the next pass, even with a delay of 0.
    const std::uint64_t startedLater = nextSequence_;
    while (!timers_.empty() && !terminating_) {
        const auto [key, timer] = *timers_.begin();
        if (key.boottimeMicroseconds > now || key.sequence >= startedLater) break;
        const std::shared_ptr<const Callback> callback = timer->fired(now);
        callBack("a timer", *callback);
    }
    armForEarliestTimer();
}

int LinuxRunLoop::onTimers(sd_event_source*, std::uint64_t, void* self) noexcept {
    static_cast<LinuxRunLoop*>(self)->fireDueTimers();
    return 0;
}

int LinuxRunLoop::onTimersDueNow(sd_event_source*, void* self) noexcept {
    static_cast<LinuxRunLoop*>(self)->fireDueTimers();
    return 0;
}

void LinuxRunLoop::post(Callback callback) {
    bool wasEmpty = false;
    {
        const std::lock_guard lock(postsMutex_);
        wasEmpty = posts_.empty();
        posts_.push_back(std::move(callback));
    }
    // Whoever finds the queue empty wakes the loop; a write of 1 to an eventfd that is read at
    // every wake-up cannot overflow it.
    if (wasEmpty) (void)eventfd_write(postsFd_.get(), 1);
}

void LinuxRunLoop::runPosts() {
    std::vector<Callback> posts;
    eventfd_t ignoredCount = 0;
    (void)eventfd_read(postsFd_.get(), &ignoredCount);
    {
        const std::lock_guard lock(postsMutex_);
        posts.swap(posts_);
    }
    for (const Callback& callback : posts) callBack("a posted call", callback);
}

int LinuxRunLoop::onPosts(sd_event_source*, int, std::uint32_t, void* self) noexcept {
    static_cast<LinuxRunLoop*>(self)->runPosts();
    return 0;
}

void LinuxRunLoop::runInBackgroundAndWait(const Callback& work) { background_.runAndWait(work); }

void LinuxRunLoop::atOrdinaryPriority(const Callback& part) {
    background_.runOnWaitingThread(part);
}

// The semaphore of an event descriptor, so that the wait for it is a wait like any other.
class LinuxRunLoop::DescriptorLock final : public HandoverLock {
  public:
    explicit DescriptorLock(LinuxRunLoop& loop)
        : loop_(loop), free_(::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (!free_) throw std::system_error(errno, std::generic_category(), "eventfd");
    }

    bool take(std::chrono::microseconds limit) override {
        eventfd_t ignoredCount = 0;
        if (eventfd_read(free_.get(), &ignoredCount) != 0 &&
            (loop_.waitServingNothing(free_.get(), POLLIN, limit) != Wait::ready ||
             eventfd_read(free_.get(), &ignoredCount) != 0)) {
            return false;
        }
        isHeld_ = true;
        return true;
    }

    void release() override {
        if (isHeld_.exchange(false)) (void)eventfd_write(free_.get(), 1);  // 0 to 1: cannot fail
    }

  private:
    LinuxRunLoop& loop_;
    UniqueFd free_;
    std::atomic<bool> isHeld_ = false;
};

std::unique_ptr<HandoverLock> LinuxRunLoop::makeLock() {
    return std::make_unique<DescriptorLock>(*this);
}

LinuxRunLoop::Wait LinuxRunLoop::waitServingNothing(int fd, short events,
                                                    std::chrono::microseconds limit) {
    using std::chrono::steady_clock;
    const auto deadline = steady_clock::now() + limit;
    for (;;) {
        if (terminating_) return Wait::interrupted;
        if (watchdogInterval_) (void)sd_notify(0, "WATCHDOG=1");
        const auto remaining = std::max(deadline - steady_clock::now(), steady_clock::duration{0});
        const auto slice =
            std::min<steady_clock::duration>(remaining, watchdogInterval_.value_or(kLongestDelay));
        const auto seconds = std::chrono::floor<std::chrono::seconds>(slice);
        const timespec timeout{.tv_sec = seconds.count(),
                               .tv_nsec = std::chrono::nanoseconds{slice - seconds}.count()};
        std::array<pollfd, 2> watched{
            {{.fd = fd, .events = events, .revents = 0},
             {.fd = endSignalsFd_.get(), .events = POLLIN, .revents = 0}}};
        const int ready = ::ppoll(watched.data(), watched.size(), &timeout, nullptr);
        if (ready < 0 && errno != EINTR) return Wait::interrupted;
        if (ready > 0 && watched[1].revents != 0) return Wait::interrupted;
        if (ready > 0) return Wait::ready;
        if (steady_clock::now() >= deadline) return Wait::timedOut;
    }
}

void LinuxRunLoop::setWillBecomeActive(Callback callback) {
    willBecomeActive_ = std::move(callback);
}

void LinuxRunLoop::setWillTerminate(Callback callback) { willTerminate_ = std::move(callback); }

void LinuxRunLoop::becomeActive() {
    // A copy, since it may set another one.
    const Callback callback = willBecomeActive_;
    if (callback) callBack("becoming active", callback);
}

int LinuxRunLoop::onSignal(sd_event_source*, const signalfd_siginfo* info, void* self) noexcept {
    auto* const loop = static_cast<LinuxRunLoop*>(self);
    if (info->ssi_signo == static_cast<std::uint32_t>(SIGHUP)) {
        loop->becomeActive();
    } else {
        loop->terminate();
    }
    return 0;
}

void LinuxRunLoop::terminate() {
    if (std::exchange(terminating_, true)) return;
    (void)sd_event_source_set_enabled(terminateSource_.get(), SD_EVENT_ONESHOT);
}

int LinuxRunLoop::onTerminate(sd_event_source*, void* self) noexcept {
    auto* const loop = static_cast<LinuxRunLoop*>(self);
    (void)sd_notify(0, "STOPPING=1");  // nobody may be listening
    try {
        if (loop->willTerminate_) loop->willTerminate_();
    } catch (const std::exception& failure) {
        loop->logFailure("terminating", failure.what());
    } catch (...) {
        loop->logFailure("terminating", "an unknown exception");
    }
    (void)sd_event_exit(loop->event_.get(), 0);
    return 0;
}

void LinuxRunLoop::run() {
    (void)sd_notify(0, "READY=1");  // nobody may be listening
    const int result = sd_event_loop(event_.get());
    if (result < 0) logFailure("the event loop", std::generic_category().message(-result));
}

void LinuxRunLoop::logFailure(std::string_view where, std::string_view what) noexcept {
    try {
        systemLog_.write(LogMessage::workFailed, {where, what});
    } catch (...) {
        // Out of memory while saying so: there is nobody left to tell.
    }
}

}  // namespace korvane
