#include "korvanectl/VolumeCommands.h"

#include <fmt/format.h>

#include <memory>
#include <utility>
#include <variant>
#include <vector>

#include "core/DefaultPreferences.h"
#include "korvanectl/CheckReset.h"
#include "korvanectl/Program.h"
#include "korvanectl/SettingRules.h"
#include "korvanectl/Table.h"
#include "korvanectl/VolumeReport.h"
#include "korvanectl/Words.h"
#include "storage/EntryFields.h"
#include "storage/VolumeEntry.h"

namespace korvane::ctl {

namespace {

using Words = std::vector<std::string>;

struct VolumeCheck {
    CheckKind kind;
    CheckKeys keys;
};
constexpr VolumeCheck kVolumeChecks[] = {{CheckKind::usage, kUsageKeys},
                                         {CheckKind::directory, kDirectoryKeys}};
constexpr CheckKeys kVolumeCheckKeys[] = {kUsageKeys, kDirectoryKeys};

// The entry that findVolume() finds, for changing.
Outcome<Dictionary*> entryToEdit(Dictionary& preferences, Volumes& volumes,
                                 const std::string& volume) {
    const Outcome<std::size_t> index = findVolume(preferences, volumes, volume);
    if (!index) {
        return index.failure();
    }
    return (*preferences.find(kVolumeArray)->array())[*index].dictionary();
}

// The same for reading; null when it is gone.
const Dictionary* entryToLookAt(const Dictionary& preferences, Volumes& volumes,
                                const std::string& volume) {
    const Outcome<std::size_t> index = findVolume(preferences, volumes, volume);
    return index ? &volumeEntryAt(preferences, *index) : nullptr;
}

Failure noSuchSetting(const std::string& key) {
    return {ExitStatus::refused,
            fmt::format("no setting \"{}\" of a volume; korvanectl volume NAME get shows all of "
                        "them",
                        printable(key))};
}

// What a stored value means where its form does not say it.
std::string meaning(const Dictionary& entry, const std::string& key, Program& program) {
    for (const auto& [kind, keys] : kVolumeChecks) {
        const Time due = executionTime(entry, keys);
        if (key == keys.status) {
            return stateWords(kind, checkState(kind, entryStatus(entry, keys), due, program.now(),
                                               program.daemon.presence()));
        }
        if (key == keys.executionTime) {
            return formatLocalTime(due, "%Y-%m-%d %H:%M:%S") +
                   (isDueBeyondInterval(entry, keys, program.now()) ? beyondIntervalWords() : "");
        }
    }
    return {};
}

Outcome<ExitStatus> runGet(Program& program, const std::string& volume, const std::string& key) {
    const Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) {
        return preferences.failure();
    }
    const Outcome<std::size_t> index = findVolume(*preferences, program.volumes(), volume);
    if (!index) {
        return index.failure();
    }
    const Dictionary& entry = volumeEntryAt(*preferences, *index);
    if (key.empty()) {
        Table table{{{"SETTING"}, {"VALUE"}, {""}}};
        for (const auto& [name, value] : entry) {
            table.addRow({{name}, {valueWords(value)}, {meaning(entry, name, program)}});
        }
        program.json ? printJson(program, entry) : program.print(table.format(program.paint));
        return ExitStatus::done;
    }
    const PropertyList* const value = entry.find(key);
    if (value == nullptr) {
        return noSuchSetting(key);
    }
    if (program.json) {
        printJson(program, Dictionary{{key, *value}});
    } else {
        program.print(printable(valueWords(*value)) + '\n');
    }
    return ExitStatus::done;
}

// Edits that are well typed and yet would not mean what they say.
std::optional<Failure> objectionTo(const Dictionary& edited, const std::string& key) {
    const ConstVolumeEntry entry{edited};
    if (entry.isCoreStorageEncrypted() && (entry.directoryOnOff() || entry.trashOnOff()) &&
        (key == "directoryOnOff" || key == "trashOnOff")) {
        return Failure{ExitStatus::refused,
                       fmt::format("the volume is encrypted, so the daemon keeps {} off", key)};
    }
    for (const auto& [kind, keys] : kVolumeChecks) {
        const bool isPart =
            key == keys.intervalHours || key == keys.intervalMinutes || key == keys.intervalSeconds;
        const CheckInterval interval = executionInterval(edited, keys);
        if (isPart && interval.hours == 0 && interval.minutes == 0 && interval.seconds == 0) {
            return Failure{ExitStatus::refused,
                           "hours, minutes and seconds would all be 0 and the check would never "
                           "rest; set another part first"};
        }
    }
    return std::nullopt;
}

Outcome<ExitStatus> runSet(Program& program, const std::string& volume, const std::string& key,
                           const Words& words) {
    const auto value = std::make_shared<PropertyList>();
    return finishEdit(program, volumeEdit(program.volumes(), volume, key, words, value), [=] {
        return fmt::format("{} of {} is {}", printable(key), printable(volume),
                           printable(valueWords(*value)));
    });
}

Outcome<ExitStatus> runReset(Program& program, const std::string& volume) {
    // The entry as it was when the last try began.
    const auto before = std::make_shared<Dictionary>();
    const auto anyReset = std::make_shared<bool>(false);
    Volumes& volumes = program.volumes();
    const Edit edit{
        .apply = [=, &volumes, &program](Dictionary& preferences) -> Outcome<std::monostate> {
            const Outcome<Dictionary*> entry = entryToEdit(preferences, volumes, volume);
            if (!entry) {
                return entry.failure();
            }
            *before = **entry;
            *anyReset = setBackChecks(**entry, kVolumeCheckKeys, program.now()) || *anyReset;
            return std::monostate{};
        },
        .holds =
            [=, &volumes, &program](const Dictionary& preferences) {
                const Dictionary* const entry = entryToLookAt(preferences, volumes, volume);
                return entry == nullptr ||
                       !isToBeSetBack(*entry, *before, kVolumeCheckKeys, program.now());
            }};
    return finishEdit(program, edit, [=] {
        return *anyReset
                   ? fmt::format("{} is set back and will be examined anew", printable(volume))
                   : fmt::format("no check of {} is stuck", printable(volume));
    });
}

}  // namespace

