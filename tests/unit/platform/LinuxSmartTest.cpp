// The SMART facility of drives that stand in for real ones.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/LinuxSmart.h"
#include "unit/platform/FakeDrives.h"

namespace korvane {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kDisk[] = "/dev/sda";
constexpr char kNvme[] = "/dev/nvme0n1";

class AtaSmart : public testing::Test {
  protected:
    AtaSmart() { drives.drives[kDisk] = {}; }
    FakeDrive& drive() { return drives.drives[kDisk]; }
    SmartOpening open() { return openAtaSmart(drives, kDisk, memory); }
    // One check of a drive; the status of the first call that fails.
    SmartStatusAnswer check() {
        const SmartOpening opened = open();
        if (!opened.smart) return {.status = opened.status};
        if (const auto status = opened.smart->enableOperations()) return {.status = status};
        if (const auto status = opened.smart->enableAutosave()) return {.status = status};
        if (const auto status = opened.smart->identify().status) return {.status = status};
        return opened.smart->returnStatus();
    }

    FakeDrives drives;
    std::shared_ptr<DriveMemory> memory = std::make_shared<DriveMemory>();
};

TEST_F(AtaSmart, AsksAHealthyDriveWithFiveCommands) {
    const SmartStatusAnswer answer = check();
    EXPECT_EQ(answer.status, kDriveSuccess);
    EXPECT_FALSE(answer.isThresholdExceeded);
    EXPECT_THAT(drive().commands, ElementsAre(0xe5, 0x1d8, 0x1d2, 0xec, 0x1da));
}

TEST_F(AtaSmart, HearsAFailingDriveInBothFormsOfSense) {
    for (const SenseForm form : {SenseForm::descriptor, SenseForm::fixed}) {
        drive() = {.senseForm = form, .isFailing = true};
        const SmartStatusAnswer answer = check();
        EXPECT_EQ(answer.status, kDriveSuccess);
        EXPECT_TRUE(answer.isThresholdExceeded);
    }
}

TEST_F(AtaSmart, TakesNoAnswerForAFailure) {
    drive().senseForm = SenseForm::none;
    const SmartStatusAnswer answer = check();
    EXPECT_NE(answer.status, kDriveSuccess);
    EXPECT_FALSE(answer.isThresholdExceeded);
}

TEST_F(AtaSmart, LeavesARestingDriveAloneOnceItHasAnswered) {
    drive().isFailing = true;
    EXPECT_TRUE(check().isThresholdExceeded);
    drive().powerMode = 0;
    drive().commands.clear();
    const SmartStatusAnswer answer = check();
    EXPECT_EQ(answer.status, kDriveResting);
    EXPECT_FALSE(answer.isThresholdExceeded) << "what it said last is no answer of now";
    EXPECT_THAT(drive().commands, ElementsAre(0xe5));
    drive().powerMode = 0xff;
    EXPECT_TRUE(check().isThresholdExceeded);
}

TEST_F(AtaSmart, AsksARestingDriveThatHasNeverAnswered) {
    drive().powerMode = 0;
    EXPECT_EQ(check().status, kDriveSuccess);
    EXPECT_THAT(drive().commands, SizeIs(5));
}

TEST_F(AtaSmart, CannotBeOpenedWhereNothingWillAnswer) {
    for (const int error : {ENOTTY, ENODEV, ENXIO}) {
        drive() = {.controlErrors = {{0, error}}};
        const SmartOpening opened = open();
        EXPECT_EQ(opened.smart, nullptr) << error;
        EXPECT_EQ(opened.status, error);
        EXPECT_THAT(drive().commands, SizeIs(1));
    }
    drive() = {.timesOut = true};
    EXPECT_EQ(open().status, ETIMEDOUT);
    EXPECT_THAT(drive().commands, SizeIs(1)) << "a drive that hangs is asked once";
    EXPECT_EQ(openAtaSmart(drives, "/dev/gone", memory).status, ENOENT);
}

TEST_F(AtaSmart, TellsMissingRightsWhereverTheyAreMissing) {
    drive() = {.openError = EACCES};
    EXPECT_EQ(open().status, kDriveNotPermitted);
    drive() = {.controlErrors = {{0, EPERM}}};
    EXPECT_EQ(open().status, kDriveNotPermitted);
}

TEST_F(AtaSmart, PassesOnWhateverFailsOnTheWay) {
    for (const int command : {0x1d8, 0x1d2, 0xec, 0x1da}) {
        for (const int error : {EIO, ENODEV, ETIMEDOUT}) {
            drive() = {.controlErrors = {{command, error}}};
            EXPECT_EQ(check().status, error) << command;
            EXPECT_EQ(drive().commands.back(), command) << "nothing is sent after a failure";
        }
    }
}

TEST_F(AtaSmart, GivesEveryCommandTenSeconds) {
    (void)check();
    EXPECT_THAT(drive().timeLimitsMilliseconds, AllOf(SizeIs(5), Each(10'000U)));
}

// However the layers below say that a command has not come to its end, nothing is taken for an
// answer.
TEST_F(AtaSmart, TakesNothingForAnAnswerThatIsNone) {
    const struct {
        const char* what;
        FakeDrive drive;
        int status;
    } rows[] = {
        {"no connection", {.hostStatus = 0x01}, ENODEV},
        {"the adapter's time-out", {.hostStatus = 0x03}, ETIMEDOUT},
        {"any other fault of the adapter", {.hostStatus = 0x07}, EIO},
        {"the driver's time-out", {.driverStatus = 0x06}, ETIMEDOUT},
        {"its time-out with a suggestion", {.driverStatus = 0x16}, ETIMEDOUT},
        {"busy", {.scsiStatus = 0x08}, EIO},
        {"reservation conflict", {.scsiStatus = 0x18}, EIO},
        {"an error register", {.statusRegister = 0x51}, EIO},
        {"a device fault", {.statusRegister = 0x70}, EIO},
        {"sense cut short", {.sense = {0x72, 1, 0, 0x1d}}, EIO},
        {"an unknown form", {.sense = std::vector<std::uint8_t>(22, 0x7f)}, EIO},
        {"fixed sense of an unknown command",
         {.sense = {0x70, 0, 5, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x20, 0, 0, 0, 0, 0}},
         EOPNOTSUPP},
    };
    for (const auto& row : rows) {
        FakeDrive awake;
        drive() = awake;
        const SmartOpening opened = open();
        ASSERT_TRUE(opened.smart);
        drive() = row.drive;
        const SmartStatusAnswer answer = opened.smart->returnStatus();
        EXPECT_EQ(answer.status, row.status) << row.what;
        EXPECT_FALSE(answer.isThresholdExceeded) << row.what;
    }
    const SmartOpening opened = open();
    drive() = {.untransferred = 1};
    EXPECT_EQ(opened.smart->identify().status, EIO) << "a description that was cut short";
}

TEST_F(AtaSmart, TakesABridgeWithoutPowerModesForAwake) {
    drive().controlErrors[0xe5] = EIO;
    EXPECT_EQ(check().status, kDriveSuccess);
}

TEST_F(AtaSmart, RefusesADescriptionOfZerosOrOnes) {
    for (const int fill : {0, 0xff}) {
        drive() = {.identifyFill = fill};
        const SmartOpening opened = open();
        const IdentifyAnswer answer = opened.smart->identify();
        EXPECT_EQ(answer.status, EIO);
        EXPECT_EQ(answer.data, IdentifyData{});
    }
}

TEST(NvmeSmart, ReadsTheHealthLog) {
    FakeDrives drives;
    FakeDrive& drive = drives.drives[kNvme];
    const SmartOpening opened = openNvmeSmart(drives, kNvme);
    ASSERT_TRUE(opened.smart);
    EXPECT_EQ(opened.smart->enableOperations(), kDriveSuccess);
    EXPECT_EQ(opened.smart->enableAutosave(), kDriveSuccess);
    EXPECT_THAT(drive.commands, IsEmpty());
    const IdentifyAnswer identified = opened.smart->identify();
    EXPECT_EQ(identified.status, kDriveSuccess);
    EXPECT_EQ(identified.data[2 * 82], 1);
    EXPECT_EQ(identified.data[2 * 85], 1);
    EXPECT_FALSE(opened.smart->returnStatus().isThresholdExceeded);
    drive.criticalWarning = 4;
    EXPECT_TRUE(opened.smart->returnStatus().isThresholdExceeded);
}

TEST(NvmeSmart, AsksForTheControllersWholeHealthLog) {
    FakeDrives drives;
    FakeDrive& drive = drives.drives[kNvme];
    const SmartOpening opened = openNvmeSmart(drives, kNvme);
    (void)opened.smart->identify();
    (void)opened.smart->returnStatus();
    ASSERT_THAT(drive.nvmeCommands, SizeIs(2));
    EXPECT_THAT(drive.timeLimitsMilliseconds, Each(10'000U));
    EXPECT_EQ(drive.nvmeCommands[0].opcode, 0x06);
    EXPECT_EQ(drive.nvmeCommands[0].cdw10, 1U) << "of the controller";
    EXPECT_EQ(drive.nvmeCommands[0].data_len, 4096U);
    EXPECT_EQ(drive.nvmeCommands[1].opcode, 0x02);
    EXPECT_EQ(drive.nvmeCommands[1].nsid, 0xffffffffU) << "of all namespaces";
    // 128 double words, less one, of page 02h.
    EXPECT_EQ(drive.nvmeCommands[1].cdw10, 0x007f0002U);
    EXPECT_EQ(drive.nvmeCommands[1].data_len, 512U);
}

TEST(NvmeSmart, TakesARefusalForNoAnswer) {
    FakeDrives drives;
    drives.drives[kNvme] = {.nvmeStatus = 0x4002, .criticalWarning = 4};
    const SmartOpening opened = openNvmeSmart(drives, kNvme);
    EXPECT_EQ(opened.smart->identify().status, EIO);
    EXPECT_EQ(opened.smart->returnStatus().status, EIO);
    EXPECT_FALSE(opened.smart->returnStatus().isThresholdExceeded);
}

TEST(NvmeSmart, PassesErrorsOn) {
    FakeDrives drives;
    drives.drives[kNvme] = {.controlErrors = {{0, EACCES}}};
    const SmartOpening opened = openNvmeSmart(drives, kNvme);
    EXPECT_EQ(opened.smart->identify().status, kDriveNotPermitted);
    EXPECT_EQ(opened.smart->returnStatus().status, kDriveNotPermitted);
    drives.drives[kNvme].controlErrors[0] = EIO;
    EXPECT_EQ(opened.smart->identify().status, EIO);
    EXPECT_EQ(opened.smart->identify().data, IdentifyData{});
    EXPECT_FALSE(opened.smart->returnStatus().isThresholdExceeded);
}

}  // namespace
}  // namespace korvane
