// Drives that vanish, lie deep, have no name or come by the hundred: what the daemon makes of them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "scenarios/DriveMachines.h"
#include "support/Scenario.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::string connectionOf(Scenario& s) {
    const auto log = s.run(seconds(15)).smartLog("Mizar", "M1");
    return log.empty() ? "none" : stringValue(log[0].find("driveConnection"));
}
Dictionary connectedBy(const std::string& interconnect) {
    return {{"Protocol Characteristics", Dictionary{{"Physical Interconnect", interconnect}}}};
}

TEST(DriveFaults, ADriveThatIsPulledWhileItIsAskedLeavesNoResult) {
    MachineDescription machine = oneDrive();
    addDrive(machine, "disk2", named("Pollux", "PLX2"));
    Scenario s(machine);
    s.run(seconds(5)).age("disk1 drive", DriveCondition::leaving).run(hours(1));
    EXPECT_THAT(s.smartLog("Castor 500", "CST1"), IsEmpty());
    EXPECT_THAT(s.dialogs(), IsEmpty());
    EXPECT_EQ(stringValue(s.driveEntry("CST1").find("smartStatus")), "3");
    EXPECT_THAT(resultsOf(s.smartLog("Pollux", "PLX2")), ElementsAre("passed"));
    s.pull("disk1 device").becomeActive().run(seconds(5));
    EXPECT_TRUE(s.driveEntry("CST1").empty());
}

TEST(DriveFaults, ADriveThatVanishesBeforeItIsOpenedIsPassedOver) {
    MachineDescription machine = oneDrive();
    addDrive(machine, "disk2", named("Pollux", "PLX2"));
    Scenario s(machine);
    s.age("disk1 drive", DriveCondition::vanishing).run(std::chrono::milliseconds(1));
    EXPECT_TRUE(s.driveEntry("CST1").empty()) << "it was probed";
    EXPECT_FALSE(s.driveEntry("PLX2").empty());
    s.run(minutes(1));
    EXPECT_THAT(s.smartLog("Castor 500", "CST1"), IsEmpty());
    EXPECT_THAT(resultsOf(s.smartLog("Pollux", "PLX2")), ElementsAre("passed"));
}

TEST(DriveFaults, OfTwoHundredDrivesAllHaveEntriesAndTheFirst25AreChecked) {
    MachineDescription machine = Scenario::describe("empty");
    for (int i = 0; i < 200; ++i) {
        const std::string number = std::to_string(i);
        addDrive(machine, "disk" + number, named("Model", "S" + number));
    }
    Scenario s(machine);
    s.age("disk7 drive", DriveCondition::failing);
    s.age("disk9 drive", DriveCondition::hanging);
    s.run(minutes(30));
    const Dictionary settings = s.preferences();
    // The one that hung at the start has come in since, on the registry's word.
    EXPECT_THAT(*settings.find("driveArray")->array(), SizeIs(200));
    std::vector<std::string> checked;
    for (int i = 0; i < 200; ++i) {
        const auto log = s.smartLog("Model", "S" + std::to_string(i));
        if (!log.empty()) checked.push_back(std::to_string(i));
        EXPECT_EQ(log.size(), i <= 24 && i != 9 ? 1U : 0U) << i;
    }
    EXPECT_THAT(checked, SizeIs(24));
    EXPECT_THAT(s.dialogs(), SizeIs(1));
    for (const PropertyList& drive : *settings.find("driveArray")->array()) {
        EXPECT_GT(doubleValue(drive.dictionary()->find("executionTimeSmart")), s.secondsNow());
    }
}

// Its port names it to the inventory; to the check it has no serial number.
TEST(DriveFaults, ADriveKnownByItsPortAloneIsNeverChecked) {
    MachineDescription machine = Scenario::describe("empty");
    addDrive(machine, "disk1", {{"USB Product Name", "Dock"}, {"locationID", 4660}});
    Scenario s(machine);
    s.age("disk1 drive", DriveCondition::failing).run(hours(2));
    EXPECT_FALSE(s.driveEntry("4660").empty());
    EXPECT_THAT(s.smartLog("Dock", "4660"), IsEmpty());
    EXPECT_THAT(s.dialogs(), IsEmpty());
}

