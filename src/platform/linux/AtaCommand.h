// The ATA commands that a drive is asked with, as they travel through the SCSI layer: the command
// block that carries one, and the drive's registers as they come back in sense data. Pure.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/SmartInterface.h"

namespace korvane {

enum class AtaTransfer { none, in };

// The registers that a command sets; the others are 0. ATA8-ACS, clause 7.
struct AtaCommand {
    std::uint8_t command = 0;
    std::uint8_t features = 0;
    std::uint8_t count = 0;
    std::uint8_t lbaMid = 0;
    std::uint8_t lbaHigh = 0;
    AtaTransfer transfer = AtaTransfer::none;  // in: one sector of 512 bytes
    bool wantsRegisters = false;               // the answer is in the registers
};
inline constexpr AtaCommand kCheckPowerMode{.command = 0xe5, .wantsRegisters = true};
inline constexpr AtaCommand kIdentifyDevice{
    .command = 0xec, .count = 1, .transfer = AtaTransfer::in};
// SMART commands carry this signature in the middle and high LBA registers.
inline constexpr std::uint8_t kSmartLbaMid = 0x4f;
inline constexpr std::uint8_t kSmartLbaHigh = 0xc2;
inline constexpr AtaCommand kSmartEnableOperations{
    .command = 0xb0, .features = 0xd8, .lbaMid = kSmartLbaMid, .lbaHigh = kSmartLbaHigh};
inline constexpr AtaCommand kSmartEnableAutosave{.command = 0xb0,
                                                 .features = 0xd2,
                                                 .count = 0xf1,
                                                 .lbaMid = kSmartLbaMid,
                                                 .lbaHigh = kSmartLbaHigh};
inline constexpr AtaCommand kSmartReturnStatus{.command = 0xb0,
                                               .features = 0xda,
                                               .lbaMid = kSmartLbaMid,
                                               .lbaHigh = kSmartLbaHigh,
                                               .wantsRegisters = true};

using CommandBlock = std::array<std::uint8_t, 16>;
// SAT-4, 12.2.3: ATA PASS-THROUGH (16).
[[nodiscard]] CommandBlock passThroughBlock(const AtaCommand& command);

// What the drive's registers held when the command ended.
struct AtaRegisters {
    std::uint8_t error = 0;
    std::uint8_t count = 0;
    std::uint8_t lbaMid = 0;
    std::uint8_t lbaHigh = 0;
    std::uint8_t status = 0;

    [[nodiscard]] bool hasFailed() const;
};
// The registers in sense data of either form; nothing in sense data that is cut short, of another
// form, or about something else.
[[nodiscard]] std::optional<AtaRegisters> registersInSense(std::span<const std::uint8_t> sense);
// Whether sense data says that the device does not know the command at all.
[[nodiscard]] bool isCommandUnknown(std::span<const std::uint8_t> sense);

// Whether a threshold is exceeded, by the registers after SMART RETURN STATUS; nothing when they
// hold neither answer.
[[nodiscard]] std::optional<bool> isThresholdExceeded(const AtaRegisters& registers);
// Whether the drive rests and a command would wake it, by the registers after CHECK POWER MODE.
[[nodiscard]] bool isInStandby(const AtaRegisters& registers);
// Whether these bytes can be a drive's description: all zeros and all ones, which a bridge without
// a drive may give, are none.
[[nodiscard]] bool isIdentifyData(const IdentifyData& data);
// Whether the description says that the drive supports SMART.
[[nodiscard]] bool isSmartSupported(const IdentifyData& data);

}  // namespace korvane
