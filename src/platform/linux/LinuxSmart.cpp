#include "platform/linux/LinuxSmart.h"

#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <span>
#include <utility>

#include "platform/linux/AtaCommand.h"
#include "platform/linux/NvmeHealth.h"

namespace korvane {
namespace {

// Long enough for a disk to spin up and answer.
constexpr unsigned kTimeLimitMilliseconds = 10'000;

// linux/scsi_host.h and scsi.h, which programs do not get: how far a command came.
constexpr unsigned short kHostNoConnection = 0x01;
constexpr unsigned short kHostTimeOut = 0x03;
constexpr unsigned short kDriverCodeMask = 0x0f;
constexpr unsigned short kDriverTimeOut = 0x06;
constexpr unsigned char kCheckCondition = 0x02;

// NVM Express 1.4, figure 139: admin commands.
constexpr std::uint8_t kNvmeGetLogPage = 0x02;
constexpr std::uint8_t kNvmeIdentify = 0x06;
constexpr std::uint32_t kNvmeIdentifyController = 1;
constexpr std::uint32_t kNvmeIdentifyBytes = 4096;
constexpr std::uint32_t kNvmeAllNamespaces = 0xffffffff;

// Missing capabilities show as EPERM with ATA, as EACCES with NVMe and device files.
DriveStatus statusOfError(int error) {
    return error == EPERM || error == EACCES ? kDriveNotPermitted : error;
}

struct AtaOutcome {
    DriveStatus status = kDriveSuccess;
    AtaRegisters registers;  // of a command that wants them
};

AtaOutcome outcomeOf(const sg_io_hdr_t& header, const AtaCommand& command,
                     std::span<const std::uint8_t> sense) {
    if (header.host_status == kHostTimeOut ||
        (header.driver_status & kDriverCodeMask) == kDriverTimeOut) {
        return {.status = ETIMEDOUT, .registers = {}};
    }
    if (header.host_status == kHostNoConnection) return {.status = ENODEV, .registers = {}};
    if (header.host_status != 0) return {.status = EIO, .registers = {}};
    if (header.status != 0 && header.status != kCheckCondition) {
        return {.status = EIO, .registers = {}};
    }
    if (header.status == 0 && !command.wantsRegisters) return {};
    // Registers come with CHECK CONDITION, which here says nothing of success.
    const std::optional<AtaRegisters> registers = registersInSense(sense);
    if (registers && !registers->hasFailed()) {
        return {.status = kDriveSuccess, .registers = *registers};
    }
    return {.status = isCommandUnknown(sense) ? EOPNOTSUPP : EIO, .registers = {}};
}

AtaOutcome sendAta(DriveCommands& commands, int descriptor, const AtaCommand& command,
                   std::span<std::uint8_t> data) {
    CommandBlock block = passThroughBlock(command);
    std::array<std::uint8_t, 64> sense{};
    sg_io_hdr_t header{};
    header.interface_id = 'S';
    header.dxfer_direction =
        command.transfer == AtaTransfer::in ? SG_DXFER_FROM_DEV : SG_DXFER_NONE;
    header.cmd_len = static_cast<unsigned char>(block.size());
    header.cmdp = block.data();
    header.mx_sb_len = static_cast<unsigned char>(sense.size());
    header.sbp = sense.data();
    header.dxfer_len = static_cast<unsigned>(data.size());
    header.dxferp = data.data();
    header.timeout = kTimeLimitMilliseconds;
    const int answer = commands.control(descriptor, SG_IO, &header);
    if (answer < 0) return {.status = statusOfError(-answer), .registers = {}};
    const std::size_t written = std::min<std::size_t>(header.sb_len_wr, sense.size());
    AtaOutcome outcome = outcomeOf(header, command, std::span(sense).first(written));
    // A transfer that ended early has not told everything.
    if (outcome.status == kDriveSuccess && command.transfer == AtaTransfer::in &&
        header.resid > 0) {
        outcome.status = EIO;
    }
    return outcome;
}

class AtaSmart final : public SmartInterface {
  public:
    AtaSmart(DriveCommands& commands, UniqueFd descriptor, std::shared_ptr<DriveMemory> memory,
             bool isResting)
        : commands_(commands),
          descriptor_(std::move(descriptor)),
          memory_(std::move(memory)),
          isResting_(isResting) {}

    DriveStatus enableOperations() override {
        if (isResting_ && memory_->isEnabled) return kDriveSuccess;
        const DriveStatus status = send(kSmartEnableOperations).status;
        memory_->isEnabled = status == kDriveSuccess;
        return status;
    }

    DriveStatus enableAutosave() override {
        if (isResting_ && memory_->keepsAttributes) return kDriveSuccess;
        const DriveStatus status = send(kSmartEnableAutosave).status;
        memory_->keepsAttributes = status == kDriveSuccess;
        return status;
    }

