// The real daemon on a machine with a root disk and a second disk. Runs inside the emulated machine
// two_disks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <string>

#include "Guest.h"

namespace korvane::guest {
namespace {

using ::testing::Eq;
using ::testing::Optional;
using ::testing::SizeIs;

namespace fs = std::filesystem;

const std::string kData = "/mnt/Data";

mode_t permissionsOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// Both are checked at once, and the second one every two seconds from then on. (The first would
// keep the second waiting for ever: a tick starts the first entry that is due, and looks again in a
// second.)
void checkDataOften(Dictionary& preferences) {
    PropertyList* volumes = preferences.find("volumeArray");
    ASSERT_TRUE(volumes && volumes->array());
    for (PropertyList& volume : *volumes->array()) {
        Dictionary& entry = *volume.dictionary();
        entry.set("executionTimeUsage", 0.0);
        if (stringValue(entry.find("volumeMountToName")) == kData) {
            entry.set("executionIntervalUsage_minutes", 0);
            entry.set("executionIntervalUsage_seconds", 2);
        }
    }
}

class TwoDisks : public ::testing::Test {
  protected:
    void SetUp() override { mountDevice("/dev/sda", "ext4", kData); }

    void TearDown() override {
        daemon_.reset();
        if (HasFailure()) {
            keepSupportFolder();
        }
        unmount(kData);
        fs::remove_all("/Library");
        fs::remove_all("/Volumes");
    }

    // A daemon that has seen both volumes and checks the second one often.
    void startCheckingOften() {
        {
            RunningDaemon daemon;
            ASSERT_TRUE(becomes([] { return volumeEntry("/") && volumeEntry(kData); }));
        }
        editPreferences(checkDataOften);
        daemon_ = std::make_unique<RunningDaemon>();
        ASSERT_TRUE(becomes([] { return usageStatus(kData) == "3" && usageStatus("/") == "3"; }));
    }

    std::unique_ptr<RunningDaemon> daemon_;
};

TEST_F(TwoDisks, EachHasAnEntryAndAPassedCheck) {
    RunningDaemon daemon;
    ASSERT_TRUE(becomes([] { return usageStatus(kData) == "3" && usageStatus("/") == "3"; }));
    EXPECT_EQ(permissionsOf(kPreferences), 0666U);

    // 9p, tmpfs and overlay file systems are none of the daemon's business.
    const auto preferences = readDictionary(kPreferences);
    ASSERT_TRUE(preferences);
    EXPECT_THAT(*preferences->find("volumeArray")->array(), SizeIs(2));
    for (const std::string& volume : {std::string{"/"}, kData}) {
        const auto entry = volumeEntry(volume);
        ASSERT_TRUE(entry);
        EXPECT_TRUE(booleanValue(entry->find("volumeOnOff"))) << volume << " is internal";
        EXPECT_FALSE(booleanValue(entry->find("directoryOnOff"))) << volume;
        EXPECT_FALSE(booleanValue(entry->find("trashOnOff"))) << volume;
        EXPECT_FALSE(booleanValue(entry->find("isCoreStorageEncrypted"))) << volume;
        EXPECT_EQ(integerValue(entry->find("freeSpaceWarningLevel")), 15) << volume;
        EXPECT_EQ(integerValue(entry->find("executionIntervalUsage_minutes")), 5) << volume;
        EXPECT_EQ(stringValue(entry->find("directoryStatus")), "0") << volume;
    }
    for (const std::string name : {"System", "Data"}) {
        EXPECT_TRUE(fs::exists(kSupportFolder + "/" + name + "/DirectoryBackup (ON)")) << name;
        EXPECT_EQ(lastResult(name), "passed");
    }
    struct statvfs space {};
    ASSERT_EQ(statvfs(kData.c_str(), &space), 0);
    EXPECT_FLOAT_EQ(
        static_cast<float>(doubleValue(usageHistory("Data").back().dictionary()->find("fs_size"))),
        static_cast<float>(space.f_blocks * space.f_frsize));
    EXPECT_EQ(fs::read_symlink("/Volumes/System"), "/");
    EXPECT_EQ(fs::read_symlink("/Volumes/Data"), kData);
    EXPECT_THAT(daemon.stop(), Optional(Eq(0)));
}

TEST_F(TwoDisks, AFilledOneIsLoggedAsFailedAndLatchedUntilTheSpaceIsBack) {
    startCheckingOften();
    fill(kData, 95);
    ASSERT_TRUE(becomes([] { return usageStatus(kData) == "4"; }));
    EXPECT_EQ(lastResult("Data"), "failed");
    const std::size_t checks = usageHistory("Data").size();
    ASSERT_TRUE(becomes([=] { return usageHistory("Data").size() > checks; }));
    EXPECT_EQ(usageStatus(kData), "4");
    EXPECT_EQ(lastResult("Data"), "failed");
    EXPECT_EQ(usageStatus("/"), "3");

    emptyAgain(kData);
    EXPECT_TRUE(becomes([] { return usageStatus(kData) == "3"; }));
    EXPECT_EQ(lastResult("Data"), "passed");
    EXPECT_THAT(daemon_->stop(), Optional(Eq(0)));
}

TEST_F(TwoDisks, AreCheckedOnWhenTheClockStepsBack) {
    startCheckingOften();
    const ClockSteppedBack steppedBack{std::chrono::days{30}};
    const std::size_t checks = usageHistory("Data").size();
    EXPECT_TRUE(becomes([=] { return usageHistory("Data").size() > checks + 1; }));
    // The other one's check is as far away as it was: five minutes at most.
    const auto now = static_cast<double>(std::time(nullptr));
    EXPECT_LE(doubleValue(volumeEntry("/")->find("executionTimeUsage")), now + 300);
    EXPECT_GT(doubleValue(volumeEntry("/")->find("executionTimeUsage")), now);
    EXPECT_THAT(daemon_->stop(), Optional(Eq(0)));
}

TEST_F(TwoDisks, AnUnmountMarksTheEntryAndAMountRevivesIt) {
    startCheckingOften();
    unmount(kData);
    EXPECT_TRUE(becomes([] { return usageStatus(kData) == "5"; }));
    EXPECT_EQ(stringValue(volumeEntry(kData)->find("directoryStatus")), "5");
    EXPECT_FALSE(fs::is_symlink("/Volumes/Data"));

    mountDevice("/dev/sda", "ext4", kData);
    EXPECT_TRUE(becomes([] { return usageStatus(kData) == "3"; }));
    EXPECT_EQ(stringValue(volumeEntry(kData)->find("directoryStatus")), "0");
    EXPECT_TRUE(fs::is_symlink("/Volumes/Data"));
    EXPECT_THAT(daemon_->stop(), Optional(Eq(0)));
}

}  // namespace
}  // namespace korvane::guest