TEST(DriveFaults, AMediumIsFoundBelowWhatHasNoNameOfItsOwn) {
    MachineDescription machine = Scenario::describe("empty");
    machine.services = {
        {"device", "IOService", "", named("Mizar", "M1")},
        {"drive", "IOBlockStorageDevice", "device", Dictionary{{"SMART Capable", true}}},
        {"driver", "IOService", "drive", Dictionary{}},
        {"disk3", "IOMedia", "driver", Dictionary{{"BSD Name", "disk3"}, {"Whole", true}}}};
    Scenario s(machine);
    EXPECT_EQ(connectionOf(s), "ATA");
    EXPECT_EQ(*s.smartLog("Mizar", "M1")[0].find("bsdName"), PropertyList("/dev/disk3"));
}

TEST(DriveFaults, TheConnectionIsTheNearestThatIsToldUpToTheRoot) {
    const auto connectionWith = [](const Dictionary& drive, const Dictionary& device,
                                   const Dictionary& bus) {
        MachineDescription machine = Scenario::describe("empty");
        Dictionary named = device;
        named.set("device model", "Mizar");
        named.set("device serial", "M1");
        Dictionary capable = drive;
        capable.set("SMART Capable", true);
        machine.services = {
            {"bus", "IOService", "", bus},
            {"device", "IOService", "bus", named},
            {"drive", "IOBlockStorageDevice", "device", capable},
            {"disk1", "IOMedia", "drive", Dictionary{{"BSD Name", "disk1"}, {"Whole", true}}}};
        Scenario s(machine);
        return connectionOf(s);
    };
    EXPECT_EQ(connectionWith({}, {}, connectedBy("SAS")), "SAS");
    EXPECT_EQ(connectionWith({}, connectedBy("USB"), connectedBy("SAS")), "USB");
    EXPECT_EQ(connectionWith(connectedBy("SATA"), connectedBy("USB"), {}), "SATA");
    EXPECT_EQ(connectionWith(connectedBy(""), connectedBy("USB"), {}), "USB");
}

TEST(DriveFaults, TheNextCheckComesAfterHoursMinutesAndSeconds) {
    Scenario s(oneDrive());
    s.run(seconds(5)).editPreferences([](Dictionary& settings) {
        Dictionary& entry = *settings.find("driveArray")->array()->front().dictionary();
        entry.set("executionIntervalSmart_hours", 2);
        entry.set("executionIntervalSmart_minutes", 3);
        entry.set("executionIntervalSmart_seconds", 4);
    });
    s.send("daemonPreferencesUpdatedNotification").run(seconds(30));
    const auto log = s.smartLog("Castor 500", "CST1");
    ASSERT_THAT(log, SizeIs(1));
    EXPECT_NEAR(doubleValue(s.driveEntry("CST1").find("executionTimeSmart")) -
                    secondsSince1970(*log[0].find("calendarDate")->date()),
                2 * 3600 + 3 * 60 + 4, 1.5);
}

TEST(DriveFaults, AWarningIsLoggedThenShownThenMailed) {
    Scenario s(oneDrive());
    s.run(seconds(1)).editPreferences([](Dictionary& settings) {
        settings.set("emailServer", "mail.example.org");
        settings.set("emailPort", "25");
        settings.set("emailAddress", "ada@example.org");
    });
    s.send("daemonPreferencesUpdatedNotification");
    s.age("disk1 drive", DriveCondition::failing).run(seconds(14));
    const std::string journal = s.machine().journal.text();
    const auto line = journal.find("SMART is reporting failing for /dev/disk1.");
    const auto dialog = journal.find("dialog", line);
    const auto mail = journal.find("mail connection", line);
    const auto result = journal.find("Smart Check.plist", line);
    ASSERT_NE(mail, std::string::npos) << journal;
    EXPECT_LT(line, dialog);
    EXPECT_LT(dialog, mail);
    EXPECT_LT(mail, result) << "the mail is not queued behind the rest of the check";
    EXPECT_EQ(journal.find("mail connection"), mail);
}

}  // namespace
}  // namespace korvane
