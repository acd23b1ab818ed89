// The record of a volume's folders: every entry below its mount point with what the file system
// says of it, no contents, on that one file system. Sorted, so that two records of an unchanged
// volume differ in their header alone. Memory holds one folder's names, and of each folder above it
// those of the folders still to be entered.
#pragma once

#include <string>
#include <variant>

#include "KorvaneProDirectoryBackup/RecordFile.h"
#include "base/Calendar.h"
#include "base/Result.h"

namespace korvane {

// Writes the record; fails when the volume's own folder cannot be read or the file not be written.
// Folders below that cannot be read are named in the record.
[[nodiscard]] Result<std::monostate> writeDirectoryRecord(const std::string& mountPath, Time now,
                                                          RecordFile& file);

}  // namespace korvane
