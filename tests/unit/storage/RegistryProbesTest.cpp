#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "StorageBed.h"
#include "storage/RegistryProbes.h"

namespace korvane {
namespace {

using ::testing::IsEmpty;

class RegistryProbes : public ::testing::Test {
  protected:
    DeviceRegistry& registry() { return bed.machine.deviceRegistry; }

    StorageBed bed;
};

TEST_F(RegistryProbes, FindADeviceByThePartitionsName) {
    bed.add({.name = "disk3", .mediaClass = "IODVDMedia"});
    EXPECT_TRUE(isOpticalMedia(registry(), "disk3"));
    EXPECT_TRUE(isOpticalMedia(registry(), "disk3s1"));
    EXPECT_FALSE(isOpticalMedia(registry(), "disk4s1"));
    EXPECT_FALSE(isOpticalMedia(registry(), "disk"));
}

TEST_F(RegistryProbes, TakeACdForOpticalToo) {
    bed.add({.name = "disk3", .mediaClass = "IOCDMedia"});
    EXPECT_TRUE(isOpticalMedia(registry(), "disk3s1"));
}

TEST_F(RegistryProbes, TakeNoHardDiskForOptical) {
    bed.add(internalDisk("disk0"));
    EXPECT_FALSE(isOpticalMedia(registry(), "disk0"));
}

TEST_F(RegistryProbes, LetAShorterNumberAnswerForALongerOne) {
    bed.add({.name = "disk1", .mediaClass = "IODVDMedia"});
    EXPECT_TRUE(isOpticalMedia(registry(), "disk10s2"));
}

TEST_F(RegistryProbes, CompareNamesWithTheirCase) {
    bed.add({.name = "disk3", .mediaClass = "IODVDMedia"});
    EXPECT_FALSE(isOpticalMedia(registry(), "DISK3"));
}

TEST_F(RegistryProbes, PassOverMediaWithoutAName) {
    ASSERT_TRUE(bed.machine.deviceRegistry.add({"unnamed", "IODVDMedia", "", {}}));
    ASSERT_TRUE(bed.machine.deviceRegistry.add({"numbered", "IODVDMedia", "", {{"BSD Name", 3}}}));
    EXPECT_FALSE(isOpticalMedia(registry(), "disk3"));
    EXPECT_FALSE(isOpticalMedia(registry(), ""));
    EXPECT_FALSE(isOpticalMedia(registry(), "3"));
}

TEST_F(RegistryProbes, FindAtapiByTheInterconnectOfAnyAncestor) {
    bed.add({.name = "disk0", .device = {{"Physical Interconnect", "ATAPI"}}});
    bed.add({.name = "disk1", .controller = {{"Physical Interconnect", "ATAPI"}}});
    bed.add({.name = "disk2", .device = {{"Physical Interconnect", "ATA"}}});
    bed.add({.name = "disk3", .device = {{"Physical Interconnect", "atapi"}}});
    EXPECT_TRUE(isATAPI(registry(), "disk0s1"));
    EXPECT_TRUE(isATAPI(registry(), "disk1"));
    EXPECT_FALSE(isATAPI(registry(), "disk2"));
    EXPECT_FALSE(isATAPI(registry(), "disk3"));
}

TEST_F(RegistryProbes, FindAtapiByItsFlagBeyondAFlagThatIsOff) {
    bed.add({.name = "disk0", .controller = {{"ATAPI", true}}, .device = {{"ATAPI", false}}});
    bed.add({.name = "disk1", .device = {{"ATAPI", 1}}});
    bed.add({.name = "disk2", .device = {{"ATAPI", false}}});
    EXPECT_TRUE(isATAPI(registry(), "disk0"));
    EXPECT_TRUE(isATAPI(registry(), "disk1"));
    EXPECT_FALSE(isATAPI(registry(), "disk2"));
}

TEST_F(RegistryProbes, DoNotExamineTheMediumItself) {
    bed.add({.name = "disk0", .medium = {{"Physical Interconnect", "ATAPI"}}});
    bed.add({.name = "disk1", .medium = {{"Physical Interconnect", "Virtual Interface"}}});
    bed.add({.name = "disk2", .medium = connectedAs("SATA", "Internal")});
    EXPECT_FALSE(isATAPI(registry(), "disk0"));
    EXPECT_FALSE(isVirtualInterface(registry(), "disk1"));
    EXPECT_FALSE(isInternalDrive(registry(), "disk2"));
}

TEST_F(RegistryProbes, ExamineTheWholeDiskAboveAPartition) {
    bed.add({.name = "disk2", .medium = {{"Physical Interconnect", "Virtual Interface"}}});
    bed.addPartition("disk2", "disk2s1");
    EXPECT_TRUE(isVirtualInterface(registry(), "disk2s1"));
    EXPECT_FALSE(isVirtualInterface(registry(), "disk2"));
}

TEST_F(RegistryProbes, FindAVirtualInterface) {
    bed.add({.name = "disk5", .controller = {{"Physical Interconnect", "Virtual Interface"}}});
    bed.add({.name = "disk6", .controller = {{"Physical Interconnect", "Virtual"}}});
    EXPECT_TRUE(isVirtualInterface(registry(), "disk5s1"));
    EXPECT_FALSE(isVirtualInterface(registry(), "disk6"));
}

TEST_F(RegistryProbes, JudgeADriveByTheNearestProtocolCharacteristicsAlone) {
    bed.add({.name = "disk0",
             .controller = connectedAs("SATA", "Internal"),
             .device = connectedAs("USB", "External")});
    bed.add({.name = "disk1",
             .controller = connectedAs("USB", "External"),
             .device = connectedAs("SATA", "Internal")});
    EXPECT_FALSE(isInternalDrive(registry(), "disk0s1"));
    EXPECT_TRUE(isInternalDrive(registry(), "disk1s1"));
}

TEST_F(RegistryProbes, TakeADriveWithoutAKnownLocationForExternal) {
    bed.add({.name = "disk0"});
    bed.add({.name = "disk1",
             .controller = connectedAs("SATA", "Internal"),
             .device = {{"Protocol Characteristics", Dictionary{}}}});
    bed.add({.name = "disk2",
             .device = {
                 {"Protocol Characteristics", Dictionary{{"Physical Interconnect Location", 1}}}}});
    EXPECT_FALSE(isInternalDrive(registry(), "disk0"));
    EXPECT_FALSE(isInternalDrive(registry(), "disk1"));
    EXPECT_FALSE(isInternalDrive(registry(), "disk2"));
}

TEST_F(RegistryProbes, LookBeyondProtocolCharacteristicsThatAreNoDictionary) {
    bed.add({.name = "disk0",
             .controller = connectedAs("SATA", "Internal"),
             .device = {{"Protocol Characteristics", "SATA"}}});
    EXPECT_TRUE(isInternalDrive(registry(), "disk0"));
}

TEST_F(RegistryProbes, FindEncryptionByTheExactNameAlone) {
    bed.add(internalDisk("disk1"));
    bed.addPartition("disk1", "disk1s2", {{"CoreStorage Encrypted", true}});
    EXPECT_TRUE(isCoreStorageEncrypted(registry(), "disk1s2"));
    EXPECT_FALSE(isCoreStorageEncrypted(registry(), "disk1"));
    EXPECT_FALSE(isCoreStorageEncrypted(registry(), "disk1s2s1"));
}

TEST_F(RegistryProbes, TakeNothingButTrueForEncryption) {
    bed.add({.name = "disk1", .medium = {{"CoreStorage Encrypted", false}}});
    bed.add({.name = "disk2", .medium = {{"CoreStorage Encrypted", 1}}});
    bed.add({.name = "disk3", .medium = {{"CoreStorage Encrypted", "YES"}}});
    EXPECT_FALSE(isCoreStorageEncrypted(registry(), "disk1"));
    EXPECT_FALSE(isCoreStorageEncrypted(registry(), "disk2"));
    EXPECT_FALSE(isCoreStorageEncrypted(registry(), "disk3"));
    EXPECT_FALSE(isCoreStorageEncrypted(registry(), ""));
}

TEST_F(RegistryProbes, AnswerNoWhenTheRegistryCannotBeRead) {
    bed.add({.name = "disk0",
             .controller = {{"Physical Interconnect", "ATAPI"}},
             .device = connectedAs("SATA", "Internal"),
             .mediaClass = "IODVDMedia",
             .medium = {{"CoreStorage Encrypted", true}}});
    const ServiceId medium = bed.service("disk0");
    bed.machine.deviceRegistry.setUnreadable(true);
    EXPECT_FALSE(isATAPI(registry(), "disk0"));
    EXPECT_FALSE(isOpticalMedia(registry(), "disk0"));
    EXPECT_FALSE(isVirtualInterface(registry(), "disk0"));
    EXPECT_FALSE(isInternalDrive(registry(), "disk0"));
    EXPECT_FALSE(isCoreStorageEncrypted(registry(), "disk0"));
    bool schemeOfPartition = true;
    EXPECT_EQ(GetDeviceValue(registry(), "disk0", schemeOfPartition).status, -1);
    EXPECT_TRUE(schemeOfPartition);
    EXPECT_EQ(MyGetDeviceFilePath(registry(), medium, 128).status, 5);
}

// ---- GetDeviceValue -----------------------------------------------------------------------------

class GetDeviceValueTest : public RegistryProbes {
  protected:
    DeviceValue valueOf(std::string_view device) {
        return GetDeviceValue(registry(), device, schemeOfPartition);
    }

