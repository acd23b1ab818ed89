#include "platform/simulated/SimulatedRunLoop.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace korvane {

namespace {
// No honest work takes so many passes without a microsecond going by.
constexpr std::uint64_t kPassesAtOneInstantLimit = 1000000;
constexpr std::uint64_t kForever = std::numeric_limits<std::uint64_t>::max();
}  // namespace

struct SimulatedRunLoop::Event {
    Callback callback;
    bool isTimer = false;
    Repeat repeat = Repeat::once;
    std::uint64_t periodMicroseconds = 0;
    bool isCancelled = false;
    bool isQueued = false;
    Key key{};
    // Of a standby timer: where the queue's node is put back when its time has come.
    Queue::node_type* ownNode = nullptr;
};

class SimulatedRunLoop::PendingTimerHandle final : public Timer {
  public:
    PendingTimerHandle(SimulatedRunLoop& loop, std::shared_ptr<Event> event)
        : loop_(loop), event_(std::move(event)) {}
    ~PendingTimerHandle() override { loop_.cancel(*event_); }
    PendingTimerHandle(const PendingTimerHandle&) = delete;
    PendingTimerHandle& operator=(const PendingTimerHandle&) = delete;

  private:
    SimulatedRunLoop& loop_;
    std::shared_ptr<Event> event_;
};

class SimulatedRunLoop::StandbyTimerHandle final : public StandbyTimer {
  public:
    StandbyTimerHandle(SimulatedRunLoop& loop, Callback callback)
        : loop_(loop), event_(std::make_shared<Event>()) {
        event_->callback = std::move(callback);
        event_->isTimer = true;
        event_->ownNode = &node_;
        Queue queue;
        queue.emplace(Key{}, event_);
        node_ = queue.extract(queue.begin());
    }
    ~StandbyTimerHandle() override {
        disarm();
        event_->ownNode = nullptr;
    }
    StandbyTimerHandle(const StandbyTimerHandle&) = delete;
    StandbyTimerHandle& operator=(const StandbyTimerHandle&) = delete;

    void arm(std::chrono::microseconds delay) noexcept override {
        disarm();
        const auto wait = static_cast<std::uint64_t>(std::max<std::int64_t>(delay.count(), 0));
        event_->key = {loop_.clock_.microsecondsSinceBoot() + wait, loop_.nextOrder_++};
        event_->isQueued = true;
        node_.key() = event_->key;
        loop_.queue_.insert(std::move(node_));
    }
    void disarm() noexcept override {
        if (!event_->isQueued) return;
        event_->isQueued = false;
        // Not in the queue any more when the process has been restarted.
        if (auto node = loop_.queue_.extract(event_->key)) node_ = std::move(node);
    }

  private:
    SimulatedRunLoop& loop_;
    std::shared_ptr<Event> event_;
    Queue::node_type node_;
};

SimulatedRunLoop::SimulatedRunLoop(SimulatedClock& clock, SimulatedJournal& journal)
    : clock_(clock), journal_(journal) {}

SimulatedRunLoop::~SimulatedRunLoop() = default;

std::unique_ptr<Timer> SimulatedRunLoop::startTimer(std::chrono::microseconds delay, Repeat repeat,
                                                    Callback callback) {
    const auto wait = static_cast<std::uint64_t>(std::max<std::int64_t>(delay.count(), 0));
    auto event = std::make_shared<Event>();
    event->callback = std::move(callback);
    event->isTimer = true;
    event->repeat = repeat;
    event->periodMicroseconds = std::max<std::uint64_t>(wait, 1);
    journal_.note("timer", fmt::format("{}.{:06} s{}", wait / 1000000, wait % 1000000,
                                       repeat == Repeat::every ? ", repeating" : ""));
    enqueue(event, clock_.microsecondsSinceBoot() + wait);
    return std::make_unique<PendingTimerHandle>(*this, std::move(event));
}

std::unique_ptr<StandbyTimer> SimulatedRunLoop::makeStandbyTimer(Callback callback) {
    return std::make_unique<StandbyTimerHandle>(*this, std::move(callback));
}

void SimulatedRunLoop::post(Callback callback) {
    const std::lock_guard lock(postsMutex_);
    posts_.push_back(std::move(callback));
    hasPosts_ = true;
}

void SimulatedRunLoop::runInBackgroundAndWait(const Callback& work) {
    ++backgroundRuns_;
    work();
}

class SimulatedRunLoop::VirtualLock final : public HandoverLock {
  public:
    explicit VirtualLock(SimulatedClock& clock) : clock_(clock) {}

    bool take(std::chrono::microseconds limit) override {
        if (isHeld_) {
            clock_.advance(limit);
            return false;
        }
        isHeld_ = true;
        return true;
    }
    void release() override { isHeld_ = false; }

  private:
    SimulatedClock& clock_;
    bool isHeld_ = false;
};

std::unique_ptr<HandoverLock> SimulatedRunLoop::makeLock() {
    return std::make_unique<VirtualLock>(clock_);
}

void SimulatedRunLoop::setWillBecomeActive(Callback callback) {
    willBecomeActive_ = std::move(callback);
}

void SimulatedRunLoop::setWillTerminate(Callback callback) { willTerminate_ = std::move(callback); }

void SimulatedRunLoop::terminate() {
    ++terminateSends_;
    journal_.note("terminate");
}

