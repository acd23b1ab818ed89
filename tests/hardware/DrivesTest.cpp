// The real daemon and drives and volumes of every kind. Runs inside the emulated machine drives. A
// start of the daemon and its first checks take long there, so the tests are one story in the order
// in which they stand: each goes on where the one before it ended.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Guest.h"

namespace korvane::guest {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

namespace fs = std::filesystem;

// Longer than the 16 characters that the SCSI form of the name has.
const std::string kAtaModel = "Korvane Test Disk of Some Length";
const std::string kHealthy = kAtaModel + " - ATA-1";
const std::string kFailing = kAtaModel + " - ATA-2";
const std::string kNvme = "QEMU NVMe Ctrl - NVME-1";

const std::string kDialogLine = "The dialog \"Korvane Pro Warning\" is not shown";

std::string nameOf(const Dictionary& drive) {
    return stringValue(drive.find("driveModel")) + " - " + stringValue(drive.find("driveSerial"));
}

// What stands under the key of the preferences, an array of dictionaries.
std::vector<Dictionary> entries(const std::string& key) {
    std::vector<Dictionary> found;
    const auto preferences = readDictionary(kPreferences);
    const PropertyList* array = preferences ? preferences->find(key) : nullptr;
    if (!array || !array->array()) return found;
    for (const PropertyList& entry : *array->array()) found.push_back(*entry.dictionary());
    return found;
}

std::vector<std::string> driveNames() {
    std::vector<std::string> names;
    for (const Dictionary& drive : entries("driveArray")) names.push_back(nameOf(drive));
    return names;
}

std::vector<std::string> volumePaths() {
    std::vector<std::string> paths;
    for (const Dictionary& volume : entries("volumeArray")) {
        paths.push_back(stringValue(volume.find("volumeMountToName")));
    }
    return paths;
}

// 0 for a drive without an entry.
std::int64_t intervalHours(const std::string& name) {
    for (const Dictionary& drive : entries("driveArray")) {
        if (nameOf(drive) == name) return integerValue(drive.find("executionIntervalSmart_hours"));
    }
    return 0;
}

// The results that the drive's log holds, oldest first.
std::vector<Dictionary> historyOf(const std::string& drive) {
    std::vector<Dictionary> found;
    const auto log = readDictionary(kSupportFolder + "/" + drive + "/Smart Check.plist");
    const PropertyList* logged = log ? log->find("logEntries") : nullptr;
    if (!logged || !logged->array()) return found;
    for (const PropertyList& entry : *logged->array()) found.push_back(*entry.dictionary());
    return found;
}

std::string lastResultOf(const std::string& drive) {
    const auto history = historyOf(drive);
    return history.empty() ? "none" : stringValue(history.back().find("result"));
}

std::string shown(const std::string& arguments) {
    run(std::string{KORVANE_BUILD_DIR "/korvanectl "} + arguments + " >/tmp/shown 2>&1");
    std::ifstream file("/tmp/shown");
    return {std::istreambuf_iterator<char>(file), {}};
}

// Copies the volume: the beginning, where an empty one has everything, and its end.
void copyEmptyVolume(const std::string& from, const std::string& to) {
    constexpr std::size_t kBeginning = 1 << 20;
    constexpr std::size_t kEnd = 4096;
    std::ifstream source(from, std::ios::binary);
    std::fstream target(to, std::ios::binary | std::ios::in | std::ios::out);
    std::vector<char> bytes(kBeginning);
    source.read(bytes.data(), static_cast<std::streamsize>(kBeginning));
    target.write(bytes.data(), static_cast<std::streamsize>(kBeginning));
    source.seekg(-static_cast<std::streamoff>(kEnd), std::ios::end);
    target.seekp(-static_cast<std::streamoff>(kEnd), std::ios::end);
    source.read(bytes.data(), static_cast<std::streamsize>(kEnd));
    target.write(bytes.data(), static_cast<std::streamsize>(kEnd));
    ASSERT_TRUE(source && target);
}

void makeEncryptedVolume(const std::string& disk) {
    std::ofstream("/tmp/key") << "the key of the encrypted disk";
    run("cryptsetup luksFormat -q --type luks1 --pbkdf-force-iterations 1000 --key-file /tmp/key " +
        disk + " && cryptsetup open --key-file /tmp/key " + disk + " secret");
    copyEmptyVolume(diskOf("UAS-1"), "/dev/mapper/secret");
    mountDevice("/dev/mapper/secret", "hfsplus", "/mnt/Secret");
}

// One that is checked and not encrypted, though cryptsetup's library makes both.
void makeCheckedVolume(const std::string& disk) {
    run("integritysetup format -q " + disk + " && integritysetup open " + disk +
        " checked && mkfs.ext4 -q /dev/mapper/checked");
    mountDevice("/dev/mapper/checked", "ext4", "/mnt/Checked");
}

void makeLoopVolume() {
    run("truncate -s 8M /tmp/loop.img && mkfs.ext4 -q /tmp/loop.img");
    const int loop = open("/dev/loop0", O_RDWR | O_CLOEXEC);
    const int image = open("/tmp/loop.img", O_RDWR | O_CLOEXEC);
    ASSERT_EQ(ioctl(loop, LOOP_SET_FD, image), 0);
    (void)close(loop);
    (void)close(image);
    mountDevice("/dev/loop0", "ext4", "/mnt/Image");
}

// 1 mAh; any other level plugs the adapter in (power.asl).
void feedFromBattery() { std::ofstream("/sys/class/power_supply/BAT0/alarm") << "1000\n"; }
void feedFromMains() { std::ofstream("/sys/class/power_supply/BAT0/alarm") << "500000\n"; }
bool isOnMains() {
    int online = -1;
    std::ifstream("/sys/class/power_supply/ADP0/online") >> online;
    return online == 1;
}

class Drives : public ::testing::Test {
  public:
    static void SetUpTestSuite() {
        // USB devices are found a while after the machine has started.
        for (const std::string serial : {"UAS-1", "STICK-1", "SCSI-1", "VIRTIO-1", "VIRTIO-2"}) {
            ASSERT_TRUE(becomes([&] { return !diskOf(serial).empty(); })) << serial;
        }
        makeEncryptedVolume(diskOf("SCSI-1"));
        makeCheckedVolume(diskOf("VIRTIO-2"));
        mountDevice(diskOf("UAS-1"), "hfsplus", "/mnt/HFS");
        mountDevice(diskOf("STICK-1"), "hfsplus", "/mnt/Journaled");
        mountDevice(diskOf("VIRTIO-1"), "ext4", "/mnt/Virtio");
        mountDevice("/dev/sr0", "ext4", "/mnt/Disc", MS_RDONLY);
        makeLoopVolume();
        daemon_ = std::make_unique<RunningDaemon>();
    }
    static void TearDownTestSuite() { daemon_.reset(); }

