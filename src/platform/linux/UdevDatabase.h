// What udev knows of a block device, read from its database by hand (one file a device). Absent on
// a machine without udevd; then every answer is empty.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "platform/linux/MountTable.h"

namespace korvane {

// The device's properties: ID_FS_UUID, ID_SERIAL_SHORT and the like.
using UdevProperties = std::map<std::string, std::string, std::less<>>;

// The properties in the text of a database file: one "E:KEY=VALUE" a line among lines of other
// kinds. A line that is not of that form is passed over; the last of equal keys counts.
[[nodiscard]] UdevProperties parseUdevRecord(std::string_view text);

// "\x20" stands for a blank in the values whose key ends in _ENC.
[[nodiscard]] std::string decodeUdevText(std::string_view value);

class UdevDatabase {
  public:
    explicit UdevDatabase(std::string folder = "/run/udev/data") : folder_(std::move(folder)) {}

    [[nodiscard]] UdevProperties propertiesOf(DeviceNumber block) const;

  private:
    std::string folder_;
};

// The value under the key, or the empty text.
[[nodiscard]] std::string udevValue(const UdevProperties& properties, std::string_view key);

}  // namespace korvane
