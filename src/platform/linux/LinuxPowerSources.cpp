#include "platform/linux/LinuxPowerSources.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/linux/SmallFile.h"

namespace korvane {

namespace {

bool isBattery(const PowerSupply& supply) {
    return supply.type == "Battery" || supply.type == "UPS";
}

bool feedsTheMachine(const PowerSupply& supply) {
    if (supply.type.empty() || supply.scope == "Device") return false;
    return !isBattery(supply) || supply.present != "0";
}

bool runsOnBattery(std::span<const PowerSupply> feeding) {
    const auto adapterFeeds = [](const PowerSupply& supply) {
        return !isBattery(supply) && !supply.online.empty() && supply.online != "0";
    };
    const auto charges = [](const PowerSupply& supply) {
        return isBattery(supply) && supply.status == "Charging";
    };
    const auto discharges = [](const PowerSupply& supply) {
        return isBattery(supply) && supply.status == "Discharging";
    };
    const bool hasBattery = std::any_of(feeding.begin(), feeding.end(), isBattery);
    const bool hasAdapter = !std::all_of(feeding.begin(), feeding.end(), isBattery);
    if (!hasBattery || std::any_of(feeding.begin(), feeding.end(), adapterFeeds)) return false;
    if (std::any_of(feeding.begin(), feeding.end(), charges)) return false;
    return hasAdapter || std::any_of(feeding.begin(), feeding.end(), discharges);
}

}  // namespace

std::optional<std::vector<std::string>> powerSourceStates(std::span<const PowerSupply> supplies) {
    std::vector<PowerSupply> feeding;
    std::copy_if(supplies.begin(), supplies.end(), std::back_inserter(feeding), feedsTheMachine);
    if (feeding.empty()) return std::nullopt;
    const char* const state = runsOnBattery(feeding) ? kPowerSourceOnBattery : kPowerSourceOnMains;
    return std::vector<std::string>(feeding.size(), state);
}

LinuxPowerSources::LinuxPowerSources(std::string folder) : folder_(std::move(folder)) {}

std::optional<std::vector<std::string>> LinuxPowerSources::states() {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder_, error), end; !error && it != end;
         it.increment(error)) {
        names.push_back(it->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    std::vector<PowerSupply> supplies;
    for (const std::string& name : names) {
        const std::string supply = folder_ + "/" + name + "/";
        const auto attribute = [&supply](const char* key) {
            return readAttributeFile(supply + key).value_or("");
        };
        supplies.push_back({.type = attribute("type"),
                            .scope = attribute("scope"),
                            .online = attribute("online"),
                            .status = attribute("status"),
                            .present = attribute("present")});
    }
    return powerSourceStates(supplies);
}

}  // namespace korvane
