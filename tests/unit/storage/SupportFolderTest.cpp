// The names of the folders below the support folder, made from what volumes and drives call
// themselves.

#include <gtest/gtest.h>

#include <string>

#include "storage/SupportFolder.h"

namespace korvane {
namespace {

TEST(SupportFolder, HoldsAVolumesFolderUnderItsDisplayName) {
    EXPECT_EQ(volumeFolder("System"), "/Library/Application Support/Korvane Protection/System");
}

TEST(SupportFolder, IsNeverLeftByAVolumesName) {
    const struct {
        const char* displayName;
        const char* folderName;
    } rows[] = {
        {"Data", "Data"},
        {"My Data 2", "My Data 2"},
        {"a/b", "a/b"},
        {"..", "%2E%2E"},
        {".", "%2E"},
        {"", "%"},
        {"/", "%"},
        {"../../etc", "%2E%2E/%2E%2E/etc"},
        {"a/../b", "a/%2E%2E/b"},
        {"/etc", "etc"},
        {"a//b/", "a/b"},
        {"...", "..."},
        {"a..b", "a..b"},
        {".hidden", ".hidden"},
        {"two\\012lines", "two\\012lines"},
        {"broken\\377", "broken\\377"},
        {"two\nlines", "two\nlines"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(volumeFolderName(row.displayName), row.folderName) << row.displayName;
        EXPECT_EQ(volumeFolder(row.displayName),
                  std::string(kSupportFolder) + '/' + row.folderName);
    }
}

TEST(SupportFolder, IsNeverLeftByADrivesNames) {
    const struct {
        const char* model;
        const char* serial;
        const char* folderName;
    } rows[] = {
        {"Castor 500", "CST1", "Castor 500 - CST1"},
        {"a/b", "c/d", "a%2Fb - c%2Fd"},
        {"..", "..", "%2E%2E - %2E%2E"},
        {"../../etc", "...", "%2E%2E%2F%2E%2E%2Fetc - %2E%2E."},
        {"", "", " - "},
        {"a.b", ".", "a.b - ."},
        {"100%", "\\001", "100% - \\001"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(driveFolderName(row.model, row.serial), row.folderName);
        EXPECT_EQ(driveFolder(row.model, row.serial),
                  std::string(kSupportFolder) + '/' + row.folderName);
    }
}

TEST(SupportFolder, HasRoomForADriveWhateverTheLengthOfItsNames) {
    const std::string model(253, 'm');
    EXPECT_EQ(driveFolderName(std::string(100, 'm'), std::string(152, 's')).size(), 255U);
    const std::string name = driveFolderName(model, "1");
    EXPECT_LE(name.size(), 255U);
    EXPECT_EQ(driveFolderName(model, "1"), name);
    EXPECT_NE(driveFolderName(model, "2"), name);
    // Names are cut between characters.
    for (int shift = 0; shift < 4; ++shift) {
        std::string text(static_cast<std::size_t>(shift), 'a');
        while (text.size() < 300) text += "\xe2\x82\xac";
        const std::string cut = driveFolderName(text, "1");
        EXPECT_EQ(cut.find("\xe2\x82 "), std::string::npos);
        EXPECT_EQ(cut.find("\xe2 "), std::string::npos);
    }
}

}  // namespace
}  // namespace korvane
