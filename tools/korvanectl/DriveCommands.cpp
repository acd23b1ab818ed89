#include "korvanectl/DriveCommands.h"

#include <fmt/format.h>

#include <memory>
#include <utility>
#include <variant>

#include "core/DefaultPreferences.h"
#include "korvanectl/CheckReset.h"
#include "storage/DriveEntry.h"

namespace korvane::ctl {

namespace {

constexpr std::string_view kNothing = "-";

PropertyList jsonTime(Time time) {
    return PropertyList{std::chrono::floor<std::chrono::seconds>(time)};
}

std::string textOrNothing(const std::string& text) {
    return text.empty() ? std::string{kNothing} : text;
}

std::string loggedTimeWords(const LoggedDriveCheck& check, Time now) {
    return check.time ? timeWords(*check.time, now) : check.timeText;
}

std::string nextCheckWords(const DriveReport& drive, DaemonPresence daemon, Time now) {
    if (drive.schedule != Schedule::at) {
        return "off";
    }
    if (daemon == DaemonPresence::absent) {
        return "when it runs";
    }
    return dueWords(drive.nextCheck, drive.isNextCheckBeyondInterval, now);
}

Cell lastCheckCell(const DriveReport& drive, Time now) {
    if (!drive.lastCheck) {
        return {std::string{kNothing}, Tone::faint};
    }
    return {fmt::format("{}{}, {}", drive.isResting ? "resting, last asked " : "",
                        loggedTimeWords(*drive.lastCheck, now),
                        drive.lastCheck->failed ? "failed" : "passed")};
}

Dictionary loggedCheckJson(const LoggedDriveCheck& check) {
    Dictionary json{{"result", check.failed ? "failed" : "passed"},
                    {"device", check.path},
                    {"connection", check.connection}};
    if (check.time) {
        json.set("time", jsonTime(*check.time));
    }
    return json;
}

Outcome<ExitStatus> runDrives(Program& program) {
    const Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) {
        return preferences.failure();
    }
    const DaemonPresence daemon = program.daemon.presence();
    const std::vector<DriveReport> drives =
        reportDrives(*preferences, program.supportFolder, daemon, program.now());
    if (program.json) {
        printJson(program, Dictionary{{"drives", drivesJson(drives)}});
    } else if (drives.empty()) {
        program.print("No drive with SMART has been found.\n");
    } else {
        program.print(drivesTable(drives, daemon, program.now()).format(program.paint));
    }
    return ExitStatus::done;
}

// The entry of this drive; null when it is gone.
template <typename Preferences>
auto entryOf(Preferences& preferences, const DriveReport& drive)
    -> decltype(preferences.find(kDriveArray)->dictionary()) {
    auto* const stored = preferences.find(kDriveArray);
    if (stored == nullptr || stored->array() == nullptr) {
        return nullptr;
    }
    for (auto& element : *stored->array()) {
        const auto entry = ConstDriveEntry::over(element);
        if (entry && entry->driveModel() == drive.model && entry->driveSerial() == drive.serial) {
            return element.dictionary();
        }
    }
    return nullptr;
}

Outcome<ExitStatus> runReset(Program& program, const std::string& name) {
    static constexpr CheckKeys kKinds[] = {kSmartKeys};
    // The drive and its entry as they were when the last try began.
    const auto drive = std::make_shared<DriveReport>();
    const auto before = std::make_shared<Dictionary>();
    const auto anyReset = std::make_shared<bool>(false);
    const Edit edit{.apply = [=, &program](Dictionary& preferences) -> Outcome<std::monostate> {
                        const Outcome<DriveReport> found =
                            findDrive(reportDrives(preferences, program.supportFolder,
                                                   program.daemon.presence(), program.now()),
                                      name);
                        if (!found) {
                            return found.failure();
                        }
                        *drive = *found;
                        Dictionary& entry = *entryOf(preferences, *drive);
                        *before = entry;
                        *anyReset = setBackChecks(entry, kKinds, program.now()) || *anyReset;
                        return std::monostate{};
                    },
                    .holds =
                        [=, &program](const Dictionary& preferences) {
                            const Dictionary* const entry = entryOf(preferences, *drive);
                            return entry == nullptr ||
                                   !isToBeSetBack(*entry, *before, kKinds, program.now());
                        }};
    return finishEdit(program, edit, [=] {
        return *anyReset ? fmt::format("{} is set back and will be examined anew", printable(name))
                         : fmt::format("no check of {} is stuck", printable(name));
    });
}

}  // namespace

