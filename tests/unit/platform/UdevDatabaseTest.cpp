#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TemporaryFolder.h"
#include "platform/linux/UdevDatabase.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(UdevDatabase, ReadsThePropertiesAmongTheOtherLines) {
    EXPECT_THAT(parseUdevRecord("S:disk/by-id/ata-X\nW:4\nI:1234567\n"
                                "E:ID_MODEL=X\nE:ID_FS_LABEL=a=b\nE:EMPTY=\nG:systemd\nV:1\n"),
                ElementsAre(Pair("EMPTY", ""), Pair("ID_FS_LABEL", "a=b"), Pair("ID_MODEL", "X")));
}

TEST(UdevDatabase, PassesOverMalformedLines) {
    EXPECT_THAT(parseUdevRecord(""), IsEmpty());
    EXPECT_THAT(parseUdevRecord("E:"), IsEmpty());
    EXPECT_THAT(parseUdevRecord("E:KEY\nE:=value\nE\nKEY=value\n\n"), IsEmpty());
    EXPECT_THAT(parseUdevRecord("E:K=1\nE:K=2"), ElementsAre(Pair("K", "2")));
}

TEST(UdevDatabase, DecodesBlanks) {
    EXPECT_EQ(decodeUdevText("Ostwind\\x20Flash\\x2f"), "Ostwind Flash/");
    EXPECT_EQ(decodeUdevText("\\x2"), "\\x2");
    EXPECT_EQ(decodeUdevText("\\xgg\\x"), "\\xgg\\x");
    EXPECT_EQ(decodeUdevText("a\\b"), "a\\b");
}

TEST(UdevDatabase, IsEmptyWithoutItsFolder) {
    EXPECT_THAT(UdevDatabase{"/nowhere"}.propertiesOf({8, 1}), IsEmpty());
}

TEST(UdevDatabase, FindsARecordByTheDevicesNumber) {
    const TemporaryFolder folder;
    folder.write("b8:1", "E:ID_FS_UUID=u\n");
    const UdevDatabase udev{folder.path()};
    EXPECT_EQ(udevValue(udev.propertiesOf({8, 1}), "ID_FS_UUID"), "u");
    EXPECT_EQ(udevValue(udev.propertiesOf({8, 2}), "ID_FS_UUID"), "");
}

}  // namespace
}  // namespace korvane
