#include "korvanectl/TrashList.h"

#include <fmt/format.h>

#include <set>
#include <utility>

#include "korvanectl/Words.h"
#include "platform/VolumeOfPath.h"

namespace korvane::ctl {

std::string counted(std::uint64_t count, std::string_view one) {
    return fmt::format("{} {}{}", count, one, count == 1 ? "" : "s");
}

std::string timeOrNothing(const std::optional<Time>& time, Time now) {
    return time ? timeWords(*time, now) : std::string{kNoWords};
}

std::string stateWords(const HistoryItem& item, Time now) {
    if (item.isAtOrigin) {
        return item.left
                   ? fmt::format("put back where it came from, {}", timeWords(*item.left, now))
                   : "put back where it came from";
    }
    if (item.lastSeen && item.state != TrashState::inTrash) {
        return fmt::format("not in the history, last seen {}", timeOrNothing(item.lastSeen, now));
    }
    switch (item.state) {
        case TrashState::inTrash:
            return item.isVolumeAway ? "on a volume that is away" : "in the trash";
        case TrashState::removed:
            return fmt::format("put back, {}", timeOrNothing(item.left, now));
        case TrashState::deleted:
            break;
    }
    return fmt::format("emptied, {}", timeOrNothing(item.left, now));
}

Table historyTable(const std::vector<HistoryItem>& items, Time now, bool withKeys) {
    std::vector<Column> columns{{"ITEM"}, {"CAME FROM"}, {"VOLUME"}, {"PUT IN"}, {"STATE"}};
    if (withKeys) columns.insert(columns.begin() + 1, {"KEY"});
    Table table{std::move(columns)};
    for (const HistoryItem& item : items) {
        const bool isThere = item.state == TrashState::inTrash;
        std::vector<Cell> row{{item.name},
                              {item.origin.empty() ? std::string{kNoWords} : item.origin},
                              {item.volumeName},
                              {timeOrNothing(item.putIn, now)},
                              {stateWords(item, now), isThere ? Tone::plain : Tone::faint}};
        if (withKeys) row.insert(row.begin() + 1, {item.key});
        table.addRow(std::move(row));
    }
    return table;
}

namespace {

std::set<std::string> mountedVolumeNames(Volumes& volumes) {
    std::set<std::string> names;
    for (const MountEntry& mount : volumes.mountTable()) {
        const bool isVolume = volumes.volumeInfoOfRoot(FSRef{mount.mountOnName}).status == 0;
        if (isVolume) names.insert(volumes.displayName(mount.mountOnName));
    }
    return names;
}

}  // namespace

Outcome<std::vector<HistoryItem>> trashHistoryOf(Program& program) {
    auto history = readTrashHistory(program.supportFolder);
    if (!history) return history;
    const std::set<std::string> mounted = mountedVolumeNames(program.volumes());
    for (HistoryItem& item : *history) {
        item.isVolumeAway = !item.volumeName.empty() && !mounted.contains(item.volumeName);
        // A trash below a dead server's mount is not asked.
        if (item.lastSeen && volumeOfPath(program.volumes(), item.folder) && findInTrash(item)) {
            item.state = TrashState::inTrash;
        }
        item.isAtOrigin = item.state != TrashState::inTrash && isPutBackToOrigin(program, item);
    }
    return history;
}

bool isPutBackToOrigin(Program& program, const HistoryItem& item) {
    if (item.origin.empty()) return false;
    const auto trash = volumeOfPath(program.volumes(), item.folder);
    const auto origin = volumeOfPath(program.volumes(), item.origin);
    return trash && origin && trash->mountPoint == origin->mountPoint && standsAtOrigin(item);
}

Outcome<HistoryItem> itemCalled(Program& program, const std::string& wanted) {
    const auto history = trashHistoryOf(program);
    if (!history) return history.failure();
    std::vector<HistoryItem> found = findHistoryItems(*history, wanted);
    if (found.size() == 1) return std::move(found.front());
    if (found.empty()) {
        return Failure{ExitStatus::refused,
                       fmt::format("the trash history has no \"{}\"; korvanectl trash list shows "
                                   "what it has",
                                   printable(wanted))};
    }
    const std::string table = historyTable(found, program.now(), true).format(program.paint);
    for (std::size_t at = 0; at < table.size();) {
        const std::size_t end = table.find('\n', at);
        program.note(table.substr(at, end - at));
        at = end + 1;
    }
    return Failure{ExitStatus::refused,
                   fmt::format("{} items are called \"{}\"; name one by its key", found.size(),
                               printable(wanted))};
}

}  // namespace korvane::ctl
