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

// The device file of the whole disk with this serial number; empty when there is none.
[[nodiscard]] std::string diskOf(const std::string& serial);

// Makes the folder and mounts the device there, with mount(2)'s flags; unmounts. A failure is the
// test's.
void mountDevice(const std::string& device, const std::string& type, const std::string& path,
                 unsigned long flags = 0);
void unmount(const std::string& path);

// Runs a command of the shell's and expects it to succeed.
void run(const std::string& command);

// Has the emulator carry out a command (emulator_control), and expects it to succeed.
void askEmulator(const std::string& command);

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

// How many lines of the daemons' log so far hold the text.
[[nodiscard]] int linesLogged(const std::string& text);

// For as long as this lives the machine's clock is behind.
class ClockSteppedBack {
  public:
    explicit ClockSteppedBack(std::chrono::seconds by) : by_(by) { step(-by_); }
    ~ClockSteppedBack() { step(by_); }
    ClockSteppedBack(const ClockSteppedBack&) = delete;
    ClockSteppedBack& operator=(const ClockSteppedBack&) = delete;

  private:
    static void step(std::chrono::seconds by);

    std::chrono::seconds by_;
};

// The daemon, in a time namespace in which the machine has been up long enough for it to begin. Its
// log goes to /results, which outlives the machine.
class RunningDaemon {
  public:
    RunningDaemon();
    ~RunningDaemon();
    RunningDaemon(const RunningDaemon&) = delete;
    RunningDaemon& operator=(const RunningDaemon&) = delete;

    // Has it look at everything again: the application becoming active.
    void wake() const;
    // Ends it with SIGTERM; its exit status, or nothing when it had to be killed.
    std::optional<int> stop();

  private:
    pid_t process_ = -1;
};

}  // namespace korvane::guest
