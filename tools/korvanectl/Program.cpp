#include "korvanectl/Program.h"

#include <fmt/format.h>

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <memory>
#include <utility>
#include <vector>

#include "korvanectl/Json.h"

namespace korvane::ctl {

CLI::App* addCommand(CLI::App& parent, Program& program, const std::string& name,
                     const std::string& description, std::function<Outcome<ExitStatus>()> run) {
    CLI::App* const command = parent.add_subcommand(name, description);
    command->callback([&program, run = std::move(run)] { program.command = run; });
    return command;
}

CLI::App* addPrintingCommand(CLI::App& parent, Program& program, const std::string& name,
                             const std::string& description,
                             std::function<Outcome<ExitStatus>()> run) {
    CLI::App* const command = addCommand(parent, program, name, description, std::move(run));
    command->add_flag("--json", program.json, "Print data as JSON");
    return command;
}

CLI::App& addGroup(CLI::App& parent, const std::string& name, const std::string& description) {
    CLI::App* const group = parent.add_subcommand(name, description);
    group->require_subcommand(1);
    return *group;
}

void addWordCommand(CLI::App& parent, Program& program, const std::string& name,
                    const std::string& description, const char* word, const char* done) {
    addCommand(parent, program, name, description,
               [&program, word, done] { return sendWord(program, word, done); });
}

Outcome<ExitStatus> sendWord(Program& program, const char* word, const char* done) {
    const Outcome<bool> answer = program.daemon.send(word);
    if (!answer) {
        return answer.failure();
    }
    program.print(fmt::format("{}\n", done));
    return ExitStatus::done;
}

void printJson(const Program& program, const PropertyList& value) {
    program.print(formatJson(value));
}

Outcome<ExitStatus> finishEdit(Program& program, const Edit& edit,
                               const std::function<std::string()>& done) {
    const Outcome<Told> told = program.preferences.edit(program.daemon, edit);
    if (!told) {
        return told.failure();
    }
    program.print(fmt::format("{}.\n", done()));
    if (*told == Told::nobody) {
        program.note("the daemon does not run; the change counts when it starts");
    }
    return ExitStatus::done;
}

namespace {

// What is wrong with a command line, named by the word that is wrong where there is one.
std::string complaint(const CLI::App& app, const CLI::ParseError& error) {
    std::string place = app.get_name();
    const CLI::App* innermost = &app;
    while (!innermost->get_subcommands().empty()) {
        innermost = innermost->get_subcommands().back();
        place += ' ' + innermost->get_name();
    }
    std::string what = error.what();
    if (const std::vector<std::string> left = app.remaining(true); !left.empty()) {
        const std::string& word = left.front();
        const bool isCommand = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
        what = word.starts_with('-') ? fmt::format("there is no option \"{}\"", word)
               : isCommand           ? fmt::format("there is no command \"{} {}\"", place, word)
                                     : fmt::format("\"{}\" is one word too many", word);
    } else if (what == CLI::RequiredError::Subcommand(1).what()) {
        what = fmt::format("\"{}\" needs a command", place);
    }
    return fmt::format("{}; see {} --help", printable(what), place);
}

}  // namespace

int runProgram(Program& program, int argumentCount, const char* const* arguments) {
    CLI::App app{"Shows what the Korvane Pro protection daemon found, and changes its settings.",
                 "korvanectl"};
    app.set_version_flag("--version", "korvanectl " KORVANE_VERSION);
    app.add_flag("--json", program.json, "Print data as JSON");
    app.require_subcommand(1);
    addStatusCommands(app, program);
    addDriveCommands(app, program);
    addSettingCommands(app, program);
    addVolumeCommands(app, program);
    addTrashCommands(app, program);
    addControlCommands(app, program);
    addBackupCommands(app, program);
    addBackupListCommands(app, program);
    addLocationCommands(app, program);
    addMailCommands(app, program);
    try {
        app.parse(argumentCount, arguments);
    } catch (const CLI::CallForHelp&) {
        program.print(app.help());
        return static_cast<int>(ExitStatus::done);
    } catch (const CLI::CallForVersion& version) {
        program.print(fmt::format("{}\n", version.what()));
        return static_cast<int>(ExitStatus::done);
    } catch (const CLI::ParseError& error) {
        program.note(complaint(app, error));
        return static_cast<int>(ExitStatus::refused);
    }
    const Outcome<ExitStatus> outcome = program.command();
    if (!outcome) {
        program.note(outcome.failure().message);
        return static_cast<int>(outcome.failure().status);
    }
    return static_cast<int>(*outcome);
}

}  // namespace korvane::ctl
