#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/linux/MountTable.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

TEST(MountTable, ReadsEachFieldOfARow) {
    const auto rows = parseMountTable(
        "36 35 98:3 /sub /mnt/two rw,noatime master:1 shared:7 - ext3 /dev/root rw,errors=remount\n"
        "37 36 0:51 / /mnt/two/x rw - nfs4 server:/export rw,vers=4.2\n");
    ASSERT_THAT(rows, SizeIs(2));
    EXPECT_EQ(rows[0].mountId, 36U);
    EXPECT_EQ(rows[0].parentId, 35U);
    EXPECT_EQ(rows[0].device, (DeviceNumber{98, 3}));
    EXPECT_EQ(rows[0].mountPoint, "/mnt/two");
    EXPECT_EQ(rows[0].typeName, "ext3");
    EXPECT_EQ(rows[0].source, "/dev/root");
    EXPECT_FALSE(rows[0].readOnly);
    EXPECT_EQ(rows[1].source, "server:/export");
}

TEST(MountTable, CountsReadOnlyOptionsOfTheMountAndOfTheSuperBlock) {
    const auto isReadOnly = [](const std::string& mount, const std::string& super) {
        return parseMountTable("1 0 8:1 / /a " + mount + " - ext4 /dev/sda1 " + super)
            .at(0)
            .readOnly;
    };
    EXPECT_FALSE(isReadOnly("rw,relatime", "rw"));
    EXPECT_TRUE(isReadOnly("ro,relatime", "rw"));
    EXPECT_TRUE(isReadOnly("rw,relatime", "ro"));
    EXPECT_TRUE(isReadOnly("rw", "rw,errors=continue,ro"));
    EXPECT_FALSE(isReadOnly("rw,errors=remount-ro,rosy", "rw,norecovery"));
    EXPECT_FALSE(isReadOnly("rw", ""));
}

TEST(MountTable, DecodesTheEscapesOfTheKernel) {
    const auto rows = parseMountTable(
        "1 0 0:1 / /a\\040b\\011c\\012d\\134e rw - tmpfs \\043x rw\n"
        "2 0 0:2 / /odd\\8\\19\\1 rw - tmpfs  rw\n");
    ASSERT_THAT(rows, SizeIs(2));
    EXPECT_EQ(rows[0].mountPoint, "/a b\tc\nd\\e");
    EXPECT_EQ(rows[0].source, "#x");
    EXPECT_EQ(rows[1].mountPoint, "/odd\\8\\19\\1");
    EXPECT_EQ(rows[1].source, "");
}

TEST(MountTable, PassesOverMalformedRows) {
    const std::vector<std::string> malformed{
        "",
        " ",
        "-",
        "1",
        "1 0 8:1 / /a rw",
        "1 0 8:1 / /a rw -",
        "1 0 8:1 / /a rw ext4 /dev/sda1 rw",
        "x 0 8:1 / /a rw - ext4 /dev/sda1 rw",
        "1 -1 8:1 / /a rw - ext4 /dev/sda1 rw",
        "1 0 8 / /a rw - ext4 /dev/sda1 rw",
        "1 0 8: / /a rw - ext4 /dev/sda1 rw",
        "1 0 8:1: / /a rw - ext4 /dev/sda1 rw",
        "1 0 99999999999:1 / /a rw - ext4 /dev/sda1 rw",
        "1 0 8:1 /  rw - ext4 /dev/sda1 rw",
        "1 0 8:1 / a rw - ext4 /dev/sda1 rw",
        "1 0 8:1 / /a\\000b rw - ext4 /dev/sda1 rw",
        "1 0 8:1 / /a rw -  /dev/sda1 rw",
        "99999999999999999999 0 8:1 / /a rw - ext4 /dev/sda1 rw"};
    for (const std::string& row : malformed) {
        EXPECT_THAT(parseMountTable(row + "\n7 0 8:7 / /good rw - ext4 /dev/sda7 rw\n"), SizeIs(1))
            << row;
    }
    EXPECT_THAT(parseMountTable(""), IsEmpty());
    EXPECT_THAT(parseMountTable("\n\n"), IsEmpty());
}

