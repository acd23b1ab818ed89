#include "platform/simulated/SimulatedFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <utility>

#include "base/PropertyListCodec.h"

namespace korvane {

namespace {

// The kernel gives up after as many links (ELOOP).
constexpr int kLinkLimit = 40;
// What mkdir and open make with the usual umask of 022.
constexpr mode_t kFolderPermissions = 0755;
constexpr mode_t kNewFilePermissions = 0644;
constexpr char kRootVolume[] = "/";
// What the name of a sibling ends in while it is being written.
constexpr char kPartSuffix[] = ".part";
// How old the copy beside a file may be, and who may use it.
constexpr std::chrono::hours kLongestUnsynced{1};
constexpr mode_t kCopyPermissions = 0600;

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string siblingNameOf(const std::string& path) { return nameOf(savingSiblingOf(path)); }

// The components of a path, empty ones left out.
std::deque<std::string_view> componentsOf(std::string_view path) {
    std::deque<std::string_view> components;
    std::size_t start = 0;
    while (start < path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (end > start) {
            components.emplace_back(path.substr(start, end - start));
        }
        start = end + 1;
    }
    return components;
}

// A link named with a slash behind it is still the link.
std::string_view withoutTrailingSlashes(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    return path;
}

}  // namespace

SimulatedFileSystem::SimulatedFileSystem(SimulatedClock& clock, SimulatedJournal& journal,
                                         std::uint64_t seed, std::string userName,
                                         std::map<std::string, std::uint32_t> accounts)
    : clock_(clock),
      journal_(journal),
      seed_(seed),
      userName_(std::move(userName)),
      accounts_(std::move(accounts)),
      rootTree_(&treeOf(kRootVolume)) {}

SimulatedFileSystem::~SimulatedFileSystem() = default;

bool SimulatedFileSystem::exists(const std::string& path) {
    const std::optional<Place> place = find(path, LastLink::followed);
    return place && place->node;
}

bool SimulatedFileSystem::isFolder(const std::string& path) { return folderAt(path) != nullptr; }

std::optional<std::vector<std::string>> SimulatedFileSystem::list(const std::string& path) {
    const std::optional<Place> place = find(path, LastLink::followed);
    if (!place || !place->node || place->node->kind != ItemKind::folder ||
        place->node->isUnreadable) {
        return std::nullopt;
    }
    std::vector<std::string> names;
    names.reserve(place->node->children.size());
    for (const auto& [key, child] : place->node->children) {
        if (!child->isUnlisted) names.push_back(key.name);
    }
    return names;
}

std::vector<std::string> SimulatedFileSystem::enumerate(const std::string& path) {
    std::vector<std::string> paths;
    const std::optional<Place> place = find(path, LastLink::followed);
    if (place && place->node && place->node->kind == ItemKind::folder) {
        enumerateInto(*place->node, "", paths);
    }
    return paths;
}

std::optional<ItemAttributes> SimulatedFileSystem::attributes(const std::string& path) {
    const std::optional<Place> place = find(withoutTrailingSlashes(path), LastLink::kept);
    if (!place || !place->node) {
        return std::nullopt;
    }
    return attributesFrom(*place->node);
}

bool SimulatedFileSystem::createFolders(const std::string& path, const std::string& ownerName) {
    std::string reached;
    for (const std::string_view component : componentsOf(path)) {
        reached += '/';
        reached += component;
        if (isFolder(reached)) {
            continue;
        }
        // Anything else in the way, a link to nowhere too, stays.
        const std::optional<Place> place = find(reached, LastLink::kept);
        if (!place || place->node || refusal(*place, true)) {
            return false;
        }
        SimulatedNode& made =
            add(*place->folder, place->name, ItemKind::folder, kFolderPermissions);
        const auto account = accounts_.find(ownerName);
        if (account != accounts_.end()) {
            made.ownerId = account->second;
        }
        journal_.note("folder", reached);
    }
    return isFolder(path);
}

bool SimulatedFileSystem::createEmptyFile(const std::string& path, mode_t permissions) {
    const std::optional<Place> place = find(path, LastLink::kept);
    if (!place || place->name.empty() || (place->node && place->node->kind != ItemKind::file) ||
        refusal(*place, place->node == nullptr)) {
        return false;
    }
    putBytes(*place->folder, place->name, "", permissions);
    journal_.note("empty file", path);
    return true;
}

Result<std::monostate> SimulatedFileSystem::remove(const std::string& path) {
    const std::optional<Place> place = find(withoutTrailingSlashes(path), LastLink::kept);
    if (!place || !place->node) {
        return Error{path + ": no such file or folder"};
    }
    if (place->isMountPoint || place->name.empty()) {
        return Error{path + ": device or resource busy"};
    }
    if (const std::optional<Error> error = refusal(*place, false)) {
        return *error;
    }
    journal_.note("remove", path);
    if (!removeTree(*place->folder, SimulatedName(seed_, place->name))) {
        return Error{path + ": some of its contents could not be removed"};
    }
    return std::monostate{};
}

bool SimulatedFileSystem::setPermissions(const std::string& path, mode_t permissions) {
    const std::optional<Place> place = find(path, LastLink::kept);
    if (!place || !place->node || place->node->kind == ItemKind::link || place->tree->isReadOnly) {
        return false;
    }
    place->node->permissions = permissions;
    return true;
}

Result<PropertyList> SimulatedFileSystem::readPropertyList(const std::string& path) {
    const std::optional<Place> place = find(path, LastLink::kept);
    if (!place || !place->node) {
        return Error{path + ": no such file or folder"};
    }
    if (place->node->kind != ItemKind::file) {
        return Error{path + ": not a regular file"};
    }
    if (path == unreadableFile_) {
        return Error{path + ": no more files", EMFILE};
    }
    Result<PropertyList> value = place->node->contents.value();
    if (value) {
        return value;
    }
    // A write that was cut off left its whole text beside the file.
    const std::string& torn = place->node->contents.bytes();
    const bool isTornByKill =
        torn.starts_with('\0') && !torn.starts_with(std::string_view("\0\0", 2));
    for (const std::string& copy : {savingSiblingOf(path), keptCopyOf(path)}) {
        const std::optional<Place> saved = find(copy, LastLink::kept);
        if (copy == keptCopyOf(path) && !isTornByKill) break;
        if (!saved || !saved->node || saved->node->kind != ItemKind::file) continue;
        Result<PropertyList> restored = saved->node->contents.value();
        if (!restored) continue;
        place->node->contents.setValue(*restored);
        place->folder->children.erase(SimulatedName(seed_, siblingNameOf(path)));
        journal_.note("restore", path);
        return restored;
    }
    return Error{path + ": " + value.error().message};
}

Result<std::monostate> SimulatedFileSystem::writePropertyList(const std::string& path,
                                                              const PropertyList& value,
                                                              mode_t permissions,
                                                              Durability durability) {
    std::optional<Place> place = find(path, LastLink::kept);
    if (!place || place->name.empty()) {
        return Error{path + ": no such file or folder"};
    }
    if (place->node && place->node->kind != ItemKind::file) {
        return Error{path + ": not a regular file"};
    }
    if (const std::optional<Error> error = refusal(*place, true)) {
        journal_.note("write refused", path);
        return *error;
    }
    if (failingWrites_ > 0) {
        --failingWrites_;
        journal_.note("write failed", path);
        return Error{path + ": input or output error"};
    }
    if (kill_) {
        killDuring(*place, path, value, permissions);
    }
    const bool isSynced = keepCopy(*place, path, value, durability);
    store(*place, value, permissions);
    dropSibling(*place, path);
    ++writeCounts_[path];
    journal_.note(isSynced ? "write and sync" : "write", path);
    return std::monostate{};
}

std::string SimulatedFileSystem::userName() { return userName_; }

std::uint32_t SimulatedFileSystem::userId() {
    const auto account = accounts_.find(userName_);
    return account == accounts_.end() ? 0 : account->second;
}

bool SimulatedFileSystem::put(const std::string& path, std::string bytes,
                              std::optional<mode_t> permissions) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos || !createFolders(path.substr(0, slash + 1), userName_)) {
        return false;
    }
    const std::optional<Place> place = find(path, LastLink::followed);
    if (!place || place->name.empty() || (place->node && place->node->kind != ItemKind::file)) {
        return false;
    }
    putBytes(*place->folder, place->name, std::move(bytes), permissions);
    journal_.note("put", path);
    return true;
}

