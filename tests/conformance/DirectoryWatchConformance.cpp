#include "conformance/DirectoryWatchConformance.h"

#include <filesystem>
#include <fstream>

#include "platform/linux/LinuxDirectoryWatch.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/simulated/SimulatedMachine.h"
#include "unit/platform/RecordingLog.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;

std::int16_t mountedAt(SimulatedMachine& machine, const std::string& path) {
    MountDescription mount;
    mount.path = path;
    mount.device = "/dev/sdz1";
    mount.type = "ext4";
    machine.volumes.mount(mount);
    return machine.volumes.volumeInfoByDevice("sdz1").value.referenceNumber;
}

struct SimulatedWatchSubject final : DirectoryWatchSubject {
    SimulatedWatchSubject() : number(mountedAt(machine, "/Volumes/Data")) {
        machine.fileSystem.createFolders(trash(), "root");
        machine.fileSystem.createFolders(elsewhere(), "root");
    }
    DirectoryWatch& watch() override { return machine.directoryWatch; }
    std::int16_t volume() override { return number; }
    std::int16_t missingVolume() override { return static_cast<std::int16_t>(number + 1); }
    std::uint32_t user() override { return 501; }
    std::string trash() override { return "/Volumes/Data/.Trashes/501"; }
    std::string elsewhere() override { return "/Volumes/Data/elsewhere"; }
    void make(const std::string& path) override {
        machine.fileSystem.put(path, "x");
        changed(path);
    }
    void move(const std::string& from, const std::string& to) override {
        machine.fileSystem.rename(from, to);
        changed(from);
    }
    void remove(const std::string& path) override {
        machine.fileSystem.removeItem(path);
        changed(path);
    }
    void replace(const std::string& path) override {
        const std::uint64_t nodeId = machine.fileSystem.nodeId(path);
        remove(path);
        make(path);
        machine.fileSystem.setNodeId(path, nodeId);
    }
    void changed(const std::string& path) {
        machine.directoryWatch.changed(path.substr(0, path.rfind('/')));
    }
    void runUntil(const std::function<bool()>& isDone) override {
        while (!isDone() && machine.runLoop.runOnce()) {
        }
    }
    SimulatedMachine machine{MachineDescription{}};
    std::int16_t number;
};
INSTANTIATE_TEST_SUITE_P(Simulated, DirectoryWatchConformance,
                         testing::Values(Implementation<DirectoryWatchSubject>{
                             "Simulated",
                             [] { return std::make_unique<SimulatedWatchSubject>(); }}),
                         testing::PrintToStringParamName());

// The temporary folder counts as a volume, so that the items in it lie on one.
struct LinuxWatchSubject final : DirectoryWatchSubject {
    LinuxWatchSubject() : number(mountedAt(machine, place.path())) {
        fs::create_directories(trash());
        fs::create_directories(elsewhere());
    }
    DirectoryWatch& watch() override { return directoryWatch; }
    std::int16_t volume() override { return number; }
    std::int16_t missingVolume() override { return static_cast<std::int16_t>(number + 1); }
    std::uint32_t user() override { return 1001; }
    std::string trash() override { return std::string(place.path()) + "/.Trash-1001/files"; }
    std::string elsewhere() override { return std::string(place.path()) + "/elsewhere"; }
    void make(const std::string& path) override { std::ofstream(path) << "x"; }
    void move(const std::string& from, const std::string& to) override { fs::rename(from, to); }
    void remove(const std::string& path) override { fs::remove(path); }
    void replace(const std::string& path) override {
        remove(path);
        make(path);
    }
    void runUntil(const std::function<bool()>& isDone) override {
        // Nothing more is to be expected of it after so long, on a busy machine too.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!isDone() && std::chrono::steady_clock::now() < end) {
            constexpr std::uint64_t kTurnMicroseconds = 10'000;
            ASSERT_GE(sd_event_run(loop.event(), kTurnMicroseconds), 0);
        }
    }
    TemporaryFolder place;
    RecordingLog log;
    SimulatedMachine machine{MachineDescription{}};
    LinuxRunLoop loop{log};
    LinuxDirectoryWatch directoryWatch{loop, machine.volumes, LinuxTrashPlaces{}};
    std::int16_t number;
};
INSTANTIATE_TEST_SUITE_P(Linux, DirectoryWatchConformance,
                         testing::Values(Implementation<DirectoryWatchSubject>{
                             "Linux", [] { return std::make_unique<LinuxWatchSubject>(); }}),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace korvane