    bool schemeOfPartition = false;
};

TEST_F(GetDeviceValueTest, TakesAPathOrANameInAnyCase) {
    bed.add({.name = "disk2", .device = {{"Serial Number", "WD-123"}}});
    bed.addPartition("disk2", "disk2s2");
    for (const char* device : {"disk2s2", "/dev/disk2s2", "/dev/DISK2S2", "DISK2s2", "//disk2s2"}) {
        const DeviceValue value = valueOf(device);
        EXPECT_EQ(value.status, 0) << device;
        EXPECT_EQ(value.identifier, "WD-123") << device;
    }
}

TEST_F(GetDeviceValueTest, WantsTheWholeName) {
    bed.add({.name = "disk2", .device = {{"Serial Number", "WD-123"}}});
    for (const char* device : {"disk", "disk2s2", "/dev/disk2/", "", "/", "disk2 "}) {
        EXPECT_EQ(valueOf(device).status, -1) << device;
    }
}

TEST_F(GetDeviceValueTest, CutsANameThatIsLongerThanAnyDevices) {
    const std::string longest(255, 'd');
    bed.add({.name = longest, .device = {{"Serial Number", "S"}}});
    EXPECT_EQ(valueOf(longest + "s1").status, 0);
    EXPECT_EQ(valueOf(longest.substr(1)).status, -1);
}

TEST_F(GetDeviceValueTest, LeavesEverythingAloneForAnUnknownName) {
    bed.add(internalDisk("disk0"));
    for (const bool previous : {false, true}) {
        schemeOfPartition = previous;
        const DeviceValue value = valueOf("disk9");
        EXPECT_EQ(value.status, -1);
        EXPECT_THAT(value.identifier, IsEmpty());
        EXPECT_EQ(schemeOfPartition, previous);
    }
}

TEST_F(GetDeviceValueTest, WritesTheSchemeEvenWithoutAnIdentifier) {
    bed.add({.name = "disk1", .medium = {{"Content", "48465300-0000-11AA-AA11-00306543ECAC"}}});
    bed.add({.name = "disk2", .medium = {{"Content", "Apple_HFS"}}});
    EXPECT_EQ(valueOf("disk1").status, -1);
    EXPECT_TRUE(schemeOfPartition);
    EXPECT_EQ(valueOf("disk2").status, -1);
    EXPECT_FALSE(schemeOfPartition);
}

// The platform writes capitals.
TEST_F(GetDeviceValueTest, ComparesThePartitionTypeExactly) {
    bed.add({.name = "disk1", .medium = {{"Content", "48465300-0000-11aa-aa11-00306543ecac"}}});
    bed.add({.name = "disk2", .medium = {{"Content", 48465300}}});
    for (const char* disk : {"disk1", "disk2"}) {
        schemeOfPartition = true;
        (void)valueOf(disk);
        EXPECT_FALSE(schemeOfPartition) << disk;
    }
}

TEST_F(GetDeviceValueTest, StopsAtTheNearestAncestorWithAnyIdentifier) {
    bed.add(
        {.name = "disk0", .controller = {{"GUID", 4660}}, .device = {{"Serial Number", "near"}}});
    EXPECT_EQ(valueOf("disk0").identifier, "near");
}

TEST_F(GetDeviceValueTest, PrefersTheGuidAndThenTheSerialsInTheirOrder) {
    Dictionary device{{"GUID", std::int64_t{1'234'567}},
                      {"device serial", "device"},
                      {"USB Serial Number", "usb"},
                      {"Serial Number", "plain"}};
    bed.add({.name = "disk0", .device = device});
    const auto without = [&](const char* key) {
        EXPECT_TRUE(bed.machine.deviceRegistry.setProperty("disk0 device", key, std::nullopt));
        return valueOf("disk0").identifier;
    };
    EXPECT_EQ(valueOf("disk0").identifier, "1234567");
    EXPECT_EQ(without("GUID"), "device");
    EXPECT_EQ(without("device serial"), "usb");
    EXPECT_EQ(without("USB Serial Number"), "plain");
}

TEST_F(GetDeviceValueTest, WritesAGuidWithoutGroupsOrFraction) {
    const struct {
        PropertyList guid;
        const char* text;
    } rows[] = {{0, "0"},
                {-7, "-7"},
                {std::uint64_t{18'446'744'073'709'551'615U}, "18446744073709551615"},
                {2.5, "2"},
                {1e15, "1000000000000000"}};
    bed.add({.name = "disk0"});
    for (const auto& row : rows) {
        ASSERT_TRUE(bed.machine.deviceRegistry.setProperty("disk0 device", "GUID", row.guid));
        const DeviceValue value = valueOf("disk0");
        EXPECT_EQ(value.status, 0);
        EXPECT_EQ(value.identifier, row.text);
    }
}

TEST_F(GetDeviceValueTest, EndsItsWalkAtAnIdentifierThatCannotBeGiven) {
    const Dictionary unusable[] = {{{"GUID", "text"}},
                                   {{"GUID", true}},
                                   {{"device serial", 17}, {"Serial Number", "next"}},
                                   {{"Serial Number", std::string(512, 'S')}}};
    int number = 0;
    for (const Dictionary& device : unusable) {
        const std::string name = "disk" + std::to_string(number++);
        bed.add({.name = name, .controller = {{"Serial Number", "far"}}, .device = device});
        const DeviceValue value = valueOf(name);
        EXPECT_EQ(value.status, -1);
        EXPECT_THAT(value.identifier, IsEmpty());
    }
}

TEST_F(GetDeviceValueTest, FillsA512ByteFieldWithItsTerminatingZero) {
    bed.add({.name = "disk0", .device = {{"Serial Number", std::string(511, 'S')}}});
    EXPECT_EQ(valueOf("disk0").identifier, std::string(511, 'S'));
}

TEST_F(GetDeviceValueTest, GivesAnEmptySerialAsFound) {
    bed.add({.name = "disk0", .device = {{"Serial Number", ""}}});
    EXPECT_EQ(valueOf("disk0").status, 0);
}

TEST_F(GetDeviceValueTest, ConsidersOnlyTheFirstMediumOfAName) {
    bed.add({.name = "disk0"});
    ASSERT_TRUE(bed.machine.deviceRegistry.add({"root", "IOService", "", {{"GUID", 5}}}));
    ASSERT_TRUE(
        bed.machine.deviceRegistry.add({"second", "IOMedia", "root", {{"BSD Name", "DISK0"}}}));
    EXPECT_EQ(valueOf("disk0").status, -1);
}

// ---- MyGetDeviceFilePath ------------------------------------------------------------------------

class MyGetDeviceFilePathTest : public RegistryProbes {
  protected:
    DeviceFilePath pathOf(const std::string& name, std::size_t bufferSizeBytes) {
        if (!bed.machine.deviceRegistry.idOf(name)) bed.add({.name = name});
        return MyGetDeviceFilePath(registry(), bed.service(name), bufferSizeBytes);
    }
};

TEST_F(MyGetDeviceFilePathTest, WritesTheNameBehindDev) {
    const DeviceFilePath path = pathOf("disk0", 128);
    EXPECT_EQ(path.status, 0);
    EXPECT_EQ(path.path, "/dev/disk0");
}

TEST_F(MyGetDeviceFilePathTest, FailsWhenTheNameAndItsZeroByteDoNotFit) {
    const struct {
        std::size_t nameLength;
        std::size_t bufferSizeBytes;
        int status;
    } rows[] = {{12, 16, 5}, {11, 16, 5}, {10, 16, 0}, {1, 7, 0},  {1, 6, 5},
                {1, 5, 5},   {1, 4, 5},   {1, 0, 5},   {12, 18, 0}};
    for (const auto& row : rows) {
        const DeviceFilePath path = pathOf(std::string(row.nameLength, 'd'), row.bufferSizeBytes);
        EXPECT_EQ(path.status, row.status) << row.nameLength << " in " << row.bufferSizeBytes;
        EXPECT_EQ(path.path.empty(), row.status != 0);
    }
}

TEST_F(MyGetDeviceFilePathTest, FailsForANameThatIsNoAscii) {
    const DeviceFilePath path = pathOf("d\xc3\xadsk", 128);
    EXPECT_EQ(path.status, 5);
    EXPECT_THAT(path.path, IsEmpty());
}

TEST_F(MyGetDeviceFilePathTest, FailsForAServiceWithoutAName) {
    bed.add({.name = "disk0"});
    EXPECT_EQ(MyGetDeviceFilePath(registry(), bed.service("disk0 device"), 128).status, 5);
    const ServiceId medium = bed.service("disk0");
    bed.machine.deviceRegistry.remove("disk0 controller");
    EXPECT_EQ(MyGetDeviceFilePath(registry(), medium, 128).status, 5);
}

// ---- Look-ups by the beginnings of a name -------------------------------------------------------

// The probes as a walk over all media would answer them.
class NaiveProbes {
  public:
    explicit NaiveProbes(DeviceRegistry& registry) : registry_(registry) {}

