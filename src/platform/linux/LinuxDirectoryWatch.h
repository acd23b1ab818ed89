// The trash folders of a Linux machine (freedesktop.org's Trash specification): one inotify queue
// for all of them, inode numbers, and for each item seen a file handle and the place it came from,
// kept in a file of the daemon's own. With nothing happening it costs nothing.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/PropertyListFile.h"
#include "platform/DirectoryWatch.h"
#include "platform/Volumes.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

class LinuxDirectoryWatch final : public DirectoryWatch {
  public:
    // `memoryFile`: the memory file of the volumes, beside which this one keeps its own; empty:
    // nothing outlives the process. Loop and volumes must outlive this object.
    LinuxDirectoryWatch(LinuxRunLoop& loop, Volumes& volumes, const std::string& memoryFile);
    ~LinuxDirectoryWatch() override;
    LinuxDirectoryWatch(const LinuxDirectoryWatch&) = delete;
    LinuxDirectoryWatch& operator=(const LinuxDirectoryWatch&) = delete;

    // Of "/": "/home/NAME/.local/share/Trash/files" and root's. Of others:
    // "VOLUME/.Trash-UID/files" and "VOLUME/.Trash/UID/files", for every such folder that is there
    // and for the users who have a home.
    [[nodiscard]] std::vector<std::string> trashFolders(const std::string& volumePath) override;
    // Waits for a folder that is not there, and for one that went to come back.
    [[nodiscard]] std::unique_ptr<DirectorySubscription> subscribe(
        const std::string& folder, std::function<void()> didChange) override;
    [[nodiscard]] std::optional<std::vector<CatalogItem>> catalog(const std::string& folder,
                                                                  std::size_t mostItems) override;
    // In the extended attribute "user.korvane.backup-date", seconds since 1970 as text.
    bool setBackupDate(const std::string& folder, const CatalogItem& item, Time date) override;
    void remember(std::int16_t volume, const std::string& folder,
                  std::span<const CatalogItem> items) override;
    // Looks where the item was seen, where it came from, and where its file handle leads. An item
    // that has moved where none of these leads is unknown.
    [[nodiscard]] ResolvedNode resolve(const SeenItem& item) override;

  private:
    class Subscription;

    static int onEvents(sd_event_source* source, int fd, std::uint32_t events, void* self) noexcept;
    void readEvents();
    [[nodiscard]] bool watch(Subscription& subscription);
    void unwatch(Subscription& subscription);
    [[nodiscard]] std::optional<ResolvedNode> throughHandle(const Dictionary& trace,
                                                            const std::string& root,
                                                            std::uint64_t nodeId);
    [[nodiscard]] Dictionary& traces();
    void saveTraces();

    LinuxRunLoop& loop_;
    Volumes& volumes_;
    std::string tracesFile_;
    PropertyListFiles propertyLists_;
    std::optional<Dictionary> traces_;  // by volume and node; read when first needed
    UniqueFd inotify_;
    EventSource source_;
    // In the order of subscribing; a number is never used again.
    std::map<std::uint64_t, Subscription*> subscriptions_;
    std::uint64_t nextSubscription_ = 0;
};

}  // namespace korvane
