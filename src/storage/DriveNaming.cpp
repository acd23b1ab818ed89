#include "storage/DriveNaming.h"

#include <cstdint>
#include <span>

#include "storage/RegistryProbes.h"

namespace korvane {

namespace {

constexpr char kSmartCapable[] = "SMART Capable";
constexpr char kSmartOutOfReach[] = "SMART Out Of Reach";
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

// A text that is not empty, or nothing: of a device's properties, or of a service that is asked for
// one property at a time.
std::optional<std::string> textOf(const PropertyList* value) {
    const std::string* text = value ? value->string() : nullptr;
    return text && !text->empty() ? std::optional(*text) : std::nullopt;
}
struct PropertyTexts {
    const Dictionary& properties;
    std::optional<std::string> operator()(std::string_view key) const {
        return textOf(properties.find(key));
    }
};
struct ServiceTexts {
    DeviceRegistry& registry;
    ServiceId service;
    std::optional<std::string> operator()(std::string_view key) const {
        const std::optional<PropertyList> value = registry.property(service, key);
        return textOf(value ? &*value : nullptr);
    }
};

template <typename Texts>
std::optional<std::string> firstText(const Texts& texts, std::span<const char* const> keys) {
    for (const char* key : keys) {
        if (std::optional<std::string> text = texts(key)) return text;
    }
    return std::nullopt;
}

template <typename Texts>
std::optional<std::string> modelOf(const Texts& texts, std::string_view padding) {
    const std::optional<std::string> model = firstText(texts, kModelKeys);
    return model ? std::optional(trimmed(*model, padding)) : std::nullopt;
}

// The serial number of one device. An identification carries the revision as it is stored beside
// it.
template <typename Texts>
std::optional<std::string> serialOf(const Texts& texts) {
    if (const auto serial = firstText(texts, kSerialKeys)) return trimmed(*serial, kBlanks);
    const std::optional<std::string> revision = texts(kRevision);
    if (const auto identification = texts(kIdentification)) {
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

std::optional<std::string> connectionOf(const ServiceTexts& texts) {
    const auto protocol = texts.registry.property(texts.service, "Protocol Characteristics");
    if (!protocol || !protocol->dictionary()) return std::nullopt;
    const char* const keys[] = {"Physical Interconnect", "Physical Interconnect Location"};
    return firstText(PropertyTexts{*protocol->dictionary()}, keys);
}

// What the nearest device that tells it says, the drive itself counted.
template <typename Read>
std::optional<std::string> nearest(DeviceRegistry& registry, ServiceId service, Read read) {
    for (std::optional<ServiceId> each = service; each; each = registry.parent(*each)) {
        if (std::optional<std::string> text = read(ServiceTexts{registry, *each})) return text;
    }
    return std::nullopt;
}
std::optional<std::string> nearestModel(DeviceRegistry& registry, ServiceId service) {
    return nearest(registry, service,
                   [](const ServiceTexts& texts) { return modelOf(texts, kWhiteSpace); });
}
std::optional<std::string> nearestSerial(DeviceRegistry& registry, ServiceId service) {
    return nearest(registry, service, serialOf<ServiceTexts>);
}
std::string nearestConnection(DeviceRegistry& registry, ServiceId service) {
    return nearest(registry, service, connectionOf).value_or(kUnknownConnection);
}

}  // namespace

bool isSmartCapable(const Dictionary& driveProperties) {
    const PropertyList* capable = driveProperties.find(kSmartCapable);
    return capable && booleanValue(capable);
}

bool isSmartOutOfReach(const Dictionary& driveProperties) {
    const PropertyList* outOfReach = driveProperties.find(kSmartOutOfReach);
    return outOfReach && booleanValue(outOfReach);
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
        const PropertyTexts texts{*properties};
        if (!isModelFound) {
            identity.model = modelOf(texts, kBlanks);
            isModelFound = identity.model.has_value();
        }
        if (!isSerialFound) {
            identity.serial = serialOf(texts);
            if (isModelFound && !identity.serial) identity.serial = numberOf(*properties);
            isSerialFound = identity.serial.has_value();
        }
        if (isModelFound && isSerialFound) return identity;
    }
    return std::nullopt;
}

std::string devicePathBelow(DeviceRegistry& registry, ServiceId service) {
    for (auto child = registry.firstChild(service); child; child = registry.firstChild(*child)) {
        DeviceFilePath found = MyGetDeviceFilePath(registry, *child, kPathSizeBytes);
        if (!found.path.empty()) return std::move(found.path);
    }
    return {};
}

CheckedDrive checkedDrive(DeviceRegistry& registry, ServiceId service) {
    return {.service = service,
            .identity = {.model = nearestModel(registry, service),
                         .serial = nearestSerial(registry, service)},
            .connection = nearestConnection(registry, service),
            .path = devicePathBelow(registry, service)};
}

}  // namespace korvane
