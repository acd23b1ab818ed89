// What the files that the daemon keeps tell of earlier runs, and what one run saves itself by it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "KorvaneProDataRecovery/RecordFiles.h"
#include "KorvaneProDataRecovery/Recovery.h"
#include "trash/TrashFormats.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

RecordedItem item(std::uint64_t node, const std::string& name, std::uint64_t trashNode) {
    return {.node = node, .trashNode = trashNode, .mode = S_IFREG | 0644, .name = name};
}
RecordedItem item(std::uint64_t node, const std::string& name) { return item(node, name, node); }

class RecordFiles : public testing::Test {
  protected:
    void keep(const std::string& hour, const std::vector<RecordedItem>& items) const {
        std::string bytes;
        for (const RecordedItem& each : items) bytes += encodeItem(each);
        append(hour, bytes);
    }
    void append(const std::string& hour, const std::string& bytes) const {
        std::ofstream{pathOf(hour), std::ios::binary | std::ios::app} << bytes;
    }
    [[nodiscard]] std::string pathOf(const std::string& hour) const {
        return folder / ("Trash Deletes 2026-03-02-" + hour);
    }
    [[nodiscard]] static std::vector<std::string> namesIn(
        const EarlierRecords::Recording* recording) {
        std::vector<std::string> names;
        if (recording == nullptr) return names;
        for (const RecordedItem& each : recording->items) names.push_back(each.name);
        return names;
    }
    TemporaryFolder folder;
    EarlierRecords::Moment now = std::chrono::system_clock::now();
};

TEST_F(RecordFiles, HaveTheNewestRecordingOfEachItem) {
    keep("08", {item(1, "old box"), item(5, "a", 1), item(2, "letter"), item(3, "other")});
    keep("09", {item(1, "box"), item(6, "b", 1), item(1, "box"), item(7, "c", 1)});
    const EarlierRecords earlier{folder.path(), {1, 2}, now};
    EXPECT_THAT(namesIn(earlier.of(1)), ElementsAre("box", "c"));
    EXPECT_THAT(namesIn(earlier.of(2)), ElementsAre("letter"));
    EXPECT_EQ(earlier.of(3), nullptr);  // nobody asked
    EXPECT_EQ(earlier.of(4), nullptr);
}

TEST_F(RecordFiles, AreFreshForSomeHours) {
    keep("08", {item(1, "letter")});
    EXPECT_TRUE((EarlierRecords{folder.path(), {1}, now}.of(1)->isFresh));
    EXPECT_FALSE((EarlierRecords{folder.path(), {1}, now + 7h}.of(1)->isFresh));
    // The clock was stepped back since: whether they are is not known.
    EXPECT_FALSE((EarlierRecords{folder.path(), {1}, now - 7h}.of(1)->isFresh));
}

TEST_F(RecordFiles, AreReadFromTheirEndAsFarAsAsked) {
    for (std::uint64_t node = 1; node <= 1000; ++node) keep("08", {item(node, "x")});
    append("08", "torn");
    std::vector<std::uint64_t> seen;
    const auto see = [&seen](ItemAssembly::Collected&& each) { seen.push_back(each.item.node); };
    EXPECT_EQ(forEachItemIn(pathOf("08"), 3 * kResultRecordSize + 5, see), 3 * kResultRecordSize);
    EXPECT_THAT(seen, ElementsAre(998, 999, 1000));
    seen.clear();
    (void)forEachItemIn(pathOf("08"), UINT64_MAX, see);
    EXPECT_THAT(seen, SizeIs(1000));
}

