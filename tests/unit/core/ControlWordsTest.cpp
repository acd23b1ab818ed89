#include <gtest/gtest.h>

#include <string>

#include "core/ControlWords.h"

namespace korvane {
namespace {

TEST(ControlWords, EveryWordOfTheVocabularyHasItsAction) {
    const struct {
        const char* word;
        ControlAction action;
    } rows[] = {
        {"daemonStartYourEngines", ControlAction::reload},
        {"daemonStopYourEngines", ControlAction::reload},
        {"QLDaemonIgnoreMountedOstrand", ControlAction::ignoreMountedOstrand},
        {"QLDaemonUnmountMountedDrive", ControlAction::unmountMountedOstrand},
        {"daemonTestSendingEmailNotification", ControlAction::testMail},
        {"daemonPreferencesUpdatedNotification", ControlAction::reload},
        {"directoryBackupStopNotification", ControlAction::stopDirectoryBackup},
        {"disableDirectoryBackupNotification", ControlAction::disableDirectoryBackup},
        {"enableDirectoryBackupNotification", ControlAction::enableDirectoryBackup},
        {"isDirectoryExecuteComplete", ControlAction::isDirectoryComplete},
        {"isSMARTExecuteComplete", ControlAction::isSmartComplete},
        {"QLDaemonIgnoreFreeSpace_WipeData_Msg", ControlAction::ignoreFreeSpace},
        {"QLDaemonCheckFreeSpace_WipeData_Msg", ControlAction::checkFreeSpace},
    };
    for (const auto& row : rows) EXPECT_EQ(controlAction(row.word), row.action) << row.word;
}

TEST(ControlWords, AnythingElseAsksForNothing) {
    const std::string rows[] = {
        "",
        " ",
        "daemonstartyourengines",  // the case of letters counts
        "DAEMONSTOPYOURENGINES",
        "daemonStartYourEngine",  // a word's beginning is not the word
        "daemonStartYourEngines ",
        " isSMARTExecuteComplete",
        std::string("daemonStartYourEngines\0", 23),
        "\xff\xfe",
        std::string(1 << 20, 'd'),
    };
    for (const std::string& row : rows) EXPECT_EQ(controlAction(row), ControlAction::nothing);
}

}  // namespace
}  // namespace korvane
