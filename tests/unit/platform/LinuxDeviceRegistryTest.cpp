#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>

#include "RecordingLog.h"
#include "SysfsTree.h"
#include "platform/linux/LinuxDeviceRegistry.h"
#include "unit/platform/FakeDrives.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

struct DeviceTreeTest : testing::Test {
    explicit DeviceTreeTest(const std::string& fixture = "machine.txt") : tree(fixture) {}

    std::string nameOf(ServiceId service) {
        const auto name = registry.property(service, "BSD Name");
        return name ? stringValue(&*name) : "";
    }
    std::vector<std::string> namesOf(const char* className) {
        std::vector<std::string> names;
        const auto services = registry.services(className);
        for (const ServiceId service : services.value()) {
            names.push_back(nameOf(service));
        }
        return names;
    }
    ServiceId media(const std::string& name) {
        return registry.servicesNamed("IOMedia", name).value().at(0);
    }
    // The value at the nearest of the media's ancestors that has the key.
    std::string above(const std::string& name, const char* key) {
        for (auto service = registry.parent(media(name)); service;
             service = registry.parent(*service)) {
            if (const auto value = registry.property(*service, key)) {
                return value->boolean() != nullptr   ? (*value->boolean() ? "true" : "false")
                       : value->integer() != nullptr ? std::to_string(*value->integer())
                                                     : stringValue(&*value);
            }
        }
        return "none";
    }
    std::string transport(const std::string& name, const char* key) {
        for (auto service = registry.parent(media(name)); service;
             service = registry.parent(*service)) {
            const auto value = registry.property(*service, "Protocol Characteristics");
            if (value && value->dictionary() != nullptr) {
                return stringValue(value->dictionary()->find(key));
            }
        }
        return "none";
    }
    std::string location(const std::string& name) {
        return transport(name, "Physical Interconnect Location");
    }
    std::string interconnect(const std::string& name) {
        return transport(name, "Physical Interconnect");
    }

    SysfsTree tree;
    RecordingLog log;
    LinuxRunLoop loop{log};
    LinuxDeviceRegistry registry{
        loop, {.sysfs = tree.sysfs(), .udevData = tree.udevData(), .takesEvents = false}};
};
struct DeviceTreeWithoutUdevTest : DeviceTreeTest {
    DeviceTreeWithoutUdevTest() : DeviceTreeTest("no-udevd.txt") {}
};

TEST_F(DeviceTreeTest, ListsDisksAndPartitionsInTheKernelsOrder) {
    EXPECT_THAT(
        namesOf("IOMedia"),
        ElementsAre("cciss!c0d0", "dm-0", "dm-1", "dm-10", "dm-11", "loop0", "md127", "mmcblk0",
                    "mmcblk1", "nbd0", "nvme0n1", "nvme0n1p1", "nvme0n2", "nvme1n1", "nvme2n1",
                    "nvme3n1", "ram0", "sda", "sda1", "sda2", "sda3", "sdb", "sdb1", "sdc", "sdd",
                    "sde", "sdf", "sdg", "sdaa", "sr0", "sr1", "vda", "vdb", "zram0"));
    EXPECT_THAT(namesOf("IODVDMedia"), ElementsAre("sr0"));
    EXPECT_THAT(namesOf("IOCDMedia"), ElementsAre("sr1"));
}

TEST_F(DeviceTreeTest, GivesPartitionTypesInCapitals) {
    const auto content = registry.property(media("sda2"), "Content");
    EXPECT_EQ(stringValue(&content.value()), "48465300-0000-11AA-AA11-00306543ECAC");
    EXPECT_FALSE(registry.property(media("sda"), "Content"));
    EXPECT_FALSE(registry.property(media("sdb1"), "Content"));
}

TEST_F(DeviceTreeTest, NamesAtaDrivesInFull) {
    EXPECT_EQ(above("sda1", "device model"), "Ostwind Spinner 4000GB Enterprise");
    EXPECT_EQ(above("sda1", "device serial"), "OW-0001");
    EXPECT_EQ(above("sda1", "SMART Capable"), "true");
    EXPECT_EQ(interconnect("sda1"), "ATA");
    EXPECT_EQ(location("sda1"), "Internal");
}

