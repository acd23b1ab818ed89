// The trash history: trash, trash list, show, on, off; recover is in TrashRecovery.cpp.

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <utility>

#include "core/DefaultPreferences.h"
#include "korvanectl/ExtentReader.h"
#include "korvanectl/Program.h"
#include "korvanectl/SettingRules.h"
#include "korvanectl/Table.h"
#include "korvanectl/TrashHistory.h"
#include "korvanectl/TrashList.h"
#include "korvanectl/VolumeCommands.h"
#include "korvanectl/VolumeReport.h"
#include "korvanectl/Words.h"
#include "platform/VolumeOfPath.h"
#include "platform/linux/LinuxDirectoryWatch.h"
#include "platform/linux/MountTable.h"
#include "storage/VolumeEntry.h"

namespace korvane::ctl {

namespace {

constexpr char kTrashHistory[] = "trashHistoryOnOff";
constexpr char kTrashOfVolume[] = "trashOnOff";

PropertyList jsonTime(Time time) {
    return PropertyList{std::chrono::floor<std::chrono::seconds>(time)};
}

std::string stateToken(const HistoryItem& item) {
    if (item.lastSeen && item.state != TrashState::inTrash) return "notInHistory";
    switch (item.state) {
        case TrashState::inTrash:
            return "inTrash";
        case TrashState::removed:
            return "putBack";
        case TrashState::deleted:
            break;
    }
    return "emptied";
}

Dictionary itemJson(const HistoryItem& item) {
    Dictionary json{{"key", item.key},           {"name", item.name},
                    {"node", item.node},         {"trashFolder", item.folder},
                    {"volume", item.volumeName}, {"state", stateToken(item)}};
    if (!item.origin.empty()) json.set("origin", item.origin);
    if (item.isVolumeAway) json.set("volumeIsAway", true);
    if (item.isAtOrigin) json.set("putBackAs", item.origin);
    if (item.putIn) json.set("putIn", jsonTime(*item.putIn));
    if (item.left) json.set("left", jsonTime(*item.left));
    if (item.lastSeen) json.set("lastSeen", jsonTime(*item.lastSeen));
    return json;
}

Outcome<ExitStatus> runList(Program& program) {
    const auto history = trashHistoryOf(program);
    if (!history) return history.failure();
    if (program.json) {
        PropertyListArray items;
        for (const HistoryItem& item : *history) items.emplace_back(itemJson(item));
        printJson(program, Dictionary{{"items", std::move(items)}});
        return ExitStatus::done;
    }
    if (history->empty()) {
        program.print("Nothing that went through the trash is recorded.\n");
        return ExitStatus::done;
    }
    // A name that two items have leads to neither of them.
    std::set<std::string> names;
    const bool hasTwins = std::ranges::any_of(
        *history, [&names](const HistoryItem& item) { return !names.insert(item.name).second; });
    program.print(historyTable(*history, program.now(), hasTwins).format(program.paint));
    return ExitStatus::done;
}

// ---- One item ----------------------------------------------------------------------------------

std::string kindWords(std::uint32_t mode) {
    if (S_ISREG(mode)) return "file";
    if (S_ISDIR(mode)) return "folder";
    return S_ISLNK(mode) ? "symbolic link" : "special file";
}

std::string hexadecimal(const Sha256& sum) {
    std::string text;
    for (const std::uint8_t byte : sum) text += fmt::format("{:02x}", byte);
    return text;
}

bool hasChecksum(const RecordedItem& item) { return (item.flags & kRecordHasChecksum) != 0; }

// What the records of an item come to.
struct RecordedWhole {
    std::size_t files = 0;
    std::size_t recoverable = 0;
    std::uint64_t bytes = 0;
};
RecordedWhole sumOf(const std::vector<RecordedItem>& items) {
    RecordedWhole whole;
    for (const RecordedItem& item : items) {
        if (!S_ISREG(item.mode)) continue;
        ++whole.files;
        whole.bytes += item.size;
        if (reasonNotRecoverable(item).empty()) ++whole.recoverable;
    }
    return whole;
}

std::string contentsWords(const std::vector<RecordedItem>& items) {
    if (items.empty()) return "not recorded: they cannot be recovered once the trash is emptied";
    const RecordedItem& item = items.front();
    if (S_ISDIR(item.mode)) {
        const RecordedWhole whole = sumOf(items);
        return fmt::format(
            "recorded: {} of its {} can be looked for on the device{}", whole.recoverable,
            counted(whole.files, "file"),
            (item.flags & kRecordFolderCut) != 0 ? "; it held more than was recorded" : "");
    }
    if (S_ISLNK(item.mode)) return "recorded: a link to " + item.linkTarget;
    const std::string reason = reasonNotRecoverable(item);
    return reason.empty()
               ? fmt::format("recorded: {} on the device", counted(item.extents.size(), "piece"))
               : "cannot be recovered: " + reason;
}

Dictionary recordedJson(const std::vector<RecordedItem>& items) {
    const RecordedItem& item = items.front();
    const RecordedWhole whole = sumOf(items);
    Dictionary json{
        {"kind", kindWords(item.mode)},
        {"path", item.path},
        {"sizeBytes", whole.bytes},
        {"modified", jsonTime(timeFromSecondsSince1970(static_cast<double>(item.modified)))},
        {"files", static_cast<std::int64_t>(whole.files)},
        {"recoverableFiles", static_cast<std::int64_t>(whole.recoverable)}};
    if (S_ISREG(item.mode)) {
        json.set("pieces", static_cast<std::int64_t>(item.extents.size()));
        if (hasChecksum(item)) json.set("sha256", hexadecimal(item.checksum));
        const std::string reason = reasonNotRecoverable(item);
        if (!reason.empty()) json.set("notRecoverable", reason);
    }
    return json;
}

Table itemTable(const HistoryItem& item, const std::vector<RecordedItem>& items, Time now) {
    Table table{{{"ITEM"}, {item.name}}};
    const auto row = [&table](const char* what, std::string text) {
        table.addRow({{what}, {std::move(text)}});
    };
    row("key", item.key);
    row("state", stateWords(item, now));
    row("put in", timeOrNothing(item.putIn, now));
    if (item.lastSeen) row("last seen", timeOrNothing(item.lastSeen, now));
    row("came from", item.origin.empty() ? std::string{kNoWords} : item.origin);
    row("trash folder", item.folder);
    row("volume", item.volumeName);
    row("node", std::to_string(item.node));
    if (!items.empty()) {
        const RecordedItem& first = items.front();
        row("kind", kindWords(first.mode));
        row("size", sizeWords(static_cast<double>(sumOf(items).bytes)));
        row("modified",
            timeWords(timeFromSecondsSince1970(static_cast<double>(first.modified)), now));
        if (hasChecksum(first)) row("SHA-256", hexadecimal(first.checksum));
    }
    row("contents", contentsWords(items));
    return table;
}

Outcome<ExitStatus> runShow(Program& program, const std::string& wanted) {
    const Outcome<HistoryItem> item = itemCalled(program, wanted);
    if (!item) return item.failure();
    const std::vector<RecordedItem> items = recordsOf(program.supportFolder, *item);
    if (program.json) {
        Dictionary json = itemJson(*item);
        if (!items.empty()) json.set("recorded", recordedJson(items));
        printJson(program, json);
    } else {
        program.print(itemTable(*item, items, program.now()).format(program.paint));
    }
    return ExitStatus::done;
}

// ---- On and off --------------------------------------------------------------------------------

// Both switches must be on for a trash to be watched: what the other one says.
void noteOtherSwitch(Program& program, bool isOfVolume) {
    const Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) return;
    if (isOfVolume) {
        if (!booleanValue(preferences->find(kTrashHistory))) {
            program.note("the trash history is off as a whole; korvanectl trash on turns it on");
        }
        return;
    }
    const PropertyList* const stored = preferences->find(kVolumeArray);
    const PropertyListArray none;
    const PropertyListArray& volumes = stored && stored->array() ? *stored->array() : none;
    const bool isAnyOn = std::any_of(volumes.begin(), volumes.end(), [](const PropertyList& each) {
        const auto entry = ConstVolumeEntry::over(each);
        return entry && entry->trashOnOff();
    });
    if (!isAnyOn) {
        program.note("no volume's trash is watched yet; korvanectl trash on VOLUME turns one on");
    }
}

// The folder of homes on it, or one of the homes.
bool holdsHomes(const std::string& mountPoint) {
    namespace fs = std::filesystem;
    const LinuxTrashPlaces places;
    if (mountPoint == "/") return false;
    std::error_code none;
    const fs::path real = fs::weakly_canonical(places.homes, none);
    const std::string homes = none ? places.homes : textOfBytes(real.native());
    const std::string above = mountPoint.substr(0, mountPoint.rfind('/'));
    return isAtOrBelow(homes, mountPoint) || above == homes || mountPoint == places.rootHome;
}

// The trash of a home is watched by the switch of "/", also where the home is mounted from another
// volume.
void noteHomes(Program& program, const std::string& volume, const char* word) {
    const Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) return;
    const Outcome<std::size_t> index = findVolume(*preferences, program.volumes(), volume);
    if (!index) return;
    const ConstVolumeEntry entry{volumeEntryAt(*preferences, *index)};
    if (!holdsHomes(entry.volumeMountToName())) return;
    program.note(
        fmt::format("the trash of a home belongs to the switch of \"/\", wherever the home lies; "
                    "korvanectl trash {0} / turns that one {0}",
                    word));
}

