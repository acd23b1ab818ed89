#include "base/NotificationCenter.h"

#include <algorithm>
#include <utility>

namespace korvane {

void NotificationCenter::addObserver(const void* observer, std::string_view name,
                                     const void* sender, Callback callback) {
    const auto isTheSame = [&](const auto& registered) {
        return registered->observer == observer && registered->name == name &&
               registered->sender == sender;
    };
    if (std::any_of(registrations_.begin(), registrations_.end(), isTheSame)) return;
    registrations_.push_back(std::make_shared<Registration>(
        Registration{observer, std::string{name}, sender, std::move(callback)}));
}

void NotificationCenter::removeObserver(const void* observer) {
    std::erase_if(registrations_, [observer](const auto& registered) {
        if (registered->observer != observer) return false;
        registered->isRemoved = true;
        return true;
    });
}

void NotificationCenter::moveSender(const void* observer, const void* from, const void* to) {
    for (const auto& registered : registrations_) {
        if (registered->observer == observer && registered->sender == from) {
            registered->sender = to;
        }
    }
}

void NotificationCenter::post(std::string_view name, const void* sender,
                              const Dictionary& userInfo) {
    // A copy, since observers register and remove while they are called.
    const std::vector<std::shared_ptr<Registration>> registered = registrations_;
    for (const auto& registration : registered) {
        if (registration->isRemoved || registration->name != name ||
            registration->sender != sender) {
            continue;
        }
        registration->callback(Notification{name, sender, userInfo});
    }
}

}  // namespace korvane
