// Drives as the commands show them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "storage/DriveEntry.h"
#include "storage/SupportFolder.h"
#include "unit/korvanectl/ProgramFixture.h"

namespace korvane::ctl {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr char kModel[] = "Castor 500";

class Drives : public KorvanectlTest {
  protected:
    Drives() {
        addDrive("CST1", "3");
        addDrive("CST2", "3");
    }
    // A drive that was checked 10 minutes ago, every hour.
    void addDrive(const char* serial, const char* status) {
        Dictionary entry = newDriveEntry({.model = kModel, .serial = serial}, now);
        entry.set("smartStatus", status);
        entry.set("executionTimeSmart", secondsSince1970(now) + 3000);
        Dictionary preferences = stored();
        preferences.find(kDriveArray)->array()->emplace_back(std::move(entry));
        store(preferences);
    }
    void log(const char* serial, const char* result, int minutesAgo = 10) {
        const Dictionary entry{{"bsdName", "/dev/sda"},
                               {"driveConnection", "SATA"},
                               {"driveModel", kModel},
                               {"driveSerial", serial},
                               {"calendarDate", std::chrono::floor<std::chrono::seconds>(now) -
                                                    std::chrono::minutes{minutesAgo}},
                               {"result", result}};
        folder.write(driveFolderName(kModel, serial) + "/Smart Check.plist",
                     formatPropertyList(Dictionary{{"logEntries", PropertyListArray{entry}}}));
    }
    // The line of the output that has this text.
    [[nodiscard]] std::string lineOf(const std::string& text) const {
        std::istringstream lines(out);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(text) != std::string::npos) return line;
        }
        return {};
    }
};

