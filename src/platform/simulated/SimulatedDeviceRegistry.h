// The device tree of a simulated machine: services by name, with properties and parents. Look-ups
// by class and BSD name go through indexes. Numbers of services that are gone are never used again.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/DeviceRegistry.h"
#include "platform/simulated/MachineDescription.h"
#include "platform/simulated/SimulatedDrives.h"

namespace korvane {

class SimulatedDeviceRegistry final : public DeviceRegistry {
  public:
    // The drives must outlive this object.
    SimulatedDeviceRegistry(SimulatedDrives& drives, DiskNumbering numbering)
        : drives_(drives), numbering_(numbering) {}

    [[nodiscard]] std::optional<std::uint64_t> generation() override;
    [[nodiscard]] std::optional<std::vector<ServiceId>> services(
        std::string_view className) override;
    [[nodiscard]] std::optional<std::vector<ServiceId>> servicesNamed(
        std::string_view className, std::string_view bsdName) override;
    [[nodiscard]] std::optional<PropertyList> property(ServiceId service,
                                                       std::string_view key) override;
    [[nodiscard]] std::optional<Dictionary> properties(ServiceId service) override;
    [[nodiscard]] std::optional<ServiceId> parent(ServiceId service) override;
    [[nodiscard]] std::optional<ServiceId> firstChild(ServiceId service) override;
    [[nodiscard]] std::optional<std::string> diskPath(unsigned number) override;
    [[nodiscard]] SmartOpening openSmart(ServiceId drive) override;

    // False, and nothing added, when the name is taken or the parent is not there.
    bool add(const ServiceDescription& service);
    // Removes the service and all below it, and answers them as they were, parents first; nothing
    // when there is none of this name.
    std::vector<ServiceDescription> remove(const std::string& name);

    [[nodiscard]] std::optional<ServiceId> idOf(const std::string& name) const;
    // False when there is no such service. A value of nothing takes the property away.
    bool setProperty(const std::string& name, std::string_view key,
                     std::optional<PropertyList> value);
    // The whole tree cannot be read: no class has services, not even none.
    void setUnreadable(bool isUnreadable);

  private:
    struct Service {
        ServiceDescription description;
        std::optional<ServiceId> parent;
        std::vector<ServiceId> children;
    };

    struct TextHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>{}(text);
        }
    };
    template <typename Value>
    using TextMap = std::unordered_map<std::string, Value, TextHash, std::equal_to<>>;
    // In the order of appearance, which is the kernel's.
    struct ClassIndex {
        std::vector<ServiceId> ids;
        TextMap<std::vector<ServiceId>> idsByBsdName;
    };

    void index(ServiceId id, const Service& service);
    void unindex(ServiceId id, const Service& service);
    void removeInto(ServiceId id, std::vector<ServiceDescription>& removed);
    [[nodiscard]] const Service* find(ServiceId id) const;

    SimulatedDrives& drives_;
    DiskNumbering numbering_;
    std::unordered_map<ServiceId, Service> services_;
    std::unordered_map<std::string, ServiceId> idsByName_;
    TextMap<ClassIndex> classes_;
    std::uint32_t nextId_ = 1;
    std::uint64_t generation_ = 1;
    bool isUnreadable_ = false;
};

}  // namespace korvane
