#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "backup/BackupPlaces.h"
#include "backup/BackupRotation.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::minutes;
using std::chrono::seconds;

const Time kNow = timeFromSecondsSince1970(1'772'438'400);

// Backups of these ages, the oldest first.
std::vector<BackupFile> ofAges(const std::vector<microseconds>& ages) {
    std::vector<BackupFile> files;
    for (const microseconds age : ages) {
        files.push_back({"Directory Backup " + std::to_string(age.count()), kNow - age});
    }
    return files;
}

TEST(RotationVictim, IsTheOldestOfMoreThanADayElseTheSecondOldest) {
    const struct {
        std::vector<microseconds> ages;
        std::int64_t filesToSave;
        std::optional<std::size_t> victim;
    } rows[] = {
        {{hours(2), hours(1), minutes(10)}, 3, 1},
        {{hours(30), hours(1), minutes(10)}, 3, 0},
        {{seconds(86'400), hours(1), minutes(10)}, 3, 1},  // a day exactly is not more than a day
        {{seconds(86'400) + microseconds(1), hours(1), minutes(10)}, 3, 0},
        {{hours(-1), hours(-2), hours(-3)}, 3, 1},  // dates ahead are young
        {{hours(2), hours(1)}, 3, std::nullopt},
        {{}, 3, std::nullopt},
        {{hours(2)}, 1, std::nullopt},
        {{hours(30)}, 1, 0},
        {{hours(2), hours(1)}, 1, 1},
        {{hours(30), hours(29)}, 0, std::nullopt},
        {{hours(30), hours(29)}, -3, std::nullopt},
        {{hours(30), hours(29)}, INT64_MAX, std::nullopt},
        {{hours(4), hours(3), hours(2), hours(1)}, 2, 1},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(rotationVictim(ofAges(row.ages), row.filesToSave, kNow), row.victim)
            << row.ages.size() << " files, limit " << row.filesToSave;
    }
}

TEST(RotationVictim, StandsAtItsPlaceInTheWholeList) {
    std::vector<BackupFile> files = ofAges({hours(3), hours(2), hours(1)});
    files.insert(files.begin() + 1, {"notes", kNow - hours(3)});
    files.insert(files.begin(), {"DirectoryBackup (ON)", kNow - hours(90)});
    EXPECT_EQ(rotationVictim(files, 3, kNow), 3U);
}

TEST(IsBackupName, AsksForTheBeginningWithTheInnerBlankAlone) {
    EXPECT_TRUE(isBackupName("Directory Backup 2024-03-01-14-05-09"));
    EXPECT_TRUE(isBackupName("Directory Backup"));
    EXPECT_TRUE(isBackupName("Directory Backups"));
    EXPECT_FALSE(isBackupName("DirectoryBackup (ON)"));
    EXPECT_FALSE(isBackupName("directory backup 2024-03-01-14-05-09"));
    EXPECT_FALSE(isBackupName(".Directory Backup"));
    EXPECT_FALSE(isBackupName(""));
}

TEST(ArrayDateSort, PutsTheEarlierFirstWhateverTheNames) {
    const BackupFile early{"z", kNow - seconds(1)};
    const BackupFile late{"a", kNow};
    EXPECT_EQ(arrayDateSort(early, late), std::strong_ordering::less);
    EXPECT_EQ(arrayDateSort(late, early), std::strong_ordering::greater);
    EXPECT_EQ(arrayDateSort(late, {"b", kNow}), std::strong_ordering::equal);
}

TEST(BackupPlaces, AreNamedAfterTheLocationAndTheVolume) {
    EXPECT_EQ(volumeOfBackup("/S/Data/Directory Backup x"), "Data");
    EXPECT_EQ(volumeFolderAt("/Volumes/Backup", "Data"), "/Volumes/Backup/Korvane Protection/Data");
    EXPECT_EQ(folderInLocation("Data"), "Korvane Protection/Data");
    EXPECT_EQ(volumeTopOf("/Volumes/Backup"), "/Volumes/Backup");
    EXPECT_EQ(volumeTopOf("/Volumes/Backup/deep"), "/Volumes/Backup");
    EXPECT_EQ(volumeTopOf("//Volumes//Backup/"), "/Volumes/Backup");
    EXPECT_EQ(volumeTopOf("/Volumes"), "");
    EXPECT_EQ(volumeTopOf(""), "");
}

}  // namespace
}  // namespace korvane
