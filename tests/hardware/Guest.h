// What a test does inside the emulated machine: mount and fill real disks, run the real daemon, and
// read what it keeps. Not for the build machine: it mounts and writes wherever it says.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "base/PropertyList.h"

namespace korvane::guest {

inline const std::string kSupportFolder = "/Library/Application Support/Korvane Protection";
inline const std::string kPreferences = kSupportFolder + "/KorvaneProtection.plist";

// Loads a driver and what it needs, as the kernel package has them.
void loadModule(const std::string& name);

// Makes the folder and mounts the device there; unmounts. A failure is the test's.
void mountDevice(const std::string& device, const std::string& type, const std::string& path);
void unmount(const std::string& path);

// Fills the volume until this share of it is taken, with one file; emptyAgain removes it.
void fill(const std::string& volume, int percent);
void emptyAgain(const std::string& volume);

[[nodiscard]] std::optional<Dictionary> readDictionary(const std::string& path);
// Rewrites the preferences while no daemon runs.
void editPreferences(const std::function<void(Dictionary&)>& edit);

// The entry of a volume in the preferences as they are now.
[[nodiscard]] std::optional<Dictionary> volumeEntry(const std::string& mountPoint);
[[nodiscard]] std::string usageStatus(const std::string& mountPoint);
// The history of a volume by its display name, oldest first.
[[nodiscard]] PropertyListArray usageHistory(const std::string& displayName);
[[nodiscard]] std::string lastResult(const std::string& displayName);

// Leaves a copy of the support folder in /results, for a look at it after a failure.
void keepSupportFolder();

// Looks until it is so, for half a minute at most.
[[nodiscard]] bool becomes(const std::function<bool()>& condition);

// The daemon, in a time namespace in which the machine has been up long enough for it to begin. Its
// log goes to /results, which outlives the machine.
class RunningDaemon {
  public:
    RunningDaemon();
    ~RunningDaemon();
    RunningDaemon(const RunningDaemon&) = delete;
    RunningDaemon& operator=(const RunningDaemon&) = delete;

    // Ends it with SIGTERM; its exit status, or nothing when it had to be killed.
    std::optional<int> stop();

  private:
    pid_t process_ = -1;
};

}  // namespace korvane::guest
