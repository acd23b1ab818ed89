// What every command works with. Each group of commands is one file that adds its subcommands to
// the command line and carries them out.
#pragma once

#include <CLI/App.hpp>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "korvanectl/DaemonLink.h"
#include "korvanectl/Outcome.h"
#include "korvanectl/Preferences.h"
#include "korvanectl/Text.h"
#include "platform/Volumes.h"

namespace korvane::ctl {

enum class Echo { on, off };

struct Program {
    Preferences preferences;
    std::string supportFolder;
    std::string plugInsFolder;  // of the daemon's helper programs
    DaemonLink& daemon;
    std::function<Volumes&()> volumes;  // made when first asked for
    std::function<Time()> now;
    Paint paint;
    std::function<void(std::string_view)> print;  // to standard output
    std::function<void(std::string_view)> note;   // one line to standard error
    // Shows a line in place of the one shown before; an empty one takes it away. On a terminal.
    std::function<void(std::string_view)> progress;
    // Waits. False when the program was asked to end, which is noticed here alone once
    // beMainApplication() has been called; before, it ends at once.
    std::function<bool(std::chrono::milliseconds)> pause;
    // From here on the process goes by the name of the main application's processes.
    std::function<void()> beMainApplication;
    bool isTerminal = false;  // standard output is one

    // Puts a question and gives the line that was typed, shown or not; nothing at the end of input.
    std::function<std::optional<std::string>(const std::string& question, Echo echo)> ask;

    // Set by the command line.
    bool json = false;
    std::function<Outcome<ExitStatus>()> command;
};

// Adds one subcommand that runs `run` when the whole line has been understood.
CLI::App* addCommand(CLI::App& parent, Program& program, const std::string& name,
                     const std::string& description, std::function<Outcome<ExitStatus>()> run);
// One that prints data, and does so as JSON when asked to.
CLI::App* addPrintingCommand(CLI::App& parent, Program& program, const std::string& name,
                             const std::string& description,
                             std::function<Outcome<ExitStatus>()> run);

// Adds a subcommand that only holds others.
CLI::App& addGroup(CLI::App& parent, const std::string& name, const std::string& description);
// One that consists of a word to the daemon, and of what is said when the daemon took it.
void addWordCommand(CLI::App& parent, Program& program, const std::string& name,
                    const std::string& description, const char* word, const char* done);

// Sends the word and says so.
[[nodiscard]] Outcome<ExitStatus> sendWord(Program& program, const char* word, const char* done);

// Prints the value as JSON.
void printJson(const Program& program, const PropertyList& value);

// Makes the edit and says what became of it: `done` makes the sentence, without its full stop, when
// the edit is in place.
[[nodiscard]] Outcome<ExitStatus> finishEdit(Program& program, const Edit& edit,
                                             const std::function<std::string()>& done);

void addStatusCommands(CLI::App& app, Program& program);   // status, watch, volumes, history
void addDriveCommands(CLI::App& app, Program& program);    // drives
void addSettingCommands(CLI::App& app, Program& program);  // get, set, reload
void addVolumeCommands(CLI::App& app, Program& program);   // volume NAME get, set, reset
void addTrashCommands(CLI::App& app, Program& program);    // trash
void addTrashRecovery(CLI::App& group, Program& program);  // recover, within trash
// start, stop, wait, free-space, emergency, create, delete, send
void addControlCommands(CLI::App& app, Program& program);
void addBackupCommands(CLI::App& app, Program& program);      // backup
void addBackupListCommands(CLI::App& app, Program& program);  // backups
void addLocationCommands(CLI::App& app, Program& program);    // locations
void addMailCommands(CLI::App& app, Program& program);        // mail show, mail set, test-mail

// Understands and carries out one command line; what it answers is the process's exit status.
[[nodiscard]] int runProgram(Program& program, int argumentCount, const char* const* arguments);

}  // namespace korvane::ctl
