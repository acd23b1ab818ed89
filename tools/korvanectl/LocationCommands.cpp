// Where directory backups are copied to: locations, and its add and remove.

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <variant>

#include "core/DefaultPreferences.h"
#include "korvanectl/BackupList.h"
#include "korvanectl/Program.h"
#include "korvanectl/VolumeReport.h"
#include "storage/PathText.h"

namespace korvane::ctl {

namespace {

// The form in which the settings name a volume.
constexpr char kVolumesFolder[] = "/Volumes/";

// The location that the path of a mounted volume, or its link in the volumes folder, stands for.
Outcome<std::string> locationOf(Volumes& volumes, const std::string& path) {
    const std::vector<std::string>& mounted = volumes.mountedLocalVolumePaths();
    const auto isMounted = [&](const std::string& place) {
        return std::find(mounted.begin(), mounted.end(), place) != mounted.end();
    };
    const std::unique_ptr<char, decltype(&std::free)> real{::realpath(path.c_str(), nullptr),
                                                           &std::free};
    if (!isMounted(path) && !(real && isMounted(real.get()))) {
        return Failure{ExitStatus::refused,
                       fmt::format("\"{}\" is not a mounted volume", printable(path))};
    }
    if (path.starts_with(kVolumesFolder) &&
        lastPathComponent(path) == path.substr(std::string_view(kVolumesFolder).size())) {
        return path;
    }
    return kVolumesFolder + volumes.displayName(real && isMounted(real.get()) ? real.get() : path);
}

bool hasLocation(const Dictionary& preferences, const std::string& location) {
    const PropertyListArray locations = backupLocations(preferences);
    return std::find(locations.begin(), locations.end(), PropertyList(location)) != locations.end();
}

Outcome<ExitStatus> runShow(Program& program) {
    const Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) {
        return preferences.failure();
    }
    const PropertyListArray locations = backupLocations(*preferences);
    if (program.json) {
        printJson(program, PropertyList(locations));
        return ExitStatus::done;
    }
    for (const PropertyList& location : locations) {
        program.print(printable(stringValue(&location)) + '\n');
    }
    return ExitStatus::done;
}

Outcome<ExitStatus> runAdd(Program& program, const std::string& path) {
    const Outcome<std::string> location = locationOf(program.volumes(), path);
    if (!location) {
        return location.failure();
    }
    const Edit edit{
        .apply = [name = *location](Dictionary& preferences) -> Outcome<std::monostate> {
            if (!hasLocation(preferences, name)) {
                PropertyListArray locations = backupLocations(preferences);
                locations.emplace_back(name);
                preferences.set(kDirectoryBackupLocations, std::move(locations));
            }
            return std::monostate{};
        },
        .holds = [name = *location](
                     const Dictionary& preferences) { return hasLocation(preferences, name); }};
    return finishEdit(program, edit, [name = *location] {
        return fmt::format("Directory backups are copied to {}", printable(name));
    });
}

// The path as it is stored, since what is to be removed need not be mounted any more; else as
// adding takes it.
Outcome<ExitStatus> runRemove(Program& program, const std::string& words) {
    const Outcome<Dictionary> stored = program.preferences.read();
    if (!stored) {
        return stored.failure();
    }
    std::string path = words;
    if (!hasLocation(*stored, words)) {
        if (const Outcome<std::string> location = locationOf(program.volumes(), words)) {
            path = *location;
        }
    }
    const Edit edit{
        .apply = [path](Dictionary& preferences) -> Outcome<std::monostate> {
            if (!hasLocation(preferences, path)) {
                return Failure{ExitStatus::refused,
                               fmt::format("\"{}\" is no backup location; korvanectl "
                                           "locations shows all of them",
                                           printable(path))};
            }
            PropertyListArray locations = backupLocations(preferences);
            std::erase(locations, PropertyList(path));
            if (locations.empty()) {
                return Failure{ExitStatus::refused,
                               "the last location cannot be removed; add another one "
                               "first"};
            }
            preferences.set(kDirectoryBackupLocations, std::move(locations));
            return std::monostate{};
        },
        .holds = [path](const Dictionary& preferences) { return !hasLocation(preferences, path); }};
    return finishEdit(program, edit, [path] {
        return fmt::format("Directory backups are no longer copied to {}", printable(path));
    });
}

}  // namespace

void addLocationCommands(CLI::App& app, Program& program) {
    const auto path = std::make_shared<std::string>();
    CLI::App* const locations =
        addPrintingCommand(app, program, "locations", "Show where directory backups are copied to",
                           [&program] { return runShow(program); });
    locations->require_subcommand(0, 1);
    // Called after that of a subcommand, whose command stays.
    locations->callback([&program, locations] {
        if (locations->get_subcommands().empty()) {
            program.command = [&program] { return runShow(program); };
        }
    });
    addCommand(*locations, program, "add", "Copy them to this volume too",
               [&program, path] { return runAdd(program, *path); })
        ->add_option("PATH", *path, "Mount point of a volume, or its link in /Volumes")
        ->required();
    addCommand(*locations, program, "remove", "Copy them there no longer",
               [&program, path] { return runRemove(program, *path); })
        ->add_option("PATH", *path, "A location as korvanectl locations shows it")
        ->required();
}

}  // namespace korvane::ctl
