// What every run loop promises.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "conformance/Implementation.h"
#include "platform/Clock.h"
#include "platform/RunLoop.h"

namespace korvane {

class RunLoopSubject {
  public:
    virtual ~RunLoopSubject() = default;
    virtual RunLoop& loop() = 0;
    // The clock that the loop's timers count on.
    virtual Clock& clock() = 0;
    // The calling callback is busy for so long.
    virtual void spend(std::chrono::microseconds duration) = 0;
    // The user turns to the application.
    virtual void becomeActive() = 0;
};

class RunLoopConformance : public testing::TestWithParam<Implementation<RunLoopSubject>> {
  protected:
    using milliseconds = std::chrono::milliseconds;
    using microseconds = std::chrono::microseconds;

    RunLoopConformance() : subject_(GetParam().make()) {}

    RunLoop& loop() { return subject_->loop(); }
    std::uint64_t now() { return subject_->clock().microsecondsSinceBoot(); }

    [[nodiscard]] std::unique_ptr<Timer> after(microseconds delay, RunLoop::Callback callback) {
        return loop().startTimer(delay, Repeat::once, std::move(callback));
    }

    // Runs for so long, then terminates.
    void runFor(microseconds duration) {
        const auto end = after(duration, [this] { loop().terminate(); });
        loop().run();
    }