  protected:
    void TearDown() override {
        if (HasFailure()) keepSupportFolder();
    }

    // Starts the daemon anew, with these changes to every entry under the key.
    static void restart(const std::string& key, const std::function<void(Dictionary&)>& change) {
        ASSERT_EQ(daemon_->stop(), 0);
        editPreferences([&](Dictionary& preferences) {
            for (PropertyList& entry : *preferences.find(key)->array()) {
                change(*entry.dictionary());
            }
        });
        daemon_ = std::make_unique<RunningDaemon>();
    }

    static inline std::unique_ptr<RunningDaemon> daemon_;
};

TEST_F(Drives, ThatHaveSmartHaveAnEntryAndPass) {
    for (const std::string& drive : {kHealthy, kFailing, kNvme}) {
        ASSERT_TRUE(becomes([&] { return lastResultOf(drive) == "passed"; })) << drive;
    }
    // The USB stick, the UAS, SCSI and virtio disks, the disc and the loop device have none.
    EXPECT_THAT(driveNames(), UnorderedElementsAre(kHealthy, kFailing, kNvme));
    const Dictionary ata = historyOf(kHealthy).back();
    EXPECT_EQ(*ata.find("driveConnection"), PropertyList("ATA"));
    EXPECT_EQ(*ata.find("bsdName"), PropertyList(diskOf("ATA-1")));
    EXPECT_EQ(*historyOf(kNvme).back().find("bsdName"), PropertyList("/dev/nvme0n1"));
    EXPECT_EQ(linesLogged("SMART is reporting failing"), 0);
}

TEST_F(Drives, HoldVolumesOfWhichSomeAreLeftOut) {
    ASSERT_TRUE(becomes([] { return volumeEntry("/mnt/HFS") && volumeEntry("/mnt/Secret"); }));
    // Not the disc, the image and the journaled volume, which the kernel has made read-only.
    EXPECT_THAT(volumePaths(), UnorderedElementsAre("/", "/mnt/HFS", "/mnt/Secret", "/mnt/Virtio",
                                                    "/mnt/Checked"));
    EXPECT_TRUE(booleanValue(volumeEntry("/mnt/Virtio")->find("volumeOnOff")));

    const Dictionary hfs = *volumeEntry("/mnt/HFS");
    EXPECT_TRUE(booleanValue(hfs.find("trashOnOff")));
    EXPECT_FALSE(booleanValue(hfs.find("volumeOnOff"))) << "a UAS disk is external";
    EXPECT_FALSE(booleanValue(hfs.find("directoryOnOff")));
    EXPECT_FALSE(booleanValue(hfs.find("isCoreStorageEncrypted")));
    EXPECT_TRUE(fs::exists(kSupportFolder + "/HFS/DirectoryBackup (ON)"));

    const Dictionary secret = *volumeEntry("/mnt/Secret");
    EXPECT_TRUE(booleanValue(secret.find("isCoreStorageEncrypted")));
    EXPECT_FALSE(booleanValue(secret.find("trashOnOff")));
    EXPECT_FALSE(booleanValue(secret.find("directoryOnOff")));
    EXPECT_EQ(stringValue(secret.find("directoryStatus")), "5");
    EXPECT_FALSE(booleanValue(volumeEntry("/mnt/Checked")->find("isCoreStorageEncrypted")));
    EXPECT_TRUE(fs::exists(kSupportFolder + "/Secret/DirectoryBackup (OFF)"));
    EXPECT_FALSE(fs::exists(kSupportFolder + "/Secret/DirectoryBackup (ON)"));
}

TEST_F(Drives, ThatBeginToFailAreWarnedOfOnce) {
    askEmulator(R"({"make_failing": "ATA-2"})");
    askEmulator(R"({"execute": "qom-set", "arguments": {"path": "/machine/peripheral/NVME-1",
                        "property": "smart_critical_warning", "value": 4}})");
    const int dialogs = linesLogged(kDialogLine);
    restart("driveArray", [](Dictionary& drive) {
        drive.set("executionTimeSmart", 0.0);
        drive.set("executionIntervalSmart_hours", 7);
    });
    for (const std::string& drive : {kHealthy, kFailing, kNvme}) {
        ASSERT_TRUE(becomes([&] { return historyOf(drive).size() == 2; })) << drive;
    }
    // A mount has the drives probed again; that is not a check.
    unmount("/mnt/Virtio");
    ASSERT_TRUE(becomes([] { return usageStatus("/mnt/Virtio") == "5"; }));
    mountDevice(diskOf("VIRTIO-1"), "ext4", "/mnt/Virtio");
    ASSERT_TRUE(becomes([] { return usageStatus("/mnt/Virtio") != "5"; }));
    for (const std::string& drive : {kHealthy, kFailing, kNvme}) {
        EXPECT_THAT(historyOf(drive), SizeIs(2)) << drive;
    }
    EXPECT_EQ(lastResultOf(kHealthy), "passed");
    EXPECT_EQ(lastResultOf(kFailing), "failed");
    EXPECT_EQ(lastResultOf(kNvme), "failed");
    const std::string line = "SMART is reporting failing for ";
    EXPECT_EQ(linesLogged(line + diskOf("ATA-2") + "."), 1);
    EXPECT_EQ(linesLogged(line + "/dev/nvme0n1."), 1);
    EXPECT_EQ(linesLogged(line), 2);
    // Nobody sits at the console of this machine to whom a dialog could be shown.
    EXPECT_EQ(linesLogged(kDialogLine) - dialogs, 2);
    EXPECT_THAT(shown("drives"), AllOf(HasSubstr("FAILING"), HasSubstr("ATA-2")));
    EXPECT_EQ(intervalHours(kNvme), 7);
}

