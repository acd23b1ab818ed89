#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/simulated/MachineDescription.h"
#include "platform/simulated/ManyVolumes.h"
#include "platform/simulated/SimulatedMachine.h"

namespace korvane {
namespace {

using testing::HasSubstr;

std::string document(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body +
           "</plist>\n";
}

std::string machineWith(const std::string& keys) { return document("<dict>" + keys + "</dict>"); }

TEST(MachineDescription, TakesDefaultsForAllThatIsNotSaid) {
    const auto machine = parseMachineDescription(machineWith(""));
    ASSERT_TRUE(machine) << machine.error().message;
    EXPECT_EQ(machine->version.major, 11);
    EXPECT_EQ(machine->userName, "root");
    EXPECT_FALSE(machine->powerSources.has_value());
    EXPECT_TRUE(machine->mounts.empty());
}

TEST(MachineDescription, TellsNoPowerSourcesFromNoInformation) {
    const auto machine =
        parseMachineDescription(machineWith("<key>powerSources</key><array></array>"));
    ASSERT_TRUE(machine) << machine.error().message;
    ASSERT_TRUE(machine->powerSources.has_value());
    EXPECT_TRUE(machine->powerSources->empty());
}

struct MalformedRow {
    const char* name;
    std::string text;
    const char* message;
};

class MalformedDescription : public testing::TestWithParam<MalformedRow> {};

TEST_P(MalformedDescription, IsRefusedWithThePlaceAndTheReason) {
    const auto machine = parseMachineDescription(GetParam().text);
    ASSERT_FALSE(machine);
    EXPECT_THAT(machine.error().message, HasSubstr(GetParam().message));
}

const char kMount[] = "<key>path</key><string>/a</string><key>device</key><string>d</string>";

std::string mountWith(const std::string& keys) {
    return machineWith("<key>mounts</key><array><dict>" + std::string(kMount) + keys +
                       "</dict></array>");
}

INSTANTIATE_TEST_SUITE_P(
    Rows, MalformedDescription,
    testing::Values(
        MalformedRow{"Empty", "", ""}, MalformedRow{"NoXml", "machine: two-volumes", ""},
        MalformedRow{"Cut", "<plist version=\"1.0\"><dict><key>version</key>", ""},
        MalformedRow{"NoDictionary", document("<array/>"), "not a dictionary"},
        MalformedRow{"UnknownKey", machineWith("<key>vesion</key><string>1</string>"),
                     "\"vesion\" is no key"},
        MalformedRow{"VersionIsNumber", machineWith("<key>version</key><integer>11</integer>"),
                     "\"version\" is not a string"},
        MalformedRow{"VersionIsWords", machineWith("<key>version</key><string>ten</string>"),
                     "\"version\" is not a version"},
        MalformedRow{"VersionTooLong", machineWith("<key>version</key><string>1.2.3.4</string>"),
                     "\"version\" is not a version"},
        MalformedRow{"VersionEndsInPoint", machineWith("<key>version</key><string>1.</string>"),
                     "\"version\" is not a version"},
        MalformedRow{"UptimeNegative", machineWith("<key>uptimeSeconds</key><integer>-1</integer>"),
                     "\"uptimeSeconds\" is not between"},
        MalformedRow{"WallClockIsText", machineWith("<key>wallClock</key><string>now</string>"),
                     "\"wallClock\" is not a date"},
        MalformedRow{"PowerSourceIsNumber",
                     machineWith("<key>powerSources</key><array><integer>1</integer></array>"),
                     "\"powerSources\" holds something that is not a string"},
        MalformedRow{"MountsIsDictionary", machineWith("<key>mounts</key><dict/>"),
                     "\"mounts\" is not an array"},
        MalformedRow{"MountIsText",
                     machineWith("<key>mounts</key><array><string>/</string></array>"),
                     "mounts[0]: not a dictionary"},
        MalformedRow{"MountWithoutType", mountWith(""), "mounts[0]: \"type\" is missing"},
        MalformedRow{"MountOfUnknownKind",
                     mountWith("<key>type</key><string>x</string><key>kind</key>"
                               "<string>remote</string>"),
                     "mounts[0]: \"kind\" is none of"},
        MalformedRow{"MountMoreFreeThanThereIs",
                     mountWith("<key>type</key><string>x</string><key>sizeBytes</key>"
                               "<integer>1</integer><key>freeBytes</key><integer>2</integer>"),
                     "mounts[0]: \"freeBytes\" is more"},
        MalformedRow{"SignatureTooLarge",
                     mountWith("<key>type</key><string>x</string><key>signature</key>"
                               "<integer>65536</integer>"),
                     "mounts[0]: \"signature\" is not between 0 and 65535"},
        MalformedRow{"ServiceWithoutClass",
                     machineWith("<key>services</key><array><dict><key>name</key>"
                                 "<string>a</string></dict></array>"),
                     "services[0]: \"class\" is missing"},
        MalformedRow{"OrphanedService",
                     machineWith("<key>services</key><array><dict><key>name</key>"
                                 "<string>a</string><key>class</key><string>c</string>"
                                 "<key>parent</key><string>b</string></dict></array>"),
                     "\"a\": its parent \"b\" does not stand before it"},
        MalformedRow{"ServiceTwice",
                     machineWith("<key>services</key><array>"
                                 "<dict><key>name</key><string>a</string><key>class</key>"
                                 "<string>c</string></dict>"
                                 "<dict><key>name</key><string>a</string><key>class</key>"
                                 "<string>c</string></dict></array>"),
                     "service \"a\" is there twice"},
        MalformedRow{"AccountTwice",
                     machineWith("<key>accounts</key><array>"
                                 "<dict><key>name</key><string>ada</string></dict>"
                                 "<dict><key>name</key><string>ada</string></dict></array>"),
                     "accounts[1]: \"name\" is there twice"},
        MalformedRow{"AccessoryMountWrong",
                     machineWith("<key>accessories</key><array><dict><key>name</key>"
                                 "<string>stick</string><key>mounts</key><array><dict/></array>"
                                 "</dict></array>"),
                     "accessories[0].mounts[0]: \"path\" is missing"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(MachineDescription, EveryMachineThatIsProvidedLoadsAndBuilds) {
    int count = 0;
    for (const auto& file :
         std::filesystem::directory_iterator(KORVANE_SOURCE_DIR "/tests/fixtures/machines")) {
        if (file.path().extension() == ".plist") {
            const auto description = readMachineDescription(file.path());
            ASSERT_TRUE(description) << description.error().message;
            SimulatedMachine machine(*description);
            EXPECT_EQ(machine.volumes.mountTable().size(), description->mounts.size());
            ++count;
        }
    }
    EXPECT_EQ(count, 6);
}

TEST(MachineDescription, NamesTheFileThatCannotBeOpened) {
    const auto machine = readMachineDescription("/nowhere/machine.plist");
    ASSERT_FALSE(machine);
    EXPECT_EQ(machine.error().message, "/nowhere/machine.plist: cannot be opened");
}

TEST(ManyVolumes, StandOnAsManyDrives) {
    SimulatedMachine machine(describeManyVolumes(1000));
    EXPECT_EQ(machine.volumes.mountedLocalVolumePaths().size(), 1000U);
    EXPECT_EQ(machine.deviceRegistry.services("IOBlockStorageDevice")->size(), 1000U);
}

}  // namespace
}  // namespace korvane
