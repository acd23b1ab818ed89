// What the drives of a simulated machine do when they are asked for their SMART status: in health
// at first, then as a test has it. Drives go by the name of their service and count the commands
// that reach them.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "platform/SmartInterface.h"
#include "platform/simulated/SimulatedClock.h"
#include "platform/simulated/SimulatedJournal.h"

namespace korvane {

// What opening a drive says that is not there.
inline constexpr DriveStatus kDriveGone = 2;

enum class DriveCondition {
    healthy,
    failing,       // its threshold is exceeded
    smartOff,      // stays off although it was switched on
    withoutSmart,  // its facility cannot be opened
    noAutosave,    // refuses to keep its attributes
    refusing,      // refuses to switch SMART on
    unanswering,   // the status alone fails
    resting,       // has answered before, and is not asked now
    hanging,       // every command takes its time limit and fails
    notPermitted,  // the process has not the right
    vanishing,     // is gone when it is opened
    leaving,       // goes while it is asked: it says what it is, and then nothing
};

class SimulatedDrives {
  public:
    SimulatedDrives(SimulatedClock& clock, SimulatedJournal& journal)
        : clock_(clock), journal_(journal) {}

    void setCondition(const std::string& drive, DriveCondition condition);
    [[nodiscard]] DriveCondition condition(const std::string& drive) const;
    // Commands that reached the drive so far.
    [[nodiscard]] std::uint64_t commandCount(const std::string& drive) const;

    [[nodiscard]] SmartOpening open(const std::string& drive);
    // A command reaches the drive: time passes while it hangs, and the status says whether it did
    // as it was told.
    [[nodiscard]] DriveStatus command(const std::string& drive, const char* name);

  private:
    SimulatedClock& clock_;
    SimulatedJournal& journal_;
    std::map<std::string, DriveCondition> conditions_;
    std::map<std::string, std::uint64_t> commandCounts_;
};

}  // namespace korvane
