// A run loop on virtual time: a queue of events by time and order of arming. When nothing is ready
// the clock jumps to the next event. One event is one pass of the loop. Background work runs on the
// caller's thread, where it overlaps nothing just as well.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/RunLoop.h"
#include "platform/simulated/SimulatedClock.h"
#include "platform/simulated/SimulatedJournal.h"

namespace korvane {

class SimulatedRunLoop final : public RunLoop {
  public:
    struct PendingTimer {
        std::chrono::microseconds remaining{0};
        Repeat repeat = Repeat::once;
    };

    SimulatedRunLoop(SimulatedClock& clock, SimulatedJournal& journal);
    ~SimulatedRunLoop() override;
    SimulatedRunLoop(const SimulatedRunLoop&) = delete;
    SimulatedRunLoop& operator=(const SimulatedRunLoop&) = delete;

    [[nodiscard]] std::unique_ptr<Timer> startTimer(std::chrono::microseconds delay, Repeat repeat,
                                                    Callback callback) override;
    [[nodiscard]] std::unique_ptr<StandbyTimer> makeStandbyTimer(Callback callback) override;
    void post(Callback callback) override;
    void runInBackgroundAndWait(const Callback& work) override;
    // Nobody else runs while somebody waits here: a lock that is held costs the whole limit.
    [[nodiscard]] std::unique_ptr<HandoverLock> makeLock() override;
    void setWillBecomeActive(Callback callback) override;
    void setWillTerminate(Callback callback) override;
    void terminate() override;
    // Also returns when nothing is pending: then nothing could ever ask it to end.
    void run() override;

    // Calls back everything that falls due within the duration and leaves the clock at its end, or
    // where it was when the application terminated.
    void runFor(std::chrono::microseconds duration);
    // One pass: the next event that is due now or later. False when there is none.
    bool runOnce();

    // The user turns to the application: told at the next pass.
    void becomeActive();
    // The process is gone and another takes its place: timers, posts, callbacks and the request to
    // terminate are forgotten.
    void restart();

    [[nodiscard]] bool hasEnded() const;
    // How often terminate() was asked, after the first as well.
    [[nodiscard]] int terminateSends() const;
    [[nodiscard]] std::uint64_t passes() const;
    // How often work was run in the background.
    [[nodiscard]] int backgroundRuns() const { return backgroundRuns_; }
    // In the order in which they will fire.
    [[nodiscard]] std::vector<PendingTimer> pendingTimers() const;

  private:
    struct Event;
    class PendingTimerHandle;
    class StandbyTimerHandle;
    class VirtualLock;
    // Time since boot in microseconds, then the order of arming.
    using Key = std::pair<std::uint64_t, std::uint64_t>;
    using Queue = std::map<Key, std::shared_ptr<Event>>;

    void enqueue(const std::shared_ptr<Event>& event, std::uint64_t time);
    void cancel(Event& event);
    void takePosts();
    bool step(std::uint64_t deadline);
    void fire(const std::shared_ptr<Event>& event, std::uint64_t plannedTime);
    void refuseLivelock();

    SimulatedClock& clock_;
    SimulatedJournal& journal_;
    Queue queue_;
    std::uint64_t nextOrder_ = 0;
    Callback willBecomeActive_;
    Callback willTerminate_;
    int terminateSends_ = 0;
    int backgroundRuns_ = 0;
    bool hasEnded_ = false;
    std::uint64_t passes_ = 0;
    std::uint64_t passesAtThisInstant_ = 0;
    std::uint64_t instant_ = 0;

    std::mutex postsMutex_;
    std::vector<Callback> posts_;
    std::atomic<bool> hasPosts_ = false;
};

}  // namespace korvane