TEST_F(DeviceTreeTest, TakesAnAtaDriveBehindAnAdapterForOne) {
    EXPECT_EQ(above("sdg", "device model"), "Ostwind Spinner 4000GB Enterprise");
    EXPECT_EQ(above("sdg", "device serial"), "OW-0007");
    EXPECT_EQ(above("sdg", "SMART Capable"), "true");
}

TEST_F(DeviceTreeTest, NamesUsbDevicesByTheirPlugs) {
    EXPECT_EQ(above("sdb1", "USB Product Name"), "Pocket Stick");
    EXPECT_EQ(above("sdb1", "USB Serial Number"), "60A44C413A8AF0B1");
    EXPECT_EQ(above("sdb1", "locationID"), std::to_string(0x02140000));
    EXPECT_EQ(above("sdb1", "SMART Capable"), "none");
    EXPECT_EQ(above("sdc", "USB Product Name"), "SATA Dock");
    EXPECT_EQ(above("sdc", "USB Serial Number"), "none");
    // The disk's own number, where the bridge has none.
    EXPECT_EQ(above("sdc", "Serial Number"), "DOCKED-1");
    EXPECT_EQ(above("sdc", "SMART Capable"), "true");
    EXPECT_EQ(location("sdb"), "External");
    EXPECT_EQ(location("sdc"), "External");
}

TEST_F(DeviceTreeTest, NamesScsiDrivesByIdentificationAndRevisionAndTheirUnitAbove) {
    EXPECT_EQ(above("sdd", "Vendor Identification"), "QEMU");
    EXPECT_EQ(above("sdd", "Product Identification"), "QEMU HARDDISK");
    EXPECT_EQ(above("sdd", "Product Revision Level"), "2.5+");
    EXPECT_EQ(above("sdd", "Serial Number"), "scsi-42");
    const auto drive = registry.parent(media("sdd")).value();
    const auto device = registry.parent(drive).value();
    EXPECT_FALSE(registry.property(device, "Serial Number"));
    EXPECT_EQ(location("sdd"), "Internal");
    EXPECT_EQ(location("sde"), "External");
    EXPECT_EQ(interconnect("sde"), "iSCSI");
    EXPECT_EQ(above("sdf", "FireWire Product Name"), "Hot Disk");
    EXPECT_EQ(above("sdf", "GUID"), std::to_string(0x1234));
    EXPECT_EQ(location("sdf"), "External");
}

TEST_F(DeviceTreeTest, TellsOpticalDrives) {
    EXPECT_EQ(above("sr0", "Physical Interconnect"), "ATAPI");
    EXPECT_EQ(above("sr0", "ATAPI"), "true");
    EXPECT_EQ(above("sr1", "ATAPI"), "true");
    EXPECT_EQ(above("sda", "ATAPI"), "none");
    EXPECT_EQ(above("sr0", "SMART Capable"), "none");
}

TEST_F(DeviceTreeTest, TellsNvmeDrivesWithoutPadding) {
    EXPECT_EQ(above("nvme0n1p1", "Model"), "Ostwind Flash 2T");
    EXPECT_EQ(above("nvme0n1p1", "Serial Number"), "F-77");
    EXPECT_EQ(above("nvme0n1p1", "SMART Capable"), "true");
    EXPECT_EQ(above("nvme0n2", "SMART Capable"), "none")
        << "one warning for a controller is enough";
    EXPECT_EQ(location("nvme0n1p1"), "Internal");
    EXPECT_EQ(location("nvme1n1"), "External");
    EXPECT_EQ(location("nvme2n1"), "External");
    EXPECT_EQ(above("nvme3n1", "Model"), "Two Paths");
    EXPECT_EQ(location("nvme3n1"), "Internal");
}

TEST_F(DeviceTreeTest, TellsVirtioAndFlashAndOddDrives) {
    EXPECT_EQ(above("vda", "Serial Number"), "disk-9");
    EXPECT_EQ(location("vda"), "Internal");
    EXPECT_EQ(above("vdb", "Serial Number"), "a\\377\\001b");
    EXPECT_EQ(above("mmcblk0", "Serial Number"), "0x2c1a7b11");
    EXPECT_EQ(location("mmcblk0"), "Internal");
    EXPECT_EQ(location("mmcblk1"), "External");
    EXPECT_EQ(location("cciss!c0d0"), "Internal");
}

