// The main thread's run loop and the application that lives on it: timers, posts from other
// threads, background work that is waited for, becoming active, and termination.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace korvane {

// A pending timer. Destroying it takes it off the loop; a timer may destroy itself
// from its own callback.
class Timer {
  public:
    virtual ~Timer() = default;
};

enum class Repeat { once, every };

// A one-shot timer that is made ahead of its use. Arming it needs no memory, so it can be relied on
// when everything else has failed. Destroying it takes it off the loop.
class StandbyTimer {
  public:
    virtual ~StandbyTimer() = default;
    // Calls back after the delay, as RunLoop::startTimer() has it; a pending call is moved.
    virtual void arm(std::chrono::microseconds delay) noexcept = 0;
    // Without effect when no call is pending.
    virtual void disarm() noexcept = 0;
};

// A lock with one holder at a time, which any thread may release.
class HandoverLock {
  public:
    virtual ~HandoverLock() = default;
    // Waits for the lock, up to the limit; false when it passes or the application is to end.
    // Nothing is called back meanwhile. On the loop's thread, or on a runInBackgroundAndWait()
    // thread.
    [[nodiscard]] virtual bool take(std::chrono::microseconds limit) = 0;
    // Without effect when nobody holds it. From any thread.
    virtual void release() = 0;
};

class RunLoop {
  public:
    using Callback = std::function<void()>;

    virtual ~RunLoop() = default;

    // Calls back on the loop's thread after `delay`, which counts the time the machine sleeps. A
    // delay of 0 or less fires at the next pass of the loop. A repeating timer is re-armed from its
    // planned time and skips the firings it has missed. Called on the loop's thread, or on a
    // runInBackgroundAndWait() thread while that is waited for.
    [[nodiscard]] virtual std::unique_ptr<Timer> startTimer(std::chrono::microseconds delay,
                                                            Repeat repeat, Callback callback) = 0;

    // A timer that is not pending yet. On the loop's thread.
    [[nodiscard]] virtual std::unique_ptr<StandbyTimer> makeStandbyTimer(Callback callback) = 0;

    // Calls back on the loop's thread, in the order of the posts. From any thread.
    virtual void post(Callback callback) = 0;

    // Runs the work on a thread of background priority and waits for it, so that it never overlaps
    // the loop's own work. On the loop's thread only. An exception from the work is rethrown here.
    virtual void runInBackgroundAndWait(const Callback& work) = 0;

    // A lock that nobody holds; the loop outlives it.
    [[nodiscard]] virtual std::unique_ptr<HandoverLock> makeLock() = 0;

    // What happens when the application becomes active (the user turns to it, or the machine
    // returns from sleep), and, once, before run() ends. On the loop's thread.
    virtual void setWillBecomeActive(Callback callback) = 0;
    virtual void setWillTerminate(Callback callback) = 0;

    // Asks the application to quit: the will-terminate callback runs once, at the next pass of the
    // loop, and then run() returns; nothing else is called back after that. May be asked again,
    // without effect.
    virtual void terminate() = 0;

    // Runs until terminate().
    virtual void run() = 0;
};

}  // namespace korvane
