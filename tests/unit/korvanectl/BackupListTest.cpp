// korvanectl backups, backups diff and backups find, over backups in the daemon's own folder and at
// a location.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/korvanectl/ProgramFixture.h"

namespace korvane::ctl {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kHead[] =
    "#mtree\n# /mnt/Data on 2026-01-01 00:00:00 +0000\n. type=dir mode=0755 time=1.0\n";

class BackupList : public KorvanectlTest {
  protected:
    BackupList() {
        location = folder / "Safe";
        Dictionary preferences = stored();
        preferences.set(kDirectoryBackupLocations, PropertyListArray{"/Volumes/System", location});
        store(preferences);
        write("Data/" + first, "./a type=file mode=0644 size=1500 time=86400.0\n");
        write("Data/" + second,
              "./a type=file mode=0644 size=3 time=90000.0\n"
              "./b\\033 type=link mode=0777 link=a\n");
        write("Safe/Korvane Protection/Data/" + second,
              "./a type=file mode=0644 size=3 time=90000.0\n"
              "./b\\033 type=link mode=0777 link=a\n");
        write("System/Directory Backup 2025-12-31-01-00-00", "");
        folder.write("Data/DirectoryBackup (ON)", "");
        folder.write("Data/Volume Usage.plist", "");
    }
    void write(const std::string& name, const std::string& lines) const {
        folder.write(name, kHead + lines);
    }