TEST_F(DeviceTreeTest, TellsVirtualDisks) {
    for (const char* name : {"loop0", "zram0", "ram0", "nbd0"}) {
        EXPECT_EQ(above(name, "Physical Interconnect"), "Virtual Interface") << name;
        EXPECT_EQ(above(name, "Product Name"), "Disk Image") << name;
        EXPECT_EQ(location(name), "File") << name;
    }
}

TEST_F(DeviceTreeTest, HangsMappingsOnWhatTheyLieOn) {
    EXPECT_EQ(registry.parent(media("dm-0")), media("sda3"));
    EXPECT_EQ(registry.firstChild(media("sda3")), media("dm-0"));
    EXPECT_EQ(registry.parent(media("dm-10")), media("dm-0"));
    EXPECT_EQ(location("dm-1"), "Internal");
    EXPECT_EQ(above("dm-1", "device serial"), "OW-0001");
    EXPECT_EQ(registry.parent(media("md127")), media("mmcblk0"));
    EXPECT_EQ(location("md127"), "Internal");
    EXPECT_EQ(location("dm-11"), "none");
    EXPECT_EQ(above("dm-0", "Physical Interconnect"), "ATA");
}

TEST_F(DeviceTreeTest, KnowsEncryptedMappingsAndThoseOnThem) {
    for (const char* name : {"dm-0", "dm-1", "dm-10"}) {
        EXPECT_THAT(registry.property(media(name), "CoreStorage Encrypted"),
                    Optional(PropertyList{true}));
    }
    for (const char* name : {"dm-11", "sda3", "md127"}) {
        EXPECT_FALSE(registry.property(media(name), "CoreStorage Encrypted")) << name;
    }
}

TEST_F(DeviceTreeTest, TakesMappingsThatEncryptForEncryptedAndNoOthersOfTheirMaker) {
    const struct {
        const char* uuid;
        bool isEncrypted;
    } rows[] = {{"CRYPT-LUKS1-0123-home", true},
                {"CRYPT-LUKS2-0123-home", true},
                {"CRYPT-PLAIN-swap", true},
                {"CRYPT-TCRYPT-0123-old", true},
                {"CRYPT-BITLK-0123-windows", true},
                {"CRYPT-FVAULT2-0123-mac", true},
                {"CRYPT-LOOPAES-old", true},
                {"CRYPT-INTEGRITY-0123-data", false},
                {"CRYPT-VERITY-0123-root", false},
                {"CRYPT-SUBDEV-0123-home_dif", false},
                {"CRYPT-TEMP-0123", false},
                {"CRYPT-", false},
                {"CRYPT", false},
                {"LVM-CRYPT-LUKS2-x", false},
                {"CRYPT-LUKS", false},
                {"", false}};
    for (const auto& row : rows) {
        tree.add(std::string("attr devices/virtual/block/dm-11/dm/uuid ") + row.uuid + "\\n");
        registry.deviceChanged("dm-11");
        const auto found = registry.property(media("dm-11"), "CoreStorage Encrypted");
        EXPECT_EQ(found.has_value(), row.isEncrypted) << row.uuid;
    }
}

TEST_F(DeviceTreeTest, TakesNoOtherVirtualDiskForADiskImage) {
    int minor = 0;
    for (const char* name : {"zd0", "nullb0", "drbd0", "loopx", "ublkb0", "md0", "dm-30"}) {
        tree.add(std::string("block devices/virtual/block/") + name +
                 " 230:" + std::to_string(++minor));
        registry.deviceChanged(name);
        EXPECT_EQ(above(name, "Physical Interconnect"), "none") << name;
        EXPECT_EQ(above(name, "Product Name"), "none") << name;
        EXPECT_EQ(location(name), "none") << name;
    }
    tree.add("block devices/rbd/0/block/rbd0 231:0");
    registry.deviceChanged("rbd0");
    EXPECT_EQ(above("rbd0", "Product Name"), "none");
    EXPECT_EQ(location("rbd0"), "External");
}

