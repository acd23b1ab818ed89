#include "platform/simulated/SimulatedDirectoryWatch.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace korvane {

class SimulatedDirectoryWatch::Subscription final : public DirectorySubscription {
  public:
    Subscription(std::shared_ptr<std::multimap<std::string, Subscription*>> all,
                 const std::string& folder, std::function<void()> didChange)
        : all_(std::move(all)),
          place_(all_->emplace(folder, this)),
          didChange_(std::move(didChange)) {}
    ~Subscription() override { all_->erase(place_); }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    [[nodiscard]] const std::function<void()>& didChange() const { return didChange_; }
    bool isDue = false;

  private:
    std::shared_ptr<std::multimap<std::string, Subscription*>> all_;
    std::multimap<std::string, Subscription*>::iterator place_;
    std::function<void()> didChange_;
};

SimulatedDirectoryWatch::SimulatedDirectoryWatch(SimulatedClock& clock, SimulatedRunLoop& runLoop,
                                                 SimulatedFileSystem& fileSystem,
                                                 SimulatedVolumes& volumes)
    : clock_(clock),
      runLoop_(runLoop),
      fileSystem_(fileSystem),
      volumes_(volumes),
      subscriptions_(std::make_shared<std::multimap<std::string, Subscription*>>()) {}

SimulatedDirectoryWatch::~SimulatedDirectoryWatch() = default;

std::vector<std::string> SimulatedDirectoryWatch::trashFolders(const std::string& volumePath) {
    const bool isStartUp = volumePath == "/";
    const std::string parent = isStartUp ? "/Users" : volumePath + "/.Trashes";
    std::vector<std::string> folders;
    const auto names = fileSystem_.list(parent);
    if (!names) {
        return folders;
    }
    for (const std::string& name : *names) {
        if (name.starts_with('.') || (isStartUp && name == "Shared")) {
            continue;
        }
        std::string folder = parent;
        folder.append("/").append(name).append(isStartUp ? "/.Trash" : "");
        folders.push_back(std::move(folder));
    }
    std::sort(folders.begin(), folders.end());
    return folders;
}

// "VOLUME/.Trashes/NUMBER", or the owner of the home.
std::uint32_t SimulatedDirectoryWatch::userOf(const std::string& folder) {
    const std::size_t slash = folder.rfind('/');
    if (folder.substr(0, slash).ends_with("/.Trashes")) {
        return static_cast<std::uint32_t>(std::strtoul(folder.c_str() + slash + 1, nullptr, 10));
    }
    const auto home = fileSystem_.attributes(folder.substr(0, slash));
    return home ? home->ownerId : 0;
}

std::unique_ptr<DirectorySubscription> SimulatedDirectoryWatch::subscribe(
    const std::string& folder, std::function<void()> didChange) {
    if (refused_.contains(folder) || !fileSystem_.isFolder(folder)) {
        return nullptr;
    }
    isShortOfWatches_ = mostWatches_ && subscriptions_->size() >= *mostWatches_;
    if (isShortOfWatches_) {
        return nullptr;
    }
    return std::make_unique<Subscription>(subscriptions_, folder, std::move(didChange));
}

std::optional<std::vector<CatalogItem>> SimulatedDirectoryWatch::catalog(const std::string& folder,
                                                                         std::size_t mostItems) {
    clock_.advance(catalogDuration_);
    const auto names = fileSystem_.list(folder);
    if (!names) {
        return std::nullopt;
    }
    std::vector<CatalogItem> items;
    for (const std::string& name : *names) {
        if (items.size() == mostItems) {
            break;
        }
        items.push_back({name, fileSystem_.nodeId(fmt::format("{}/{}", folder, name)),
                         fileSystem_.nodeId(folder)});
    }
    return items;
}

std::size_t SimulatedDirectoryWatch::setBackupDates(const std::string& folder,
                                                    std::span<const CatalogItem> items, Time date) {
    return static_cast<std::size_t>(std::ranges::count_if(items, [&](const CatalogItem& item) {
        return fileSystem_.setBackupDate(folder + '/' + item.name, date);
    }));
}

std::vector<Recognized> SimulatedDirectoryWatch::recognize(std::int16_t volume,
                                                           const std::string& folder,
                                                           std::span<const CatalogItem> items) {
    std::vector<Recognized> recognized;
    for (const CatalogItem& item : items) {
        const auto known = remembered_.find({volume, item.nodeId});
        if (known == remembered_.end()) {
            recognized.emplace_back();
            continue;
        }
        const bool isSame = fileSystem_.serial(folder + '/' + item.name) == known->second.serial;
        recognized.push_back({isSame ? Identity::same : Identity::another, known->second.name});
    }
    return recognized;
}

void SimulatedDirectoryWatch::remember(std::int16_t volume, const std::string& folder,
                                       std::span<const CatalogItem> items) {
    for (const CatalogItem& item : items) {
        remembered_[{volume, item.nodeId}] = {item.name,
                                              fileSystem_.serial(folder + '/' + item.name)};
    }
}

void SimulatedDirectoryWatch::keepOnly(std::span<const ItemNumber> items) {
    const std::set<ItemNumber> kept(items.begin(), items.end());
    std::erase_if(remembered_, [&](const auto& each) { return !kept.contains(each.first); });
}

std::vector<ResolvedNode> SimulatedDirectoryWatch::resolve(std::span<const SeenItem> items) {
    std::vector<ResolvedNode> nodes;
    for (const SeenItem& item : items) {
        const auto volume = volumes_.volumeInfoByReferenceNumber(item.volume);
        if (isUndecided_ || volume.status != 0) {
            nodes.push_back({NodeState::unknown, ""});
            continue;
        }
        // The whole volume is looked through in no time here.
        const auto path = fileSystem_.pathOfNode(volume.value.root.rootPath, item.nodeId);
        const auto known = remembered_.find({item.volume, item.nodeId});
        const bool isThere = path && (known == remembered_.end() ||
                                      known->second.serial == fileSystem_.serial(*path));
        nodes.push_back(isThere ? ResolvedNode{NodeState::found, *path}
                                : ResolvedNode{NodeState::gone, ""});
    }
    return nodes;
}

void SimulatedDirectoryWatch::setDidFindOut(std::function<void()> callback) {
    didFindOut_ = std::move(callback);
}

void SimulatedDirectoryWatch::findOut() {
    isUndecided_ = false;
    runLoop_.post([this] {
        if (const auto callback = didFindOut_) {
            callback();
        }
    });
}

void SimulatedDirectoryWatch::changed(const std::string& folder) {
    const auto [first, last] = subscriptions_->equal_range(folder);
    for (auto each = first; each != last; ++each) {
        if (std::exchange(each->second->isDue, true)) {
            continue;
        }
        runLoop_.post([all = subscriptions_, folder, subscription = each->second] {
            const auto [from, to] = all->equal_range(folder);
            const auto still = std::find_if(
                from, to, [&](const auto& known) { return known.second == subscription; });
            if (still == to) {
                return;
            }
            subscription->isDue = false;
            // A copy, since it may end the subscription.
            const std::function<void()> didChange = subscription->didChange();
            didChange();
        });
    }
}

std::vector<std::string> SimulatedDirectoryWatch::subscribed() const {
    std::vector<std::string> folders;
    for (const auto& [folder, subscription] : *subscriptions_) {
        folders.push_back(folder);
    }
    return folders;
}

}  // namespace korvane
