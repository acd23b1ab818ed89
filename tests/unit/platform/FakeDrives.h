// Drives in place of the kernel's: answer the commands that reach them as real ones do, or fail as
// a test has it, and count.
#pragma once

#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/DriveCommands.h"

namespace korvane {

enum class SenseForm { descriptor, fixed, none };

struct FakeDrive {
    SenseForm senseForm = SenseForm::descriptor;
    bool isFailing = false;
    std::uint8_t powerMode = 0xff;  // active
    bool isSmartOn = true;
    int identifyFill = -1;   // every byte of the description, or a good one
    std::string model = {};  // in the description, as its serial number
    std::string serial = {};
    int openError = 0;                      // errno
    std::map<int, int> controlErrors = {};  // errno by command; 0 stands for any
    bool timesOut = false;
    // How far a command comes: linux/scsi_host.h's and SAM's codes, and what stays untransferred.
    unsigned short hostStatus = 0;
    unsigned short driverStatus = 0;
    unsigned char scsiStatus = 0;
    int untransferred = 0;
    std::uint8_t statusRegister = 0x50;
    std::vector<std::uint8_t> sense = {};  // in place of what the drive would answer
    int nvmeStatus = 0;                    // the drive's own: it refuses
    std::uint8_t criticalWarning = 0;      // of an NVMe drive
    std::vector<int> commands = {};        // ATA commands, or 0x100 and the feature of SMART ones
    std::vector<unsigned> timeLimitsMilliseconds = {};
    std::vector<nvme_admin_cmd> nvmeCommands = {};
};

class FakeDrives final : public DriveCommands {
  public:
    std::map<std::string, FakeDrive> drives;

    int open(const std::string& path, UniqueFd& descriptor) override {
        const auto drive = drives.find(path);
        if (drive == drives.end()) return ENOENT;
        if (drive->second.openError != 0) return drive->second.openError;
        descriptor = UniqueFd{::eventfd(0, EFD_CLOEXEC)};
        opened_[descriptor.get()] = &drive->second;
        return 0;
    }

    int control(int descriptor, unsigned long request, void* argument) override {
        FakeDrive& drive = *opened_.at(descriptor);
        if (request == SG_IO) return scsi(drive, *static_cast<sg_io_hdr_t*>(argument));
        if (request == NVME_IOCTL_ADMIN_CMD) {
            return nvme(drive, *static_cast<nvme_admin_cmd*>(argument));
        }
        return -ENOTTY;
    }

  private:
    static int errorOf(const FakeDrive& drive, int command) {
        for (const int key : {command, 0}) {
            const auto error = drive.controlErrors.find(key);
            if (error != drive.controlErrors.end()) return error->second;
        }
        return 0;
    }

    static int nvme(FakeDrive& drive, nvme_admin_cmd& command) {
        drive.commands.push_back(command.opcode);
        drive.nvmeCommands.push_back(command);
        drive.timeLimitsMilliseconds.push_back(command.timeout_ms);
        if (const int error = errorOf(drive, command.opcode)) return -error;
        if (drive.nvmeStatus != 0) return drive.nvmeStatus;
        std::memset(reinterpret_cast<void*>(command.addr), 0, command.data_len);
        if (command.opcode == 0x02) {
            *reinterpret_cast<std::uint8_t*>(command.addr) = drive.criticalWarning;
        }
        return 0;
    }

    static int scsi(FakeDrive& drive, sg_io_hdr_t& header) {
        const std::uint8_t* block = header.cmdp;
        const int command = block[14] == 0xb0 ? 0x100 + block[4] : block[14];
        drive.commands.push_back(command);
        drive.timeLimitsMilliseconds.push_back(header.timeout);
        if (const int error = errorOf(drive, command)) return -error;
        header.host_status = drive.hostStatus;
        header.driver_status = drive.driverStatus;
        header.status = drive.scsiStatus;
        header.resid = drive.untransferred;
        if (drive.scsiStatus != 0) return 0;
        if (drive.timesOut) {
            header.host_status = 3;
            return 0;
        }
        std::uint8_t count = 0;
        std::uint8_t lbaMid = 0x4f;
        std::uint8_t lbaHigh = 0xc2;
        if (command == 0xe5) count = drive.powerMode;
        if (command == 0xec) identify(drive, header);
        if (command == 0x1da && drive.isFailing) {
            lbaMid = 0xf4;
            lbaHigh = 0x2c;
        }
        if (!drive.sense.empty()) {
            header.status = 2;
            header.sb_len_wr = static_cast<unsigned char>(drive.sense.size());
            std::copy(drive.sense.begin(), drive.sense.end(), header.sbp);
        } else if ((block[2] & 0x20) != 0)
            registers(drive, header, count, lbaMid, lbaHigh);
        return 0;
    }

    static void identify(const FakeDrive& drive, sg_io_hdr_t& header) {
        auto* data = static_cast<std::uint8_t*>(header.dxferp);
        std::memset(data, drive.identifyFill < 0 ? 0 : drive.identifyFill, header.dxfer_len);
        if (drive.identifyFill >= 0) return;
        data[2 * 82] = 1;
        data[2 * 83 + 1] = 0x40;
        data[2 * 85] = drive.isSmartOn ? 1 : 0;
        fill(data + 2 * 27, drive.model, 40);
        fill(data + 2 * 10, drive.serial, 20);
    }

    // Padded with blanks, and the bytes of each word turned round.
    static void fill(std::uint8_t* field, const std::string& text, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            field[i ^ 1U] = i < text.size() ? static_cast<std::uint8_t>(text[i]) : ' ';
        }
    }

    static void registers(const FakeDrive& drive, sg_io_hdr_t& header, std::uint8_t count,
                          std::uint8_t lbaMid, std::uint8_t lbaHigh) {
        if (drive.senseForm == SenseForm::none) return;
        header.status = 2;
        std::uint8_t* sense = header.sbp;
        if (drive.senseForm == SenseForm::descriptor) {
            const std::uint8_t bytes[] = {
                0x72, 1, 0,     0x1d, 0, 0, 0,      14, 0x09,    12, 0,
                0,    0, count, 0,    0, 0, lbaMid, 0,  lbaHigh, 0,  drive.statusRegister};
            std::memcpy(sense, bytes, sizeof bytes);
            header.sb_len_wr = sizeof bytes;
        } else {
            const std::uint8_t bytes[] = {
                0x70, 0, 1, 0, drive.statusRegister, 0, count, 10, 0, 0, lbaMid, lbaHigh, 0, 0x1d,
                0,    0, 0, 0};
            std::memcpy(sense, bytes, sizeof bytes);
            header.sb_len_wr = sizeof bytes;
        }
    }

    std::map<int, FakeDrive*> opened_;
};

}  // namespace korvane
