// A way down a tree of folders and back up that never leaves it: each step opens the next folder
// relative to the one before without following a link, and the way back is checked to end where it
// began, whatever other programs move about meanwhile. One descriptor at any depth.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/linux/UniqueFd.h"

namespace korvane {

class FolderDescent {
  public:
    enum class Step {
        entered,
        notAFolder,
        anotherFileSystem,  // a mount point: what is mounted there belongs to another tree
        failed              // errno says why
    };

    // Begins at the folder at `path`, taken relative to the folder `base` as openat(2) does, and
    // not followed when it is a link. False, with errno set, when it is none or cannot be opened.
    [[nodiscard]] bool begin(int base, const std::string& path);
    // Goes down into the folder `name` of the current one.
    [[nodiscard]] Step enter(const std::string& name);
    // Goes back up. False when the way back does not lead to where this one came from: then the
    // descent is over.
    [[nodiscard]] bool leave();

    // The current folder's descriptor; valid until the next step.
    [[nodiscard]] int folder() const { return folder_.get(); }
    // The names in the current folder without "." and "..", and which of them may be folders.
    struct Name {
        std::string text;
        bool mayBeFolder = false;
    };
    // At most `most` of them. False, with errno set, when it cannot be read.
    [[nodiscard]] bool read(std::vector<Name>& names, std::size_t most = SIZE_MAX) const;

  private:
    struct Identity {
        dev_t device = 0;
        ino_t node = 0;
        friend bool operator==(const Identity&, const Identity&) = default;
    };
    UniqueFd folder_;
    std::vector<Identity> path_;  // from the start to the current folder
};

}  // namespace korvane
