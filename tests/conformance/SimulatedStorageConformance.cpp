// Holds the simulated machine's files, volumes and devices to what their interfaces promise.
#include <algorithm>
#include <map>
#include <stdexcept>

#include "conformance/DeviceRegistryConformance.h"
#include "conformance/FileSystemConformance.h"
#include "conformance/FolderConformance.h"
#include "conformance/VolumesConformance.h"
#include "platform/simulated/SimulatedMachine.h"

namespace korvane {
namespace {

MachineDescription provided(const std::string& name) {
    const auto description = readMachineDescription(
        std::string(KORVANE_SOURCE_DIR "/tests/fixtures/machines/") + name + ".plist");
    if (!description) throw std::runtime_error(description.error().message);
    return *description;
}

struct SimulatedFilesSubject final : FileSystemSubject {
    SimulatedFilesSubject() { machine.fileSystem.createFolders("/work", "root"); }
    FileSystem& files() override { return machine.fileSystem; }
    std::string folder() override { return "/work"; }
    Time now() override { return machine.clock.now(); }
    std::uint32_t ownId() override { return 0; }
    void put(const std::string& path, const std::string& bytes) override {
        machine.fileSystem.put(path, bytes);
    }
    void putLink(const std::string& path, const std::string& target) override {
        machine.fileSystem.putLink(path, target);
    }
    std::optional<std::string> bytes(const std::string& path) override {
        return machine.fileSystem.bytes(path);
    }
    bool setOwner(const std::string& path, std::uint32_t ownerId) override {
        return machine.fileSystem.setOwner(path, ownerId);
    }
    SimulatedMachine machine{MachineDescription{}};
};
INSTANTIATE_TEST_SUITE_P(Simulated, FolderConformance,
                         testing::Values(Implementation<FileSystemSubject>{
                             "Simulated",
                             [] { return std::make_unique<SimulatedFilesSubject>(); }}),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Simulated, FileSystemConformance,
                         testing::Values(Implementation<FileSystemSubject>{
                             "Simulated",
                             [] { return std::make_unique<SimulatedFilesSubject>(); }}),
                         testing::PrintToStringParamName());

struct SimulatedVolumesSubject final : VolumesSubject {
    Volumes& volumes() override { return machine.volumes; }
    std::string mount(const std::string& name) override {
        MountDescription mount;
        mount.path = "/Volumes/" + name;
        mount.device = "/dev/" + name + "1";
        std::replace(mount.device.begin() + 5, mount.device.end(), '/', '-');
        mount.type = "ext4";
        mount.sizeBytes = 1000000;
        mount.freeBytes = 500000;
        machine.volumes.mount(mount);
        return mount.path;
    }
    void unmount(const std::string& path) override { machine.volumes.forceUnmount(path); }
    std::string mountAgain(const std::string& path) override {
        MountDescription again = *machine.volumes.describe(path);
        again.path += " again";
        machine.volumes.mount(again);
        return again.path;
    }
    std::string mountPseudo() override {
        MountDescription mount;
        mount.path = "/run/pseudo";
        mount.device = "tmpfs";
        mount.type = "tmpfs";
        mount.kind = MountKind::pseudo;
        machine.volumes.mount(mount);
        return mount.path;
    }
    std::shared_ptr<void> use(const std::string& path) override {
        machine.volumes.setBusy(path, true);
        return {this, [path](SimulatedVolumesSubject* subject) {
                    subject->machine.volumes.setBusy(path, false);
                }};
    }
    void runUntil(const std::function<bool()>& isDone) override {
        while (!isDone() && machine.runLoop.runOnce()) {
        }
    }
    void settle() override { machine.runLoop.runFor(std::chrono::seconds{1}); }
    SimulatedMachine machine{provided("two-volumes")};
};
INSTANTIATE_TEST_SUITE_P(Simulated, VolumesConformance,
                         testing::Values(Implementation<VolumesSubject>{
                             "Simulated",
                             [] { return std::make_unique<SimulatedVolumesSubject>(); }}),
                         testing::PrintToStringParamName());

struct SimulatedRegistrySubject final : DeviceRegistrySubject {
    explicit SimulatedRegistrySubject(const std::string& name) : machine(provided(name)) {}
    DeviceRegistry& registry() override { return machine.deviceRegistry; }
    std::string plug() override {
        const auto name = registry().property(registry().services("IOMedia")->back(), "BSD Name");
        pluggedName = stringValue(&*name);
        return pluggedName;
    }
    // In the machines that are provided, a media's service is named as its device.
    void pull() override { EXPECT_TRUE(machine.pull(pluggedName)); }
    void inATurn(const std::function<void()>& work) override {
        bool isDone = false;
        machine.runLoop.post([&] {
            work();
            isDone = true;
        });
        while (!isDone && machine.runLoop.runOnce()) {
        }
        EXPECT_TRUE(isDone);
    }
    SimulatedMachine machine;
    std::string pluggedName;
};
INSTANTIATE_TEST_SUITE_P(
    Simulated, DeviceRegistryConformance,
    testing::Values(
        Implementation<DeviceRegistrySubject>{
            "ThreeVolumes",
            [] { return std::make_unique<SimulatedRegistrySubject>("three-volumes"); }},
        Implementation<DeviceRegistrySubject>{
            "HfsMacLike",
            [] { return std::make_unique<SimulatedRegistrySubject>("hfs-mac-like"); }}),
    testing::PrintToStringParamName());

}  // namespace
}  // namespace korvane
