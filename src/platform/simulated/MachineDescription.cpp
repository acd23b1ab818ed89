#include "platform/simulated/MachineDescription.h"

#include <charconv>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <utility>

#include "base/PropertyListCodec.h"
#include "platform/simulated/DescriptionReader.h"

namespace korvane {

namespace {

using ReadElement = std::function<std::optional<Error>(const PropertyList&, std::string place)>;

// Reads every element of the array under the key, as long as nothing is wrong.
void readEach(DescriptionReader& reader, std::string_view key, const ReadElement& readElement,
              std::optional<Error>& error) {
    const PropertyListArray* array = reader.array(key);
    for (std::size_t index = 0; array && index < array->size() && !error; ++index) {
        error = readElement((*array)[index], reader.placeOf(key, index));
    }
}

// "10.6.8": one to three decimal numbers joined by points.
std::optional<SystemVersion> versionFrom(std::string_view text) {
    SystemVersion version;
    const char* at = text.data();
    const char* const end = at + text.size();
    for (int* number : {&version.major, &version.minor, &version.bugFix}) {
        const auto [next, problem] = std::from_chars(at, end, *number);
        if (problem != std::errc{} || *number < 0) {
            return std::nullopt;
        }
        if (next == end) {
            return version;
        }
        if (*next != '.') {
            return std::nullopt;
        }
        at = next + 1;
    }
    return std::nullopt;
}

std::optional<Error> readService(const PropertyList& value, std::string place,
                                 std::vector<ServiceDescription>& services) {
    DescriptionReader reader(&value, std::move(place));
    ServiceDescription service;
    reader.require("name", service.name);
    reader.require("class", service.className);
    reader.read("parent", service.parent);
    reader.read("properties", service.properties);
    services.push_back(std::move(service));
    return reader.finish();
}

std::optional<Error> readMount(const PropertyList& value, std::string place,
                               std::vector<MountDescription>& mounts) {
    DescriptionReader reader(&value, std::move(place));
    MountDescription mount;
    std::string kind = "local";
    reader.require("path", mount.path);
    reader.require("device", mount.device);
    reader.require("type", mount.type);
    reader.read("kind", kind);
    reader.read("sizeBytes", mount.sizeBytes);
    reader.read("freeBytes", mount.freeBytes);
    reader.read("isRemovable", mount.isRemovable);
    reader.read("isWritable", mount.isWritable);
    reader.read("isUnmountable", mount.isUnmountable);
    reader.read("fileSystemId", mount.fileSystemId);
    reader.read("signature", mount.signature);
    reader.read("volumeFlags", mount.volumeFlags);
    reader.read("referenceNumber", mount.referenceNumber);
    reader.read("displayName", mount.displayName);
    if (kind == "network") {
        mount.kind = MountKind::network;
    } else if (kind == "pseudo") {
        mount.kind = MountKind::pseudo;
    } else if (kind != "local") {
        reader.fail("kind", "is none of local, network and pseudo");
    }
    if (!mount.path.starts_with('/')) {
        reader.fail("path", "does not begin with \"/\"");
    }
    if (mount.freeBytes > mount.sizeBytes) {
        reader.fail("freeBytes", "is more than \"sizeBytes\"");
    }
    mounts.push_back(std::move(mount));
    return reader.finish();
}

std::optional<Error> readProcess(const PropertyList& value, std::string place,
                                 std::vector<ProcessDescription>& processes) {
    DescriptionReader reader(&value, std::move(place));
    ProcessDescription process;
    reader.require("name", process.name);
    reader.read("bundleIdentifier", process.bundleIdentifier);
    processes.push_back(std::move(process));
    return reader.finish();
}

std::optional<Error> readAccount(const PropertyList& value, std::string place,
                                 std::map<std::string, std::uint32_t>& accounts) {
    DescriptionReader reader(&value, std::move(place));
    std::string name;
    std::uint32_t id = 0;
    reader.require("name", name);
    reader.read("id", id);
    if (!accounts.emplace(name, id).second) {
        reader.fail("name", "is there twice");
    }
    return reader.finish();
}

std::optional<Error> readAccessory(const PropertyList& value, std::string place,
                                   std::vector<AccessoryDescription>& accessories) {
    DescriptionReader reader(&value, std::move(place));
    AccessoryDescription accessory;
    std::optional<Error> error;
    reader.require("name", accessory.name);
    readEach(
        reader, "services",
        [&](const PropertyList& each, std::string at) {
            return readService(each, std::move(at), accessory.services);
        },
        error);
    readEach(
        reader, "mounts",
        [&](const PropertyList& each, std::string at) {
            return readMount(each, std::move(at), accessory.mounts);
        },
        error);
    accessories.push_back(std::move(accessory));
    return error ? error : reader.finish();
}

void readPowerSources(DescriptionReader& reader, MachineDescription& machine) {
    if (const PropertyListArray* array = reader.array("powerSources")) {
        machine.powerSources.emplace();
        for (const PropertyList& state : *array) {
            if (!state.string()) {
                reader.fail("powerSources", "holds something that is not a string");
                return;
            }
            machine.powerSources->push_back(*state.string());
        }
    }
}

void readDiskNumbering(DescriptionReader& reader, MachineDescription& machine) {
    std::string numbering = "byName";
    reader.read("diskNumbering", numbering);
    if (numbering == "byOrder") {
        machine.diskNumbering = DiskNumbering::byOrder;
    } else if (numbering != "byName") {
        reader.fail("diskNumbering", "is neither byName nor byOrder");
    }
}

void readClocks(DescriptionReader& reader, MachineDescription& machine) {
    std::string version = "11.0.0";
    reader.read("version", version);
    if (const std::optional<SystemVersion> numbers = versionFrom(version)) {
        machine.version = *numbers;
    } else {
        reader.fail("version", "is not a version such as 10.6.8");
    }
    auto wallClock = std::chrono::time_point_cast<std::chrono::seconds>(machine.wallClock);
    reader.read("wallClock", wallClock);
    machine.wallClock = wallClock;
    std::uint32_t uptimeSeconds = 3600;
    reader.read("uptimeSeconds", uptimeSeconds);
    machine.uptime = std::chrono::seconds{uptimeSeconds};
    reader.read("zone", machine.zone);
    reader.read("userName", machine.userName);
}

// Names are unique and parents stand before their children.
std::optional<Error> checkTree(const MachineDescription& machine) {
    std::set<std::string> names;
    for (const ServiceDescription& service : machine.services) {
        if (!service.parent.empty() && !names.contains(service.parent)) {
            return Error{"service \"" + service.name + "\": its parent \"" + service.parent +
                         "\" does not stand before it"};
        }
        if (!names.insert(service.name).second) {
            return Error{"service \"" + service.name + "\" is there twice"};
        }
    }
    return std::nullopt;
}

}  // namespace

Result<MachineDescription> parseMachineDescription(std::string_view text) {
    const Result<PropertyList> document = parsePropertyList(text);
    if (!document) {
        return document.error();
    }
    MachineDescription machine;
    DescriptionReader reader(&*document, "");
    std::optional<Error> error;
    readClocks(reader, machine);
    readPowerSources(reader, machine);
    readDiskNumbering(reader, machine);
    const auto each = [&](std::string_view key, auto readOne, auto& target) {
        readEach(
            reader, key,
            [&](const PropertyList& value, std::string place) {
                return readOne(value, std::move(place), target);
            },
            error);
    };
    each("services", readService, machine.services);
    each("mounts", readMount, machine.mounts);
    each("processes", readProcess, machine.processes);
    machine.accounts.clear();
    each("accounts", readAccount, machine.accounts);
    each("accessories", readAccessory, machine.accessories);
    machine.accounts.emplace(machine.userName, 0);
    if (!error) {
        error = reader.finish();
    }
    if (!error) {
        error = checkTree(machine);
    }
    if (error) {
        return *error;
    }
    return machine;
}

Result<MachineDescription> readMachineDescription(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return Error{path + ": cannot be opened"};
    }
    std::ostringstream text;
    text << file.rdbuf();
    Result<MachineDescription> machine = parseMachineDescription(text.view());
    if (!machine) {
        return Error{path + ": " + machine.error().message};
    }
    return machine;
}

}  // namespace korvane
