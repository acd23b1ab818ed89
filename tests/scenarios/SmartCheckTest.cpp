// The SMART check and the drive inventory of the whole daemon: what is warned of, written and kept.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "scenarios/DaemonFiles.h"
#include "scenarios/DriveMachines.h"
#include "storage/SupportFolder.h"
#include "support/Scenario.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

std::vector<std::string> castorResults(Scenario& s) {
    return resultsOf(s.smartLog("Castor 500", "CST1"));
}
std::string statusOf(Scenario& s, const std::string& serial = "CST1") {
    return stringValue(s.driveEntry(serial).find("smartStatus"));
}
double dueOf(Scenario& s, const std::string& serial = "CST1") {
    return doubleValue(s.driveEntry(serial).find("executionTimeSmart"));
}
std::vector<std::string> smartLines(Scenario& s) {
    std::vector<std::string> lines = s.log();
    std::erase_if(lines, [](const std::string& line) { return !line.starts_with("SMART is"); });
    return lines;
}

TEST(SmartCheck, LogsAHealthyDriveAsPassedWithoutADialog) {
    Scenario s(oneDrive());
    s.run(seconds(15));
    ASSERT_THAT(castorResults(s), ElementsAre("passed"));
    EXPECT_EQ(statusOf(s), "3");
    EXPECT_THAT(s.dialogs(), IsEmpty());
    EXPECT_THAT(smartLines(s), IsEmpty());
    const Dictionary entry = s.smartLog("Castor 500", "CST1")[0];
    EXPECT_EQ(*entry.find("bsdName"), PropertyList("/dev/disk1"));
    EXPECT_EQ(*entry.find("driveConnection"), PropertyList("ATA"));
    EXPECT_EQ(*entry.find("driveModel"), PropertyList("Castor 500"));
    EXPECT_EQ(*entry.find("driveSerial"), PropertyList("CST1"));
    ASSERT_NE(entry.find("calendarDate")->date(), nullptr);
    EXPECT_LE(secondsSince1970(*entry.find("calendarDate")->date()), s.secondsNow());
}

TEST(SmartCheck, WarnsOfAFailingDriveAndStillSetsItsStatusToPassed) {
    Scenario s(oneDrive());
    s.age("disk1 drive", DriveCondition::failing).run(seconds(15));
    EXPECT_THAT(castorResults(s), ElementsAre("failed"));
    EXPECT_EQ(statusOf(s), "3");
    EXPECT_THAT(smartLines(s), ElementsAre("SMART is reporting failing for /dev/disk1."));
    EXPECT_THAT(s.dialogs(), ElementsAre(AllOf(HasSubstr("Castor 500"), HasSubstr("CST1"),
                                               HasSubstr("/dev/disk1"))));
}

TEST(SmartCheck, GoesOnWithItsWorkWhereAnotherMailHoldsItsOwnUp) {
    Scenario s(oneDrive());
    s.run(seconds(30)).editPreferences([](Dictionary& settings) {
        settings.set("emailServer", "mail.example.org");
        settings.set("emailPort", "25");
        settings.set("emailAddress", "ada@example.org");
    });
    s.send("daemonPreferencesUpdatedNotification").run(seconds(5));
    const double due = dueOf(s);
    const std::size_t runs = castorResults(s).size();
    s.age("disk1 drive", DriveCondition::failing);
    s.machine().mailServer.setReachability(SimulatedMailServer::Reachability::noAnswer);
    // A tick has started the check, by a timer of 0 seconds, when a word begins another mail.
    while (s.pendingDelays().front() > 0 && s.machine().runLoop.runOnce()) {
    }
    s.send("daemonTestSendingEmailNotification").run(minutes(5));
    ASSERT_EQ(castorResults(s).size(), runs + 1);
    EXPECT_EQ(castorResults(s).back(), "failed");
    EXPECT_EQ(statusOf(s), "3");
    EXPECT_GT(dueOf(s), due);
    EXPECT_THAT(s.log(), Contains("no mail: SMTP controller failed to aquire lock!"));
}

