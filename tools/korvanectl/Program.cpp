#include "korvanectl/Program.h"

#include <fmt/format.h>

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <memory>
#include <utility>

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
        program.note(fmt::format("{}; see korvanectl --help", printable(error.what())));
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
