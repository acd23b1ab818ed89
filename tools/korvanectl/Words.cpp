#include "korvanectl/Words.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>
#include <string_view>

namespace korvane::ctl {

namespace {

using namespace std::chrono_literals;

// A file may hold dates that a Time cannot.
Time momentOf(PropertyListDate date) {
    return timeFromSecondsSince1970(static_cast<double>(date.time_since_epoch().count()));
}

std::string realWords(double value) {
    std::array<char, 32> digits;  // the shortest form of any double has at most 24 characters
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), value);
    return error == std::errc{} ? std::string(digits.data(), end) : std::string{"?"};
}

std::string arrayWords(const PropertyListArray& array) {
    if (array.empty()) {
        return "(none)";
    }
    std::string words;
    for (const PropertyList& element : array) {
        if (element.dictionary() != nullptr || element.array() != nullptr) {
            return fmt::format("({} {})", array.size(), array.size() == 1 ? "entry" : "entries");
        }
        words += (words.empty() ? "" : ", ") + valueWords(element);
    }
    return words;
}

// "%Y-%m-%d %H:%M:%S %z" back into a moment.
std::optional<Time> parseCalendarDate(std::string_view text) {
    // Where each number stands, and the characters between them.
    constexpr std::string_view pattern = "dddd-dd-dd dd:dd:dd sdddd";
    if (text.size() != pattern.size()) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        const bool sign = text[i] == '+' || text[i] == '-';
        const bool fits = pattern[i] == 'd'   ? digit
                          : pattern[i] == 's' ? sign
                                              : text[i] == pattern[i];
        if (!fits) {
            return std::nullopt;
        }
    }
    const auto number = [&](std::size_t from, std::size_t length) {
        int value = 0;
        std::from_chars(text.data() + from, text.data() + from + length, value);
        return value;
    };
    const std::chrono::year_month_day day{std::chrono::year{number(0, 4)},
                                          std::chrono::month{static_cast<unsigned>(number(5, 2))},
                                          std::chrono::day{static_cast<unsigned>(number(8, 2))}};
    if (!day.ok() || number(11, 2) > 23 || number(14, 2) > 59 || number(17, 2) > 60) {
        return std::nullopt;
    }
    const auto offset = std::chrono::hours{number(21, 2)} + std::chrono::minutes{number(23, 2)};
    return std::chrono::sys_days{day} + std::chrono::hours{number(11, 2)} +
           std::chrono::minutes{number(14, 2)} + std::chrono::seconds{number(17, 2)} -
           (text[20] == '-' ? -offset : offset);
}

}  // namespace

std::chrono::seconds stuckAfter(CheckKind kind) {
    switch (kind) {
        case CheckKind::usage:
            return 1min;
        case CheckKind::smart:
            return 10min;
        case CheckKind::directory:
            break;
    }
    return 12h;
}

CheckState checkState(CheckKind kind, EntryStatus status, Time due, Time now,
                      DaemonPresence daemon) {
    switch (status) {
        case kStatusNotExamined:
            return CheckState::notYetExamined;
        case kStatusWaiting:
            return CheckState::waiting;
        case kStatusRunning:
            return daemon == DaemonPresence::absent || now - due > stuckAfter(kind)
                       ? CheckState::stuck
                       : CheckState::running;
        case kStatusPassed:
            return CheckState::ok;
        case kStatusFailing:
            return CheckState::failing;
        case kStatusNotAvailable:
            return CheckState::notAvailable;
        default:
            return CheckState::unknown;
    }
}

std::string stateWords(CheckKind kind, CheckState state) {
    switch (state) {
        case CheckState::notYetExamined:
            return "not yet examined";
        case CheckState::waiting:
            return "waiting";
        case CheckState::running:
            return "running";
        case CheckState::stuck:
            return "stuck";
        case CheckState::ok:
            return "ok";
        case CheckState::notWatched:
            return "not watched";
        case CheckState::failing:
            return kind == CheckKind::usage ? "LOW SPACE" : "FAILING";
        case CheckState::notAvailable:
            return "not available";
        case CheckState::notChecked:
            return "not checked";
        case CheckState::unknown:
            break;
    }
    return "unknown";
}