bool SimulatedFileSystem::putLink(const std::string& path, const std::string& target) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos || !createFolders(path.substr(0, slash + 1), userName_)) {
        return false;
    }
    const std::optional<Place> place = find(path, LastLink::kept);
    if (!place || place->name.empty() || place->node) {
        return false;
    }
    add(*place->folder, place->name, ItemKind::link, 0777).linkTarget = target;
    journal_.note("link", path);
    return true;
}

bool SimulatedFileSystem::removeItem(const std::string& path) {
    return static_cast<bool>(remove(path));
}

std::optional<std::string> SimulatedFileSystem::bytes(const std::string& path) {
    const std::optional<Place> place = find(path, LastLink::followed);
    if (!place || !place->node || place->node->kind != ItemKind::file) {
        return std::nullopt;
    }
    return place->node->contents.bytes();
}

std::vector<std::string> SimulatedFileSystem::paths() {
    std::vector<std::string> paths;
    pathsInto(*rootTree_->root, "/", paths);
    std::sort(paths.begin(), paths.end());
    return paths;
}

bool SimulatedFileSystem::setModificationDate(const std::string& path, Time date) {
    const std::optional<Place> place = find(path, LastLink::kept);
    if (!place || !place->node) return false;
    place->node->modificationDate = date;
    return true;
}

