#include "storage/RegistryProbes.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/Format.h"
#include "base/PropertyList.h"

namespace korvane {

namespace {

constexpr char kMedia[] = "IOMedia";
constexpr char kDvdMedia[] = "IODVDMedia";
constexpr char kCdMedia[] = "IOCDMedia";

constexpr char kBsdName[] = "BSD Name";
constexpr char kPhysicalInterconnect[] = "Physical Interconnect";

constexpr char kDevicePathPrefix[] = "/dev/";
// Partition type of HFS Plus (Apple Technical Note TN2166).
constexpr char kHfsPlusPartitionType[] = "48465300-0000-11AA-AA11-00306543ECAC";
// Longer names are cut: no device has one.
constexpr std::size_t kLongestNameBytes = 255;
// Identifiers are kept in fields of 512 bytes, the terminating zero byte included.
constexpr std::size_t kLongestIdentifierBytes = 511;

bool isText(const std::optional<PropertyList>& value, std::string_view text) {
    return value && value->string() && *value->string() == text;
}

char asciiCapital(char c) { return 'a' <= c && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool equalIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return asciiCapital(a) == asciiCapital(b); });
}

// The first ancestor's answer that is one, nearest first; the service itself is not asked.
template <typename Ask>
auto askAncestors(DeviceRegistry& registry, ServiceId service, Ask ask) -> decltype(ask(service)) {
    for (auto ancestor = registry.parent(service); ancestor;
         ancestor = registry.parent(*ancestor)) {
        if (auto answer = ask(*ancestor)) return answer;
    }
    return {};
}

// Whether the question is answered with yes for any medium of the class that the name begins with.
// Asking for every beginning of the name finds the same media as walking them all and comparing,
// since a medium's name is a beginning of this one exactly when it equals one of them; only the
// order differs, and with it nothing, since one yes decides. Thousands of volumes ask at every
// tick.
template <typename Ask>
bool anyMediumBefore(DeviceRegistry& registry, std::string_view className, std::string_view bsdName,
                     Ask ask) {
    const std::size_t longest = std::min(bsdName.size(), kLongestNameBytes);
    for (std::size_t length = 1; length <= longest; ++length) {
        const auto media = registry.servicesNamed(className, bsdName.substr(0, length));
        if (!media) return false;
        if (std::any_of(media->begin(), media->end(), ask)) return true;
    }
    return false;
}

bool isOnMediumOf(DeviceRegistry& registry, std::string_view className, std::string_view bsdName) {
    return anyMediumBefore(registry, className, bsdName, [](ServiceId) { return true; });
}

// An ancestor's identifier as text, or that it has one that cannot be given. Nothing: it has none.
std::optional<DeviceValue> identifierOf(const Dictionary& properties) {
    const auto given = [](std::string text) {
        if (text.size() > kLongestIdentifierBytes) return DeviceValue{};
        return DeviceValue{.status = 0, .identifier = std::move(text)};
    };
    if (const PropertyList* guid = properties.find("GUID")) {
        if (guid->integer()) return given(std::to_string(*guid->integer()));
        if (guid->largeInteger()) return given(std::to_string(*guid->largeInteger()));
        if (guid->real()) return given(formatText("%.0f", {*guid->real()}));
        return DeviceValue{};
    }
    for (const char* key : {"device serial", "USB Serial Number", "Serial Number"}) {
        const PropertyList* serial = properties.find(key);
        if (serial) return serial->string() ? given(*serial->string()) : DeviceValue{};
    }
    return std::nullopt;
}

// The first medium of this name, in capitals or not.
std::optional<ServiceId> mediumNamed(DeviceRegistry& registry, std::string_view name) {
    const auto media = registry.services(kMedia);
    if (!media) return std::nullopt;
    for (const ServiceId medium : *media) {
        const std::optional<PropertyList> bsdName = registry.property(medium, kBsdName);
        if (!bsdName || !bsdName->string()) continue;
        if (equalIgnoringCase(*bsdName->string(), name)) return medium;
    }
    return std::nullopt;
}

}  // namespace

