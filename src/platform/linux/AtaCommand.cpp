#include "platform/linux/AtaCommand.h"

#include <cstddef>

namespace korvane {
namespace {

// SAT-4, table 175: protocols of the pass-through.
constexpr std::uint8_t kNonData = 3;
constexpr std::uint8_t kPioDataIn = 4;
// Byte 2: the registers are wanted; the transfer is to the host, in blocks, as many as the count
// register says.
constexpr std::uint8_t kCheckCondition = 0x20;
constexpr std::uint8_t kBlocksIn = 0x0e;

// SPC-4, 4.5: response codes, their lowest bit telling current from deferred errors.
constexpr std::uint8_t kFixedForm = 0x70;
constexpr std::uint8_t kDescriptorForm = 0x72;
constexpr std::size_t kDescriptorHeaderLength = 8;
// SAT-4, 12.2.7: the descriptor that holds registers, and its length after the first two bytes.
constexpr std::uint8_t kRegistersDescriptor = 0x09;
constexpr std::uint8_t kRegistersDescriptorLength = 12;
// SPC-4, 4.5.3: fixed sense data goes to the sense code's qualifier at least.
constexpr std::size_t kFixedLength = 14;
// ATA PASS THROUGH INFORMATION AVAILABLE.
constexpr std::uint8_t kPassThroughInformation = 0x1d;
// ILLEGAL REQUEST, INVALID COMMAND OPERATION CODE.
constexpr std::uint8_t kIllegalRequest = 5;
constexpr std::uint8_t kInvalidOperation = 0x20;

// ATA8-ACS, 6.2: bits of the status register.
constexpr std::uint8_t kStatusError = 0x01;
constexpr std::uint8_t kStatusDeviceFault = 0x20;
constexpr std::uint8_t kStatusReady = 0x40;

std::uint8_t formOf(std::span<const std::uint8_t> sense) {
    return sense.empty() ? 0 : static_cast<std::uint8_t>(sense[0] & 0x7eU);
}

std::optional<AtaRegisters> registersInDescriptors(std::span<const std::uint8_t> sense) {
    if (sense.size() < kDescriptorHeaderLength) return std::nullopt;
    std::span<const std::uint8_t> descriptors = sense.subspan(kDescriptorHeaderLength);
    if (sense[7] < descriptors.size()) descriptors = descriptors.first(sense[7]);
    while (descriptors.size() >= 2) {
        const std::size_t length = 2U + descriptors[1];
        if (length > descriptors.size()) return std::nullopt;
        if (descriptors[0] == kRegistersDescriptor &&
            descriptors[1] >= kRegistersDescriptorLength) {
            return AtaRegisters{.error = descriptors[3],
                                .count = descriptors[5],
                                .lbaMid = descriptors[9],
                                .lbaHigh = descriptors[11],
                                .status = descriptors[13]};
        }
        descriptors = descriptors.subspan(length);
    }
    return std::nullopt;
}

// SAT-4, 12.2.6: in the information and command-specific fields.
std::optional<AtaRegisters> registersInFixedSense(std::span<const std::uint8_t> sense) {
    if (sense.size() < kFixedLength || sense[12] != 0 || sense[13] != kPassThroughInformation) {
        return std::nullopt;
    }
    return AtaRegisters{.error = sense[3],
                        .count = sense[6],
                        .lbaMid = sense[10],
                        .lbaHigh = sense[11],
                        .status = sense[4]};
}

std::uint16_t wordOf(const IdentifyData& data, std::size_t word) {
    return static_cast<std::uint16_t>(data[2 * word] | data[2 * word + 1] << 8U);
}

}  // namespace

CommandBlock passThroughBlock(const AtaCommand& command) {
    CommandBlock block{};
    const bool isIn = command.transfer == AtaTransfer::in;
    block[0] = 0x85;
    block[1] = static_cast<std::uint8_t>((isIn ? kPioDataIn : kNonData) << 1U);
    block[2] = static_cast<std::uint8_t>((command.wantsRegisters ? kCheckCondition : 0U) |
                                         (isIn ? kBlocksIn : 0U));
    block[4] = command.features;
    block[6] = command.count;
    block[10] = command.lbaMid;
    block[12] = command.lbaHigh;
    block[14] = command.command;
    return block;
}

bool AtaRegisters::hasFailed() const { return (status & (kStatusError | kStatusDeviceFault)) != 0; }

std::optional<AtaRegisters> registersInSense(std::span<const std::uint8_t> sense) {
    switch (formOf(sense)) {
        case kDescriptorForm:
            return registersInDescriptors(sense);
        case kFixedForm:
            return registersInFixedSense(sense);
        default:
            return std::nullopt;
    }
}

bool isCommandUnknown(std::span<const std::uint8_t> sense) {
    const auto says = [&](std::size_t key, std::size_t code) {
        return sense.size() > code && (sense[key] & 0x0fU) == kIllegalRequest &&
               sense[code] == kInvalidOperation;
    };
    switch (formOf(sense)) {
        case kDescriptorForm:
            return says(1, 2);
        case kFixedForm:
            return says(2, 12);
        default:
            return false;
    }
}

std::optional<bool> isThresholdExceeded(const AtaRegisters& registers) {
    // ATA8-ACS 7.52.5.4: the signature as it was sent, or F4h/2Ch when a threshold is exceeded.
    if (registers.lbaMid == kSmartLbaMid && registers.lbaHigh == kSmartLbaHigh) return false;
    if (registers.lbaMid == 0xf4 && registers.lbaHigh == 0x2c) return true;
    return std::nullopt;
}

bool isInStandby(const AtaRegisters& registers) {
    // A bridge that makes registers up leaves them zero; a drive that takes commands says so.
    if ((registers.status & kStatusReady) == 0) return false;
    // ACS-3 7.3.3, table 36: Standby_z, Standby_y, and NV cache power mode with the spindle down.
    return registers.count == 0x00 || registers.count == 0x01 || registers.count == 0x40;
}

bool isIdentifyData(const IdentifyData& data) {
    // ATA8-ACS 7.16.7.37: words 82 and 83 tell only when word 83 ends in the bits 01.
    return (wordOf(data, 83) & 0xc000U) == 0x4000U;
}

bool isSmartSupported(const IdentifyData& data) {
    return isIdentifyData(data) && (wordOf(data, 82) & 1U) != 0;
}

}  // namespace korvane
