// The real daemon and drives of every kind. Runs inside the emulated machine drives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Guest.h"

namespace korvane::guest {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

namespace fs = std::filesystem;

// Longer than the 16 characters that the SCSI form of the name has.
const std::string kAtaModel = "Korvane Test Disk of Some Length";
const std::string kNvmeModel = "QEMU NVMe Ctrl";

std::vector<std::string> driveNames() {
    std::vector<std::string> names;
    const auto preferences = readDictionary(kPreferences);
    const PropertyList* drives = preferences ? preferences->find("driveArray") : nullptr;
    if (!drives || !drives->array()) return names;
    for (const PropertyList& drive : *drives->array()) {
        names.push_back(stringValue(drive.dictionary()->find("driveModel")) + " - " +
                        stringValue(drive.dictionary()->find("driveSerial")));
    }
    return names;
}

// The results that the drive's log holds, oldest first.
std::vector<Dictionary> historyOf(const std::string& drive) {
    std::vector<Dictionary> entries;
    const auto log = readDictionary(kSupportFolder + "/" + drive + "/Smart Check.plist");
    const PropertyList* logged = log ? log->find("logEntries") : nullptr;
    if (!logged || !logged->array()) return entries;
    for (const PropertyList& entry : *logged->array()) entries.push_back(*entry.dictionary());
    return entries;
}

std::string lastResultOf(const std::string& drive) {
    const auto entries = historyOf(drive);
    return entries.empty() ? "none" : stringValue(entries.back().find("result"));
}

// Has the emulator carry out one of its commands.
void askEmulator(const std::string& name, const std::string& command) {
    std::ofstream("/results/" + name + ".ask") << command;
    ASSERT_TRUE(becomes([&] { return fs::exists("/results/" + name + ".done"); }));
    std::ifstream answer("/results/" + name + ".done");
    const std::string text{std::istreambuf_iterator<char>(answer), {}};
    ASSERT_THAT(text, Not(HasSubstr("error")));
}

const std::string kAta = kAtaModel + " - ATA-1";
const std::string kNvme = kNvmeModel + " - NVME-1";

class Drives : public ::testing::Test {
  protected:
    void TearDown() override {
        if (HasFailure()) keepSupportFolder();
        fs::remove_all("/Library");
        fs::remove_all("/Volumes");
    }
};

TEST_F(Drives, ThatHaveSmartHaveAnEntryAndPass) {
    RunningDaemon daemon;
    ASSERT_TRUE(becomes([] {
        return lastResultOf(kAta) == "passed" && lastResultOf(kNvme) == "passed";
    })) << ::testing::PrintToString(driveNames());
    EXPECT_THAT(driveNames(), UnorderedElementsAre(kAta, kAtaModel + " - ATA-2", kNvme));
    const Dictionary ata = historyOf(kAta).back();
    EXPECT_EQ(*ata.find("driveConnection"), PropertyList("ATA"));
    EXPECT_THAT(stringValue(ata.find("bsdName")), HasSubstr("/dev/sd"));
    EXPECT_EQ(*historyOf(kNvme).back().find("bsdName"), PropertyList("/dev/nvme0n1"));
}

TEST_F(Drives, ThatBeginToFailAreWarnedOf) {
    askEmulator("fail",
                R"({"execute": "qom-set", "arguments": {"path": "/machine/peripheral/NVME-1",
                            "property": "smart_critical_warning", "value": 4}})");
    RunningDaemon daemon;
    ASSERT_TRUE(becomes([] { return lastResultOf(kNvme) == "failed"; }));
    ASSERT_TRUE(becomes([] { return lastResultOf(kAta) == "passed"; }));
    EXPECT_THAT(historyOf(kNvme), SizeIs(1));
}

}  // namespace
}  // namespace korvane::guest
