// Brings an item back from its device by its records, a folder with what was recorded of it. The
// records can be written by everybody: nothing is made outside the target, what is made belongs to
// the caller alone, and nothing that is there is written to.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "KorvaneProDataRecovery/ResultRecords.h"
#include "korvanectl/ExtentReader.h"
#include "korvanectl/Outcome.h"

namespace korvane::ctl {

struct RecoveredFile {
    std::string path;  // within the item; empty for the item itself
    std::uint64_t bytes = 0;
    std::optional<ContentProof> proof;  // nothing when the contents could not be had
    std::string reason;                 // then, and what is missing of an incomplete one
    std::string name;                   // that the file has
    std::vector<ByteRange> missing;
};

// The item, which comes first, and the files that it held; a link is made again from its record and
// needs no device. A failure of the item itself is a Failure; of what
// it held, it is told and the rest is brought back.
[[nodiscard]] Outcome<std::vector<RecoveredFile>> recoverTree(
    const std::vector<RecordedItem>& items, int device, const std::filesystem::path& target,
    const std::function<void(std::uint64_t)>& progress);

}  // namespace korvane::ctl
