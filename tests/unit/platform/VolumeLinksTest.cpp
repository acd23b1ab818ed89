#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "TemporaryFolder.h"
#include "platform/linux/VolumeLinks.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

struct VolumeLinksTest : testing::Test {
    std::map<std::string, std::string> links() const {
        std::map<std::string, std::string> found;
        for (const auto& entry : fs::directory_iterator(volumes)) {
            if (entry.is_symlink()) {
                found.emplace(entry.path().filename(), fs::read_symlink(entry.path()));
            }
        }
        return found;
    }
    // One life of the daemon.
    void update(const std::vector<std::string>& mountPoints) const {
        VolumeMemory memory{folder / "support/.memory.plist"};
        EXPECT_TRUE((VolumeLinks{volumes, memory}.update(mountPoints)));
    }

    TemporaryFolder folder;
    std::string volumes = folder / "Volumes";
    bool isReady = fs::create_directory(folder / "support");
};

TEST_F(VolumeLinksTest, LeadsToEachVolumeByItsName) {
    update({"/", "/mnt/Data", "/media/Backup"});
    EXPECT_THAT(links(), ElementsAre(Pair("Backup", "/media/Backup"), Pair("Data", "/mnt/Data"),
                                     Pair("System", "/")));
}

TEST_F(VolumeLinksTest, CountsVolumesOfOneName) {
    update({"/mnt/Data", "/media/Data", "/srv/Data", "/srv/System", "/"});
    EXPECT_THAT(links(), ElementsAre(Pair("Data", "/mnt/Data"), Pair("Data 1", "/media/Data"),
                                     Pair("Data 2", "/srv/Data"), Pair("System", "/srv/System"),
                                     Pair("System 1", "/")));
}

TEST_F(VolumeLinksTest, KeepsANameWhileItsVolumeStays) {
    update({"/mnt/Data", "/media/Data"});
    update({"/media/Data"});
    EXPECT_THAT(links(), ElementsAre(Pair("Data 1", "/media/Data")));
    update({"/media/Data", "/srv/Data"});
    EXPECT_THAT(links(), ElementsAre(Pair("Data", "/srv/Data"), Pair("Data 1", "/media/Data")));
}

TEST_F(VolumeLinksTest, GivesTheNameOfAVolumeThatIsGoneToAnother) {
    update({"/mnt/Data"});
    update({"/media/Data"});
    EXPECT_THAT(links(), ElementsAre(Pair("Data", "/media/Data")));
}

TEST_F(VolumeLinksTest, NeverTouchesWhatItHasNotMade) {
    fs::create_directories(volumes + "/Data");
    fs::create_symlink("/elsewhere", volumes + "/Backup");
    fs::create_symlink("/media/Own", volumes + "/Own");
    update({"/mnt/Data", "/mnt/Backup"});
    EXPECT_THAT(links(), ElementsAre(Pair("Backup", "/elsewhere"), Pair("Backup 1", "/mnt/Backup"),
                                     Pair("Data 1", "/mnt/Data"), Pair("Own", "/media/Own")));
    update({});
    EXPECT_THAT(links(), ElementsAre(Pair("Backup", "/elsewhere"), Pair("Own", "/media/Own")));
    EXPECT_TRUE(fs::is_directory(volumes + "/Data"));
}

TEST_F(VolumeLinksTest, MakesNoSecondLinkBesideOneThatItHasForgotten) {
    update({"/", "/mnt/Data", "/media/Data"});
    fs::remove_all(folder / "support");
    fs::create_directory(folder / "support");
    update({"/", "/media/Data", "/mnt/Data"});
    EXPECT_THAT(links(), ElementsAre(Pair("Data", "/mnt/Data"), Pair("Data 1", "/media/Data"),
                                     Pair("System", "/")));
}

TEST_F(VolumeLinksTest, LeavesALinkThatAnotherHasChanged) {
    update({"/mnt/Data"});
    fs::remove(volumes + "/Data");
    fs::create_symlink("/elsewhere", volumes + "/Data");
    update({"/mnt/Data"});
    EXPECT_THAT(links(), ElementsAre(Pair("Data", "/elsewhere"), Pair("Data 1", "/mnt/Data")));
}

TEST_F(VolumeLinksTest, MakesALinkAgainThatAnotherHasRemoved) {
    update({"/mnt/Data"});
    fs::remove(volumes + "/Data");
    update({"/mnt/Data"});
    EXPECT_THAT(links(), ElementsAre(Pair("Data", "/mnt/Data")));
}

TEST_F(VolumeLinksTest, NeedsNoneForAVolumeMountedInTheFolder) {
    fs::create_directories(volumes + "/Data");
    update({volumes + "/Data", "/mnt/Data"});
    EXPECT_THAT(links(), ElementsAre(Pair("Data 1", "/mnt/Data")));
}

TEST_F(VolumeLinksTest, MakesNoneThatCouldNotBeRemembered) {
    fs::remove(folder / "support");
    VolumeMemory memory{folder / "support/.memory.plist"};
    VolumeLinks linksKept{volumes, memory};
    EXPECT_FALSE(linksKept.update({"/mnt/Data"}));
    EXPECT_THAT(links(), IsEmpty());
    fs::create_directory(folder / "support");
    EXPECT_TRUE(linksKept.update({"/mnt/Data"}));
    EXPECT_THAT(links(), ElementsAre(Pair("Data", "/mnt/Data")));
}

TEST_F(VolumeLinksTest, CarriesAnyName) {
    update({"/mnt/a\nb", "/mnt/\xff", "/mnt/..x", "/mnt/back\\slash"});
    EXPECT_THAT(links(),
                ElementsAre(Pair("..x", "/mnt/..x"), Pair("a\nb", "/mnt/a\nb"),
                            Pair("back\\slash", "/mnt/back\\slash"), Pair("\xff", "/mnt/\xff")));
}

TEST_F(VolumeLinksTest, KeepsNoneWithoutAFolder) {
    VolumeMemory memory{folder / "support/.memory.plist"};
    EXPECT_TRUE((VolumeLinks{"", memory}.update({"/mnt/Data"})));
    EXPECT_FALSE(fs::exists(volumes));
}

}  // namespace
}  // namespace korvane
