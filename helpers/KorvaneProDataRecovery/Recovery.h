// One run of the program: from the jobs to their result files.
#pragma once

#include <functional>
#include <string>

#include "KorvaneProDataRecovery/JobFile.h"
#include "KorvaneProDataRecovery/TrashFolders.h"

namespace korvane {

// Writes for each job whose item is found its result file into the folder. What goes wrong with one
// job is told in a line and ends that job alone.
void recordJobs(const JobFile& file, const MachinePlaces& places, const std::string& resultFolder,
                const std::function<void(const std::string&)>& tell);

}  // namespace korvane