Edit volumeEdit(Volumes& volumes, const std::string& volume, const std::string& key,
                const std::vector<std::string>& words, const std::shared_ptr<PropertyList>& value) {
    return Edit{.apply = [=, &volumes](Dictionary& preferences) -> Outcome<std::monostate> {
                    const Outcome<Dictionary*> entry = entryToEdit(preferences, volumes, volume);
                    if (!entry) {
                        return entry.failure();
                    }
                    const auto rule = ruleFor(volumeRules(), key, (*entry)->find(key));
                    if (!rule) {
                        return noSuchSetting(key);
                    }
                    Result<PropertyList> typed = typedValue(*rule, words);
                    if (!typed) {
                        return Failure{ExitStatus::refused, typed.error().message};
                    }
                    *value = *typed;
                    (*entry)->set(key, *typed);
                    if (const auto objection = objectionTo(**entry, key)) {
                        return *objection;
                    }
                    return std::monostate{};
                },
                .holds =
                    [=, &volumes](const Dictionary& preferences) {
                        const Dictionary* const entry = entryToLookAt(preferences, volumes, volume);
                        const PropertyList* const stored =
                            entry != nullptr ? entry->find(key) : nullptr;
                        return stored != nullptr && *stored == *value;
                    }};
}

void addVolumeCommands(CLI::App& app, Program& program) {
    const auto volume = std::make_shared<std::string>();
    const auto key = std::make_shared<std::string>();
    const auto words = std::make_shared<Words>();

    CLI::App* const group = app.add_subcommand("volume", "Show or change the settings of a volume");
    group->add_option("VOLUME", *volume, "Mount point or name of a volume")->required();
    group->require_subcommand(1);

    CLI::App* const get =
        addPrintingCommand(*group, program, "get", "Show one setting of the volume, or all",
                           [&program, volume, key] { return runGet(program, *volume, *key); });
    get->add_option("KEY", *key, "Name of a setting");

    CLI::App* const set = addCommand(
        *group, program, "set", "Change a setting of the volume",
        [&program, volume, key, words] { return runSet(program, *volume, *key, *words); });
    set->add_option("KEY", *key, "Name of a setting")->required();
    set->add_option("VALUE", *words, "New value")->required()->expected(1);

    addCommand(*group, program, "reset", "Set back a check that is stuck or due too far ahead",
               [&program, volume] { return runReset(program, *volume); });
}

}  // namespace korvane::ctl
