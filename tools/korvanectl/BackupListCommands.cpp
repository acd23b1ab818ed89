// What the directory backups hold: backups, and its diff and find.

#include <fmt/format.h>

#include <map>
#include <memory>
#include <utility>

#include "korvanectl/BackupList.h"
#include "korvanectl/JsonStream.h"
#include "korvanectl/Program.h"
#include "korvanectl/RecordComparison.h"
#include "korvanectl/RecordReader.h"
#include "korvanectl/RecordSearch.h"
#include "korvanectl/Table.h"
#include "korvanectl/VolumeReport.h"
#include "korvanectl/Words.h"
#include "storage/SupportFolder.h"
#include "storage/VolumeEntry.h"

namespace korvane::ctl {

namespace {

using Backups = std::vector<BackupFound>;

Outcome<Backups> allBackups(const Program& program) {
    const Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) {
        return preferences.failure();
    }
    return findBackups(*preferences, program.volumes(), program.supportFolder);
}

// Those of the volume that goes by this mount point or name; of all volumes without one. A volume
// that nobody remembers may have left backups: then its folder's name counts.
Outcome<Backups> backupsOf(const Program& program, const std::string& volume) {
    const Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) {
        return preferences.failure();
    }
    Backups backups = findBackups(*preferences, program.volumes(), program.supportFolder);
    if (volume.empty()) {
        return backups;
    }
    const Outcome<std::size_t> index = findVolume(*preferences, program.volumes(), volume);
    const std::string name =
        index ? volumeFolderName(program.volumes().displayName(
                    ConstVolumeEntry{volumeEntryAt(*preferences, *index)}.volumeMountToName()))
              : volume;
    std::erase_if(backups, [&](const BackupFound& each) { return each.volume != name; });
    if (!index && backups.empty()) {
        return index.failure();
    }
    return backups;
}

// How many entries the volume had, its own folder aside.
Outcome<std::int64_t> countEntries(const std::string& path) {
    Outcome<RecordReader> reader = RecordReader::open(path);
    if (!reader) {
        return reader.failure();
    }
    std::int64_t count = 0;
    for (;;) {
        const auto entry = reader->next();
        if (!entry) {
            return entry.failure();
        }
        if (!*entry) {
            return count;
        }
        count += (*entry)->path.empty() ? 0 : 1;
    }
}

Dictionary backupJson(const BackupFound& backup, const Outcome<std::int64_t>& entries) {
    Dictionary json{{"location", backup.location},
                    {"volume", backup.volume},
                    {"name", backup.name},
                    {"path", backup.path},
                    {"modified", std::chrono::floor<std::chrono::seconds>(backup.modified)},
                    {"sizeBytes", static_cast<std::int64_t>(backup.sizeBytes)}};
    entries ? json.set("entries", *entries) : json.set("damage", entries.failure().message);
    return json;
}

Outcome<ExitStatus> runList(Program& program, const std::string& volume) {
    const Outcome<Backups> backups = backupsOf(program, volume);
    if (!backups) {
        return backups.failure();
    }
    Table table{
        {{"LOCATION"}, {"VOLUME"}, {"BACKUP"}, {"SIZE", Align::right}, {"ENTRIES", Align::right}}};
    PropertyListArray json;
    ExitStatus status = ExitStatus::done;
    for (const BackupFound& backup : *backups) {
        const Outcome<std::int64_t> entries = countEntries(backup.path);
        if (!entries) {
            program.note(entries.failure().message);
            status = entries.failure().status;
        }
        table.addRow({{backup.location},
                      {backup.volume},
                      {std::string{backup.stamp()}},
                      {sizeWords(static_cast<double>(backup.sizeBytes))},
                      entries ? Cell{std::to_string(*entries)} : Cell{"damaged", Tone::bad}});
        json.emplace_back(backupJson(backup, entries));
    }
    if (program.json) {
        printJson(program, Dictionary{{"backups", std::move(json)}});
    } else {
        program.print(backups->empty() ? "No directory backup has been made yet.\n"
                                       : table.format(program.paint));
    }
    return status;
}

