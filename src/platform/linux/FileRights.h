// The file rights of another account, taken on by the calling thread for a while: to the kernel's
// checks of permissions, quotas and ownership of new files it is that account and in no group but
// that account's own, while nobody gets the right to signal or trace the process.
#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

#include "platform/Folder.h"

namespace korvane {

// The account with its own group as the user database has it; a group without members when it does
// not know the account.
[[nodiscard]] Account accountOf(uid_t user);

class FileRights {
  public:
    // Nothing: the thread keeps its own rights.
    explicit FileRights(const std::optional<Account>& account);
    ~FileRights();
    FileRights(const FileRights&) = delete;
    FileRights& operator=(const FileRights&) = delete;

    // False when they could not be taken on wholly; then nothing may be done.
    [[nodiscard]] bool areTaken() const { return areTaken_; }

  private:
    std::optional<std::vector<gid_t>> groupsBefore_;  // set once they were given up
    bool areTaken_ = true;
};

}  // namespace korvane
