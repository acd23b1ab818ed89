// Where other file systems are mounted, by the folder that they are mounted in. Read from the
// kernel's table once, so that no mount point needs to be touched to be known: a server behind one
// may be dead, and whoever asks it waits for ever.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>

namespace korvane {

class MountPoints {
  public:
    using Names = std::set<std::string, std::less<>>;

    // From the text of a mount table: mountinfo as proc_pid_mountinfo(5) has it.
    explicit MountPoints(std::string_view table);
    // From the table of this process. Without one there are none.
    [[nodiscard]] static MountPoints ofThisProcess();

    // The names in the folder, given by its absolute path without links, on which something is
    // mounted. Null when there is none.
    [[nodiscard]] const Names* in(std::string_view folder) const;

  private:
    std::map<std::string, Names, std::less<>> namesByFolder_;
};

}  // namespace korvane
