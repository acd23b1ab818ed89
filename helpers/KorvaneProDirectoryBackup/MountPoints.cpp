#include "KorvaneProDirectoryBackup/MountPoints.h"

#include <fstream>
#include <sstream>

#include "platform/linux/MountTable.h"

namespace korvane {

namespace {

constexpr char kMountTable[] = "/proc/self/mountinfo";

}  // namespace

MountPoints::MountPoints(std::string_view table) {
    for (const MountRow& row : parseMountTable(table)) {
        const std::size_t slash = row.mountPoint.rfind('/');
        if (slash == std::string::npos || row.mountPoint.size() == 1) continue;
        const std::string folder = slash == 0 ? "/" : row.mountPoint.substr(0, slash);
        namesByFolder_[folder].insert(row.mountPoint.substr(slash + 1));
    }
}

MountPoints MountPoints::ofThisProcess() {
    std::ostringstream text;
    text << std::ifstream{kMountTable, std::ios::binary}.rdbuf();
    return MountPoints{text.str()};
}

const MountPoints::Names* MountPoints::in(std::string_view folder) const {
    const auto found = namesByFolder_.find(folder);
    return found == namesByFolder_.end() ? nullptr : &found->second;
}

}  // namespace korvane
