// A pass of the drive inventory: what gets an entry, under which names, and what loses it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "storage/DriveEntry.h"
#include "storage/DriveInventory.h"
#include "storage/DriveNaming.h"
#include "storage/SmartStatus.h"
#include "unit/storage/StorageBed.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const Time kNow = timeFromSecondsSince1970(1'700'000'000);

class DriveInventory : public testing::Test {
  protected:
    // A drive whose service has SMART, below devices with these properties, the nearest first.
    std::string addDrive(const std::vector<Dictionary>& devices,
                         const Dictionary& drive = {{"SMART Capable", true}}) {
        const std::string name = "disk" + std::to_string(driveCount_++);
        std::string parent;
        for (std::size_t i = devices.size(); i > 0; --i) {
            const std::string device = name + " device " + std::to_string(i);
            EXPECT_TRUE(registry().add({device, "IOService", parent, devices[i - 1]}));
            parent = device;
        }
        EXPECT_TRUE(registry().add({name + " drive", kDriveClass, parent, drive}));
        EXPECT_TRUE(
            registry().add({name, "IOMedia", name + " drive", Dictionary{{"BSD Name", name}}}));
        return name + " drive";
    }
    std::string addDrive(const char* model, const char* serial) {
        return addDrive({{{"device model", model}, {"device serial", serial}}});
    }
    DrivePassOutcome pass(DriveProbe probe = DriveProbe::none) {
        return refreshDriveEntries(registry(), probe, entries, kNow);
    }
    // The serial that the only drive has, with these properties on its only device.
    std::string serialWith(Dictionary properties) {
        DriveInventory::entries.clear();
        properties.set("Model", "Some");
        const std::string drive = addDrive({properties});
        (void)pass();
        const std::string serial = entries.empty() ? "no entry" : entryAt(0).driveSerial();
        registry().remove(drive);
        return serial;
    }
    ConstDriveEntry entryAt(std::size_t index) { return *ConstDriveEntry::over(entries[index]); }
    std::vector<std::string> serials() {
        std::vector<std::string> found;
        for (const PropertyList& element : entries) {
            found.push_back(ConstDriveEntry::over(element)->driveSerial());
        }
        return found;
    }
    SimulatedDeviceRegistry& registry() { return bed.machine.deviceRegistry; }

    StorageBed bed;
    PropertyListArray entries;

  private:
    int driveCount_ = 0;
};

