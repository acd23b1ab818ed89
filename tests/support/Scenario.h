// The daemon on a simulated machine, with verbs that read like a story:
//
//     Scenario s{"one-volume"};
//     s.fill("/Volumes/Data", 95_percent).run(minutes{6});
//     EXPECT_THAT(s.log(), ElementsAre(HasSubstr("WARNING!")));
//
// The daemon starts with the first run(), so that what comes before it is how the machine is found.
// A scenario of a test that failed prints its seed and what happened, with virtual time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/PropertyList.h"
#include "core/KorvaneProDaemon.h"
#include "platform/simulated/SimulatedMachine.h"

namespace korvane {

struct Percent {
    double value = 0;
};
constexpr Percent operator""_percent(unsigned long long value) {
    return {static_cast<double>(value)};
}
constexpr Percent operator""_percent(long double value) { return {static_cast<double>(value)}; }

// The local zone of this process for as long as it lives.
class ZoneSetting {
  public:
    explicit ZoneSetting(const std::string& zone);
    ~ZoneSetting();
    ZoneSetting(const ZoneSetting&) = delete;
    ZoneSetting& operator=(const ZoneSetting&) = delete;

  private:
    std::optional<std::string> before_;
};

class Scenario {
  public:
    using Caller = SimulatedControlConnection::Caller;
    using Answer = SimulatedControlConnection::Answer;

    // A machine of tests/fixtures/machines by its name.
    explicit Scenario(const std::string& machineName, std::uint64_t seed = 1);
    explicit Scenario(const MachineDescription& description, std::uint64_t seed = 1);
    ~Scenario();
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    // The description behind a name, to be changed before a scenario is made of it.
    [[nodiscard]] static MachineDescription describe(const std::string& machineName);

    // ---- The daemon's process -------------------------------------------------------------------

    // Starts the daemon, unless it runs: awakeFromNib(), and not a pass of the loop more.
    Scenario& start();
    // Starts the daemon if need be, and lets so much virtual time go by.
    Scenario& run(std::chrono::microseconds duration);
    // The process is killed or has ended, and a new one starts. Its memory is gone.
    Scenario& restart();
    // The next write of a property list ends the process with a kill; run() then returns at once.
    Scenario& killAtNextWrite(KillMoment moment);

    // ---- What happens to the machine ------------------------------------------------------------

    // So much of the volume is used.
    Scenario& fill(const std::string& path, Percent used);
    Scenario& setSpace(const std::string& path, std::uint64_t sizeBytes, std::uint64_t freeBytes);
    Scenario& mount(const MountDescription& mount);
    // An internal volume of an ordinary type appears, on a device of its own.
    Scenario& mount(const std::string& path);
    Scenario& unmount(const std::string& path);
    Scenario& plug(const std::string& name);
    Scenario& pull(const std::string& name);
    // The drive of this service, named as the description has it, behaves so from now on.
    Scenario& age(const std::string& drive, DriveCondition condition);
    Scenario& failNextWrites(int count);
    Scenario& removeSupportFolder();
    Scenario& put(const std::string& path, const std::string& bytes);
    Scenario& onBattery();
    Scenario& onMains();
    Scenario& setPowerSources(std::optional<std::vector<std::string>> states);
    Scenario& startProcess(const std::string& name, const std::string& bundleIdentifier = "");
    Scenario& quitProcess(const std::string& name);
    // An application ends that no list of processes showed.
    Scenario& endApplication(const std::string& bundleIdentifier);
    // Somebody sets the date.
    Scenario& stepClock(std::chrono::microseconds offset);
    // The machine sleeps: time goes by and nothing runs, then the application becomes active.
    Scenario& suspend(std::chrono::microseconds duration);
    Scenario& becomeActive();
    // A word from outside; answer() has what came back.
    Scenario& send(const std::string& word, Caller caller = Caller::root);
    Scenario& createItems(const std::vector<std::string>& paths, Caller caller = Caller::root);
    Scenario& deleteItems(const std::vector<std::string>& paths, Caller caller = Caller::root);
    // The main application edits the settings file, without a word.
    Scenario& editPreferences(const std::function<void(Dictionary&)>& edit);
    Scenario& editVolumeEntry(const std::string& path,
                              const std::function<void(Dictionary&)>& edit);

    // ---- What can be seen -----------------------------------------------------------------------

    // The lines of the system log.
    [[nodiscard]] std::vector<std::string> log() const;
    // The messages of all dialogs shown so far, oldest first, and of those on the screen now.
    [[nodiscard]] std::vector<std::string> dialogs() const;
    [[nodiscard]] std::vector<std::string> dialogsOnScreen() const;
    // The settings as the file holds them now; empty, and the test fails, when it does not parse.
    [[nodiscard]] Dictionary preferences();
    // The volume's entry in them; empty when there is none.
    [[nodiscard]] Dictionary volumeEntry(const std::string& path);
    // The drive's entry in them, by its serial number; empty when there is none.
    [[nodiscard]] Dictionary driveEntry(const std::string& serial);
    // The entries of a drive's SMART log, oldest first.
    [[nodiscard]] std::vector<Dictionary> smartLog(const std::string& model,
                                                   const std::string& serial);
    // The entries of a volume's usage log, oldest first, by the volume's display name.
    [[nodiscard]] std::vector<Dictionary> historyLog(const std::string& displayName);
    // Every path below the support folder, relative to it, sorted, folders with a closing "/".
    [[nodiscard]] std::vector<std::string> supportFiles();
    // How often the settings were written.
    [[nodiscard]] std::uint64_t preferenceWrites() const;
    // The delays of the pending timers in seconds, the next first.
    [[nodiscard]] std::vector<double> pendingDelays() const;
    [[nodiscard]] int terminateSends() const;
    [[nodiscard]] bool hasEnded() const;
    [[nodiscard]] Answer answer() const;
    [[nodiscard]] double secondsNow();
    [[nodiscard]] SimulatedMachine& machine();
    [[nodiscard]] KorvaneProDaemon& daemon();

  private:
    [[nodiscard]] Dictionary dictionaryAt(const std::string& path);
    [[nodiscard]] std::vector<Dictionary> logEntriesAt(const std::string& path);

    std::uint64_t seed_;
    ZoneSetting zone_;
    SimulatedMachine machine_;
    std::unique_ptr<KorvaneProDaemon> daemon_;
    Answer answer_ = Answer::nobody;
    int mountsMade_ = 0;
};

}  // namespace korvane