bool SimulatedFileSystem::setOwner(const std::string& path, std::uint32_t ownerId) {
    const std::optional<Place> place = find(path, LastLink::kept);
    if (!place || !place->node) return false;
    place->node->ownerId = ownerId;
    return true;
}

void SimulatedFileSystem::attach(const std::string& path, const std::string& volume) {
    if (componentsOf(path).empty()) {
        // The start-up volume is the tree that everything hangs on.
        if (rootTree_ != &treeOf(volume)) {
            auto node = trees_.extract(kRootVolume);
            trees_.erase(volume);
            node.key() = volume;
            trees_.insert(std::move(node));
        }
        return;
    }
    (void)createFolders(path, userName_);  // the attachment below shows whether it is there
    const std::optional<Place> place = find(path, LastLink::followed);
    if (place && place->node && place->node->kind == ItemKind::folder) {
        SimulatedNode& covered = *place->folder->children.at(SimulatedName(seed_, place->name));
        covered.mounted = &treeOf(volume);
    }
}

void SimulatedFileSystem::detach(const std::string& path) {
    const std::optional<Place> place = find(path, LastLink::followed);
    if (place && place->isMountPoint) {
        place->folder->children.at(SimulatedName(seed_, place->name))->mounted = nullptr;
    }
}

void SimulatedFileSystem::setFull(const std::string& volume, bool isFull) {
    treeOf(volume).isFull = isFull;
}

void SimulatedFileSystem::setReadOnly(const std::string& volume, bool isReadOnly) {
    treeOf(volume).isReadOnly = isReadOnly;
}

void SimulatedFileSystem::failNextWrites(int count) { failingWrites_ = count; }

void SimulatedFileSystem::killAtNextWrite(KillMoment moment) { kill_ = moment; }

void SimulatedFileSystem::setFolderImmutable(const std::string& path, bool isImmutable) {
    if (SimulatedNode* folder = folderAt(path)) {
        folder->isImmutable = isImmutable;
    }
}

void SimulatedFileSystem::setUnlisted(const std::string& path) {
    const std::optional<Place> place = find(path, LastLink::kept);
    if (place && place->node) place->node->isUnlisted = true;
}

void SimulatedFileSystem::setFolderUnreadable(const std::string& path, bool isUnreadable) {
    if (SimulatedNode* folder = folderAt(path)) {
        folder->isUnreadable = isUnreadable;
    }
}

std::uint64_t SimulatedFileSystem::writeCount(const std::string& path) const {
    const auto count = writeCounts_.find(path);
    return count == writeCounts_.end() ? 0 : count->second;
}

// The common way: nothing but folders down to the item.
std::optional<SimulatedFileSystem::Place> SimulatedFileSystem::find(std::string_view path,
                                                                    LastLink lastLink) {
    if (path.empty() || path.front() != '/') {
        return std::nullopt;
    }
    Place at{rootTree_->root.get(), rootTree_, "", rootTree_->root.get(), true};
    std::size_t start = 0;
    while ((start = path.find_first_not_of('/', start)) != std::string_view::npos) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string_view name = path.substr(start, end - start);
        start = end;
        if (!at.node || at.node->kind != ItemKind::folder) {
            return std::nullopt;
        }
        if (name == "." || name == "..") {
            return findStepwise(path, lastLink);
        }
        at = step(at, name);
        if (at.node && at.node->kind == ItemKind::link &&
            (end < path.size() || lastLink == LastLink::followed)) {
            return findStepwise(path, lastLink);
        }
    }
    if (path.back() == '/' && at.node && at.node->kind != ItemKind::folder) {
        return std::nullopt;
    }
    return at;
}