TEST_F(Drives, AreNamedAndSetBackWhenTheyAreDueBeyondTheirInterval) {
    log("CST2", "passed");
    Dictionary preferences = stored();
    const auto second = [&preferences]() -> Dictionary& {
        return *(*preferences.find(kDriveArray)->array())[1].dictionary();
    };
    second().set("executionTimeSmart", secondsSince1970(now) + 86400);
    store(preferences);
    EXPECT_EQ(run({"drives"}), 0);
    EXPECT_THAT(lineOf("CST2"), HasSubstr("in 24 h (beyond its interval)"));
    EXPECT_THAT(lineOf("CST1"), Not(HasSubstr("beyond")));
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_THAT(out, HasSubstr("Castor 500 is due beyond its interval; set it back with: "
                               "korvanectl drive CST2 reset\n"));
    EXPECT_EQ(run({"drives", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr("\"nextCheckBeyondInterval\": true"));

    EXPECT_EQ(run({"drive", "CST2", "reset"}), 0);
    EXPECT_EQ(out, "CST2 is set back and will be examined anew.\n");
    preferences = stored();
    EXPECT_EQ(*second().find("executionTimeSmart"), PropertyList(secondsSince1970(now)));
    EXPECT_EQ(run({"drive", "CST2", "reset"}), 0);
    EXPECT_EQ(out, "no check of CST2 is stuck.\n");
    EXPECT_NE(run({"drive", "no such", "reset"}), 0);
    second().set("smartStatus", "2");
    store(preferences);
    EXPECT_EQ(run({"drive", "CST2", "reset"}), 0);
    preferences = stored();
    EXPECT_EQ(*second().find("smartStatus"), PropertyList("0"));
}

TEST_F(Drives, AreShownWithWhatTheLastCheckFound) {
    log("CST1", "passed");
    EXPECT_EQ(run({"drives"}), 0);
    EXPECT_THAT(lineOf("CST1"),
                AllOf(HasSubstr(kModel), HasSubstr("/dev/sda"), HasSubstr("SATA"),
                      HasSubstr(" ok "), HasSubstr("passed"), HasSubstr("in 50 min")));
}

TEST_F(Drives, ThatFailAreUnmistakableThoughTheirStatusSaysPassed) {
    log("CST1", "failed");
    log("CST2", "passed");
    for (const char* command : {"drives", "status"}) {
        EXPECT_EQ(run({command}), 0);
        EXPECT_THAT(lineOf("CST1"), HasSubstr("FAILING")) << command;
        EXPECT_THAT(lineOf("CST2"), Not(HasSubstr("FAILING"))) << command;
    }
}

TEST_F(Drives, ThatFailedAreShownSoThroughARestart) {
    log("CST1", "failed");
    Dictionary preferences = stored();
    preferences.find(kDriveArray)->array()->front().dictionary()->set("smartStatus", "0");
    store(preferences);
    run({"drives"});
    EXPECT_THAT(lineOf("CST1"), HasSubstr("FAILING"));
}

TEST_F(Drives, ThatLeaveNoLineAreNotChecked) {
    run({"drives"});
    EXPECT_THAT(lineOf("CST1"), HasSubstr("not checked"));
    log("CST1", "passed", 200);
    run({"drives"});
    EXPECT_THAT(lineOf("CST1"), HasSubstr("not checked"));
}

TEST_F(Drives, ThatRestAreShownWithTheTimeWhenTheyWereAskedLast) {
    Dictionary preferences = stored();
    for (PropertyList& drive : *preferences.find(kDriveArray)->array()) {
        drive.dictionary()->set("smartResting", true);
    }
    store(preferences);
    log("CST1", "passed", 200);
    log("CST2", "failed", 200);
    EXPECT_EQ(run({"drives"}), 0);
    EXPECT_THAT(lineOf("CST1"), AllOf(HasSubstr(" ok "), HasSubstr("resting, last asked ")));
    EXPECT_THAT(lineOf("CST2"), AllOf(HasSubstr("FAILING"), HasSubstr("resting, last asked ")));
    EXPECT_EQ(run({"drives", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr("\"resting\": true"));
}

// A check that never ended, of a daemon that was killed or a drive that never answers.
TEST_F(Drives, WhoseCheckDoesNotEndAreSaidToBeStuckAndStillToFail) {
    Dictionary preferences = stored();
    for (PropertyList& drive : *preferences.find(kDriveArray)->array()) {
        drive.dictionary()->set("smartStatus", "2");
        drive.dictionary()->set("executionTimeSmart", secondsSince1970(now) - 7200);
    }
    store(preferences);
    log("CST1", "passed", 130);
    log("CST2", "failed", 130);
    for (const char* command : {"drives", "status"}) {
        EXPECT_EQ(run({command}), 0);
        EXPECT_THAT(lineOf("CST1"), HasSubstr("stuck")) << command;
        EXPECT_THAT(lineOf("CST2"), HasSubstr("FAILING")) << command;
    }
}

TEST_F(Drives, AreDataToPrograms) {
    log("CST1", "failed");
    EXPECT_EQ(run({"drives", "--json"}), 0);
    EXPECT_THAT(out, AllOf(HasSubstr("\"result\": \"failing\""), HasSubstr("\"serial\": \"CST1\""),
                           HasSubstr("\"device\": \"/dev/sda\"")));
    run({"status", "--json"});
    EXPECT_THAT(out, HasSubstr("\"drives\""));
}

TEST_F(Drives, HaveAHistoryBySerialDeviceAndBothNames) {
    log("CST1", "failed");
    for (const char* name : {"CST1", "/dev/sda", "Castor 500 - CST1"}) {
        EXPECT_EQ(run({"history", name}), 0) << name;
        EXPECT_THAT(out, AllOf(HasSubstr("FAILING"), HasSubstr("/dev/sda")));
    }
    EXPECT_NE(run({"history", kModel}), 0);
    EXPECT_THAT(err, HasSubstr("CST1, CST2"));
    EXPECT_NE(run({"history", "nobody"}), 0);
    EXPECT_THAT(err, AllOf(HasSubstr("no volume"), HasSubstr("no drive")));
}

TEST_F(Drives, SurviveADamagedLog) {
    folder.write(driveFolderName(kModel, "CST1") + "/Smart Check.plist", "<plist");
    EXPECT_EQ(run({"drives"}), 0);
    EXPECT_NE(run({"history", "CST1"}), 0);
}

}  // namespace
}  // namespace korvane::ctl