std::string stateToken(CheckState state) {
    switch (state) {
        case CheckState::notYetExamined:
            return "notYetExamined";
        case CheckState::waiting:
            return "waiting";
        case CheckState::running:
            return "running";
        case CheckState::stuck:
            return "stuck";
        case CheckState::ok:
            return "ok";
        case CheckState::notWatched:
            return "notWatched";
        case CheckState::failing:
            return "failing";
        case CheckState::notAvailable:
            return "notAvailable";
        case CheckState::notChecked:
            return "notChecked";
        case CheckState::unknown:
            break;
    }
    return "unknown";
}

Tone stateTone(CheckState state) {
    switch (state) {
        case CheckState::ok:
            return Tone::good;
        case CheckState::failing:
        case CheckState::stuck:
        case CheckState::notChecked:
        case CheckState::unknown:
            return Tone::bad;
        case CheckState::notAvailable:
        case CheckState::notWatched:
            return Tone::faint;
        case CheckState::notYetExamined:
        case CheckState::waiting:
        case CheckState::running:
            break;
    }
    return Tone::plain;
}

std::string timeWords(Time time, Time now) {
    const bool today = formatLocalTime(time, "%Y-%m-%d") == formatLocalTime(now, "%Y-%m-%d");
    return formatLocalTime(time, today ? "%H:%M:%S" : "%Y-%m-%d %H:%M:%S");
}

std::string untilWords(Time time, Time now) {
    const RemainingTime left = remainingTime(time, now);
    if (left.isDue()) {
        return "now";
    }
    if (left.hours >= 48) {
        return fmt::format("in {} days", left.hours / 24);
    }
    if (left.hours > 0) {
        return left.minutes > 0 ? fmt::format("in {} h {} min", left.hours, left.minutes)
                                : fmt::format("in {} h", left.hours);
    }
    return left.minutes > 0 ? fmt::format("in {} min", left.minutes)
                            : fmt::format("in {} s", left.seconds);
}

std::string beyondIntervalWords() { return " (beyond its interval)"; }

std::string dueWords(Time due, bool isBeyondInterval, Time now) {
    const std::string until = untilWords(due, now);
    return until == "now" ? until
                          : fmt::format("{}, {}{}", timeWords(due, now), until,
                                        isBeyondInterval ? beyondIntervalWords() : "");
}

std::string sizeWords(double bytes) {
    constexpr std::array<std::string_view, 6> units{"kB", "MB", "GB", "TB", "PB", "EB"};
    if (!(bytes >= 0) || !std::isfinite(bytes)) {
        return "-";
    }
    if (bytes < 1000) {
        return fmt::format("{:.0f} bytes", bytes);
    }
    std::size_t unit = 0;
    double value = bytes / 1000;
    // What would be shown as 1000.0 is one of the next unit.
    while (value >= 999.95 && unit + 1 < units.size()) {
        value /= 1000;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string percentWords(double percent) {
    if (!std::isfinite(percent)) {
        return "-";
    }
    return fmt::format("{:.1f} %", std::floor(percent * 10) / 10);
}

std::string valueWords(const PropertyList& value) {
    if (const bool* const flag = value.boolean()) {
        return *flag ? "yes" : "no";
    }
    if (const std::int64_t* const integer = value.integer()) {
        return fmt::format("{}", *integer);
    }
    if (const std::uint64_t* const large = value.largeInteger()) {
        return fmt::format("{}", *large);
    }
    if (const double* const real = value.real()) {
        return realWords(*real);
    }
    if (const PropertyListDate* const date = value.date()) {
        return formatLocalTime(momentOf(*date), "%Y-%m-%d %H:%M:%S");
    }
    if (const PropertyListData* const data = value.data()) {
        return fmt::format("({} bytes)", data->size());
    }
    if (const PropertyListArray* const array = value.array()) {
        return arrayWords(*array);
    }
    if (const Dictionary* const dictionary = value.dictionary()) {
        return fmt::format("({} {})", dictionary->size(),
                           dictionary->size() == 1 ? "setting" : "settings");
    }
    return stringValue(&value);
}

std::optional<Time> loggedMoment(const PropertyList* calendarDate) {
    if (calendarDate == nullptr) {
        return std::nullopt;
    }
    if (const PropertyListDate* const date = calendarDate->date()) {
        return momentOf(*date);
    }
    if (const std::string* const text = calendarDate->string()) {
        return parseCalendarDate(*text);
    }
    return std::nullopt;
}

}  // namespace korvane::ctl
