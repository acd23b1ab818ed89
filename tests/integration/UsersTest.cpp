// Users of a user database of the test's own, in a mount namespace of its own.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <optional>

#include "LoopVolume.h"
#include "platform/linux/LinuxHost.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane {
namespace {

TEST(Users, HaveTheWholeFieldOfTheDatabaseForAFullName) {
    if (!enterPrivateMounts()) GTEST_SKIP() << "mounting takes root";
    const TemporaryFolder folder;
    folder.write("passwd",
                 "root:x:0:0:The Root,Cellar,1,2:/root:/bin/sh\n"
                 "ada:x:4711:4711:Ada Example,Room 1,555,:/:/bin/sh\n"
                 "eve:x:4712:4712::/:/bin/sh\n"
                 "max:x:4713:4713:M\xfcx:/:/bin/sh\n");
    ASSERT_EQ(::mount((folder / "passwd").c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr), 0);
    LinuxHost host;
    EXPECT_EQ(host.fullUserName("ada"), "Ada Example,Room 1,555,");
    EXPECT_EQ(host.fullUserName("eve"), "");
    EXPECT_EQ(host.fullUserName("max"), "M\\374x") << "what no text can carry is shown escaped";
    EXPECT_EQ(host.fullUserName("no such user"), std::nullopt);
    EXPECT_EQ(host.ownFullUserName(), "The Root");
    EXPECT_EQ(::umount2("/etc/passwd", MNT_DETACH), 0);
}

}  // namespace
}  // namespace korvane