TEST_F(DriveInventory, GivesANewDriveItsDefaults) {
    addDrive("Castor", "C1");
    EXPECT_TRUE(pass().changed);
    ASSERT_THAT(entries, SizeIs(1));
    EXPECT_EQ(*entries[0].dictionary(), (Dictionary{{"driveModel", "Castor"},
                                                    {"driveSerial", "C1"},
                                                    {"driveChecked", true},
                                                    {"smartOnOff", true},
                                                    {"smartStatus", "0"},
                                                    {"executionIntervalSmart_hours", 1},
                                                    {"executionIntervalSmart_minutes", 0},
                                                    {"executionIntervalSmart_seconds", 0},
                                                    {"executionTimeSmart", 1'700'000'010.0}}));
}

TEST_F(DriveInventory, KeepsADriveWithAllItsSettings) {
    addDrive("Castor", "C1");
    (void)pass();
    entries[0].dictionary()->set("smartOnOff", false);
    entries[0].dictionary()->set("of the main application", 5);
    EXPECT_FALSE(pass().changed);
    EXPECT_FALSE(entryAt(0).smartOnOff());
    EXPECT_TRUE(entryAt(0).driveChecked());
    EXPECT_TRUE(entries[0].dictionary()->contains("of the main application"));
}

TEST_F(DriveInventory, DeletesADriveThatIsGone) {
    const std::string first = addDrive("Castor", "C1");
    addDrive("Castor", "C2");
    (void)pass();
    registry().remove(first);
    EXPECT_TRUE(pass().changed);
    EXPECT_THAT(serials(), ElementsAre("C2"));
}

TEST_F(DriveInventory, DeletesEverythingWhenTheRegistryCannotBeRead) {
    addDrive("Castor", "C1");
    (void)pass();
    registry().setUnreadable(true);
    EXPECT_TRUE(pass().changed);
    EXPECT_THAT(entries, IsEmpty());
}

TEST_F(DriveInventory, LeavesWhatIsNoEntryAndDeletesWhatIsHardlyOne) {
    entries = {"text", Dictionary{}, 5, PropertyListArray{}};
    EXPECT_TRUE(pass().changed);
    EXPECT_EQ(entries, (PropertyListArray{"text", 5, PropertyListArray{}}));
    EXPECT_FALSE(pass().changed);
}

TEST_F(DriveInventory, PassesOverDrivesWithoutSmart) {
    const Dictionary named{{"device model", "Castor"}, {"device serial", "C1"}};
    addDrive({named}, {});
    addDrive({named}, {{"SMART Capable", false}});
    EXPECT_FALSE(pass().changed);
    EXPECT_THAT(entries, IsEmpty());
}

TEST_F(DriveInventory, AsksTheDriveOnlyWhenItProbes) {
    const std::string drive = addDrive("Castor", "C1");
    for (const DriveCondition condition :
         {DriveCondition::smartOff, DriveCondition::refusing, DriveCondition::noAutosave,
          DriveCondition::withoutSmart, DriveCondition::vanishing, DriveCondition::hanging}) {
        bed.machine.drives.setCondition(drive, condition);
        (void)pass(DriveProbe::none);
        EXPECT_THAT(entries, SizeIs(1)) << static_cast<int>(condition);
        const DrivePassOutcome outcome = pass(DriveProbe::smart);
        EXPECT_THAT(entries, IsEmpty()) << static_cast<int>(condition);
        EXPECT_TRUE(outcome.changed);
        EXPECT_THAT(outcome.outOfReach, IsEmpty());
    }
    bed.machine.drives.setCondition(drive, DriveCondition::failing);
    (void)pass(DriveProbe::smart);
    EXPECT_THAT(entries, SizeIs(1)) << "a failing drive has SMART";
}

TEST_F(DriveInventory, NamesTheDrivesThatItHadNoRightToAsk) {
    bed.machine.drives.setCondition(addDrive("Castor", "C1"), DriveCondition::notPermitted);
    addDrive("Castor", "C2");
    // Whether that one has SMART could not even be asked.
    addDrive({{{"Serial Number", "C3"}}}, {{"SMART Out Of Reach", true}});
    EXPECT_THAT(pass(DriveProbe::smart).outOfReach, ElementsAre("/dev/disk0", "/dev/disk2"));
    EXPECT_THAT(serials(), ElementsAre("C2"));
}

TEST_F(DriveInventory, PassesOverDiskImages) {
    const Dictionary named{{"device model", "Castor"}, {"device serial", "C1"}};
    addDrive({named, {{"Product Name", "Disk Image"}}});
    EXPECT_FALSE(pass().changed);
    addDrive({named, {{"Product Name", "disk image"}}});
    addDrive({{{"device model", "Castor"}, {"device serial", "C2"}},
              {{"Product Name", PropertyListArray{"Disk Image"}}}});
    (void)pass();
    EXPECT_THAT(serials(), ElementsAre("C1", "C2"));
}

TEST_F(DriveInventory, TrimsPlainSpacesAlone) {
    addDrive("  Castor  500 ", " C 1 ");
    addDrive("\tPollux\n", "P1\t");
    (void)pass();
    EXPECT_EQ(entryAt(0).driveModel(), "Castor  500");
    EXPECT_EQ(entryAt(0).driveSerial(), "C 1");
    EXPECT_EQ(entryAt(1).driveModel(), "\tPollux\n");
    EXPECT_EQ(entryAt(1).driveSerial(), "P1\t");
}

TEST_F(DriveInventory, TakesTheFirstModelKeyThatHoldsAText) {
    const char* keys[] = {
        "device model", "USB Product Name",      "FireWire Product Name", "Product Name",
        "Model",        "Vendor Identification", "Vendor Name",           "model"};
    Dictionary properties{{"device serial", "C1"}};
    for (const char* key : keys) properties.set(key, std::string("by ") + key);
    for (const char* key : keys) {
        entries.clear();
        const std::string drive = addDrive({properties});
        (void)pass();
        ASSERT_THAT(entries, SizeIs(1));
        EXPECT_EQ(entryAt(0).driveModel(), std::string("by ") + key);
        registry().remove(drive);
        // Neither an empty text nor another kind of value counts.
        properties.set(key, key[0] == 'M' ? PropertyList("") : PropertyList(5));
    }
}

TEST_F(DriveInventory, TakesTheFirstSerialKeyThatHoldsAText) {
    const char* keys[] = {"device serial", "USB Serial Number", "Serial", "Serial Number",
                          "hdiagent-drive-identifier"};
    Dictionary properties{{"Product Identification", "ABC"}, {"GUID", 1}};
    for (const char* key : keys) properties.set(key, key);
    for (const char* key : keys) {
        EXPECT_EQ(serialWith(properties), key);
        properties.remove(key);
    }
    EXPECT_EQ(serialWith(properties), "ABC");
}

TEST_F(DriveInventory, JoinsAnIdentificationWithTheRevisionAsItIsStored) {
    EXPECT_EQ(serialWith({{"Product Identification", "ABC"}, {"Product Revision Level", "1.0"}}),
              "ABC 1.0");
    EXPECT_EQ(serialWith({{"Product Identification", " ABC "}, {"Product Revision Level", " 1 "}}),
              "ABC  1 ");
    EXPECT_EQ(serialWith({{"Product Revision Level", " 1.0 "}}), "1.0");
    EXPECT_EQ(serialWith({{"Product Identification", ""}, {"Product Revision Level", "1.0"}}),
              "1.0");
}

TEST_F(DriveInventory, TakesANumberWhereThereIsNoSerial) {
    EXPECT_EQ(serialWith({{"locationID", 4660}}), "4660");
    EXPECT_EQ(serialWith({{"GUID", 77}, {"locationID", 4660}}), "77");
    EXPECT_EQ(serialWith({{"GUID", std::uint64_t{18'446'744'073'709'551'615U}}}),
              "18446744073709551615");
    EXPECT_EQ(serialWith({{"GUID", "text"}, {"locationID", 4660}}), "4660");
    EXPECT_EQ(serialWith({{"device serial", "S"}, {"GUID", 77}}), "S");
    EXPECT_EQ(serialWith({}), "no entry");
}

TEST_F(DriveInventory, TakesNoNumberBeforeAModelIsFound) {
    addDrive({{{"locationID", 4660}}, {{"Model", "Castor"}, {"locationID", 22}}});
    (void)pass();
    EXPECT_THAT(serials(), ElementsAre("22"));
}

TEST_F(DriveInventory, PassesOverADriveThatHasNoSerialAnywhere) {
    addDrive({{{"Model", "Castor"}}, {}});
    EXPECT_FALSE(pass().changed);
}

TEST_F(DriveInventory, DoesNotLookAtTheDriveItself) {
    addDrive({{{"Model", "Castor"}, {"Serial", "C1"}}},
             {{"SMART Capable", true}, {"Model", "Another"}, {"Serial", "A1"}});
    (void)pass();
    EXPECT_THAT(serials(), ElementsAre("C1"));
}

// The model is on one device and the serial on the next: what is kept is the later one alone, so
// that the entry is never the one of the pass before.
TEST_F(DriveInventory, MakesADriveNamedByTwoDevicesAnewOnEveryPass) {
    addDrive({{{"Model", "Castor"}}, {{"Serial", "C1"}}});
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(pass().changed);
        ASSERT_THAT(entries, SizeIs(1));
        EXPECT_FALSE(entries[0].dictionary()->contains("driveModel"));
        EXPECT_EQ(entryAt(0).driveSerial(), "C1");
        EXPECT_TRUE(entryAt(0).smartOnOff()) << "with its defaults";
        entries[0].dictionary()->set("smartOnOff", false);
    }
}

TEST_F(DriveInventory, GivesDrivesOfEqualNamesOneEntry) {
    addDrive("Castor", "C1");
    addDrive("Castor", "C1");
    addDrive("Castor", "C2");
    EXPECT_TRUE(pass().changed);
    EXPECT_THAT(serials(), ElementsAre("C1", "C2"));
    EXPECT_FALSE(pass().changed);
}

TEST_F(DriveInventory, KeepsTheFirstOfTwoEqualEntries) {
    addDrive("Castor", "C1");
    (void)pass();
    entries.push_back(entries.front());
    entries[1].dictionary()->set("smartOnOff", false);
    EXPECT_TRUE(pass().changed);
    ASSERT_THAT(entries, SizeIs(1));
    EXPECT_TRUE(entryAt(0).smartOnOff());
}

TEST_F(DriveInventory, ListsDrivesInTheOrderOfTheirDiscovery) {
    for (int i = 0; i < 200; ++i) addDrive("Castor", std::to_string(i).c_str());
    EXPECT_TRUE(pass(DriveProbe::smart).changed);
    ASSERT_THAT(entries, SizeIs(200));
    EXPECT_EQ(entryAt(150).driveSerial(), "150");
    EXPECT_FALSE(pass(DriveProbe::smart).changed);
}

TEST_F(DriveInventory, DiffersFromTheCheckInWhereItLooksAndWhatItTrims) {
    const std::string drive = addDrive({{{"Model", "\t Castor \n"}, {"Serial", " C1 "}}},
                                       {{"SMART Capable", true}, {"Serial", "own"}});
    const ServiceId service = bed.service(drive);
    const auto inventory = inventoryIdentity(registry(), service);
    ASSERT_TRUE(inventory);
    EXPECT_EQ(inventory->model, "\t Castor \n");
    EXPECT_EQ(inventory->serial, "C1");
    const CheckedDrive checked = checkedDrive(registry(), service);
    EXPECT_EQ(checked.identity.model, "Castor");
    EXPECT_EQ(checked.identity.serial, "own");
    EXPECT_EQ(checked.path, "/dev/disk0");
}

TEST_F(DriveInventory, LooksForDiskImagesAboveTheDriveAlone) {
    addDrive({{{"device model", "Castor"}, {"device serial", "C1"}}},
             {{"SMART Capable", true}, {"Product Name", "Disk Image"}});
    (void)pass();
    EXPECT_THAT(serials(), ElementsAre("C1"));
    addDrive(
        {{{"device model", "Castor"}, {"device serial", "C2"}, {"Product Name", "Disk Image"}}});
    (void)pass();
    EXPECT_THAT(serials(), ElementsAre("C1"));
}

TEST_F(DriveInventory, AsksNothingMoreOfADriveThatRefuses) {
    const std::string drive = addDrive("Castor", "C1");
    bed.machine.drives.setCondition(drive, DriveCondition::refusing);
    (void)pass(DriveProbe::smart);
    EXPECT_EQ(bed.machine.drives.commandCount(drive), 1U) << "neither autosave nor what it is";
    bed.machine.drives.setCondition(drive, DriveCondition::noAutosave);
    (void)pass(DriveProbe::smart);
    EXPECT_EQ(bed.machine.drives.commandCount(drive), 3U) << "not what it is";
    EXPECT_NE(askSmartStatus(registry(), registry().services(kDriveClass)->front()).status,
              kDriveSuccess);
    EXPECT_EQ(bed.machine.drives.commandCount(drive), 5U);
}

}  // namespace
}  // namespace korvane
