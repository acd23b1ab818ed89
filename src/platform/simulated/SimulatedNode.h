// One file, folder or link of the simulated file system, and the volume it lies on.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/FileSystem.h"
#include "platform/simulated/SimulatedContents.h"
#include "platform/simulated/SimulatedHash.h"

namespace korvane {

struct SimulatedTree;

// A name with its place in its folder: by hash, as real file systems keep theirs, so that nobody
// can come to rely on an order. The seed makes it another one.
struct SimulatedNameView {
    SimulatedNameView(std::uint64_t seed, std::string_view text)
        : hash(hashBytes(kHashStart ^ seed, text)), name(text) {}
    std::uint64_t hash;
    std::string_view name;
};
struct SimulatedName {
    SimulatedName(std::uint64_t seed, std::string_view text)
        : hash(hashBytes(kHashStart ^ seed, text)), name(text) {}
    std::uint64_t hash;
    std::string name;
};
struct SimulatedNameOrder {
    using is_transparent = void;
    template <typename One, typename Other>
    bool operator()(const One& one, const Other& other) const {
        return one.hash != other.hash ? one.hash < other.hash : one.name < other.name;
    }
};

struct SimulatedNode {
    ItemKind kind = ItemKind::file;
    std::uint64_t nodeId = 0;
    std::uint64_t serial = 0;  // never used again, unlike the number
    std::optional<Time> backupDate;
    std::uint32_t ownerId = 0;
    mode_t permissions = 0;
    Time modificationDate{};
    SimulatedContents contents;  // of a file
    std::string linkTarget;      // of a link
    std::map<SimulatedName, std::unique_ptr<SimulatedNode>, SimulatedNameOrder>
        children;                      // of a folder
    SimulatedTree* mounted = nullptr;  // the volume that covers this folder
    bool isImmutable = false;          // nothing can be made, changed or removed in this folder
    bool isUnreadable = false;         // this folder cannot be listed
    bool isUnlisted = false;           // its folder's listing has it under another spelling
};

// The files of one volume. They stay when the volume is unmounted.
struct SimulatedTree {
    std::unique_ptr<SimulatedNode> root;
    bool isReadOnly = false;
    bool isFull = false;
};

}  // namespace korvane