// What a word of an entry is called, and how its value is said.
std::string wordChangeWords(const WordChange& change, Time now) {
    const auto value = [&](const std::string& word) -> std::string {
        if (word.empty()) {
            return "none";
        }
        if (change.key == "size") {
            return word + " bytes";
        }
        const auto time = change.key == "time" ? recordedTime(word) : std::nullopt;
        return time ? timeWords(*time, now) : printable(word);
    };
    static const std::map<std::string_view, std::string_view> kNames{{"mode", "permissions"},
                                                                     {"uid", "owner"},
                                                                     {"gid", "group"},
                                                                     {"time", "modified"},
                                                                     {"link", "target"}};
    const auto name = kNames.find(change.key);
    return fmt::format("{} {} -> {}", name == kNames.end() ? change.key : name->second,
                       value(change.before), value(change.after));
}

std::string_view kindWords(ChangeKind kind) {
    switch (kind) {
        case ChangeKind::appeared:
            return "appeared";
        case ChangeKind::vanished:
            return "vanished";
        case ChangeKind::changed:
            return "changed";
        case ChangeKind::unknown:
            break;
    }
    return "unknown";
}

// The volume's own folder is "/".
std::string changeLine(const Change& change, const Paint& paint, Time now) {
    std::string line = paint(change.kind == ChangeKind::vanished ? Tone::bad : Tone::plain,
                             fmt::format("{:<8}", kindWords(change.kind)));
    line += "  /" + printable(change.path);
    std::string_view before = "  (";
    for (const WordChange& word : change.words) {
        line += fmt::format("{}{}", before, wordChangeWords(word, now));
        before = ", ";
    }
    return line + (change.words.empty() ? "\n" : ")\n");
}

Dictionary changeJson(const Change& change) {
    Dictionary json{{"change", std::string{kindWords(change.kind)}}, {"path", "/" + change.path}};
    if (!change.words.empty()) {
        Dictionary before;
        Dictionary after;
        for (const WordChange& word : change.words) {
            before.set(word.key, word.before);
            after.set(word.key, word.after);
        }
        json.set("before", std::move(before));
        json.set("after", std::move(after));
    }
    return json;
}

Outcome<ExitStatus> runDifference(Program& program, const std::string& first,
                                  const std::string& second) {
    const Outcome<Backups> backups = allBackups(program);
    if (!backups) {
        return backups.failure();
    }
    const Outcome<std::string> firstPath = pathOfBackup(*backups, first);
    const Outcome<std::string> secondPath = pathOfBackup(*backups, second);
    if (!firstPath || !secondPath) {
        return firstPath ? secondPath.failure() : firstPath.failure();
    }
    Outcome<RecordReader> before = RecordReader::open(*firstPath);
    Outcome<RecordReader> after = RecordReader::open(*secondPath);
    if (!before || !after) {
        return before ? after.failure() : before.failure();
    }
    JsonStream json{program, "changes"};
    const Time now = program.now();
    const auto counts = compareRecords(*before, *after, [&](const Change& change) {
        program.json ? json.add(changeJson(change))
                     : program.print(changeLine(change, program.paint, now));
    });
    if (program.json) {
        json.end();
    }
    if (!counts) {
        return counts.failure();
    }
    if (!program.json) {
        program.print(fmt::format(
            "{} appeared, {} vanished, {} changed{}.\n", counts->appeared, counts->vanished,
            counts->changed,
            counts->unknown == 0
                ? std::string{}
                : fmt::format(", {} unknown where a backup could not look", counts->unknown)));
    }
    return ExitStatus::done;
}

// The backups of each volume by what they are called, so that copies of one count once.
std::map<std::string, std::map<std::string, const BackupFound*>> distinct(const Backups& backups) {
    std::map<std::string, std::map<std::string, const BackupFound*>> volumes;
    for (const BackupFound& each : backups) {
        volumes[each.volume].try_emplace(each.name, &each);
    }
    return volumes;
}

