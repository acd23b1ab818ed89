#include "base/Calendar.h"

#include <langinfo.h>
#include <locale.h>
#include <time.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

namespace korvane {

namespace {

using Microseconds = std::chrono::microseconds;
// Wide enough for any sum of three products of 64-bit numbers below.
__extension__ using Wide = __int128;

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

Time heldInRange(Wide microseconds) {
    constexpr Wide kLowest = std::numeric_limits<std::int64_t>::min();
    constexpr Wide kHighest = std::numeric_limits<std::int64_t>::max();
    if (microseconds < kLowest) return Time::min();
    if (microseconds > kHighest) return Time::max();
    return Time(Microseconds(static_cast<std::int64_t>(microseconds)));
}

// The last whole second at or before the time. chrono's floor overflows near the ends of Time.
time_t wholeSecondsOf(Time time) {
    const std::int64_t microseconds = time.time_since_epoch().count();
    const std::int64_t cut = microseconds / kMicrosecondsPerSecond;
    return microseconds % kMicrosecondsPerSecond < 0 ? cut - 1 : cut;
}

tm localCalendar(time_t seconds) {
    // localtime_r alone would keep the zone that it met first; a daemon outlives zone changes.
    tzset();
    tm calendar{};
    // Fails only for years beyond int, which no Time reaches.
    (void)localtime_r(&seconds, &calendar);
    return calendar;
}

bool isSameWallClock(const tm& a, const tm& b) {
    return a.tm_hour == b.tm_hour && a.tm_min == b.tm_min && a.tm_sec == b.tm_sec &&
           a.tm_mday == b.tm_mday && a.tm_mon == b.tm_mon && a.tm_year == b.tm_year;
}

// The moment at which local clocks show the calendar's time. Where they show it twice, the one with
// the daylight-saving state that the calendar carries; where they skip it, as much after the gap as
// that state makes it. mktime left to guess would depend on the calls before.
std::optional<time_t> momentOf(const tm& wanted) {
    std::optional<time_t> fallback;
    const int own = wanted.tm_isdst > 0 ? 1 : 0;
    for (const int daylightSaving : {own, 1 - own}) {
        tm attempt = wanted;
        attempt.tm_isdst = daylightSaving;
        attempt.tm_wday = -1;  // Stays so when mktime fails; its result -1 is a moment, too.
        const time_t moment = mktime(&attempt);
        if (attempt.tm_wday == -1) continue;
        tm shown = localCalendar(moment);
        if (isSameWallClock(shown, wanted)) return moment;
        if (!fallback) fallback = moment;
    }
    return fallback;
}

}  // namespace

double secondsSince1970(Time time) {
    return static_cast<double>(time.time_since_epoch().count()) /
           static_cast<double>(kMicrosecondsPerSecond);
}

Time timeFromSecondsSince1970(double seconds) {
    if (std::isnan(seconds)) return Time{};
    const double microseconds = std::round(seconds * static_cast<double>(kMicrosecondsPerSecond));
    constexpr double kEnd = 9223372036854775808.0;  // 2^63, the first double out of range.
    if (microseconds >= kEnd) return Time::max();
    if (microseconds < -kEnd) return Time::min();
    return Time(Microseconds(static_cast<std::int64_t>(microseconds)));
}

RemainingTime remainingTime(Time due, Time now) {
    const Wide difference =
        Wide{due.time_since_epoch().count()} - Wide{now.time_since_epoch().count()};
    const auto seconds = static_cast<long long>(difference / kMicrosecondsPerSecond);
    return {seconds / 3600, static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60)};
}

Time addInterval(Time start, const CheckInterval& interval) {
    const Wide seconds =
        Wide{interval.hours} * 3600 + Wide{interval.minutes} * 60 + Wide{interval.seconds};
    return heldInRange(Wide{start.time_since_epoch().count()} + seconds * kMicrosecondsPerSecond);
}

Time addDays(Time start, long long days) {
    // More days than lie between the two ends of Time.
    constexpr long long kMostDays = 220'000'000;
    if (days >= kMostDays) return Time::max();
    if (days <= -kMostDays) return Time::min();
    const time_t wholeSeconds = wholeSecondsOf(start);
    const tm today = localCalendar(wholeSeconds);
    // Noon of the day in question tells its date; mktime takes a day of the month of any size.
    tm wanted = today;
    wanted.tm_mday += static_cast<int>(days);
    tm normalized = wanted;
    normalized.tm_hour = 12;
    normalized.tm_isdst = -1;
    normalized.tm_wday = -1;
    (void)mktime(&normalized);
    const Time end = days < 0 ? Time::min() : Time::max();
    if (normalized.tm_wday == -1) return end;
    wanted.tm_mday = normalized.tm_mday;
    wanted.tm_mon = normalized.tm_mon;
    wanted.tm_year = normalized.tm_year;
    const auto moment = momentOf(wanted);
    if (!moment) return end;
    return heldInRange(Wide{start.time_since_epoch().count()} +
                       (Wide{*moment} - Wide{wholeSeconds}) * kMicrosecondsPerSecond);
}

std::string formatLocalTime(Time time, std::string_view format) {
    static const locale_t english = newlocale(LC_ALL_MASK, "C", nullptr);
    const tm calendar = localCalendar(wholeSecondsOf(time));
    // The full stop, taken off again, tells an empty result from a buffer that is too small.
    const std::string marked = std::string(format) + '.';
    // Formats may ask for any width; beyond this a text is of no use to anybody.
    constexpr std::size_t kLongest = 64 * 1024;
    for (std::string text(256, '\0'); text.size() <= kLongest; text.resize(text.size() * 4)) {
        const std::size_t length =
            strftime_l(text.data(), text.size(), marked.c_str(), &calendar, english);
        if (length == 0) continue;
        text.resize(length - 1);
        return text;
    }
    return {};
}

std::string shortDateAndTime(Time time) {
    const locale_t users = newlocale(LC_TIME_MASK | LC_CTYPE_MASK, "", nullptr);
    if (users == locale_t{}) return formatLocalTime(time, "%x %H:%M");
    const tm calendar = localCalendar(wholeSecondsOf(time));
    // Whether the locale's clock counts to twelve: its format of a time then names the half of day.
    const std::string_view clock = nl_langinfo_l(T_FMT, users);
    const bool isTwelveHours =
        clock.find("%r") != std::string_view::npos || clock.find("%p") != std::string_view::npos;
    std::array<char, 128> text{};
    const std::size_t length = strftime_l(
        text.data(), text.size(), isTwelveHours ? "%x %I:%M %p" : "%x %H:%M", &calendar, users);
    freelocale(users);
    return std::string(text.data(), length);
}

std::string calendarDateDescription(Time time) {
    return formatLocalTime(time, "%Y-%m-%d %H:%M:%S %z");
}

}  // namespace korvane
