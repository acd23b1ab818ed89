// The ATA commands on their way to a drive, and what comes back in sense data.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/linux/AtaCommand.h"
#include "platform/linux/NvmeHealth.h"

namespace korvane {
namespace {

using Bytes = std::vector<std::uint8_t>;

// As QEMU's ahci and a kernel of 6.1 gave it after SMART RETURN STATUS, healthy.
const Bytes kDescriptorSense{0x72, 0x01, 0x00, 0x1d, 0, 0, 0,    0x0e, 0x09, 0x0c, 0,
                             0,    0,    0,    0,    0, 0, 0x4f, 0,    0xc2, 0,    0x50};
const Bytes kFixedSense{0x70, 0, 0x01, 0, 0x50, 0, 0, 0x0a, 0, 0, 0xf4, 0x2c, 0, 0x1d, 0, 0, 0, 0};

TEST(AtaCommand, TravelsAsAPassThroughBlock) {
    const CommandBlock status = passThroughBlock(kSmartReturnStatus);
    EXPECT_EQ(status,
              (CommandBlock{0x85, 0x06, 0x20, 0, 0xda, 0, 0, 0, 0, 0, 0x4f, 0, 0xc2, 0, 0xb0, 0}));
    const CommandBlock identify = passThroughBlock(kIdentifyDevice);
    EXPECT_EQ(identify, (CommandBlock{0x85, 0x08, 0x0e, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xec, 0}));
    const CommandBlock autosave = passThroughBlock(kSmartEnableAutosave);
    EXPECT_EQ(autosave, (CommandBlock{0x85, 0x06, 0x00, 0, 0xd2, 0, 0xf1, 0, 0, 0, 0x4f, 0, 0xc2, 0,
                                      0xb0, 0}));
}

TEST(SenseData, GivesTheRegistersInBothForms) {
    const auto descriptor = registersInSense(kDescriptorSense);
    ASSERT_TRUE(descriptor);
    EXPECT_EQ(isThresholdExceeded(*descriptor), false);
    const auto fixed = registersInSense(kFixedSense);
    ASSERT_TRUE(fixed);
    EXPECT_EQ(isThresholdExceeded(*fixed), true);
    EXPECT_FALSE(fixed->hasFailed());
}

TEST(SenseData, FindsTheRegistersBehindAnotherDescriptor) {
    Bytes sense{0x72, 1, 0, 0x1d, 0, 0, 0, 0x12, 0x02, 0x02, 0, 0};
    sense.insert(sense.end(), kDescriptorSense.begin() + 8, kDescriptorSense.end());
    ASSERT_TRUE(registersInSense(sense));
}

struct MalformedSense {
    const char* what;
    Bytes sense;
};

TEST(SenseData, ThatIsMalformedGivesNothing) {
    const auto with = [](Bytes sense, std::size_t at, std::uint8_t value) {
        sense[at] = value;
        return sense;
    };
    const MalformedSense rows[] = {
        {"nothing", {}},
        {"one byte", {0x72}},
        {"of unknown form", with(kDescriptorSense, 0, 0x7f)},
        {"of no form", Bytes(32, 0)},
        {"of ones", Bytes(32, 0xff)},
        {"header alone", Bytes(kDescriptorSense.begin(), kDescriptorSense.begin() + 8)},
        {"another descriptor", with(kDescriptorSense, 8, 0x0a)},
        {"a descriptor too short", with(kDescriptorSense, 9, 0x0b)},
        {"a descriptor longer than the data", with(kDescriptorSense, 9, 0x40)},
        {"a length that ends before", with(kDescriptorSense, 7, 4)},
        {"fixed, of something else", with(kFixedSense, 13, 0x00)},
        {"fixed, cut short", Bytes(kFixedSense.begin(), kFixedSense.begin() + 13)},
    };
    for (const MalformedSense& row : rows) {
        EXPECT_FALSE(registersInSense(row.sense)) << row.what;
    }
    for (std::size_t length = 0; length < kDescriptorSense.size(); ++length) {
        EXPECT_FALSE(registersInSense(std::span(kDescriptorSense).first(length))) << length;
    }
}

TEST(SenseData, SaysThatACommandIsUnknown) {
    EXPECT_TRUE(isCommandUnknown(Bytes{0x72, 5, 0x20, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(isCommandUnknown(Bytes{0x70, 0, 5, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x20, 0}));
    EXPECT_FALSE(isCommandUnknown(Bytes{0x72, 5, 0x24, 0}));
    EXPECT_FALSE(isCommandUnknown(Bytes{0x70, 0, 5}));
    EXPECT_FALSE(isCommandUnknown(Bytes{}));
}

TEST(AtaRegisters, ThatHoldNeitherAnswerGiveNone) {
    EXPECT_FALSE(isThresholdExceeded({.lbaMid = 0x4f, .lbaHigh = 0x2c}));
    EXPECT_FALSE(isThresholdExceeded({.lbaMid = 0, .lbaHigh = 0}));
    EXPECT_FALSE(isThresholdExceeded({.lbaMid = 0xff, .lbaHigh = 0xff}));
}

TEST(AtaRegisters, TellAFailedCommand) {
    EXPECT_TRUE(AtaRegisters{.status = 0x51}.hasFailed());
    EXPECT_TRUE(AtaRegisters{.status = 0x70}.hasFailed());
    EXPECT_FALSE(AtaRegisters{.status = 0x50}.hasFailed());
}

TEST(AtaRegisters, TellAStandby) {
    for (const int resting : {0x00, 0x01, 0x40}) {
        EXPECT_TRUE(isInStandby({.count = static_cast<std::uint8_t>(resting), .status = 0x50}));
    }
    for (const int awake : {0x41, 0x80, 0x81, 0x82, 0x83, 0xff}) {
        EXPECT_FALSE(isInStandby({.count = static_cast<std::uint8_t>(awake), .status = 0x50}));
    }
    EXPECT_FALSE(isInStandby({})) << "registers that a bridge has made up";
}

TEST(IdentifyData, OfZerosOrOnesIsNone) {
    IdentifyData data{};
    EXPECT_FALSE(isIdentifyData(data));
    data.fill(0xff);
    EXPECT_FALSE(isIdentifyData(data));
    EXPECT_FALSE(isSmartSupported(data));
}

TEST(IdentifyData, SaysWhetherSmartIsSupported) {
    IdentifyData data{};
    data[2 * 83 + 1] = 0x40;
    EXPECT_FALSE(isSmartSupported(data));
    data[2 * 82] = 0xfe;
    EXPECT_FALSE(isSmartSupported(data));
    data[2 * 82] = 0x01;
    EXPECT_TRUE(isSmartSupported(data));
}

TEST(NvmeHealth, FailsWithAnyCriticalWarning) {
    Bytes page(kNvmeHealthLogBytes, 0);
    EXPECT_EQ(hasCriticalWarning(page), false);
    for (unsigned bit = 0; bit < 8; ++bit) {
        page[0] = static_cast<std::uint8_t>(1U << bit);
        EXPECT_EQ(hasCriticalWarning(page), true) << bit;
    }
}

TEST(NvmeHealth, SaysNothingInAPageThatIsCutShort) {
    const Bytes page(kNvmeHealthLogBytes - 1, 0xff);
    EXPECT_FALSE(hasCriticalWarning(page));
    EXPECT_FALSE(hasCriticalWarning({}));
}

}  // namespace
}  // namespace korvane
