// Result files beside what others may have put in their place.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "KorvaneProDataRecovery/ResultFile.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;

class ResultFileTest : public testing::Test {
  protected:
    ResultFileTest() { ::umask(022); }  // files that others may write are nobody's
    [[nodiscard]] std::string text(std::string_view name) const {
        std::ifstream in{folder / name, std::ios::binary};
        return {std::istreambuf_iterator<char>{in}, {}};
    }
    bool save(std::string_view bytes) {
        const auto saved = saveResult(folder.path(), ".1.dat", bytes);
        EXPECT_TRUE(saved);
        return saved && *saved == Saved::whole;
    }
    TemporaryFolder folder;
};

TEST_F(ResultFileTest, IsThereWholeAndForItsOwnerAlone) {
    ASSERT_TRUE(save("records"));
    EXPECT_EQ(text(".1.dat"), "records");
    struct stat status {};
    ASSERT_EQ(::stat((folder / ".1.dat").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(std::distance(fs::directory_iterator{folder.path()}, {}), 1);
}

TEST_F(ResultFileTest, ReplacesOneThatWasLeftOver) {
    folder.write(".1.dat", "something longer from before");
    ASSERT_TRUE(save("new"));
    EXPECT_EQ(text(".1.dat"), "new");
}

// A run that was killed between naming its file and moving it into place.
TEST_F(ResultFileTest, ClearsWhatARunThatWasKilledLeft) {
    folder.write(".1.dat.new", "whole, but from before");
    ASSERT_TRUE(save("new"));
    EXPECT_EQ(text(".1.dat"), "new");
    EXPECT_EQ(std::distance(fs::directory_iterator{folder.path()}, {}), 1);
}

TEST_F(ResultFileTest, PassesThroughNothingOfSomebodyElses) {
    folder.write("elsewhere", "kept");
    fs::create_symlink(folder / "elsewhere", folder / ".1.dat.new");
    EXPECT_FALSE(save("new"));
    fs::remove(folder / ".1.dat.new");
    fs::create_hard_link(folder / "elsewhere", folder / ".1.dat.new");
    EXPECT_FALSE(save("new"));
    EXPECT_EQ(text("elsewhere"), "kept");
    EXPECT_FALSE(fs::exists(folder / ".1.dat"));
}

// Scans follow each other faster than the program ends.
TEST_F(ResultFileTest, IsThereAtEveryMomentWhileSeveralRunsReplaceIt) {
    constexpr int kRounds = 300;
    ASSERT_TRUE(save("0"));
    std::atomic<int> failures = 0;
    std::vector<std::thread> runs;
    for (int run = 0; run < 4; ++run) {
        runs.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                const auto saved = saveResult(folder.path(), ".1.dat", "records");
                if (!saved || *saved != Saved::whole || !fs::exists(folder / ".1.dat")) ++failures;
            }
        });
    }
    for (std::thread& run : runs) run.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(text(".1.dat"), "records");
    EXPECT_EQ(std::distance(fs::directory_iterator{folder.path()}, {}), 1);
}

TEST_F(ResultFileTest, NeverGoesThroughALink) {
    folder.write("elsewhere", "kept");
    fs::create_symlink(folder / "elsewhere", folder / ".1.dat");
    EXPECT_FALSE(save("new"));
    EXPECT_EQ(text("elsewhere"), "kept");
}

TEST_F(ResultFileTest, NeverTakesTheNameOfAFileThatHasAnother) {
    folder.write("elsewhere", "kept");
    fs::create_hard_link(folder / "elsewhere", folder / ".1.dat");
    EXPECT_FALSE(save("new"));
    EXPECT_EQ(text("elsewhere"), "kept");
}

TEST_F(ResultFileTest, LeavesSomebodyElsesFileAlone) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    folder.write(".1.dat", "theirs");
    ASSERT_EQ(::chown((folder / ".1.dat").c_str(), 65534, 65534), 0);
    EXPECT_FALSE(save("new"));
    EXPECT_EQ(text(".1.dat"), "theirs");
    EXPECT_FALSE(readOwnFile(folder / ".1.dat", 100));
}

// A shared file that somebody gave this name is left with it alone once it is replaced in its
// place.
TEST_F(ResultFileTest, LeavesAFileThatOthersMayWriteAlone) {
    for (const mode_t permissions : {0660U, 0606U}) {
        folder.write(".1.dat", "anybody's");
        ASSERT_EQ(::chmod((folder / ".1.dat").c_str(), permissions), 0);
        EXPECT_FALSE(save("new"));
        EXPECT_EQ(text(".1.dat"), "anybody's");
        EXPECT_FALSE(readOwnFile(folder / ".1.dat", 100));
        fs::rename(folder / ".1.dat", folder / ".2.dat.new");
        const auto saved = saveResult(folder.path(), ".2.dat", "new");
        ASSERT_TRUE(saved);
        EXPECT_EQ(*saved, Saved::nameIsTaken);
        EXPECT_EQ(text(".2.dat.new"), "anybody's");
    }
}

TEST_F(ResultFileTest, LeavesAFolderAndAPipeOfThatNameAlone) {
    fs::create_directory(folder / ".1.dat");
    EXPECT_FALSE(save("new"));
    fs::remove(folder / ".1.dat");
    ASSERT_EQ(::mkfifo((folder / ".1.dat").c_str(), 0600), 0);
    EXPECT_FALSE(save("new"));
    EXPECT_FALSE(readOwnFile(folder / ".1.dat", 100));
}

TEST_F(ResultFileTest, SaysWhenThereIsNoSuchFolder) {
    EXPECT_FALSE(saveResult(folder / "missing", ".1.dat", "new"));
}

TEST_F(ResultFileTest, ReadsOwnFilesToTheirLimitAndThroughNoLink) {
    folder.write("jobs", "0123456789");
    const auto cut = readOwnFile(folder / "jobs", 4);
    ASSERT_TRUE(cut);
    EXPECT_EQ(*cut, "0123");
    fs::create_symlink(folder / "jobs", folder / "link");
    EXPECT_FALSE(readOwnFile(folder / "link", 100));
    EXPECT_FALSE(readOwnFile(folder / "missing", 100));
    EXPECT_FALSE(readOwnFile(folder.path(), 100));
}

}  // namespace
}  // namespace korvane
