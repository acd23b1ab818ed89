#include "korvanectl/SettingRules.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>

#include "core/DefaultPreferences.h"
#include "korvanectl/Text.h"
#include "korvanectl/Utf8.h"
#include "storage/EntryFields.h"

namespace korvane::ctl {

namespace {

// More log entries than a log that is rewritten with each check can well hold.
constexpr std::int64_t kMostLogEntries = 10000;
// A hundred years: more than anybody waits, and far from where days and seconds overflow.
constexpr std::int64_t kMostDays = 36500;
constexpr std::int64_t kMostHours = kMostDays * 24;
constexpr std::int64_t kMostMinutes = kMostHours * 60;
constexpr std::int64_t kMostSeconds = kMostMinutes * 60;
// 31 December 9999, 23:59:59 UTC: the last moment that date formats with four-digit years know.
constexpr double kLastMoment = 253402300799.0;

constexpr std::string_view kEncoded =
    "it is stored in an encoded form that cannot be typed; \"\" clears it";
constexpr std::string_view kStatus = "is the daemon's own record; a stuck one is set back by reset";
constexpr std::string_view kIdentity = "tells the daemon which one the entry is about";
constexpr std::string_view kMeasured = "is what the daemon found on the machine";
constexpr std::string_view kEntries =
    "holds the entries; edit one with: korvanectl volume NAME set KEY VALUE";

using enum SettingKind;

constexpr std::array kPreferenceRules{
    SettingRule{kDaemonOn, flag},
    SettingRule{"protectionUpdated", flag},
    SettingRule{"showProtection", flag},
    SettingRule{"SMARTCheckEmail", flag},
    SettingRule{"volumeUsageEmail", flag},
    SettingRule{"emailEnabled", flag},
    SettingRule{"emailUseAuthentication", flag},
    SettingRule{"emailUseSSLAuthentication", flag},
    SettingRule{"emailSubject", text},
    SettingRule{"emailAddress", mailRecipients},
    SettingRule{"emailPort", mailPort},
    SettingRule{"emailServer", text},
    SettingRule{"emailUserName", encodedText, 0, 0, kEncoded},
    SettingRule{"emailPassword", encodedText, 0, 0, kEncoded},
    SettingRule{"trashHistoryOnOff", flag},
    SettingRule{"trashSaveDays", wholeNumber, 0, kMostDays},
    SettingRule{kVolumeUsageOnOff, flag},
    SettingRule{kUsageEntryLimit, wholeNumber, 0, kMostLogEntries},
    SettingRule{kDirectoryBackupOnOff, flag},
    SettingRule{"directoryFilesToSave", wholeNumber, 0, kMostLogEntries},
    SettingRule{kSmartCheckOnOff, flag},
    SettingRule{"smartEntryLimit", wholeNumber, 0, kMostLogEntries},
    SettingRule{kDirectoryBackupLocations, locations},
    SettingRule{kDriveArray, untouchable, 0, 0, kEntries},
    SettingRule{kVolumeArray, untouchable, 0, 0, kEntries},
};

constexpr std::array kVolumeRules{
    SettingRule{"volumeMountToName", untouchable, 0, 0, kIdentity},
    SettingRule{"volumeOnOff", flag},
    SettingRule{"directoryOnOff", flag},
    SettingRule{"trashOnOff", flag},
    SettingRule{"isCoreStorageEncrypted", untouchable, 0, 0, kMeasured},
    SettingRule{"freeSpaceWarningLevel", wholeNumber, 0, 100},
    SettingRule{kUsageKeys.status, untouchable, 0, 0, kStatus},
    SettingRule{kUsageKeys.intervalHours, wholeNumber, 0, kMostHours},
    SettingRule{kUsageKeys.intervalMinutes, wholeNumber, 0, kMostMinutes},
    SettingRule{kUsageKeys.intervalSeconds, wholeNumber, 0, kMostSeconds},
    SettingRule{kUsageKeys.executionTime, moment},
    SettingRule{kDirectoryKeys.status, untouchable, 0, 0, kStatus},
    SettingRule{kDirectoryKeys.intervalHours, wholeNumber, 0, kMostHours},
    SettingRule{kDirectoryKeys.intervalMinutes, wholeNumber, 0, kMostMinutes},
    SettingRule{kDirectoryKeys.intervalSeconds, wholeNumber, 0, kMostSeconds},
    SettingRule{kDirectoryKeys.executionTime, moment},
};

constexpr std::array kDriveRules{
    SettingRule{"driveModel", untouchable, 0, 0, kIdentity},
    SettingRule{"driveSerial", untouchable, 0, 0, kIdentity},
    SettingRule{"driveChecked", untouchable, 0, 0, kMeasured},
    SettingRule{"smartOnOff", flag},
    SettingRule{kSmartKeys.status, untouchable, 0, 0, kStatus},
    SettingRule{kSmartKeys.intervalHours, wholeNumber, 0, kMostHours},
    SettingRule{kSmartKeys.intervalMinutes, wholeNumber, 0, kMostMinutes},
    SettingRule{kSmartKeys.intervalSeconds, wholeNumber, 0, kMostSeconds},
    SettingRule{kSmartKeys.executionTime, moment},
};

Error unexpected(std::string_view word, std::string_view expected) {
    return {fmt::format("\"{}\" is not {}", printable(word), expected)};
}

// A whole decimal number and nothing else; a plus sign is nobody's habit.
template <typename Number>
std::optional<Number> parseNumber(std::string_view word) {
    Number number{};
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc{} || end != word.data() + word.size()) {
        return std::nullopt;
    }
    return number;
}

Result<PropertyList> typedFlag(const std::string& word) {
    std::string lower = word;
    std::ranges::transform(lower, lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    for (const std::string_view yes : {"yes", "on", "true", "1"}) {
        if (lower == yes) {
            return PropertyList{true};
        }
    }
    for (const std::string_view no : {"no", "off", "false", "0"}) {
        if (lower == no) {
            return PropertyList{false};
        }
    }
    return unexpected(word, "yes or no");
}

Result<PropertyList> typedWholeNumber(const SettingRule& rule, const std::string& word) {
    const auto number = parseNumber<std::int64_t>(word);
    if (!number || *number < rule.least || *number > rule.most) {
        const bool bounded = rule.most != std::numeric_limits<std::int64_t>::max();
        return unexpected(
            word, bounded ? fmt::format("a whole number from {} to {}", rule.least, rule.most)
                          : std::string{"a whole number"});
    }
    return PropertyList{*number};
}

Result<PropertyList> typedRealNumber(const std::string& word) {
    const auto number = parseNumber<double>(word);
    if (!number || !std::isfinite(*number)) {
        return unexpected(word, "a number");
    }
    return PropertyList{*number};
}

Result<PropertyList> typedMoment(const std::string& word) {
    const auto seconds = parseNumber<double>(word);
    if (!seconds || !std::isfinite(*seconds) || *seconds < 0 || *seconds > kLastMoment) {
        return unexpected(word, "a number of seconds since 1970, such as 1767225600");
    }
    return PropertyList{*seconds};
}

// Line breaks would end a header of a mail or a line of a log; the rest of the control characters
// the file cannot carry.
bool isOneLine(std::string_view word) {
    while (!word.empty()) {
        const auto [code, length] = firstUtf8Character(word);
        // U+2028 and U+2029 separate lines; U+FFFE and U+FFFF are no characters to XML 1.0.
        if (length == 0 || code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x2028 ||
            code == 0x2029 || code == 0xFFFE || code == 0xFFFF) {
            return false;
        }
        word.remove_prefix(length);
    }
    return true;
}

Result<PropertyList> typedText(const std::string& word) {
    if (!isOneLine(word)) {
        return unexpected(word, "one line of text without control characters");
    }
    return PropertyList{word};
}

Result<PropertyList> typedMailPort(const std::string& word) {
    const auto port = parseNumber<std::uint16_t>(word);
    if (!word.empty() && (!port || *port == 0 || word.front() == '0')) {
        return unexpected(word, "a port number from 1 to 65535, or \"\" for none");
    }
    return PropertyList{word};
}

// The daemon takes the blanks out and splits at the commas; it would send to each piece, an empty
// one too.
Result<PropertyList> typedMailRecipients(const std::string& word) {
    constexpr std::string_view expected =
        "a list of mail addresses separated by commas, such as me@example.org,you@example.org";
    if (!isOneLine(word)) {
        return unexpected(word, expected);
    }
    std::string_view rest = word;
    while (!word.empty()) {
        const std::size_t comma = rest.find(',');
        std::string address{rest.substr(0, comma)};
        std::erase(address, ' ');
        const std::size_t at = address.find('@');
        if (at == std::string::npos || at == 0 || at + 1 == address.size() ||
            address.find_first_of("<>") != std::string::npos) {
            return unexpected(word, expected);
        }
        if (comma == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(comma + 1);
    }
    return PropertyList{word};
}

Result<PropertyList> typedLocations(std::span<const std::string> words) {
    constexpr std::string_view prefix = "/Volumes/";
    PropertyListArray locations;
    for (const std::string& word : words) {
        const std::string_view name =
            std::string_view{word}.substr(std::min(prefix.size(), word.size()));
        if (!word.starts_with(prefix) || name.empty() || name == "." || name == ".." ||
            name.find('/') != std::string_view::npos || !isOneLine(word)) {
            return unexpected(word, "a location of the form /Volumes/NAME");
        }
        if (std::ranges::find(locations, PropertyList{word}) != locations.end()) {
            return Error{fmt::format("\"{}\" is there twice", printable(word))};
        }
        locations.emplace_back(word);
    }
    return PropertyList{std::move(locations)};
}

// By the rule's kind alone; there is at least one word.
Result<PropertyList> typedWords(const SettingRule& rule, std::span<const std::string> words) {
    const std::string& word = words.front();
    switch (rule.kind) {
        case flag:
            return typedFlag(word);
        case wholeNumber:
            return typedWholeNumber(rule, word);
        case realNumber:
            return typedRealNumber(word);
        case moment:
            return typedMoment(word);
        case text:
            return typedText(word);
        case mailPort:
            return typedMailPort(word);
        case mailRecipients:
            return typedMailRecipients(word);
        case encodedText:
            return word.empty() ? Result<PropertyList>{PropertyList{word}}
                                : Error{std::string{rule.reason}};
        case locations:
            return typedLocations(words);
        case untouchable:
            break;
    }
    return Error{"cannot be set"};
}

}  // namespace

std::span<const SettingRule> preferenceRules() { return kPreferenceRules; }
std::span<const SettingRule> volumeRules() { return kVolumeRules; }
std::span<const SettingRule> driveRules() { return kDriveRules; }

std::optional<SettingRule> ruleFor(std::span<const SettingRule> known, std::string_view key,
                                   const PropertyList* present) {
    const auto rule = std::ranges::find(known, key, &SettingRule::key);
    if (rule != known.end()) {
        return *rule;
    }
    if (present == nullptr) {
        return std::nullopt;
    }
    if (present->boolean() != nullptr) {
        return SettingRule{key, flag};
    }
    if (present->integer() != nullptr) {
        return SettingRule{key, wholeNumber, std::numeric_limits<std::int64_t>::min(),
                           std::numeric_limits<std::int64_t>::max()};
    }
    if (present->real() != nullptr) {
        return SettingRule{key, realNumber};
    }
    if (present->string() != nullptr) {
        return SettingRule{key, text};
    }
    return SettingRule{key, untouchable, 0, 0, "has a type that cannot be typed here"};
}

Result<PropertyList> typedValue(const SettingRule& rule, std::span<const std::string> words) {
    if (rule.kind == untouchable) {
        return Error{fmt::format("{} {}", printable(rule.key), rule.reason)};
    }
    if (words.empty() || (words.size() > 1 && rule.kind != locations)) {
        return Error{fmt::format("{} takes one value; put one with blanks in quotation marks",
                                 printable(rule.key))};
    }
    Result<PropertyList> typed = typedWords(rule, words);
    if (!typed) {
        return Error{fmt::format("{}: {}", printable(rule.key), typed.error().message)};
    }
    return typed;
}

}  // namespace korvane::ctl
