// How drives are printed: the table and the JSON that status, drives and history share.
#pragma once

#include <vector>

#include "korvanectl/DriveReport.h"
#include "korvanectl/Program.h"
#include "korvanectl/Table.h"

namespace korvane::ctl {

[[nodiscard]] Table drivesTable(const std::vector<DriveReport>& drives, DaemonPresence daemon,
                                Time now);
[[nodiscard]] PropertyListArray drivesJson(const std::vector<DriveReport>& drives);
// The log of one drive.
[[nodiscard]] Outcome<ExitStatus> printDriveHistory(Program& program, const DriveReport& drive);

}  // namespace korvane::ctl
