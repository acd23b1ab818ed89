// What is recorded of items, on whatever file system the test's folder lies.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "KorvaneProDataRecovery/ItemRecording.h"
#include "platform/linux/UniqueFd.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Of the text "abc": FIPS 180-4's own example.
constexpr Sha256 kSumOfAbc = {0xba, 0x78, 0x16, 0xbf, 0x8f, 0x01, 0xcf, 0xea, 0x41, 0x41, 0x40,
                              0xde, 0x5d, 0xae, 0x22, 0x23, 0xb0, 0x03, 0x61, 0xa3, 0x96, 0x17,
                              0x7a, 0x9c, 0xb4, 0x10, 0xff, 0x61, 0xf2, 0x00, 0x15, 0xad};

class ItemRecordingTest : public testing::Test {
  protected:
    std::vector<RecordedItem> record(const std::string& name) {
        const UniqueFd at{::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        return recordItem(at.get(), folder.path(), name, limit, reading);
    }
    static std::vector<std::string> namesOf(const std::vector<RecordedItem>& items) {
        std::vector<std::string> names;
        for (const RecordedItem& item : items) names.push_back(item.name);
        return names;
    }
    TemporaryFolder folder;
    FolderLimit limit;
    ReadingLimit reading{std::chrono::steady_clock::now() + 1h, 1 << 20, 1 << 20};
};

TEST_F(ItemRecordingTest, TellsAllOfAFile) {
    folder.write("letter", "abc");
    struct stat status {};
    ASSERT_EQ(::stat((folder / "letter").c_str(), &status), 0);
    const auto items = record("letter");
    ASSERT_THAT(items, SizeIs(1));
    EXPECT_EQ(items[0].node, status.st_ino);
    EXPECT_EQ(items[0].trashNode, status.st_ino);
    EXPECT_EQ(items[0].mode, status.st_mode);
    EXPECT_EQ(items[0].size, 3U);
    EXPECT_EQ(items[0].modified, status.st_mtim.tv_sec);
    EXPECT_EQ(items[0].name, "letter");
    EXPECT_EQ(items[0].path, folder / "letter");
    EXPECT_EQ(items[0].flags & kRecordHasChecksum, kRecordHasChecksum);
    EXPECT_EQ(items[0].checksum, kSumOfAbc);
    struct stat parent {};
    ASSERT_EQ(::stat(folder.path().c_str(), &parent), 0);
    EXPECT_EQ(items[0].parent, parent.st_ino);
}

TEST_F(ItemRecordingTest, ReadsNoContentsPastTheLimits) {
    folder.write("letter", "abc");
    reading.bytesOfFile = 2;
    EXPECT_EQ(record("letter")[0].flags & kRecordHasChecksum, 0);
    reading.bytesOfFile = 3;
    reading.bytesLeft = 2;
    EXPECT_EQ(record("letter")[0].flags & kRecordHasChecksum, 0);
    reading.bytesLeft = 3;
    reading.until = std::chrono::steady_clock::now();
    EXPECT_EQ(record("letter")[0].flags & kRecordHasChecksum, 0);
}

TEST_F(ItemRecordingTest, GoesThroughFoldersButThroughNoLink) {
    folder.write("box/inner/letter", "abc");
    folder.write("elsewhere/secret", "abc");
    fs::create_directory_symlink(folder / "elsewhere", folder / "box/link");
    const auto items = record("box");
    EXPECT_THAT(namesOf(items), UnorderedElementsAre("box", "inner", "letter", "link"));
    EXPECT_EQ(items[0].name, "box");
    for (const RecordedItem& item : items) {
        EXPECT_EQ(item.trashNode, items[0].node);
        EXPECT_EQ(item.linkTarget, item.name == "link" ? folder / "elsewhere" : "");
        EXPECT_EQ(item.path == folder / "box/inner/letter", item.name == "letter");
    }
    EXPECT_EQ(items[0].flags & kRecordFolderCut, 0);
}

TEST_F(ItemRecordingTest, StopsAtTheLimitsOfAFolderAndSaysSo) {
    folder.write("box/inner/letter", "abc");
    limit.depth = 1;
    auto items = record("box");
    EXPECT_THAT(namesOf(items), ElementsAre("box", "inner"));
    EXPECT_NE(items[0].flags & kRecordFolderCut, 0);
    limit.depth = 2;
    limit.itemsOfFolder = 1;
    items = record("box");
    EXPECT_THAT(namesOf(items), ElementsAre("box", "inner"));
    EXPECT_NE(items[0].flags & kRecordFolderCut, 0);
    limit.itemsOfFolder = 10;
    limit.namesOfFolder = 1;
    EXPECT_NE(record("box")[0].flags & kRecordFolderCut, 0);
}

TEST_F(ItemRecordingTest, RecordsAnItemItselfWhateverOthersHeld) {
    folder.write("box/letter", "abc");
    limit.itemsLeft = 0;
    const auto items = record("box");
    EXPECT_THAT(namesOf(items), ElementsAre("box"));
    EXPECT_NE(items[0].flags & kRecordFolderCut, 0);
}

TEST_F(ItemRecordingTest, KeepsTheExtentsOfAFolderWithinTheirLimit) {
    folder.write("box/letter", std::string(10'000, 'a'));
    limit.extentsOfFolder = 0;
    const auto items = record("box");
    ASSERT_THAT(namesOf(items), ElementsAre("box", "letter"));
    EXPECT_THAT(items[1].extents, IsEmpty());
    EXPECT_NE(items[1].flags & kRecordExtentsCut, 0);
    folder.write("letter", std::string(10'000, 'a'));
    const bool fileSystemSays = !record("letter")[0].extents.empty();
    EXPECT_EQ(record("letter")[0].flags & kRecordExtentsCut,
              fileSystemSays ? 0 : kRecordExtentsCut);
}

TEST_F(ItemRecordingTest, GoesThroughAFolderInTheOrderOfItsNames) {
    for (const char* const name : {"c", "a/2", "b", "a/1", "B", "\xFF", "10", "9"}) {
        folder.write(std::string("box/") + name, "abc");
    }
    EXPECT_THAT(namesOf(record("box")),
                ElementsAre("box", "10", "9", "B", "a", "1", "2", "b", "c", "\xFF"));
    limit.itemsOfFolder = 3;
    EXPECT_THAT(namesOf(record("box")), ElementsAre("box", "10", "9", "B"));
}

TEST_F(ItemRecordingTest, OpensNoPipe) {
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    const auto items = record("pipe");
    ASSERT_THAT(items, SizeIs(1));
    EXPECT_TRUE(S_ISFIFO(items[0].mode));
    EXPECT_THAT(items[0].extents, IsEmpty());
}

TEST_F(ItemRecordingTest, IsEmptyForWhatIsGone) { EXPECT_THAT(record("gone"), IsEmpty()); }

TEST_F(ItemRecordingTest, TakesAnyNameThatAFileCanHave) {
    for (const std::string& name :
         {std::string(255, 'n'), std::string("two\nlines"), std::string("\xFF\xFE"),
          std::string("  blank"), std::string("-rf"), std::string("...")}) {
        folder.write(name, "abc");
        const auto items = record(name);
        ASSERT_THAT(items, SizeIs(1)) << name;
        EXPECT_EQ(items[0].name, name);
    }
}

}  // namespace
}  // namespace korvane
