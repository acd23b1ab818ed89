// Usage files of any bytes, which any user may write: items are recorded in them and their records
// are gone through, and nothing but records of that item changes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "base/PropertyListCodec.h"
#include "storage/TrashEntry.h"
#include "trash/TrashRecords.h"

namespace {

using namespace korvane;

const Time kNow{std::chrono::seconds(1'772'438'400)};

// Every third item is still there, every third was put back, the others are gone.
std::vector<ResolvedNode> resolve(std::span<const SeenItem> items) {
    std::vector<ResolvedNode> nodes;
    for (const SeenItem& item : items) {
        switch (nodes.size() % 3) {
            case 0:
                nodes.push_back({NodeState::found, item.folder + '/' + item.name});
                break;
            case 1:
                nodes.push_back({NodeState::found, "/put back/" + item.name});
                break;
            default:
                nodes.push_back({NodeState::gone, ""});
                break;
        }
    }
    return nodes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto document = parsePropertyList({reinterpret_cast<const char*>(data), size});
    if (!document || !document->dictionary()) return 0;
    Dictionary& usage = *document->dictionary();
    const std::size_t before = usage.size();
    FoundItem found;
    found.item.itemName = "letter";
    found.item.nodeId = 7;
    found.item.dirPath = "/trash";
    // Of an item of the same name, and of another one whose number went to this.
    for (const Identity identity : {Identity::same, Identity::another}) {
        found.before = {identity, "letter"};
        const std::size_t last = usage.size();
        storeTrashRecords(usage, std::span(&found, 1), resolve, kNow);
        if (usage.size() < last || usage.size() > last + 1) std::abort();
        const auto record = ConstTrashEntry::over(*usage.find(trashEntryKey(found.item)));
        if (!record || record->itemName() != "letter") std::abort();
    }
    for (int turn = 0; turn < 2; ++turn) {
        (void)updateTrashRecords(usage, resolve, kNow, turn);
        if (usage.size() > before + 2) std::abort();
    }
    const std::string text = formatPropertyList(*document);
    const auto again = parsePropertyList(text);
    if (!again || formatPropertyList(*again) != text) std::abort();
    return 0;
}
