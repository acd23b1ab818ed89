// What may be stored under which key, so that the daemon reads it as it was meant. The rules of
// known keys hold even where the key is absent; a key that nobody knows keeps the type it has.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/PropertyList.h"
#include "base/Result.h"

namespace korvane::ctl {

enum class SettingKind {
    flag,            // a boolean
    wholeNumber,     // an integer from `least` to `most`
    realNumber,      // any that is finite
    moment,          // seconds since 1970, a real
    text,            // one line of text
    mailPort,        // a port number as text, or no text
    mailRecipients,  // addresses in one text, separated by commas, or no text
    encodedText,     // a text that the daemon decodes; only the empty one can be typed
    locations,       // an array of paths of the form /Volumes/NAME
    untouchable      // the daemon's or another command's own; `reason` says whose
};

struct SettingRule {
    std::string_view key;
    SettingKind kind = SettingKind::text;
    std::int64_t least = 0;
    std::int64_t most = 0;
    std::string_view reason{};
};

// The known keys of the preferences themselves, of a volume's entry and of a drive's entry.
[[nodiscard]] std::span<const SettingRule> preferenceRules();
[[nodiscard]] std::span<const SettingRule> volumeRules();
[[nodiscard]] std::span<const SettingRule> driveRules();

// The rule for the key: the known one, else one made from the value that is there; nothing when
// the key is neither known nor there.
[[nodiscard]] std::optional<SettingRule> ruleFor(std::span<const SettingRule> known,
                                                 std::string_view key, const PropertyList* present);

// The typed words as the value to store: one word, but for arrays. The error says what is expected.
[[nodiscard]] Result<PropertyList> typedValue(const SettingRule& rule,
                                              std::span<const std::string> words);

}  // namespace korvane::ctl
