// The jobs that the daemon hands over, records of trash/TrashFormats.h: which of them this program
// takes. Pure, and made for bytes from anywhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace korvane {

// The daemon hands over at most 100 at once; a longer file is read to here.
inline constexpr std::size_t kMostJobs = 100;

struct RecoveryJob {
    // The item's node number: the name of its result has all of it, the record the low 32 bits.
    std::uint64_t node = 0;
    std::uint32_t parent = 0;  // the low 32 bits of the trash folder's
    std::string device;        // a path below /dev, or the name of a source without a device
    std::string resultName;    // in the folder of result files
    friend bool operator==(const RecoveryJob&, const RecoveryJob&) = default;
};

struct JobFile {
    std::vector<RecoveryJob> jobs;  // in the file's order, no result name twice
    std::size_t refused = 0;        // records, or pieces of one, that are no job
};

[[nodiscard]] JobFile parseJobFile(std::string_view bytes);

// The name of the volume that the path of a job file tells, as searchInputPathOf() made it; empty
// when it tells none.
[[nodiscard]] std::string volumeNameOfInput(std::string_view path);

// The folder of result files.
inline constexpr char kResultFolder[] = "/tmp";

}  // namespace korvane
