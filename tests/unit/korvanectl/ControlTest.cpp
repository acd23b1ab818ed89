// The commands that steer the daemon: what they send, say, and end with.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "unit/korvanectl/ProgramFixture.h"

namespace korvane::ctl {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

using Control = KorvanectlTest;

TEST_F(Control, StopAndStartTurnTheSwitchAndThenSendTheirWord) {
    EXPECT_EQ(run({"stop"}), 0);
    EXPECT_EQ(out, "Protection is off.\n");
    EXPECT_FALSE(booleanValue(stored().find("DAEMON_ON")));
    EXPECT_EQ(run({"start"}), 0);
    EXPECT_EQ(out, "Protection is on.\n");
    EXPECT_TRUE(booleanValue(stored().find("DAEMON_ON")));
    EXPECT_THAT(daemon.words, ElementsAre("daemonStopYourEngines", "daemonStartYourEngines"));
}

TEST_F(Control, StopCountsWithoutADaemonWhenItNextStarts) {
    daemon.present = DaemonPresence::absent;
    EXPECT_EQ(run({"stop"}), 0);
    EXPECT_FALSE(booleanValue(stored().find("DAEMON_ON")));
    EXPECT_THAT(err, HasSubstr("counts when it starts"));
}

TEST_F(Control, AWordACommand) {
    const struct {
        std::vector<const char*> arguments;
        const char* word;
    } rows[] = {
        {{"free-space", "ignore"}, "QLDaemonIgnoreFreeSpace_WipeData_Msg"},
        {{"emergency", "release"}, "QLDaemonUnmountMountedDrive"},
        {{"wait", "smart"}, "isSMARTExecuteComplete"},
        {{"wait", "backup"}, "isDirectoryExecuteComplete"},
        {{"send", "AnyWord at all"}, "AnyWord at all"},
        {{"send", ""}, ""},
    };
    for (const auto& row : rows) {
        daemon.words.clear();
        EXPECT_EQ(run(row.arguments), 0) << row.word;
        EXPECT_THAT(daemon.words, ElementsAre(row.word));
        EXPECT_THAT(out, Not(IsEmpty()));
        EXPECT_THAT(err, IsEmpty());
    }
}

TEST_F(Control, EveryFailureOfTheDaemonIsTheCommands) {
    const std::vector<std::vector<const char*>> lines = {
        {"free-space", "ignore"}, {"emergency", "keep"}, {"emergency", "release"},
        {"wait", "smart"},        {"send", "x"},         {"create", "/x"},
        {"delete", "/x"}};
    for (const ExitStatus status :
         {ExitStatus::noDaemon, ExitStatus::notAllowed, ExitStatus::noReply}) {
        daemon.answer = Failure{status, "no luck"};
        for (const auto& line : lines) {
            EXPECT_EQ(run(line), static_cast<int>(status)) << line[0];
            EXPECT_EQ(err, "no luck\n") << line[0];
            EXPECT_THAT(out, IsEmpty()) << line[0];
        }
    }
}

TEST_F(Control, WaitAsksUntilTheAnswerIsYesAndShowsThatItWaits) {
    daemon.answers = {false, false, true};
    EXPECT_EQ(run({"wait", "smart"}), 0);
    EXPECT_THAT(daemon.words,
                ElementsAre("isSMARTExecuteComplete", "(pause)", "isSMARTExecuteComplete",
                            "(pause)", "isSMARTExecuteComplete"));
    EXPECT_THAT(shown, Contains("A SMART check is due or under way: waiting for 1 s ..."));
    EXPECT_EQ(shown.back(), "");
    EXPECT_EQ(out, "No SMART check is due or under way.\n");
}

TEST_F(Control, SendShowsTheAnswer) {
    daemon.answer = false;
    EXPECT_EQ(run({"send", "isDirectoryExecuteComplete"}), 0);
    EXPECT_EQ(out, "no\n");
    daemon.answer = true;
    EXPECT_EQ(run({"send", "isDirectoryExecuteComplete"}), 0);
    EXPECT_EQ(out, "yes\n");
}

TEST_F(Control, EmergencyKeepIsTheMainApplicationUntilItIsAskedToEnd) {
    mostPauses = 2;
    EXPECT_EQ(run({"emergency", "keep"}), 0);
    EXPECT_THAT(daemon.words, ElementsAre("(main application)", "QLDaemonIgnoreMountedOstrand",
                                          "(pause)", "(pause)", "QLDaemonUnmountMountedDrive"));
}

TEST_F(Control, EmergencyKeepTellsADaemonThatWasRestartedAgainAndNoOther) {
    daemon.identities = {"", ":1.1", ":1.1", "", ":1.7", ":1.7"};
    mostPauses = 5;
    EXPECT_EQ(run({"emergency", "keep"}), 0);
    EXPECT_THAT(daemon.words,
                ElementsAre("(main application)", "QLDaemonIgnoreMountedOstrand", "(pause)",
                            "(pause)", "(pause)", "QLDaemonIgnoreMountedOstrand", "(pause)",
                            "(pause)", "QLDaemonUnmountMountedDrive"));
}

TEST_F(Control, FreeSpaceCheckSetsBackTheChecksThatWereLetGoBy) {
    for (const std::size_t index : {0U, 2U}) {
        changeEntry(index, [](Dictionary& fields) {
            fields.set("usageStatus", "2");
            fields.set("directoryStatus", "2");
        });
    }
    changeEntry(1, [](Dictionary& fields) { fields.set("usageStatus", "4"); });
    EXPECT_EQ(run({"free-space", "check"}), 0);
    EXPECT_EQ(out, "Free space is checked again.\n");
    EXPECT_THAT(daemon.words, ElementsAre("QLDaemonCheckFreeSpace_WipeData_Msg",
                                          "daemonPreferencesUpdatedNotification"));
    EXPECT_EQ(*entry(0).find("usageStatus"), PropertyList{"0"});
    EXPECT_EQ(*entry(1).find("usageStatus"), PropertyList{"4"});
    EXPECT_EQ(*entry(2).find("usageStatus"), PropertyList{"0"});
    EXPECT_EQ(*entry(0).find("directoryStatus"), PropertyList{"2"});
}

TEST_F(Control, FreeSpaceCheckTriesAgainWhenTheDaemonWritesItsOwnImageOverIt) {
    changeEntry(0, [](Dictionary& fields) { fields.set("usageStatus", "2"); });
    int saves = 0;
    daemon.onWord = [&] {
        if (daemon.words.back() == kReloadWord && saves++ == 0) {
            changeEntry(0, [](Dictionary& fields) { fields.set("usageStatus", "2"); });
        }
    };
    EXPECT_EQ(run({"free-space", "check"}), 0);
    EXPECT_EQ(saves, 2);
    EXPECT_EQ(*entry(0).find("usageStatus"), PropertyList{"0"});
}

TEST_F(Control, CreateAndDeleteSendAbsolutePathsAndSayWhatBecameOfEach) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    const std::string other = folder / "b c";
    EXPECT_EQ(run({"create", "a", other.c_str()}), 0);
    EXPECT_EQ(out, "Created " + (folder / "a") + ".\nCreated " + other + ".\n");
    EXPECT_EQ(run({"delete", "a"}), 0);
    EXPECT_EQ(out, "Deleted " + (folder / "a") + ".\n");
    EXPECT_THAT(daemon.words, ElementsAre("create " + (folder / "a"), "create " + other,
                                          "delete " + (folder / "a")));
    std::filesystem::current_path(before);
}

