// Drives on simulated machines, and what the daemon has written of them.
#pragma once

#include <string>
#include <vector>

#include "support/Scenario.h"

namespace korvane {

// Adds a drive "disk1 drive" with the medium "disk1" below a device with these properties.
inline void addDrive(MachineDescription& machine, const std::string& disk, const Dictionary& device,
                     const Dictionary& drive = {{"SMART Capable", true}}) {
    machine.services.push_back({disk + " device", "IOService", "", device});
    machine.services.push_back({disk + " drive", "IOBlockStorageDevice", disk + " device", drive});
    machine.services.push_back(
        {disk, "IOMedia", disk + " drive", Dictionary{{"BSD Name", disk}, {"Whole", true}}});
}

inline Dictionary named(const std::string& model, const std::string& serial) {
    return {{"device model", model}, {"device serial", serial}};
}

inline MachineDescription oneDrive(const std::string& disk = "disk1") {
    MachineDescription machine = Scenario::describe("empty");
    addDrive(machine, disk, named("Castor 500", "CST1"));
    return machine;
}

inline std::vector<std::string> resultsOf(const std::vector<Dictionary>& log) {
    std::vector<std::string> results;
    for (const Dictionary& entry : log) results.push_back(stringValue(entry.find("result")));
    return results;
}

}  // namespace korvane
