#include "platform/linux/RemoveItem.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "platform/linux/FolderDescent.h"

namespace korvane {

namespace {

// Empties the folder that the descent stands in and comes back to it; the first failure is kept in
// `failure`. False when the way back was lost.
bool removeContents(FolderDescent& descent, int& failure) {
    const auto keepFirst = [&failure](int number) {
        if (failure == 0) failure = number;
    };
    // Names still to be removed, per level; the last of a level is the one that was entered.
    std::vector<std::vector<FolderDescent::Name>> levels(1);
    if (!descent.read(levels.back())) keepFirst(errno);
    while (true) {
        std::vector<FolderDescent::Name>& names = levels.back();
        if (names.empty()) {
            levels.pop_back();
            if (levels.empty()) return true;
            if (!descent.leave()) {
                keepFirst(errno);
                return false;
            }
            const std::string entered = std::move(levels.back().back().text);
            levels.back().pop_back();
            if (::unlinkat(descent.folder(), entered.c_str(), AT_REMOVEDIR) != 0) keepFirst(errno);
            continue;
        }
        const FolderDescent::Name& name = names.back();
        if (::unlinkat(descent.folder(), name.text.c_str(), 0) == 0 || errno == ENOENT) {
            names.pop_back();
            continue;
        }
        const int refusal = errno;
        const FolderDescent::Step step =
            name.mayBeFolder ? descent.enter(name.text) : FolderDescent::Step::notAFolder;
        if (step == FolderDescent::Step::entered) {
            levels.emplace_back();
            if (!descent.read(levels.back())) keepFirst(errno);
            continue;
        }
        keepFirst(step == FolderDescent::Step::anotherFileSystem ? EBUSY
                  : step == FolderDescent::Step::failed          ? errno
                                                                 : refusal);
        names.pop_back();
    }
}

}  // namespace

int removeItem(int parent, const std::string& name) {
    if (::unlinkat(parent, name.c_str(), 0) == 0) return 0;
    // unlink(2) refuses a folder with EISDIR, and some file systems with EPERM as POSIX has it.
    const int refusal = errno;
    if (refusal != EISDIR && refusal != EPERM) return refusal;
    FolderDescent descent;
    if (!descent.begin(parent, name)) return errno == ENOTDIR || errno == ELOOP ? refusal : errno;
    int failure = 0;
    if (!removeContents(descent, failure)) return failure;
    if (::unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && failure == 0) failure = errno;
    return failure;
}

}  // namespace korvane