TEST(SmartCheck, MailsAboutAFailingDriveOnEveryRun) {
    Scenario s(oneDrive());
    s.run(seconds(1)).editPreferences([](Dictionary& settings) {
        settings.set("emailServer", "mail.example.org");
        settings.set("emailPort", "25");
        settings.set("emailAddress", "ada@example.org");
    });
    s.send("daemonPreferencesUpdatedNotification");
    s.age("disk1 drive", DriveCondition::failing).run(seconds(30));
    ASSERT_EQ(s.machine().mailServer.messages().size(), 1U);
    EXPECT_THAT(s.machine().mailServer.messages()[0],
                AllOf(HasSubstr("Castor 500"), HasSubstr("CST1"), HasSubstr("/dev/disk1")));
    s.run(std::chrono::hours(2));
    EXPECT_GE(s.machine().mailServer.messages().size(), 2U);
    s.editPreferences([](Dictionary& settings) { settings.set("SMARTCheckEmail", false); });
    s.send("daemonPreferencesUpdatedNotification");
    const std::size_t before = s.machine().mailServer.messages().size();
    s.run(std::chrono::hours(2));
    EXPECT_EQ(s.machine().mailServer.messages().size(), before);
}

TEST(SmartCheck, KeepsTheStatusOfTheLastPassAlone) {
    Scenario s(oneDrive("disk24"));
    s.age("disk24 drive", DriveCondition::failing).run(seconds(15));
    EXPECT_EQ(statusOf(s), "4");
    s.age("disk24 drive", DriveCondition::healthy).run(hours(1));
    EXPECT_EQ(statusOf(s), "3");
    EXPECT_THAT(castorResults(s), ElementsAre("failed", "passed"));
}

TEST(SmartCheck, NeverLooksAtADiskAbove24) {
    Scenario s(oneDrive("disk25"));
    s.age("disk25 drive", DriveCondition::failing).run(seconds(5));
    const auto commands = s.machine().drives.commandCount("disk25 drive");
    s.run(hours(2));
    EXPECT_THAT(castorResults(s), IsEmpty());
    EXPECT_THAT(s.dialogs(), IsEmpty());
    EXPECT_EQ(statusOf(s), "3");
    EXPECT_GT(dueOf(s), s.secondsNow());
    EXPECT_EQ(s.machine().drives.commandCount("disk25 drive"), commands);
}

TEST(SmartCheck, WarnsAgainOnEveryRunWithOneDialogOnTheScreen) {
    Scenario s(oneDrive());
    s.age("disk1 drive", DriveCondition::failing).run(hours(3));
    EXPECT_THAT(s.dialogs(), SizeIs(3));
    EXPECT_THAT(s.dialogsOnScreen(), SizeIs(1));
    EXPECT_THAT(smartLines(s), SizeIs(3));
    EXPECT_THAT(castorResults(s), ElementsAre("failed", "failed", "failed"));
}

TEST(SmartCheck, SetsTheNextTimeOfADriveThatCannotBeAsked) {
    for (const DriveCondition condition :
         {DriveCondition::refusing, DriveCondition::noAutosave, DriveCondition::smartOff,
          DriveCondition::withoutSmart, DriveCondition::vanishing, DriveCondition::unanswering,
          DriveCondition::hanging}) {
        Scenario s(oneDrive());
        s.run(seconds(15)).age("disk1 drive", condition).run(hours(1));
        EXPECT_THAT(castorResults(s), SizeIs(1)) << static_cast<int>(condition);
        EXPECT_EQ(statusOf(s), "3");
        EXPECT_GT(dueOf(s), s.secondsNow());
        EXPECT_THAT(s.dialogs(), IsEmpty());
    }
}

