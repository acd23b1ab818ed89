// The SMART facility of one drive, opened on its service: four questions, each with a status of the
// platform's own beside its answer. Destroying it closes it.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

namespace korvane {

// 0 is success; anything else is a failure that only the platform can name, always above 0.
using DriveStatus = int;
inline constexpr DriveStatus kDriveSuccess = 0;
// The one failure that means the same everywhere: this process has not the right to ask.
inline constexpr DriveStatus kDriveNotPermitted = 1;
// The drive rests and was not asked, so there is no answer: above every platform's own numbers.
inline constexpr DriveStatus kDriveResting = 1 << 16;

// What an ATA drive says of itself (ATA8-ACS 7.16, IDENTIFY DEVICE): 256 words, lower byte first.
using IdentifyData = std::array<std::uint8_t, 512>;

struct IdentifyAnswer {
    DriveStatus status = kDriveSuccess;
    IdentifyData data{};  // zeros after a failure
};

struct SmartStatusAnswer {
    DriveStatus status = kDriveSuccess;
    bool isThresholdExceeded = false;  // never after a failure
};

// Each call ends after some 10 seconds even when the drive says nothing; that is a failure then. A
// drive that rests is not woken for what it has answered before: what it is and whether SMART is on
// are known, and returnStatus() says kDriveResting.
class SmartInterface {
  public:
    virtual ~SmartInterface() = default;

    // Switches SMART on.
    [[nodiscard]] virtual DriveStatus enableOperations() = 0;
    // Has the drive keep its attributes over a power-off.
    [[nodiscard]] virtual DriveStatus enableAutosave() = 0;
    [[nodiscard]] virtual IdentifyAnswer identify() = 0;
    // Whether the drive itself says that it is failing.
    [[nodiscard]] virtual SmartStatusAnswer returnStatus() = 0;
};

struct SmartOpening {
    DriveStatus status = kDriveSuccess;
    std::unique_ptr<SmartInterface> smart;  // null after a failure
};

}  // namespace korvane
