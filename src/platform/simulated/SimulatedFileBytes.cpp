// Plain files as the daemon reads and writes them, names that change, and what items are found by.

#include <algorithm>
#include <utility>

#include "platform/simulated/SimulatedFileSystem.h"

namespace korvane {

namespace {

bool isFileOf(std::uint32_t userId, const SimulatedNode& node, Writers writers) {
    constexpr mode_t kOthersMayWrite = 022;
    return node.kind == ItemKind::file && node.ownerId == userId &&
           (writers == Writers::anybody || (node.permissions & kOthersMayWrite) == 0);
}

}  // namespace

Result<std::monostate> SimulatedFileSystem::changePropertyList(
    const std::string& path, const std::function<bool(PropertyList&)>& edit, mode_t permissions,
    Durability durability) {
    Result<PropertyList> value = readPropertyList(path);
    if (!value) {
        return value.error();
    }
    if (!edit(*value)) {
        return std::monostate{};
    }
    return writePropertyList(path, *value, permissions, durability);
}

Result<std::string> SimulatedFileSystem::readFile(const std::string& path, Writers writers) {
    const std::optional<Place> place = find(path, LastLink::kept);
    if (!place || !place->node) {
        return Error{path + ": no such file or folder"};
    }
    if (!isFileOf(userId(), *place->node, writers)) {
        return Error{path + ": not a file of its own"};
    }
    if (path == unreadableFile_) {
        return Error{path + ": no more files"};
    }
    return place->node->contents.bytes();
}

Result<std::monostate> SimulatedFileSystem::writeFile(const std::string& path,
                                                      std::string_view bytes, mode_t permissions) {
    const std::optional<Place> place = find(path, LastLink::kept);
    if (!place || place->name.empty()) {
        return Error{path + ": no such file or folder"};
    }
    if (place->node && !isFileOf(userId(), *place->node, Writers::owner)) {
        return Error{path + ": not a file of its own"};
    }
    if (const std::optional<Error> error = refusal(*place, true)) {
        return *error;
    }
    putBytes(*place->folder, place->name, std::string(bytes),
             place->node ? std::nullopt : std::optional(permissions));
    journal_.note("write bytes", path);
    return std::monostate{};
}

Result<std::monostate> SimulatedFileSystem::appendRecords(const std::string& path,
                                                          std::string_view records,
                                                          std::size_t recordBytes,
                                                          mode_t permissions) {
    const std::optional<Place> place = find(path, LastLink::kept);
    if (!place || place->name.empty()) {
        return Error{path + ": no such file or folder"};
    }
    if (place->node && place->node->kind != ItemKind::file) {
        return Error{path + ": not a regular file"};
    }
    if (const std::optional<Error> error = refusal(*place, true)) {
        return *error;
    }
    std::string contents = place->node ? place->node->contents.bytes() : std::string();
    contents.resize(contents.size() - contents.size() % recordBytes);
    contents += records;
    putBytes(*place->folder, place->name, std::move(contents),
             place->node ? std::nullopt : std::optional(permissions));
    journal_.note("append", path);
    return std::monostate{};
}

bool SimulatedFileSystem::rename(const std::string& path, const std::string& newPath) {
    const std::optional<Place> from = find(path, LastLink::kept);
    const std::optional<Place> to = find(newPath, LastLink::kept);
    if (!from || !from->node || from->isMountPoint || !to || to->node || to->name.empty() ||
        from->tree != to->tree || refusal(*from, false) || refusal(*to, false)) {
        return false;
    }
    auto child = from->folder->children.extract(SimulatedName(seed_, from->name));
    to->folder->children.insert_or_assign(SimulatedName(seed_, to->name),
                                          std::move(child.mapped()));
    from->folder->modificationDate = clock_.now();
    to->folder->modificationDate = clock_.now();
    journal_.note("rename", newPath);
    return true;
}

std::uint64_t SimulatedFileSystem::nodeId(const std::string& path) {
    const std::optional<Place> place = find(path, LastLink::kept);
    return place && place->node ? place->node->nodeId : 0;
}

std::uint64_t SimulatedFileSystem::serial(const std::string& path) {
    const std::optional<Place> place = find(path, LastLink::kept);
    return place && place->node ? place->node->serial : 0;
}

void SimulatedFileSystem::setNodeId(const std::string& path, std::uint64_t nodeId) {
    const std::optional<Place> place = find(path, LastLink::kept);
    if (place && place->node) place->node->nodeId = nodeId;
}

std::optional<std::string> SimulatedFileSystem::pathOfNode(const std::string& volumePath,
                                                           std::uint64_t nodeId) {
    const std::string prefix = volumePath == "/" ? volumePath : volumePath + '/';
    for (const std::string& path : enumerate(volumePath)) {
        if (this->nodeId(prefix + path) == nodeId) {
            return prefix + path;
        }
    }
    return std::nullopt;
}

bool SimulatedFileSystem::setBackupDate(const std::string& path, Time date) {
    const std::optional<Place> place = find(path, LastLink::kept);
    if (!place || !place->node || place->tree->isReadOnly) {
        return false;
    }
    place->node->backupDate = date;
    return true;
}

std::optional<Time> SimulatedFileSystem::backupDate(const std::string& path) {
    const std::optional<Place> place = find(path, LastLink::kept);
    return place && place->node ? place->node->backupDate : std::nullopt;
}

}  // namespace korvane
