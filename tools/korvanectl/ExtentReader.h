// Brings the contents of a deleted file back from the device by its recorded extents. The records
// can be written by everybody: what they ask for is checked, and nothing is written but the one new
// file, which only its maker may read.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "KorvaneProDataRecovery/ResultRecords.h"
#include "korvanectl/Outcome.h"
#include "korvanectl/ReadAround.h"

namespace korvane::ctl {

enum class ContentProof {
    checksumMatches,
    checksumDiffers,
    sizeAlone,
    incomplete,  // some of it could not be read
};

struct RecoveredContents {
    ContentProof proof = ContentProof::sizeAlone;
    std::string name;                // that the file has
    std::vector<ByteRange> missing;  // what could not be read; zeros stand there
};

// Why the item's contents cannot be had from the device; empty when they can.
[[nodiscard]] std::string reasonNotRecoverable(const RecordedItem& item);

// Writes the contents into a new file of this name in the folder, last modified when the item was.
// One of which some could not be read has a name that says so. `progress` is told how many bytes
// are done. A failure leaves no file; nothing that can be read is one.
[[nodiscard]] Outcome<RecoveredContents> recoverContents(
    const RecordedItem& item, int device, int folder, const std::string& name,
    const std::function<void(std::uint64_t)>& progress);

}  // namespace korvane::ctl