TEST(SmartCheck, GoesOnWithTheOthersWhenOneHangs) {
    MachineDescription machine = oneDrive();
    addDrive(machine, "disk2", named("Pollux", "PLX2"));
    Scenario s(machine);
    s.run(seconds(5)).age("disk1 drive", DriveCondition::hanging).run(hours(2));
    EXPECT_THAT(castorResults(s), IsEmpty());
    EXPECT_THAT(resultsOf(s.smartLog("Pollux", "PLX2")), Not(IsEmpty()));
}

TEST(SmartCheck, AsksNoOtherDriveAndThisOneOnce) {
    MachineDescription machine = oneDrive();
    addDrive(machine, "disk2", named("Pollux", "PLX2"));
    Scenario s(machine);
    s.run(minutes(1));
    const auto castor = s.machine().drives.commandCount("disk1 drive");
    const auto pollux = s.machine().drives.commandCount("disk2 drive");
    // One probe at the start, one check each: never more than four commands for a question.
    EXPECT_EQ(castor, 3U + 4U);
    EXPECT_EQ(pollux, 3U + 4U);
}

TEST(SmartCheck, ChecksTheFirstOfTwoDrivesWithEqualNamesInEachPass) {
    MachineDescription machine = oneDrive();
    addDrive(machine, "disk3", named("Castor 500", "CST1"));
    Scenario s(machine);
    s.age("disk3 drive", DriveCondition::failing).run(seconds(15));
    EXPECT_THAT(castorResults(s), ElementsAre("passed", "failed"));
    EXPECT_THAT(s.dialogs(), SizeIs(1));
    EXPECT_THAT(smartLines(s), ElementsAre("SMART is reporting failing for /dev/disk3."));
}

TEST(SmartCheck, FindsADriveThatWasPulledAndIsBack) {
    Scenario s(oneDrive());
    s.run(minutes(1)).pull("disk1 device").plug("disk1 device");
    s.age("disk1 drive", DriveCondition::failing).run(hours(1));
    EXPECT_THAT(castorResults(s), ElementsAre("passed", "failed"));
}

TEST(SmartCheck, TellsThePathThatADriveHasNow) {
    Scenario s(oneDrive());
    s.run(minutes(1));
    s.machine().deviceRegistry.setProperty("disk1", "BSD Name", "disk3");
    s.age("disk1 drive", DriveCondition::failing).run(hours(1));
    EXPECT_THAT(castorResults(s), ElementsAre("passed", "failed"));
    EXPECT_THAT(smartLines(s), ElementsAre("SMART is reporting failing for /dev/disk3."));
}

// The new drive's entry is the first entry's successor, and nobody warns of the one that is gone.
TEST(SmartCheck, ChecksTheDriveThatHasTakenAnothersPlace) {
    Scenario s(oneDrive());
    s.run(minutes(1));
    s.machine().deviceRegistry.setProperty("disk1 device", "device serial", "CST2");
    s.age("disk1 drive", DriveCondition::failing).becomeActive().run(minutes(1));
    EXPECT_THAT(castorResults(s), ElementsAre("passed"));
    EXPECT_THAT(resultsOf(s.smartLog("Castor 500", "CST2")), ElementsAre("failed"));
}

TEST(SmartCheck, TrimsAModelThatIsFoundAsVendorNameOnly) {
    MachineDescription machine = Scenario::describe("empty");
    addDrive(machine, "disk0", {{"Vendor Name", "  Mizar  "}, {"Serial", " MZ 1 "}});
    Scenario s(machine);
    s.run(seconds(15));
    EXPECT_THAT(resultsOf(s.smartLog("Mizar", "MZ 1")), ElementsAre("passed"));
}

TEST(SmartCheck, JoinsAnIdentificationWithItsRevision) {
    MachineDescription machine = Scenario::describe("empty");
    addDrive(machine, "disk0",
             {{"Vendor Identification", "Mizar"},
              {"Product Identification", "ABC"},
              {"Product Revision Level", "1.0"}});
    Scenario s(machine);
    s.run(seconds(15));
    EXPECT_THAT(resultsOf(s.smartLog("Mizar", "ABC 1.0")), ElementsAre("passed"));
}