    IdentifyAnswer identify() override {
        if (isResting_ && memory_->identified) {
            return {.status = kDriveSuccess, .data = *memory_->identified};
        }
        IdentifyAnswer answer;
        answer.status = send(kIdentifyDevice, answer.data).status;
        if (answer.status == kDriveSuccess && !isIdentifyData(answer.data)) answer.status = EIO;
        if (answer.status != kDriveSuccess) {
            answer.data = {};
        } else {
            memory_->identified = answer.data;
        }
        return answer;
    }

    SmartStatusAnswer returnStatus() override {
        if (isResting_ && memory_->hasToldItsStatus) return {.status = kDriveResting};
        const AtaOutcome outcome = send(kSmartReturnStatus);
        if (outcome.status != kDriveSuccess) return {.status = outcome.status};
        const std::optional<bool> isExceeded = isThresholdExceeded(outcome.registers);
        if (!isExceeded) return {.status = EIO};
        memory_->hasToldItsStatus = true;
        return {.status = kDriveSuccess, .isThresholdExceeded = *isExceeded};
    }

  private:
    AtaOutcome send(const AtaCommand& command, std::span<std::uint8_t> data = {}) {
        return sendAta(commands_, descriptor_.get(), command, data);
    }

    DriveCommands& commands_;
    const UniqueFd descriptor_;
    const std::shared_ptr<DriveMemory> memory_;
    const bool isResting_;
};

class NvmeSmart final : public SmartInterface {
  public:
    NvmeSmart(DriveCommands& commands, UniqueFd descriptor)
        : commands_(commands), descriptor_(std::move(descriptor)) {}

    DriveStatus enableOperations() override { return kDriveSuccess; }
    DriveStatus enableAutosave() override { return kDriveSuccess; }

    // In an ATA drive's terms: SMART is supported and on. Asked all the same, since a drive that
    // does not answer is not ready.
    IdentifyAnswer identify() override {
        alignas(8) std::array<std::uint8_t, kNvmeIdentifyBytes> controller{};
        nvme_admin_cmd command{};
        command.opcode = kNvmeIdentify;
        command.cdw10 = kNvmeIdentifyController;
        IdentifyAnswer answer{.status = send(command, controller)};
        if (answer.status == kDriveSuccess) {
            for (const std::size_t word : {82U, 85U}) answer.data[2 * word] = 1;
        }
        return answer;
    }

    SmartStatusAnswer returnStatus() override {
        alignas(8) std::array<std::uint8_t, kNvmeHealthLogBytes> page{};
        nvme_admin_cmd command{};
        command.opcode = kNvmeGetLogPage;
        command.nsid = kNvmeAllNamespaces;
        // The number of double words, less one, above the page's number.
        command.cdw10 = (kNvmeHealthLogBytes / 4 - 1) << 16U | kNvmeHealthLogPage;
        const DriveStatus status = send(command, page);
        if (status != kDriveSuccess) return {.status = status};
        return {.status = kDriveSuccess,
                .isThresholdExceeded = hasCriticalWarning(page).value_or(false)};
    }

  private:
    DriveStatus send(nvme_admin_cmd& command, std::span<std::uint8_t> data) {
        command.addr = reinterpret_cast<std::uintptr_t>(data.data());
        command.data_len = static_cast<std::uint32_t>(data.size());
        command.timeout_ms = kTimeLimitMilliseconds;
        const int answer = commands_.control(descriptor_.get(), NVME_IOCTL_ADMIN_CMD, &command);
        // Above 0 stands the drive's own status: it has refused.
        return answer < 0 ? statusOfError(-answer) : answer > 0 ? EIO : kDriveSuccess;
    }

    DriveCommands& commands_;
    const UniqueFd descriptor_;
};

SmartOpening failedToOpen(DriveStatus status) { return {.status = status, .smart = nullptr}; }

// A drive that hangs or is gone, a device that takes no such commands, a process that may not send
// them: nothing else that is sent there will be answered.
bool isWithoutHope(DriveStatus status) {
    return status == ETIMEDOUT || status == ENODEV || status == ENXIO || status == ENOTTY ||
           status == kDriveNotPermitted;
}

}  // namespace

SmartOpening openAtaSmart(DriveCommands& commands, const std::string& path,
                          std::shared_ptr<DriveMemory> memory) {
    UniqueFd descriptor;
    if (const int error = commands.open(path, descriptor)) {
        return failedToOpen(statusOfError(error));
    }
    const AtaOutcome powerMode = sendAta(commands, descriptor.get(), kCheckPowerMode, {});
    if (isWithoutHope(powerMode.status)) return failedToOpen(powerMode.status);
    const bool isResting = powerMode.status == kDriveSuccess && isInStandby(powerMode.registers);
    return {.status = kDriveSuccess,
            .smart = std::make_unique<AtaSmart>(commands, std::move(descriptor), std::move(memory),
                                                isResting)};
}

SmartOpening openNvmeSmart(DriveCommands& commands, const std::string& path) {
    UniqueFd descriptor;
    if (const int error = commands.open(path, descriptor)) {
        return failedToOpen(statusOfError(error));
    }
    return {.status = kDriveSuccess,
            .smart = std::make_unique<NvmeSmart>(commands, std::move(descriptor))};
}

}  // namespace korvane