Outcome<ExitStatus> runSwitch(Program& program, const std::string& volume, bool isOn) {
    const char* const word = isOn ? "on" : "off";
    Outcome<ExitStatus> outcome = ExitStatus::done;
    if (volume.empty()) {
        const Edit edit{.apply = [isOn](Dictionary& preferences) -> Outcome<std::monostate> {
                            preferences.set(kTrashHistory, isOn);
                            return std::monostate{};
                        },
                        .holds =
                            [isOn](const Dictionary& preferences) {
                                const PropertyList* const stored = preferences.find(kTrashHistory);
                                return stored != nullptr && booleanValue(stored) == isOn;
                            }};
        outcome = finishEdit(program, edit,
                             [word] { return fmt::format("The trash history is {}", word); });
    } else {
        const auto value = std::make_shared<PropertyList>();
        outcome = finishEdit(
            program, volumeEdit(program.volumes(), volume, kTrashOfVolume, {word}, value),
            [=] { return fmt::format("The trash history of {} is {}", printable(volume), word); });
    }
    if (outcome && isOn) noteOtherSwitch(program, !volume.empty());
    if (outcome && !volume.empty()) noteHomes(program, volume, word);
    return outcome;
}

void addSwitch(CLI::App& group, Program& program, bool isOn) {
    const auto volume = std::make_shared<std::string>();
    addCommand(group, program, isOn ? "on" : "off",
               isOn ? "Record what goes through the trash" : "Record it no longer",
               [&program, volume, isOn] { return runSwitch(program, *volume, isOn); })
        ->add_option("VOLUME", *volume, "Of this volume alone: its mount point or name");
}

}  // namespace

void addTrashCommands(CLI::App& app, Program& program) {
    CLI::App& group = *addPrintingCommand(app, program, "trash", "What went through the trash",
                                          [&program] { return runList(program); });
    group.require_subcommand(0, 1);
    // Called after that of a subcommand, whose command stays.
    group.callback([&program, &group] {
        if (group.get_subcommands().empty()) {
            program.command = [&program] { return runList(program); };
        }
    });
    addPrintingCommand(group, program, "list", "What went through the trash, oldest first",
                       [&program] { return runList(program); });
    const auto item = std::make_shared<std::string>();
    addPrintingCommand(group, program, "show", "All that is known of an item",
                       [&program, item] { return runShow(program, *item); })
        ->add_option("ITEM", *item, kItemHelp)
        ->required();
    addTrashRecovery(group, program);
    addSwitch(group, program, true);
    addSwitch(group, program, false);
}

}  // namespace korvane::ctl