TEST_F(DeviceTreeTest, HasADriveForEachDiskThatIsNotMapped) {
    const auto drives = registry.services("IOBlockStorageDevice");
    for (const ServiceId drive : drives.value()) {
        const auto child = registry.firstChild(drive);
        ASSERT_TRUE(child);
        EXPECT_NE(nameOf(*child), "");
        EXPECT_TRUE(registry.property(drive, "Protocol Characteristics"));
        EXPECT_TRUE(registry.parent(drive));
    }
    EXPECT_EQ(drives->size(), 24U);
}

TEST_F(DeviceTreeTest, ReadsOnlyWhatHasChanged) {
    (void)namesOf("IOMedia");
    const std::size_t all = registry.disksRead();
    const ServiceId before = media("vda");
    const auto generation = registry.generation();
    (void)namesOf("IOMedia");
    EXPECT_EQ(registry.disksRead(), all);

    registry.deviceChanged("sda1");
    (void)namesOf("IOMedia");
    EXPECT_EQ(registry.disksRead(), all + 1);
    EXPECT_EQ(media("vda"), before) << "nothing that is told has changed";
    EXPECT_EQ(registry.generation(), generation);

    tree.add("block devices/virtual/block/loop1 7:1");
    registry.deviceChanged("loop1");
    EXPECT_NE(registry.generation(), generation) << "whoever asks first";
    EXPECT_THAT(registry.servicesNamed("IOMedia", "loop1").value(), testing::SizeIs(1));
    EXPECT_EQ(registry.disksRead(), all + 2);
    EXPECT_FALSE(registry.properties(before));
}

TEST_F(DeviceTreeTest, ForgetsWhatWasPulled) {
    const ServiceId stick = media("sdb1");
    tree.remove("class/block/sdb");
    tree.remove("class/block/sdb1");
    registry.deviceChanged("sdb1");
    registry.deviceChanged("sdb");
    EXPECT_THAT(registry.servicesNamed("IOMedia", "sdb1"), Optional(IsEmpty()));
    EXPECT_FALSE(registry.properties(stick));
    EXPECT_FALSE(registry.parent(stick));
    EXPECT_FALSE(registry.firstChild(stick));
}

TEST_F(DeviceTreeWithoutUdevTest, NamesAtaDrivesAllTheSame) {
    EXPECT_EQ(above("sda1", "device model"), "Ostwind Spinner 4000GB Enterprise");
    EXPECT_EQ(above("sda1", "device serial"), "OW-0001");
    EXPECT_EQ(above("sda1", "SMART Capable"), "true");
    EXPECT_EQ(above("sdd", "SMART Capable"), "none");
}

TEST_F(DeviceTreeWithoutUdevTest, NeverShowsANameThatWasCut) {
    EXPECT_EQ(above("sdb", "device model"), "none");
    EXPECT_EQ(above("sdb", "device serial"), "OW-0002");
    EXPECT_EQ(above("sdc", "device model"), "Short");
}

TEST_F(DeviceTreeWithoutUdevTest, TakesEveryDiscForACompactDisc) {
    EXPECT_THAT(namesOf("IOCDMedia"), ElementsAre("sr0"));
    EXPECT_EQ(above("sr0", "ATAPI"), "true");
}

TEST(LinuxDeviceRegistry, HasNoTreeWithoutSysfs) {
    RecordingLog log;
    LinuxRunLoop loop{log};
    LinuxDeviceRegistry registry{
        loop, {.sysfs = "/nowhere", .udevData = "/nowhere", .takesEvents = false}};
    EXPECT_FALSE(registry.generation());
    EXPECT_FALSE(registry.services("IOMedia"));
    EXPECT_FALSE(registry.servicesNamed("IOMedia", "sda"));
    EXPECT_FALSE(registry.properties(ServiceId{0}));
}