// Walks the components with the folders passed on a stack, so that ".." and links lead where they
// lead on a real system.
std::optional<SimulatedFileSystem::Place> SimulatedFileSystem::findStepwise(std::string_view path,
                                                                            LastLink lastLink) {
    const bool mustBeFolder = path.size() > 1 && path.back() == '/';
    std::deque<std::string_view> ahead = componentsOf(path);
    std::vector<Place> passed;
    passed.push_back({rootTree_->root.get(), rootTree_, "", rootTree_->root.get(), true});
    int links = 0;
    while (!ahead.empty()) {
        const Place& current = passed.back();
        if (!current.node || current.node->kind != ItemKind::folder) {
            return std::nullopt;
        }
        const std::string_view name = ahead.front();
        ahead.pop_front();
        if (name == ".") {
            continue;
        }
        if (name == "..") {
            if (passed.size() > 1) {
                passed.pop_back();
            }
            continue;
        }
        const Place next = step(current, name);
        const bool isLast = ahead.empty() && !mustBeFolder;
        if (next.node && next.node->kind == ItemKind::link &&
            (!isLast || lastLink == LastLink::followed)) {
            if (++links > kLinkLimit) {
                return std::nullopt;
            }
            if (next.node->linkTarget.starts_with('/')) {
                passed.resize(1);
            }
            const std::deque<std::string_view> target = componentsOf(next.node->linkTarget);
            ahead.insert(ahead.begin(), target.begin(), target.end());
            continue;
        }
        passed.push_back(next);
    }
    const Place& reached = passed.back();
    if (mustBeFolder && reached.node && reached.node->kind != ItemKind::folder) {
        return std::nullopt;
    }
    return reached;
}

SimulatedFileSystem::Place SimulatedFileSystem::step(const Place& from,
                                                     std::string_view name) const {
    Place next{from.node, from.tree, name, nullptr, false};
    const auto child = from.node->children.find(SimulatedNameView(seed_, name));
    if (child != from.node->children.end()) {
        next.node = child->second.get();
        if (next.node->mounted) {
            next.tree = next.node->mounted;
            next.node = next.tree->root.get();
            next.isMountPoint = true;
        }
    }
    return next;
}

SimulatedNode* SimulatedFileSystem::folderAt(const std::string& path) {
    const std::optional<Place> place = find(path, LastLink::followed);
    return place && place->node && place->node->kind == ItemKind::folder ? place->node : nullptr;
}

SimulatedTree& SimulatedFileSystem::treeOf(const std::string& volume) {
    std::unique_ptr<SimulatedTree>& tree = trees_[volume];
    if (!tree) {
        tree = std::make_unique<SimulatedTree>();
        tree->root = std::make_unique<SimulatedNode>();
        tree->root->kind = ItemKind::folder;
        tree->root->permissions = kFolderPermissions;
        tree->root->modificationDate = clock_.now();
    }
    return *tree;
}

SimulatedNode& SimulatedFileSystem::add(SimulatedNode& folder, std::string_view name, ItemKind kind,
                                        mode_t permissions) {
    auto node = std::make_unique<SimulatedNode>();
    node->kind = kind;
    node->nodeId = nextNodeId_++;
    node->serial = node->nodeId;
    node->permissions = permissions;
    node->modificationDate = clock_.now();
    node->ownerId = userId();
    folder.modificationDate = clock_.now();
    std::unique_ptr<SimulatedNode>& place = folder.children[SimulatedName(seed_, name)];
    place = std::move(node);
    return *place;
}

void SimulatedFileSystem::enumerateInto(SimulatedNode& folder, const std::string& prefix,
                                        std::vector<std::string>& paths) {
    if (folder.isUnreadable) {
        return;
    }
    for (const auto& [key, child] : folder.children) {
        paths.push_back(prefix + key.name);
        // What is mounted further down is another volume's.
        if (child->kind == ItemKind::folder && !child->mounted) {
            enumerateInto(*child, prefix + key.name + "/", paths);
        }
    }
}

void SimulatedFileSystem::pathsInto(SimulatedNode& folder, const std::string& prefix,
                                    std::vector<std::string>& paths) {
    for (const auto& [key, child] : folder.children) {
        SimulatedNode& node = child->mounted ? *child->mounted->root : *child;
        if (node.kind == ItemKind::folder) {
            const std::string path = prefix + key.name + "/";
            paths.push_back(path);
            pathsInto(node, path, paths);
        } else {
            paths.push_back(prefix + key.name);
        }
    }
}

