#include "platform/simulated/SimulatedDrives.h"

#include <chrono>
#include <memory>
#include <string_view>
#include <utility>

namespace korvane {

namespace {

constexpr DriveStatus kRefused = 5;
constexpr DriveStatus kTimedOut = 110;
constexpr std::chrono::seconds kTimeLimit{10};

// ATA8-ACS 7.16.7: bit 0 of word 82 says that SMART is supported, of word 85 that it is on.
constexpr std::size_t kSupportedByte = 2 * 82;
constexpr std::size_t kEnabledByte = 2 * 85;

class SimulatedSmartInterface final : public SmartInterface {
  public:
    SimulatedSmartInterface(SimulatedDrives& drives, std::string drive)
        : drives_(drives), drive_(std::move(drive)) {}

    DriveStatus enableOperations() override {
        const DriveStatus status = drives_.command(drive_, "enable operations");
        return is(DriveCondition::refusing) ? kRefused : status;
    }
    DriveStatus enableAutosave() override {
        const DriveStatus status = drives_.command(drive_, "enable autosave");
        return is(DriveCondition::noAutosave) ? kRefused : status;
    }
    IdentifyAnswer identify() override {
        IdentifyAnswer answer{.status = drives_.command(drive_, "identify")};
        if (answer.status == kDriveSuccess) {
            answer.data[kSupportedByte] = 1;
            answer.data[kEnabledByte] = is(DriveCondition::smartOff) ? 0 : 1;
        }
        return answer;
    }
    SmartStatusAnswer returnStatus() override {
        if (is(DriveCondition::resting)) return {.status = kDriveResting};
        const DriveStatus status = drives_.command(drive_, "return status");
        if (is(DriveCondition::leaving)) return {.status = kDriveGone};
        return {.status = is(DriveCondition::unanswering) ? kRefused : status,
                .isThresholdExceeded = is(DriveCondition::failing)};
    }

  private:
    [[nodiscard]] bool is(DriveCondition condition) const {
        return drives_.condition(drive_) == condition;
    }

    SimulatedDrives& drives_;
    std::string drive_;
};

}  // namespace

void SimulatedDrives::setCondition(const std::string& drive, DriveCondition condition) {
    conditions_[drive] = condition;
}

DriveCondition SimulatedDrives::condition(const std::string& drive) const {
    const auto found = conditions_.find(drive);
    return found == conditions_.end() ? DriveCondition::healthy : found->second;
}

std::uint64_t SimulatedDrives::commandCount(const std::string& drive) const {
    const auto found = commandCounts_.find(drive);
    return found == commandCounts_.end() ? 0 : found->second;
}

SmartOpening SimulatedDrives::open(const std::string& drive) {
    switch (condition(drive)) {
        case DriveCondition::withoutSmart:
            return {.status = kRefused, .smart = nullptr};
        case DriveCondition::notPermitted:
            return {.status = kDriveNotPermitted, .smart = nullptr};
        case DriveCondition::vanishing:
            return {.status = kDriveGone, .smart = nullptr};
        default:
            return {.status = kDriveSuccess,
                    .smart = std::make_unique<SimulatedSmartInterface>(*this, drive)};
    }
}

DriveStatus SimulatedDrives::command(const std::string& drive, const char* name) {
    if (condition(drive) == DriveCondition::resting) return kDriveSuccess;
    ++commandCounts_[drive];
    journal_.note("drive command", drive + ": " + name);
    if (condition(drive) != DriveCondition::hanging) return kDriveSuccess;
    clock_.advance(kTimeLimit);
    return kTimedOut;
}

}  // namespace korvane