TEST(SmartCheck, TellsTheConnection) {
    const auto connectionWith = [](const Dictionary& protocol) {
        MachineDescription machine = Scenario::describe("empty");
        addDrive(machine, "disk0", named("Mizar", "M1"),
                 {{"SMART Capable", true}, {"Protocol Characteristics", protocol}});
        Scenario s(machine);
        s.run(seconds(15));
        const auto log = s.smartLog("Mizar", "M1");
        return log.empty() ? "" : stringValue(log[0].find("driveConnection"));
    };
    EXPECT_EQ(connectionWith({{"Physical Interconnect", "SATA"},
                              {"Physical Interconnect Location", "Internal"}}),
              "SATA");
    EXPECT_EQ(connectionWith({{"Physical Interconnect Location", "Internal"}}), "Internal");
    EXPECT_EQ(connectionWith({{"Physical Interconnect", ""}}), "ATA");
    EXPECT_EQ(connectionWith({{"Physical Interconnect", 5}}), "ATA");
}

// The check looks at the drive itself first, the inventory never does.
TEST(SmartCheck, DoesNotFindADriveThatItNamesOtherwiseThanTheInventory) {
    MachineDescription machine = Scenario::describe("empty");
    addDrive(machine, "disk0", named("Mizar", "M1"),
             {{"SMART Capable", true}, {"device model", "Another"}});
    Scenario s(machine);
    s.run(minutes(1));
    EXPECT_EQ(statusOf(s, "M1"), "3");
    EXPECT_THAT(s.smartLog("Mizar", "M1"), IsEmpty());
    EXPECT_THAT(s.smartLog("Another", "M1"), IsEmpty());
}

TEST(SmartCheck, EscapesWhatWouldLeadOutOfTheSupportFolder) {
    MachineDescription machine = Scenario::describe("empty");
    addDrive(machine, "disk0", named("../../etc/x", "a/.."));
    Scenario s(machine);
    s.run(seconds(15));
    EXPECT_THAT(s.supportFiles(),
                Contains("%2E%2E%2F%2E%2E%2Fetc%2Fx - a%2F%2E%2E/Smart Check.plist"));
    EXPECT_THAT(s.machine().fileSystem.paths(), Not(Contains("/etc/x")));
}

TEST(SmartCheck, TrimsItsLogToTheLimit) {
    Scenario s(oneDrive());
    s.run(seconds(5)).editPreferences([](Dictionary& settings) {
        settings.set("smartEntryLimit", 2);
    });
    s.send("daemonPreferencesUpdatedNotification").run(hours(5));
    EXPECT_THAT(castorResults(s), SizeIs(2));
}

TEST(SmartCheck, TellsMissingRightsOnceADrive) {
    MachineDescription machine = oneDrive();
    addDrive(machine, "disk2", named("Pollux 500", "PLX1"));
    Scenario s(machine);
    s.age("disk1 drive", DriveCondition::notPermitted);
    s.age("disk2 drive", DriveCondition::notPermitted).run(hours(6));
    EXPECT_THAT(castorResults(s), IsEmpty());
    std::vector<std::string> lines = s.log();
    std::erase_if(lines, [](const std::string& l) { return !l.starts_with("No right to ask"); });
    EXPECT_THAT(lines,
                ElementsAre("No right to ask /dev/disk1 for its SMART status: it is not checked. "
                            "Start the daemon as root.",
                            "No right to ask /dev/disk2 for its SMART status: it is not checked. "
                            "Start the daemon as root."));
}

