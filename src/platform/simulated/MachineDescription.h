// What a simulated machine is made of, and its form as a property list: devices, mounts, power
// sources, processes, accounts, clocks and version. tests/fixtures/machines/README.md has the keys.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "base/Result.h"
#include "platform/Host.h"
#include "platform/Volumes.h"

namespace korvane {

struct ServiceDescription {
    std::string name;  // unique on the machine; nobody but descriptions and tests knows it
    std::string className;
    std::string parent;  // a service's name; empty at the root
    Dictionary properties;
};

enum class MountKind {
    local,    // a volume on a local block device
    network,  // a volume on a server
    pseudo    // no volume at all
};

struct MountDescription {
    std::string path;
    std::string device;  // as the mount table has it: "/dev/disk0s2", "//server/share", "devfs"
    std::string type;
    MountKind kind = MountKind::local;
    std::uint64_t sizeBytes = 0;
    std::uint64_t freeBytes = 0;
    bool isRemovable = false;
    bool isWritable = true;
    bool isUnmountable = true;
    std::uint16_t fileSystemId = 0;
    std::uint16_t signature = 0;
    std::uint16_t volumeFlags = 0;
    std::int16_t referenceNumber = 0;  // 0: the machine gives one
    std::string displayName;           // empty: the last path component
};

// A drive that is not there at first and can be plugged in by its name.
struct AccessoryDescription {
    std::string name;
    std::vector<ServiceDescription> services;
    std::vector<MountDescription> mounts;
};

// What the number of a disk stands for.
enum class DiskNumbering {
    byName,  // disk 2 is /dev/disk2
    byOrder  // disk 2 is the third drive, whatever its name
};

struct ProcessDescription {
    std::string name;
    std::string bundleIdentifier;
};

struct MachineDescription {
    SystemVersion version{11, 0, 0};
    Time wallClock = Time{std::chrono::sys_days{std::chrono::year{2026} / 3 / 2}};
    std::chrono::microseconds uptime = std::chrono::hours{1};
    std::string zone = "UTC";  // as TZ names it
    std::string userName = "root";
    std::map<std::string, std::uint32_t> accounts{{"root", 0}};
    std::optional<std::vector<std::string>> powerSources;
    std::vector<ProcessDescription> processes;
    DiskNumbering diskNumbering = DiskNumbering::byName;
    std::vector<ServiceDescription> services;  // parents first
    std::vector<MountDescription> mounts;      // in the order of mounting
    std::vector<AccessoryDescription> accessories;
};

// The error says which key of which entry is wrong and why.
[[nodiscard]] Result<MachineDescription> parseMachineDescription(std::string_view text);
[[nodiscard]] Result<MachineDescription> readMachineDescription(const std::string& path);

}  // namespace korvane
