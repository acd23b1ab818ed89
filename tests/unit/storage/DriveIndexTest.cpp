// The index of drives by the names that a check has for them: what it finds, in which order, and
// that it never tells of a tree that is no more.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "storage/DriveIndex.h"
#include "unit/storage/StorageBed.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DriveIndexTest : public testing::Test {
  protected:
    void addDrive(const std::string& name, const char* model, const char* serial) {
        bed.add({.name = name,
                 .controller = {{"device model", model}, {"device serial", serial}},
                 .device = {{"SMART Capable", true}}});
    }
    std::vector<std::string> pathsOf(const char* model, const char* serial) {
        std::vector<std::string> found;
        for (const NumberedDrive& each : index.drivesNamed(model, serial)) {
            EXPECT_EQ(registry().diskPath(each.number), each.drive.path);
            EXPECT_TRUE(registry().properties(each.drive.service));
            found.push_back(each.drive.path);
        }
        return found;
    }
    SimulatedDeviceRegistry& registry() { return bed.machine.deviceRegistry; }

    StorageBed bed;
    DriveIndex index{registry()};
};

TEST_F(DriveIndexTest, FindsTheDrivesThatHaveBothNamesInTheOrderOfTheTree) {
    addDrive("disk2", "Castor", "C1");
    addDrive("disk1", "Castor", "C2");
    addDrive("disk0", "Castor", "C1");
    addDrive("disk4", "Pollux", "C1");
    EXPECT_THAT(pathsOf("Castor", "C1"), ElementsAre("/dev/disk2", "/dev/disk0"));
    EXPECT_THAT(pathsOf("Castor", "C2"), ElementsAre("/dev/disk1"));
    EXPECT_THAT(pathsOf("Pollux", "C1"), ElementsAre("/dev/disk4"));
    EXPECT_THAT(pathsOf("Pollux", "C2"), IsEmpty());
}

TEST_F(DriveIndexTest, LeavesOutWhatHasNoSmartNoNumberOrHalfAName) {
    bed.add({.name = "disk0",
             .controller = {{"device model", "Castor"}, {"device serial", "C1"}},
             .device = {}});
    addDrive("disk25", "Castor", "C1");
    addDrive("other", "Castor", "C1");
    bed.add({.name = "disk1",
             .controller = {{"device model", "Castor"}},
             .device = {{"SMART Capable", true}}});
    EXPECT_THAT(pathsOf("Castor", "C1"), IsEmpty());
    EXPECT_THAT(pathsOf("Castor", ""), IsEmpty());
    addDrive("disk24", "Castor", "C1");
    EXPECT_THAT(pathsOf("Castor", "C1"), ElementsAre("/dev/disk24"));
}

TEST_F(DriveIndexTest, KnowsADriveThatHasComeAndNoneThatHasGone) {
    EXPECT_THAT(pathsOf("Castor", "C1"), IsEmpty());
    addDrive("disk0", "Castor", "C1");
    EXPECT_THAT(pathsOf("Castor", "C1"), ElementsAre("/dev/disk0"));
    registry().remove("disk0 controller");
    EXPECT_THAT(pathsOf("Castor", "C1"), IsEmpty());
    // As it was, but another service.
    addDrive("disk0", "Castor", "C1");
    EXPECT_THAT(pathsOf("Castor", "C1"), ElementsAre("/dev/disk0"));
}

TEST_F(DriveIndexTest, FollowsADriveThatIsRenamedOrMoved) {
    addDrive("disk0", "Castor", "C1");
    EXPECT_THAT(pathsOf("Castor", "C1"), ElementsAre("/dev/disk0"));
    registry().setProperty("disk0", "BSD Name", "disk7");
    EXPECT_THAT(pathsOf("Castor", "C1"), ElementsAre("/dev/disk7"));
    registry().setProperty("disk0 controller", "device serial", "C2");
    EXPECT_THAT(pathsOf("Castor", "C1"), IsEmpty());
    EXPECT_THAT(pathsOf("Castor", "C2"), ElementsAre("/dev/disk7"));
    registry().setProperty("disk0 device", "SMART Capable", PropertyList(false));
    EXPECT_THAT(pathsOf("Castor", "C2"), IsEmpty());
}

TEST_F(DriveIndexTest, IsEmptyWhileTheTreeCannotBeRead) {
    addDrive("disk0", "Castor", "C1");
    EXPECT_THAT(pathsOf("Castor", "C1"), ElementsAre("/dev/disk0"));
    registry().setUnreadable(true);
    EXPECT_THAT(pathsOf("Castor", "C1"), IsEmpty());
    registry().setUnreadable(false);
    EXPECT_THAT(pathsOf("Castor", "C1"), ElementsAre("/dev/disk0"));
}

}  // namespace
}  // namespace korvane