void SimulatedRunLoop::run() {
    while (step(kForever)) {
    }
}

void SimulatedRunLoop::runFor(std::chrono::microseconds duration) {
    const std::uint64_t deadline =
        clock_.microsecondsSinceBoot() +
        static_cast<std::uint64_t>(std::max<std::int64_t>(duration.count(), 0));
    while (step(deadline)) {
    }
    const std::uint64_t now = clock_.microsecondsSinceBoot();
    if (!hasEnded_ && now < deadline) {
        clock_.advance(std::chrono::microseconds{static_cast<std::int64_t>(deadline - now)});
    }
}

bool SimulatedRunLoop::runOnce() { return step(kForever); }

void SimulatedRunLoop::becomeActive() {
    post([this] {
        if (willBecomeActive_) {
            journal_.note("active");
            willBecomeActive_();
        }
    });
}

void SimulatedRunLoop::restart() {
    const std::lock_guard lock(postsMutex_);
    posts_.clear();
    hasPosts_ = false;
    queue_.clear();
    willBecomeActive_ = nullptr;
    willTerminate_ = nullptr;
    terminateSends_ = 0;
    hasEnded_ = false;
    journal_.note("restart");
}

bool SimulatedRunLoop::hasEnded() const { return hasEnded_; }

int SimulatedRunLoop::terminateSends() const { return terminateSends_; }

std::uint64_t SimulatedRunLoop::passes() const { return passes_; }

std::vector<SimulatedRunLoop::PendingTimer> SimulatedRunLoop::pendingTimers() const {
    std::vector<PendingTimer> timers;
    const std::uint64_t now = clock_.microsecondsSinceBoot();
    for (const auto& [key, event] : queue_) {
        if (event->isTimer) {
            const std::uint64_t remaining = key.first > now ? key.first - now : 0;
            timers.push_back(
                {std::chrono::microseconds{static_cast<std::int64_t>(remaining)}, event->repeat});
        }
    }
    return timers;
}

void SimulatedRunLoop::enqueue(const std::shared_ptr<Event>& event, std::uint64_t time) {
    event->key = {time, nextOrder_++};
    event->isQueued = true;
    queue_.emplace(event->key, event);
}

void SimulatedRunLoop::cancel(Event& event) {
    event.isCancelled = true;
    if (event.isQueued) {
        // The queue lets go of the event before the caller does, so it outlives this line.
        queue_.erase(event.key);
        event.isQueued = false;
    }
}

// A post is never lost, as on a real loop: all that may run out of memory comes before the taking.
void SimulatedRunLoop::takePosts() {
    if (!hasPosts_) {
        return;
    }
    const std::lock_guard lock(postsMutex_);
    Queue events;
    std::vector<Event*> inOrder;
    inOrder.reserve(posts_.size());
    for (std::uint64_t number = 0; number < posts_.size(); ++number) {
        auto event = std::make_shared<Event>();
        event->key = {clock_.microsecondsSinceBoot(), nextOrder_ + number};
        event->isQueued = true;
        inOrder.push_back(event.get());
        events.emplace(event->key, std::move(event));
    }
    nextOrder_ += posts_.size();
    for (std::size_t number = 0; number < posts_.size(); ++number) {
        inOrder[number]->callback = std::move(posts_[number]);
    }
    posts_.clear();
    hasPosts_ = false;
    queue_.merge(events);
}

bool SimulatedRunLoop::step(std::uint64_t deadline) {
    if (hasEnded_) {
        return false;
    }
    takePosts();
    if (terminateSends_ > 0) {
        ++passes_;
        hasEnded_ = true;
        if (willTerminate_) {
            willTerminate_();
        }
        return false;
    }
    clock_.reportStep();
    if (queue_.empty() || queue_.begin()->first.first > deadline) {
        return false;
    }
    const auto next = queue_.begin();
    const std::uint64_t plannedTime = next->first.first;
    const std::shared_ptr<Event> event = next->second;
    if (event->ownNode) {
        *event->ownNode = queue_.extract(next);
    } else {
        queue_.erase(next);
    }
    event->isQueued = false;

    const std::uint64_t now = clock_.microsecondsSinceBoot();
    if (plannedTime > now) {
        clock_.advance(std::chrono::microseconds{static_cast<std::int64_t>(plannedTime - now)});
    }
    refuseLivelock();
    ++passes_;
    fire(event, plannedTime);
    return true;
}

void SimulatedRunLoop::fire(const std::shared_ptr<Event>& event, std::uint64_t plannedTime) {
    event->callback();
    if (event->repeat == Repeat::once || event->isCancelled) {
        return;
    }
    const std::uint64_t now = clock_.microsecondsSinceBoot();
    const std::uint64_t period = event->periodMicroseconds;
    const std::uint64_t missed = now > plannedTime ? (now - plannedTime) / period : 0;
    enqueue(event, plannedTime + (missed + 1) * period);
}

void SimulatedRunLoop::refuseLivelock() {
    const std::uint64_t now = clock_.microsecondsSinceBoot();
    passesAtThisInstant_ = now == instant_ ? passesAtThisInstant_ + 1 : 0;
    instant_ = now;
    if (passesAtThisInstant_ > kPassesAtOneInstantLimit) {
        throw std::runtime_error("the loop turns without time going by");
    }
}

}  // namespace korvane