TEST(LinuxDeviceRegistry, LooksOnceATurnOfTheLoopWhereNobodyTellsOfChanges) {
    SysfsTree tree{"machine.txt"};
    RecordingLog log;
    LinuxRunLoop loop{log};
    const LinuxDevicePlaces places{
        .sysfs = tree.sysfs(), .udevData = tree.udevData(), .takesEvents = false};
    LinuxDeviceRegistry registry{loop, places};
    const auto disksNamed = [&](const char* name) {
        return registry.servicesNamed("IOMedia", name).value().size();
    };
    std::size_t inTheSameTurn = 0;
    std::size_t inTheNextTurn = 0;
    const auto first = loop.startTimer(std::chrono::seconds(0), Repeat::once, [&] {
        EXPECT_EQ(disksNamed("loop1"), 0U);
        tree.add("block devices/virtual/block/loop1 7:1");
        inTheSameTurn = disksNamed("loop1");
    });
    const auto second = loop.startTimer(std::chrono::milliseconds(1), Repeat::once, [&] {
        inTheNextTurn = disksNamed("loop1");
        loop.terminate();
    });
    loop.run();
    EXPECT_EQ(inTheSameTurn, 0U);
    EXPECT_EQ(inTheNextTurn, 1U);
}

TEST(AtaInformationPage, TellsNothingWhenItIsMalformed) {
    const std::string zeros(572, '\0');
    const std::string ones(572, '\xff');
    std::string wrongPage = zeros;
    wrongPage[1] = '\x80';
    for (const std::string& page : {std::string{}, zeros, ones, wrongPage, zeros.substr(0, 100)}) {
        const AtaIdentity identity = parseAtaInformationPage(page);
        EXPECT_EQ(identity.model, "");
        EXPECT_EQ(identity.serial, "");
        EXPECT_FALSE(identity.isSmartSupported);
    }
}

TEST(UnitSerialPage, TellsNothingWhenItIsMalformed) {
    EXPECT_EQ(parseUnitSerialPage(std::string("\0\x80\0\x04 ab ", 8)), "ab");
    EXPECT_EQ(parseUnitSerialPage(std::string("\0\x80\xff\xff"
                                              "ab",
                                              6)),
              "ab");
    EXPECT_EQ(parseUnitSerialPage(std::string("\0\x83\0\x02"
                                              "ab",
                                              6)),
              "");
    EXPECT_EQ(parseUnitSerialPage(std::string("\0\x80\0", 3)), "");
    EXPECT_EQ(parseUnitSerialPage(""), "");
}

TEST(KernelOrder, CountsLettersAndNumbersAsTheKernelDoes) {
    const std::vector<std::string> ordered{"dm-2",     "dm-10",    "nvme0n1", "nvme0n1p2",
                                           "nvme0n10", "nvme10n1", "sda",     "sda2",
                                           "sda10",    "sdb",      "sdz",     "sdaa"};
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        for (std::size_t j = 0; j < ordered.size(); ++j) {
            EXPECT_EQ(comesBefore(ordered[i], ordered[j]), i < j)
                << ordered[i] << " " << ordered[j];
        }
    }
}

TEST_F(DeviceTreeTest, NumbersHardwareDisksInTheKernelsOrder) {
    std::vector<std::string> paths;
    for (unsigned number = 0; const auto path = registry.diskPath(number); ++number) {
        paths.push_back(*path);
    }
    EXPECT_THAT(paths,
                ElementsAre("/dev/cciss!c0d0", "/dev/mmcblk0", "/dev/mmcblk1", "/dev/nvme0n1",
                            "/dev/nvme0n2", "/dev/nvme1n1", "/dev/nvme2n1", "/dev/nvme3n1",
                            "/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/sdd", "/dev/sde", "/dev/sdf",
                            "/dev/sdg", "/dev/sdaa", "/dev/vda", "/dev/vdb"));
}

// The same with drives that answer.
struct DriveOpeningTest : DeviceTreeTest {
    explicit DriveOpeningTest(const std::string& fixture = "machine.txt")
        : DeviceTreeTest(fixture) {}
    ServiceId drive(DeviceRegistry& of, const std::string& name) {
        return of.parent(of.servicesNamed("IOMedia", name).value().at(0)).value();
    }
    FakeDrives drives;
    LinuxDeviceRegistry asking{
        loop, {.sysfs = tree.sysfs(), .udevData = tree.udevData(), .takesEvents = false}, drives};
};

