#include <gtest/gtest.h>

#include "core/DefaultPreferences.h"

namespace korvane {
namespace {

TEST(DefaultPreferences, HoldEverySettingWithItsTypeAndValue) {
    const Dictionary expected{
        {"DAEMON_ON", true},
        {"SMARTCheckEmail", true},
        {"directoryBackupOnOff", true},
        {"directoryFilesToSave", 3},
        {"emailAddress", ""},
        {"emailEnabled", false},
        {"emailPassword", ""},
        {"emailPort", ""},
        {"emailServer", ""},
        {"emailSubject", ""},
        {"emailUseAuthentication", false},
        {"emailUserName", ""},
        {"protectionUpdated", false},
        {"showProtection", false},
        {"smartCheckOnOff", true},
        {"smartEntryLimit", 15},
        {"trashHistoryOnOff", true},
        {"trashSaveDays", 5},
        {"usageEntryLimit", 15},
        {"volumeUsageEmail", true},
        {"volumeUsageOnOff", true},
    };
    EXPECT_EQ(defaultPreferences().size(), 21u);
    EXPECT_EQ(defaultPreferences(), expected);
}

TEST(DefaultPreferences, KeepTheMailPortAsText) {
    ASSERT_NE(defaultPreferences().find("emailPort"), nullptr);
    EXPECT_NE(defaultPreferences().find("emailPort")->string(), nullptr);
}

TEST(DefaultPreferences, AreForcedOverWhatIsThereAndLeaveOtherKeysAlone) {
    Dictionary preferences{
        {"DAEMON_ON", false}, {"emailServer", 7}, {"aKeyOfSomebodyElse", "kept"}};
    forceDefaultPreferences(preferences);
    EXPECT_TRUE(booleanValue(preferences.find("DAEMON_ON")));
    EXPECT_EQ(*preferences.find("emailServer"), PropertyList(""));
    EXPECT_EQ(*preferences.find("aKeyOfSomebodyElse"), PropertyList("kept"));
    EXPECT_EQ(preferences.size(), 22u);
}

TEST(BackupLocations, NameTheStartUpVolumeWhereNoneIsNamed) {
    const PropertyList onlyTheStartUpVolume(PropertyListArray{"/Volumes/System"});
    const Dictionary rows[] = {
        {},
        {{"directoryBackupLocations", PropertyListArray{}}},
        {{"directoryBackupLocations", "/Volumes/Data"}},  // not a list
    };
    for (Dictionary preferences : rows) {
        completeBackupLocations(preferences, "/Volumes/System");
        EXPECT_EQ(*preferences.find("directoryBackupLocations"), onlyTheStartUpVolume);
        EXPECT_FALSE(backupLocationsLack(preferences, "/Volumes/System"));
    }
}

TEST(BackupLocations, ThatAreNamedStay) {
    Dictionary preferences{{"directoryBackupLocations", PropertyListArray{"/Volumes/Data"}}};
    const Dictionary before = preferences;
    completeBackupLocations(preferences, "/Volumes/System");
    EXPECT_EQ(preferences, before);
    EXPECT_TRUE(backupLocationsLack(preferences, "/Volumes/System"));
}

TEST(BackupLocations, AreComparedAsWholeTexts) {
    const struct {
        PropertyListArray locations;
        bool lack;
    } rows[] = {
        {{"/Volumes/Data", "/Volumes/System"}, false},
        {{"/Volumes/System "}, true},
        {{"/Volumes/system"}, true},
        {{"System"}, true},
        {{1, true, Dictionary{}, "/Volumes/System"}, false},
        {{1}, true},
    };
    for (const auto& row : rows) {
        const Dictionary preferences{{"directoryBackupLocations", row.locations}};
        EXPECT_EQ(backupLocationsLack(preferences, "/Volumes/System"), row.lack);
    }
}

}  // namespace
}  // namespace korvane
