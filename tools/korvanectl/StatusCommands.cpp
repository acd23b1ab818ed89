// What the daemon found: status, volumes, history.

#include <fmt/format.h>
#include <unistd.h>

#include <memory>
#include <utility>
#include <vector>

#include "core/DefaultPreferences.h"
#include "korvanectl/DriveCommands.h"
#include "korvanectl/DriveReport.h"
#include "korvanectl/Program.h"
#include "korvanectl/Table.h"
#include "korvanectl/VolumeReport.h"
#include "korvanectl/Words.h"
#include "storage/VolumeEntry.h"

namespace korvane::ctl {

namespace {

constexpr std::string_view kNothing = "-";

// JSON has no moments of its own: formatJson() writes a date in UTC, to the second.
PropertyList jsonTime(Time time) {
    return PropertyList{std::chrono::floor<std::chrono::seconds>(time)};
}

bool protectionIsOn(const Dictionary& preferences) {
    const PropertyList* const stored = preferences.find(kDaemonOn);
    return stored == nullptr || booleanValue(stored);
}

std::string presenceWords(DaemonPresence presence) {
    switch (presence) {
        case DaemonPresence::absent:
            return "not running";
        case DaemonPresence::unreachable:
            return "running, but not on the bus";
        case DaemonPresence::reachable:
            break;
    }
    return "running";
}

Cell deviceCell(const VolumeReport& volume) {
    return {volume.device.empty() ? std::string{kNothing} : volume.device};
}

std::string freeWords(const VolumeReport& volume) {
    if (!volume.space || volume.space->sizeBytes == 0) {
        return std::string{kNothing};
    }
    return fmt::format("{} of {}", sizeWords(static_cast<double>(volume.space->freeBytes)),
                       sizeWords(static_cast<double>(volume.space->sizeBytes)));
}

std::optional<double> percentFree(const VolumeReport& volume) {
    if (!volume.space || volume.space->sizeBytes == 0) {
        return std::nullopt;
    }
    return static_cast<double>(volume.space->freeBytes) /
           static_cast<double>(volume.space->sizeBytes) * 100;
}

std::string percentFreeWords(const VolumeReport& volume) {
    const auto percent = percentFree(volume);
    return percent ? percentWords(*percent) : std::string{kNothing};
}

std::string levelWords(const VolumeReport& volume) {
    return volume.watched ? fmt::format("{} %", volume.warningLevel) : "off";
}

Cell resultCell(const VolumeReport& volume) {
    return {stateWords(CheckKind::usage, volume.state), stateTone(volume.state)};
}

std::string nextCheckWords(const VolumeReport& volume, DaemonPresence daemon, Time now) {
    if (volume.schedule != Schedule::at) {
        return volume.schedule == Schedule::off ? "off" : std::string{kNothing};
    }
    if (daemon == DaemonPresence::absent) {
        return "when it runs";
    }
    return dueWords(volume.nextCheck, volume.isNextCheckBeyondInterval, now);
}

std::string loggedTimeWords(const LoggedCheck& check, Time now) {
    return check.time ? timeWords(*check.time, now) : check.timeText;
}

Cell lastCheckCell(const VolumeReport& volume, Time now) {
    if (!volume.lastCheck) {
        return {std::string{kNothing}, Tone::faint};
    }
    const LoggedCheck& check = *volume.lastCheck;
    return {fmt::format("{}, {}{}", loggedTimeWords(check, now), check.failed ? "failed" : "passed",
                        check.percentFree
                            ? fmt::format(" with {} free", percentWords(*check.percentFree))
                            : std::string{})};
}

Dictionary loggedCheckJson(const LoggedCheck& check) {
    Dictionary json{{"result", check.failed ? "failed" : "passed"}};
    if (check.time) {
        json.set("time", jsonTime(*check.time));
    }
    if (check.percentFree) {
        json.set("percentFree", *check.percentFree);
    }
    if (check.freeBytes) {
        json.set("freeBytes", *check.freeBytes);
    }
    if (check.sizeBytes) {
        json.set("sizeBytes", *check.sizeBytes);
    }
    return json;
}

Dictionary volumeJson(const VolumeReport& volume) {
    Dictionary json{
        {"path", volume.mountPoint},          {"name", volume.name},
        {"watched", volume.watched},          {"warningLevelPercent", volume.warningLevel},
        {"result", stateToken(volume.state)},
    };
    if (!volume.device.empty()) {
        json.set("device", volume.device);
    }
    if (volume.space) {
        json.set("sizeBytes", volume.space->sizeBytes);
        json.set("freeBytes", volume.space->freeBytes);
    }
    if (const auto percent = percentFree(volume)) {
        json.set("percentFree", *percent);
    }
    if (volume.schedule == Schedule::at) {
        json.set("nextCheck", jsonTime(volume.nextCheck));
        if (volume.isNextCheckBeyondInterval) {
            json.set("nextCheckBeyondInterval", true);
        }
    }
    if (volume.lastCheck) {
        json.set("lastCheck", loggedCheckJson(*volume.lastCheck));
    }
    return json;
}

PropertyListArray volumesJson(const std::vector<VolumeReport>& volumes) {
    PropertyListArray json;
    for (const VolumeReport& volume : volumes) {
        json.emplace_back(volumeJson(volume));
    }
    return json;
}

// The result in one cell, where no other tells of the last check. A daemon that has just started
// takes no earlier result for granted; a person still wants to know it, and from when it is.
Cell latestResultCell(const VolumeReport& volume, Time now) {
    if (volume.state != CheckState::notYetExamined || !volume.lastCheck) {
        return resultCell(volume);
    }
    const LoggedCheck& check = *volume.lastCheck;
    const CheckState then = check.failed ? CheckState::failing : CheckState::ok;
    return {
        fmt::format("{} at {}", stateWords(CheckKind::usage, then), loggedTimeWords(check, now)),
        stateTone(then)};
}

struct MissingHelper {
    std::string name;
    std::string_view consequence;
};

// The daemon's helper programs that are not where it looks for them, or cannot be run.
std::vector<MissingHelper> missingHelpers(const std::string& folder) {
    const MissingHelper all[] = {
        {"KorvaneProDirectoryBackup", "no directory backup can be made"},
        {"KorvaneProCopy", "no directory backup can be copied to the location of a user"},
        {"KorvaneProDataRecovery", "what goes through the trash cannot be recovered"},
        {"KorvaneProNotice", "warnings show no dialog"}};
    std::vector<MissingHelper> missing;
    for (const MissingHelper& helper : all) {
        if (::access(fmt::format("{}/{}", folder, helper.name).c_str(), X_OK) != 0) {
            missing.push_back(helper);
        }
    }
    return missing;
}

// Everything the three commands look at, gathered once.
struct Findings {
    Dictionary preferences;
    DaemonPresence daemon = DaemonPresence::absent;
    Time now{};
    std::vector<MissingHelper> missing;
    std::vector<DriveReport> drives;
    std::vector<VolumeReport> volumes;
};

Outcome<Findings> gather(Program& program) {
    Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) {
        return preferences.failure();
    }
    Findings findings;
    findings.preferences = std::move(*preferences);
    findings.daemon = program.daemon.presence();
    findings.now = program.now();
    findings.missing = missingHelpers(program.plugInsFolder);
    findings.drives =
        reportDrives(findings.preferences, program.supportFolder, findings.daemon, findings.now);
    findings.volumes = reportVolumes({.preferences = findings.preferences,
                                      .supportFolder = program.supportFolder,
                                      .volumes = program.volumes(),
                                      .daemon = findings.daemon,
                                      .now = findings.now});
    return findings;
}

ExitStatus statusFor(DaemonPresence daemon) {
    return daemon == DaemonPresence::reachable ? ExitStatus::done : ExitStatus::noDaemon;
}

void printStatusJson(const Program& program, const Findings& findings) {
    PropertyListArray missing;
    for (const MissingHelper& helper : findings.missing) {
        missing.emplace_back(helper.name);
    }
    printJson(program, Dictionary{{"daemonRuns", findings.daemon != DaemonPresence::absent},
                                  {"daemonReachable", findings.daemon == DaemonPresence::reachable},
                                  {"protectionOn", protectionIsOn(findings.preferences)},
                                  {"missingHelpers", std::move(missing)},
                                  {"drives", drivesJson(findings.drives)},
                                  {"volumes", volumesJson(findings.volumes)}});
}

std::string setBackWords(const std::string& name, std::string_view why, std::string_view group,
                         const std::string& named) {
    return fmt::format("\n{} is {}; set it back with: korvanectl {} {} reset\n", printable(name),
                       why, group, shellWord(printable(named)));
}

void printVolumesToSetBack(const Program& program, const std::vector<VolumeReport>& volumes) {
    for (const VolumeReport& volume : volumes) {
        if (volume.state == CheckState::stuck) {
            program.print(setBackWords(volume.name, "stuck", "volume", volume.mountPoint));
        } else if (volume.schedule == Schedule::at && volume.isNextCheckBeyondInterval) {
            program.print(
                setBackWords(volume.name, "due beyond its interval", "volume", volume.mountPoint));
        }
    }
}

void printDrivesToSetBack(const Program& program, const std::vector<DriveReport>& drives) {
    for (const DriveReport& drive : drives) {
        if (drive.schedule == Schedule::at && drive.isNextCheckBeyondInterval) {
            program.print(setBackWords(drive.model, "due beyond its interval", "drive",
                                       drive.serial.empty() ? drive.model : drive.serial));
        }
    }
}

void printStatus(const Program& program, const Findings& findings) {
    const bool runs = findings.daemon == DaemonPresence::reachable;
    const bool on = protectionIsOn(findings.preferences);
    const auto onOff = [&](const char* key) {
        return booleanValue(findings.preferences.find(key)) ? "on" : "off";
    };
    program.print(fmt::format(
        "Daemon            {}\nProtection        {}\nFree-space check  {}\nSMART check       {}\n",
        program.paint(runs ? Tone::good : Tone::bad, presenceWords(findings.daemon)),
        program.paint(on ? Tone::good : Tone::bad, on ? "on" : "off"), onOff(kVolumeUsageOnOff),
        onOff(kSmartCheckOnOff)));
    for (const MissingHelper& helper : findings.missing) {
        program.print(fmt::format(
            "Missing helper    {}\n",
            program.paint(Tone::bad, fmt::format("{}: {}", helper.name, helper.consequence))));
    }
    if (!findings.drives.empty()) {
        program.print(
            "\n" +
            drivesTable(findings.drives, findings.daemon, findings.now).format(program.paint));
        printDrivesToSetBack(program, findings.drives);
    }
    if (findings.volumes.empty()) {
        program.print("\nNo volume has been found yet.\n");
        return;
    }
    Table table{{{"VOLUME"}, {"MOUNTED AT"}, {"RESULT"}, {"LAST CHECK"}, {"NEXT CHECK"}}};
    for (const VolumeReport& volume : findings.volumes) {
        table.addRow({{volume.name},
                      {volume.mountPoint},
                      resultCell(volume),
                      lastCheckCell(volume, findings.now),
                      {nextCheckWords(volume, findings.daemon, findings.now)}});
    }
    program.print("\n" + table.format(program.paint));
    printVolumesToSetBack(program, findings.volumes);
}

Outcome<ExitStatus> runStatus(Program& program) {
    const auto findings = gather(program);
    if (!findings) {
        return findings.failure();
    }
    program.json ? printStatusJson(program, *findings) : printStatus(program, *findings);
    return statusFor(findings->daemon);
}

// Each time anything has changed: on a terminal in place of what was shown before, else below it.
Outcome<ExitStatus> runWatch(Program& program) {
    constexpr std::chrono::seconds kInterval{2};
    std::string shown;
    Program once = program;
    std::string text;
    once.print = [&text](std::string_view part) { text += part; };
    do {
        text.clear();
        if (const auto outcome = runStatus(once); !outcome) {
            return outcome.failure();
        }
        if (text != shown) {
            // ECMA-48: cursor to the beginning, erase what follows.
            program.print(program.isTerminal ? "\x1b[H\x1b[J" + text : text);
            shown = text;
        }
    } while (program.pause(kInterval));
    return ExitStatus::done;
}

Outcome<ExitStatus> runVolumes(Program& program) {
    const auto findings = gather(program);
    if (!findings) {
        return findings.failure();
    }
    if (program.json) {
        printJson(program, Dictionary{{"volumes", volumesJson(findings->volumes)}});
        return ExitStatus::done;
    }
    Table table{{{"VOLUME"},
                 {"DEVICE"},
                 {"FREE", Align::right},
                 {"", Align::right},
                 {"LEVEL", Align::right},
                 {"RESULT"},
                 {"NEXT CHECK"}}};
    for (const VolumeReport& volume : findings->volumes) {
        table.addRow({{volume.mountPoint},
                      deviceCell(volume),
                      {freeWords(volume)},
                      {percentFreeWords(volume)},
                      {levelWords(volume)},
                      latestResultCell(volume, findings->now),
                      {nextCheckWords(volume, findings->daemon, findings->now)}});
    }
    program.print(table.format(program.paint));
    return ExitStatus::done;
}

void printHistory(const Program& program, const std::vector<LoggedCheck>& checks) {
    const Time now = program.now();
    Table table{{{"TIME"}, {"RESULT"}, {"FREE", Align::right}, {"", Align::right}}};
    for (const LoggedCheck& check : checks) {
        const std::string of =
            check.freeBytes && check.sizeBytes
                ? fmt::format("{} of {}", sizeWords(*check.freeBytes), sizeWords(*check.sizeBytes))
                : std::string{kNothing};
        table.addRow(
            {{loggedTimeWords(check, now)},
             {check.failed ? "LOW SPACE" : "ok", check.failed ? Tone::bad : Tone::good},
             {of},
             {check.percentFree ? percentWords(*check.percentFree) : std::string{kNothing}}});
    }
    program.print(table.format(program.paint));
}

// Where a name is neither a volume's nor a drive's.
Failure noSuchName(const Failure& volume, const Failure& drive) {
    return {volume.status, volume.message + "; " + drive.message};
}

Outcome<ExitStatus> runHistory(Program& program, const std::string& name) {
    const Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) {
        return preferences.failure();
    }
    const Outcome<std::size_t> index = findVolume(*preferences, program.volumes(), name);
    if (!index) {
        const std::vector<DriveReport> drives = reportDrives(*preferences, program.supportFolder,
                                                             DaemonPresence::absent, program.now());
        const Outcome<DriveReport> drive = findDrive(drives, name);
        if (drive) {
            return printDriveHistory(program, *drive);
        }
        return drives.empty() ? index.failure() : noSuchName(index.failure(), drive.failure());
    }
    const std::string mountPoint =
        ConstVolumeEntry{volumeEntryAt(*preferences, *index)}.volumeMountToName();
    const auto checks =
        readVolumeLog(program.supportFolder, program.volumes().displayName(mountPoint));
    if (!checks) {
        return checks.failure();
    }
    if (program.json) {
        PropertyListArray json;
        for (const LoggedCheck& check : *checks) {
            json.emplace_back(loggedCheckJson(check));
        }
        printJson(program, Dictionary{{"path", mountPoint}, {"checks", std::move(json)}});
    } else if (checks->empty()) {
        program.print(fmt::format("No check of {} has been logged yet.\n", printable(mountPoint)));
    } else {
        printHistory(program, *checks);
    }
    return ExitStatus::done;
}

}  // namespace

void addStatusCommands(CLI::App& app, Program& program) {
    addPrintingCommand(app, program, "status", "What the daemon found, and whether it runs",
                       [&program] { return runStatus(program); });
    addPrintingCommand(app, program, "watch", "The status, again whenever it has changed",
                       [&program] { return runWatch(program); });
    addPrintingCommand(app, program, "volumes", "The volumes as a table",
                       [&program] { return runVolumes(program); });
    const auto name = std::make_shared<std::string>();
    CLI::App* const history =
        addPrintingCommand(app, program, "history", "The log of the checks of a volume or drive",
                           [&program, name] { return runHistory(program, *name); });
    history
        ->add_option("NAME", *name,
                     "Mount point or name of a volume; serial number, model or device of a drive")
        ->required();
}

}  // namespace korvane::ctl