TEST_F(DriveOpeningTest, ReachesAtaAndNvmeDrivesByTheirOwnCommands) {
    drives.drives["/dev/sda"].isFailing = true;
    drives.drives["/dev/nvme0n1"].criticalWarning = 1;
    for (const char* name : {"sda", "nvme0n1"}) {
        const SmartOpening opened = asking.openSmart(drive(asking, name));
        ASSERT_TRUE(opened.smart) << name;
        EXPECT_TRUE(opened.smart->returnStatus().isThresholdExceeded) << name;
    }
}

TEST_F(DriveOpeningTest, OpensTheNodeOfADiskWhoseNameHasASlashThere) {
    tree.add("attr devices/pci0000:00/0000:00:0a.0/host13/c0d0/block/cciss!c0d0/device/vendor ATA");
    drives.drives["/dev/cciss/c0d0"].isFailing = true;
    const SmartOpening opened = asking.openSmart(drive(asking, "cciss!c0d0"));
    ASSERT_TRUE(opened.smart);
    EXPECT_TRUE(opened.smart->returnStatus().isThresholdExceeded);
}

TEST_F(DriveOpeningTest, DoesNotAskARestingDriveThatHasAnswered) {
    FakeDrive& sda = drives.drives["/dev/sda"];
    sda.isFailing = true;
    (void)asking.openSmart(drive(asking, "sda")).smart->returnStatus();
    sda.powerMode = 0;
    sda.isFailing = false;
    const SmartOpening opened = asking.openSmart(drive(asking, "sda"));
    EXPECT_EQ(opened.smart->returnStatus().status, kDriveResting);
    EXPECT_EQ(sda.commands.back(), 0xe5) << "nothing but whether it rests was asked";
}

TEST_F(DriveOpeningTest, CannotOpenWhatIsGone) {
    EXPECT_EQ(asking.openSmart(drive(asking, "sdd")).status, ENOENT);
    EXPECT_EQ(asking.openSmart(ServiceId{0xfffffU}).status, ENODEV);
}

// Drives that neither the kernel nor a udevd tells enough of.
struct AskedDriveTest : DriveOpeningTest {
    AskedDriveTest() : DriveOpeningTest("no-udevd.txt") {}

    // The commands that the drive gets when the tree is read after a change to it.
    std::size_t commandsAfter(const std::string& name,
                              void (LinuxDeviceRegistry::*event)(const std::string&)) {
        const std::size_t before = drives.drives["/dev/" + name].commands.size();
        (asking.*event)(name);
        (void)asking.services("IOMedia");
        return drives.drives["/dev/" + name].commands.size() - before;
    }
    std::string text(ServiceId service, const char* key) {
        const auto value = asking.property(service, key);
        return value ? stringValue(&*value) : "none";
    }
};

TEST_F(AskedDriveTest, GivesItsFullNameOnce) {
    drives.drives["/dev/sdb"] = {.model = "Ostwind Spinner 4000GB Enterprise", .serial = "OW-2"};
    drives.drives["/dev/sda"] = {};
    const ServiceId device = asking.parent(drive(asking, "sdb")).value();
    EXPECT_EQ(text(device, "device model"), "Ostwind Spinner 4000GB Enterprise");
    EXPECT_EQ(text(device, "device serial"), "OW-2");
    EXPECT_TRUE(asking.property(drive(asking, "sdb"), "SMART Capable"));
    EXPECT_EQ(commandsAfter("sdb", &LinuxDeviceRegistry::deviceChanged), 0U);
    EXPECT_EQ(text(asking.parent(drive(asking, "sdb")).value(), "device serial"), "OW-2");
    // Of that one the kernel shows the page.
    EXPECT_THAT(drives.drives["/dev/sda"].commands, IsEmpty());
}

TEST_F(AskedDriveTest, IsAskedAnewWhenItMayBeAnother) {
    drives.drives["/dev/sdb"] = {.model = "First", .serial = "1"};
    (void)asking.services("IOMedia");
    drives.drives["/dev/sdb"] = {.model = "Second", .serial = "2"};
    EXPECT_GT(commandsAfter("sdb", &LinuxDeviceRegistry::deviceReplaced), 0U);
    EXPECT_EQ(text(asking.parent(drive(asking, "sdb")).value(), "device model"), "Second");
}

