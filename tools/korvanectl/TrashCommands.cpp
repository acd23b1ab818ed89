// The trash history: trash recover.
#include "korvanectl/Program.h"

namespace korvane::ctl {

void addTrashCommands(CLI::App& app, Program& program) {
    CLI::App* const group = app.add_subcommand("trash", "Work with what went through the trash");
    group->require_subcommand(1);
    addTrashRecovery(*group, program);
}

}  // namespace korvane::ctl
