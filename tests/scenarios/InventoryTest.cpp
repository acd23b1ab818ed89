// The inventories of the whole daemon: what it hands on to their passes, and what comes of it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "scenarios/DaemonFiles.h"
#include "scenarios/DriveMachines.h"
#include "storage/SupportFolder.h"
#include "support/Scenario.h"

namespace korvane {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kData[] = "/Volumes/Data";

MountDescription* mountOfData(MachineDescription& machine) {
    for (MountDescription& mount : machine.mounts) {
        if (mount.path == kData) return &mount;
    }
    return nullptr;
}

// "one-volume" with the medium of its volume encrypted.
MachineDescription withEncryptedData() {
    MachineDescription machine = Scenario::describe("one-volume");
    const std::string device = mountOfData(machine)->device;
    for (ServiceDescription& service : machine.services) {
        const PropertyList* name = service.properties.find("BSD Name");
        if (name && device == "/dev/" + stringValue(name)) {
            service.properties.set("CoreStorage Encrypted", true);
        }
    }
    return machine;
}

TEST(Inventory, PassesOverRecoveryVolumesBySystemVersion) {
    for (const auto& [version, hasEntry] :
         {std::pair{SystemVersion{10, 6, 8}, true}, std::pair{SystemVersion{10, 7, 0}, false}}) {
        MachineDescription machine = Scenario::describe("one-volume");
        machine.version = version;
        mountOfData(machine)->path = "/Volumes/Recovery HD";
        Scenario s(machine);
        s.run(seconds(1));
        EXPECT_EQ(!s.volumeEntry("/Volumes/Recovery HD").empty(), hasEntry) << version.minor;
    }
}

TEST(Inventory, KeepsNeitherBackupsNorTrashRecordsOfAnEncryptedVolume) {
    Scenario s(withEncryptedData());
    // The location of the start-up volume stands for the support folder.
    Dictionary settings = completePreferences();
    settings.set("directoryBackupLocations", PropertyListArray{"/Volumes/System"});
    putPreferences(s, settings);
    const std::string support = std::string(kSupportFolder) + '/';
    s.put(support + "Data/Trash Deletes of June", "records");
    s.put(support + "Trash Deletes of June", "records");
    s.run(minutes(10));
    const Dictionary entry = s.volumeEntry(kData);
    EXPECT_EQ(*entry.find("isCoreStorageEncrypted"), PropertyList(true));
    EXPECT_EQ(*entry.find("directoryOnOff"), PropertyList(false));
    EXPECT_EQ(*entry.find("trashOnOff"), PropertyList(false));
    EXPECT_EQ(*entry.find("directoryStatus"), PropertyList("5"));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed", "passed"));
    EXPECT_TRUE(s.machine().fileSystem.exists(support + "Data/" + kBackupOffMarker));
    EXPECT_FALSE(s.machine().fileSystem.exists(support + "Data/" + kBackupOnMarker));
    EXPECT_FALSE(s.machine().fileSystem.exists(support + "Trash Deletes of June"));
    EXPECT_TRUE(s.machine().fileSystem.exists(support + "Data/Trash Deletes of June"));
    EXPECT_THAT(s.machine().processes.launches(), IsEmpty());
}

TEST(Inventory, MakesFoldersThatBelongToItsUser) {
    MachineDescription machine = Scenario::describe("two-volumes");
    machine.userName = "ada";
    addDrive(machine, "disk1", named("Castor 500", "CST1"));
    Scenario s(machine);
    s.run(minutes(1));
    auto& files = s.machine().fileSystem;
    ASSERT_NE(files.userId(), 0U);
    for (const std::string& folder :
         {std::string(kSupportFolder), volumeFolder("Data"), driveFolder("Castor 500", "CST1")}) {
        const auto made = files.attributes(folder);
        ASSERT_TRUE(made) << folder;
        EXPECT_EQ(made->ownerId, files.userId()) << folder;
    }
}

TEST(Inventory, SaysNothingOfWhatFails) {
    MachineDescription machine = oneDrive();
    Scenario s(machine);
    s.run(seconds(30));
    const std::size_t lines = s.log().size();
    s.age("disk1 drive", DriveCondition::refusing);
    s.mount("/media/Stick").run(minutes(1));
    s.machine().fileSystem.setFolderImmutable(kSupportFolder, true);
    s.mount("/media/Other").run(minutes(1));
    s.machine().fileSystem.setFolderImmutable(kSupportFolder, false);
    s.machine().deviceRegistry.setUnreadable(true);
    s.unmount("/media/Stick").run(minutes(10));
    EXPECT_EQ(s.log().size(), lines) << s.log().back();
    EXPECT_TRUE(s.driveEntry("CST1").empty());
}

}  // namespace
}  // namespace korvane
