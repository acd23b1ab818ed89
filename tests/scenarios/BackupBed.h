// A machine with a volume "Data" whose directory backup is due at the first tick, a second disk
// "Backup" to copy to, and the programs that a backup launches.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/PropertyList.h"
#include "support/Scenario.h"

namespace korvane {

class BackupBed : public Scenario {
  public:
    // The form in which the settings name the places to copy to.
    static constexpr char kSystem[] = "/Volumes/System";
    static constexpr char kBackup[] = "/Volumes/Backup";

    explicit BackupBed(std::vector<std::string> locations = {kSystem, kBackup});

    // Replaces the settings: what is copied where, and the volumes' entries as `edit` leaves them.
    void putSettings(const std::vector<std::string>& locations,
                     const std::function<void(Dictionary& data)>& edit = nullptr,
                     std::int64_t filesToSave = 3);
    // The helper needs so long and then writes its file; nothing: it never ends by itself.
    void helperTakes(std::optional<std::chrono::microseconds> duration);
    void helperWritesNothing();
    void copyTakes(std::optional<std::chrono::microseconds> duration);
    // A backup of this age by its date, in the folder of Data at a location or, for "", in the
    // support folder; its name.
    std::string putBackup(const std::string& location, std::chrono::seconds age);

    // The programs' runs so far.
    [[nodiscard]] std::vector<SimulatedProcesses::Launch> helpers();
    [[nodiscard]] std::vector<SimulatedProcesses::Launch> copies();
    // Those of the program that copies with the rights of an account.
    [[nodiscard]] std::vector<SimulatedProcesses::Launch> copiesOfAccounts();
    // The names of the backups of Data, sorted, at a location or in the support folder.
    [[nodiscard]] std::vector<std::string> backups(const std::string& location = "");
    [[nodiscard]] std::string status(const std::string& path = "/Volumes/Data");
    [[nodiscard]] double dueTime(const std::string& path = "/Volumes/Data");
    // Whether the main application is told that a backup is due or runs.
    [[nodiscard]] bool isActive();
    void reload() { send("daemonPreferencesUpdatedNotification"); }

  private:
    void setHelper(std::optional<std::chrono::microseconds> duration, bool writes);
};

}  // namespace korvane
