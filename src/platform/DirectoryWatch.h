// The trash folders of the machine: where they are, that one has changed, what lies in it, and
// where an item went that is there no longer. Names and paths are texts as in platform/Volumes.h:
// bytes that no text can carry stand as a backslash and three octal digits.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Clock.h"

namespace korvane {

// A subscription to the changes of a folder. Destroying it ends it, from its own callback too.
class DirectorySubscription {
  public:
    virtual ~DirectorySubscription() = default;
};

struct CatalogItem {
    std::string name;
    std::uint64_t nodeId = 0;    // the item's own number on its volume
    std::uint64_t parentId = 0;  // the folder's
};

// An item as it was seen in a folder.
struct SeenItem {
    std::int16_t volume = 0;  // its reference number
    std::uint64_t nodeId = 0;
    std::string folder;
    std::string name;
};

enum class NodeState {
    found,   // it exists, and its path is known
    gone,    // it exists no longer
    unknown  // nothing can be said now: its volume is not mounted, or a search was not finished
};
struct ResolvedNode {
    NodeState state = NodeState::unknown;
    std::string path;
};

// An item's number on its volume. File systems give the number of an item that is gone to a new
// one.
struct ItemNumber {
    std::int16_t volume = 0;
    std::uint64_t nodeId = 0;
    friend auto operator<=>(const ItemNumber&, const ItemNumber&) = default;
};

enum class Identity {
    same,     // it is the item that was remembered under its number
    another,  // that item is gone
    unknown   // nothing was remembered, or the file system cannot tell
};
struct Recognized {
    Identity identity = Identity::unknown;
    std::string name{};  // that the remembered item had; empty when none is
};

class DirectoryWatch {
  public:
    virtual ~DirectoryWatch() = default;

    // The folders in which the volume mounted at the path keeps what its users throw away: on the
    // start-up volume "/Users/NAME/.Trash" for each name but "Shared", on others
    // "VOLUME/.Trashes/NAME". Names that begin with a full stop are passed over.
    [[nodiscard]] virtual std::vector<std::string> trashFolders(const std::string& volumePath) = 0;

    // The number of the user whose trash folder that is.
    [[nodiscard]] virtual std::uint32_t userOf(const std::string& folder) = 0;

    // Told on the loop's thread when items came into the folder or left it: once for all that has
    // happened since the loop last turned. Null when it cannot be watched. A machine may watch for
    // a folder that does not exist yet.
    [[nodiscard]] virtual std::unique_ptr<DirectorySubscription> subscribe(
        const std::string& folder, std::function<void()> didChange) = 0;
    // Whether a folder is not watched for want of something that the machine may have again later:
    // subscribe() failed, or a subscriber was told for the last time. Holds until subscribe() next
    // succeeds.
    [[nodiscard]] virtual bool isShortOfWatches() = 0;

    // At most so many of the folder's items, the first that the system returns; nothing when it
    // cannot be read or is no folder. A link in the folder's place is not followed. A folder that
    // is subscribed to and is gone may answer that nothing is in it.
    [[nodiscard]] virtual std::optional<std::vector<CatalogItem>> catalog(
        const std::string& folder, std::size_t mostItems) = 0;

    // Notes on the folder's items that they were taken care of then. An item of which that is not
    // possible stays as it is. How many have it. Tells no subscriber.
    virtual std::size_t setBackupDates(const std::string& folder,
                                       std::span<const CatalogItem> items, Time date) = 0;

    // Whether each of these items is the one that was last remembered under its number, in their
    // order.
    [[nodiscard]] virtual std::vector<Recognized> recognize(std::int16_t volume,
                                                            const std::string& folder,
                                                            std::span<const CatalogItem> items) = 0;
    // Keeps what helps to recognize these items, and to find them again once they have left the
    // folder.
    virtual void remember(std::int16_t volume, const std::string& folder,
                          std::span<const CatalogItem> items) = 0;
    // Forgets all items but these. What is kept of them outlives the process from here on.
    virtual void keepOnly(std::span<const ItemNumber> items) = 0;
    // Where each of these items is now, in their order. An item that is unknown may be searched for
    // from here on; that is bounded in time.
    [[nodiscard]] virtual std::vector<ResolvedNode> resolve(std::span<const SeenItem> items) = 0;
    // Told on the loop's thread when a search has found out more: resolve() knows it until the loop
    // turns.
    virtual void setDidFindOut(std::function<void()> callback) = 0;
};

}  // namespace korvane