    bool isATAPI(const std::string& name) {
        return anyAncestor("IOMedia", name, [&](ServiceId service) {
            const auto atapi = registry_.property(service, "ATAPI");
            return textOf(service, "Physical Interconnect") == "ATAPI" ||
                   (atapi && booleanValue(&*atapi));
        });
    }
    bool isVirtualInterface(const std::string& name) {
        return anyAncestor("IOMedia", name, [&](ServiceId service) {
            return textOf(service, "Physical Interconnect") == "Virtual Interface";
        });
    }
    bool isOpticalMedia(const std::string& name) {
        return !mediaBefore("IODVDMedia", name).empty() || !mediaBefore("IOCDMedia", name).empty();
    }
    bool isInternalDrive(const std::string& name) {
        for (const ServiceId medium : mediaBefore("IOMedia", name)) {
            for (auto at = registry_.parent(medium); at; at = registry_.parent(*at)) {
                const auto protocol = registry_.property(*at, "Protocol Characteristics");
                if (!protocol || !protocol->dictionary()) continue;
                if (stringValue(protocol->dictionary()->find("Physical Interconnect Location")) ==
                    "Internal") {
                    return true;
                }
                break;
            }
        }
        return false;
    }

  private:
    std::string textOf(ServiceId service, const char* key) {
        const auto value = registry_.property(service, key);
        return value ? stringValue(&*value) : "";
    }
    std::vector<ServiceId> mediaBefore(const char* className, const std::string& name) {
        std::vector<ServiceId> media;
        const auto services = registry_.services(className);
        for (const ServiceId medium : *services) {
            const std::string bsdName = textOf(medium, "BSD Name");
            if (!bsdName.empty() && name.starts_with(bsdName)) media.push_back(medium);
        }
        return media;
    }
    bool anyAncestor(const char* className, const std::string& name,
                     const std::function<bool(ServiceId)>& says) {
        for (const ServiceId medium : mediaBefore(className, name)) {
            for (auto at = registry_.parent(medium); at; at = registry_.parent(*at)) {
                if (says(*at)) return true;
            }
        }
        return false;
    }