TEST_F(RecordFiles, AreNotReadWhereNothingWasWritten) {
    keep("08", {item(1, "x")});
    constexpr std::uintmax_t kLong = 10'000'000ULL * kResultRecordSize;
    fs::resize_file(pathOf("08"), kLong);
    keep("08", {item(2, "x")});
    fs::resize_file(pathOf("08"), 2 * kLong);
    std::vector<std::uint64_t> seen;
    const auto start = std::chrono::steady_clock::now();
    (void)forEachItemIn(pathOf("08"), UINT64_MAX,
                        [&](ItemAssembly::Collected&& each) { seen.push_back(each.item.node); });
    EXPECT_THAT(seen, ElementsAre(1, 2));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST_F(RecordFiles, AreNeitherLinksNorPipesNorRubbish) {
    folder.write("secret", encodeItem(item(1, "x")));
    fs::create_symlink(folder / "secret", pathOf("08"));
    ASSERT_EQ(::mkfifo(pathOf("09").c_str(), 0600), 0);
    append("10", std::string(10'000, 'x'));
    append("11", "");
    const EarlierRecords earlier{folder.path(), {1}, now};
    EXPECT_EQ(earlier.of(1), nullptr);
    EXPECT_THAT(recordFilesIn(folder / "missing"), IsEmpty());
    const auto none = [](ItemAssembly::Collected&&) { ADD_FAILURE(); };
    EXPECT_EQ(forEachItemIn(pathOf("08"), UINT64_MAX, none), 0U);
    EXPECT_EQ(forEachItemIn(pathOf("09"), UINT64_MAX, none), 0U);
}

// A run on a machine whose only volume is that of the test's folder.
class RepeatedRun : public RecordFiles {
  protected:
    RepeatedRun() {
        for (const char* const path : {"home", "root", "block/sdx1", "results", "kept"}) {
            fs::create_directories(folder / path);
        }
        const struct stat status = statusOf("");
        const std::string number =
            std::to_string(::major(status.st_dev)) + ":" + std::to_string(::minor(status.st_dev));
        folder.write("block/sdx1/dev", number + "\n");
        folder.write("mounts", "25 1 " + number + " / " + folder.path() + " rw - ext4 /dev/x rw\n");
        folder.write(".Trash-0/files/letter", "abc");
    }
    [[nodiscard]] struct stat statusOf(std::string_view path) const {
        struct stat status {};
        EXPECT_EQ(::lstat((folder / path).c_str(), &status), 0) << path;
        return status;
    }
    // The result of a run for the letter; empty when there is none.
    std::string runAgain() {
        fs::remove(folder / "results/.1.dat");
        const RecoveryJob job{
            .node = statusOf(".Trash-0/files/letter").st_ino,
            .parent = static_cast<std::uint32_t>(statusOf(".Trash-0/files").st_ino),
            .device = "/dev/sdx1",
            .resultName = ".1.dat"};
        const MachinePlaces places{.mountTable = folder / "mounts",
                                   .blockDevices = folder / "block",
                                   .homes = folder / "home",
                                   .homeOfRoot = folder / "root"};
        recordJobs({.jobs = {job}, .refused = 0}, places, folder / "kept", folder / "results",
                   [](const std::string& line) { ADD_FAILURE() << line; });
        std::ifstream in{folder / "results/.1.dat", std::ios::binary};
        return {std::istreambuf_iterator<char>{in}, {}};
    }
    // As the daemon does.
    void collect(const std::string& records) const {
        std::ofstream{folder / "kept/Trash Deletes 2026-03-02-08", std::ios::binary | std::ios::app}
            << records;
    }
    void setAge(std::chrono::hours age) const {
        fs::last_write_time(folder / "kept/Trash Deletes 2026-03-02-08",
                            fs::file_time_type::clock::now() - age);
    }
};

TEST_F(RepeatedRun, WritesWhatIsKeptAlreadyNotAgain) {
    const std::string first = runAgain();
    EXPECT_EQ(first.size(), kResultRecordSize);
    collect(first);
    fs::permissions(folder / ".Trash-0/files/letter", fs::perms{0644});  // the stamp's own trace
    EXPECT_EQ(runAgain(), "");
    // Long before the file is dropped, the records are written to a newer one.
    setAge(7h);
    EXPECT_EQ(runAgain().size(), first.size());
    setAge(0h);
    EXPECT_EQ(runAgain(), "");
    folder.write(".Trash-0/files/letter", "abcd");
    EXPECT_EQ(runAgain().size(), first.size());
}

TEST_F(RepeatedRun, TakesTheChecksumOverInsteadOfReadingAgain) {
    std::vector<RecordedItem> kept;
    const std::string first = runAgain();
    folder.write("once", first);
    (void)forEachItemIn(folder / "once", UINT64_MAX,
                        [&kept](ItemAssembly::Collected&& each) { kept.push_back(each.item); });
    ASSERT_THAT(kept, SizeIs(1));
    ASSERT_NE(kept[0].flags & kRecordHasChecksum, 0);
    // One that no contents have shows where it comes from.
    kept[0].checksum.fill(7);
    collect(encodeItem(kept[0]));
    setAge(7h);
    folder.write("twice", runAgain());
    std::vector<RecordedItem> again;
    (void)forEachItemIn(folder / "twice", UINT64_MAX,
                        [&again](ItemAssembly::Collected&& each) { again.push_back(each.item); });
    ASSERT_THAT(again, SizeIs(1));
    EXPECT_EQ(again[0].checksum, kept[0].checksum);
}

TEST(RecordFolder, IsTheVolumesAlsoWhenSeveralSearchesRun) {
    const TemporaryFolder support;
    fs::create_directories(support / "Data");
    EXPECT_EQ(recordFolderOf(support.path(), searchInputPathOf("Data")), support / "Data");
    EXPECT_EQ(recordFolderOf(support.path(), searchInputPathOf("Data 12")), support / "Data");
    fs::create_directories(support / "Data 12");
    EXPECT_EQ(recordFolderOf(support.path(), searchInputPathOf("Data 12")), support / "Data 12");
    EXPECT_EQ(recordFolderOf(support.path(), searchInputPathOf("../x")), support / "%2E%2E/x");
}

}  // namespace
}  // namespace korvane
