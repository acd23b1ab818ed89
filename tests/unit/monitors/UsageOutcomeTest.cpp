#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "monitors/UsageOutcome.h"

namespace korvane {
namespace {

constexpr float kNotANumber = std::numeric_limits<float>::quiet_NaN();

FileSystemAttributes sizes(std::uint64_t size, std::uint64_t free) {
    return {.sizeBytes = size, .freeBytes = free, .number = 2049};
}

TEST(UsageMeasurement, IsMadeInSinglePrecision) {
    const UsageMeasurement measured = measureUsage(sizes(1'000'000'000'000, 96'000'000'001));
    EXPECT_EQ(measured.size, 1e12F);
    EXPECT_EQ(measured.freeSize, 9.6e10F);  // the last byte is lost
    EXPECT_EQ(measured.usedSize, 1e12F - 9.6e10F);
    EXPECT_EQ(measured.percentFree, 9.6e10F / 1e12F * 100.0F);
    EXPECT_EQ(measured.fileSystemNumber, 2049u);
}

TEST(UsageMeasurement, OfNothingIsNotANumber) {
    EXPECT_TRUE(std::isnan(measureUsage({}).percentFree));
}

TEST(UsageCheckLevel, IsLowOnlyBelowTheLevel) {
    const struct {
        std::int64_t level;
        float percentFree;
        bool low;
    } rows[] = {
        {10, 9.6F, true},  // shown as 10 and low all the same
        {10, 10.0F, false},
        {10, std::nextafter(10.0F, 0.0F), true},
        {10, 10.4F, false},
        {0, 0.0F, false},
        {-1, 0.0F, false},
        {100, 100.0F, false},
        {101, 100.0F, true},
        {10, kNotANumber, false},
        {std::numeric_limits<std::int64_t>::max(), 100.0F, true},
        {std::numeric_limits<std::int64_t>::min(), 0.0F, false},
        // Levels beyond 2^24 are rounded to what single precision holds.
        {16'777'217, 16'777'216.0F, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(isLow(row.level, row.percentFree), row.low)
            << row.level << " and " << row.percentFree;
    }
}

TEST(UsageCheckLevel, IsNotTestedWhileCheckingIsOff) {
    EXPECT_EQ(usageOutcome(false, 10, 1.0F), UsageOutcome::passed);
    EXPECT_EQ(usageOutcome(true, 10, 1.0F), UsageOutcome::failed);
    EXPECT_EQ(usageOutcome(true, 10, 10.0F), UsageOutcome::passed);
    EXPECT_EQ(usageOutcome(true, 10, kNotANumber), UsageOutcome::passed);
}

TEST(UsageLogEntry, KeepsSinglePrecisionWidened) {
    const Time now = timeFromSecondsSince1970(1'700'000'000);
    const Dictionary entry =
        usageLogEntry("Data", now, measureUsage(sizes(3, 1)), UsageOutcome::failed);
    const float percent = 1.0F / 3.0F * 100.0F;
    const Dictionary expected{
        {"displayName", "Data"},
        {"calendarDate", calendarDateDescription(now)},
        {"percentFree", double{percent}},
        {"fs_number", 2049},
        {"fs_size", 3.0},
        {"fs_freeSize", 1.0},
        {"fs_usedSize", 2.0},
        {"result", "failed"},
    };
    EXPECT_EQ(entry, expected);
    EXPECT_EQ(stringValue(usageLogEntry("Data", now, {}, UsageOutcome::passed).find("result")),
              "passed");
}

}  // namespace
}  // namespace korvane