TEST_F(Drives, ThatArePulledLoseTheirEntryAndComeBackWithDefaults) {
    // Through the machine's own plug, and through the kernel's.
    askEmulator(R"({"execute": "device_del", "arguments": {"id": "NVME-1"}})");
    const std::string ata = "/sys/block/" + fs::path(diskOf("ATA-1")).filename().string();
    const fs::path port = fs::canonical(ata + "/device/../..");  // the SCSI host
    std::ofstream(ata + "/device/delete") << "1\n";
    ASSERT_TRUE(becomes([] { return diskOf("NVME-1").empty() && diskOf("ATA-1").empty(); }));
    daemon_->wake();
    ASSERT_TRUE(becomes([] { return driveNames().size() == 1; }));
    EXPECT_THAT(driveNames(), UnorderedElementsAre(kFailing));

    askEmulator(R"({"execute": "device_add", "arguments": {"driver": "nvme", "id": "NVME-1",
                        "drive": "NVME-1", "serial": "NVME-1"}})");
    std::ofstream(port / "scsi_host" / port.filename() / "scan") << "- - -\n";
    ASSERT_TRUE(becomes([] { return !diskOf("NVME-1").empty() && !diskOf("ATA-1").empty(); }));
    daemon_->wake();
    ASSERT_TRUE(becomes([] { return driveNames().size() == 3; }));
    EXPECT_EQ(intervalHours(kNvme), 1);
    EXPECT_EQ(intervalHours(kHealthy), 1);
    EXPECT_EQ(intervalHours(kFailing), 7);
    // Its log lies where it lay, and goes on.
    ASSERT_TRUE(becomes([] { return historyOf(kNvme).size() == 3; }));
    EXPECT_EQ(lastResultOf(kNvme), "passed");
}

