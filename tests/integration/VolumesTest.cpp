// Real mounts, in a mount namespace of the test's own.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <thread>

#include "LoopVolume.h"
#include "conformance/DeviceRegistryConformance.h"
#include "conformance/VolumesConformance.h"
#include "platform/linux/LinuxDeviceRegistry.h"
#include "platform/linux/LinuxVolumes.h"
#include "unit/platform/RecordingLog.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using testing::Contains;
using testing::Not;

// Longer than the pause after which changes of the table are told.
constexpr milliseconds kSettled{300};

// The loop, run until something has come about or for a while. A new loop each time would lose
// what the old one has armed, so it ends by posting.
class Turns {
  public:
    explicit Turns(LinuxRunLoop& loop) : loop_(loop) {}

    bool runUntil(const std::function<bool()>& isDone, milliseconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!isDone() && std::chrono::steady_clock::now() < end) {
            (void)sd_event_run(loop_.event(), 5000);
        }
        return isDone();
    }
    void settle() {
        (void)runUntil([] { return false; }, kSettled);
    }

  private:
    LinuxRunLoop& loop_;
};

// Everything mounted below the folder goes at the end, whatever the test has done.
class MountFolder {
  public:
    ~MountFolder() {
        for (const std::string& path : mounted_) (void)::umount2(path.c_str(), MNT_DETACH);
    }
    [[nodiscard]] std::string operator/(const std::string& name) const { return folder_ / name; }
    [[nodiscard]] const std::string& path() const { return folder_.path(); }
    std::string make(const std::string& name) {
        const std::string path = folder_ / name;
        fs::create_directories(path);
        mounted_.insert(mounted_.begin(), path);
        return path;
    }

  private:
    TemporaryFolder folder_;
    std::vector<std::string> mounted_;
};

struct RealVolumes : testing::Test {
    void SetUp() override {
        if (!enterPrivateMounts()) GTEST_SKIP() << "mounting takes root";
        fs::create_directory(folder / "support");
        volumes = std::make_unique<LinuxVolumes>(
            loop, LinuxVolumesPlaces{.memoryFile = folder / "support/.volumes.plist",
                                     .linksFolder = folder / "Volumes",
                                     .keepsLinks = true});
        volumes->setDidMount([this] { ++mounts; });
        volumes->setDidUnmount([this] { ++unmounts; });
    }
    // Mounts the volume and waits until that was told.
    std::string mounted(const LoopVolume& volume, const std::string& name) {
        const std::string path = folder.make(name);
        const int before = mounts;
        EXPECT_TRUE(volume.mountAt(path));
        EXPECT_TRUE(turns.runUntil([&] { return mounts > before; }, milliseconds{5000}));
        return path;
    }
    std::int16_t numberAt(const std::string& path) {
        return volumes->volumeInfoOfRoot({path}).value.referenceNumber;
    }

    MountFolder folder;
    RecordingLog log;
    LinuxRunLoop loop{log};
    Turns turns{loop};
    std::unique_ptr<LinuxVolumes> volumes;
    int mounts = 0;
    int unmounts = 0;
};

TEST_F(RealVolumes, AreThisMachinesRootAtLeast) {
    ASSERT_NE(volumes->mountAt("/"), nullptr);
    for (const std::string& path : volumes->mountedLocalVolumePaths()) {
        EXPECT_TRUE(volumes->mountAt(path)->mountFromName.starts_with("/dev/")) << path;
    }
}

TEST_F(RealVolumes, AreMeasuredAndLinkedAndForgotten) {
    const LoopVolume disk{folder.path(), "disk"};
    if (disk.device().empty()) GTEST_SKIP() << "no loop devices here";
    const std::string path = mounted(disk, "Data");
    EXPECT_THAT(volumes->mountedLocalVolumePaths(), Contains(path));
    EXPECT_EQ(volumes->mountAt(path)->mountFromName, disk.device());
    EXPECT_EQ(fs::read_symlink(folder / "Volumes/Data"), path);
    const auto attributes = volumes->fileSystemAttributes(path);
    ASSERT_TRUE(attributes);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(attributes->number, status.st_dev);
    EXPECT_GT(attributes->sizeBytes, 1'000'000U);
    // What is kept for root alone does not count as free.
    struct statvfs space {};
    ASSERT_EQ(::statvfs(path.c_str(), &space), 0);
    ASSERT_LT(space.f_bavail, space.f_bfree);
    EXPECT_EQ(attributes->freeBytes, std::uint64_t{space.f_bavail} * space.f_frsize);

    // Gone, and the table does not know yet: the sizes of the folder below are not the volume's.
    ASSERT_EQ(::umount2(path.c_str(), 0), 0);
    EXPECT_FALSE(volumes->fileSystemAttributes(path));
    EXPECT_TRUE(turns.runUntil([&] { return unmounts == 1; }, milliseconds{5000}));
    EXPECT_THAT(volumes->mountedLocalVolumePaths(), Not(Contains(path)));
    EXPECT_FALSE(fs::is_symlink(folder / "Volumes/Data"));
}

