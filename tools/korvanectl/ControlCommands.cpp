// What steers the running daemon: start, stop, wait, free-space, emergency, create, delete, send.

#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "core/DefaultPreferences.h"
#include "korvanectl/Program.h"
#include "korvanectl/VolumeReport.h"
#include "storage/EntryFields.h"

namespace korvane::ctl {

namespace {

using std::chrono::seconds;
using Paths = std::vector<std::string>;

Outcome<ExitStatus> runSwitch(Program& program, bool isOn, const char* word) {
    const Edit edit{.apply = [isOn](Dictionary& preferences) -> Outcome<std::monostate> {
                        preferences.set(kDaemonOn, isOn);
                        return std::monostate{};
                    },
                    .holds =
                        [isOn](const Dictionary& preferences) {
                            const PropertyList* const stored = preferences.find(kDaemonOn);
                            return stored != nullptr && booleanValue(stored) == isOn;
                        },
                    .word = word};
    return finishEdit(program, edit, [isOn] {
        return std::string{isOn ? "Protection is on" : "Protection is off"};
    });
}

// Asks until the answer is yes.
Outcome<ExitStatus> runWait(Program& program, const char* question, std::string_view work) {
    constexpr seconds kInterval{1};
    for (seconds waited{0};; waited += kInterval) {
        const Outcome<bool> complete = program.daemon.send(question);
        program.progress("");
        if (!complete) {
            return complete.failure();
        }
        if (*complete) {
            program.print(fmt::format("No {} is due or under way.\n", work));
            return ExitStatus::done;
        }
        program.progress(
            fmt::format("A {} is due or under way: waiting for {} s ...", work, waited.count()));
        if (!program.pause(kInterval)) {
            return Failure{ExitStatus::noReply, fmt::format("the {} has not ended yet", work)};
        }
    }
}

constexpr char kIgnoreEmergencyVolume[] = "QLDaemonIgnoreMountedOstrand";
constexpr char kUnmountEmergencyVolume[] = "QLDaemonUnmountMountedDrive";

// The free-space checks that came due meanwhile have let their entries stand as running, and would
// hold up all others until the daemon's next start: they are set back.
Outcome<ExitStatus> runFreeSpaceCheck(Program& program) {
    const Outcome<bool> answer = program.daemon.send("QLDaemonCheckFreeSpace_WipeData_Msg");
    if (!answer) {
        return answer.failure();
    }
    const auto before = std::make_shared<Dictionary>();
    const Edit edit{.apply = [before](Dictionary& preferences) -> Outcome<std::monostate> {
                        *before = preferences;
                        setBackRunningUsageChecks(preferences);
                        return std::monostate{};
                    },
                    .holds =
                        [before](const Dictionary& preferences) {
                            return !hasStuckUsageCheck(preferences, *before);
                        }};
    return finishEdit(program, edit, [] { return std::string{"Free space is checked again"}; });
}

// The permission lasts while a process of the main application's name runs: this one.
Outcome<ExitStatus> runEmergencyKeep(Program& program) {
    // A new daemon looks for the volume 2 seconds after its start, and knows of no permission.
    constexpr seconds kInterval{1};
    program.beMainApplication();
    std::string told = program.daemon.identity();
    const Outcome<bool> begun = program.daemon.send(kIgnoreEmergencyVolume);
    if (!begun) {
        return begun.failure();
    }
    program.print("The emergency volume stays mounted until this command ends: Ctrl-C ends it.\n");
    while (program.pause(kInterval)) {
        const std::string present = program.daemon.identity();
        if (!present.empty() && present != told && program.daemon.send(kIgnoreEmergencyVolume)) {
            told = present;
            program.print("The daemon was restarted, and told again.\n");
        }
    }
    return sendWord(program, kUnmountEmergencyVolume,
                    "The emergency volume may be unmounted again.");
}

constexpr std::string_view kCreated = "Created";
constexpr std::string_view kDeleted = "Deleted";

// A path of the person's is one of the current folder; the daemon's is another.
Paths absolutePaths(const Paths& paths) {
    Paths absolute;
    for (const std::string& path : paths) {
        std::error_code error;
        const auto whole = std::filesystem::absolute(path, error);
        absolute.push_back(error ? path : whole.string());
    }
    return absolute;
}

// What became of each, as the daemon knows it: one that was never there was not deleted.
Outcome<ExitStatus> report(Program& program, const Paths& paths,
                           const Outcome<std::vector<ItemFailure>>& failures,
                           std::string_view done) {
    if (!failures) return failures.failure();
    std::string problems;
    for (const std::string& path : paths) {
        const auto failed = std::ranges::find(*failures, path, &ItemFailure::path);
        if (failed == failures->end()) {
            program.print(fmt::format("{} {}.\n", done, printable(path)));
            continue;
        }
        problems += fmt::format("{}{} could not be {}", problems.empty() ? "" : "; ",
                                printable(path), done == kCreated ? "created" : "deleted");
        if (!failed->reason.empty()) problems += ": " + printable(failed->reason);
    }
    if (!problems.empty()) return Failure{ExitStatus::fileProblem, problems};
    return ExitStatus::done;
}

Outcome<ExitStatus> runCreate(Program& program, const Paths& words) {
    const Paths paths = absolutePaths(words);
    return report(program, paths, program.daemon.createItems(paths), kCreated);
}

Outcome<ExitStatus> runDelete(Program& program, const Paths& words) {
    const Paths paths = absolutePaths(words);
    return report(program, paths, program.daemon.deleteItems(paths), kDeleted);
}

Outcome<ExitStatus> runSend(Program& program, const std::string& word) {
    const Outcome<bool> answer = program.daemon.send(word);
    if (!answer) {
        return answer.failure();
    }
    program.print(*answer ? "yes\n" : "no\n");
    return ExitStatus::done;
}

void addSwitches(CLI::App& app, Program& program) {
    addCommand(app, program, "start", "Turn protection on",
               [&program] { return runSwitch(program, true, "daemonStartYourEngines"); });
    addCommand(app, program, "stop", "Turn protection off",
               [&program] { return runSwitch(program, false, "daemonStopYourEngines"); });

    CLI::App& freeSpace = addGroup(app, "free-space", "Free-space warnings, for now");
    addWordCommand(freeSpace, program, "ignore", "Check no volume until told otherwise",
                   "QLDaemonIgnoreFreeSpace_WipeData_Msg", "Free space is not checked for now.");
    addCommand(freeSpace, program, "check", "Check volumes again",
               [&program] { return runFreeSpaceCheck(program); });

    CLI::App& emergency = addGroup(app, "emergency", "The emergency volume");
    addCommand(emergency, program, "keep", "Leave it mounted while this command runs",
               [&program] { return runEmergencyKeep(program); });
    addWordCommand(emergency, program, "release", "Let it be unmounted again",
                   kUnmountEmergencyVolume, "The emergency volume may be unmounted again.");
}

}  // namespace

void addControlCommands(CLI::App& app, Program& program) {
    addSwitches(app, program);

    CLI::App& wait = addGroup(app, "wait", "Wait until work has ended");
    addCommand(wait, program, "smart", "Wait for the SMART checks that are due",
               [&program] { return runWait(program, "isSMARTExecuteComplete", "SMART check"); });
    addCommand(wait, program, "backup", "Wait for the directory backups that are due", [&program] {
        return runWait(program, "isDirectoryExecuteComplete", "directory backup");
    });

    const auto paths = std::make_shared<Paths>();
    addCommand(app, program, "create", "Have the daemon create empty files",
               [&program, paths] { return runCreate(program, *paths); })
        ->add_option("PATH", *paths, "What to create, or to empty")
        ->required();
    addCommand(app, program, "delete", "Have the daemon delete files and folders",
               [&program, paths] { return runDelete(program, *paths); })
        ->add_option("PATH", *paths, "What to delete, a folder with its contents")
        ->required();

    const auto word = std::make_shared<std::string>();
    addCommand(app, program, "send", "Send the daemon a command word and show its answer",
               [&program, word] { return runSend(program, *word); })
        ->add_option("WORD", *word, "A command word, sent as it is")
        ->required();
}

}  // namespace korvane::ctl