TEST_F(Drives, WithTheEmergencyVolumeLoseItFromTheMountTable) {
    mountDevice(diskOf("ATA-1"), "ext4", "/Volumes/Ostrand");
    const auto isMounted = [] {
        std::ifstream table("/proc/self/mounts");
        const std::string text{std::istreambuf_iterator<char>(table), {}};
        return text.find("/Volumes/Ostrand") != std::string::npos;
    };
    ASSERT_TRUE(isMounted());
    EXPECT_TRUE(becomes([&] { return !isMounted(); }));
}

TEST_F(Drives, OnBatteryAreNotLookedAtByTheClock) {
    ASSERT_TRUE(isOnMains());
    restart("volumeArray", [](Dictionary& volume) {
        if (stringValue(volume.find("volumeMountToName")) != "/") return;
        volume.set("executionIntervalUsage_minutes", 0);
        volume.set("executionIntervalUsage_seconds", 4);
        volume.set("executionTimeUsage", 0.0);
    });
    // On mains power it goes on and on.
    const std::size_t before = usageHistory("System").size();
    ASSERT_TRUE(becomes([&] { return usageHistory("System").size() >= before + 2; }));

    feedFromBattery();
    ASSERT_TRUE(becomes([] { return !isOnMains(); }));
    // The timer that was armed on mains power still fires, and what is due then is done. After
    // that nothing happens for longer than any timer of it would take.
    std::this_thread::sleep_for(std::chrono::seconds(8));
    const std::size_t atRest = usageHistory("System").size();
    std::this_thread::sleep_for(std::chrono::seconds(8));
    EXPECT_THAT(usageHistory("System"), SizeIs(atRest));

    // An event still brings a look.
    unmount("/mnt/Virtio");
    EXPECT_TRUE(becomes([&] { return usageHistory("System").size() > atRest; }));
    feedFromMains();
    ASSERT_TRUE(becomes([] { return isOnMains(); }));
    const std::size_t back = usageHistory("System").size();
    daemon_->wake();
    EXPECT_TRUE(becomes([&] { return usageHistory("System").size() >= back + 2; }));
}

TEST_F(Drives, AreTheSameToTheDaemonWhereUdevdRuns) {
    run("/lib/systemd/systemd-udevd --daemon && udevadm trigger -c add -s block && udevadm settle");
    restart("driveArray", [](Dictionary& drive) { drive.set("executionIntervalSmart_hours", 9); });
    const std::size_t before = usageHistory("System").size();
    ASSERT_TRUE(becomes([=] { return usageHistory("System").size() > before; }));
    for (const std::string& drive : {kHealthy, kFailing, kNvme}) {
        EXPECT_EQ(intervalHours(drive), 9) << drive << " has a new entry";
    }
    EXPECT_THAT(driveNames(), SizeIs(3));
}

TEST_F(Drives, ThatComeAndGoAreNoticedBeforeUdevdHasSaidSo) {
    run("udevadm control --stop-exec-queue");
    // A new loop device with a volume, there before anybody but the kernel has told of it. When the
    // daemon has seen the mount that comes after it, it has seen this one too.
    ASSERT_TRUE(becomes([] { return usageStatus("/mnt/Virtio") == "5"; }));
    run("truncate -s 8M /tmp/late.img && mkfs.ext4 -q /tmp/late.img && mkdir -p /mnt/Late && "
        "loop=$(losetup -f --show /tmp/late.img) && mount -t ext4 $loop /mnt/Late");
    mountDevice(diskOf("VIRTIO-1"), "ext4", "/mnt/Virtio");
    ASSERT_TRUE(becomes([] { return usageStatus("/mnt/Virtio") != "5"; }));
    EXPECT_FALSE(volumeEntry("/mnt/Late"));
    unmount("/mnt/Late");

    const std::string ata = "/sys/block/" + fs::path(diskOf("ATA-1")).filename().string();
    std::ofstream(ata + "/device/delete") << "1\n";
    ASSERT_TRUE(becomes([&] { return !fs::exists(ata); }));
    daemon_->wake();
    EXPECT_TRUE(becomes([] { return driveNames().size() == 2; }));
    EXPECT_THAT(driveNames(), UnorderedElementsAre(kFailing, kNvme));
    run("udevadm control --start-exec-queue");
    EXPECT_EQ(daemon_->stop(), 0);
}

}  // namespace
}  // namespace korvane::guest
