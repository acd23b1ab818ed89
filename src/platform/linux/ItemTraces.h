// What is kept of the items that were seen in trash folders, to find them again once they have
// left: for each a file handle and the place it came from, by volume and node number, in a file of
// the daemon's own. Paths and names are bytes here.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/DirectoryWatch.h"

namespace korvane {

struct ItemTrace {
    // name_to_handle_at(2): names the node for good, while its number is used again once it is
    // free. Empty where the file system has no handles.
    std::string handle;
    int handleType = 0;
    std::int64_t birth = 0;  // nanoseconds since 1970; 0 where the file system has none
    std::string name;
    std::string origin;  // an absolute path; empty when the trash has no note of it

    friend bool operator==(const ItemTrace&, const ItemTrace&) = default;
};

// The trace of the item of this name in the open folder; nothing when it is another one by now.
// Origins that are no absolute paths are relative to the volume's root.
[[nodiscard]] std::optional<ItemTrace> traceItem(int folder, const std::string& name,
                                                 std::uint64_t nodeId,
                                                 const std::string& volumeRoot);
// Whether what was opened and has the item's number is the item of the trace.
[[nodiscard]] Identity identityOf(int file, const ItemTrace& trace);

enum class HandleState {
    unknown,  // nothing leads there, or nobody may ask
    gone,     // the node exists no longer
    exists    // it does; its path is known or it is not
};
struct HandleAnswer {
    HandleState state = HandleState::unknown;
    std::string path;  // checked to lead to the node; empty when it is not known
};
// Where a handle leads on the file system of `mount`, an open folder on it.
[[nodiscard]] HandleAnswer followHandle(int mount, const ItemTrace& trace, std::uint64_t nodeId);

class ItemTraces {
  public:
    // `file`: empty when nothing is to outlive the process. It is read when first asked for.
    explicit ItemTraces(std::string file);

    [[nodiscard]] const ItemTrace* find(const ItemNumber& number);
    void set(const ItemNumber& number, ItemTrace trace);
    // Forgets all but these.
    void keepOnly(const std::set<ItemNumber>& numbers);
    // Writes the file when anything has changed. Failing costs only that a restarted daemon finds
    // less again.
    void save();

  private:
    void load();

    std::string file_;
    bool isLoaded_ = false;
    bool isChanged_ = false;
    std::map<ItemNumber, ItemTrace> traces_;
};

}  // namespace korvane
