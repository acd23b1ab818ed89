#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <limits>
#include <optional>
#include <string>

#include "base/Calendar.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

constexpr long long kMost = std::numeric_limits<long long>::max();
constexpr long long kLeast = std::numeric_limits<long long>::min();

// The local zone for one test. Berlin's clocks went from 02:00 to 03:00 on 2024-03-31 and from
// 03:00 back to 02:00 on 2024-10-27, both at 01:00 UTC.
class InZone {
  public:
    explicit InZone(const char* name) {
        const char* former = getenv("TZ");
        if (former != nullptr) former_ = former;
        setenv("TZ", name, 1);
    }
    InZone(const InZone&) = delete;
    InZone& operator=(const InZone&) = delete;
    ~InZone() {
        if (former_) {
            setenv("TZ", former_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
    }

  private:
    std::optional<std::string> former_;
};

Time utc(int year, unsigned month, unsigned day, int hour, int minute, int second = 0) {
    return std::chrono::sys_days(std::chrono::year_month_day(
               std::chrono::year(year), std::chrono::month(month), std::chrono::day(day))) +
           hours(hour) + minutes(minute) + seconds(second);
}

TEST(Time, GoesThroughSecondsSince1970AndBack) {
    for (const Time time :
         {Time{}, utc(2024, 5, 6, 7, 8, 9) + microseconds(123456),
          utc(1969, 12, 31, 23, 59, 59) + microseconds(1), utc(2200, 1, 1, 0, 0)}) {
        EXPECT_EQ(timeFromSecondsSince1970(secondsSince1970(time)), time);
    }
    EXPECT_DOUBLE_EQ(secondsSince1970(Time(milliseconds(-1500))), -1.5);
}

TEST(Time, IsHeldWithinItsRange) {
    EXPECT_EQ(timeFromSecondsSince1970(1e300), Time::max());
    EXPECT_EQ(timeFromSecondsSince1970(-1e300), Time::min());
    EXPECT_EQ(timeFromSecondsSince1970(std::numeric_limits<double>::infinity()), Time::max());
    EXPECT_EQ(timeFromSecondsSince1970(-std::numeric_limits<double>::infinity()), Time::min());
    EXPECT_EQ(timeFromSecondsSince1970(9223372036854.775807), Time::max());
    EXPECT_EQ(timeFromSecondsSince1970(std::nan("")), Time{});
}

TEST(RemainingTime, IsCutTowardZeroAndAllOfOneSign) {
    const struct {
        microseconds ahead;
        long long hours;
        int minutes;
        int seconds;
        bool isDue;
    } rows[] = {
        {seconds(0), 0, 0, 0, true},
        {milliseconds(500), 0, 0, 0, true},
        {milliseconds(999), 0, 0, 0, true},
        {seconds(1), 0, 0, 1, false},
        {milliseconds(1999), 0, 0, 1, false},
        {seconds(60), 0, 1, 0, false},
        {hours(2) + seconds(30), 2, 0, 30, false},
        {hours(25) + minutes(59) + milliseconds(59'999), 25, 59, 59, false},
        {milliseconds(-500), 0, 0, 0, true},
        {milliseconds(-1500), 0, 0, -1, true},
        {-(hours(2) + minutes(3) + milliseconds(4500)), -2, -3, -4, true},
        {-(hours(1) + seconds(1)), -1, 0, -1, true},
    };
    const Time now = utc(2024, 5, 6, 7, 8, 9);
    for (const auto& row : rows) {
        const RemainingTime remaining = remainingTime(now + row.ahead, now);
        EXPECT_EQ(remaining.hours, row.hours) << row.ahead.count();
        EXPECT_EQ(remaining.minutes, row.minutes) << row.ahead.count();
        EXPECT_EQ(remaining.seconds, row.seconds) << row.ahead.count();
        EXPECT_EQ(remaining.isDue(), row.isDue) << row.ahead.count();
    }
    EXPECT_DOUBLE_EQ(remainingTime(now + milliseconds(90'700), now).totalSeconds(), 90);
    EXPECT_DOUBLE_EQ(remainingTime(now - milliseconds(90'700), now).totalSeconds(), -90);
}

TEST(RemainingTime, TakesTheWholeRange) {
    EXPECT_FALSE(remainingTime(Time::max(), Time::min()).isDue());
    EXPECT_TRUE(remainingTime(Time::min(), Time::max()).isDue());
    EXPECT_EQ(remainingTime(Time::max(), Time::min()).hours, 5'124'095'576LL);
}

TEST(AddInterval, CountsAbsoluteTime) {
    const InZone zone("Europe/Berlin");
    const Time before = utc(2024, 3, 31, 0, 30);  // Half an hour before the clocks skip one.
    EXPECT_EQ(addInterval(before, {.hours = 24}), utc(2024, 4, 1, 0, 30));
    EXPECT_EQ(addInterval(before, {.hours = 1, .minutes = -90, .seconds = 61}),
              utc(2024, 3, 31, 0, 1, 1));
}

TEST(AddInterval, HoldsHugeSumsAtTheEnds) {
    const Time now = utc(2024, 5, 6, 7, 8, 9);
    EXPECT_EQ(addInterval(now, {.hours = kMost, .minutes = kMost, .seconds = kMost}), Time::max());
    EXPECT_EQ(addInterval(now, {.hours = kLeast, .minutes = kLeast, .seconds = kLeast}),
              Time::min());
    EXPECT_EQ(addInterval(now, {.seconds = kMost}), Time::max());
    EXPECT_EQ(addInterval(now, {.minutes = kLeast}), Time::min());
    // Parts that cancel each other out leave what remains, however large they are.
    EXPECT_EQ(addInterval(now, {.hours = kMost / 60, .minutes = -(kMost / 60) * 60, .seconds = 5}),
              now + seconds(5));
    EXPECT_EQ(addInterval(Time::max(), {.seconds = 1}), Time::max());
}

TEST(AddDays, KeepsTheWallClock) {
    const InZone zone("Europe/Berlin");
    // 12:00 in winter and 12:00 in summer are 23 hours apart, and 25 in autumn.
    EXPECT_EQ(addDays(utc(2024, 3, 30, 11, 0), 1), utc(2024, 3, 31, 10, 0));
    EXPECT_EQ(addDays(utc(2024, 10, 26, 10, 0), 1), utc(2024, 10, 27, 11, 0));
    EXPECT_EQ(addDays(utc(2024, 10, 27, 11, 0), -1), utc(2024, 10, 26, 10, 0));
    EXPECT_EQ(addDays(utc(2024, 1, 15, 11, 0) + microseconds(7), 182),
              utc(2024, 7, 15, 10, 0) + microseconds(7));
    EXPECT_EQ(addDays(utc(2024, 2, 28, 11, 0), 1), utc(2024, 2, 29, 11, 0));
    EXPECT_EQ(addDays(utc(2023, 12, 31, 22, 59), 1), utc(2024, 1, 1, 22, 59));
}

TEST(AddDays, FindsAMomentWhereTheClocksSkipOrRepeatTheHour) {
    const InZone zone("Europe/Berlin");
    // 02:30 does not exist on the 31st: half an hour after the gap's beginning it is 03:30.
    EXPECT_EQ(addDays(utc(2024, 3, 30, 1, 30), 1), utc(2024, 3, 31, 1, 30));
    // 02:30 comes twice on the 27th: from the summer side it is the first, from the winter side
    // the second.
    EXPECT_EQ(addDays(utc(2024, 10, 26, 0, 30), 1), utc(2024, 10, 27, 0, 30));
    EXPECT_EQ(addDays(utc(2024, 10, 28, 1, 30), -1), utc(2024, 10, 27, 1, 30));
}

TEST(AddDays, GivesTheSameWhateverWasAskedBefore) {
    const InZone zone("Europe/Berlin");
    for (int days = -400; days <= 400; ++days) {
        (void)addDays(utc(2024, 6, 1, 0, 30), days);
        ASSERT_EQ(addDays(utc(2024, 10, 26, 0, 30), 1), utc(2024, 10, 27, 0, 30)) << days;
    }
}

TEST(AddDays, HoldsHugeSumsAtTheEnds) {
    const Time now = utc(2024, 5, 6, 7, 8, 9);
    EXPECT_EQ(addDays(now, kMost), Time::max());
    EXPECT_EQ(addDays(now, kLeast), Time::min());
    EXPECT_EQ(addDays(now, 200'000'000), Time::max());
    EXPECT_EQ(addDays(now, -200'000'000), Time::min());
    EXPECT_EQ(addDays(Time::max(), 1), Time::max());
    EXPECT_EQ(addDays(Time::min(), -1), Time::min());
}

TEST(FormatLocalTime, ShowsTheLocalZone) {
    const InZone zone("Europe/Berlin");
    EXPECT_EQ(calendarDateDescription(utc(2024, 1, 2, 3, 4, 5)), "2024-01-02 04:04:05 +0100");
    EXPECT_EQ(calendarDateDescription(utc(2024, 7, 2, 3, 4, 5)), "2024-07-02 05:04:05 +0200");
    EXPECT_EQ(formatLocalTime(Time(microseconds(-1)), "%Y %H:%M:%S"), "1970 00:59:59");
    EXPECT_EQ(formatLocalTime(utc(2024, 3, 1, 12, 0), "%a %b %d"), "Fri Mar 01");
}

TEST(FormatLocalTime, FollowsAZoneThatChanges) {
    const Time time = utc(2024, 1, 2, 3, 4, 5);
    {
        const InZone zone("Europe/Berlin");
        EXPECT_EQ(formatLocalTime(time, "%z"), "+0100");
    }
    const InZone zone("Asia/Kolkata");
    EXPECT_EQ(formatLocalTime(time, "%z"), "+0530");
}

TEST(FormatLocalTime, TakesAnyFormat) {
    const Time time = utc(2024, 1, 2, 3, 4, 5);
    EXPECT_EQ(formatLocalTime(time, ""), "");
    EXPECT_EQ(formatLocalTime(time, "%%"), "%");
    EXPECT_EQ(formatLocalTime(time, std::string(1000, 'x')), std::string(1000, 'x'));
    EXPECT_EQ(formatLocalTime(time, "%1000000d"), "");
    EXPECT_FALSE(formatLocalTime(time, "%").empty());
    EXPECT_FALSE(formatLocalTime(Time::max(), "%Y").empty());
    EXPECT_FALSE(formatLocalTime(Time::min(), "%c").empty());
}

}  // namespace
}  // namespace korvane
