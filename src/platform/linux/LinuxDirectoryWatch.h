// The trash folders of a Linux machine (freedesktop.org's Trash layout): one inotify queue
// for all of them and one for the folders above, and inode numbers. An item that has left is looked
// for where it was seen, where its trash says that it came from, where its file handle leads, and
// then by a search of its volume. No link is followed on the way to a trash folder. With nothing
// happening it costs nothing.
#pragma once

#include <sys/inotify.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/DirectoryWatch.h"
#include "platform/Volumes.h"
#include "platform/linux/FillingFolders.h"
#include "platform/linux/ItemTraces.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/UniqueFd.h"
#include "platform/linux/VolumeSearch.h"

namespace korvane {

// Where things are on the machine; tests look elsewhere.
struct LinuxTrashPlaces {
    std::string tracesFile{};  // for ItemTraces; empty: nothing outlives the process
    std::string homes = "/home";
    std::string rootHome = "/root";
    // Long enough for millions of files on a disk at work, short enough to be over when somebody
    // looks at the outcome.
    std::chrono::milliseconds searchLimit = std::chrono::seconds(30);
    std::chrono::milliseconds fillingPause = FillingFolders::kPause;
};

class LinuxDirectoryWatch final : public DirectoryWatch {
  public:
    // Loop and volumes must outlive this object.
    LinuxDirectoryWatch(LinuxRunLoop& loop, Volumes& volumes, LinuxTrashPlaces places);
    ~LinuxDirectoryWatch() override;
    LinuxDirectoryWatch(const LinuxDirectoryWatch&) = delete;
    LinuxDirectoryWatch& operator=(const LinuxDirectoryWatch&) = delete;

    // Of "/": "/home/NAME/.local/share/Trash/files" and root's. Of others:
    // "VOLUME/.Trash-UID/files" and "VOLUME/.Trash/UID/files", for every such folder that is there
    // and that user's, and for the users who have a home. Homes on network file systems are left
    // out.
    [[nodiscard]] std::vector<std::string> trashFolders(const std::string& volumePath) override;
    // By its name on a volume; of a home, the home's owner.
    [[nodiscard]] std::uint32_t userOf(const std::string& folder) override;
    // Waits for a folder that is not there, and for one that went to come back. A subscription in
    // the place of one that ended since the loop last turned misses nothing.
    [[nodiscard]] std::unique_ptr<DirectorySubscription> subscribe(
        const std::string& folder, std::function<void()> didChange) override;
    // Of inotify instances and watches each user of the machine has a limited number.
    [[nodiscard]] bool isShortOfWatches() override { return isShortOfWatches_; }
    [[nodiscard]] std::optional<std::vector<CatalogItem>> catalog(const std::string& folder,
                                                                  std::size_t mostItems) override;
    // In the extended attribute "user.korvane.backup-date", seconds since 1970 as text.
    std::size_t setBackupDates(const std::string& folder, std::span<const CatalogItem> items,
                               Time date) override;
    [[nodiscard]] std::vector<Recognized> recognize(std::int16_t volume, const std::string& folder,
                                                    std::span<const CatalogItem> items) override;
    void remember(std::int16_t volume, const std::string& folder,
                  std::span<const CatalogItem> items) override;
    void keepOnly(std::span<const ItemNumber> items) override;
    [[nodiscard]] std::vector<ResolvedNode> resolve(std::span<const SeenItem> items) override;
    void setDidFindOut(std::function<void()> callback) override;

  private:
    class Subscription;
    struct Folders;
    struct Sought;

    // Events of the kernel about some folders.
    struct Queue {
        UniqueFd inotify{};
        EventSource source{};
        // Watches of the kernel that no subscription has, until the loop turns: what has happened
        // to their folders is still told to whoever subscribes again by then.
        std::set<int> unused{};

        [[nodiscard]] bool open(LinuxRunLoop& loop, sd_event_io_handler_t handler,
                                LinuxDirectoryWatch* watch);
        [[nodiscard]] int add(const UniqueFd& folder, std::uint32_t events);
        template <typename Take>
        void read(Take&& take) const;
    };

    [[nodiscard]] std::vector<std::string> homes();
    static int onItemEvents(sd_event_source* source, int fd, std::uint32_t events,
                            void* self) noexcept;
    static int onMoves(sd_event_source* source, int fd, std::uint32_t events, void* self) noexcept;
    void takeItemEvent(const inotify_event& event);
    void takeMove(const inotify_event& event);
    void didFill(const std::string& folder);
    [[nodiscard]] bool isWaitedFor(const std::string& folder) const;
    void tellOfChanges();
    [[nodiscard]] bool watch(Subscription& subscription);
    [[nodiscard]] bool watchNearest(Subscription& subscription);
    [[nodiscard]] int addWatch(const UniqueFd& folder, std::uint32_t events);
    void unwatch(Subscription& subscription);
    void removeUnusedWatches();

    [[nodiscard]] ResolvedNode resolveOne(const SeenItem& item, Folders& folders, Sought& sought);
    void startSearch(Sought sought);
    void didSearch(const VolumeSearch::Finding& finding);

    LinuxRunLoop& loop_;
    Volumes& volumes_;
    LinuxTrashPlaces places_;
    Queue items_;  // about what lies in trash folders, and about what is waited for
    Queue above_;  // about the folders above those
    // In the order of subscribing; a number is never used again.
    std::map<std::uint64_t, Subscription*> subscriptions_;
    std::uint64_t nextSubscription_ = 0;
    bool isShortOfWatches_ = false;

    FillingFolders filling_;

    ItemTraces traces_;
    std::function<void()> didFindOut_;
    // What the search that was told of has found of each of its items, until it is asked for.
    std::map<ItemNumber, ResolvedNode> foundOut_;
    std::unique_ptr<Sought> sought_;
    std::unique_ptr<VolumeSearch> search_;
    std::shared_ptr<char> alive_;  // posted callbacks ask whether this object is still there
};

}  // namespace korvane
