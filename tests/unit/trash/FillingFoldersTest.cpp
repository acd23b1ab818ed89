// Folders in a trash that are still being filled, on a real file system.

#include <set>

#include "platform/linux/FillingFolders.h"
#include "unit/trash/DirectoryWatchBed.h"

namespace korvane {
namespace {

using FillingFoldersTest = DirectoryWatchBed;

TEST_F(FillingFoldersTest, WaitsForAFolderThatIsStillBeingFilled) {
    std::vector<std::string> told;
    FillingFolders filling(loop_, machine_.volumes, std::chrono::milliseconds(100),
                           [&](const std::string& folder) { told.push_back(folder); });
    fs::create_directories(trash_ + "/box/deep");
    filling.add(trash_, "box");
    // Written to without a pause for the first looks, at 100 and 300 milliseconds.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    while (std::chrono::steady_clock::now() < end) {
        std::ofstream(trash_ + "/box/deep/growing", std::ios::app) << "more";
        ASSERT_GE(sd_event_run(loop_.event(), 1000), 0);
        if (!told.empty()) GTEST_SKIP() << "this machine stopped for longer than a pause";
    }
    turnUntil([&] { return !told.empty(); }, seconds(20));
    EXPECT_THAT(told, testing::ElementsAre(trash_));
}

// What is made after a folder puts no look at it off, and takes its place only in the same trash.
TEST_F(FillingFoldersTest, LooksAtAFolderWhateverElseIsMadeMeanwhile) {
    std::set<std::string> told;
    FillingFolders filling(loop_, machine_.volumes, std::chrono::milliseconds(100),
                           [&](const std::string& folder) { told.insert(folder); });
    for (int i = 0; i < 200; ++i) filling.add(trash_, std::to_string(i));
    fs::create_directories(folder_ / "quiet/box");
    filling.add(folder_ / "quiet", "box");
    const auto end = std::chrono::steady_clock::now() + seconds(10);
    while (!told.contains(folder_ / "quiet") && std::chrono::steady_clock::now() < end) {
        filling.add(trash_, "renewed");
        ASSERT_GE(sd_event_run(loop_.event(), 10'000), 0);
    }
    EXPECT_THAT(told, testing::Contains(folder_ / "quiet"));
}

// It may be emptied before it could be seen to rest.
TEST_F(FillingFoldersTest, TellsOfAFolderThatIsTooLargeToLookAtAtEachLook) {
    int told = 0;
    FillingFolders filling(loop_, machine_.volumes, std::chrono::milliseconds(20),
                           [&](const std::string& /*folder*/) { ++told; });
    fs::create_directories(trash_ + "/box");
    for (int i = 0; i < 1001; ++i) write(trash_ + "/box/" + std::to_string(i));
    filling.add(trash_, "box");
    turnUntil([&] { return told > 1; }, seconds(10));
    EXPECT_GT(told, 1);
}

// All the items of a look have so many names together.
TEST_F(FillingFoldersTest, LooksAtFewItemsAtATimeWhereTheyAreLarge) {
    int told = 0;
    FillingFolders filling(loop_, machine_.volumes, std::chrono::milliseconds(50),
                           [&](const std::string& /*folder*/) { ++told; });
    for (const char* const box : {"a", "b"}) {
        fs::create_directories(trash_ + '/' + box);
        for (int i = 0; i < 600; ++i) write(trash_ + '/' + box + '/' + std::to_string(i));
    }
    for (const char* const box : {"a", "b"}) filling.add(trash_, box);
    turnUntil([&] { return told == 2; }, seconds(10));
    EXPECT_EQ(told, 2);  // of one more at each look
}

TEST_F(FillingFoldersTest, LooksNoDeeperIntoAFolderThanItIsRecorded) {
    int told = 0;
    FillingFolders filling(loop_, machine_.volumes, std::chrono::milliseconds(100),
                           [&](const std::string& /*folder*/) { ++told; });
    std::string deep = trash_ + "/box";
    for (int i = 0; i < 20; ++i) deep += "/d";
    fs::create_directories(deep);
    filling.add(trash_, "box");
    // Sooner than what still changes would be given up, and later than it is first looked at.
    const auto end = std::chrono::steady_clock::now() + seconds(3);
    while (told == 0 && std::chrono::steady_clock::now() < end) {
        write(deep + "/growing");
        ASSERT_GE(sd_event_run(loop_.event(), 1000), 0);
    }
    EXPECT_EQ(told, 1);
}

}  // namespace
}  // namespace korvane
