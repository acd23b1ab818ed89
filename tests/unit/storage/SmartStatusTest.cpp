// Switching SMART on, and whether it is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "storage/SmartStatus.h"

namespace korvane {
namespace {

using testing::ElementsAre;

constexpr DriveStatus kSomeFailure = 17;
constexpr DriveStatus kAnotherFailure = 18;

class ScriptedSmart final : public SmartInterface {
  public:
    DriveStatus operations = kDriveSuccess;
    DriveStatus autosave = kDriveSuccess;
    IdentifyAnswer identified;
    std::vector<std::string> calls;

    DriveStatus enableOperations() override {
        calls.emplace_back("operations");
        return operations;
    }
    DriveStatus enableAutosave() override {
        calls.emplace_back("autosave");
        return autosave;
    }
    IdentifyAnswer identify() override {
        calls.emplace_back("identify");
        return identified;
    }
    SmartStatusAnswer returnStatus() override {
        calls.emplace_back("status");
        return {};
    }
};

TEST(EnableSmart, SwitchesOperationsOnAndThenAutosave) {
    ScriptedSmart smart;
    EXPECT_EQ(enable_smart(smart), kDriveSuccess);
    EXPECT_THAT(smart.calls, ElementsAre("operations", "autosave"));
}

TEST(EnableSmart, DoesNotTryAutosaveAfterAFailure) {
    ScriptedSmart smart;
    smart.operations = kSomeFailure;
    smart.autosave = kAnotherFailure;
    EXPECT_EQ(enable_smart(smart), kSomeFailure);
    EXPECT_THAT(smart.calls, ElementsAre("operations"));
}

TEST(EnableSmart, PassesTheFailureOfAutosaveOn) {
    ScriptedSmart smart;
    smart.autosave = kAnotherFailure;
    EXPECT_EQ(enable_smart(smart), kAnotherFailure);
}

TEST(CheckSmart, WantsTheLowestBitOfBothWords) {
    const struct {
        std::uint8_t supported;
        std::uint8_t enabled;
        DriveStatus status;
    } rows[] = {{1, 1, kDriveSuccess}, {0xff, 0xff, kDriveSuccess}, {1, 0, kSmartIsOff},
                {0, 1, kSmartIsOff},   {0, 0, kSmartIsOff},         {0xfe, 0xfe, kSmartIsOff},
                {1, 0xfe, kSmartIsOff}};
    for (const auto& row : rows) {
        ScriptedSmart smart;
        smart.identified.data[2 * 82] = row.supported;
        smart.identified.data[2 * 85] = row.enabled;
        EXPECT_EQ(checkSMART(smart), row.status) << int{row.supported} << " " << int{row.enabled};
    }
}

TEST(CheckSmart, DoesNotTakeTheUpperByteOfAWord) {
    ScriptedSmart smart;
    smart.identified.data[2 * 82 + 1] = 1;
    smart.identified.data[2 * 85 + 1] = 1;
    EXPECT_EQ(checkSMART(smart), kSmartIsOff);
}

TEST(CheckSmart, PassesTheStatusOfTheReadOn) {
    ScriptedSmart smart;
    smart.identified.status = kSomeFailure;
    smart.identified.data[2 * 82] = 1;
    smart.identified.data[2 * 85] = 1;
    EXPECT_EQ(checkSMART(smart), kSomeFailure);
}

}  // namespace
}  // namespace korvane
