#include "storage/DriveNaming.h"

#include <algorithm>
#include <cstdint>
#include <span>

#include "storage/RegistryProbes.h"

namespace korvane {

namespace {

constexpr char kSmartCapable[] = "SMART Capable";
constexpr const char* kModelKeys[] = {
    "device model", "USB Product Name",      "FireWire Product Name", "Product Name",
    "Model",        "Vendor Identification", "Vendor Name",           "model"};
constexpr const char* kSerialKeys[] = {"device serial", "USB Serial Number", "Serial",
                                       "Serial Number", "hdiagent-drive-identifier"};
// In place of a serial number, for what has none.
constexpr char kIdentification[] = "Product Identification";
constexpr char kRevision[] = "Product Revision Level";
// The last resort of the inventory, as numbers.
constexpr const char* kNumberKeys[] = {"GUID", "locationID"};

// Device paths are written into a field of this size.
constexpr std::size_t kPathSizeBytes = 128;
constexpr char kUnknownConnection[] = "ATA";

constexpr std::string_view kBlanks = " ";
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

std::string trimmed(std::string_view text, std::string_view characters) {
    const std::size_t first = text.find_first_not_of(characters);
    if (first == std::string_view::npos) return {};
    return std::string(text.substr(first, text.find_last_not_of(characters) - first + 1));
}

// A text that is not empty, or null.
const std::string* textUnder(const Dictionary& properties, std::string_view key) {
    const PropertyList* value = properties.find(key);
    const std::string* text = value ? value->string() : nullptr;
    return text && !text->empty() ? text : nullptr;
}

const std::string* firstTextUnder(const Dictionary& properties, std::span<const char* const> keys) {
    for (const char* key : keys) {
        if (const std::string* text = textUnder(properties, key)) return text;
    }
    return nullptr;
}

// The serial number of one device. An identification carries the revision as it is stored beside
// it.
std::optional<std::string> serialOf(const Dictionary& properties) {
    if (const std::string* serial = firstTextUnder(properties, kSerialKeys)) {
        return trimmed(*serial, kBlanks);
    }
    const std::string* revision = textUnder(properties, kRevision);
    if (const std::string* identification = textUnder(properties, kIdentification)) {
        return trimmed(*identification, kBlanks) + (revision ? ' ' + *revision : "");
    }
    return revision ? std::optional(trimmed(*revision, kBlanks)) : std::nullopt;
}

std::optional<std::string> numberOf(const Dictionary& properties) {
    for (const char* key : kNumberKeys) {
        const PropertyList* value = properties.find(key);
        if (value && (value->integer() || value->largeInteger() || value->real())) {
            return stringValue(value);
        }
    }
    return std::nullopt;
}

const std::string* connectionOf(const Dictionary& properties) {
    const PropertyList* protocol = properties.find("Protocol Characteristics");
    if (!protocol || !protocol->dictionary()) return nullptr;
    const std::string* interconnect = textUnder(*protocol->dictionary(), "Physical Interconnect");
    return interconnect ? interconnect
                        : textUnder(*protocol->dictionary(), "Physical Interconnect Location");
}

// The path of the first service below that has one, going down by first children.
std::string devicePathBelow(DeviceRegistry& registry, ServiceId service) {
    for (auto child = registry.firstChild(service); child; child = registry.firstChild(*child)) {
        DeviceFilePath found = MyGetDeviceFilePath(registry, *child, kPathSizeBytes);
        if (!found.path.empty()) return std::move(found.path);
    }
    return {};
}

CheckedDrive checkedDriveAt(DeviceRegistry& registry, ServiceId service, std::string path) {
    CheckedDrive drive{
        .service = service, .identity = {}, .connection = {}, .path = std::move(path)};
    for (std::optional<ServiceId> each = service; each; each = registry.parent(*each)) {
        const std::optional<Dictionary> properties = registry.properties(*each);
        if (!properties) continue;
        if (!drive.identity.model) {
            if (const std::string* model = firstTextUnder(*properties, kModelKeys)) {
                drive.identity.model = trimmed(*model, kWhiteSpace);
            }
        }
        if (!drive.identity.serial) drive.identity.serial = serialOf(*properties);
        if (drive.connection.empty()) {
            const std::string* connection = connectionOf(*properties);
            if (connection) drive.connection = *connection;
        }
    }
    if (drive.connection.empty()) drive.connection = kUnknownConnection;
    return drive;
}

}  // namespace

bool isSmartCapable(const Dictionary& driveProperties) {
    const PropertyList* capable = driveProperties.find(kSmartCapable);
    return capable && booleanValue(capable);
}

bool isDiskImage(DeviceRegistry& registry, ServiceId drive) {
    for (auto above = registry.parent(drive); above; above = registry.parent(*above)) {
        const auto name = registry.property(*above, "Product Name");
        if (name && name->string() && *name->string() == "Disk Image") return true;
    }
    return false;
}

std::optional<DriveIdentity> inventoryIdentity(DeviceRegistry& registry, ServiceId drive) {
    bool isModelFound = false;
    bool isSerialFound = false;
    for (auto above = registry.parent(drive); above; above = registry.parent(*above)) {
        // Begun anew for each device, while what has been found is remembered.
        DriveIdentity identity;
        const std::optional<Dictionary> properties = registry.properties(*above);
        if (!properties) continue;
        if (!isModelFound) {
            if (const std::string* model = firstTextUnder(*properties, kModelKeys)) {
                identity.model = trimmed(*model, kBlanks);
                isModelFound = true;
            }
        }
        if (!isSerialFound) {
            identity.serial = serialOf(*properties);
            if (isModelFound && !identity.serial) identity.serial = numberOf(*properties);
            isSerialFound = identity.serial.has_value();
        }
        if (isModelFound && isSerialFound) return identity;
    }
    return std::nullopt;
}

CheckedDrive checkedDrive(DeviceRegistry& registry, ServiceId service) {
    return checkedDriveAt(registry, service, devicePathBelow(registry, service));
}

std::vector<CheckedDrive> checkedDrives(DeviceRegistry& registry, std::string_view model,
                                        std::string_view serial,
                                        std::span<const std::string> paths) {
    std::vector<CheckedDrive> found;
    std::size_t pathsSeen = 0;
    const auto services = registry.services(kDriveClass);
    for (const ServiceId service : services.value_or(std::vector<ServiceId>{})) {
        if (pathsSeen == paths.size()) break;
        std::string path = devicePathBelow(registry, service);
        if (path.empty() || std::find(paths.begin(), paths.end(), path) == paths.end()) continue;
        ++pathsSeen;
        const auto capable = registry.property(service, kSmartCapable);
        if (!capable || !booleanValue(&*capable)) continue;
        CheckedDrive drive = checkedDriveAt(registry, service, std::move(path));
        if (drive.identity.model == model && drive.identity.serial == serial) {
            found.push_back(std::move(drive));
        }
    }
    return found;
}

}  // namespace korvane
