// Files that everybody may write, in a folder that only this program writes to: somebody may have
// given one of them a second name elsewhere on the volume, which the kernel allows for files that
// one may read and write.
#pragma once

#include <string>

namespace korvane {

// Where the file of this name has second names, it is left to those and a copy of its own takes the
// name. Only what nobody but this program can have put there is copied: a file of its own user in a
// folder that is its user's alone; anything else stays. Whether all is well then.
bool leaveSecondNames(int folder, const std::string& name);

}  // namespace korvane
