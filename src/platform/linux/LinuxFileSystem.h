// Files and folders by POSIX calls, below an optional root folder so that tests can have a tree of
// their own. A path that is not absolute names nothing. Listing and removing stay on the file
// system that they began on: what is mounted further down is left alone, its mount point too.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/PropertyListFile.h"
#include "platform/FileSystem.h"

namespace korvane {

class LinuxFileSystem final : public FileSystem {
  public:
    explicit LinuxFileSystem(std::string rootFolder = "");

    [[nodiscard]] bool exists(const std::string& path) override;
    [[nodiscard]] bool isFolder(const std::string& path) override;
    [[nodiscard]] std::optional<std::vector<std::string>> list(const std::string& path) override;
    [[nodiscard]] std::vector<std::string> enumerate(const std::string& path) override;
    [[nodiscard]] std::optional<ItemAttributes> attributes(const std::string& path) override;
    [[nodiscard]] std::unique_ptr<Folder> openRoot() override;
    bool createFolders(const std::string& path, const std::string& ownerName) override;
    bool createEmptyFile(const std::string& path, mode_t permissions) override;
    Result<std::monostate> remove(const std::string& path) override;
    bool setPermissions(const std::string& path, mode_t permissions) override;
    [[nodiscard]] Result<PropertyList> readPropertyList(const std::string& path) override;
    [[nodiscard]] Result<std::monostate> writePropertyList(const std::string& path,
                                                           const PropertyList& value,
                                                           mode_t permissions,
                                                           Durability durability) override;
    [[nodiscard]] Result<std::monostate> changePropertyList(
        const std::string& path, const std::function<bool(PropertyList&)>& edit, mode_t permissions,
        Durability durability) override;
    [[nodiscard]] Result<std::string> readFile(const std::string& path, Writers writers) override;
    [[nodiscard]] Result<std::monostate> writeFile(const std::string& path, std::string_view bytes,
                                                   mode_t permissions) override;
    [[nodiscard]] Result<std::monostate> appendRecords(const std::string& path,
                                                       std::string_view records,
                                                       std::size_t recordBytes,
                                                       mode_t permissions) override;
    bool rename(const std::string& path, const std::string& newPath) override;
    [[nodiscard]] std::string userName() override;
    [[nodiscard]] std::uint32_t userId() override;

  private:
    // Where the path lies below the root folder; empty, which no call opens, when it is relative.
    [[nodiscard]] std::string located(const std::string& path) const;

    std::string rootFolder_;
    PropertyListFiles propertyLists_;
};

}  // namespace korvane
