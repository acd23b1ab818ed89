#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "TemporaryFolder.h"
#include "platform/linux/VolumeMemory.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

struct VolumeMemoryTest : testing::Test {
    TemporaryFolder folder;
    std::string path = folder / ".memory.plist";
};

TEST_F(VolumeMemoryTest, GivesTheSameNumberAgainAfterARestart) {
    std::int16_t first = 0;
    std::int16_t second = 0;
    {
        VolumeMemory memory{path};
        first = memory.numberFor("uuid:one").value();
        second = memory.numberFor("uuid:two").value();
        EXPECT_EQ(memory.numberFor("uuid:one"), first);
        EXPECT_TRUE(memory.save());
    }
    EXPECT_GT(first, 0);
    EXPECT_GT(second, 0);
    EXPECT_NE(first, second);
    VolumeMemory memory{path};
    EXPECT_EQ(memory.numberFor("uuid:two"), second);
    EXPECT_EQ(memory.numberFor("uuid:one"), first);
}

TEST_F(VolumeMemoryTest, NeverGivesOneNumberTwice) {
    VolumeMemory memory{""};
    std::set<std::int16_t> numbers;
    for (int i = 0; i < 32767; ++i) {
        const auto number = memory.numberFor("device:" + std::to_string(i));
        ASSERT_TRUE(number && *number > 0 && numbers.insert(*number).second) << i;
    }
    EXPECT_FALSE(memory.numberFor("one too many"));
}

TEST_F(VolumeMemoryTest, ForgetsThoseSeenLongestAgoButNoneThatIsMounted) {
    VolumeMemory memory{path};
    const std::int16_t mounted = memory.numberFor("mounted").value();
    for (int i = 0; i < 5000; ++i) {
        (void)memory.numberFor("old " + std::to_string(i));
    }
    memory.keepOnly({"mounted"});
    EXPECT_EQ(memory.numberFor("mounted"), mounted);
    EXPECT_TRUE(memory.save());
    EXPECT_LT(std::filesystem::file_size(path), 300'000U);
}

TEST_F(VolumeMemoryTest, NeverMakesItsFolder) {
    const std::string missing = folder / "support/.memory.plist";
    VolumeMemory memory{missing};
    (void)memory.numberFor("uuid:one");
    EXPECT_FALSE(memory.save());
    EXPECT_FALSE(std::filesystem::exists(folder / "support"));
    std::filesystem::create_directory(folder / "support");
    EXPECT_TRUE(memory.save());
    EXPECT_TRUE(std::filesystem::exists(missing));
}

TEST_F(VolumeMemoryTest, WritesNothingWhileNothingHasChanged) {
    VolumeMemory memory{path};
    EXPECT_TRUE(memory.save());
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(VolumeMemoryTest, IsEmptyWhereItsFileIsDamaged) {
    const std::vector<std::string> damaged{
        "", "<plist", "<plist version=\"1.0\"><array/></plist>",
        "<plist version=\"1.0\"><dict><key>numbers</key><true/><key>links</key><array/></dict>"
        "</plist>"};
    for (const std::string& text : damaged) {
        folder.write(".memory.plist", text);
        VolumeMemory memory{path};
        EXPECT_THAT(memory.links(), IsEmpty());
        EXPECT_TRUE(memory.numberFor("uuid:one"));
    }
}

TEST_F(VolumeMemoryTest, PassesOverDamagedRecords) {
    folder.write(
        ".memory.plist",
        "<plist version=\"1.0\"><dict><key>numbers</key><array><true/>"
        "<dict><key>fileSystem</key><string>a</string><key>number</key><integer>7</integer></dict>"
        "<dict><key>fileSystem</key><string>b</string><key>number</key><integer>7</integer></dict>"
        "<dict><key>fileSystem</key><string>c</string><key>number</key><integer>0</integer></dict>"
        "<dict><key>fileSystem</key><string>d</string><key>number</key><integer>99999</integer>"
        "</dict><dict><key>number</key><integer>8</integer></dict></array>"
        "<key>links</key><dict><key>..</key><string>/x</string><key>a/b</key><string>/x</string>"
        "<key>Good</key><string>/x</string></dict></dict></plist>");
    VolumeMemory memory{path};
    EXPECT_EQ(memory.numberFor("a"), 7);
    EXPECT_NE(memory.numberFor("b"), 7);
    EXPECT_GT(memory.numberFor("c"), 0);
    EXPECT_GT(memory.numberFor("d"), 0);
    EXPECT_THAT(memory.links(), ElementsAre(Pair("Good", "/x")));
}

TEST_F(VolumeMemoryTest, KeepsTheBytesOfNames) {
    {
        VolumeMemory memory{path};
        memory.setLinks({{"a\nb\xff", "/mnt/a\nb\xff"}});
        EXPECT_TRUE(memory.save());
    }
    EXPECT_THAT(VolumeMemory{path}.links(), ElementsAre(Pair("a\nb\xff", "/mnt/a\nb\xff")));
}

}  // namespace
}  // namespace korvane
