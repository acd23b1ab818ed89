#include <gtest/gtest.h>

#include "core/SystemVersion.h"
#include "platform/simulated/SimulatedHost.h"

namespace korvane {
namespace {

constexpr auto kAscending = ComparisonResult::ascending;
constexpr auto kSame = ComparisonResult::same;
constexpr auto kDescending = ComparisonResult::descending;

TEST(SystemVersion, ComparesRunsOfDigitsAsNumbers) {
    const struct {
        const char* left;
        const char* right;
        ComparisonResult result;
    } rows[] = {
        {"10.10.0", "10.7", kDescending},
        {"10.6.8", "10.7", kAscending},
        {"10.7.0", "10.7", kDescending},  // the longer text comes after its beginning
        {"10.7", "10.7.0", kAscending},
        {"10.7", "10.7", kSame},
        {"10.07", "10.7", kSame},
        {"9.9", "10.0", kAscending},
        {"11.0.0", "10.7", kDescending},
        {"", "", kSame},
        {"", "1", kAscending},
        {"1", "", kDescending},
        {"a", "b", kAscending},
        {"1.a", "1.1", kDescending},
        {"0", "00", kSame},
        {"18446744073709551617", "18446744073709551616", kDescending},
        {"00000000000000000000000000000000000001", "2", kAscending},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(compareNumerically(row.left, row.right), row.result)
            << row.left << " and " << row.right;
    }
}

TEST(SystemVersion, LettersAndBlanksAroundTheGivenVersionDoNotCount) {
    EXPECT_EQ(withoutLettersAndBlanks("Mac OS X 10.6 "), "10.6");
    EXPECT_EQ(withoutLettersAndBlanks("\t10.7beta"), "10.7");
    EXPECT_EQ(withoutLettersAndBlanks("10.7 and 10.8"), "10.7 and 10.8");
    EXPECT_EQ(withoutLettersAndBlanks("Tiger"), "");
    EXPECT_EQ(withoutLettersAndBlanks(""), "");
}

TEST(SystemVersion, IsThreeNumbersJoinedByPoints) {
    SimulatedHost host({10, 6, 8});
    EXPECT_EQ(QLGetCurrentSystemString(host), "10.6.8");
}

TEST(SystemVersion, ComparesTheRunningSystemWithTheGivenVersion) {
    SimulatedHost snow({10, 6, 0});
    EXPECT_EQ(QLCompareCurrentSystemVersionWith(snow, "Mac OS X 10.6 "), kDescending);
    EXPECT_EQ(QLCompareCurrentSystemVersionWith(snow, "10.6.0"), kSame);
    EXPECT_EQ(QLCompareCurrentSystemVersionWith(snow, "10.7"), kAscending);
    SimulatedHost yosemite({10, 10, 0});
    EXPECT_EQ(QLCompareCurrentSystemVersionWith(yosemite, "10.7"), kDescending);
}

TEST(SystemVersion, IsTheSameAsTheEmptyText) {
    SimulatedHost host({10, 6, 0});
    EXPECT_EQ(QLCompareCurrentSystemVersionWith(host, ""), kSame);
    // Only the text as given counts as empty, not what is left of it.
    EXPECT_EQ(QLCompareCurrentSystemVersionWith(host, "Tiger"), kDescending);
}

}  // namespace
}  // namespace korvane
