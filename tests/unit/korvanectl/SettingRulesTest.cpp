// What may be stored under which key.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <limits>

#include "core/DefaultPreferences.h"
#include "korvanectl/SettingRules.h"
#include "storage/VolumeEntry.h"

namespace korvane::ctl {
namespace {

using testing::HasSubstr;

using Words = std::vector<std::string>;

const SettingRule& rule(std::span<const SettingRule> rules, std::string_view key) {
    for (const SettingRule& known : rules) {
        if (known.key == key) {
            return known;
        }
    }
    ADD_FAILURE() << "no rule for " << key;
    return rules.front();
}

Result<PropertyList> typed(std::string_view key, const Words& words) {
    return typedValue(rule(preferenceRules(), key), words);
}

Result<PropertyList> typedForVolume(std::string_view key, const Words& words) {
    return typedValue(rule(volumeRules(), key), words);
}

// Values that no rule but those of texts may take.
const Words kMalformed{
    "",     " ",    "maybe", "1.5.2", "0x10",   "+1",    "1 ",
    " 1",   "１",   "1e",    "--1",   "NaN",    "inf",   "\n",
    "\x01", "\xff", "-0x1",  "1,000", "yes no", "TRUE!", "99999999999999999999999999"};

bool sameKind(const PropertyList& one, const PropertyList& other) {
    return (one.boolean() != nullptr) == (other.boolean() != nullptr) &&
           (one.integer() != nullptr) == (other.integer() != nullptr) &&
           (one.real() != nullptr) == (other.real() != nullptr) &&
           (one.string() != nullptr) == (other.string() != nullptr) &&
           (one.array() != nullptr) == (other.array() != nullptr);
}

TEST(SettingRules, KnowEveryDefaultSettingUnderItsType) {
    for (const auto& [key, value] : defaultPreferences()) {
        const SettingRule& known = rule(preferenceRules(), key);
        const std::string word = value.boolean() != nullptr   ? "yes"
                                 : value.integer() != nullptr ? "7"
                                                              : "";
        const auto stored = typedValue(known, Words{word});
        // Of the mail settings only some take the empty text; that they are texts is what counts.
        if (stored) {
            EXPECT_TRUE(sameKind(*stored, value)) << key;
        } else {
            ADD_FAILURE() << key << ": " << stored.error().message;
        }
    }
}

TEST(SettingRules, KnowEverySettingOfANewVolumeUnderItsType) {
    const Dictionary entry = newVolumeEntry({.mountPoint = "/"}, Time{std::chrono::seconds{1}});
    for (const auto& [key, value] : entry) {
        const SettingRule& known = rule(volumeRules(), key);
        if (known.kind == SettingKind::untouchable) {
            continue;
        }
        const auto stored = typedValue(known, Words{value.boolean() != nullptr ? "no" : "7"});
        ASSERT_TRUE(stored) << key << ": " << stored.error().message;
        EXPECT_TRUE(sameKind(*stored, value)) << key;
    }
}

TEST(SettingRules, RefuseMalformedValuesOfEveryTypedKey) {
    for (const auto& rules : {preferenceRules(), volumeRules(), driveRules()}) {
        for (const SettingRule& known : rules) {
            for (const std::string& word : kMalformed) {
                const bool anyLine = known.kind == SettingKind::text && !word.starts_with('\n') &&
                                     word != "\x01" && word != "\xff";
                const bool mayBeEmpty =
                    word.empty() && (known.kind == SettingKind::mailPort ||
                                     known.kind == SettingKind::mailRecipients ||
                                     known.kind == SettingKind::encodedText);
                const auto value = typedValue(known, Words{word});
                EXPECT_EQ(static_cast<bool>(value), anyLine || mayBeEmpty)
                    << known.key << " took \"" << word << '"';
                if (!value) {
                    EXPECT_THAT(value.error().message, HasSubstr(std::string{known.key}));
                    EXPECT_EQ(value.error().message.find('\n'), std::string::npos);
                }
            }
        }
    }
}

TEST(SettingRules, TakeSwitchesInAnyUsualWord) {
    for (const char* const yes : {"yes", "YES", "on", "true", "True", "1"}) {
        EXPECT_EQ(*typed("DAEMON_ON", {yes}), PropertyList{true}) << yes;
    }
    for (const char* const no : {"no", "Off", "false", "0"}) {
        EXPECT_EQ(*typed("DAEMON_ON", {no}), PropertyList{false}) << no;
    }
}

TEST(SettingRules, HoldNumbersToTheirRange) {
    EXPECT_EQ(*typedForVolume("freeSpaceWarningLevel", {"0"}), PropertyList{0});
    EXPECT_EQ(*typedForVolume("freeSpaceWarningLevel", {"100"}), PropertyList{100});
    EXPECT_FALSE(typedForVolume("freeSpaceWarningLevel", {"101"}));
    EXPECT_FALSE(typedForVolume("freeSpaceWarningLevel", {"-1"}));
    EXPECT_FALSE(typedForVolume("freeSpaceWarningLevel", {"15.5"}));
    EXPECT_FALSE(typedForVolume("executionIntervalUsage_hours", {"-1"}));
    EXPECT_FALSE(typed("usageEntryLimit", {"-1"}));
    EXPECT_EQ(typed("usageEntryLimit", {"twenty"}).error().message,
              "usageEntryLimit: \"twenty\" is not a whole number from 0 to 10000");
}

TEST(SettingRules, StoreADueTimeAsAReal) {
    EXPECT_EQ(*typedForVolume("executionTimeUsage", {"0"}), PropertyList{0.0});
    EXPECT_EQ(*typedForVolume("executionTimeUsage", {"1767225600.5"}), PropertyList{1767225600.5});
    EXPECT_FALSE(typedForVolume("executionTimeUsage", {"-1"}));
    EXPECT_FALSE(typedForVolume("executionTimeUsage", {"1e300"}));
}

TEST(SettingRules, KeepTheMailPortAText) {
    EXPECT_EQ(*typed("emailPort", {"465"}), PropertyList{"465"});
    EXPECT_EQ(*typed("emailPort", {""}), PropertyList{""});
    for (const char* const port : {"0", "65536", "0465", "smtp", "-1", "4 65"}) {
        EXPECT_FALSE(typed("emailPort", {port})) << port;
    }
}

TEST(SettingRules, TakeOnlyRecipientsThatAreAddresses) {
    for (const char* const list : {"", "me@example.org", "a@b, c@d", "a@b ,c@d"}) {
        EXPECT_TRUE(typed("emailAddress", {list})) << list;
    }
    for (const char* const list :
         {"me", "me@", "@example.org", "a@b,", ",a@b", "a@b,,c@d", "<a@b>", "a@b\r\nBcc: c@d"}) {
        EXPECT_FALSE(typed("emailAddress", {list})) << list;
    }
}

TEST(SettingRules, NeverLetATextBreakALine) {
    EXPECT_EQ(*typed("emailSubject", {"Warnung: Dätä"}), PropertyList{"Warnung: Dätä"});
    for (const char* const text :
         {"a\nb", "a\rb", "a\tb", "\xc2\x85", "\xe2\x80\xa8", "\xef\xbf\xbf", "\xed\xa0\x80"}) {
        EXPECT_FALSE(typed("emailSubject", {text}));
    }
}

TEST(SettingRules, ClearButNeverTypeWhatIsStoredEncoded) {
    EXPECT_EQ(*typed("emailPassword", {""}), PropertyList{""});
    EXPECT_THAT(typed("emailPassword", {"c2VjcmV0"}).error().message, HasSubstr("encoded"));
    EXPECT_FALSE(typed("emailUserName", {"me"}));
}

TEST(SettingRules, TakeBackupLocationsAsAWholeList) {
    EXPECT_EQ(*typed("directoryBackupLocations", {"/Volumes/System", "/Volumes/My Disk"}),
              (PropertyList{PropertyListArray{"/Volumes/System", "/Volumes/My Disk"}}));
    for (const char* const place : {"", "/", "/Volumes", "/Volumes/", "/Volumes/a/b", "/mnt/data",
                                    "Volumes/a", "/Volumes/..", "/Volumes/."}) {
        EXPECT_FALSE(typed("directoryBackupLocations", {place})) << place;
    }
    EXPECT_FALSE(typed("directoryBackupLocations", {"/Volumes/a", "/Volumes/a"}));
}

TEST(SettingRules, TakeOneValueForASingleSetting) {
    EXPECT_FALSE(typed("emailSubject", {"two", "words"}));
    EXPECT_FALSE(typed("emailSubject", {}));
}

TEST(SettingRules, LeaveTheDaemonsOwnRecordsAlone) {
    for (const char* const key : {"driveArray", "volumeArray"}) {
        EXPECT_FALSE(typed(key, {"x"})) << key;
    }
    for (const char* const key :
         {"volumeMountToName", "usageStatus", "directoryStatus", "isCoreStorageEncrypted"}) {
        EXPECT_FALSE(typedForVolume(key, {"3"})) << key;
    }
    EXPECT_THAT(typedForVolume("usageStatus", {"0"}).error().message, HasSubstr("reset"));
}

TEST(SettingRules, GiveAnUnknownKeyTheTypeItHas) {
    const auto typedAs = [](const PropertyList& present, const char* word) {
        return typedValue(*ruleFor(preferenceRules(), "theirs", &present), Words{word});
    };
    EXPECT_EQ(*typedAs(false, "on"), PropertyList{true});
    EXPECT_EQ(*typedAs(1, "-7"), PropertyList{-7});
    EXPECT_EQ(*typedAs(1.5, "-2.25"), PropertyList{-2.25});
    EXPECT_EQ(*typedAs("a", "b c"), PropertyList{"b c"});
    EXPECT_FALSE(typedAs(1, "1.5"));
    EXPECT_FALSE(typedAs(1.5, "nan"));
    EXPECT_FALSE(typedAs(PropertyListArray{}, "x"));
    EXPECT_FALSE(typedAs(Dictionary{}, "x"));
    EXPECT_FALSE(typedAs(std::numeric_limits<std::uint64_t>::max(), "1"));
    EXPECT_FALSE(ruleFor(preferenceRules(), "theirs", nullptr));
}

}  // namespace
}  // namespace korvane::ctl
