#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KorvaneProDirectoryBackup/MountPoints.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::Pointee;

TEST(MountPoints, AreKnownByTheFolderThatTheyLieIn) {
    const MountPoints points{
        "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "21 20 0:5 / /proc rw - proc proc rw\n"
        "22 20 0:40 / /mnt/a\\040server rw - nfs4 server:/ rw\n"
        "23 20 0:41 / /mnt/another rw - nfs4 server:/ rw\n"
        "24 22 0:42 / /mnt/a\\040server/below rw - nfs4 server:/ rw\n"
        "no row\n"};
    EXPECT_THAT(points.in("/"), Pointee(ElementsAre("proc")));
    EXPECT_THAT(points.in("/mnt"), Pointee(ElementsAre("a server", "another")));
    EXPECT_THAT(points.in("/mnt/a server"), Pointee(ElementsAre("below")));
    EXPECT_EQ(points.in("/mnt/another"), nullptr);
    EXPECT_EQ(points.in(""), nullptr);
}

TEST(MountPoints, OfThisProcessHaveItsOwn) {
    EXPECT_THAT(MountPoints::ofThisProcess().in("/"), Pointee(testing::Contains("proc")));
}

}  // namespace
}  // namespace korvane