TEST_F(RealVolumes, ShowARemountAsNoEvent) {
    const LoopVolume disk{folder.path(), "disk"};
    if (disk.device().empty()) GTEST_SKIP() << "no loop devices here";
    const std::string path = mounted(disk, "Data");
    EXPECT_TRUE(volumes->fileSystemFlags(path)->isWritable);
    ASSERT_EQ(::mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_TRUE(turns.runUntil([&] { return !volumes->fileSystemFlags(path)->isWritable; },
                               milliseconds{5000}));
    turns.settle();
    EXPECT_EQ(mounts, 1);
    EXPECT_EQ(unmounts, 0);
}

TEST_F(RealVolumes, CarryAnyName) {
    const LoopVolume disk{folder.path(), "disk"};
    if (disk.device().empty()) GTEST_SKIP() << "no loop devices here";
    const std::map<std::string, std::string> names{{"two words", "two words"},
                                                   {"line\nfeed", "line\\012feed"},
                                                   {"..dots..", "..dots.."},
                                                   {"bad\xff\xc3", "bad\\377\\303"},
                                                   {"back\\slash", "back\\slash"},
                                                   {"back\\040slash", "back\\134040slash"},
                                                   {"hash#", "hash#"}};
    for (const auto& [bytes, text] : names) {
        mounted(disk, bytes);
        const std::string path = folder / text;
        EXPECT_THAT(volumes->mountedLocalVolumePaths(), Contains(path));
        EXPECT_TRUE(volumes->fileSystemAttributes(path)) << path;
        EXPECT_EQ(volumes->pathBytes(path), folder / bytes);
        EXPECT_EQ(fs::read_symlink(folder / ("Volumes/" + bytes)), folder / bytes);
        EXPECT_TRUE(volumes->unmount(numberAt(path))) << path;
    }
}

TEST_F(RealVolumes, AreUnmountedOnlyWhenTheyAreIdle) {
    const LoopVolume disk{folder.path(), "disk"};
    if (disk.device().empty()) GTEST_SKIP() << "no loop devices here";
    const std::string path = mounted(disk, "Data");
    const std::int16_t number = numberAt(path);
    {
        const UniqueFd busy{::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        EXPECT_FALSE(volumes->unmount(number));
        EXPECT_NE(volumes->mountAt(path), nullptr);
    }
    EXPECT_TRUE(volumes->unmount(number));
    EXPECT_FALSE(volumes->unmount(number));
    turns.settle();
    EXPECT_EQ(unmounts, 1);
}

TEST_F(RealVolumes, AreNotUnmountedInPlaceOfWhatCoversThem) {
    const LoopVolume disk{folder.path(), "disk"};
    if (disk.device().empty()) GTEST_SKIP() << "no loop devices here";
    const std::string path = mounted(disk, "Data");
    ASSERT_EQ(::mount("cover", path.c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_FALSE(volumes->unmount(numberAt(path)));
    EXPECT_FALSE(volumes->fileSystemAttributes(path));
    ASSERT_EQ(::umount2(path.c_str(), 0), 0);
}

TEST_F(RealVolumes, KeepTheirNumberAfterARestart) {
    const LoopVolume disk{folder.path(), "disk"};
    if (disk.device().empty()) GTEST_SKIP() << "no loop devices here";
    const std::int16_t number = numberAt(mounted(disk, "Data"));
    LinuxVolumes restarted{loop, {.memoryFile = folder / "support/.volumes.plist"}};
    EXPECT_EQ(restarted.volumeInfoOfRoot({folder / "Data"}).value.referenceNumber, number);
}

TEST_F(RealVolumes, MountedInABurstAreReadAtMostThreeTimes) {
    const LoopVolume disk{folder.path(), "disk"};
    if (disk.device().empty()) GTEST_SKIP() << "no loop devices here";
    const std::size_t before = volumes->readings();
    constexpr int kMounts = 1000;
    for (int i = 0; i < kMounts; ++i) {
        const std::string path = folder.make("many/" + std::to_string(i));
        ASSERT_EQ(::mount("many", path.c_str(), "tmpfs", 0, "size=4k"), 0);
        if (i % 100 == 0) (void)sd_event_run(loop.event(), 0);
    }
    mounted(disk, "Data");
    turns.settle();
    EXPECT_LE(volumes->readings() - before, 3U);
    EXPECT_NE(volumes->mountAt(folder / "many/999"), nullptr);
    EXPECT_EQ(mounts, 1) << "pseudo file systems are no event";
}

struct RealVolumesSubject final : VolumesSubject {
    RealVolumesSubject() {
        if (!enterPrivateMounts()) return;
        volumes_ = std::make_unique<LinuxVolumes>(loop_, LinuxVolumesPlaces{});
    }
    Volumes& volumes() override { return *volumes_; }
    std::string mount(const std::string& name) override {
        if (!volumes_) return {};
        auto& disk = disks_[name];
        if (!disk) {
            const std::string image = std::to_string(disks_.size());
            disk = std::make_unique<LoopVolume>(folder_.path(), image);
        }
        const std::string path = folder_.make(name);
        return disk->mountAt(path) ? path : std::string{};
    }
    void unmount(const std::string& path) override { (void)::umount2(path.c_str(), 0); }
    std::string mountAgain(const std::string& path) override {
        const std::string again = folder_.make("again");
        return ::mount(path.c_str(), again.c_str(), nullptr, MS_BIND, nullptr) == 0 ? again : "";
    }
    std::string mountPseudo() override {
        const std::string path = folder_.make("pseudo");
        return ::mount("/dev/pseudo", path.c_str(), "tmpfs", 0, nullptr) == 0 ? path : "";
    }
    std::shared_ptr<void> use(const std::string& path) override {
        return std::make_shared<UniqueFd>(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    void runUntil(const std::function<bool()>& isDone) override {
        (void)turns_.runUntil(isDone, milliseconds{5000});
    }
    void settle() override { turns_.settle(); }

    std::map<std::string, std::unique_ptr<LoopVolume>> disks_;
    MountFolder folder_;
    RecordingLog log_;
    LinuxRunLoop loop_{log_};
    Turns turns_{loop_};
    std::unique_ptr<LinuxVolumes> volumes_;
};
INSTANTIATE_TEST_SUITE_P(Linux, VolumesConformance,
                         testing::Values(Implementation<VolumesSubject>{
                             "Linux", [] { return std::make_unique<RealVolumesSubject>(); }}),
                         testing::PrintToStringParamName());

struct RealDevicesSubject final : DeviceRegistrySubject {
    DeviceRegistry& registry() override { return registry_; }
    std::string plug() override {
        plugged_ = std::make_unique<PulledLoop>();
        return plugged_->name();
    }
    // Others on this machine look at a new device, and it stays while they do.
    void pull() override {
        const auto end = std::chrono::steady_clock::now() + milliseconds{10'000};
        while (!plugged_->pull() && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
        }
    }
    void inATurn(const std::function<void()>& work) override {
        bool isDone = false;
        loop_.post([&] {
            work();
            isDone = true;
        });
        EXPECT_TRUE(turns_.runUntil([&] { return isDone; }, milliseconds{10'000}));
    }

    RecordingLog log_;
    LinuxRunLoop loop_{log_};
    Turns turns_{loop_};
    LinuxDeviceRegistry registry_{loop_, {}};
    std::unique_ptr<PulledLoop> plugged_;
};
INSTANTIATE_TEST_SUITE_P(Linux, DeviceRegistryConformance,
                         testing::Values(Implementation<DeviceRegistrySubject>{
                             "Linux", [] { return std::make_unique<RealDevicesSubject>(); }}),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace korvane