    std::string location;
    std::string first = "Directory Backup 2025-12-30-10-00-00";
    std::string second = "Directory Backup 2025-12-31-10-00-00";
};

TEST_F(BackupList, ShowsDateSizeAndEntriesLocationByLocation) {
    EXPECT_EQ(run({"backups"}), 0);
    const std::string pad(location.size() - std::string_view{"/Volumes/System"}.size(), ' ');
    const std::string start = "/Volumes/System" + pad;
    EXPECT_EQ(out, "LOCATION       " + pad + "  VOLUME  BACKUP                    SIZE  ENTRIES\n" +
                       start + "  Data    2025-12-30-10-00-00  125 bytes        1\n" + start +
                       "  Data    2025-12-31-10-00-00  157 bytes        2\n" + start +
                       "  System  2025-12-31-01-00-00   78 bytes        0\n" + location +
                       "  Data    2025-12-31-10-00-00  157 bytes        2\n");
    EXPECT_THAT(err, IsEmpty());
}

TEST_F(BackupList, ShowsThoseOfOneVolumeAlone) {
    EXPECT_EQ(run({"backups", "/"}), 0);
    EXPECT_THAT(out, HasSubstr("2025-12-31-01-00-00"));
    EXPECT_THAT(out, Not(HasSubstr("Data")));
    EXPECT_EQ(run({"backups", "/mnt/a/Data"}), 0);
    EXPECT_THAT(out, Not(HasSubstr("2025-12-31-01-00-00")));
    EXPECT_EQ(run({"backups", "nowhere"}), 1);
    EXPECT_THAT(err, HasSubstr("no volume \"nowhere\""));
    // Its entry may have gone; its backups have not.
    folder.write("Gone/" + first, kHead);
    EXPECT_EQ(run({"backups", "Gone"}), 0);
    EXPECT_THAT(out, HasSubstr("Gone"));
}

TEST_F(BackupList, SaysSoWhenThereAreNone) {
    std::filesystem::remove_all(folder / "Data");
    std::filesystem::remove_all(folder / "System");
    std::filesystem::remove_all(folder / "Safe");
    EXPECT_EQ(run({"backups"}), 0);
    EXPECT_EQ(out, "No directory backup has been made yet.\n");
    EXPECT_EQ(run({"backups", "--json"}), 0);
    EXPECT_EQ(out, "{\n  \"backups\": []\n}\n");
}

TEST_F(BackupList, ShowsADamagedBackupAsSuchAndTheOthersBesideIt) {
    folder.write("Data/" + first, "no record");
    EXPECT_EQ(run({"backups"}), 5);
    EXPECT_THAT(out, HasSubstr("9 bytes  damaged\n"));
    EXPECT_THAT(out, HasSubstr("157 bytes        2\n"));
    EXPECT_THAT(err, HasSubstr("line 1 has no end"));
}

TEST_F(BackupList, ComparesTwoByTheirStampsNamesOrPaths) {
    const std::string expected =
        "changed   /a  (size 1500 bytes -> 3 bytes, modified 1970-01-02 00:00:00 -> "
        "1970-01-02 01:00:00)\n"
        "appeared  /b\\x1b\n"
        "1 appeared, 0 vanished, 1 changed.\n";
    const std::string path = folder / ("Data/" + second);
    EXPECT_EQ(run({"backups", "diff", "2025-12-30-10-00-00", "2025-12-31-10-00-00"}), 0);
    EXPECT_EQ(out, expected);
    EXPECT_EQ(run({"backups", "diff", first.c_str(), path.c_str()}), 0);
    EXPECT_EQ(out, expected);
    EXPECT_EQ(run({"backups", "diff", first.c_str(), first.c_str()}), 0);
    EXPECT_EQ(out, "0 appeared, 0 vanished, 0 changed.\n");
}

TEST_F(BackupList, ComparesAsJsonThatIsPrintedAsItComes) {
    EXPECT_EQ(run({"backups", "diff", first.c_str(), second.c_str(), "--json"}), 0);
    EXPECT_TRUE(out.starts_with("{\"changes\": [\n{\n"));
    EXPECT_THAT(out, HasSubstr("}\n,{\n"));
    EXPECT_THAT(out, HasSubstr("\"path\": \"/b\\u001b\""));
    EXPECT_THAT(out, HasSubstr("\"size\": \"1500\""));
    EXPECT_TRUE(out.ends_with("}\n]}\n"));
    EXPECT_EQ(run({"--json", "backups", "diff", first.c_str(), first.c_str()}), 0);
    EXPECT_EQ(out, "{\"changes\": [\n]}\n");
}

TEST_F(BackupList, RefusesToCompareWhatItCannotTell) {
    EXPECT_EQ(run({"backups", "diff", "2020-01-01-00-00-00", first.c_str()}), 1);
    EXPECT_THAT(err, HasSubstr("no backup \"2020-01-01-00-00-00\""));
    folder.write("System/" + first, kHead);
    EXPECT_EQ(run({"backups", "diff", first.c_str(), second.c_str()}), 1);
    EXPECT_THAT(err, HasSubstr("several volumes have a backup"));
    EXPECT_EQ(run({"backups", "diff", "/missing", second.c_str()}), 5);
    EXPECT_THAT(err, HasSubstr("No such file"));
    EXPECT_EQ(run({"backups", "diff", first.c_str()}), 1);
    folder.write("Data/" + second, "no record\n");
    EXPECT_EQ(run({"backups", "diff", second.c_str(), (folder / ("Data/" + first)).c_str()}), 5);
    EXPECT_THAT(err, HasSubstr("line 1 is not the beginning of one"));
}

TEST_F(BackupList, FindsANameInAllBackups) {
    EXPECT_EQ(run({"backups", "find", "A"}), 0);
    EXPECT_EQ(out,
              "LAST RECORDED                IN       SIZE  MODIFIED             PATH\n"
              "2025-12-31-10-00-00      2 of 2    3 bytes  1970-01-02 01:00:00  /mnt/Data/a\n");
    EXPECT_EQ(run({"backups", "find", "b*"}), 0);
    EXPECT_THAT(out, HasSubstr("  1 of 2       link  -                    /mnt/Data/b\\x1b\n"));
    EXPECT_EQ(run({"backups", "find", "zzz"}), 0);
    EXPECT_EQ(out, "No backup has \"zzz\".\n");
    EXPECT_EQ(run({"backups", "find", "a", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr("\"inBackups\": 2"));
    EXPECT_THAT(out, HasSubstr("\"newestBackup\": \"" + folder / ("Data/" + second)));
}

TEST_F(BackupList, FindsInTheOthersWhereOneIsDamaged) {
    folder.write("Data/" + first, "no record\n");
    EXPECT_EQ(run({"backups", "find", "a"}), 5);
    EXPECT_THAT(out, HasSubstr("/mnt/Data/a\n"));
    EXPECT_THAT(err, HasSubstr("is damaged or no directory backup"));
}

}  // namespace
}  // namespace korvane::ctl
