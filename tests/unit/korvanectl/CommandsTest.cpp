// What the commands print, and how they end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/korvanectl/ProgramFixture.h"

namespace korvane::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Commands : public KorvanectlTest {
  protected:
    Commands() {
        changeEntry(0, [](Dictionary& fields) {
            fields.set("usageStatus", "3");
            fields.set("executionTimeUsage", 1767225600.0 + 250);
        });
        changeEntry(1, [](Dictionary& fields) {
            fields.set("usageStatus", "4");
            fields.set("executionTimeUsage", 1767225600.0 - 1);
        });
        changeEntry(2, [](Dictionary& fields) { fields.set("usageStatus", "5"); });
    }
    void writeLog(const std::string& name, PropertyListArray entries) const {
        folder.write(name + "/Volume Usage.plist",
                     formatPropertyList(Dictionary{{"logEntries", std::move(entries)}}));
    }
    static Dictionary logEntry(const char* date, double percent, const char* result) {
        return Dictionary{{"calendarDate", date},
                          {"percentFree", percent},
                          {"fs_size", 5e11},
                          {"fs_freeSize", 5e9 * percent},
                          {"result", result}};
    }
};

TEST_F(Commands, VolumesShowsATableOfWhatIsThereNow) {
    EXPECT_EQ(run({"volumes"}), 0);
    EXPECT_EQ(
        out,
        "VOLUME       DEVICE                     FREE          LEVEL  RESULT         NEXT CHECK\n"
        "/            /dev/sda1  216.0 GB of 500.0 GB  43.2 %   15 %  ok             00:04:10, "
        "in 4 min\n"
        "/mnt/a/Data  -                             -       -   15 %  LOW SPACE      now\n"
        "/mnt/b/Data  -                             -       -   15 %  not available  -\n");
}

