#include <gtest/gtest.h>

#include <array>
#include <string>

#include "TemporaryFolder.h"
#include "platform/linux/LinuxHost.h"

namespace korvane {
namespace {

using Numbers = std::array<int, 3>;

Numbers numbersOf(SystemVersion version) { return {version.major, version.minor, version.bugFix}; }

struct OsReleaseRow {
    std::string text;
    Numbers version;
};

class OsRelease : public testing::TestWithParam<OsReleaseRow> {};

TEST_P(OsRelease, GivesTheVersion) {
    EXPECT_EQ(numbersOf(versionFromOsRelease(GetParam().text)), GetParam().version);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, OsRelease,
    testing::Values(
        OsReleaseRow{"NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nVERSION=\"12 (bookworm)\"\n",
                     {12, 0, 0}},
        OsReleaseRow{"VERSION_ID=22.04\n", {22, 4, 0}},
        OsReleaseRow{"VERSION_ID='15.5.1'", {15, 5, 1}},
        OsReleaseRow{"VERSION_ID=\"15.5.1.9\"", {15, 5, 1}},
        OsReleaseRow{"VERSION_ID=10\nVERSION_ID=40\n", {40, 0, 0}},
        OsReleaseRow{"VERSION_ID=\"39 (beta)\"\n", {39, 0, 0}},
        OsReleaseRow{"VERSION_ID=20240101\n", {20240101, 0, 0}},
        // A version below 11, and none that can be read.
        OsReleaseRow{"VERSION_ID=3.18.4\n", {11, 0, 0}},
        OsReleaseRow{"VERSION_ID=10.9\n", {11, 0, 0}},
        OsReleaseRow{"VERSION_ID=\"\"\n", {11, 0, 0}}, OsReleaseRow{"VERSION_ID=", {11, 0, 0}},
        OsReleaseRow{"VERSION_ID=rolling\n", {11, 0, 0}}, OsReleaseRow{"", {11, 0, 0}},
        OsReleaseRow{"XVERSION_ID=12\n", {11, 0, 0}}, OsReleaseRow{"# VERSION_ID=12\n", {11, 0, 0}},
        OsReleaseRow{"VERSION_ID=-12\n", {11, 0, 0}},
        OsReleaseRow{"VERSION_ID=99999999999999999999\n", {11, 0, 0}},
        OsReleaseRow{"VERSION_ID=12.99999999999999999999\n", {12, 0, 0}},
        OsReleaseRow{"VERSION_ID=12..5\n", {12, 0, 0}}));

TEST(LinuxHost, PrefersTheFileInEtcToTheVendors) {
    const TemporaryFolder root;
    root.write("usr/lib/os-release", "VERSION_ID=13\n");
    EXPECT_EQ(numbersOf(LinuxHost(root.path()).systemVersion()), (Numbers{13, 0, 0}));
    root.write("etc/os-release", "VERSION_ID=12.1\n");
    EXPECT_EQ(numbersOf(LinuxHost(root.path()).systemVersion()), (Numbers{12, 1, 0}));
}

TEST(LinuxHost, HasTheSystemsOwnWordsForItsVersion) {
    const TemporaryFolder root;
    EXPECT_EQ(LinuxHost(root.path()).systemVersionText(), "Linux");
    root.write("etc/os-release", "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nVERSION_ID=12\n");
    EXPECT_EQ(LinuxHost(root.path()).systemVersionText(), "Debian GNU/Linux 12 (bookworm)");
}

TEST(LinuxHost, IsKnownOnItsLinkByTheFirstPartOfItsName) {
    LinuxHost host;
    const std::vector<std::string> names = host.names();
    ASSERT_FALSE(names.empty());
    EXPECT_EQ(names[0], host.hostName());
    if (names.size() > 1) {
        EXPECT_EQ(names[1], names[0].substr(0, names[0].find('.')) + ".local");
    }
}

TEST(LinuxHost, KnowsUsersByTheirShortNames) {
    LinuxHost host;
    EXPECT_TRUE(host.fullUserName("root"));
    EXPECT_EQ(host.fullUserName("no such user"), std::nullopt);
    EXPECT_FALSE(host.ownFullUserName().empty());
}

TEST(LinuxHost, CountsAsModernWithoutAnyFile) {
    const TemporaryFolder root;
    EXPECT_EQ(numbersOf(LinuxHost(root.path()).systemVersion()), (Numbers{11, 0, 0}));
}

}  // namespace
}  // namespace korvane
