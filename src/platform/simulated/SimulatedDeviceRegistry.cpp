#include "platform/simulated/SimulatedDeviceRegistry.h"

#include <algorithm>
#include <utility>

namespace korvane {

namespace {

constexpr char kBsdName[] = "BSD Name";

// A class and those it derives from, as far as anybody asks for them.
std::vector<std::string> classesOf(const std::string& className) {
    if (className == "IODVDMedia" || className == "IOCDMedia") {
        return {className, "IOMedia"};
    }
    return {className};
}

}  // namespace

std::optional<std::uint64_t> SimulatedDeviceRegistry::generation() {
    return isUnreadable_ ? std::nullopt : std::optional(generation_);
}

std::optional<std::vector<ServiceId>> SimulatedDeviceRegistry::services(
    std::string_view className) {
    if (isUnreadable_) {
        return std::nullopt;
    }
    const auto found = classes_.find(className);
    return found == classes_.end() ? std::vector<ServiceId>{} : found->second.ids;
}

std::optional<std::vector<ServiceId>> SimulatedDeviceRegistry::servicesNamed(
    std::string_view className, std::string_view bsdName) {
    if (isUnreadable_) {
        return std::nullopt;
    }
    const auto found = classes_.find(className);
    if (found == classes_.end()) {
        return std::vector<ServiceId>{};
    }
    const auto ids = found->second.idsByBsdName.find(bsdName);
    return ids == found->second.idsByBsdName.end() ? std::vector<ServiceId>{} : ids->second;
}

std::optional<PropertyList> SimulatedDeviceRegistry::property(ServiceId service,
                                                              std::string_view key) {
    const Service* found = find(service);
    const PropertyList* value = found ? found->description.properties.find(key) : nullptr;
    return value ? std::optional(*value) : std::nullopt;
}

std::optional<Dictionary> SimulatedDeviceRegistry::properties(ServiceId service) {
    const Service* found = find(service);
    return found ? std::optional(found->description.properties) : std::nullopt;
}

std::optional<ServiceId> SimulatedDeviceRegistry::parent(ServiceId service) {
    const Service* found = find(service);
    return found ? found->parent : std::nullopt;
}

std::optional<ServiceId> SimulatedDeviceRegistry::firstChild(ServiceId service) {
    const Service* found = find(service);
    return found && !found->children.empty() ? std::optional(found->children.front())
                                             : std::nullopt;
}

std::optional<std::string> SimulatedDeviceRegistry::diskPath(unsigned number) {
    if (numbering_ == DiskNumbering::byName) return DeviceRegistry::diskPath(number);
    const std::vector<ServiceId> drives =
        services("IOBlockStorageDevice").value_or(std::vector<ServiceId>{});
    if (number >= drives.size()) return std::nullopt;
    const std::optional<ServiceId> medium = firstChild(drives[number]);
    const std::optional<PropertyList> name = medium ? property(*medium, kBsdName) : std::nullopt;
    return name && name->string() ? std::optional("/dev/" + *name->string()) : std::nullopt;
}

SmartOpening SimulatedDeviceRegistry::openSmart(ServiceId drive) {
    const Service* found = find(drive);
    // What a drive that is not there says is what a drive says that vanishes.
    if (!found) return {.status = kDriveGone, .smart = nullptr};
    return drives_.open(found->description.name);
}

bool SimulatedDeviceRegistry::add(const ServiceDescription& service) {
    std::optional<ServiceId> parentId;
    if (!service.parent.empty()) {
        parentId = idOf(service.parent);
        if (!parentId) {
            return false;
        }
    }
    const auto id = ServiceId{nextId_};
    if (!idsByName_.emplace(service.name, id).second) {
        return false;
    }
    ++nextId_;
    const Service& added = services_.emplace(id, Service{service, parentId, {}}).first->second;
    if (parentId) {
        services_.at(*parentId).children.push_back(id);
    }
    index(id, added);
    return true;
}

std::vector<ServiceDescription> SimulatedDeviceRegistry::remove(const std::string& name) {
    std::vector<ServiceDescription> removed;
    const std::optional<ServiceId> id = idOf(name);
    if (id) {
        if (const std::optional<ServiceId> parentId = services_.at(*id).parent) {
            std::erase(services_.at(*parentId).children, *id);
        }
        removeInto(*id, removed);
    }
    return removed;
}

std::optional<ServiceId> SimulatedDeviceRegistry::idOf(const std::string& name) const {
    const auto id = idsByName_.find(name);
    return id == idsByName_.end() ? std::nullopt : std::optional(id->second);
}

bool SimulatedDeviceRegistry::setProperty(const std::string& name, std::string_view key,
                                          std::optional<PropertyList> value) {
    const std::optional<ServiceId> id = idOf(name);
    if (!id) {
        return false;
    }
    Service& service = services_.at(*id);
    unindex(*id, service);
    if (value) {
        service.description.properties.set(key, *std::move(value));
    } else {
        service.description.properties.remove(key);
    }
    index(*id, service);
    return true;
}

void SimulatedDeviceRegistry::setUnreadable(bool isUnreadable) { isUnreadable_ = isUnreadable; }

void SimulatedDeviceRegistry::index(ServiceId id, const Service& service) {
    ++generation_;
    const auto insertInOrder = [id](std::vector<ServiceId>& ids) {
        ids.insert(std::upper_bound(ids.begin(), ids.end(), id), id);
    };
    const PropertyList* bsdName = service.description.properties.find(kBsdName);
    for (const std::string& className : classesOf(service.description.className)) {
        ClassIndex& found = classes_[className];
        insertInOrder(found.ids);
        if (bsdName && bsdName->string()) {
            insertInOrder(found.idsByBsdName[*bsdName->string()]);
        }
    }
}

void SimulatedDeviceRegistry::unindex(ServiceId id, const Service& service) {
    ++generation_;
    const PropertyList* bsdName = service.description.properties.find(kBsdName);
    for (const std::string& className : classesOf(service.description.className)) {
        ClassIndex& found = classes_[className];
        std::erase(found.ids, id);
        if (bsdName && bsdName->string()) {
            std::erase(found.idsByBsdName[*bsdName->string()], id);
        }
    }
}

void SimulatedDeviceRegistry::removeInto(ServiceId id, std::vector<ServiceDescription>& removed) {
    const Service service = std::move(services_.at(id));
    services_.erase(id);
    unindex(id, service);
    idsByName_.erase(service.description.name);
    removed.push_back(service.description);
    for (const ServiceId child : service.children) {
        removeInto(child, removed);
    }
}

const SimulatedDeviceRegistry::Service* SimulatedDeviceRegistry::find(ServiceId id) const {
    const auto service = services_.find(id);
    return service == services_.end() || isUnreadable_ ? nullptr : &service->second;
}

}  // namespace korvane
