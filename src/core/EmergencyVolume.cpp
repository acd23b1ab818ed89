// The watch for the suite's emergency start-up volume "Ostrand", and what follows the mounting or
// unmounting of any volume.

#include <string>

#include "core/KorvaneProDaemon.h"
#include "storage/DriveInventory.h"
#include "storage/VolumeLookups.h"

namespace korvane {

using std::chrono::seconds;

namespace {

constexpr char kEmergencyVolume[] = "/Volumes/Ostrand";
// The system numbers further volumes of the same name; those above this one are never looked at.
constexpr int kHighestCopy = 9;
// A volume that has not appeared after so many polls is not coming.
constexpr int kMostPolls = 12;

// The reference number of the first emergency volume that is mounted, or 0.
std::int16_t mountedEmergencyVolume(Volumes& volumes) {
    std::int16_t number = getVolumeRefNumber(volumes, kEmergencyVolume);
    for (int copy = 1; number == 0 && copy <= kHighestCopy; ++copy) {
        number =
            getVolumeRefNumber(volumes, std::string(kEmergencyVolume) + ' ' + std::to_string(copy));
    }
    return number;
}

}  // namespace

void KorvaneProDaemon::checkForOstrand() {
    if (ignoreMountedOstrand) {
        ostrandTimer.reset();
        return;
    }
    const std::int16_t number = mountedEmergencyVolume(machine_.volumes);
    if (number == 0) {
        ++ostrandTryCount;
        if (ostrandTryCount >= kMostPolls) ostrandTimer.reset();
        return;
    }
    // A busy volume is left alone until the watch is next armed, and so is a second one. The main
    // application may be what keeps it busy: its end is an occasion to look again.
    (void)machine_.volumes.unmount(number);
    ostrandTimer.reset();
    watchMainApplication();
}

// The two handlers differ on purpose: only a mount can bring an emergency volume, and a volume that
// has just been mounted is given a second to settle.
void KorvaneProDaemon::volumeMountHandler() {
    armOstrandTimer(seconds(5));
    outTimer.reset();
    clockTimer.reset();
    refreshInventories(DriveProbe::smart);
    carryOut("watching the trash", [this] { setupTrashRetainer(false); });
    armClockTimer(seconds(1));
}

void KorvaneProDaemon::volumeUnmountHandler() {
    outTimer.reset();
    clockTimer.reset();
    refreshInventories(DriveProbe::none);
    carryOut("watching the trash", [this] { setupTrashRetainer(false); });
    armClockTimer(seconds(0));
}

void KorvaneProDaemon::armOstrandTimer(std::chrono::microseconds interval) {
    ostrandTryCount = 0;
    ostrandTimer =
        machine_.runLoop.startTimer(interval, Repeat::every, [this] { checkForOstrand(); });
}

}  // namespace korvane
