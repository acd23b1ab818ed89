// One run of the program: from the jobs to their result files.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "KorvaneProDataRecovery/JobFile.h"
#include "KorvaneProDataRecovery/TrashFolders.h"

namespace korvane {

// Where the daemon keeps the records of the volume that the path of a job file tells; a folder that
// is not there when it tells none.
[[nodiscard]] std::string recordFolderOf(const std::string& supportFolder,
                                         std::string_view inputPath);

// Writes for each job whose item is found its result file into the folder, unless the record folder
// has the same since lately. What goes wrong with one job is told in a line and ends that job
// alone.
void recordJobs(const JobFile& file, const MachinePlaces& places, const std::string& recordFolder,
                const std::string& resultFolder,
                const std::function<void(const std::string&)>& tell);

}  // namespace korvane