// The mount points of those that paths lead to.
std::vector<std::string> reachable(const std::string& table) {
    const auto rows = parseMountTable(table);
    std::vector<std::string> found;
    for (const std::size_t i : reachableMounts(rows)) {
        found.push_back(rows[i].mountPoint + "=" + rows[i].source);
    }
    return found;
}

TEST(MountTable, KnowsMountsHiddenByOthersOnTheSamePlace) {
    EXPECT_THAT(reachable("1 0 8:1 / / rw - ext4 root rw\n"
                          "2 1 8:2 / /mnt rw - ext4 below rw\n"
                          "3 2 0:3 / /mnt rw - tmpfs above rw\n"
                          "4 1 0:4 / /proc rw - proc proc rw\n"),
                ElementsAre("/=root", "/mnt=above", "/proc=proc"));
}

TEST(MountTable, KnowsMountsBelowAFolderThatAnotherHides) {
    EXPECT_THAT(reachable("1 0 8:1 / / rw - ext4 root rw\n"
                          "2 1 8:2 / /a/b rw - ext4 hidden rw\n"
                          "3 2 8:3 / /a/b/c rw - ext4 child rw\n"
                          "4 1 8:4 / /a rw - ext4 over rw\n"
                          "5 4 8:5 / /a/b rw - ext4 shown rw\n"
                          "6 1 8:6 / /ab rw - ext4 other rw\n"),
                ElementsAre("/=root", "/a=over", "/a/b=shown", "/ab=other"));
}

TEST(MountTable, KnowsThatTheFirstRootIsHiddenByTheSecond) {
    EXPECT_THAT(reachable("1 1 0:2 / / rw - rootfs rootfs rw\n"
                          "2 1 0:5 / /dev rw - devtmpfs early rw\n"
                          "20 1 8:1 / / rw - ext4 root rw\n"
                          "21 20 0:5 / /dev rw - devtmpfs dev rw\n"),
                ElementsAre("/=root", "/dev=dev"));
    EXPECT_THAT(reachable("1 1 0:2 / / rw - rootfs rootfs rw\n"
                          "2 1 0:5 / /dev rw - devtmpfs dev rw\n"),
                ElementsAre("/=rootfs", "/dev=dev"));
}

TEST(MountTable, TakesRingsOfParentsAsTheyCome) {
    EXPECT_THAT(reachable("1 2 8:1 / /a rw - ext4 one rw\n"
                          "2 1 8:2 / /b rw - ext4 two rw\n"),
                ElementsAre("/a=one", "/b=two"));
}

TEST(MountTable, MakesTextsOfAnyBytesAndBytesOfTexts) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"plain", "plain"},
        {"two words", "two words"},
        {"f\xc3\xbcr \xe2\x82\xac \xf0\x9f\x98\x80", "f\xc3\xbcr \xe2\x82\xac \xf0\x9f\x98\x80"},
        {"line\nfeed\ttab", "line\\012feed\\011tab"},
        {"\x7f", "\\177"},
        {"\xc2\x85", "\\302\\205"},
        {"\xff\xfe", "\\377\\376"},
        {"\xc3", "\\303"},
        {"\xc0\xaf", "\\300\\257"},
        {"\xed\xa0\x80", "\\355\\240\\200"},
        {"\xf4\x90\x80\x80", "\\364\\220\\200\\200"},
        {"\xef\xbf\xbe", "\\357\\277\\276"},
        {"a\\b", "a\\b"},
        {"a\\012b", "a\\134012b"},
        {"\\\n", "\\\\012"},
        {"\\999", "\\999"},
        {"..", ".."}};
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(textOfBytes(bytes), text);
        EXPECT_EQ(bytesOfText(text), bytes);
    }
    EXPECT_EQ(textOfBytes(std::string(1, '\0')), "\\000");
}

}  // namespace
}  // namespace korvane