Table drivesTable(const std::vector<DriveReport>& drives, DaemonPresence daemon, Time now) {
    Table table{{{"DRIVE"},
                 {"SERIAL"},
                 {"DEVICE"},
                 {"CONNECTION"},
                 {"RESULT"},
                 {"LAST CHECK"},
                 {"NEXT CHECK"}}};
    for (const DriveReport& drive : drives) {
        const LoggedDriveCheck last = drive.lastCheck.value_or(LoggedDriveCheck{});
        table.addRow({{textOrNothing(drive.model)},
                      {textOrNothing(drive.serial)},
                      {textOrNothing(last.path)},
                      {textOrNothing(last.connection)},
                      {stateWords(CheckKind::smart, drive.state), stateTone(drive.state)},
                      lastCheckCell(drive, now),
                      {nextCheckWords(drive, daemon, now)}});
    }
    return table;
}

PropertyListArray drivesJson(const std::vector<DriveReport>& drives) {
    PropertyListArray json;
    for (const DriveReport& drive : drives) {
        Dictionary each{{"model", drive.model},
                        {"serial", drive.serial},
                        {"watched", drive.watched},
                        {"resting", drive.isResting},
                        {"result", stateToken(drive.state)}};
        if (drive.schedule == Schedule::at) {
            each.set("nextCheck", jsonTime(drive.nextCheck));
            if (drive.isNextCheckBeyondInterval) {
                each.set("nextCheckBeyondInterval", true);
            }
        }
        if (drive.lastCheck) {
            each.set("lastCheck", loggedCheckJson(*drive.lastCheck));
        }
        json.emplace_back(std::move(each));
    }
    return json;
}

Outcome<ExitStatus> printDriveHistory(Program& program, const DriveReport& drive) {
    const auto checks = readDriveLog(program.supportFolder, drive.model, drive.serial);
    if (!checks) {
        return checks.failure();
    }
    if (program.json) {
        PropertyListArray json;
        for (const LoggedDriveCheck& check : *checks) {
            json.emplace_back(loggedCheckJson(check));
        }
        printJson(program, Dictionary{{"model", drive.model},
                                      {"serial", drive.serial},
                                      {"checks", std::move(json)}});
        return ExitStatus::done;
    }
    if (checks->empty()) {
        program.print(fmt::format("No check of {} has been logged yet.\n", printable(drive.model)));
        return ExitStatus::done;
    }
    Table table{{{"TIME"}, {"RESULT"}, {"DEVICE"}, {"CONNECTION"}}};
    for (const LoggedDriveCheck& check : *checks) {
        const CheckState state = check.failed ? CheckState::failing : CheckState::ok;
        table.addRow({{loggedTimeWords(check, program.now())},
                      {stateWords(CheckKind::smart, state), stateTone(state)},
                      {textOrNothing(check.path)},
                      {textOrNothing(check.connection)}});
    }
    program.print(table.format(program.paint));
    return ExitStatus::done;
}

void addDriveCommands(CLI::App& app, Program& program) {
    addPrintingCommand(app, program, "drives", "The drives that are checked, as a table",
                       [&program] { return runDrives(program); });

    const auto drive = std::make_shared<std::string>();
    CLI::App* const group = app.add_subcommand("drive", "Set a check of a drive back");
    group->add_option("DRIVE", *drive, "Serial number or model of a drive")->required();
    group->require_subcommand(1);
    addCommand(*group, program, "reset", "Set back a check that is stuck or due too far ahead",
               [&program, drive] { return runReset(program, *drive); });
}

}  // namespace korvane::ctl