TEST_F(AskedDriveTest, IsAskedAgainWhenItHasNotAnswered) {
    drives.drives["/dev/sdb"] = {.model = "Late", .serial = "1", .timesOut = true};
    EXPECT_FALSE(asking.property(drive(asking, "sdb"), "SMART Capable"));
    drives.drives["/dev/sdb"].timesOut = false;
    EXPECT_GT(commandsAfter("sdb", &LinuxDeviceRegistry::deviceChanged), 0U);
    EXPECT_EQ(text(asking.parent(drive(asking, "sdb")).value(), "device model"), "Late");
}

TEST_F(AskedDriveTest, IsAskedOnceBehindAUsbBridge) {
    tree.add("block devices/usb1/1-9/1-9:1.0/host9/target9:0:0/9:0:0:0/block/sdx 65:112");
    drives.drives["/dev/sdx"] = {.serial = "DISK-9"};
    asking.deviceChanged("sdx");
    EXPECT_TRUE(asking.property(drive(asking, "sdx"), "SMART Capable"));
    EXPECT_EQ(text(asking.parent(drive(asking, "sdx")).value(), "Serial Number"), "DISK-9");
    EXPECT_EQ(drives.drives["/dev/sdx"].commands.size(), 2U);
    EXPECT_EQ(commandsAfter("sdx", &LinuxDeviceRegistry::deviceChanged), 0U);
    EXPECT_TRUE(asking.property(drive(asking, "sdx"), "SMART Capable"));
}

TEST_F(AskedDriveTest, IsSaidToBeOutOfReachWithoutTheRightToAsk) {
    tree.add("block devices/usb1/1-9/1-9:1.0/host9/target9:0:0/9:0:0:0/block/sdx 65:112");
    for (const FakeDrive& drive :
         {FakeDrive{.openError = EACCES}, FakeDrive{.controlErrors = {{0, EPERM}}}}) {
        drives.drives["/dev/sdx"] = drive;
        asking.deviceReplaced("sdx");
        EXPECT_TRUE(asking.property(this->drive(asking, "sdx"), "SMART Out Of Reach"));
        EXPECT_FALSE(asking.property(this->drive(asking, "sdx"), "SMART Capable"));
    }
    drives.drives["/dev/sdx"] = {};
    asking.deviceReplaced("sdx");
    EXPECT_FALSE(asking.property(drive(asking, "sdx"), "SMART Out Of Reach"));
    EXPECT_TRUE(asking.property(drive(asking, "sdx"), "SMART Capable"));
}

TEST_F(AskedDriveTest, IsNotAskedAgainWhenItIsNoAtaDrive) {
    tree.add("block devices/usb1/1-9/1-9:1.0/host9/target9:0:0/9:0:0:0/block/sdx 65:112");
    drives.drives["/dev/sdx"] = {.controlErrors = {{0xec, EOPNOTSUPP}}};
    EXPECT_GT(commandsAfter("sdx", &LinuxDeviceRegistry::deviceChanged), 0U);
    EXPECT_EQ(commandsAfter("sdx", &LinuxDeviceRegistry::deviceChanged), 0U);
}

// Texts come from outside: what can be printed stays, and the same bytes give the same text.
TEST_F(AskedDriveTest, IsNamedInPrintableCharactersWhateverItAnswers) {
    drives.drives["/dev/sdb"] = {.model = "Disk \x01\xff/..", .serial = "A\nB\x80/../C"};
    const auto names = [&] {
        const ServiceId device = asking.parent(drive(asking, "sdb")).value();
        return text(device, "device model") + "|" + text(device, "device serial");
    };
    const std::string first = names();
    EXPECT_THAT(first, testing::HasSubstr("/.."));
    EXPECT_TRUE(std::all_of(first.begin(), first.end(), [](char c) { return c >= ' ' && c < 127; }))
        << first;
    asking.deviceReplaced("sdb");
    EXPECT_EQ(names(), first);
}

}  // namespace
}  // namespace korvane
