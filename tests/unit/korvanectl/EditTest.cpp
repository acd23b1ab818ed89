// Edits of the preferences beside a daemon that has an image of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "korvanectl/SettingRules.h"
#include "unit/korvanectl/ProgramFixture.h"

namespace korvane::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

using Edits = KorvanectlTest;

TEST_F(Edits, AreStoredUnderTheSettingsTypeAndToldToTheDaemon) {
    EXPECT_EQ(run({"set", "usageEntryLimit", "20"}), 0);
    EXPECT_EQ(*stored().find("usageEntryLimit"), PropertyList{20});
    EXPECT_THAT(daemon.words, ElementsAre("daemonPreferencesUpdatedNotification"));
    EXPECT_EQ(out, "usageEntryLimit is 20.\n");
    EXPECT_THAT(err, IsEmpty());
}

TEST_F(Edits, KeepTheFilesInodeAndOpenItToEverybody) {
    struct stat before {};
    struct stat after {};
    stat(file.c_str(), &before);
    EXPECT_EQ(run({"set", "DAEMON_ON", "no"}), 0);
    stat(file.c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(after.st_mode & 07777U, 0666U);
}

TEST_F(Edits, KeepKeysThatNobodyKnows) {
    Dictionary preferences = stored();
    preferences.set("theirs", Dictionary{{"a", 1}});
    store(preferences);
    EXPECT_EQ(run({"set", "trashSaveDays", "9"}), 0);
    EXPECT_EQ(*stored().find("theirs"), (PropertyList{Dictionary{{"a", 1}}}));
}

TEST_F(Edits, AreMadeAgainWhenTheDaemonSavesItsOwnImageBeforeItReloads) {
    const Dictionary image = stored();
    int saves = 3;
    daemon.onWord = [&] {
        if (saves-- > 0) store(image);
    };
    EXPECT_EQ(run({"set", "usageEntryLimit", "20"}), 0);
    EXPECT_EQ(*stored().find("usageEntryLimit"), PropertyList{20});
    EXPECT_THAT(daemon.words, SizeIs(4));
}

TEST_F(Edits, TakeOverWhatTheDaemonWroteInBetween) {
    const Dictionary image = stored();
    bool first = true;
    daemon.onWord = [&] {
        if (!std::exchange(first, false)) return;
        store(image);
        changeEntry(0, [](Dictionary& fields) { fields.set("usageStatus", "4"); });
    };
    EXPECT_EQ(run({"volume", "/", "set", "freeSpaceWarningLevel", "20"}), 0);
    EXPECT_EQ(*entry(0).find("freeSpaceWarningLevel"), PropertyList{20});
    EXPECT_EQ(*entry(0).find("usageStatus"), PropertyList{"4"});
}

TEST_F(Edits, GiveUpAfterLosingAgainAndAgain) {
    const std::string image = storedText();
    daemon.onWord = [&] { storeText(image); };
    EXPECT_EQ(run({"set", "usageEntryLimit", "20"}), 5);
    EXPECT_THAT(err, HasSubstr("keeps writing over"));
    EXPECT_THAT(daemon.words, SizeIs(8));
    EXPECT_EQ(storedText(), image);
}

TEST_F(Edits, WorkWithoutADaemonAndSaySo) {
    daemon.present = DaemonPresence::absent;
    EXPECT_EQ(run({"set", "usageEntryLimit", "20"}), 0);
    EXPECT_EQ(*stored().find("usageEntryLimit"), PropertyList{20});
    EXPECT_EQ(err, "the daemon does not run; the change counts when it starts\n");
}

TEST_F(Edits, FailWhenTheDaemonRunsButCannotBeTold) {
    daemon.present = DaemonPresence::unreachable;
    EXPECT_EQ(run({"set", "usageEntryLimit", "20"}), 2);
    EXPECT_THAT(err, HasSubstr("is in the file, but"));
}

TEST_F(Edits, SayThatTheyAreMadeWhenTheDaemonDoesNotAnswer) {
    daemon.answer = Failure{ExitStatus::noReply, "no answer"};
    EXPECT_EQ(run({"set", "usageEntryLimit", "20"}), 4);
    EXPECT_EQ(err, "the change is in the file, but no answer\n");
    daemon.answer = Failure{ExitStatus::notAllowed, "not yours"};
    EXPECT_EQ(run({"set", "usageEntryLimit", "21"}), 3);
}

TEST_F(Edits, LeaveADamagedFileByteForByte) {
    for (const std::string_view damaged :
         {"", "<plist", "bplist00\x01\x02", "<plist version=\"1.0\"><array/></plist>"}) {
        storeText(damaged);
        EXPECT_EQ(run({"set", "usageEntryLimit", "20"}), 5);
        EXPECT_THAT(err, HasSubstr("left as it is"));
        EXPECT_EQ(storedText(), damaged);
        EXPECT_THAT(daemon.words, IsEmpty());
    }
}

TEST_F(Edits, LeaveAFileThatIsTooLargeForTheDaemon) {
    std::filesystem::resize_file(file, std::uintmax_t{65} * 1024 * 1024);
    EXPECT_EQ(run({"set", "usageEntryLimit", "20"}), 5);
    EXPECT_THAT(err, HasSubstr("File too large"));
    EXPECT_EQ(run({"status"}), 5);
    EXPECT_THAT(err, HasSubstr("File too large"));
    EXPECT_EQ(std::filesystem::file_size(file), std::uintmax_t{65} * 1024 * 1024);
}

TEST_F(Edits, RestoreAFileWhoseWriterDied) {
    const std::string whole = storedText();
    folder.write(".KorvaneProtection.plist.saving", whole);
    storeText(std::string(1, '\0') + whole.substr(1, whole.size() / 2));
    EXPECT_EQ(run({"set", "usageEntryLimit", "20"}), 0);
    EXPECT_EQ(*stored().find("usageEntryLimit"), PropertyList{20});
    EXPECT_EQ(*stored().find("trashSaveDays"), PropertyList{5});
}

TEST_F(Edits, AreRefusedForAFileThatTheDaemonWillReplace) {
    store(Dictionary{{"DAEMON_ON", false}, {"usageEntryLimit", 3}});
    const std::string before = storedText();
    EXPECT_EQ(run({"set", "usageEntryLimit", "20"}), 5);
    EXPECT_THAT(err, HasSubstr("korvanectl reload"));
    EXPECT_EQ(storedText(), before);
}

TEST_F(Edits, NeedAFile) {
    std::filesystem::remove(file);
    EXPECT_EQ(run({"set", "usageEntryLimit", "20"}), 5);
    EXPECT_THAT(err, HasSubstr("there is no"));
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(Edits, ThatAreRefusedLeaveTheFileByteForByte) {
    const std::string before = storedText();
    const char* const malformed[] = {"maybe?", "\n", "\xff", "1e999", "-7x", "/etc\x01"};
    const auto refused = [&](std::vector<const char*> line) {
        EXPECT_EQ(run(line), 1) << line.back();
        EXPECT_EQ(storedText(), before);
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    };
    for (const char* const word : malformed) {
        for (const SettingRule& rule : preferenceRules()) {
            const bool anyLine = rule.kind == SettingKind::text && word[0] != '\n' &&
                                 word[0] != '\xff' && std::string_view{word} != "/etc\x01";
            if (!anyLine) refused({"set", rule.key.data(), "--", word});
        }
        for (const SettingRule& rule : volumeRules()) {
            refused({"volume", "/", "set", rule.key.data(), "--", word});
        }
    }
    refused({"set", "noSuchSetting", "1"});
    refused({"volume", "/", "set", "noSuchSetting", "1"});
    EXPECT_THAT(daemon.words, IsEmpty());
}

TEST_F(Edits, OfAVolumeNameItByMountPointOrName) {
    EXPECT_EQ(run({"volume", "System", "set", "volumeOnOff", "off"}), 0);
    EXPECT_EQ(*entry(0).find("volumeOnOff"), PropertyList{false});
    EXPECT_EQ(run({"volume", "/mnt/b/Data", "set", "freeSpaceWarningLevel", "1"}), 0);
    EXPECT_EQ(*entry(2).find("freeSpaceWarningLevel"), PropertyList{1});
    EXPECT_EQ(run({"volume", "Data", "set", "freeSpaceWarningLevel", "1"}), 1);
    EXPECT_THAT(err, HasSubstr("2 volumes are called \"Data\""));
    EXPECT_EQ(run({"volume", "/mnt", "set", "freeSpaceWarningLevel", "1"}), 1);
    EXPECT_THAT(err, HasSubstr("there are: /, /mnt/a/Data, /mnt/b/Data"));
}

TEST_F(Edits, NeverMakeACheckDueAllTheTime) {
    EXPECT_EQ(run({"volume", "/", "set", "executionIntervalUsage_minutes", "0"}), 1);
    EXPECT_THAT(err, HasSubstr("never rest"));
    EXPECT_EQ(run({"volume", "/", "set", "executionIntervalUsage_seconds", "30"}), 0);
    EXPECT_EQ(run({"volume", "/", "set", "executionIntervalUsage_minutes", "0"}), 0);
}

TEST_F(Edits, DoNotSwitchOnWhatTheDaemonKeepsOffForAnEncryptedVolume) {
    changeEntry(0, [](Dictionary& fields) { fields.set("isCoreStorageEncrypted", true); });
    EXPECT_EQ(run({"volume", "/", "set", "trashOnOff", "yes"}), 1);
    EXPECT_EQ(run({"volume", "/", "set", "directoryOnOff", "yes"}), 1);
    EXPECT_EQ(run({"volume", "/", "set", "trashOnOff", "no"}), 0);
}

TEST_F(Edits, ResetAStuckCheckAlone) {
    changeEntry(0, [](Dictionary& fields) {
        fields.set("usageStatus", "2");
        fields.set("directoryStatus", "3");
    });
    EXPECT_EQ(run({"volume", "/", "reset"}), 0);
    EXPECT_EQ(*entry(0).find("usageStatus"), PropertyList{"0"});
    EXPECT_EQ(*entry(0).find("directoryStatus"), PropertyList{"3"});
    EXPECT_THAT(daemon.words, SizeIs(1));
    EXPECT_EQ(run({"volume", "/", "reset"}), 0);
    EXPECT_EQ(out, "no check of / is stuck.\n");
}

TEST_F(Edits, ResetATimeThatIsFurtherAheadThanItsInterval) {
    // Every 5 minutes and every 4 hours.
    changeEntry(0, [this](Dictionary& fields) {
        fields.set("executionTimeUsage", secondsSince1970(now) + 301);
        fields.set("executionTimeDirectory", secondsSince1970(now) + 4 * 3600);
    });
    EXPECT_EQ(run({"volume", "/", "reset"}), 0);
    EXPECT_EQ(out, "/ is set back and will be examined anew.\n");
    EXPECT_EQ(*entry(0).find("executionTimeUsage"), PropertyList(secondsSince1970(now)));
    EXPECT_EQ(*entry(0).find("executionTimeDirectory"),
              PropertyList(secondsSince1970(now) + 4 * 3600));
    EXPECT_THAT(daemon.words, SizeIs(1));
}

TEST_F(Edits, ResetAgainATimeThatTheDaemonsImageBringsBack) {
    changeEntry(0, [](Dictionary& fields) { fields.set("executionTimeDirectory", 4e9); });
    const std::string image = storedText();
    bool first = true;
    daemon.onWord = [&] {
        if (std::exchange(first, false)) storeText(image);
    };
    EXPECT_EQ(run({"volume", "/", "reset"}), 0);
    EXPECT_EQ(*entry(0).find("executionTimeDirectory"), PropertyList(secondsSince1970(now)));
}

TEST_F(Edits, ResetAgainWhatTheDaemonsImageBringsBack) {
    changeEntry(0, [](Dictionary& fields) { fields.set("usageStatus", "2"); });
    const std::string image = storedText();
    bool first = true;
    daemon.onWord = [&] {
        if (std::exchange(first, false)) storeText(image);
    };
    EXPECT_EQ(run({"volume", "/", "reset"}), 0);
    EXPECT_EQ(*entry(0).find("usageStatus"), PropertyList{"0"});
}

TEST_F(Edits, TakeACheckThatRunsAnewForAnEndedReset) {
    changeEntry(0, [](Dictionary& fields) { fields.set("usageStatus", "2"); });
    daemon.onWord = [&] {
        changeEntry(0, [](Dictionary& fields) {
            fields.set("usageStatus", "2");
            fields.set("executionTimeUsage", 1767225999.0);
        });
    };
    EXPECT_EQ(run({"volume", "/", "reset"}), 0);
    EXPECT_THAT(daemon.words, SizeIs(1));
}

}  // namespace
}  // namespace korvane::ctl
