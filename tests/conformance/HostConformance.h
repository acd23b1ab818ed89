// What every host promises.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "conformance/Implementation.h"
#include "platform/Host.h"

namespace korvane {

class HostConformance : public testing::TestWithParam<Implementation<Host>> {};

TEST_P(HostConformance, HasAVersionThatStays) {
    const auto host = GetParam().make();
    const SystemVersion version = host->systemVersion();
    EXPECT_GE(version.major, 1);
    EXPECT_GE(version.minor, 0);
    EXPECT_GE(version.bugFix, 0);
    const SystemVersion again = host->systemVersion();
    EXPECT_EQ(again.major, version.major);
    EXPECT_EQ(again.minor, version.minor);
    EXPECT_EQ(again.bugFix, version.bugFix);
}

}  // namespace korvane