// True when nothing is left of it.
bool SimulatedFileSystem::removeTree(SimulatedNode& folder, const SimulatedName& name) {
    SimulatedNode& node = *folder.children.at(name);
    if (node.mounted || folder.isImmutable) {
        return false;
    }
    std::vector<SimulatedName> below;
    for (const auto& [key, child] : node.children) {
        below.push_back(key);
    }
    bool isEmpty = !node.isUnreadable || below.empty();
    for (const SimulatedName& key : below) {
        isEmpty = !node.isUnreadable && removeTree(node, key) && isEmpty;
    }
    if (isEmpty) {
        folder.children.erase(name);
        folder.modificationDate = clock_.now();
    }
    return isEmpty;
}

std::optional<Error> SimulatedFileSystem::refusal(const Place& place, bool needsSpace) {
    if (place.tree->isReadOnly) {
        return Error{std::string(place.name) + ": read-only file system"};
    }
    if (place.folder->isImmutable) {
        return Error{std::string(place.name) + ": operation not permitted"};
    }
    if (needsSpace && place.tree->isFull) {
        return Error{std::string(place.name) + ": no space left on device"};
    }
    return std::nullopt;
}

void SimulatedFileSystem::store(Place& place, const PropertyList& value, mode_t permissions) {
    SimulatedNode& file =
        place.node ? *place.node : add(*place.folder, place.name, ItemKind::file, permissions);
    file.contents.setValue(value);
    file.permissions = permissions;
    file.modificationDate = clock_.now();
}

bool SimulatedFileSystem::keepCopy(const Place& place, const std::string& path,
                                   const PropertyList& value, Durability durability) {
    // A file that appears is on the disk by itself.
    if (!place.node) {
        place.folder->children.erase(SimulatedName(seed_, nameOf(keptCopyOf(path))));
        return true;
    }
    const std::string name = nameOf(keptCopyOf(path));
    Place copy{place.folder, place.tree, name, nullptr, false};
    const auto kept = place.folder->children.find(SimulatedName(seed_, name));
    if (kept != place.folder->children.end()) copy.node = kept->second.get();
    if (durability == Durability::process && copy.node) {
        const auto age = clock_.now() - copy.node->modificationDate;
        if (age >= age.zero() && age < kLongestUnsynced) return false;
    }
    store(copy, value, kCopyPermissions);
    return true;
}

void SimulatedFileSystem::dropSibling(const Place& place, const std::string& path) {
    for (const std::string& name : {siblingNameOf(path), siblingNameOf(path) + kPartSuffix}) {
        place.folder->children.erase(SimulatedName(seed_, name));
    }
}

void SimulatedFileSystem::killDuring(Place& place, const std::string& path,
                                     const PropertyList& value, mode_t permissions) {
    const KillMoment moment = *std::exchange(kill_, std::nullopt);
    const std::string text = formatPropertyList(value);
    if (moment == KillMoment::partCut) {
        putBytes(*place.folder, siblingNameOf(path) + kPartSuffix, text.substr(0, text.size() / 2),
                 permissions);
    } else if (moment != KillMoment::beforeWriting && !place.node) {
        // A new file is the part file renamed: it appears whole.
        store(place, value, permissions);
    } else if (moment != KillMoment::beforeWriting) {
        putBytes(*place.folder, siblingNameOf(path), text, permissions);
        if (moment == KillMoment::fileTorn) {
            std::string torn = text.substr(0, text.size() / 2);
            torn.front() = '\0';
            putBytes(*place.folder, place.name, std::move(torn), permissions);
        } else if (moment == KillMoment::written) {
            store(place, value, permissions);
        }
    }
    journal_.note("killed while writing", path);
    throw SimulatedKill{};
}

void SimulatedFileSystem::putBytes(SimulatedNode& folder, std::string_view name, std::string bytes,
                                   std::optional<mode_t> permissions) {
    const auto child = folder.children.find(SimulatedName(seed_, name));
    SimulatedNode& file = child != folder.children.end()
                              ? *child->second
                              : add(folder, name, ItemKind::file, kNewFilePermissions);
    file.contents.setBytes(std::move(bytes));
    file.permissions = permissions.value_or(file.permissions);
    file.modificationDate = clock_.now();
}

}  // namespace korvane
