// The run loop on sd-event. Timers count on CLOCK_BOOTTIME, so the time the machine sleeps counts;
// signals come through the loop: SIGTERM and SIGINT terminate, SIGHUP makes the application active.
// With nothing due it sleeps in one epoll_wait and wakes for nothing.
#pragma once

#include <signal.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/RunLoop.h"
#include "platform/SystemLog.h"
#include "platform/linux/BackgroundThread.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

struct EventSourceCloser {
    void operator()(sd_event_source* source) const { (void)sd_event_source_disable_unref(source); }
};
// Owns a source on the loop: destroying it takes the source off, from its own callback too.
using EventSource = std::unique_ptr<sd_event_source, EventSourceCloser>;

// A lower number is dispatched first when several sources are ready in one pass.
enum EventPriority : std::int64_t {
    kPriorityTerminate = SD_EVENT_PRIORITY_IMPORTANT,     // nothing is called back once it is asked
    kPrioritySignals = SD_EVENT_PRIORITY_IMPORTANT + 1,   // a stop is not kept waiting by a burst
    kPriorityFailures = SD_EVENT_PRIORITY_IMPORTANT + 2,  // a failed connection lets go first
    kPriorityClock = SD_EVENT_PRIORITY_IMPORTANT + 3,     // before any time is compared with now
    kPriorityNormal = SD_EVENT_PRIORITY_NORMAL            // the rest, in the order of its coming
};

class LinuxRunLoop final : public RunLoop {
  public:
    // Blocks the signals that the loop takes (and SIGCHLD, which child sources need blocked) in
    // this thread and those it starts; the destructor restores the mask. Throws
    // std::system_error when the kernel refuses a loop.
    explicit LinuxRunLoop(SystemLog& systemLog);
    ~LinuxRunLoop() override;
    LinuxRunLoop(const LinuxRunLoop&) = delete;
    LinuxRunLoop& operator=(const LinuxRunLoop&) = delete;

    [[nodiscard]] std::unique_ptr<Timer> startTimer(std::chrono::microseconds delay, Repeat repeat,
                                                    Callback callback) override;
    [[nodiscard]] std::unique_ptr<StandbyTimer> makeStandbyTimer(Callback callback) override;
    void post(Callback callback) override;
    void runInBackgroundAndWait(const Callback& work) override;
    [[nodiscard]] std::unique_ptr<HandoverLock> makeLock() override;
    void setWillBecomeActive(Callback callback) override;
    void setWillTerminate(Callback callback) override;
    void terminate() override;
    void run() override;

    // Runs the part of a background work that must not inherit the background's priority, on the
    // thread that waits for that work; anywhere else simply runs it. It throws nothing.
    void atOrdinaryPriority(const Callback& part);

    // The loop below, for other sources of this machine. Never null; lives as long as this object.
    [[nodiscard]] sd_event* event() { return event_.get(); }
    // Tells the application that it becomes active.
    void becomeActive();

    enum class Wait { ready, timedOut, interrupted };
    // Waits until the descriptor has one of the events of poll(2), serving nothing: for the few
    // calls that have to stay on this thread. SIGTERM and SIGINT interrupt it and are left for the
    // loop to see; the service watchdog is fed.
    [[nodiscard]] Wait waitServingNothing(int fd, short events, std::chrono::microseconds limit);
    // Every callback from a C library into the daemon goes through here: an exception ends as one
    // line of the system log that begins with `where`, and once termination was asked for nothing
    // is called.
    template <typename Function>
    void callBack(std::string_view where, Function&& function) noexcept {
        if (terminating_) return;
        try {
            function();
        } catch (const std::exception& failure) {
            logFailure(where, failure.what());
        } catch (...) {
            logFailure(where, "an unknown exception");
        }
    }

  private:
    class QueuedTimer;
    class LoopTimer;
    class LoopStandbyTimer;
    class DescriptorLock;
    // When a timer fires, and its place among those of the same moment.
    struct TimerKey {
        std::uint64_t boottimeMicroseconds = 0;
        std::uint64_t sequence = 0;
        friend auto operator<=>(const TimerKey&, const TimerKey&) = default;
    };
    using TimerQueue = std::map<TimerKey, QueuedTimer*>;
    struct EventCloser {
        void operator()(sd_event* event) const { (void)sd_event_unref(event); }
    };
    struct SignalMask {
        SignalMask();
        ~SignalMask();
        sigset_t previous{};
    };

    // Out of memory inside one of these ends the process; nothing may unwind through C.
    static int onTimers(sd_event_source* source, std::uint64_t microseconds, void* self) noexcept;
    static int onTimersDueNow(sd_event_source* source, void* self) noexcept;
    static int onPosts(sd_event_source* source, int fd, std::uint32_t events, void* self) noexcept;
    static int onSignal(sd_event_source* source, const signalfd_siginfo* info, void* self) noexcept;
    static int onTerminate(sd_event_source* source, void* self) noexcept;

    void addSources();
    void armForEarliestTimer() noexcept;
    void fireDueTimers();
    void runPosts();
    void logFailure(std::string_view where, std::string_view what) noexcept;

    SystemLog& systemLog_;
    SignalMask signalMask_;
    std::unique_ptr<sd_event, EventCloser> event_;

    TimerQueue timers_;
    std::uint64_t nextSequence_ = 0;
    EventSource timerSource_;
    EventSource dueNowSource_;  // for a delay of 0: no detour through the kernel's timer

    UniqueFd postsFd_;
    std::mutex postsMutex_;
    std::vector<Callback> posts_;  // under postsMutex_
    EventSource postsSource_;

    Callback willBecomeActive_;
    Callback willTerminate_;
    bool terminating_ = false;
    EventSource terminateSource_;
    std::vector<EventSource> signalSources_;
    BackgroundThread background_;
    UniqueFd endSignalsFd_;  // ready while a signal to end is pending; nothing is read from it
    std::optional<std::chrono::microseconds> watchdogInterval_;
};

}  // namespace korvane