TEST_F(Control, CreateAndDeleteSayWhatTheDaemonCouldNotDo) {
    daemon.itemFailures = {{"/gone", "No such file or directory"}, {"/b", ""}, {"/another's", "x"}};
    EXPECT_EQ(run({"delete", "/gone", "/a"}), 5);
    EXPECT_EQ(out, "Deleted /a.\n");
    EXPECT_THAT(err, HasSubstr("/gone could not be deleted: No such file or directory"));
    EXPECT_EQ(run({"create", "/gone", "/b"}), 5);
    EXPECT_THAT(err, HasSubstr("/gone could not be created: No such file or directory; /b could "
                               "not be created"));
    EXPECT_THAT(out, IsEmpty());
}

TEST_F(Control, WatchShowsTheStatusAgainOnlyWhenItHasChanged) {
    mostPauses = 3;
    EXPECT_EQ(run({"watch"}), 0);
    const std::string once = out;
    EXPECT_THAT(once, HasSubstr("Daemon            running"));
    EXPECT_EQ(once.find("Daemon"), once.rfind("Daemon  "));
    EXPECT_THAT(daemon.words, SizeIs(3));
    isTerminal = true;
    EXPECT_EQ(run({"watch"}), 0);
    EXPECT_EQ(out, "\x1b[H\x1b[J" + once);
}

TEST_F(Control, RefusesCommandLinesThatSayNothing) {
    for (const auto& line : std::vector<std::vector<const char*>>{{"wait"},
                                                                  {"wait", "all"},
                                                                  {"create"},
                                                                  {"delete"},
                                                                  {"send"},
                                                                  {"emergency"},
                                                                  {"free-space"},
                                                                  {"send", "a", "b"}}) {
        EXPECT_EQ(run(line), 1) << line[0];
        EXPECT_THAT(daemon.words, IsEmpty());
    }
}

}  // namespace
}  // namespace korvane::ctl