TEST(SmartCheck, CancelsTheDialogOfAnotherCheck) {
    MachineDescription machine = Scenario::describe("one-volume");
    addDrive(machine, "sdz", named("Castor 500", "CST1"));
    Scenario s(machine);
    s.fill("/Volumes/Data", Percent{99}).age("sdz drive", DriveCondition::failing);
    s.run(minutes(1));
    EXPECT_THAT(s.dialogs(), SizeIs(2));
    EXPECT_THAT(s.dialogsOnScreen(), SizeIs(1));
}

TEST(SmartCheck, IsPutOffWhileSwitchedOff) {
    Scenario s(oneDrive());
    s.run(seconds(5)).editPreferences([](Dictionary& settings) {
        settings.set("smartCheckOnOff", false);
    });
    s.send("daemonPreferencesUpdatedNotification").run(hours(2));
    EXPECT_THAT(castorResults(s), IsEmpty());
}

TEST(SmartCheck, PassesOverADriveWhoseCheckIsOff) {
    MachineDescription machine = oneDrive();
    addDrive(machine, "disk2", named("Pollux", "PLX2"));
    Scenario s(machine);
    s.run(seconds(5)).editPreferences([](Dictionary& settings) {
        settings.find("driveArray")->array()->front().dictionary()->set("smartOnOff", false);
    });
    s.send("daemonPreferencesUpdatedNotification").run(minutes(5));
    EXPECT_THAT(castorResults(s), IsEmpty());
    EXPECT_THAT(resultsOf(s.smartLog("Pollux", "PLX2")), SizeIs(1));
}

TEST(SmartCheck, RunsOnBatteryWithTheTicksThatEventsBring) {
    Scenario s(oneDrive());
    s.onBattery().run(seconds(15));
    EXPECT_THAT(castorResults(s), IsEmpty());
    s.becomeActive().run(seconds(15));
    EXPECT_THAT(castorResults(s), ElementsAre("passed"));
    s.run(hours(5));
    EXPECT_THAT(castorResults(s), SizeIs(1));
}

TEST(SmartCheck, TellsTheMainApplicationWhileOneIsDue) {
    Scenario s(oneDrive());
    s.run(seconds(5)).send("isSMARTExecuteComplete");
    EXPECT_EQ(s.answer(), Scenario::Answer::yes);
    // The tick at which the check falls due says so, the tick after the check that it is done.
    s.editPreferences([](Dictionary& settings) {
        Dictionary& entry = *settings.find("driveArray")->array()->front().dictionary();
        entry.set("executionTimeSmart", 0.0);
        entry.set("smartStatus", "2");
    });
    s.send("daemonPreferencesUpdatedNotification").run(seconds(10));
    s.send("isSMARTExecuteComplete");
    EXPECT_EQ(s.answer(), Scenario::Answer::no);
    EXPECT_THAT(castorResults(s), IsEmpty()) << "a check that is marked as running is left alone";
}

TEST(SmartCheck, CountsAsUnderWayUntilATickFindsNothingDue) {
    Scenario s(oneDrive());
    s.run(seconds(10));
    ASSERT_THAT(castorResults(s), SizeIs(1));
    // Neither the check's end nor any word ends it: the tick that the check has asked for does.
    for (const char* word :
         {"isSMARTExecuteComplete", "daemonPreferencesUpdatedNotification",
          "directoryBackupStopNotification", "disableDirectoryBackupNotification",
          "enableDirectoryBackupNotification", "QLDaemonCheckFreeSpace_WipeData_Msg"}) {
        s.send(word).send("isSMARTExecuteComplete");
        EXPECT_EQ(s.answer(), Scenario::Answer::no) << word;
    }
    s.becomeActive().run(std::chrono::milliseconds(999));
    EXPECT_EQ(s.send("isSMARTExecuteComplete").answer(), Scenario::Answer::no);
    s.run(std::chrono::milliseconds(1));
    EXPECT_EQ(s.send("isSMARTExecuteComplete").answer(), Scenario::Answer::yes);
}

