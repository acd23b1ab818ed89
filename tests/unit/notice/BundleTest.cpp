#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "base/PropertyListCodec.h"
#include "platform/linux/LinuxBundle.h"

namespace korvane {
namespace {

class BundleFolder : public testing::Test {
  protected:
    void SetUp() override {
        folder_ = testing::TempDir() + "bundle." + std::to_string(::getpid());
        std::filesystem::create_directories(folder_ + "/PlugIns");
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    void addTable(const std::string& language, const std::string& bytes) {
        const std::string resources = folder_ + "/Resources/" + language + ".lproj";
        std::filesystem::create_directories(resources);
        std::ofstream(resources + "/Localizable.strings") << bytes;
    }
    std::string okay(const std::vector<std::string>& languages) {
        return LinuxBundle{folder_, languages}.localizedString(kDefaultStringsTable, "okay", "?");
    }
    static std::string tableWithOkay(const char* text) {
        return formatPropertyList(Dictionary{{"okay", text}, {"number", 3}});
    }

    std::string folder_;
};

TEST_F(BundleFolder, TextsComeInTheFirstLanguageThatHasATable) {
    addTable("en", tableWithOkay("OK"));
    addTable("de", tableWithOkay("In Ordnung"));
    EXPECT_EQ(okay({"fr", "de"}), "In Ordnung");
    EXPECT_EQ(okay({"fr"}), "OK");
    EXPECT_EQ(okay({}), "OK");
}

TEST_F(BundleFolder, WhatIsMissingOrNoTextIsTheFallback) {
    EXPECT_EQ(okay({}), "?");
    addTable("en", tableWithOkay("OK"));
    LinuxBundle bundle{folder_, {}};
    EXPECT_EQ(bundle.localizedString(kDefaultStringsTable, "number", "none"), "none");
    EXPECT_EQ(bundle.localizedString(kDefaultStringsTable, "absent", ""), "");
    EXPECT_EQ(bundle.localizedString("NoSuchTable", "okay", "none"), "none");
}

TEST_F(BundleFolder, ADamagedTableIsPassedOver) {
    addTable("de", "<plist><dict><key>okay");
    addTable("en", tableWithOkay("OK"));
    EXPECT_EQ(okay({"de"}), "OK");
}

TEST_F(BundleFolder, APlugInIsThereOnlyWhenItCanRun) {
    LinuxBundle bundle{folder_, {}};
    EXPECT_EQ(bundle.plugIn("Tool"), "");
    const std::string path = folder_ + "/PlugIns/Tool";
    std::ofstream(path) << "#!/bin/sh\n";
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    EXPECT_EQ(bundle.plugIn("Tool"), "");
    ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    EXPECT_EQ(bundle.plugIn("Tool"), path);
}

}  // namespace
}  // namespace korvane
