// What every clock promises.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "conformance/Implementation.h"
#include "platform/Clock.h"

namespace korvane {

class ClockSubject {
  public:
    virtual ~ClockSubject() = default;
    virtual Clock& clock() = 0;
    // At least so much time goes by.
    virtual void spend(std::chrono::microseconds duration) = 0;
};

class ClockConformance : public testing::TestWithParam<Implementation<ClockSubject>> {
  protected:
    ClockConformance() : subject_(GetParam().make()) {}

    std::unique_ptr<ClockSubject> subject_;
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

}  // namespace korvane
