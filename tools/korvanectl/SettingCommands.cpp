// The preferences themselves: get, set, reload.

#include <fmt/format.h>

#include <memory>
#include <utility>
#include <vector>

#include "korvanectl/Json.h"
#include "korvanectl/Program.h"
#include "korvanectl/SettingRules.h"
#include "korvanectl/Table.h"
#include "korvanectl/Words.h"

namespace korvane::ctl {

namespace {

using Words = std::vector<std::string>;

// A password in its stored form is as good as the password.
constexpr std::string_view kPassword = "emailPassword";
constexpr std::string_view kNotShown = "(set, not shown)";

PropertyList shown(std::string_view key, const PropertyList& value) {
    const bool hidden = key == kPassword && !stringValue(&value).empty();
    return hidden ? PropertyList{kNotShown} : value;
}

Outcome<ExitStatus> printAll(Program& program, const Dictionary& preferences) {
    if (program.json) {
        Dictionary json;
        for (const auto& [key, value] : preferences) {
            json.set(key, shown(key, value));
        }
        printJson(program, json);
        return ExitStatus::done;
    }
    Table table{{{"SETTING"}, {"VALUE"}}};
    for (const auto& [key, value] : preferences) {
        table.addRow({{key}, {valueWords(shown(key, value))}});
    }
    program.print(table.format(program.paint));
    return ExitStatus::done;
}

// A bare value, as a script wants it: a list's elements one a line, entries as JSON.
std::string bareValue(const PropertyList& value) {
    const PropertyListArray* const array = value.array();
    if (value.dictionary() != nullptr) {
        return formatJson(value);
    }
    if (array == nullptr) {
        return printable(valueWords(value)) + '\n';
    }
    std::string lines;
    for (const PropertyList& element : *array) {
        if (element.dictionary() != nullptr || element.array() != nullptr) {
            return formatJson(value);
        }
        lines += printable(valueWords(element)) + '\n';
    }
    return lines;
}

Outcome<ExitStatus> runGet(Program& program, const std::string& key) {
    const Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) {
        return preferences.failure();
    }
    if (key.empty()) {
        return printAll(program, *preferences);
    }
    const PropertyList* const stored = preferences->find(key);
    if (stored == nullptr) {
        return Failure{ExitStatus::refused,
                       ruleFor(preferenceRules(), key, nullptr)
                           ? fmt::format("{} is not set", key)
                           : fmt::format("no setting \"{}\"; korvanectl get shows all of them",
                                         printable(key))};
    }
    const PropertyList value = shown(key, *stored);
    if (program.json) {
        printJson(program, Dictionary{{key, value}});
    } else {
        program.print(bareValue(value));
    }
    return ExitStatus::done;
}

Outcome<ExitStatus> runSet(Program& program, const std::string& key, const Words& words) {
    const auto value = std::make_shared<PropertyList>();
    const Edit edit{.apply = [=](Dictionary& preferences) -> Outcome<std::monostate> {
                        const auto rule = ruleFor(preferenceRules(), key, preferences.find(key));
                        if (!rule) {
                            return Failure{
                                ExitStatus::refused,
                                fmt::format("no setting \"{}\"; korvanectl get shows all of them",
                                            printable(key))};
                        }
                        Result<PropertyList> typed = typedValue(*rule, words);
                        if (!typed) {
                            return Failure{ExitStatus::refused, typed.error().message};
                        }
                        *value = *typed;
                        preferences.set(key, *typed);
                        return std::monostate{};
                    },
                    .holds =
                        [=](const Dictionary& preferences) {
                            const PropertyList* const stored = preferences.find(key);
                            return stored != nullptr && *stored == *value;
                        }};
    return finishEdit(program, edit, [=] {
        return fmt::format("{} is {}", printable(key), printable(valueWords(*value)));
    });
}

Outcome<ExitStatus> runReload(Program& program) {
    const Outcome<bool> told = program.daemon.send(kReloadWord);
    if (!told) {
        return told.failure();
    }
    program.print("The daemon has read its preferences again.\n");
    return ExitStatus::done;
}

}  // namespace

void addSettingCommands(CLI::App& app, Program& program) {
    const auto key = std::make_shared<std::string>();
    const auto words = std::make_shared<Words>();

    CLI::App* const get = addPrintingCommand(app, program, "get", "Show one setting, or all",
                                             [&program, key] { return runGet(program, *key); });
    get->add_option("KEY", *key, "Name of a setting");

    CLI::App* const set =
        addCommand(app, program, "set", "Change a setting",
                   [&program, key, words] { return runSet(program, *key, *words); });
    set->add_option("KEY", *key, "Name of a setting")->required();
    set->add_option("VALUE", *words, "New value; a list takes several")->required();

    addCommand(app, program, "reload", "Have the daemon read its preferences again",
               [&program] { return runReload(program); });
}

}  // namespace korvane::ctl
