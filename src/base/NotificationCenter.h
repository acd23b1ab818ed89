// The process's local notification centre: who posts does not know who observes. Posting calls the
// observers at once, on the caller's thread, in the order of their registration. One thread at a
// time.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/PropertyList.h"

namespace korvane {

struct Notification {
    std::string_view name;
    const void* sender = nullptr;  // only compared, never followed
    const Dictionary& userInfo;
};

class NotificationCenter {
  public:
    using Callback = std::function<void(const Notification&)>;

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // Calls back on each notification of this name from this sender, until the observer is removed.
    // Registered again the same way, the observer is still called once.
    void addObserver(const void* observer, std::string_view name, const void* sender,
                     Callback callback);
    // Removes everything of this observer's. One that is removed in the course of a post is not
    // called any more.
    void removeObserver(const void* observer);
    // What the observer registered for one sender counts for the other from now on.
    void moveSender(const void* observer, const void* from, const void* to);

    void post(std::string_view name, const void* sender, const Dictionary& userInfo = {});

  private:
    struct Registration {
        const void* observer = nullptr;
        std::string name;
        const void* sender = nullptr;
        Callback callback;
        bool isRemoved = false;
    };
    std::vector<std::shared_ptr<Registration>> registrations_;
};

}  // namespace korvane
