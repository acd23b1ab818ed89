// What all power sources promise.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "conformance/Implementation.h"
#include "platform/PowerSources.h"

namespace korvane {

class PowerSourcesSubject {
  public:
    virtual ~PowerSourcesSubject() = default;
    virtual PowerSources& powerSources() = 0;
    // The machine is one without power-source information, or with one battery that feeds it or
    // is charged from the mains.
    virtual void setNone() = 0;
    virtual void setOnBattery() = 0;
    virtual void setOnMains() = 0;
};

class PowerSourcesConformance : public testing::TestWithParam<Implementation<PowerSourcesSubject>> {
  protected:
    PowerSourcesConformance() : subject_(GetParam().make()) {}

    std::unique_ptr<PowerSourcesSubject> subject_;
};

TEST_P(PowerSourcesConformance, SayNothingOnAMachineWithoutThem) {
    subject_->setNone();
    EXPECT_FALSE(subject_->powerSources().states());
}

TEST_P(PowerSourcesConformance, FollowTheCord) {
    using testing::Each;
    using testing::IsEmpty;
    using testing::Not;
    using testing::Optional;
    subject_->setOnMains();
    EXPECT_THAT(subject_->powerSources().states(),
                Optional(AllOf(Not(IsEmpty()), Each(kPowerSourceOnMains))));
    subject_->setOnBattery();
    EXPECT_THAT(subject_->powerSources().states(),
                Optional(testing::Contains(kPowerSourceOnBattery)));
    subject_->setOnMains();
    EXPECT_THAT(subject_->powerSources().states(),
                Optional(AllOf(Not(IsEmpty()), Each(kPowerSourceOnMains))));
}

}  // namespace korvane
