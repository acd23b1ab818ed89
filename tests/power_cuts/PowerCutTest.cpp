// A process saves settings and a history on a real file system, whose disk records what was written
// and what was flushed. Then the power is cut at a thousand moments: all that was flushed is on the
// disk, of the rest some pages are and others not. Each time both documents read, whole, with the
// settings that were set last, and neither is a mixture.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "base/PropertyListFile.h"
#include "integration/LoopVolume.h"
#include "power_cuts/RecordedDisk.h"
#include "unit/base/TemporaryFolder.h"

namespace korvane {
namespace {

constexpr int kSaves = 400;
constexpr int kCuts = 1000;
constexpr std::size_t kDiskBytes = std::size_t{16} * 1024 * 1024;
constexpr char kBootId[] = "/proc/sys/kernel/random/boot_id";

// A document whose every part names the save it comes from: a mixture contradicts itself. Lengths
// differ, so that parts move from page to page.
PropertyList documentOf(int setting, int save) {
    PropertyListArray parts;
    for (int part = 0; part < 40; ++part) {
        parts.emplace_back(
            Dictionary{{"save", save},
                       {"padding", std::string(static_cast<std::size_t>(300 + save % 7), 'x')}});
    }
    return Dictionary{{"parts", std::move(parts)}, {"save", save}, {"setting", setting}};
}

// The save that the document comes from, if all of it does.
std::optional<std::pair<int, int>> settingAndSaveOf(const PropertyList& value) {
    const Dictionary* document = value.dictionary();
    if (!document) return std::nullopt;
    const auto setting = static_cast<int>(integerValue(document->find("setting")));
    const auto save = static_cast<int>(integerValue(document->find("save")));
    return value == documentOf(setting, save) ? std::optional(std::pair{setting, save})
                                              : std::nullopt;
}

// What is known to be done when so many events are recorded.
struct Promise {
    std::uint64_t events = 0;
    int setting = 0;
};

class PowerCuts : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(enterPrivateMounts());
        for (const char* const name : {"served", "volume"}) {
            std::filesystem::create_directory(folder_ / name);
        }
        putContents(image_, std::string(kDiskBytes, '\0'));
        const std::string make = "mkfs.ext4 -q -F -b 4096 -J size=4 -m 0 '" + image_ + "' >&2";
        ASSERT_EQ(std::system(make.c_str()), 0);
        std::filesystem::copy_file(image_, folder_ / "before");
    }
    [[nodiscard]] bool mountVolume(const std::string& disk, const char* options) const {
        const std::string command =
            std::string("mount -o loop,") + options + " '" + disk + "' '" + volume_ + "'";
        return std::system(command.c_str()) == 0;
    }
    // In a process that takes this start of the machine for another one.
    void saveOverAndOver(const RecordedDisk& disk, unsigned seed);
    [[nodiscard]] bool save(const RecordedDisk& disk, unsigned seed) const;

    // In memory, where copying an image takes no time.
    const TemporaryFolder folder_{"/dev/shm"};
    const std::string image_ = folder_ / "image";
    const std::string volume_ = folder_ / "volume";
    const std::string settings_ = volume_ + "/Settings.plist";
    const std::string history_ = volume_ + "/History.plist";
    const std::string promisesFile_ = folder_ / "promises";
    std::vector<Promise> promises_;
};

// The kernel writes some pages back before anybody asks it to.
void writeBackSome(const std::string& path, std::mt19937& random) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const auto page = std::uniform_int_distribution<off_t>(0, 5)(random);
    (void)sync_file_range(file, page * 4096, 4096, SYNC_FILE_RANGE_WRITE);
    close(file);
}

bool PowerCuts::save(const RecordedDisk& disk, unsigned seed) const {
    const std::string bootId = folder_ / "boot_id";
    putContents(bootId, "00000000-0000-0000-0000-000000000000\n");
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(bootId.c_str(), kBootId, nullptr, MS_BIND, nullptr) != 0) {
        return false;
    }
    std::mt19937 random(seed);
    std::ofstream promises(promisesFile_);
    PropertyListFiles files;
    int setting = 0;
    for (int save = 0; save <= kSaves; ++save) {
        const bool isSetting = save % 10 == 0;
        setting += isSetting ? 1 : 0;
        if (!files.write(settings_, documentOf(setting, save), 0666,
                         isSetting ? Durability::powerLoss : Durability::process) ||
            !files.write(history_, documentOf(0, save), 0666, Durability::process)) {
            return false;
        }
        if (isSetting) promises << disk.events() << ' ' << setting << '\n';
        writeBackSome(settings_, random);
        writeBackSome(history_, random);
    }
    return static_cast<bool>(promises.flush());
}

void PowerCuts::saveOverAndOver(const RecordedDisk& disk, unsigned seed) {
    const pid_t child = fork();
    if (child == 0) _exit(save(disk, seed) ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::ifstream promises(promisesFile_);
    Promise promise;
    while (promises >> promise.events >> promise.setting) promises_.push_back(promise);
    ASSERT_GT(promises_.size(), 2u);
}

TEST_F(PowerCuts, LeaveWholeSettingsAndHistoriesAThousandTimes) {
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    const std::string record = folder_ / "record";
    {
        RecordedDisk disk(image_, folder_ / "served", record);
        ASSERT_TRUE(disk.start());
        ASSERT_TRUE(mountVolume(disk.diskFile(), "commit=1"));
        saveOverAndOver(disk, seed);
        if (HasFatalFailure()) return;
        ASSERT_EQ(::umount(volume_.c_str()), 0);
    }
    DiskReplay replay(folder_ / "before", record);
    const std::uint64_t first = promises_.front().events;
    ASSERT_GT(replay.events(), first + kSaves);
    int mended = 0;
    std::size_t promise = 0;
    for (std::uint64_t cut = 0; cut < kCuts; ++cut) {
        const std::uint64_t event = first + (replay.events() - first) * cut / kCuts;
        while (promise + 1 < promises_.size() && promises_[promise + 1].events <= event) ++promise;
        SCOPED_TRACE("after event " + std::to_string(event));
        putContents(image_, replay.imageAfter(event, random));
        ASSERT_TRUE(mountVolume(image_, "noatime"));
        const std::string before = contentsOf(settings_);
        PropertyListFiles files;
        const auto settings = files.read(settings_);
        ASSERT_TRUE(settings) << settings.error().message;
        const auto found = settingAndSaveOf(*settings);
        ASSERT_TRUE(found) << "a mixture";
        ASSERT_GE(found->first, promises_[promise].setting);
        mended += contentsOf(settings_) != before ? 1 : 0;
        if (event > promises_[1].events) {
            const auto history = files.read(history_);
            ASSERT_TRUE(history) << history.error().message;
            ASSERT_TRUE(settingAndSaveOf(*history)) << "a mixture";
        }
        ASSERT_EQ(::umount(volume_.c_str()), 0);
    }
    std::printf("%d of %d power cuts left settings that were mended; %llu events\n", mended, kCuts,
                static_cast<unsigned long long>(replay.events()));
    EXPECT_GT(mended, 0);
}

}  // namespace
}  // namespace korvane