TEST_F(Commands, VolumesShowsTheLastResultOfADaemonThatHasJustStarted) {
    for (const std::size_t index : {0U, 1U}) {
        changeEntry(index, [](Dictionary& fields) {
            fields.set("usageStatus", "0");
            fields.set("executionTimeUsage", 1767225600.0 + 250);
        });
    }
    EXPECT_EQ(run({"volumes"}), 0);
    EXPECT_THAT(out, HasSubstr("15 %  not yet examined  00:04:10"));
    writeLog("System", {logEntry("2025-12-31 23:50:00 +0000", 9.6, "failed"),
                        logEntry("2025-12-31 23:55:00 +0000", 43.25, "passed")});
    writeLog("Data", {logEntry("2026-01-01 00:00:00 +0000", 9.6, "failed")});
    EXPECT_EQ(run({"volumes"}), 0);
    EXPECT_THAT(out, HasSubstr("15 %  ok at 2025-12-31 23:55:00  00:04:10"));
    EXPECT_THAT(out, HasSubstr("15 %  LOW SPACE at 00:00:00      00:04:10"));
    EXPECT_EQ(run({"volumes", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr(R"("result": "passed",)"));
    EXPECT_THAT(out, HasSubstr(R"("result": "notYetExamined",)"));
}

TEST_F(Commands, VolumesNeverAsksTheMachineForOneThatIsNotAvailable) {
    EXPECT_EQ(run({"volumes"}), 0);
    EXPECT_THAT(volumes.asked, ElementsAre("/", "/mnt/a/Data"));
}

TEST_F(Commands, VolumesSaysSoWhereNothingIsChecked) {
    changeEntry(1, [](Dictionary& fields) {
        fields.set("volumeOnOff", false);
        fields.set("usageStatus", "3");
    });
    EXPECT_EQ(run({"volumes"}), 0);
    EXPECT_THAT(out, HasSubstr("off  not watched"));
    Dictionary preferences = stored();
    preferences.set(kDaemonOn, false);
    store(preferences);
    EXPECT_EQ(run({"volumes"}), 0);
    EXPECT_THAT(out, HasSubstr("ok             off\n"));
}

TEST_F(Commands, VolumesAsJsonLeavesOutWhatIsNotKnown) {
    EXPECT_EQ(run({"volumes", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr(R"({
      "device": "/dev/sda1",
      "freeBytes": 216000000000,
      "name": "System",
      "nextCheck": "2026-01-01T00:04:10Z",
      "path": "/",
      "percentFree": 43.2,
      "result": "ok",
      "sizeBytes": 500000000000,
      "warningLevelPercent": 15,
      "watched": true
    })"));
    EXPECT_THAT(out, HasSubstr(R"({
      "name": "Data",
      "path": "/mnt/b/Data",
      "result": "notAvailable",
      "warningLevelPercent": 15,
      "watched": true
    })"));
}

TEST_F(Commands, StatusTellsOfTheDaemonAndEachVolumesLastCheck) {
    writeLog("System", {logEntry("2025-12-31 23:55:00 +0000", 43.25, "passed"),
                        logEntry("2026-01-01 00:00:00 +0000", 43.25, "passed")});
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_THAT(out, HasSubstr("Daemon            running\nProtection        on\n"));
    EXPECT_THAT(out, HasSubstr("System  /            ok             00:00:00, passed with 43.2 % "
                               "free  00:04:10, in 4 min\n"));
    EXPECT_THAT(out, Not(HasSubstr("stuck")));
}

TEST_F(Commands, StatusEndsWithTwoWhenNoDaemonRuns) {
    daemon.present = DaemonPresence::absent;
    EXPECT_EQ(run({"status"}), 2);
    EXPECT_THAT(out, HasSubstr("not running"));
    EXPECT_THAT(out, HasSubstr("when it runs"));
    daemon.present = DaemonPresence::unreachable;
    EXPECT_EQ(run({"--json", "status"}), 2);
    EXPECT_THAT(out, HasSubstr("\"daemonReachable\": false"));
    EXPECT_THAT(out, HasSubstr("\"daemonRuns\": true"));
}

TEST_F(Commands, StatusShowsAStuckCheckAndTheWayOut) {
    changeEntry(1, [](Dictionary& fields) {
        fields.set("usageStatus", "2");
        fields.set("executionTimeUsage", 1767225600.0 - 3600);
    });
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_THAT(out, HasSubstr("Data is stuck; set it back with: korvanectl volume /mnt/a/Data "
                               "reset\n"));
}

TEST_F(Commands, ATimeFurtherAheadThanItsIntervalIsNamedWithTheWayOut) {
    changeEntry(1, [](Dictionary& fields) {
        fields.set("usageStatus", "3");
        fields.set("executionTimeUsage", 1767225600.0 + 86400);
    });
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_THAT(out, HasSubstr("2026-01-02 00:00:00, in 24 h (beyond its interval)\n"));
    EXPECT_THAT(out, HasSubstr("Data is due beyond its interval; set it back with: korvanectl "
                               "volume /mnt/a/Data reset\n"));
    EXPECT_EQ(run({"volumes"}), 0);
    EXPECT_THAT(out, HasSubstr("in 24 h (beyond its interval)\n"));
    EXPECT_EQ(run({"volumes", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr("\"nextCheckBeyondInterval\": true"));
    EXPECT_EQ(run({"volume", "/mnt/a/Data", "get"}), 0);
    EXPECT_THAT(out, HasSubstr("2026-01-02 00:00:00 (beyond its interval)"));
    EXPECT_EQ(run({"volume", "/mnt/a/Data", "reset"}), 0);
    for (const char* command : {"status", "volumes"}) {
        EXPECT_EQ(run({command}), 0);
        EXPECT_THAT(out, Not(HasSubstr("beyond")));
    }
}

TEST_F(Commands, StatusTakesEntriesOfAnyShape) {
    Dictionary preferences = stored();
    preferences.find(kVolumeArray)->array()->emplace_back("no entry");
    preferences.find(kVolumeArray)->array()->emplace_back(Dictionary{});
    preferences.find(kVolumeArray)
        ->array()
        ->emplace_back(Dictionary{
            {"volumeMountToName", "/x\n\x1b[2J"}, {"usageStatus", 3}, {"volumeOnOff", 1}});
    store(preferences);
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_THAT(out, Not(HasSubstr("\x1b")));
    preferences.set(kVolumeArray, "no array");
    store(preferences);
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_THAT(out, HasSubstr("No volume has been found yet."));
}

TEST_F(Commands, HistoryListsAVolumesChecks) {
    writeLog("System", {logEntry("2025-12-31 23:55:00 +0000", 9.6, "failed"), "no entry",
                        Dictionary{{"calendarDate", "some day"}, {"result", "passed"}},
                        logEntry("2026-01-01 01:00:00 +0100", 43.25, "passed")});
    EXPECT_EQ(run({"history", "System"}), 0);
    EXPECT_EQ(out,
              "TIME                 RESULT                     FREE\n"
              "2025-12-31 23:55:00  LOW SPACE   48.0 GB of 500.0 GB   9.6 %\n"
              "some day             ok                            -       -\n"
              "00:00:00             ok         216.2 GB of 500.0 GB  43.2 %\n");
    EXPECT_EQ(run({"history", "/", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr("\"time\": \"2025-12-31T23:55:00Z\""));
}

TEST_F(Commands, HistoryOfAVolumeThatWasNeverCheckedIsEmpty) {
    EXPECT_EQ(run({"history", "/"}), 0);
    EXPECT_EQ(out, "No check of / has been logged yet.\n");
    folder.write("System/Volume Usage.plist", "<plist");
    EXPECT_EQ(run({"history", "/"}), 5);
    EXPECT_EQ(run({"history", "/nowhere"}), 1);
}

TEST_F(Commands, GetShowsOneSettingBareAndAllInATable) {
    EXPECT_EQ(run({"get", "usageEntryLimit"}), 0);
    EXPECT_EQ(out, "15\n");
    EXPECT_EQ(run({"get", "directoryBackupLocations"}), 0);
    EXPECT_EQ(out, "/Volumes/System\n");
    EXPECT_EQ(run({"get"}), 0);
    EXPECT_THAT(out, HasSubstr("volumeArray               (3 entries)\n"));
    EXPECT_EQ(run({"get", "--json", "DAEMON_ON"}), 0);
    EXPECT_EQ(out, "{\n  \"DAEMON_ON\": true\n}\n");
    EXPECT_EQ(run({"get", "noSuchSetting"}), 1);
    EXPECT_EQ(run({"get", "emailUseSSLAuthentication"}), 1);
    EXPECT_EQ(err, "emailUseSSLAuthentication is not set\n");
}

TEST_F(Commands, GetNeverShowsThePassword) {
    Dictionary preferences = stored();
    preferences.set("emailPassword", "c2VjcmV0");
    store(preferences);
    for (const auto& line :
         std::vector<std::vector<const char*>>{{"get"},
                                               {"get", "--json"},
                                               {"get", "emailPassword"},
                                               {"get", "emailPassword", "--json"}}) {
        EXPECT_EQ(run(line), 0);
        EXPECT_THAT(out, Not(HasSubstr("c2VjcmV0")));
        EXPECT_THAT(out, HasSubstr("(set, not shown)"));
    }
}

TEST_F(Commands, VolumeGetSaysWhatNumbersMean) {
    EXPECT_EQ(run({"volume", "/", "get"}), 0);
    EXPECT_THAT(out,
                HasSubstr("executionTimeUsage                  1767225850  2026-01-01 00:04:10\n"));
    EXPECT_THAT(out, HasSubstr("usageStatus                         3           ok\n"));
    EXPECT_EQ(run({"volume", "/", "get", "freeSpaceWarningLevel"}), 0);
    EXPECT_EQ(out, "15\n");
    EXPECT_EQ(run({"volume", "/", "get", "nothing"}), 1);
}

TEST_F(Commands, ReloadTellsTheDaemonOrSaysWhyNot) {
    EXPECT_EQ(run({"reload"}), 0);
    EXPECT_THAT(daemon.words, ElementsAre("daemonPreferencesUpdatedNotification"));
    daemon.present = DaemonPresence::absent;
    EXPECT_EQ(run({"reload"}), 2);
    EXPECT_EQ(err, "the daemon does not run\n");
}

TEST_F(Commands, ThatNobodyKnowsAreRefusedInOneLine) {
    for (const auto& line :
         std::vector<std::vector<const char*>>{{},
                                               {"nonsense"},
                                               {"set"},
                                               {"set", "DAEMON_ON"},
                                               {"volume"},
                                               {"volume", "/"},
                                               {"volume", "/", "set", "freeSpaceWarningLevel"},
                                               {"history"},
                                               {"get", "a", "b"},
                                               {"status", "--nonsense"},
                                               {"volume", "/", "reset", "more"},
                                               {"bad\x1b[2J"}}) {
        EXPECT_EQ(run(line), 1);
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
        EXPECT_THAT(err, Not(HasSubstr("\x1b")));
        EXPECT_THAT(out, IsEmpty());
    }
}

TEST_F(Commands, HelpAndVersionGoToStandardOutput) {
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_THAT(out, HasSubstr("volumes"));
    EXPECT_EQ(run({"volume", "--help"}), 0);
    EXPECT_THAT(out, HasSubstr("reset"));
    EXPECT_EQ(run({"--version"}), 0);
    EXPECT_THAT(out, HasSubstr("korvanectl "));
    EXPECT_THAT(err, IsEmpty());
}

TEST_F(Commands, StatusNamesAMissingHelperProgramAndWhatDoesNotWorkWithoutIt) {
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_THAT(out, Not(HasSubstr("Missing")));
    EXPECT_EQ(run({"status", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr("\"missingHelpers\": []"));
    std::filesystem::remove(plugIns / "KorvaneProDirectoryBackup");
    std::filesystem::permissions(plugIns / "KorvaneProNotice", std::filesystem::perms::owner_read);
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_THAT(out, HasSubstr("\nMissing helper    KorvaneProDirectoryBackup: no directory backup "
                               "can be made\n"
                               "Missing helper    KorvaneProNotice: warnings show no dialog\n"));
    EXPECT_EQ(run({"status", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr("\"KorvaneProDirectoryBackup\",\n    \"KorvaneProNotice\"\n"));
}

TEST_F(Commands, AMistypedLineIsToldByTheWordThatIsWrong) {
    const struct {
        std::vector<const char*> line;
        const char* expected;
    } rows[] = {
        {{"statsu"}, "there is no command \"korvanectl statsu\"; see korvanectl --help\n"},
        {{"backup", "halt"},
         "there is no command \"korvanectl backup halt\"; see korvanectl backup --help\n"},
        {{"backup"}, "\"korvanectl backup\" needs a command; see korvanectl backup --help\n"},
        {{}, "\"korvanectl\" needs a command; see korvanectl --help\n"},
        {{"status", "now"}, "\"now\" is one word too many; see korvanectl status --help\n"},
        {{"status", "--colour"}, "there is no option \"--colour\"; see korvanectl status --help\n"},
        {{"--colour"}, "there is no option \"--colour\"; see korvanectl --help\n"},
        {{"a\x1b[2J"}, "there is no command \"korvanectl a\\x1b[2J\"; see korvanectl --help\n"},
        {{"history"}, "NAME is required; see korvanectl history --help\n"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(run(row.line), 1) << row.expected;
        EXPECT_EQ(err, row.expected);
        EXPECT_THAT(out, IsEmpty());
    }
}

}  // namespace
}  // namespace korvane::ctl
