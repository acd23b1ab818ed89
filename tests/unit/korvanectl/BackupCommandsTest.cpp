// The words for the directory backup and the list of its locations.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/korvanectl/ProgramFixture.h"

namespace korvane::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class BackupCommands : public KorvanectlTest {
  protected:
    BackupCommands() { volumes.paths = {"/", "/mnt/a/Data", "/mnt/b/Data", "/mnt/Safe"}; }
    [[nodiscard]] std::vector<std::string> locations() const {
        std::vector<std::string> names;
        const Dictionary preferences = stored();
        for (const PropertyList& name : *preferences.find(kDirectoryBackupLocations)->array()) {
            names.push_back(stringValue(&name));
        }
        return names;
    }
};

TEST_F(BackupCommands, SendTheDaemonItsWord) {
    EXPECT_EQ(run({"backup", "stop"}), 0);
    EXPECT_EQ(run({"backup", "disable"}), 0);
    EXPECT_EQ(out, "Directory backups are disabled.\n");
    EXPECT_EQ(run({"backup", "enable"}), 0);
    EXPECT_THAT(daemon.words,
                ElementsAre("directoryBackupStopNotification", "disableDirectoryBackupNotification",
                            "enableDirectoryBackupNotification"));
}

TEST_F(BackupCommands, SaySoWhenNoDaemonRuns) {
    daemon.present = DaemonPresence::absent;
    EXPECT_EQ(run({"backup", "stop"}), 2);
    EXPECT_THAT(out, IsEmpty());
}

TEST_F(BackupCommands, ShowTheLocationsOneALine) {
    EXPECT_EQ(run({"locations"}), 0);
    EXPECT_EQ(out, "/Volumes/System\n");
}

TEST_F(BackupCommands, AddALocationOnceInTheFormThatTheDaemonReads) {
    EXPECT_EQ(run({"locations", "add", "/mnt/Safe"}), 0);
    EXPECT_EQ(out, "Directory backups are copied to /Volumes/Safe.\n");
    EXPECT_EQ(run({"locations", "add", "/mnt/Safe"}), 0);
    EXPECT_EQ(run({"locations", "add", "/"}), 0);
    EXPECT_THAT(locations(), ElementsAre("/Volumes/System", "/Volumes/Safe"));
}

TEST_F(BackupCommands, AddALocationByTheNameThatIsItsOwn) {
    volumes.names["/mnt/b/Data"] = "Data 1";
    EXPECT_EQ(run({"locations", "add", "/mnt/b/Data"}), 0);
    EXPECT_THAT(locations(), ElementsAre("/Volumes/System", "/Volumes/Data 1"));
}

TEST_F(BackupCommands, RefuseALocationThatIsNoMountedVolume) {
    EXPECT_EQ(run({"locations", "add", "/mnt/nowhere"}), 1);
    EXPECT_THAT(err, HasSubstr("\"/mnt/nowhere\" is not a mounted volume"));
    EXPECT_THAT(locations(), ElementsAre("/Volumes/System"));
}

TEST_F(BackupCommands, RemoveALocationByTheMountPointItWasAddedWith) {
    EXPECT_EQ(run({"locations", "add", "/mnt/Safe"}), 0);
    EXPECT_EQ(run({"locations", "remove", "/mnt/Safe"}), 0);
    EXPECT_EQ(out, "Directory backups are no longer copied to /Volumes/Safe.\n");
    EXPECT_THAT(locations(), ElementsAre("/Volumes/System"));
}

TEST_F(BackupCommands, RemoveALocationButNeverTheLast) {
    EXPECT_EQ(run({"locations", "add", "/mnt/Safe"}), 0);
    EXPECT_EQ(run({"locations", "remove", "/Volumes/System"}), 0);
    EXPECT_THAT(locations(), ElementsAre("/Volumes/Safe"));
    EXPECT_EQ(run({"locations", "remove", "/Volumes/System"}), 1);
    EXPECT_THAT(err, HasSubstr("is no backup location"));
    EXPECT_EQ(run({"locations", "remove", "/Volumes/Safe"}), 1);
    EXPECT_THAT(err, HasSubstr("the last location"));
}

}  // namespace
}  // namespace korvane::ctl