    std::unique_ptr<RunLoopSubject> subject_;
    std::vector<int> called_;
};

TEST_P(RunLoopConformance, FiresTimersInTheOrderOfTheirDelays) {
    // Far enough apart for a machine that stops in between.
    const auto third = after(milliseconds{300}, [this] { called_.push_back(3); });
    const auto first = after(milliseconds{1}, [this] { called_.push_back(1); });
    const auto second = after(milliseconds{150}, [this] { called_.push_back(2); });
    runFor(milliseconds{500});
    EXPECT_THAT(called_, testing::ElementsAre(1, 2, 3));
}

TEST_P(RunLoopConformance, ALockHasOneHolderAtATime) {
    const std::unique_ptr<HandoverLock> lock = loop().makeLock();
    lock->release();  // nobody held it: the next holder is still the only one
    EXPECT_TRUE(lock->take(microseconds{0}));
    const std::uint64_t start = now();
    EXPECT_FALSE(lock->take(milliseconds{30}));
    EXPECT_GE(now(), start + 29000);
    lock->release();
    lock->release();
    EXPECT_TRUE(lock->take(milliseconds{30}));
    EXPECT_FALSE(lock->take(microseconds{0}));
}

TEST_P(RunLoopConformance, AnyThreadMayReleaseALock) {
    const std::unique_ptr<HandoverLock> lock = loop().makeLock();
    ASSERT_TRUE(lock->take(microseconds{0}));
    std::thread([&lock] { lock->release(); }).join();
    EXPECT_TRUE(lock->take(microseconds{0}));
}

TEST_P(RunLoopConformance, NeverFiresATimerEarly) {
    const std::uint64_t start = now();
    std::uint64_t firedAt = 0;
    const auto timer = after(milliseconds{20}, [&] {
        firedAt = now();
        loop().terminate();
    });
    loop().run();
    EXPECT_GE(firedAt, start + 20000);
}

TEST_P(RunLoopConformance, FiresADelayOfZeroOrLessAtTheNextPassAndNotAtOnce) {
    std::unique_ptr<Timer> zero;
    std::unique_ptr<Timer> negative;
    const auto timer = after(microseconds{0}, [&] {
        zero = after(microseconds{0}, [this] { called_.push_back(2); });
        negative = after(std::chrono::hours{-1}, [this] { called_.push_back(2); });
        called_.push_back(1);
    });
    EXPECT_TRUE(called_.empty());
    runFor(milliseconds{20});
    EXPECT_THAT(called_, testing::ElementsAre(1, 2, 2));
}

TEST_P(RunLoopConformance, DoesNotFireATimerThatWasDestroyed) {
    auto timer = after(milliseconds{5}, [this] { called_.push_back(1); });
    timer.reset();
    runFor(milliseconds{15});
    EXPECT_TRUE(called_.empty());
}

TEST_P(RunLoopConformance, FiresAOneShotTimerOnce) {
    const auto timer = after(milliseconds{1}, [this] { called_.push_back(1); });
    runFor(milliseconds{15});
    EXPECT_THAT(called_, testing::SizeIs(1));
}

TEST_P(RunLoopConformance, LetsATimerDestroyItselfFromItsOwnCallback) {
    for (const Repeat repeat : {Repeat::once, Repeat::every}) {
        const auto subject = GetParam().make();
        int count = 0;
        std::unique_ptr<Timer> timer;
        timer =
            subject->loop().startTimer(milliseconds{1}, repeat, [&, big = std::string(99, 'x')] {
                timer.reset();
                // What the callback holds must outlive the timer.
                count += big.size() == 99 ? 1 : 100;
            });
        const auto end = subject->loop().startTimer(milliseconds{20}, Repeat::once,
                                                    [&] { subject->loop().terminate(); });
        subject->loop().run();
        EXPECT_EQ(count, 1);
    }
}

TEST_P(RunLoopConformance, DoesNotFireAStandbyTimerThatWasNeverArmed) {
    const auto timer = loop().makeStandbyTimer([this] { called_.push_back(1); });
    runFor(milliseconds{20});
    EXPECT_THAT(called_, testing::IsEmpty());
}

TEST_P(RunLoopConformance, ArmsAStandbyTimerAnewFromItsOwnCallback) {
    const std::uint64_t start = now();
    std::uint64_t firedLast = 0;
    std::unique_ptr<StandbyTimer> timer;
    timer = loop().makeStandbyTimer([&] {
        called_.push_back(1);
        firedLast = now();
        if (called_.size() < 3) timer->arm(milliseconds{10});
        if (called_.size() == 3) loop().terminate();
    });
    timer->arm(std::chrono::hours{1});
    timer->arm(milliseconds{10});  // the first call is moved
    loop().run();
    EXPECT_THAT(called_, testing::SizeIs(3));
    EXPECT_GE(firedLast, start + 30000);
}

TEST_P(RunLoopConformance, DoesNotFireAStandbyTimerThatWasDisarmedOrDestroyed) {
    const auto disarmed = loop().makeStandbyTimer([this] { called_.push_back(1); });
    disarmed->disarm();
    disarmed->arm(milliseconds{1});
    disarmed->disarm();
    auto destroyed = loop().makeStandbyTimer([this] { called_.push_back(2); });
    destroyed->arm(milliseconds{1});
    destroyed.reset();
    const auto kept = loop().makeStandbyTimer([this] { called_.push_back(3); });
    kept->arm(microseconds{0});
    runFor(milliseconds{20});
    EXPECT_THAT(called_, testing::ElementsAre(3));
}

TEST_P(RunLoopConformance, RepeatsFromThePlannedTime) {
    const std::uint64_t start = now();
    std::vector<std::uint64_t> firedAt;
    std::unique_ptr<Timer> timer;
    timer = loop().startTimer(milliseconds{40}, Repeat::every, [&] {
        firedAt.push_back(now());
        subject_->spend(milliseconds{35});
        if (firedAt.size() == 4) loop().terminate();
    });
    loop().run();
    ASSERT_EQ(firedAt.size(), 4U);
    // Drifting by the time each callback takes, the fourth would come 105 ms later than planned.
    EXPECT_GE(firedAt[3], start + 160000);
    EXPECT_LT(firedAt[3], start + 260000);
}

TEST_P(RunLoopConformance, SkipsTheFiringsThatItMissed) {
    std::vector<std::uint64_t> firedAt;
    std::unique_ptr<Timer> timer;
    timer = loop().startTimer(milliseconds{10}, Repeat::every, [&] {
        firedAt.push_back(now());
        if (firedAt.size() == 1) subject_->spend(milliseconds{35});
        if (firedAt.size() == 2) loop().terminate();
    });
    loop().run();
    ASSERT_EQ(firedAt.size(), 2U);
    // Planned at 20, 30 and 40 ms and missed, the next is that of 50 ms.
    EXPECT_GE(firedAt[1], firedAt[0] + 35000);
}

TEST_P(RunLoopConformance, CallsPostsInTheirOrderAndNotAtOnce) {
    for (int number = 0; number < 100; ++number) {
        loop().post([this, number] { called_.push_back(number); });
    }
    EXPECT_TRUE(called_.empty());
    loop().post([this] { loop().terminate(); });
    loop().run();
    ASSERT_EQ(called_.size(), 100U);
    EXPECT_TRUE(std::is_sorted(called_.begin(), called_.end()));
}

TEST_P(RunLoopConformance, CallsAPostOfACallbackLater) {
    loop().post([this] {
        loop().post([this] {
            called_.push_back(2);
            loop().terminate();
        });
        called_.push_back(1);
    });
    loop().run();
    EXPECT_THAT(called_, testing::ElementsAre(1, 2));
}

TEST_P(RunLoopConformance, CallsPostsOfOtherThreadsOnItsOwn) {
    const std::thread::id loopThread = std::this_thread::get_id();
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([this, loopThread] {
            for (int count = 0; count < 50; ++count) {
                loop().post([this, loopThread] {
                    called_.push_back(std::this_thread::get_id() == loopThread ? 1 : 0);
                });
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    loop().post([this] { loop().terminate(); });
    loop().run();
    EXPECT_THAT(called_, testing::AllOf(testing::SizeIs(200), testing::Each(1)));
}

TEST_P(RunLoopConformance, HasDoneTheBackgroundWorkWhenItReturns) {
    loop().post([this] {
        loop().runInBackgroundAndWait([this] { called_.push_back(1); });
        called_.push_back(2);
        loop().terminate();
    });
    loop().run();
    EXPECT_THAT(called_, testing::ElementsAre(1, 2));
}

TEST_P(RunLoopConformance, RethrowsAnExceptionOfTheBackgroundWork) {
    EXPECT_THROW(
        loop().runInBackgroundAndWait([] { throw std::out_of_range("from the background"); }),
        std::out_of_range);
}

TEST_P(RunLoopConformance, FiresATimerThatBackgroundWorkStartedOnItsOwnThread) {
    const std::thread::id loopThread = std::this_thread::get_id();
    std::unique_ptr<Timer> timer;
    loop().post([&] {
        loop().runInBackgroundAndWait([&] {
            timer = after(milliseconds{1}, [&] {
                called_.push_back(std::this_thread::get_id() == loopThread ? 1 : 0);
                loop().terminate();
            });
        });
    });
    loop().run();
    EXPECT_THAT(called_, testing::ElementsAre(1));
}

TEST_P(RunLoopConformance, TellsOnceThatItTerminatesHoweverOftenItIsAsked) {
    loop().setWillTerminate([this] {
        called_.push_back(1);
        loop().terminate();
    });
    loop().post([this] {
        loop().terminate();
        loop().terminate();
        // Not within the call, but at the next pass.
        EXPECT_TRUE(called_.empty());
    });
    loop().run();
    EXPECT_THAT(called_, testing::ElementsAre(1));
}

TEST_P(RunLoopConformance, CallsNothingBackAfterTerminating) {
    loop().setWillTerminate([this] { called_.push_back(1); });
    loop().setWillBecomeActive([this] { called_.push_back(2); });
    std::unique_ptr<Timer> timer;
    std::unique_ptr<Timer> repeating;
    loop().post([&] {
        timer = after(microseconds{0}, [this] { called_.push_back(3); });
        repeating =
            loop().startTimer(microseconds{1}, Repeat::every, [this] { called_.push_back(4); });
        loop().post([this] { called_.push_back(5); });
        subject_->becomeActive();
        loop().terminate();
    });
    loop().run();
    EXPECT_THAT(called_, testing::ElementsAre(1));
}

TEST_P(RunLoopConformance, TerminatesAtOnceWhenAskedBeforeItRuns) {
    loop().setWillTerminate([this] { called_.push_back(1); });
    const auto timer = after(microseconds{0}, [this] { called_.push_back(2); });
    loop().terminate();
    loop().run();
    EXPECT_THAT(called_, testing::ElementsAre(1));
}

TEST_P(RunLoopConformance, TellsThatTheApplicationBecomesActive) {
    loop().setWillBecomeActive([this] {
        called_.push_back(1);
        loop().terminate();
    });
    const auto limit = after(std::chrono::seconds{5}, [this] { loop().terminate(); });
    loop().post([this] { subject_->becomeActive(); });
    loop().run();
    EXPECT_THAT(called_, testing::ElementsAre(1));
}

}  // namespace korvane
