// Where an open file's contents lie on its device.
#pragma once

#include <vector>

#include "KorvaneProDataRecovery/ResultRecords.h"

namespace korvane {

struct ExtentList {
    std::vector<FileExtent> extents;  // by logical place, at most kMostExtents
    bool isWhole = false;             // false when there are more, or the file system cannot say
};

// Has the file's data written out first, so that they are where the list says. Reads no data. Takes
// as long as the writing out of the file's data does.
[[nodiscard]] ExtentList readExtents(int file);

}  // namespace korvane