bool isATAPI(DeviceRegistry& registry, std::string_view bsdName) {
    const auto saysAtapi = [&](ServiceId ancestor) {
        if (isText(registry.property(ancestor, kPhysicalInterconnect), "ATAPI")) return true;
        const std::optional<PropertyList> atapi = registry.property(ancestor, "ATAPI");
        return atapi && booleanValue(&*atapi);
    };
    return anyMediumBefore(registry, kMedia, bsdName, [&](ServiceId medium) {
        return askAncestors(registry, medium, saysAtapi);
    });
}

bool isOpticalMedia(DeviceRegistry& registry, std::string_view bsdName) {
    return isOnMediumOf(registry, kDvdMedia, bsdName) || isOnMediumOf(registry, kCdMedia, bsdName);
}

bool isVirtualInterface(DeviceRegistry& registry, std::string_view bsdName) {
    const auto saysVirtual = [&](ServiceId ancestor) {
        return isText(registry.property(ancestor, kPhysicalInterconnect), "Virtual Interface");
    };
    return anyMediumBefore(registry, kMedia, bsdName, [&](ServiceId medium) {
        return askAncestors(registry, medium, saysVirtual);
    });
}

bool isInternalDrive(DeviceRegistry& registry, std::string_view bsdName) {
    // An ancestor that knows its connection decides, either way.
    const auto location = [&](ServiceId ancestor) -> std::optional<bool> {
        const auto protocol = registry.property(ancestor, "Protocol Characteristics");
        if (!protocol || !protocol->dictionary()) return std::nullopt;
        const PropertyList* value = protocol->dictionary()->find("Physical Interconnect Location");
        return value && value->string() && *value->string() == "Internal";
    };
    return anyMediumBefore(registry, kMedia, bsdName, [&](ServiceId medium) {
        return askAncestors(registry, medium, location).value_or(false);
    });
}

bool isCoreStorageEncrypted(DeviceRegistry& registry, std::string_view bsdName) {
    const auto media = registry.servicesNamed(kMedia, bsdName);
    if (!media) return false;
    return std::any_of(media->begin(), media->end(), [&](ServiceId medium) {
        const auto encrypted = registry.property(medium, "CoreStorage Encrypted");
        return encrypted && encrypted->boolean() && *encrypted->boolean();
    });
}

DeviceValue GetDeviceValue(DeviceRegistry& registry, std::string_view device,
                           bool& schemeOfPartition) {
    // Not the last path component: a slash at the end leaves no name.
    const std::size_t slash = device.rfind('/');
    if (slash != std::string_view::npos) device.remove_prefix(slash + 1);
    const auto medium = mediumNamed(registry, device.substr(0, kLongestNameBytes));
    if (!medium) return {};

    const std::optional<PropertyList> content = registry.property(*medium, "Content");
    schemeOfPartition = content && content->string() && *content->string() == kHfsPlusPartitionType;

    const auto identifier = askAncestors(registry, *medium, [&](ServiceId ancestor) {
        const std::optional<Dictionary> properties = registry.properties(ancestor);
        return properties ? identifierOf(*properties) : std::nullopt;
    });
    return identifier.value_or(DeviceValue{});
}

DeviceFilePath MyGetDeviceFilePath(DeviceRegistry& registry, ServiceId service,
                                   std::size_t bufferSizeBytes) {
    const std::optional<PropertyList> bsdName = registry.property(service, kBsdName);
    if (!bsdName || !bsdName->string()) return {};
    const std::string& name = *bsdName->string();
    const bool isAscii = std::all_of(name.begin(), name.end(),
                                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    std::string path = kDevicePathPrefix + name;
    if (!isAscii || path.size() + 1 > bufferSizeBytes) return {};
    return {.status = 0, .path = std::move(path)};
}

}  // namespace korvane
