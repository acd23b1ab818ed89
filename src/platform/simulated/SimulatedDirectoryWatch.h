// Trash folders in memory, under the names that the daemon's own world has for them. A change is
// told when the test says that one has happened.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "platform/DirectoryWatch.h"
#include "platform/simulated/SimulatedClock.h"
#include "platform/simulated/SimulatedFileSystem.h"
#include "platform/simulated/SimulatedRunLoop.h"
#include "platform/simulated/SimulatedVolumes.h"

namespace korvane {

class SimulatedDirectoryWatch final : public DirectoryWatch {
  public:
    SimulatedDirectoryWatch(SimulatedClock& clock, SimulatedRunLoop& runLoop,
                            SimulatedFileSystem& fileSystem, SimulatedVolumes& volumes);
    ~SimulatedDirectoryWatch() override;

    [[nodiscard]] std::vector<std::string> trashFolders(const std::string& volumePath) override;
    [[nodiscard]] std::uint32_t userOf(const std::string& folder) override;
    [[nodiscard]] std::unique_ptr<DirectorySubscription> subscribe(
        const std::string& folder, std::function<void()> didChange) override;
    [[nodiscard]] bool isShortOfWatches() override { return isShortOfWatches_; }
    [[nodiscard]] std::optional<std::vector<CatalogItem>> catalog(const std::string& folder,
                                                                  std::size_t mostItems) override;
    std::size_t setBackupDates(const std::string& folder, std::span<const CatalogItem> items,
                               Time date) override;
    [[nodiscard]] std::vector<Recognized> recognize(std::int16_t volume, const std::string& folder,
                                                    std::span<const CatalogItem> items) override;
    void remember(std::int16_t volume, const std::string& folder,
                  std::span<const CatalogItem> items) override;
    void keepOnly(std::span<const ItemNumber> items) override;
    [[nodiscard]] std::vector<ResolvedNode> resolve(std::span<const SeenItem> items) override;
    void setDidFindOut(std::function<void()> callback) override;

    // Something in the folder has changed: its subscribers are told at the next pass of the loop.
    void changed(const std::string& folder);
    // The folders that are subscribed to, sorted.
    [[nodiscard]] std::vector<std::string> subscribed() const;
    // Subscribing to this folder fails from now on.
    void refuse(const std::string& folder) { refused_.insert(folder); }
    // There are no more watches than this, or as many as anybody wants.
    void setMostWatches(std::optional<std::size_t> count) { mostWatches_ = count; }
    // Each catalogue takes so long, and nothing else happens meanwhile.
    void setCatalogDuration(std::chrono::microseconds duration) { catalogDuration_ = duration; }
    // Items are neither found nor known to be gone while this holds.
    void setUndecided(bool isUndecided) { isUndecided_ = isUndecided; }
    // A search ends that has found out about all of them: that is told at the next pass of the
    // loop.
    void findOut();

  private:
    class Subscription;

    SimulatedClock& clock_;
    SimulatedRunLoop& runLoop_;
    SimulatedFileSystem& fileSystem_;
    SimulatedVolumes& volumes_;
    struct Remembered {
        std::string name;
        std::uint64_t serial = 0;
    };

    std::set<std::string> refused_;
    std::optional<std::size_t> mostWatches_;
    bool isShortOfWatches_ = false;
    std::chrono::microseconds catalogDuration_{0};
    std::map<ItemNumber, Remembered> remembered_;
    bool isUndecided_ = false;
    std::function<void()> didFindOut_;
    // Held by subscriptions too: they may outlive this machine's part.
    std::shared_ptr<std::multimap<std::string, Subscription*>> subscriptions_;
};

}  // namespace korvane
