// A daemon that keeps the trash history of two volumes, and what users do with their trash.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/PropertyListCodec.h"
#include "scenarios/DaemonFiles.h"
#include "storage/SupportFolder.h"
#include "support/Scenario.h"
#include "trash/TrashFormats.h"

namespace korvane {

inline constexpr char kTrash[] = "/Users/ada/.Trash";
inline constexpr char kDataTrash[] = "/Volumes/Data/.Trashes/501";
inline const std::string kUsage = std::string(kSupportFolder) + "/Trash Usage.plist";
inline const std::string kProgram = std::string("/PlugIns/") + kRecoveryProgram;
// The first hour of the scenarios' day.
inline const std::string kDeletes = "Trash Deletes 2026-03-02-08";

class TrashBed : public testing::Test {
  protected:
    explicit TrashBed(const MachineDescription& machine = Scenario::describe("two-volumes"))
        : s(machine) {
        s.put(std::string(kTrash) + "/.DS_Store", "");
        s.put(std::string(kDataTrash) + "/.DS_Store", "");
        s.put("/tmp/.x", "");
        s.machine().bundle.addPlugIn(kRecoveryProgram);
        Dictionary preferences = completePreferences();
        preferences.set("volumeArray",
                        PropertyListArray{Dictionary{{"volumeMountToName", "/"},
                                                     {"trashOnOff", true},
                                                     {"executionIntervalUsage_hours", 1}},
                                          Dictionary{{"volumeMountToName", "/Volumes/Data"},
                                                     {"trashOnOff", true},
                                                     {"executionIntervalUsage_hours", 1}}});
        putPreferences(s, preferences);
        setProgram("result");
    }

    // What each run leaves as every job's result.
    void setProgram(const std::string& result) {
        s.machine().processes.setProgram(
            kProgram,
            {.duration = std::chrono::seconds(1), .work = [this, result](const auto& arguments) {
                 const auto input = files().bytes(arguments.at(1)).value_or("");
                 for (std::size_t at = 0; at < input.size(); at += kSearchJobBytes) {
                     const auto job = decodeSearchJob(std::string_view(input).substr(at, 76));
                     ASSERT_TRUE(job);
                     jobs.push_back(*job);
                     if (!result.empty()) s.put(job->searchResultPath, result);
                 }
             }});
    }
    SimulatedFileSystem& files() { return s.machine().fileSystem; }
    // An item comes into a trash folder.
    void trash(const std::string& path) {
        s.put(path, path);
        s.machine().directoryWatch.changed(path.substr(0, path.rfind('/')));
    }
    void move(const std::string& from, const std::string& to) {
        ASSERT_TRUE(files().rename(from, to));
        s.machine().directoryWatch.changed(from.substr(0, from.rfind('/')));
    }
    void empty(const std::string& path) {
        ASSERT_TRUE(files().removeItem(path));
        s.machine().directoryWatch.changed(path.substr(0, path.rfind('/')));
    }
    Dictionary usage() {
        const auto bytes = files().bytes(kUsage);
        if (!bytes) return {};
        const auto document = parsePropertyList(*bytes);
        return document && document->dictionary() ? *document->dictionary() : Dictionary{};
    }
    Dictionary record(const std::string& name) {
        for (const Dictionary::Entry& entry : usage()) {
            const Dictionary* fields = entry.value.dictionary();
            if (fields && stringValue(fields->find("itemName")) == name) return *fields;
        }
        return {};
    }
    std::vector<std::string> watched() { return s.machine().directoryWatch.subscribed(); }

    Scenario s;
    std::vector<SearchJob> jobs;
};

}  // namespace korvane
