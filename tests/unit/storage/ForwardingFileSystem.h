// A file system that hands everything on to another one and counts what it was asked. Tests derive
// from it to make single operations fail.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/FileSystem.h"

namespace korvane {

class ForwardingFileSystem : public FileSystem {
  public:
    explicit ForwardingFileSystem(FileSystem& target) : target_(target) {}

    // Calls so far that lead to the disk: names and accounts are known without it.
    [[nodiscard]] int calls() const { return calls_; }
    void forgetCalls() { calls_ = 0; }

    bool exists(const std::string& path) override { return counted().exists(path); }
    bool isFolder(const std::string& path) override { return counted().isFolder(path); }
    std::optional<std::vector<std::string>> list(const std::string& path) override {
        return counted().list(path);
    }
    std::vector<std::string> enumerate(const std::string& path) override {
        return counted().enumerate(path);
    }
    std::optional<ItemAttributes> attributes(const std::string& path) override {
        return counted().attributes(path);
    }
    std::unique_ptr<Folder> openRoot() override { return counted().openRoot(); }
    bool createFolders(const std::string& path, const std::string& ownerName) override {
        return counted().createFolders(path, ownerName);
    }
    bool createEmptyFile(const std::string& path, mode_t permissions) override {
        return counted().createEmptyFile(path, permissions);
    }
    Result<std::monostate> remove(const std::string& path) override {
        return counted().remove(path);
    }
    bool setPermissions(const std::string& path, mode_t permissions) override {
        return counted().setPermissions(path, permissions);
    }
    Result<PropertyList> readPropertyList(const std::string& path) override {
        return counted().readPropertyList(path);
    }
    Result<std::monostate> writePropertyList(const std::string& path, const PropertyList& value,
                                             mode_t permissions, Durability durability) override {
        return counted().writePropertyList(path, value, permissions, durability);
    }
    Result<std::monostate> changePropertyList(const std::string& path,
                                              const std::function<bool(PropertyList&)>& edit,
                                              mode_t permissions, Durability durability) override {
        return counted().changePropertyList(path, edit, permissions, durability);
    }
    Result<std::string> readFile(const std::string& path, Writers writers) override {
        return counted().readFile(path, writers);
    }
    Result<std::monostate> writeFile(const std::string& path, std::string_view bytes,
                                     mode_t permissions) override {
        return counted().writeFile(path, bytes, permissions);
    }
    Result<std::monostate> appendRecords(const std::string& path, std::string_view records,
                                         std::size_t recordBytes, mode_t permissions) override {
        return counted().appendRecords(path, records, recordBytes, permissions);
    }
    bool rename(const std::string& path, const std::string& newPath) override {
        return counted().rename(path, newPath);
    }
    std::string userName() override { return target_.userName(); }
    std::uint32_t userId() override { return target_.userId(); }

  private:
    FileSystem& counted() {
        ++calls_;
        return target_;
    }

    FileSystem& target_;
    int calls_ = 0;
};

}  // namespace korvane
