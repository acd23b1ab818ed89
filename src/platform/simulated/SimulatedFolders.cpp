// Folders that are held open. Another account's rights are what the owner and the permissions of
// the folder give it.

#include <utility>

#include "platform/simulated/SimulatedFileSystem.h"

namespace korvane {

class SimulatedFileSystem::OpenFolder final : public Folder {
  public:
    OpenFolder(SimulatedFileSystem& files, Place place, std::string path,
               std::optional<Account> rights)
        : files_(files), place_(place), path_(std::move(path)), rights_(rights) {}

    std::optional<ItemAttributes> attributes() override { return attributesFrom(*place_.node); }

    std::optional<ItemAttributes> attributesOf(const std::string& name) override {
        const Place item = files_.step(place_, name);
        return item.node ? std::optional(attributesFrom(*item.node)) : std::nullopt;
    }

    std::optional<std::vector<std::string>> list(std::size_t most) override {
        if (place_.node->isUnreadable) return std::nullopt;
        std::vector<std::string> names;
        for (const auto& [key, child] : place_.node->children) {
            if (names.size() == most) break;
            names.push_back(key.name);
        }
        return names;
    }

    std::optional<std::string> linkTarget(const std::string& name) override {
        const Place item = files_.step(place_, name);
        if (!item.node || item.node->kind != ItemKind::link) return std::nullopt;
        return item.node->linkTarget;
    }

    std::unique_ptr<Folder> open(const std::string& name, Mounts mounts) override {
        const Place item = files_.step(place_, name);
        const bool isRefused = mounts == Mounts::refused && item.isMountPoint;
        if (!item.node || item.node->kind != ItemKind::folder || isRefused) return nullptr;
        return std::make_unique<OpenFolder>(files_, item, pathOf(name), rights_);
    }

    bool make(const std::string& name) override {
        const Place item = files_.step(place_, name);
        if (item.node || !mayWrite() || files_.refusal(item, true)) return false;
        own(files_.add(*place_.node, name, ItemKind::folder, kNewFolderPermissions));
        files_.journal_.note("folder", pathOf(name));
        return true;
    }

    Result<std::monostate> createFile(const std::string& name, std::string_view bytes,
                                      mode_t permissions) override {
        const Place item = files_.step(place_, name);
        if (item.node) return Error{name + ": file exists"};
        if (!mayWrite()) return Error{name + ": permission denied"};
        if (const std::optional<Error> error = files_.refusal(item, true)) return *error;
        files_.putBytes(*place_.node, name, std::string(bytes), permissions);
        own(*files_.step(place_, name).node);
        files_.journal_.note("new file", pathOf(name));
        return std::monostate{};
    }

    Result<std::monostate> remove(const std::string& name) override {
        const Place item = files_.step(place_, name);
        if (!item.node) return Error{name + ": no such file or folder"};
        if (item.isMountPoint) return Error{name + ": device or resource busy"};
        if (!mayWrite()) return Error{name + ": permission denied"};
        if (rights_ && !item.node->children.empty()) return Error{name + ": not empty"};
        if (const std::optional<Error> error = files_.refusal(item, false)) return *error;
        files_.journal_.note("remove", pathOf(name));
        if (!files_.removeTree(*place_.node, SimulatedName(files_.seed_, name))) {
            return Error{name + ": some of its contents could not be removed"};
        }
        return std::monostate{};
    }

    bool setPermissions(const std::string& name, mode_t permissions) override {
        const Place item = files_.step(place_, name);
        if (!item.node || item.node->kind == ItemKind::link || item.tree->isReadOnly ||
            (rights_ && item.node->ownerId != rights_->userId)) {
            return false;
        }
        item.node->permissions = permissions;
        return true;
    }

    bool takeRightsOf(std::uint32_t userId) override {
        rights_ = userId == files_.userId() ? std::nullopt : std::optional(Account{userId, userId});
        return true;
    }

    Account account() override {
        return rights_.value_or(Account{files_.userId(), files_.userId()});
    }
    int descriptor() const override { return -1; }
    std::string path() const override { return path_; }

  private:
    static constexpr mode_t kNewFolderPermissions = 0755;
    static constexpr mode_t kOthersMayWrite = 0002;

    bool mayWrite() const {
        return !rights_ || place_.node->ownerId == rights_->userId ||
               (place_.node->permissions & kOthersMayWrite) != 0;
    }
    void own(SimulatedNode& made) const {
        if (rights_) made.ownerId = rights_->userId;
    }
    std::string pathOf(const std::string& name) const {
        return (path_ == "/" ? "" : path_) + '/' + name;
    }

    SimulatedFileSystem& files_;
    Place place_;
    std::string path_;
    std::optional<Account> rights_;
};

std::unique_ptr<Folder> SimulatedFileSystem::openRoot() {
    const Place root{rootTree_->root.get(), rootTree_, "", rootTree_->root.get(), true};
    return std::make_unique<OpenFolder>(*this, root, "/", std::nullopt);
}

ItemAttributes SimulatedFileSystem::attributesFrom(const SimulatedNode& node) {
    return ItemAttributes{.kind = node.kind,
                          .sizeBytes = node.kind == ItemKind::file   ? node.contents.bytes().size()
                                       : node.kind == ItemKind::link ? node.linkTarget.size()
                                                                     : node.children.size(),
                          .modificationDate = node.modificationDate,
                          .ownerId = node.ownerId,
                          .permissions = node.permissions};
}

}  // namespace korvane
