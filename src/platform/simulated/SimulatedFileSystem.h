// Files and folders in memory: owners, permissions, dates, links and mounted volumes. Property
// lists go through the real codec, but only when bytes are put or looked at. Faults are set by the
// test: a write that fails, a folder or volume that is full or read-only, a kill while writing.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/simulated/SimulatedClock.h"
#include "platform/simulated/SimulatedJournal.h"
#include "platform/simulated/SimulatedNode.h"

namespace korvane {

// Thrown out of a write by killAtNextWrite(): the process is gone. Nothing but a test catches it.
struct SimulatedKill {};

// How far a killed write had come: the steps of PropertyListFile.cpp.
enum class KillMoment {
    beforeWriting,  // nothing is written
    partCut,        // half of the new contents are in the part file, the old ones stand
    siblingWhole,   // the sibling holds the new contents, the old ones stand
    fileTorn,       // the sibling holds the new contents, the file begins with NUL
    written         // the new contents stand, the sibling is still there
};

class SimulatedFileSystem final : public FileSystem {
  public:
    // `accounts` gives the number of each login name; the daemon runs as `userName`.
    SimulatedFileSystem(SimulatedClock& clock, SimulatedJournal& journal, std::uint64_t seed,
                        std::string userName, std::map<std::string, std::uint32_t> accounts);
    ~SimulatedFileSystem() override;

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

    // What other programs do. They make the folders above as they need them and return whether the
    // machine let them. A file that is there keeps its permissions unless others are named.
    bool put(const std::string& path, std::string bytes,
             std::optional<mode_t> permissions = std::nullopt);
    bool putLink(const std::string& path, const std::string& target);
    bool removeItem(const std::string& path);
    bool setModificationDate(const std::string& path, Time date);
    bool setOwner(const std::string& path, std::uint32_t ownerId);
    // The bytes of a file, links followed.
    [[nodiscard]] std::optional<std::string> bytes(const std::string& path);
    // Every path there is, sorted, folders with a closing "/".
    [[nodiscard]] std::vector<std::string> paths();

    // The item's number, 0 where there is none; what tells it from others that had its number;
    // another number for it, which an item of another volume may have as well, or one that is gone
    // may have had; its path by its number; and when it was stamped.
    [[nodiscard]] std::uint64_t nodeId(const std::string& path);
    [[nodiscard]] std::uint64_t serial(const std::string& path);
    void setNodeId(const std::string& path, std::uint64_t nodeId);
    [[nodiscard]] std::optional<std::string> pathOfNode(const std::string& volumePath,
                                                        std::uint64_t nodeId);
    bool setBackupDate(const std::string& path, Time date);
    [[nodiscard]] std::optional<Time> backupDate(const std::string& path);

    // Volumes: the tree on `volume` covers the folder at `path` (made if need be) from here on.
    void attach(const std::string& path, const std::string& volume);
    void detach(const std::string& path);
    void setFull(const std::string& volume, bool isFull);
    void setReadOnly(const std::string& volume, bool isReadOnly);

    // Faults.
    void failNextWrites(int count);
    void killAtNextWrite(KillMoment moment);
    void setFolderImmutable(const std::string& path, bool isImmutable);
    // As on a volume that takes letters of either case for the same name.
    void setUnlisted(const std::string& path);
    void setFolderUnreadable(const std::string& path, bool isUnreadable);
    // Reading this file's contents fails, as for want of descriptors; "" for none.
    void setUnreadableFile(const std::string& path) { unreadableFile_ = path; }

    // How many property lists were written to the path so far.
    [[nodiscard]] std::uint64_t writeCount(const std::string& path) const;

  private:
    class OpenFolder;
    // Where a path leads: its folder and, when there is one, the item.
    struct Place {
        SimulatedNode* folder = nullptr;
        SimulatedTree* tree = nullptr;
        std::string_view name;          // a part of the path asked for; empty for the root of all
        SimulatedNode* node = nullptr;  // null when nothing is there
        bool isMountPoint = false;      // the node is the root of a mounted volume
    };
    enum class LastLink { followed, kept };

    [[nodiscard]] static ItemAttributes attributesFrom(const SimulatedNode& node);
    std::optional<Place> find(std::string_view path, LastLink lastLink);
    std::optional<Place> findStepwise(std::string_view path, LastLink lastLink);
    [[nodiscard]] Place step(const Place& from, std::string_view name) const;
    SimulatedNode* folderAt(const std::string& path);
    SimulatedTree& treeOf(const std::string& volume);
    SimulatedNode& add(SimulatedNode& folder, std::string_view name, ItemKind kind,
                       mode_t permissions);
    void enumerateInto(SimulatedNode& folder, const std::string& prefix,
                       std::vector<std::string>& paths);
    void pathsInto(SimulatedNode& folder, const std::string& prefix,
                   std::vector<std::string>& paths);
    bool removeTree(SimulatedNode& folder, const SimulatedName& name);
    [[nodiscard]] std::optional<Error> refusal(const Place& place, bool needsSpace);
    void store(Place& place, const PropertyList& value, mode_t permissions);
    // The copy that stays beside a property list, where it is due; whether the write is synced.
    bool keepCopy(const Place& place, const std::string& path, const PropertyList& value,
                  Durability durability);
    void dropSibling(const Place& place, const std::string& path);
    void killDuring(Place& place, const std::string& path, const PropertyList& value,
                    mode_t permissions);
    void putBytes(SimulatedNode& folder, std::string_view name, std::string bytes,
                  std::optional<mode_t> permissions);

    SimulatedClock& clock_;
    SimulatedJournal& journal_;
    std::uint64_t seed_;
    std::string userName_;
    std::map<std::string, std::uint32_t> accounts_;
    std::map<std::string, std::unique_ptr<SimulatedTree>> trees_;
    SimulatedTree* rootTree_;
    std::unordered_map<std::string, std::uint64_t> writeCounts_;
    int failingWrites_ = 0;
    std::string unreadableFile_;
    std::optional<KillMoment> kill_;
    // Volumes number their items from 16 on as the File Manager does; here all from one row.
    std::uint64_t nextNodeId_ = 16;
};

}  // namespace korvane
