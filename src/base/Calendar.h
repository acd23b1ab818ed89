// Calendar arithmetic and date formats. Hours, minutes and seconds are absolute time; days are days
// of the wall clock in the local zone. No locale but where a function says so.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace korvane {

// Wall-clock time. Stored as seconds since 1970 in a double where a record asks for that.
using Time = std::chrono::sys_time<std::chrono::microseconds>;

[[nodiscard]] double secondsSince1970(Time time);
// Out-of-range and not-a-number values are held at the ends of the range (not-a-number: 1970).
[[nodiscard]] Time timeFromSecondsSince1970(double seconds);

// A due time minus now in whole hours, minutes and seconds, all of one sign, cut toward zero.
struct RemainingTime {
    long long hours = 0;
    int minutes = 0;
    int seconds = 0;

    // Less than one whole second remains, or the time has passed.
    [[nodiscard]] bool isDue() const { return hours < 1 && minutes < 1 && seconds < 1; }
    [[nodiscard]] double totalSeconds() const {
        return static_cast<double>(hours) * 3600 + minutes * 60 + seconds;
    }
};
[[nodiscard]] RemainingTime remainingTime(Time due, Time now);

// An interval as entries store it, in three parts that may each be of any size and sign. Sums that
// leave the range of Time are held at its ends.
struct CheckInterval {
    long long hours = 0;
    long long minutes = 0;
    long long seconds = 0;
};
[[nodiscard]] Time addInterval(Time start, const CheckInterval& interval);
// The same wall-clock time `days` days later in the local zone.
[[nodiscard]] Time addDays(Time start, long long days);

// strftime's conversions (%Y %m %d %H %M %S %z %a %b and the like) in the local zone, with English
// names whatever the locale.
[[nodiscard]] std::string formatLocalTime(Time time, std::string_view format);

// Date and time in the short styles of the process's locale (LC_TIME of the environment), without
// seconds, in the local zone.
[[nodiscard]] std::string shortDateAndTime(Time time);

// "%Y-%m-%d %H:%M:%S %z": how a calendar date describes itself.
[[nodiscard]] std::string calendarDateDescription(Time time);

}  // namespace korvane
