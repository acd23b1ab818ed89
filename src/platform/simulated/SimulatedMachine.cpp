#include "platform/simulated/SimulatedMachine.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

namespace korvane {

SimulatedMachine::SimulatedMachine(const MachineDescription& description, std::uint64_t seed)
    : clock(description.wallClock, description.uptime),
      journal(clock),
      runLoop(clock, journal),
      systemLog(clock, journal),
      fileSystem(clock, journal, seed, description.userName, description.accounts),
      volumes(runLoop, clock, fileSystem, journal),
      drives(clock, journal),
      deviceRegistry(drives, description.diskNumbering),
      powerSources(description.powerSources),
      processes(runLoop, journal),
      controlConnection(journal),
      host(description.version),
      alertDialogs(runLoop, clock, journal),
      mailServer(runLoop, clock, journal),
      directoryWatch(clock, runLoop, fileSystem, volumes) {
    for (const ServiceDescription& service : description.services) {
        deviceRegistry.add(service);
    }
    for (const MountDescription& mount : description.mounts) {
        volumes.mount(mount);
    }
    volumes.forgetChanges();
    for (const ProcessDescription& process : description.processes) {
        processes.start({process.name, process.bundleIdentifier});
    }
    for (const AccessoryDescription& accessory : description.accessories) {
        unplugged_.emplace(accessory.name, accessory);
    }
}

Machine SimulatedMachine::machine() {
    return {runLoop,      clock,     fileSystem, volumes,           deviceRegistry,
            powerSources, processes, systemLog,  controlConnection, host,
            alertDialogs, bundle,    mailServer, directoryWatch};
}

bool SimulatedMachine::plug(const std::string& name) {
    auto node = unplugged_.extract(name);
    if (node.empty()) {
        return false;
    }
    const AccessoryDescription& accessory = node.mapped();
    journal.note("plug", name);
    std::unordered_set<std::string> added;
    std::vector<std::string>& topServices = topServicesOfAccessories_[name];
    topServices.clear();
    for (const ServiceDescription& service : accessory.services) {
        deviceRegistry.add(service);
        added.insert(service.name);
        if (!added.contains(service.parent)) {
            topServices.push_back(service.name);
        }
    }
    for (const MountDescription& mount : accessory.mounts) {
        volumes.mount(mount);
    }
    return true;
}

bool SimulatedMachine::pull(const std::string& name) {
    const auto plugged = topServicesOfAccessories_.find(name);
    const std::vector<std::string> topServices = plugged == topServicesOfAccessories_.end()
                                                     ? std::vector<std::string>{name}
                                                     : plugged->second;
    AccessoryDescription pulled;
    pulled.name = name;
    std::unordered_set<std::string> bsdNames;
    for (const std::string& top : topServices) {
        for (ServiceDescription& service : deviceRegistry.remove(top)) {
            const PropertyList* bsdName = service.properties.find("BSD Name");
            if (bsdName && bsdName->string()) {
                bsdNames.insert(*bsdName->string());
            }
            pulled.services.push_back(std::move(service));
        }
    }
    if (pulled.services.empty()) {
        return false;
    }
    journal.note("pull", name);
    topServicesOfAccessories_.erase(name);
    pulled.mounts = volumes.forceUnmountDevices(bsdNames);
    unplugged_.insert_or_assign(name, std::move(pulled));
    return true;
}

void SimulatedMachine::suspend(std::chrono::microseconds duration) {
    journal.note("asleep");
    clock.advance(duration);
    journal.note("awake");
    runLoop.becomeActive();
}

void SimulatedMachine::setOnBattery(bool isOnBattery) {
    const std::size_t count =
        std::max<std::size_t>(powerSources.states().value_or(std::vector<std::string>{}).size(), 1);
    powerSources.setStates(
        std::vector<std::string>(count, isOnBattery ? kPowerSourceOnBattery : kPowerSourceOnMains));
    journal.note(isOnBattery ? "on battery" : "on mains");
}

}  // namespace korvane
