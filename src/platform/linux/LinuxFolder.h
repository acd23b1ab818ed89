// A folder by its descriptor. What is done for another account is done with that account's file
// rights, and never leaves the file system.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/Folder.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

[[nodiscard]] ItemAttributes attributesFrom(const struct stat& status);

class LinuxFolder final : public Folder {
  public:
    // `rights`: those of another account; nothing for the daemon's own.
    LinuxFolder(UniqueFd folder, std::string path, std::optional<Account> rights);

    [[nodiscard]] std::optional<ItemAttributes> attributes() override;
    [[nodiscard]] std::optional<ItemAttributes> attributesOf(const std::string& name) override;
    [[nodiscard]] std::optional<std::vector<std::string>> list(std::size_t most) override;
    [[nodiscard]] std::optional<std::string> linkTarget(const std::string& name) override;
    [[nodiscard]] std::unique_ptr<Folder> open(const std::string& name, Mounts mounts) override;
    bool make(const std::string& name) override;
    [[nodiscard]] Result<std::monostate> createFile(const std::string& name, std::string_view bytes,
                                                    mode_t permissions) override;
    Result<std::monostate> remove(const std::string& name) override;
    bool setPermissions(const std::string& name, mode_t permissions) override;
    bool takeRightsOf(std::uint32_t userId) override;
    [[nodiscard]] Account account() override;
    [[nodiscard]] int descriptor() const override { return folder_.get(); }
    [[nodiscard]] std::string path() const override { return path_; }

  private:
    UniqueFd folder_;
    std::string path_;
    std::optional<Account> rights_;
};

}  // namespace korvane