constexpr char kMatchLine[] = "{:<19}  {:>10}  {:>9}  {:<19}  {}\n";

std::string matchLine(const RecordMatch& match, std::string_view newest, std::size_t all,
                      Time now) {
    return fmt::format(kMatchLine, printable(newest), fmt::format("{} of {}", match.backups, all),
                       match.sizeBytes ? sizeWords(*match.sizeBytes) : match.type,
                       match.modified ? timeWords(*match.modified, now) : "-",
                       printable(match.path));
}

Dictionary matchJson(const RecordMatch& match, const BackupFound& newest, std::size_t all) {
    Dictionary json{{"path", match.path},
                    {"volume", newest.volume},
                    {"type", match.type},
                    {"newestBackup", newest.path},
                    {"inBackups", static_cast<std::int64_t>(match.backups)},
                    {"ofBackups", static_cast<std::int64_t>(all)}};
    if (match.sizeBytes) {
        json.set("sizeBytes", *match.sizeBytes);
    }
    if (match.modified) {
        json.set("modified", std::chrono::floor<std::chrono::seconds>(*match.modified));
    }
    return json;
}

Outcome<ExitStatus> runFind(Program& program, const std::string& text) {
    const Outcome<Backups> backups = allBackups(program);
    if (!backups) {
        return backups.failure();
    }
    JsonStream json{program, "found"};
    const Time now = program.now();
    std::size_t found = 0;
    ExitStatus status = ExitStatus::done;
    const auto warn = [&](const Failure& failure) {
        program.note(failure.message);
        status = failure.status;
    };
    for (const auto& [volume, named] : distinct(*backups)) {
        std::vector<const BackupFound*> sources;
        std::vector<std::string> paths;
        for (const auto& [name, backup] : named) {
            sources.push_back(backup);
            paths.push_back(backup->path);
        }
        const auto tell = [&](const RecordMatch& match) {
            const BackupFound& newest = *sources[match.newest];
            if (program.json) {
                json.add(matchJson(match, newest, sources.size()));
                return;
            }
            if (found++ == 0) {
                program.print(program.paint(
                    Tone::heading,
                    fmt::format(kMatchLine, "LAST RECORDED", "IN", "SIZE", "MODIFIED", "PATH")));
            }
            program.print(matchLine(match, newest.stamp(), sources.size(), now));
        };
        searchRecords(paths, text, tell, warn);
    }
    if (program.json) {
        json.end();
    } else if (found == 0) {
        program.print(fmt::format("No backup has \"{}\".\n", printable(text)));
    }
    return status;
}

}  // namespace

void addBackupListCommands(CLI::App& app, Program& program) {
    const auto volume = std::make_shared<std::string>();
    const auto list = [&program, volume] { return runList(program, *volume); };
    CLI::App* const backups = addPrintingCommand(
        app, program, "backups", "The directory backups, location by location", list);
    backups->add_option("VOLUME", *volume, "Those of this volume alone: mount point or name");
    backups->require_subcommand(0, 1);
    // Called after that of a subcommand, whose command stays.
    backups->callback([&program, backups, list] {
        if (backups->get_subcommands().empty()) {
            program.command = list;
        }
    });

    const auto first = std::make_shared<std::string>();
    const auto second = std::make_shared<std::string>();
    CLI::App* const difference = addPrintingCommand(
        *backups, program, "diff", "What appeared, vanished and changed between two of them",
        [&program, first, second] { return runDifference(program, *first, *second); });
    difference->add_option("A", *first, "The earlier: as korvanectl backups shows it, or a path")
        ->required();
    difference->add_option("B", *second, "The later")->required();

    const auto name = std::make_shared<std::string>();
    addPrintingCommand(*backups, program, "find", "Which of them have a file or folder",
                       [&program, name] { return runFind(program, *name); })
        ->add_option("NAME", *name, "Part of the name, or a pattern with *, ? or [ for all of it")
        ->required();
}

}  // namespace korvane::ctl