    DeviceRegistry& registry_;
};

class RandomTree {
  public:
    explicit RandomTree(unsigned seed) : random_(seed) {}

    std::size_t below(std::size_t count) {
        return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_);
    }
    // From few letters and short, so that many names are beginnings of others.
    std::string name() {
        std::string text;
        for (std::size_t length = below(5) + 1; text.size() < length;) text += "d12s"[below(4)];
        return text;
    }
    void fill(SimulatedDeviceRegistry& registry) {
        std::vector<std::string> names{""};
        for (int number = 0; number < 60; ++number) {
            const char* classes[] = {"IOMedia", "IOMedia", "IOService", "IODVDMedia", "IOCDMedia"};
            ServiceDescription service{std::to_string(number), classes[below(5)],
                                       names[below(names.size())], properties()};
            ASSERT_TRUE(registry.add(service));
            names.push_back(service.name);
        }
    }

  private:
    Dictionary properties() {
        Dictionary properties;
        if (below(4) > 0) properties.set("BSD Name", name());
        switch (below(8)) {
            case 0:
                properties.set("Physical Interconnect", "ATAPI");
                break;
            case 1:
                properties.set("Physical Interconnect", "Virtual Interface");
                break;
            case 2:
                properties.set("ATAPI", below(2) == 0);
                break;
            case 3:
                return connectedWith(properties, "Internal");
            case 4:
                return connectedWith(properties, "External");
            default:
                break;
        }
        return properties;
    }
    static Dictionary connectedWith(Dictionary properties, const char* location) {
        properties.set("Protocol Characteristics",
                       Dictionary{{"Physical Interconnect Location", location}});
        return properties;
    }

    std::mt19937 random_;
};

TEST(PrefixLookups, AnswerAsAWalkOverAllMediaOnRandomTrees) {
    for (unsigned seed = 1; seed <= 60; ++seed) {
        SimulatedMachine machine{MachineDescription{}};
        SimulatedDeviceRegistry& registry = machine.deviceRegistry;
        RandomTree tree(seed);
        tree.fill(registry);
        NaiveProbes naive(registry);
        for (int question = 0; question < 40; ++question) {
            const std::string name = tree.name();
            SCOPED_TRACE("seed " + std::to_string(seed) + ", name " + name);
            EXPECT_EQ(isATAPI(registry, name), naive.isATAPI(name));
            EXPECT_EQ(isOpticalMedia(registry, name), naive.isOpticalMedia(name));
            EXPECT_EQ(isVirtualInterface(registry, name), naive.isVirtualInterface(name));
            EXPECT_EQ(isInternalDrive(registry, name), naive.isInternalDrive(name));
        }
    }
}

}  // namespace
}  // namespace korvane
