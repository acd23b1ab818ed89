// A simulated machine for the storage room's tests, with drives and volumes added by a word each.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "base/PropertyList.h"
#include "platform/simulated/SimulatedMachine.h"

namespace korvane {

// A drive: a controller, the device that hangs on it, and the medium in it.
struct TestDisk {
    std::string name;            // BSD name of its medium, like "disk2"
    Dictionary controller = {};  // properties of the far ancestor
    Dictionary device = {};      // properties of the near one
    std::string mediaClass = "IOMedia";
    Dictionary medium = {};  // properties of the medium beside its name
};

inline void onAServer(MountDescription& mount) { mount.kind = MountKind::network; }

inline Dictionary connectedAs(const char* interconnect, const char* location) {
    return {{"Protocol Characteristics", Dictionary{{"Physical Interconnect", interconnect},
                                                    {"Physical Interconnect Location", location}}}};
}
inline TestDisk internalDisk(std::string name) {
    return {.name = std::move(name), .device = connectedAs("SATA", "Internal")};
}
inline TestDisk externalDisk(std::string name) {
    return {.name = std::move(name), .device = connectedAs("USB", "External")};
}

class StorageBed {
  public:
    void add(const TestDisk& disk) {
        addService({disk.name + " controller", "IOService", "", disk.controller});
        addService({disk.name + " device", "IOBlockStorageDevice", disk.name + " controller",
                    disk.device});
        Dictionary medium = disk.medium;
        medium.set("BSD Name", disk.name);
        addService({disk.name, disk.mediaClass, disk.name + " device", medium});
    }
    void addPartition(const std::string& whole, const std::string& name,
                      Dictionary properties = {}) {
        properties.set("BSD Name", name);
        addService({name, "IOMedia", whole, properties});
    }
    void mount(const std::string& path, const std::string& device,
               const std::string& type = "ext4") {
        mount(path, device, type, [](MountDescription&) {});
    }
    // With `change` made to what is mounted.
    template <typename Change>
    void mount(const std::string& path, const std::string& device, const std::string& type,
               Change change) {
        MountDescription description;
        description.path = path;
        description.device = device;
        description.type = type;
        description.sizeBytes = 1'000'000'000;
        description.freeBytes = 500'000'000;
        change(description);
        machine.volumes.mount(description);
    }
    [[nodiscard]] ServiceId service(const std::string& name) {
        return machine.deviceRegistry.idOf(name).value();
    }

    SimulatedMachine machine{MachineDescription{}};

  private:
    void addService(const ServiceDescription& service) {
        ASSERT_TRUE(machine.deviceRegistry.add(service)) << service.name;
    }
};

}  // namespace korvane
