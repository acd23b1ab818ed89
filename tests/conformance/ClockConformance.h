// What every clock promises.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <vector>

#include "conformance/Implementation.h"
#include "platform/Clock.h"
#include "platform/RunLoop.h"

namespace korvane {

class ClockSubject {
  public:
    virtual ~ClockSubject() = default;
    virtual Clock& clock() = 0;
    // At least so much time goes by.
    virtual void spend(std::chrono::microseconds duration) = 0;
    // The loop on which a step is reported.
    virtual RunLoop& loop() = 0;
    // Somebody sets the wall clock.
    virtual void step(std::chrono::microseconds offset) = 0;
};

class ClockConformance : public testing::TestWithParam<Implementation<ClockSubject>> {
  protected:
    ClockConformance() : subject_(GetParam().make()) {}

    // The steps that are reported while the loop runs for a moment.
    std::vector<std::chrono::microseconds> reported() {
        std::vector<std::chrono::microseconds> steps;
        subject_->clock().setDidStep([&steps](auto step) { steps.push_back(step); });
        RunLoop& loop = subject_->loop();
        const auto set = loop.startTimer(std::chrono::milliseconds{1}, Repeat::once, [this] {
            for (const auto offset : offsets_) subject_->step(offset);
        });
        const auto end = loop.startTimer(std::chrono::milliseconds{50}, Repeat::once,
                                         [&loop] { loop.terminate(); });
        loop.run();
        subject_->clock().setDidStep(nullptr);
        return steps;
    }

    std::unique_ptr<ClockSubject> subject_;
    std::vector<std::chrono::microseconds> offsets_;
};

TEST_P(ClockConformance, CountsTheTimeSinceBootInMicroseconds) {
    const std::uint64_t before = subject_->clock().microsecondsSinceBoot();
    subject_->spend(std::chrono::milliseconds{20});
    const std::uint64_t after = subject_->clock().microsecondsSinceBoot();
    EXPECT_GE(after, before + 20000);
    EXPECT_LT(after, before + 10000000);
}

TEST_P(ClockConformance, NeverGoesBackSinceBoot) {
    std::uint64_t last = subject_->clock().microsecondsSinceBoot();
    for (int asking = 0; asking < 1000; ++asking) {
        const std::uint64_t now = subject_->clock().microsecondsSinceBoot();
        ASSERT_GE(now, last);
        last = now;
    }
}

TEST_P(ClockConformance, TellsTheTimeOfDay) {
    const Time before = subject_->clock().now();
    EXPECT_GT(before, Time{std::chrono::sys_days{std::chrono::year{2020} / 1 / 1}});
    subject_->spend(std::chrono::milliseconds{20});
    EXPECT_GE(subject_->clock().now(), before + std::chrono::milliseconds{19});
}

TEST_P(ClockConformance, ReportsHowFarItWasSet) {
    for (const auto offset : {std::chrono::hours{-30 * 24}, std::chrono::hours{1}}) {
        subject_ = GetParam().make();
        offsets_ = {offset};
        const auto steps = reported();
        ASSERT_EQ(steps.size(), 1U);
        EXPECT_LT(std::chrono::abs(steps[0] - offset), std::chrono::milliseconds{500});
    }
}

TEST_P(ClockConformance, ReportsNothingOfTimeThatGoesBy) {
    EXPECT_THAT(reported(), testing::IsEmpty());
}

TEST_P(ClockConformance, SumsUpStepsOfLessThanASecond) {
    offsets_ = {std::chrono::milliseconds{400}};
    EXPECT_THAT(reported(), testing::IsEmpty());
    subject_ = GetParam().make();
    offsets_.assign(3, std::chrono::milliseconds{-400});
    const auto steps = reported();
    ASSERT_EQ(steps.size(), 1U);
    EXPECT_LT(std::chrono::abs(steps[0] + std::chrono::milliseconds{1200}),
              std::chrono::milliseconds{300});
}

TEST_P(ClockConformance, ReportsNothingFromBeforeItWasAsked) {
    subject_->step(std::chrono::hours{-2});
    EXPECT_THAT(reported(), testing::IsEmpty());
}

}  // namespace korvane
