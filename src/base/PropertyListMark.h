// What the writer of a property list notes on the file itself, in an extended attribute: that it is
// being written, or which text it wrote and when. After a power cut the kernel may have brought any
// of the file's pages to the disk and others not; the mark tells such a file from one that another
// program has written since. Reading and writing a mark costs no flush.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string_view>

namespace korvane {

[[nodiscard]] std::uint64_t fingerprintOf(std::string_view text);

// Before the first byte of the text changes the file. False where the file system has no such
// attributes: then the file has to be on the disk before the sibling goes.
[[nodiscard]] bool markWriting(int file, std::uint64_t fingerprint);

// Where nothing was written after all: the file is as it was.
void unmark(int file);

// Gives the file the time that it is now, to the nanosecond, as its modification time: the kernel's
// own stamps stand still for some milliseconds, and would not tell which of two files is newer.
void stampNow(int file);

// After the last byte. Gives the file a modification time between two ticks of the kernel's clock,
// which a later change, however soon, cannot leave as it is, and notes it. `status` is the file's
// after that; false when the time could not be given.
bool markWritten(int file, std::uint64_t fingerprint, struct stat& status);

// Whether the machine may have lost a part of what was written last: it has been started anew
// since, nobody else has written, and this is not what was written, or is older than the copy of
// that time (null where there is none).
[[nodiscard]] bool hasLostPages(int file, const struct stat& status, std::string_view text,
                                const timespec* copy);

}  // namespace korvane
