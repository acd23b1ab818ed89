// The kernel's table of mounts as text and as rows. Pure: nothing here touches a file system, so a
// dead server among the mounts cannot hang it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvane {

// A block device, or an anonymous file system (major 0), by number.
struct DeviceNumber {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    friend bool operator==(const DeviceNumber&, const DeviceNumber&) = default;
};

// One row of /proc/PID/mountinfo (proc_pid_mountinfo(5)), its escapes decoded: the texts are the
// bytes that the kernel knows.
struct MountRow {
    std::uint64_t mountId = 0;
    std::uint64_t parentId = 0;
    DeviceNumber device;     // of the super-block
    std::string mountPoint;  // absolute
    bool readOnly = false;   // by the options of the mount or of its super-block
    std::string typeName;
    std::string source;
};

// The rows in the table's order. A row that is not as the kernel writes them is passed over.
[[nodiscard]] std::vector<MountRow> parseMountTable(std::string_view text);

// The indexes, in order, of the rows that a path leads to: a mount below another one that came
// later is reached by nobody, and questions about its path would be answered by the other.
[[nodiscard]] std::vector<std::size_t> reachableMounts(const std::vector<MountRow>& rows);

// A text for any bytes, and the bytes back. Control characters, broken UTF-8 and the two code
// points that XML refuses stand as a backslash and three octal digits; so does a backslash that
// would otherwise read as the beginning of one.
[[nodiscard]] std::string textOfBytes(std::string_view bytes);
[[nodiscard]] std::string bytesOfText(std::string_view text);

}  // namespace korvane

template <>
struct std::hash<korvane::DeviceNumber> {
    std::size_t operator()(const korvane::DeviceNumber& number) const noexcept {
        return std::hash<std::uint64_t>{}((std::uint64_t{number.major} << 32U) | number.minor);
    }
};
