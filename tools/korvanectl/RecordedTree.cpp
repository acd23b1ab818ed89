#include "korvanectl/RecordedTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include "KorvaneProDataRecovery/TrashFolders.h"
#include "korvanectl/Document.h"
#include "korvanectl/TrashHistory.h"
#include "platform/linux/UniqueFd.h"

namespace korvane::ctl {

namespace {

namespace fs = std::filesystem;

// No more than the recovery program records: a record that asks for more is not its.
constexpr std::size_t kMostDepth = 64;

std::string joined(const std::vector<std::string>& steps, const std::string& name) {
    std::string path;
    for (const std::string& step : steps) path += step + "/";
    return path + name;
}

RecoveredFile recovered(std::string path, std::uint64_t bytes, const RecoveredContents& contents) {
    const bool isWhole = contents.missing.empty();
    return {.path = std::move(path),
            .bytes = bytes,
            .proof = contents.proof,
            .reason = isWhole ? "" : rangesWords(contents.missing),
            .name = contents.name,
            .missing = contents.missing};
}

class TreeRecovery {
  public:
    TreeRecovery(const RecordedItem& root, int device, int folder,
                 const std::function<void(std::uint64_t)>& progress)
        : device_(device), folder_(folder), progress_(progress) {
        foldersByNode_[root.node] = {};
    }

    // Something that the item held. What belongs to no folder that was made is passed over: it is
    // either the content of one that could not be made, which was told, or no record of this
    // item's.
    void add(const RecordedItem& item) {
        const auto parent = foldersByNode_.find(item.parent);
        if (parent == foldersByNode_.end() || !isFileName(item.name)) return;
        const std::vector<std::string>& steps = parent->second;
        const UniqueFd folder = openFolder(folder_, steps);
        const std::string path = joined(steps, item.name);
        if (!folder) {
            tell(path, std::strerror(errno));
        } else if (S_ISDIR(item.mode)) {
            addFolder(item, folder.get(), steps, path);
        } else if (S_ISLNK(item.mode)) {
            if (::symlinkat(item.linkTarget.c_str(), folder.get(), item.name.c_str()) != 0) {
                tell(path, std::strerror(errno));
            }
        } else {
            addFile(item, folder.get(), path);
        }
    }
    std::vector<RecoveredFile> take() { return std::move(files_); }

  private:
    void addFolder(const RecordedItem& item, int folder, std::vector<std::string> steps,
                   const std::string& path) {
        if (foldersByNode_.contains(item.node) || steps.size() >= kMostDepth) return;
        if (::mkdirat(folder, item.name.c_str(), 0700) != 0) {
            tell(path, std::strerror(errno));
            return;
        }
        steps.push_back(item.name);
        foldersByNode_.emplace(item.node, std::move(steps));
    }

    void addFile(const RecordedItem& item, int folder, const std::string& path) {
        const auto proof =
            recoverContents(item, device_, folder, item.name,
                            [this](std::uint64_t done) { progress_(bytesBefore_ + done); });
        if (!proof) {
            tell(path, proof.failure().message);
            return;
        }
        bytesBefore_ += item.size;
        files_.push_back(recovered(path, item.size, *proof));
    }

    void tell(std::string path, std::string reason) {
        files_.push_back({.path = std::move(path),
                          .proof = std::nullopt,
                          .reason = std::move(reason),
                          .name = {},
                          .missing = {}});
    }

    int device_;
    int folder_;  // the one that was made for the item
    const std::function<void(std::uint64_t)>& progress_;
    std::map<std::uint64_t, std::vector<std::string>> foldersByNode_;  // the way from the item
    std::uint64_t bytesBefore_ = 0;
    std::vector<RecoveredFile> files_;
};

// A link is all in its record.
Outcome<std::vector<RecoveredFile>> recoverLink(const RecordedItem& link, int folder,
                                                const fs::path& target) {
    if (link.linkTarget.empty()) {
        return Failure{ExitStatus::refused, "where the link leads was not recorded"};
    }
    const std::string name = target.filename().string();
    if (::symlinkat(link.linkTarget.c_str(), folder, name.c_str()) != 0) {
        return fileFailure(target.string(), errno);
    }
    return std::vector<RecoveredFile>{};
}

}  // namespace

Outcome<std::vector<RecoveredFile>> recoverTree(
    const std::vector<RecordedItem>& items, int device, const fs::path& target,
    const std::function<void(std::uint64_t)>& progress) {
    const RecordedItem& root = items.front();
    const fs::path parent = target.has_parent_path() ? target.parent_path() : fs::path{"."};
    const std::string name = target.filename().string();
    const UniqueFd to{::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!to) return fileFailure(parent.string(), errno);
    if (S_ISLNK(root.mode)) return recoverLink(root, to.get(), target);
    if (!S_ISDIR(root.mode)) {
        const auto proof = recoverContents(root, device, to.get(), name, progress);
        if (!proof) return proof.failure();
        if (::syncfs(to.get()) != 0) return fileFailure(target.string(), errno);
        return std::vector<RecoveredFile>{recovered("", root.size, *proof)};
    }
    if (::mkdirat(to.get(), name.c_str(), 0700) != 0) return fileFailure(target.string(), errno);
    const UniqueFd folder = openFolder(to.get(), {name});
    if (!folder) return fileFailure(target.string(), errno);
    TreeRecovery tree{root, device, folder.get(), progress};
    std::for_each(items.begin() + 1, items.end(),
                  [&](const RecordedItem& item) { tree.add(item); });
    if (::syncfs(to.get()) != 0) return fileFailure(target.string(), errno);
    return tree.take();
}

}  // namespace korvane::ctl