TEST(SmartCheck, OneTickStartsTheFirstDueDriveOnly) {
    MachineDescription machine = oneDrive();
    addDrive(machine, "disk2", named("Pollux", "PLX2"));
    Scenario s(machine);
    s.run(std::chrono::milliseconds(10'001));
    EXPECT_THAT(castorResults(s), SizeIs(1));
    EXPECT_THAT(s.smartLog("Pollux", "PLX2"), IsEmpty());
    s.run(seconds(1));
    EXPECT_THAT(s.smartLog("Pollux", "PLX2"), SizeIs(1));
}

TEST(DriveEntries, HaveTheirDefaultsAndAreWrittenAtTheStart) {
    Scenario s(oneDrive());
    s.run(std::chrono::milliseconds(1));
    const Dictionary entry = s.driveEntry("CST1");
    EXPECT_EQ(
        textOf(entry),
        textOf(Dictionary{{"driveModel", "Castor 500"},
                          {"driveSerial", "CST1"},
                          {"driveChecked", true},
                          {"smartOnOff", true},
                          {"smartStatus", "0"},
                          {"executionIntervalSmart_hours", 1},
                          {"executionIntervalSmart_minutes", 0},
                          {"executionIntervalSmart_seconds", 0},
                          {"executionTimeSmart", doubleValue(entry.find("executionTimeSmart"))}}));
    EXPECT_NEAR(dueOf(s), s.secondsNow() + 10, 0.01);
}

TEST(DriveEntries, GoWithTheirDriveAndComeBackWithDefaults) {
    Scenario s(oneDrive());
    s.run(minutes(1)).editPreferences([](Dictionary& settings) {
        settings.find("driveArray")->array()->front().dictionary()->set("smartOnOff", false);
    });
    s.send("daemonPreferencesUpdatedNotification").becomeActive().run(seconds(5));
    EXPECT_EQ(*s.driveEntry("CST1").find("smartOnOff"), PropertyList(false));
    s.pull("disk1 device").becomeActive().run(seconds(5));
    EXPECT_TRUE(s.driveEntry("CST1").empty());
    s.plug("disk1 device").becomeActive().run(seconds(5));
    EXPECT_EQ(*s.driveEntry("CST1").find("smartOnOff"), PropertyList(true));
    EXPECT_THAT(castorResults(s), SizeIs(1)) << "the log outlives the entry";
}

TEST(DriveEntries, AreMarkedAsNotYetExaminedAtTheStart) {
    Scenario s(oneDrive());
    s.run(minutes(1));
    EXPECT_EQ(statusOf(s), "3");
    s.restart().run(std::chrono::milliseconds(1));
    EXPECT_EQ(statusOf(s), "0");
}

TEST(DriveEntries, AreProbedAtTheStartAndAtAMountAndNowhereElse) {
    Scenario s(oneDrive());
    s.age("disk1 drive", DriveCondition::smartOff).run(std::chrono::milliseconds(1));
    EXPECT_TRUE(s.driveEntry("CST1").empty());
    s.run(seconds(5));
    EXPECT_FALSE(s.driveEntry("CST1").empty()) << "the tick takes the registry's word";
    s.mount("/Volumes/New").run(std::chrono::milliseconds(100));
    EXPECT_TRUE(s.driveEntry("CST1").empty());
    s.unmount("/Volumes/New").run(std::chrono::milliseconds(100));
    EXPECT_FALSE(s.driveEntry("CST1").empty());
    s.send("daemonPreferencesUpdatedNotification").run(std::chrono::milliseconds(100));
    EXPECT_FALSE(s.driveEntry("CST1").empty()) << "nor does a reload ask the drive";
}

TEST(DriveEntries, AreNotWrittenWhileNothingChanges) {
    Scenario s(oneDrive());
    s.run(minutes(2));
    const auto writes = s.preferenceWrites();
    s.becomeActive().run(minutes(2));
    EXPECT_EQ(s.preferenceWrites(), writes);
}

TEST(DriveEntries, AreAllDeletedWhenTheRegistryCannotBeRead) {
    Scenario s(oneDrive());
    s.run(minutes(1));
    s.machine().deviceRegistry.setUnreadable(true);
    s.becomeActive().run(seconds(2));
    EXPECT_TRUE(s.driveEntry("CST1").empty());
}

TEST(DriveEntries, AreDueInTheOutTimer) {
    Scenario s(oneDrive());
    s.run(minutes(2));
    EXPECT_THAT(s.pendingDelays(), Contains(testing::DoubleNear(3600 - 110, 2)));
}

TEST(SmartCheck, OfADriveThatRestsAddsNothingAndWarnsOfNothing) {
    Scenario s(oneDrive());
    s.age("disk1 drive", DriveCondition::failing).run(seconds(15));
    ASSERT_THAT(castorResults(s), ElementsAre("failed"));
    EXPECT_FALSE(s.driveEntry("CST1").contains("smartResting"));
    const double due = dueOf(s);
    s.age("disk1 drive", DriveCondition::resting).run(hours(3));
    EXPECT_THAT(castorResults(s), ElementsAre("failed"));
    EXPECT_THAT(s.dialogs(), SizeIs(1));
    EXPECT_THAT(smartLines(s), SizeIs(1));
    EXPECT_GE(dueOf(s), due + 3 * 3600);
    EXPECT_EQ(statusOf(s), "3");
    EXPECT_EQ(*s.driveEntry("CST1").find("smartResting"), PropertyList(true));
    s.age("disk1 drive", DriveCondition::healthy).run(hours(1));
    EXPECT_THAT(castorResults(s), ElementsAre("failed", "passed"));
    EXPECT_FALSE(s.driveEntry("CST1").contains("smartResting"));
}

TEST(SmartCheck, GoesThroughTheDisksInTheOrderOfTheirNumbers) {
    MachineDescription machine = oneDrive("disk7");
    addDrive(machine, "disk2", named("Castor 500", "CST1"));
    Scenario s(machine);
    s.run(seconds(15));
    std::vector<std::string> paths;
    for (const Dictionary& entry : s.smartLog("Castor 500", "CST1")) {
        paths.push_back(stringValue(entry.find("bsdName")));
    }
    EXPECT_THAT(paths, ElementsAre("/dev/disk2", "/dev/disk7"));
}

TEST(SmartCheck, WritesItsLogBeforeItSaves) {
    Scenario s(oneDrive());
    s.run(seconds(11));
    const std::string journal = s.machine().journal.text();
    const auto result = journal.find("write and sync " + std::string(kSupportFolder) +
                                     "/Castor 500 - CST1/Smart Check.plist");
    ASSERT_NE(result, std::string::npos) << journal;
    EXPECT_NE(journal.find("KorvaneProtection.plist", result), std::string::npos);
    // Since the check began, which was by a timer of 0 seconds.
    const auto begun = journal.rfind("timer 0.000000 s", result);
    ASSERT_NE(begun, std::string::npos);
    EXPECT_EQ(journal.substr(begun, result - begun).find("KorvaneProtection.plist"),
              std::string::npos);
}

TEST(SmartCheck, MailsThoughNobodyCanBeShownTheDialog) {
    Scenario s(oneDrive());
    s.run(seconds(1)).editPreferences([](Dictionary& settings) {
        settings.set("emailServer", "mail.example.org");
        settings.set("emailPort", "25");
        settings.set("emailAddress", "ada@example.org");
    });
    s.send("daemonPreferencesUpdatedNotification");
    s.machine().alertDialogs.setUnavailable(true);
    s.age("disk1 drive", DriveCondition::failing).run(seconds(30));
    EXPECT_THAT(s.dialogs(), IsEmpty());
    EXPECT_THAT(s.machine().mailServer.messages(), SizeIs(1));
}

}  // namespace
}  // namespace korvane
