// The machine's devices as a tree of services with properties: drives, their media (whole disks and
// partitions), and what they hang on. The first question in a turn of the loop is answered with the
// state at that moment; while nothing has changed the others cost no system call.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/PropertyList.h"
#include "platform/SmartInterface.h"

namespace korvane {

// A node of the tree. Valid until the tree changes; a stale one has no properties and no relatives.
enum class ServiceId : std::uint32_t {};

// Classes that are asked for: "IOMedia" (whole disks and partitions), "IODVDMedia", "IOCDMedia"
// (optical media, each also an IOMedia), "IOBlockStorageDevice" (drives). A drive that has SMART
// has "SMART Capable"; one that could not be asked for want of rights has "SMART Out Of Reach".
class DeviceRegistry {
  public:
    virtual ~DeviceRegistry() = default;

    // Which tree this is: the number is another one whenever any answer below could be another one
    // but for what a drive itself says, so what has been derived from a tree stands for as long as
    // its number does. Nothing when the tree cannot be read at all.
    [[nodiscard]] virtual std::optional<std::uint64_t> generation() = 0;

    // All services of a class, in the kernel's order; nothing when the tree cannot be read at all.
    [[nodiscard]] virtual std::optional<std::vector<ServiceId>> services(
        std::string_view className) = 0;
    // Those of them whose "BSD Name" is exactly this; the same as walking services() and comparing,
    // at a cost that does not grow with the number of devices.
    [[nodiscard]] virtual std::optional<std::vector<ServiceId>> servicesNamed(
        std::string_view className, std::string_view bsdName) = 0;

    // One property, or nothing.
    [[nodiscard]] virtual std::optional<PropertyList> property(ServiceId service,
                                                               std::string_view key) = 0;
    // All of them; nothing when they cannot be read.
    [[nodiscard]] virtual std::optional<Dictionary> properties(ServiceId service) = 0;

    // Relatives in the service plane: nothing at the root, at a leaf.
    [[nodiscard]] virtual std::optional<ServiceId> parent(ServiceId service) = 0;
    [[nodiscard]] virtual std::optional<ServiceId> firstChild(ServiceId service) = 0;

    // The path of the whole disk that has this number; nothing when none has it.
    [[nodiscard]] virtual std::optional<std::string> diskPath(unsigned number) {
        return "/dev/disk" + std::to_string(number);
    }
    // Opens the SMART facility of a drive. A drive that is gone, has none or does not answer cannot
    // be opened.
    [[nodiscard]] virtual SmartOpening openSmart(ServiceId drive) = 0;
};

}  // namespace korvane
